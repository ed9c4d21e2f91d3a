#pragma once

// The companion stand-in (MENSURIX_SIM) run by a test, and the scripts it plays.

#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>

// The stand-in, listening, with a script and a log.
class Sim
{
public:
    //! more: further options (--no-numbering...).
    explicit Sim(const QString &script, const QStringList &more = {})
        : m_log(m_dir.filePath(QStringLiteral("sim.log")))
    {
        m_process.setProgram(QStringLiteral(MENSURIX_SIM));
        m_process.setArguments(QStringList {QStringLiteral("--script"), script,
                                            QStringLiteral("--log"), m_log,
                                            QStringLiteral("--no-input")}
                               + more);
        m_process.start();
    }
    ~Sim()
    {
        m_process.kill();
        m_process.waitForFinished();
    }
    bool listening() const { return QFileInfo(m_log).size() > 0; }
    QString log() const
    {
        QFile file(m_log);
        return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
    }
    void kill()
    {
        m_process.kill();
        m_process.waitForFinished();
    }

private:
    QTemporaryDir m_dir;
    QString m_log;
    QProcess m_process;
};

inline QString writeScript(const QTemporaryDir &dir, const QByteArray &lines)
{
    const QString path = dir.filePath(QStringLiteral("script.jsonl"));
    QFile file(path);
    file.open(QIODevice::WriteOnly);
    file.write(lines);
    return path;
}
