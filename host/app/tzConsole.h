#pragma once

#include <QListWidget>

//! The console dock's contents: one line per message, coloured by level, each also written to
//! standard error. Messages from other threads are queued to the GUI thread.
class tzConsole : public QListWidget
{
    Q_OBJECT

public:
    explicit tzConsole(QWidget *parent = nullptr);

    //! Level 0 standard, 1 warning, 2 error, 4 debug (tzLog's levels). Any thread.
    void print(const QString &text, int level);
    QStringList lines() const;

signals:
    void messageQueued(const QString &text, int level);

private slots:
    void append(const QString &text, int level);
};
