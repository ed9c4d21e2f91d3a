#pragma once

#include "TZVector3.h"
#include "tzSocket.h"

#include <QObject>
#include <QString>
#include <QThread>
#include <QTimer>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

class tzCommunicationHandler;

//! The worker of the link: blocks in the receive call on the worker thread and hands what
//! arrives to the GUI thread through the handler's one-slot inbox.
class Reader : public QObject
{
    Q_OBJECT

public slots:
    void doWork(tzCommunicationHandler *handler);

signals:
    //! Something waits in the inbox (the text itself travels through the inbox, not here).
    void resultReady(QString result);
    //! The companion closed the connection on socket, or a receive on it failed.
    void connectionLost(qint64 socket);
};

//! The TCP link with the companion application on 127.0.0.1:6601.
//!
//! Threads: the reader loop runs on the link's worker thread; everything else (connect,
//! disconnect, the senders, frame assembly and handing the frames on) on the GUI thread. The two
//! meet only in the inbox, under one plain mutex: the reader puts a received chunk there once it is
//! empty and wakes the GUI thread, which cuts the chunks into frames at each byte 0x04.
//!
//! Outbound messages are one line each, in the companion's own templates, which are not JSON
//! (missing commas, double spaces and the "Port=" pair are part of them): see the senders.
//!
//! A link that goes away is noticed (the companion closing the connection, a receive or a send
//! failing) and said (linkLost); with reconnection on, it is tried again every
//! RECONNECT_INTERVAL_MS. Texts that cannot be sent meanwhile wait in order (the newest
//! MAX_UNSENT of them) and go first, byte for byte as they were made, once the link is back.
class tzCommunicationHandler : public QObject
{
    Q_OBJECT

public:
    tzCommunicationHandler();
    //! Shuts the socket down first, so that a reader blocked in recv lets the thread end.
    ~tzCommunicationHandler() override;

    static constexpr int RECONNECT_INTERVAL_MS = 2000;
    static constexpr int MAX_UNSENT = 10000;

    //! Opens the link (a new socket each time); true when connected. Logs each step. Texts
    //! waiting from a lost link are sent first.
    bool connectToServer();
    //! Closes the socket (the reader loop then ends with its "recvfrom" line) and stops
    //! reconnecting. Texts not sent yet are kept for the next connection.
    void disconnectFromServer();
    //! Whether a lost or refused link is tried again every RECONNECT_INTERVAL_MS (while a run
    //! lasts). Turning it on while unconnected starts the attempts.
    void setReconnecting(bool on);
    bool isReconnecting() const { return m_reconnecting; }
    //! One attempt now, if the link is not up (the user asking).
    void reconnectNow();
    //! Connections tried so far (the first, the user's and the reconnection's).
    int attemptCount() const { return m_attempts; }
    //! Whether an attempt is due (the reconnection's timer runs).
    bool attemptScheduled() const { return m_reconnectTimer.isActive(); }
    bool isConnected() const { return m_linkUp; }
    //! Texts made while the link was down, waiting to be sent.
    int unsentCount() const { return int(m_unsent.size()); }

    //! "coordonnees": a new point, in the companion's coordinates.
    void sendCoordinates(double x, double y, double z);
    //! "pointMove": a sight moved. The new position comes first here, but is written in the "to"
    //! fields; the old one (the last three) in the "from" fields.
    void sendPointMove(double x, double y, double z, double oldX, double oldY, double oldZ);
    //! "mouseCursor": up goes to xUp, yUp, zUp and point to xp, yp, zp.
    void sendMouseCursor(const TZVector3d &up, const TZVector3d &point);

    //! The three texts as sent, for a port value (public so that they can be checked to the
    //! byte without a socket).
    static QByteArray coordinatesText(double x, double y, double z, int port);
    static QByteArray pointMoveText(double x, double y, double z, double oldX, double oldY,
                                    double oldZ, int port);
    static QByteArray mouseCursorText(const TZVector3d &up, const TZVector3d &point, int port);

    //! The port value copied into the outbound texts: the "portTCP" setting read at connect
    //! (0 before). It never changes the port connected to.
    int portValue() const { return m_portValue; }
    //! Where each frame cut from the link goes, in order, on the GUI thread (the run hands them
    //! to the scene's dispatcher).
    void setFrameReceiver(std::function<void(const QString &)> receiver)
    {
        m_frameReceiver = std::move(receiver);
    }
    //! Also told every frame, before the receiver (tests and tools).
    void setFrameObserver(std::function<void(const QString &)> observer)
    {
        m_frameObserver = std::move(observer);
    }

    //! Cuts frames at each byte 0x04 from what has arrived so far plus chunk, and hands them on
    //! in order; the text after the last 0x04 waits for the next chunk. GUI thread.
    void feed(const QString &chunk);

signals:
    void operate(tzCommunicationHandler *handler);
    //! The link that was up has gone (the companion closed it, or a receive or send failed).
    void linkLost();
    //! A connection was made again after a loss or a refusal; sentLate texts waiting from then
    //! went first, and dropped older ones were lost for good (more than MAX_UNSENT waited).
    void linkRestored(int sentLate, int dropped);

public slots:
    void handleResults(const QString &result);

private slots:
    void onConnectionLost(qint64 socket);

private:
    friend class Reader;
    void send(const QByteArray &text);
    //! Writes text now; false (and the link marked lost) when the socket refuses it.
    bool write(const QByteArray &text);
    void keep(const QByteArray &text);
    void markLost();
    //! Sends the texts waiting, oldest first; how many went.
    int sendUnsent();
    //! Shuts the socket down, waits for the reader loop to leave it, then closes it.
    void endConnection();

    QThread m_workerThread;
    std::atomic<tzSocket::Handle> m_socket {tzSocket::INVALID}; // read by the reader too
    std::atomic<bool> m_closing {false}; // being destroyed: nobody will empty the inbox again
    std::mutex m_readerMutex;
    std::condition_variable m_readerDone;
    bool m_readerRunning = false; // under m_readerMutex: a reader loop owns the socket
    std::mutex m_inboxMutex;
    QString m_inbox; // under m_inboxMutex
    QString m_pending; // GUI thread only: text after the last 0x04 seen
    int m_attempts = 0;
    QString m_serverAddress = QStringLiteral("127.0.0.1");
    int m_serverPort = 6601; // fixed: the settings never change it
    int m_portValue = 0;
    std::atomic<bool> m_linkUp {false}; // cleared by the reader as soon as the peer closes
    bool m_lostSaid = false; // GUI thread: linkLost emitted for the current loss
    bool m_reconnecting = false;
    bool m_retrying = false; // GUI thread: a connect made by the reconnection (quiet steps)
    QTimer m_reconnectTimer;
    std::deque<QByteArray> m_unsent; // GUI thread, oldest first
    int m_dropped = 0; // texts dropped from m_unsent since the link went
    std::function<void(const QString &)> m_frameReceiver;
    std::function<void(const QString &)> m_frameObserver;
};
