#pragma once

#include <QStringList>
#include <QtGlobal>

#include <mutex>

// Every debug line, from any thread, while it lives.
class Messages
{
public:
    Messages()
    {
        std::lock_guard<std::mutex> lock(s_mutex);
        s_lines.clear();
        m_previous = qInstallMessageHandler(&Messages::handle);
    }
    ~Messages() { qInstallMessageHandler(m_previous); }
    bool has(const QString &text) const
    {
        std::lock_guard<std::mutex> lock(s_mutex);
        return s_lines.contains(text);
    }
    QStringList lines() const
    {
        std::lock_guard<std::mutex> lock(s_mutex);
        return s_lines;
    }

private:
    static void handle(QtMsgType, const QMessageLogContext &, const QString &text)
    {
        std::lock_guard<std::mutex> lock(s_mutex);
        s_lines << text;
    }
    static inline std::mutex s_mutex;
    static inline QStringList s_lines;
    QtMessageHandler m_previous;
};
