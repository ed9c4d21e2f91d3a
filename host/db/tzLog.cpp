#include "tzLog.h"

#include <QMutex>
#include <QMutexLocker>

#include <cstdio>

namespace {
QMutex s_mutex;
tzLog::Handler &handler()
{
    static tzLog::Handler h;
    return h;
}
} // namespace

void tzLog::LogMessage(const QString &text, int level)
{
    QMutexLocker lock(&s_mutex);
    if (handler()) {
        handler()(text, level);
        return;
    }
    const char *prefix
        = (level & LOG_ERROR) ? "[ERROR] " : ((level & LOG_WARNING) ? "[WARNING] " : "");
    std::fprintf(stderr, "%s%s\n", prefix, text.toLocal8Bit().constData());
}

void tzLog::SetHandler(Handler h)
{
    QMutexLocker lock(&s_mutex);
    handler() = std::move(h);
}
