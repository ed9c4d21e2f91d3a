#pragma once

#include <QPlainTextEdit>
#include <QStringList>
#include <QTimer>

#include <vector>

//! The console dock's contents: one line per message, coloured by level, each also written to
//! standard error at once. Lines reach the widget in batches a moment later (a line per mouse
//! move must not cost a layout each), and the oldest go beyond MAX_LINES. Messages from other
//! threads are queued to the GUI thread.
class tzConsole : public QPlainTextEdit
{
    Q_OBJECT

public:
    //! The lines kept; older ones are dropped.
    static constexpr int MAX_LINES = 50000;
    //! How long a line may wait before the widget shows it.
    static constexpr int BATCH_MS = 50;

    explicit tzConsole(QWidget *parent = nullptr);

    //! Level 0 standard, 1 warning, 2 error, 4 debug (tzLog's levels). Any thread.
    void print(const QString &text, int level);
    //! The lines kept, oldest first, those still waiting for the widget included.
    QStringList lines() const;

signals:
    void messageQueued(const QString &text, int level);

private slots:
    void append(const QString &text, int level);
    void showPending();

private:
    struct Line
    {
        QString text;
        int level;
    };
    std::vector<Line> m_pending;
    QTimer m_batch;
};
