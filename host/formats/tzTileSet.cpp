// A survey delivered as tiles (a folder of LAS, LAZ or COPC files, or a list of their paths and
// URLs) read as one streamed cloud: one tree whose root holds the tiles' roots. Opening reads
// the tiles' headers only (their boxes and counts); a COPC tile is opened when the view or a
// query first reaches it and is then read node by node. A LAS or LAZ tile is three nodes, one
// under the other: one record in 64 (an even sample), the other 8th ones, and the rest; the
// view draws the first while the tile is small on the screen. A
// point's index is the points of the tiles before it plus its place in its tile: in a COPC
// tile, its place in the file; in another, its place among its node's records, after the
// nodes above it.

#include "tzByteRanges_p.h"
#include "tzCloudFile.h"
#include "tzCopc.h"
#include "tzLasFile_p.h"
#include "tzLog.h"
#include "tzStreamedCloud.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <QTextStream>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <list>
#include <mutex>
#include <numeric>
#include <thread>

namespace tzCopc {

using namespace tzCloudFile::detail;

namespace {

// The records of a tile read whole by level: one in 64, the other 8th ones, the rest (one
// level for a small tile).
constexpr std::uint64_t STRIDES[] = {64, 8, 1};
constexpr int LEVELS = 3;

int levelsOf(std::uint64_t count)
{
    return count > 16384 ? LEVELS : 1;
}
std::uint64_t strideOf(int level, int levels)
{
    return STRIDES[LEVELS - levels + level];
}
// The records of a level: the places below the count over its stride, not in the levels above.
std::uint64_t countOf(int level, int levels, std::uint64_t count)
{
    const auto upTo = [&](int l) {
        return l < 0 ? 0 : (count + strideOf(l, levels) - 1) / strideOf(l, levels);
    };
    return upTo(level) - upTo(level - 1);
}
// A record's level, from its place in a scrambled order of the tile's records: record times
// a step near the count's golden section, modulo the count (a step prime to the count makes it
// a permutation). The places below the count's 64th make the first level, those below its 8th
// the second: a level is then spread over the tile whatever the order the records come in (a
// grid's rows taken one in 8 would give stripes).
std::uint64_t scrambleStep(std::uint64_t count)
{
    std::uint64_t step = std::max<std::uint64_t>(1, std::uint64_t(double(count) * 0.6180339887));
    while (std::gcd(step, count) != 1)
        ++step;
    return step;
}
int levelOf(std::uint64_t record, std::uint64_t count, std::uint64_t step, int levels)
{
    const std::uint64_t place = record * step % count;
    int level = 0;
    while (place >= (count + strideOf(level, levels) - 1) / strideOf(level, levels))
        ++level;
    return level;
}

bool isCloudName(const QString &name)
{
    const QString lower = name.toLower();
    return lower.endsWith(QLatin1String(".las")) || lower.endsWith(QLatin1String(".laz"));
}

// The tiles a list names, one a line (blank lines and lines from '#' left out), paths taken
// from the list's folder; empty when a line names anything else.
QStringList listedTiles(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text) || file.size() > (16 << 20))
        return {};
    QStringList tiles;
    QTextStream in(&file);
    while (!in.atEnd()) {
        const QString line = in.readLine().trimmed();
        if (line.isEmpty() || line.startsWith(QLatin1Char('#')))
            continue;
        if (!isCloudName(line))
            return {};
        tiles << (isUrl(line) ? line : QFileInfo(path).dir().absoluteFilePath(line));
    }
    return tiles;
}

// The tiles of a folder, by name; a file indexed beside itself (NAME.copc.laz) is read from
// its index.
QStringList folderTiles(const QString &path)
{
    QStringList names;
    for (const QString &name : QDir(path).entryList(QDir::Files, QDir::Name)) {
        if (isCloudName(name))
            names << name;
    }
    QStringList tiles;
    for (const QString &name : names) {
        if (!names.contains(name + QStringLiteral(".copc.laz")))
            tiles << QDir(path).absoluteFilePath(name);
    }
    return tiles;
}

struct Tile
{
    QString name;
    std::uint64_t count = 0, first = 0;
    double min[3] = {}, max[3] = {};
    bool copc = false, colours = false;
    // A COPC tile's source, opened when first reached.
    std::once_flag opening;
    std::unique_ptr<tzCloudSource> source;
    QString failure;
};

class TileSet final : public tzCloudSource
{
public:
    bool open(const QString &path, const QStringList &names, QString &error)
    {
        m_path = path;
        if (names.isEmpty()) {
            error = QStringLiteral("'%1': no LAS, LAZ or COPC file in it").arg(path);
            return false;
        }
        m_tiles.resize(size_t(names.size()));
        for (size_t i = 0; i < m_tiles.size(); ++i) {
            m_tiles[i] = std::make_unique<Tile>();
            m_tiles[i]->name = names[int(i)];
        }
        // The headers, on every core (or a few at once from a server).
        std::vector<QString> problems(m_tiles.size());
        std::atomic<size_t> next {0};
        const auto work = [&] {
            for (size_t i = next++; i < m_tiles.size(); i = next++)
                readHeader(*m_tiles[i], problems[i]);
        };
        const bool remote = std::any_of(names.begin(), names.end(), isUrl);
        const size_t threads
            = std::min<size_t>(m_tiles.size(),
                               remote ? size_t(std::max(1, remoteSettings().parallel))
                                      : size_t(std::max(1u, std::thread::hardware_concurrency())));
        std::vector<std::thread> helpers;
        for (size_t t = 1; t < threads; ++t)
            helpers.emplace_back(work);
        work();
        for (std::thread &h : helpers)
            h.join();
        // A tile that cannot be read is left out, and said so; the survey is the others.
        std::vector<std::unique_ptr<Tile>> readable;
        QStringList left;
        for (size_t i = 0; i < m_tiles.size(); ++i) {
            if (problems[i].isEmpty())
                readable.push_back(std::move(m_tiles[i]));
            else
                left << problems[i];
        }
        if (readable.empty()) {
            error = left.size() == 1 ? left.front()
                                     : QStringLiteral("'%1': none of its %2 tiles can be read (%3)")
                                           .arg(path)
                                           .arg(left.size())
                                           .arg(left.front());
            return false;
        }
        for (const QString &problem : left)
            tzLog::Warning(QStringLiteral("A tile of '%1' is left out: %2").arg(path, problem));
        m_tiles = std::move(readable);
        m_remote = remote;
        for (int a = 0; a < 3; ++a) {
            m_min[a] = m_tiles.front()->min[a];
            m_max[a] = m_tiles.front()->max[a];
        }
        for (auto &t : m_tiles) {
            t->first = m_count;
            m_count += t->count;
            m_colours |= t->colours;
            for (int a = 0; a < 3; ++a) {
                m_min[a] = std::min(m_min[a], t->min[a]);
                m_max[a] = std::max(m_max[a], t->max[a]);
            }
        }
        return true;
    }

    QString path() const override { return m_path; }
    std::uint64_t pointCount() const override { return m_count; }
    void cube(double (&centre)[3], double &halfSize, double &spacing) const override
    {
        halfSize = 0;
        for (int a = 0; a < 3; ++a) {
            centre[a] = 0.5 * (m_min[a] + m_max[a]);
            halfSize = std::max(halfSize, 0.5 * (m_max[a] - m_min[a]));
        }
        halfSize = std::max(halfSize, 1e-3);
        spacing = 2 * halfSize / 128;
    }
    void pointBounds(double (&min)[3], double (&max)[3]) const override
    {
        for (int a = 0; a < 3; ++a) {
            min[a] = m_min[a];
            max[a] = m_max[a];
        }
    }
    bool hasColours() const override { return m_colours; }
    quint8 attributeKinds() const override
    {
        return tzPointDisplay::INTENSITY | tzPointDisplay::CLASSIFICATION | tzPointDisplay::RETURNS;
    }
    void nodeBox(const Node &node, double (&min)[3], double (&max)[3]) const override
    {
        const Tile *t = tileOf(node);
        const tzCloudSource *source = t ? opened(*t) : nullptr;
        if (source) {
            source->nodeBox(node, min, max);
            return;
        }
        // The set's root, a tile not opened yet, a tile read whole: the header's box.
        for (int a = 0; a < 3; ++a) {
            min[a] = t ? t->min[a] : m_min[a];
            max[a] = t ? t->max[a] : m_max[a];
        }
    }
    double nodeSpacing(const Node &node) const override
    {
        const Tile *t = tileOf(node);
        if (!t) {
            double centre[3], halfSize, spacing;
            cube(centre, halfSize, spacing);
            return spacing;
        }
        if (const tzCloudSource *source = opened(*t))
            return source->nodeSpacing(node);
        // Points spread over the tile's ground: its sample's, or all of them.
        const double area = std::max(1e-6, (t->max[0] - t->min[0]) * (t->max[1] - t->min[1]));
        const double all = std::sqrt(area / double(std::max<std::uint64_t>(1, t->count)));
        return all * std::sqrt(double(strideOf(node.depth, levelsOf(t->count))));
    }
    Node rootPage() const override
    {
        Node page;
        page.tile = -1;
        page.pointCount = -1;
        return page;
    }
    bool readPage(const Node &page, std::vector<Node> &entries, QString &error) const override
    {
        entries.clear();
        if (page.tile < 0) {
            // The set's root (no points of its own), and each tile's root: a page to read for
            // a COPC tile, the whole tile's node for the others.
            Node root;
            root.tile = -1;
            entries.push_back(root);
            for (size_t i = 0; i < m_tiles.size(); ++i) {
                const Tile &t = *m_tiles[i];
                Node n;
                n.tile = std::int32_t(i);
                n.firstPoint = t.first;
                if (t.copc) {
                    n.pointCount = -1;
                    entries.push_back(n);
                    continue;
                }
                // Its levels, one under the other (the ones below the first: x, y, z -1).
                const int levels = levelsOf(t.count);
                for (int level = 0; level < levels; ++level) {
                    n.depth = level;
                    n.x = n.y = n.z = level == 0 ? 0 : -1;
                    n.pointCount = std::int32_t(countOf(level, levels, t.count));
                    entries.push_back(n);
                    n.firstPoint += std::uint64_t(n.pointCount);
                }
            }
            return true;
        }
        Tile *t = tileOf(page);
        if (!t)
            return false;
        const tzCloudSource *source = openTile(*t, error);
        if (!source)
            return false;
        // A tile's root page is its source's.
        const bool root = page.depth == 0 && page.offset == 0 && page.byteSize == 0;
        if (!source->readPage(root ? source->rootPage() : inner(page), entries, error))
            return false;
        for (Node &e : entries) {
            e.tile = page.tile;
            e.firstPoint += t->first;
        }
        return true;
    }
    bool readNode(const Node &node, const TZVector3d &shift, double scale, Points &out,
                  QString &error) const override
    {
        Tile *t = tileOf(node);
        if (!t)
            return true; // the set's root holds no point
        bool done = false;
        if (t->copc) {
            const tzCloudSource *source = openTile(*t, error);
            done = source && source->readNode(inner(node), shift, scale, out, error);
        } else {
            done = readWhole(*t, node.depth, shift, scale, out, error);
        }
        // A tile without colours among tiles with some shows white.
        if (done && m_colours && out.colours.size() != out.points.size())
            out.colours.assign(out.points.size(), tzRgb {255, 255, 255});
        return done;
    }
    int parallelReads() const override
    {
        return m_remote ? std::max(1, remoteSettings().parallel) : 0;
    }
    int retryFailuresAfterMs() const override
    {
        return m_remote ? std::max(0, remoteSettings().retryFailuresAfterMs) : -1;
    }
    void cancel() const override
    {
        for (const auto &t : m_tiles) {
            if (const tzCloudSource *source = opened(*t))
                source->cancel();
        }
    }

private:
    Tile *tileOf(const Node &node) const
    {
        return node.tile >= 0 && size_t(node.tile) < m_tiles.size()
            ? m_tiles[size_t(node.tile)].get()
            : nullptr;
    }
    static Node inner(Node node)
    {
        node.tile = 0;
        return node;
    }
    // A COPC tile's source once opened (null before, or when it failed).
    static const tzCloudSource *opened(const Tile &t)
    {
        std::lock_guard<std::mutex> lock(openMutex());
        return t.source.get();
    }
    const tzCloudSource *openTile(Tile &t, QString &error) const
    {
        std::call_once(t.opening, [&t] {
            QString problem;
            std::unique_ptr<tzCloudSource> source = openSource(t.name, problem);
            std::lock_guard<std::mutex> lock(openMutex());
            t.source = std::move(source);
            t.failure = problem;
        });
        std::lock_guard<std::mutex> lock(openMutex());
        if (!t.source)
            error = t.failure;
        return t.source.get();
    }
    static std::mutex &openMutex()
    {
        static std::mutex mutex;
        return mutex;
    }

    // The header of a tile: its box, count and kind.
    static void readHeader(Tile &t, QString &problem)
    {
        std::unique_ptr<ByteRanges> bytes
            = isUrl(t.name) ? openUrlRanges(t.name, problem) : openFileRanges(t.name, problem);
        if (!bytes)
            return;
        try {
            const std::uint64_t size = std::min<std::uint64_t>(bytes->size(), 65536);
            std::vector<std::uint8_t> storage;
            const uchar *data = nullptr;
            QString reason;
            if (!bytes->read(0, size, storage, data, reason))
                failWith(reason);
            const Bytes head {data, size_t(size)};
            const LasHeader h = LasHeader::read(head);
            t.count = h.count;
            for (int a = 0; a < 3; ++a) {
                t.min[a] = h.bbMin[a];
                t.max[a] = h.bbMax[a];
            }
            t.colours = h.rgbOffset >= 0;
            t.copc = h.compressed && h.format >= 6 && std::uint64_t(h.headerSize) + 54 <= size
                && isCopcRecord(data + h.headerSize);
            if (isUrl(t.name) && !t.copc)
                failWith(QStringLiteral("only COPC files are read from a server, a part at a "
                                        "time"));
            // A tile read whole is one node: one that would take a good part of the memory
            // budget is indexed first (the viewer does so as it opens the tiles).
            constexpr double BYTES_PER_POINT = 53;
            if (!t.copc
                && (t.count > INT32_MAX
                    || double(t.count) * BYTES_PER_POINT
                        > double(tzStreamedCloud::defaultMemoryBudget()) / 2))
                failWith(QStringLiteral("a tile of %1 million points, too many to read whole: "
                                        "it is indexed first (tessaro --index %2 %3)")
                             .arg(double(t.count) / 1e6, 0, 'f', 1)
                             .arg(t.name, indexPathFor(t.name)));
        } catch (const ReadFailure &f) {
            problem = QStringLiteral("'%1': %2").arg(t.name, f.reason);
        }
    }

    // The points of a level of a LAS or LAZ tile, in the cloud's coordinates (the tile read
    // whole).
    bool readWhole(const Tile &t, int level, const TZVector3d &shift, double scale, Points &out,
                   QString &error) const
    {
        std::shared_ptr<const tzPointCloud> cloud = decoded(t, shift, error);
        if (!cloud)
            return false;
        if (cloud->size() != t.count) {
            error = QStringLiteral("'%1': %2 points read, its header says %3")
                        .arg(t.name)
                        .arg(cloud->size())
                        .arg(t.count);
            return false;
        }
        // The records of the level, in the file's order.
        const int levels = levelsOf(t.count);
        const std::uint64_t step = scrambleStep(t.count);
        std::vector<unsigned> which;
        which.reserve(size_t(countOf(level, levels, t.count)));
        for (unsigned i = 0; i < cloud->size(); ++i) {
            if (levelOf(i, t.count, step, levels) == level)
                which.push_back(i);
        }
        // Back to the file's coordinates, then to the cloud's, when the reader shifted by
        // another amount.
        const TZVector3d by = shift - cloud->getGlobalShift();
        const size_t n = which.size();
        out.points.resize(n);
        out.colours.resize(cloud->hasColors() ? n : 0);
        out.attributes.assign(n, tzPointAttributes {});
        const tzPointAttributes *attributes = cloud->attributeData();
        for (size_t k = 0; k < n; ++k) {
            const unsigned i = which[k];
            const TZVector3 &p = *cloud->getPoint(i);
            for (int a = 0; a < 3; ++a)
                out.points[k][a] = float((double(p[a]) + by[a]) * scale);
            if (!out.colours.empty())
                out.colours[k] = cloud->getPointColor(i);
            if (attributes)
                out.attributes[k] = attributes[i];
        }
        return true;
    }

    // A LAS or LAZ tile read whole: its levels are asked for one after the other, so the last
    // tiles read are kept a while (an eighth of the streaming budget) rather than decoded again.
    std::shared_ptr<const tzPointCloud> decoded(const Tile &t, const TZVector3d &shift,
                                                QString &error) const
    {
        {
            std::lock_guard<std::mutex> lock(m_decodedMutex);
            for (auto it = m_decoded.begin(); it != m_decoded.end(); ++it) {
                if (it->first == &t) {
                    m_decoded.splice(m_decoded.begin(), m_decoded, it); // used: the last to go
                    return m_decoded.front().second;
                }
            }
        }
        tzCloudFile::LoadOptions options;
        options.sceneShift = shift;
        options.confirmShift = [shift](TZVector3d &s, bool) {
            s = shift;
            return true;
        };
        options.note = [](const QString &) {};
        std::shared_ptr<const tzPointCloud> cloud(tzCloudFile::load(t.name, error, options));
        if (!cloud)
            return nullptr;
        std::lock_guard<std::mutex> lock(m_decodedMutex);
        m_decoded.emplace_front(&t, cloud);
        // About what a point read whole takes: its coordinates, colour and attributes.
        const auto bytes = [](const tzPointCloud &c) { return std::uint64_t(c.size()) * 24; };
        std::uint64_t held = 0;
        for (auto it = m_decoded.begin(); it != m_decoded.end();) {
            if (it != m_decoded.begin()
                && held + bytes(*it->second) > tzStreamedCloud::defaultMemoryBudget() / 8) {
                it = m_decoded.erase(it);
            } else {
                held += bytes(*it->second);
                ++it;
            }
        }
        return cloud;
    }

    QString m_path;
    mutable std::mutex m_decodedMutex;
    mutable std::list<std::pair<const Tile *, std::shared_ptr<const tzPointCloud>>> m_decoded;
    std::vector<std::unique_ptr<Tile>> m_tiles;
    std::uint64_t m_count = 0;
    double m_min[3] = {}, m_max[3] = {};
    bool m_colours = false, m_remote = false;
};

} // namespace

QString indexPathFor(const QString &path)
{
    const QFileInfo file(path);
    QString folder = file.absolutePath();
    if (!QFileInfo(folder).isWritable()) {
        folder = QDir(QStandardPaths::writableLocation(QStandardPaths::CacheLocation))
                     .filePath(QStringLiteral("indexes"));
        QDir().mkpath(folder);
    }
    return QDir(folder).filePath(file.fileName() + QStringLiteral(".copc.laz"));
}

bool isIndexOf(const QString &index, const QString &path)
{
    const QFileInfo made(index);
    return made.exists() && made.lastModified() >= QFileInfo(path).lastModified() && isCopc(index);
}

bool isTileSet(const QString &path)
{
    if (isUrl(path))
        return false;
    const QFileInfo info(path);
    if (info.isDir())
        return true;
    const QString kind = info.suffix().toLower();
    return (kind == QLatin1String("txt") || kind == QLatin1String("lst")
            || kind == QLatin1String("list"))
        && !listedTiles(path).isEmpty();
}

QStringList tilesOf(const QString &path)
{
    return QFileInfo(path).isDir() ? folderTiles(path) : listedTiles(path);
}

std::unique_ptr<tzCloudSource> openTileSet(const QString &path, QString &errorText)
{
    auto set = std::make_unique<TileSet>();
    // A tile indexed before (in the user's cache when its folder could not be written) is
    // read from its index.
    QStringList tiles = tilesOf(path);
    for (QString &tile : tiles) {
        if (!isUrl(tile) && !isCopc(tile) && isIndexOf(indexPathFor(tile), tile))
            tile = indexPathFor(tile);
    }
    if (!set->open(path, tiles, errorText))
        return nullptr;
    return set;
}

} // namespace tzCopc
