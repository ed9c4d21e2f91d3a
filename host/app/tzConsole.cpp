#include "tzConsole.h"

#include <QScrollBar>
#include <QTextBlock>
#include <QTextCursor>
#include <QThread>
#include <QTime>

#include <cstdio>

tzConsole::tzConsole(QWidget *parent)
    : QPlainTextEdit(parent)
{
    setObjectName(QStringLiteral("console"));
    setReadOnly(true);
    setLineWrapMode(QPlainTextEdit::NoWrap);
    setMaximumBlockCount(MAX_LINES);
    setUndoRedoEnabled(false);
    m_batch.setSingleShot(true);
    m_batch.setInterval(BATCH_MS);
    connect(&m_batch, &QTimer::timeout, this, &tzConsole::showPending);
    connect(this, &tzConsole::messageQueued, this, &tzConsole::append, Qt::QueuedConnection);
}

void tzConsole::print(const QString &text, int level)
{
    if (QThread::currentThread() == thread())
        append(text, level);
    else
        emit messageQueued(text, level);
}

void tzConsole::append(const QString &text, int level)
{
    static const char *const prefixes[] = {"", "[Warning] ", "[ERROR] ", "", "[Debug] "};
    const char *prefix = level >= 0 && level <= 4 ? prefixes[level] : "";
    const QString line = QStringLiteral("[%1] %2%3")
                             .arg(QTime::currentTime().toString(QStringLiteral("HH:mm:ss")),
                                  QString::fromLatin1(prefix), text);
    std::fprintf(stderr, "%s\n", line.toLocal8Bit().constData());
    std::fflush(stderr);
    m_pending.push_back({line, level});
    // A long burst is cut now and then, not at every line.
    if (int(m_pending.size()) >= 2 * MAX_LINES)
        m_pending.erase(m_pending.begin(), m_pending.end() - MAX_LINES);
    if (!m_batch.isActive())
        m_batch.start();
}

void tzConsole::showPending()
{
    if (m_pending.empty())
        return;
    QScrollBar *bar = verticalScrollBar();
    const bool atBottom = bar->value() == bar->maximum();
    QTextCursor cursor(document());
    cursor.beginEditBlock();
    cursor.movePosition(QTextCursor::End);
    const size_t first = m_pending.size() > size_t(MAX_LINES) ? m_pending.size() - MAX_LINES : 0;
    for (auto line = m_pending.begin() + std::ptrdiff_t(first); line != m_pending.end(); ++line) {
        QTextCharFormat format;
        if (line->level == 1)
            format.setForeground(QColor(200, 120, 0));
        else if (line->level == 2)
            format.setForeground(QColor(220, 0, 0));
        else if (line->level == 4)
            format.setForeground(QColor(120, 120, 120));
        // A message is one line of the console: its own line breaks stay inside it.
        QString text = line->text;
        text.replace(QLatin1Char('\n'), QChar::LineSeparator);
        if (!document()->isEmpty())
            cursor.insertBlock();
        cursor.insertText(text, format);
    }
    cursor.endEditBlock();
    m_pending.clear();
    // Followed while the user has not scrolled back.
    if (atBottom)
        bar->setValue(bar->maximum());
}

QStringList tzConsole::lines() const
{
    QStringList texts;
    for (QTextBlock block = document()->begin(); block.isValid(); block = block.next())
        texts << block.text().replace(QChar::LineSeparator, QLatin1Char('\n'));
    if (document()->isEmpty())
        texts.clear();
    for (const Line &line : m_pending)
        texts << line.text;
    if (texts.size() > MAX_LINES)
        texts.erase(texts.begin(), texts.end() - MAX_LINES);
    return texts;
}
