// The table of the formats the viewer opens, by extension.

#include "tzCloudFormats_p.h"

#include "tzLog.h"

#include <QFileInfo>

#include <chrono>
#include <thread>

namespace tzCloudFile {
namespace detail {

const std::vector<Format> &formats()
{
    static const std::vector<Format> all {
        {QStringLiteral("PLY"), {QStringLiteral("ply")}, readPly, nullptr, describePly},
        {QStringLiteral("LAS and LAZ"),
         {QStringLiteral("las"), QStringLiteral("laz")},
         readLas,
         nullptr,
         describeLas,
         nullptr,
         convertLas},
        {QStringLiteral("E57"),
         {QStringLiteral("e57")},
         readE57,
         readE57Group,
         describeE57,
         readE57Scans},
        {QStringLiteral("PCD"), {QStringLiteral("pcd")}, readPcd, nullptr, describePcd},
        {QStringLiteral("Text"), textKinds(), readText},
        {QStringLiteral("Tessaro scenes"), {QStringLiteral("tzs")}, nullptr},
    };
    return all;
}

const Format *formatOf(const QString &extension)
{
    const QString lower = extension.toLower();
    for (const Format &format : formats()) {
        if (format.extensions.contains(lower))
            return &format;
    }
    return nullptr;
}

void SharedWork::run(unsigned threads, CloudBuilder &builder, size_t total,
                     const std::function<void()> &work)
{
    std::vector<std::thread> workers;
    for (unsigned t = 0; t < threads; ++t) {
        workers.emplace_back([this, &work] {
            work();
            std::lock_guard<std::mutex> lock(m_mutex);
            ++m_finished;
            m_changed.notify_all();
        });
    }
    bool cancelled = false;
    while (true) {
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_changed.wait_for(lock, std::chrono::milliseconds(50),
                               [&] { return m_finished == threads; });
            if (m_finished == threads)
                break;
        }
        try {
            builder.progress(m_done.load(), total);
        } catch (const Cancelled &) {
            cancelled = true;
            m_stop = true;
        }
    }
    for (std::thread &worker : workers)
        worker.join();
    if (cancelled)
        throw Cancelled {};
    if (!m_error.isEmpty())
        failWith(m_error);
}

void SharedWork::fail(const QString &reason)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_error.isEmpty())
        m_error = reason;
    m_stop = true;
}

unsigned threadsFor(size_t count)
{
    return unsigned(std::max<size_t>(
        1, std::min<size_t>(std::max(1u, std::thread::hardware_concurrency()), count)));
}

void note(const LoadOptions &options, const QString &text)
{
    if (options.note)
        options.note(text);
    else
        tzLog::Warning(text);
}

} // namespace detail

const QStringList &textKinds()
{
    static const QStringList kinds {QStringLiteral("xyz"), QStringLiteral("txt"),
                                    QStringLiteral("asc"), QStringLiteral("pts"),
                                    QStringLiteral("csv"), QStringLiteral("xyzrgb"),
                                    QStringLiteral("xyzn")};
    return kinds;
}

bool isScene(const QString &path)
{
    const detail::Format *format = detail::formatOf(QFileInfo(path).suffix());
    return format && !format->read;
}

QString openFilter()
{
    QStringList clouds, filters;
    for (const detail::Format &format : detail::formats()) {
        if (!format.read)
            continue;
        QStringList patterns;
        for (const QString &extension : format.extensions)
            patterns << QStringLiteral("*.") + extension;
        clouds << patterns;
        filters << QStringLiteral("%1 (%2)").arg(format.description,
                                                 patterns.join(QLatin1Char(' ')));
    }
    filters.prepend(QStringLiteral("Point clouds (%1)").arg(clouds.join(QLatin1Char(' '))));
    filters << QStringLiteral("All files (*)");
    return filters.join(QStringLiteral(";;"));
}

} // namespace tzCloudFile
