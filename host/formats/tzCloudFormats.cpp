// The table of the formats the viewer opens, by extension.

#include "tzCloudFormats_p.h"

#include <tuple>

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

namespace {

//! The bits of v in reverse order, of a number of the given bits.
std::uint32_t reversed(std::uint32_t v, int bits)
{
    std::uint32_t r = 0;
    for (int b = 0; b < bits; ++b)
        r |= ((v >> b) & 1u) << (bits - 1 - b);
    return r;
}

} // namespace

std::vector<size_t> coveringOrder(const std::vector<std::pair<double, double>> &places)
{
    // A 64 x 64 grid over the places; along a Morton curve of its cells read backwards in
    // bits, consecutive cells are far apart.
    constexpr int BITS = 6;
    double min[2] = {1e300, 1e300}, max[2] = {-1e300, -1e300};
    for (const auto &[x, y] : places) {
        const double at[2] = {x, y};
        for (int a = 0; a < 2; ++a) {
            if (std::isfinite(at[a])) {
                min[a] = std::min(min[a], at[a]);
                max[a] = std::max(max[a], at[a]);
            }
        }
    }
    std::vector<std::tuple<size_t, std::uint32_t, size_t>> keys; // rank in its cell, cell, piece
    std::vector<size_t> inCell(size_t(1) << (2 * BITS), 0);
    for (size_t i = 0; i < places.size(); ++i) {
        const double at[2] = {places[i].first, places[i].second};
        std::uint32_t cell[2] = {0, 0};
        for (int a = 0; a < 2; ++a) {
            const double u = max[a] > min[a] ? (at[a] - min[a]) / (max[a] - min[a]) : 0.0;
            cell[a] = std::uint32_t(std::clamp(std::isfinite(u) ? u : 0.0, 0.0, 0.999999)
                                    * (1 << BITS));
        }
        std::uint32_t morton = 0;
        for (int b = 0; b < BITS; ++b)
            morton |= ((cell[0] >> b) & 1u) << (2 * b) | ((cell[1] >> b) & 1u) << (2 * b + 1);
        keys.emplace_back(inCell[morton]++, reversed(morton, 2 * BITS), i);
    }
    std::sort(keys.begin(), keys.end());
    // The first pieces each as far as can be from those before (a few hundred: the first
    // pictures), then the others along that curve.
    constexpr size_t FARTHEST = 256;
    const size_t n = places.size();
    std::vector<size_t> order;
    order.reserve(n);
    std::vector<char> taken(n, 0);
    std::vector<double> distance(n, 1e300);
    const auto at = [&](size_t i, int a) {
        const double v = a == 0 ? places[i].first : places[i].second;
        return std::isfinite(v) && max[a] > min[a] ? (v - min[a]) / (max[a] - min[a]) : 0.0;
    };
    for (size_t pick = 0; pick < std::min(n, FARTHEST); ++pick) {
        size_t farthest = 0;
        for (size_t i = 0; i < n; ++i) {
            if (!taken[i] && (taken[farthest] || distance[i] > distance[farthest]))
                farthest = i;
        }
        taken[farthest] = 1;
        order.push_back(farthest);
        for (size_t i = 0; i < n; ++i) {
            const double dx = at(i, 0) - at(farthest, 0), dy = at(i, 1) - at(farthest, 1);
            distance[i] = std::min(distance[i], dx * dx + dy * dy);
        }
    }
    for (const auto &key : keys) {
        if (!taken[std::get<2>(key)])
            order.push_back(std::get<2>(key));
    }
    return order;
}

std::vector<size_t> spreadOrder(size_t count)
{
    int bits = 0;
    while ((size_t(1) << bits) < count)
        ++bits;
    std::vector<size_t> order;
    order.reserve(count);
    for (std::uint32_t i = 0; i < (std::uint32_t(1) << bits); ++i) {
        const std::uint32_t piece = reversed(i, bits);
        if (piece < count)
            order.push_back(piece);
    }
    return order;
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
