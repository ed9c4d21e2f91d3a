#include "tzConsole.h"

#include <QThread>
#include <QTime>

#include <cstdio>

tzConsole::tzConsole(QWidget *parent)
    : QListWidget(parent)
{
    setObjectName(QStringLiteral("console"));
    setSelectionMode(QAbstractItemView::ExtendedSelection);
    setUniformItemSizes(true);
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
    auto *item = new QListWidgetItem(line, this);
    if (level == 1)
        item->setForeground(QColor(200, 120, 0));
    else if (level == 2)
        item->setForeground(QColor(220, 0, 0));
    else if (level == 4)
        item->setForeground(QColor(120, 120, 120));
    scrollToBottom();
}

QStringList tzConsole::lines() const
{
    QStringList texts;
    for (int i = 0; i < count(); ++i)
        texts << item(i)->text();
    return texts;
}
