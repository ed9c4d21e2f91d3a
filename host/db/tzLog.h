#pragma once

#include "qtz_db_global.h"

#include <QString>

#include <functional>

//! The host log. Messages go to the handler the application installs (its console); without one
//! they go to standard error.
class QTZ_DB_LIB_API tzLog
{
public:
    enum MessageLevel { LOG_STANDARD = 0, LOG_WARNING = 1, LOG_ERROR = 2, LOG_DEBUG = 4 };
    using Handler = std::function<void(const QString &text, int level)>;

    static void LogMessage(const QString &text, int level);
    static void Print(const QString &text) { LogMessage(text, LOG_STANDARD); }
    static void Warning(const QString &text) { LogMessage(text, LOG_WARNING); }
    static void Error(const QString &text) { LogMessage(text, LOG_ERROR); }

    //! Installs the receiver of every message; an empty handler restores standard error.
    static void SetHandler(Handler handler);
};
