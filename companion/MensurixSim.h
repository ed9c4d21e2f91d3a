#pragma once

#include <QByteArray>
#include <QFile>
#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

//! The companion stand-in: listens for the plug-in, prints what it receives (decoded, raw, and
//! whether it is the companion's template to the byte), and sends it frames, each ended by the
//! byte 0x04, from a script of lines or from lines typed on standard input.
//!
//! A line is a frame when it starts with '{' (sent as written), a comment when it starts with
//! '#', or a command:
//!   !wait MS      pause the script
//!   !split N      send the following frames in writes of N bytes (0: whole)
//!   !raw TEXT     send TEXT as it is, with no 0x04 ("\x04", "\n" and "\\" are understood)
//!   !close        close the connection (a new one is accepted)
//!   !quit         stop
class MensurixSim : public QObject
{
    Q_OBJECT

public:
    struct Options
    {
        quint16 port = 6601;
        QString script; // JSON-lines file run once a client is connected
        QString log; // a copy of everything printed
        bool readStdin = true;
        bool quitAfterScript = false; // stop once the script has run and the client has gone
        bool numberSights = true; // answer each "coordonnees" with a numbered CVisee frame
    };

    explicit MensurixSim(const Options &options, QObject *parent = nullptr);
    bool start();
    //! Runs one script or typed line (a frame, a command, a comment).
    void runLine(const QString &line);

    //! The kind of a received message, its numbers, and the template text they give (empty when
    //! the kind is unknown). A message is the companion's when it equals that text to the byte.
    static QByteArray templateFor(const QByteArray &message, QString *kind, QList<double> *values);

private:
    void print(const QString &text);
    void onNewConnection();
    void onReadyRead();
    void report(const QByteArray &line);
    void sendBytes(const QByteArray &bytes);
    void sendFrame(const QString &frame);
    //! Notes the number and ident of a CVisee frame sent, so that the next ones are free.
    void noteSight(const QString &frame);
    //! Where the numbering starts: above the script's sights and those numbered before.
    void startNumbering();
    void numberSight(double x, double y, double z);
    void moveSight(const QList<double> &fromTo);
    void runScript();
    void nextScriptLine();

    Options m_options;
    QTcpServer m_server;
    QPointer<QTcpSocket> m_client;
    QByteArray m_received; // bytes after the last line feed
    QFile m_log;
    QStringList m_script;
    int m_scriptLine = 0;
    bool m_scriptStarted = false;
    bool m_scriptDone = false;
    int m_split = 0;
    QTimer m_pause;
    int m_framesSent = 0;
    int m_lastNumber = 1000; // of the sights sent
    int m_lastIdent = 0;
    QString m_numbersPath; // the last number and ident given, kept across runs of a script
    struct Sight
    {
        int ident = 0;
        QString number;
        double x = 0, y = 0, z = 0;
    };
    QList<Sight> m_sights; // the sights it has sent, where they are
    int m_messages = 0;
};
