// Reading a COPC file a node at a time.

#include "tzCopc.h"

#include "tzByteRanges_p.h"
#include "tzLasFile_p.h"
#include "tzStreamedCloud.h"

#include <QFile>

#include <algorithm>
#include <cmath>
#include <cstring>

namespace tzCopc {

using namespace tzCloudFile::detail;

void Info::bounds(const Key &key, double (&min)[3], double (&max)[3]) const
{
    const double side = 2 * halfSize / double(std::int64_t(1) << key.depth);
    const std::int32_t at[3] = {key.x, key.y, key.z};
    for (int d = 0; d < 3; ++d) {
        min[d] = center[d] - halfSize + side * at[d];
        max[d] = min[d] + side;
    }
}

struct File::Impl
{
    QString path;
    std::unique_ptr<ByteRanges> bytes;
    LasHeader header;
    tzLaz::Description description;
    Info info;
    std::vector<std::pair<std::uint64_t, std::uint64_t>> firstPoints; // chunk offset, first point

    QString problem(const QString &reason) const
    {
        return QStringLiteral("'%1': %2").arg(path, reason);
    }
    //! Bytes [offset, offset + length), or a failure naming the file.
    const uchar *read(std::uint64_t offset, std::uint64_t length,
                      std::vector<std::uint8_t> &storage) const
    {
        const uchar *data = nullptr;
        QString error;
        if (!bytes->read(offset, length, storage, data, error))
            failWith(error);
        return data;
    }
};

File::File()
    : d(std::make_unique<Impl>())
{
}

File::~File() = default;

bool File::open(const QString &path, QString &errorText)
{
    d->path = path;
    d->bytes = isUrl(path) ? openUrlRanges(path, errorText) : openFileRanges(path, errorText);
    if (!d->bytes)
        return false;
    try {
        // The header and the VLRs, up to the point data and the chunk table's place.
        const std::uint64_t size = d->bytes->size();
        std::vector<std::uint8_t> headStorage;
        Bytes head {d->read(0, std::min<std::uint64_t>(size, 4096), headStorage),
                    size_t(std::min<std::uint64_t>(size, 4096))};
        d->header = LasHeader::read(head);
        const std::uint64_t upTo = std::min<std::uint64_t>(size, d->header.dataOffset + 8);
        head = {d->read(0, upTo, headStorage), size_t(upTo)};
        const LasHeader &h = d->header;
        if (!h.compressed || h.format < 6 || h.format > 8)
            failWith(QStringLiteral("not a COPC file (LAZ of point format 6 to 8 expected, the "
                                    "file is %1 of point format %2)")
                         .arg(h.compressed ? QStringLiteral("LAZ") : QStringLiteral("LAS"))
                         .arg(h.format));
        const uchar *info = nullptr;
        forEachVlr(head, h, [&](const uchar *vlr, quint16 length) {
            if (!info && isCopcRecord(vlr) && loadAs<quint16>(vlr + 18, false) == 1
                && length >= 160)
                info = vlr + 54;
        });
        if (!info)
            failWith(QStringLiteral("not a COPC file (no 'copc' info VLR)"));
        Info &i = d->info;
        for (int a = 0; a < 3; ++a)
            i.center[a] = loadAs<double>(info + 8 * a, false);
        i.halfSize = loadAs<double>(info + 24, false);
        i.spacing = loadAs<double>(info + 32, false);
        i.rootPageOffset = loadAs<quint64>(info + 40, false);
        i.rootPageSize = loadAs<quint64>(info + 48, false);
        i.gpsTimeMin = loadAs<double>(info + 56, false);
        i.gpsTimeMax = loadAs<double>(info + 64, false);
        if (!(i.halfSize > 0) || !std::isfinite(i.halfSize))
            failWith(
                QStringLiteral("the COPC info gives an octree of half size %1").arg(i.halfSize));
        // From a server, the root page comes while the chunk table is read.
        d->bytes->prefetch(i.rootPageOffset, i.rootPageSize);
        d->description = lazDescription(head, h);
        if (d->description.recordLength() != h.recordLength)
            failWith(QStringLiteral("the laszip VLR's items make records of %1 bytes, the "
                                    "header says %2")
                         .arg(d->description.recordLength())
                         .arg(h.recordLength));
        // Where each node's points come in the file: the chunk table's counts, added up; without
        // a table, every node's entry.
        std::vector<tzLaz::Chunk> chunks;
        if (readChunkTable(chunks)) {
            std::uint64_t first = 0;
            for (const tzLaz::Chunk &c : chunks) {
                d->firstPoints.push_back({c.offset, first});
                first += c.points;
            }
        } else {
            std::vector<Entry> nodes;
            if (!readHierarchy(nodes, errorText))
                return false;
            std::sort(nodes.begin(), nodes.end(),
                      [](const Entry &a, const Entry &b) { return a.offset < b.offset; });
            std::uint64_t first = 0;
            for (const Entry &n : nodes) {
                if (n.pointCount > 0) {
                    d->firstPoints.push_back({n.offset, first});
                    first += std::uint64_t(n.pointCount);
                }
            }
        }
    } catch (const ReadFailure &failure) {
        errorText = d->problem(failure.reason);
        return false;
    }
    return true;
}

bool File::readChunkTable(std::vector<tzLaz::Chunk> &chunks) const
{
    // Its place is stored at the start of the point data (or, written to a stream, at the
    // very end); it runs up to the extended VLRs, or the end.
    const LasHeader &h = d->header;
    const std::uint64_t size = d->bytes->size();
    if (std::uint64_t(h.dataOffset) + 8 > size)
        return false;
    std::vector<std::uint8_t> storage;
    std::int64_t at = loadAs<qint64>(d->read(h.dataOffset, 8, storage), false);
    if (at == -1 && size >= 8)
        at = loadAs<qint64>(d->read(size - 8, 8, storage), false);
    if (at < std::int64_t(h.dataOffset) + 8 || std::uint64_t(at) + 8 > size)
        return false;
    const std::uint64_t end
        = h.evlrStart > std::uint64_t(at) && h.evlrStart <= size ? h.evlrStart : size;
    const uchar *table = d->read(std::uint64_t(at), end - std::uint64_t(at), storage);
    std::string error;
    return tzLaz::decodeChunkTable(table, size_t(end - std::uint64_t(at)), std::uint64_t(at),
                                   h.dataOffset, h.count, d->description, chunks, error);
}

bool File::firstPointAt(std::uint64_t offset, std::uint64_t &first) const
{
    const auto &table = d->firstPoints;
    const auto it = std::lower_bound(table.begin(), table.end(), offset,
                                     [](const std::pair<std::uint64_t, std::uint64_t> &e,
                                        std::uint64_t o) { return e.first < o; });
    if (it == table.end() || it->first != offset)
        return false;
    first = it->second;
    return true;
}

void File::cancel() const
{
    if (d->bytes)
        d->bytes->cancel();
}

bool File::isRemote() const
{
    return d->bytes && d->bytes->remote();
}

const QString &File::path() const
{
    return d->path;
}

const Info &File::info() const
{
    return d->info;
}

int File::pointFormat() const
{
    return d->header.format;
}

int File::recordLength() const
{
    return d->header.recordLength;
}

std::uint64_t File::pointCount() const
{
    return d->header.count;
}

const double (&File::scale() const)[3]
{
    return d->header.scale;
}

const double (&File::offset() const)[3]
{
    return d->header.offset;
}

void File::pointBounds(double (&min)[3], double (&max)[3]) const
{
    for (int a = 0; a < 3; ++a) {
        min[a] = d->header.bbMin[a];
        max[a] = d->header.bbMax[a];
    }
}

bool File::readPage(std::uint64_t offset, std::uint64_t size, std::vector<Entry> &entries,
                    QString &errorText) const
{
    entries.clear();
    const std::uint64_t fileSize = d->bytes->size();
    if (offset > fileSize || size > fileSize - offset || size % 32 != 0) {
        errorText = d->problem(QStringLiteral("a hierarchy page (%1 bytes at byte %2) lies "
                                              "outside the file")
                                   .arg(size)
                                   .arg(offset));
        return false;
    }
    std::vector<std::uint8_t> storage;
    const uchar *page = nullptr;
    try {
        page = d->read(offset, size, storage);
    } catch (const ReadFailure &failure) {
        errorText = d->problem(failure.reason);
        return false;
    }
    entries.reserve(size_t(size / 32));
    for (std::uint64_t at = offset; at < offset + size; at += 32) {
        const uchar *e = page + (at - offset);
        Entry entry;
        entry.key = {loadAs<qint32>(e, false), loadAs<qint32>(e + 4, false),
                     loadAs<qint32>(e + 8, false), loadAs<qint32>(e + 12, false)};
        entry.offset = loadAs<quint64>(e + 16, false);
        entry.byteSize = loadAs<qint32>(e + 24, false);
        entry.pointCount = loadAs<qint32>(e + 28, false);
        const Key &k = entry.key;
        const std::int64_t side = k.depth >= 0 && k.depth < 31 ? std::int64_t(1) << k.depth : 0;
        if (side == 0 || k.x < 0 || k.y < 0 || k.z < 0 || k.x >= side || k.y >= side || k.z >= side
            || entry.pointCount < -1 || entry.byteSize < 0 || entry.offset > fileSize
            || std::uint64_t(entry.byteSize) > fileSize - entry.offset) {
            errorText = d->problem(QStringLiteral("the hierarchy entry at byte %1 is impossible "
                                                  "(node %2-%3-%4-%5, %6 bytes at byte %7)")
                                       .arg(at)
                                       .arg(k.depth)
                                       .arg(k.x)
                                       .arg(k.y)
                                       .arg(k.z)
                                       .arg(entry.byteSize)
                                       .arg(entry.offset));
            return false;
        }
        entries.push_back(entry);
    }
    return true;
}

bool File::readHierarchy(std::vector<Entry> &nodes, QString &errorText) const
{
    nodes.clear();
    std::vector<std::pair<std::uint64_t, std::uint64_t>> pages {
        {d->info.rootPageOffset, d->info.rootPageSize}};
    std::vector<Entry> entries;
    for (size_t read = 0; !pages.empty(); ++read) {
        if (read > 1000000) {
            errorText = d->problem(QStringLiteral("the hierarchy's pages refer to each other"));
            return false;
        }
        const auto [offset, size] = pages.back();
        pages.pop_back();
        if (!readPage(offset, size, entries, errorText))
            return false;
        for (const Entry &e : entries) {
            if (e.isPage())
                pages.push_back({e.offset, std::uint64_t(e.byteSize)});
            else
                nodes.push_back(e);
        }
    }
    return true;
}

bool File::readRecords(const Entry &node, std::vector<std::uint8_t> &records,
                       QString &errorText) const
{
    records.clear();
    if (node.pointCount <= 0)
        return true;
    const std::uint64_t fileSize = d->bytes->size();
    if (node.offset > fileSize || std::uint64_t(node.byteSize) > fileSize - node.offset) {
        errorText = d->problem(QStringLiteral("the chunk of node %1-%2-%3-%4 lies outside the "
                                              "file")
                                   .arg(node.key.depth)
                                   .arg(node.key.x)
                                   .arg(node.key.y)
                                   .arg(node.key.z));
        return false;
    }
    try {
        records.resize(size_t(node.pointCount) * d->header.recordLength);
    } catch (const std::bad_alloc &) {
        errorText
            = d->problem(QStringLiteral("not enough memory for %1 points").arg(node.pointCount));
        return false;
    }
    std::vector<std::uint8_t> storage;
    const uchar *chunk = nullptr;
    QString reason;
    if (!d->bytes->read(node.offset, std::uint64_t(node.byteSize), storage, chunk, reason)) {
        errorText = d->problem(QStringLiteral("node %1-%2-%3-%4: %5")
                                   .arg(node.key.depth)
                                   .arg(node.key.x)
                                   .arg(node.key.y)
                                   .arg(node.key.z)
                                   .arg(reason));
        records.clear();
        return false;
    }
    // A decoder is cheap next to a chunk's points, and one per call lets any thread read.
    tzLaz::ChunkDecoder decoder(d->description);
    size_t consumed = 0;
    std::string error;
    if (!decoder.decode(chunk, size_t(node.byteSize), quint32(node.pointCount), records.data(),
                        consumed, error)) {
        errorText = d->problem(QStringLiteral("node %1-%2-%3-%4 at byte %5: %6")
                                   .arg(node.key.depth)
                                   .arg(node.key.x)
                                   .arg(node.key.y)
                                   .arg(node.key.z)
                                   .arg(node.offset)
                                   .arg(QString::fromStdString(error)));
        records.clear();
        return false;
    }
    return true;
}

Point File::pointOf(const std::uint8_t *r) const
{
    const LasHeader &h = d->header;
    Point p;
    p.x = loadAs<qint32>(r, false) * h.scale[0] + h.offset[0];
    p.y = loadAs<qint32>(r + 4, false) * h.scale[1] + h.offset[1];
    p.z = loadAs<qint32>(r + 8, false) * h.scale[2] + h.offset[2];
    p.intensity = loadAs<quint16>(r + 12, false);
    p.returns = r[14];
    p.classification = r[16];
    p.gpsTime = loadAs<double>(r + 22, false);
    if (h.format >= 7) {
        p.red = loadAs<quint16>(r + 30, false);
        p.green = loadAs<quint16>(r + 32, false);
        p.blue = loadAs<quint16>(r + 34, false);
    }
    return p;
}

bool File::readPoints(const Entry &node, std::vector<Point> &points, QString &errorText) const
{
    std::vector<std::uint8_t> records;
    if (!readRecords(node, records, errorText))
        return false;
    const size_t length = d->header.recordLength;
    points.resize(records.size() / length);
    for (size_t i = 0; i < points.size(); ++i)
        points[i] = pointOf(records.data() + i * length);
    return true;
}

namespace {

// A COPC file as the source of a streamed cloud.
class Source final : public tzCloudSource
{
public:
    bool open(const QString &path, QString &errorText)
    {
        if (!m_file.open(path, errorText))
            return false;
        m_colours = m_file.pointFormat() >= 7;
        if (m_colours) {
            // The root's colours tell whether the file's are 16-bit or 8-bit values.
            std::vector<Entry> entries;
            const Info &i = m_file.info();
            if (!m_file.readPage(i.rootPageOffset, i.rootPageSize, entries, errorText))
                return false;
            for (const Entry &e : entries) {
                if (e.key == Key {} && !e.isPage()) {
                    std::vector<std::uint8_t> records;
                    if (!m_file.readRecords(e, records, errorText))
                        return false;
                    const size_t length = size_t(m_file.recordLength());
                    for (size_t at = 0; at + length <= records.size() && !m_sixteenBits;
                         at += length) {
                        for (int k = 0; k < 3; ++k)
                            m_sixteenBits
                                |= loadAs<quint16>(records.data() + at + 30 + 2 * k, false) > 255;
                    }
                }
            }
        }
        return true;
    }

    QString path() const override { return m_file.path(); }
    int parallelReads() const override
    {
        return m_file.isRemote() ? std::max(1, remoteSettings().parallel) : 0;
    }
    void cancel() const override { m_file.cancel(); }
    int retryFailuresAfterMs() const override
    {
        return m_file.isRemote() ? std::max(0, remoteSettings().retryFailuresAfterMs) : -1;
    }
    std::uint64_t pointCount() const override { return m_file.pointCount(); }
    void cube(double (&centre)[3], double &halfSize, double &spacing) const override
    {
        const Info &i = m_file.info();
        for (int a = 0; a < 3; ++a)
            centre[a] = i.center[a];
        halfSize = i.halfSize;
        spacing = i.spacing > 0 ? i.spacing : 2 * i.halfSize / 128;
    }
    void pointBounds(double (&min)[3], double (&max)[3]) const override
    {
        m_file.pointBounds(min, max);
    }
    bool hasColours() const override { return m_colours; }
    quint8 attributeKinds() const override
    {
        return tzPointDisplay::INTENSITY | tzPointDisplay::CLASSIFICATION | tzPointDisplay::RETURNS;
    }
    Node rootPage() const override
    {
        Node page;
        page.pointCount = -1;
        page.offset = m_file.info().rootPageOffset;
        page.byteSize = m_file.info().rootPageSize;
        return page;
    }
    bool readPage(const Node &page, std::vector<Node> &entries, QString &error) const override
    {
        std::vector<Entry> read;
        if (!m_file.readPage(page.offset, page.byteSize, read, error))
            return false;
        entries.clear();
        entries.reserve(read.size());
        for (const Entry &e : read) {
            Node n;
            n.depth = e.key.depth;
            n.x = e.key.x;
            n.y = e.key.y;
            n.z = e.key.z;
            n.pointCount = e.isPage() ? -1 : e.pointCount;
            n.offset = e.offset;
            n.byteSize = std::uint64_t(std::max(0, e.byteSize));
            if (n.pointCount > 0 && !m_file.firstPointAt(e.offset, n.firstPoint)) {
                error = QStringLiteral("'%1': node %2-%3-%4-%5 lies at byte %6, where no chunk "
                                       "of the chunk table starts")
                            .arg(m_file.path())
                            .arg(n.depth)
                            .arg(n.x)
                            .arg(n.y)
                            .arg(n.z)
                            .arg(n.offset);
                return false;
            }
            entries.push_back(n);
        }
        return true;
    }
    bool readNode(const Node &node, const TZVector3d &shift, double scale, Points &out,
                  QString &error) const override
    {
        Entry e;
        e.key = {node.depth, node.x, node.y, node.z};
        e.offset = node.offset;
        e.byteSize = std::int32_t(node.byteSize);
        e.pointCount = node.pointCount;
        std::vector<std::uint8_t> records;
        if (!m_file.readRecords(e, records, error))
            return false;
        const size_t length = size_t(m_file.recordLength());
        const size_t n = records.size() / length;
        const double(&s)[3] = m_file.scale();
        const double(&o)[3] = m_file.offset();
        try {
            out.points.resize(n);
            out.attributes.resize(n);
            out.colours.resize(m_colours ? n : 0);
        } catch (const std::bad_alloc &) {
            error
                = QStringLiteral("'%1': not enough memory for %2 points").arg(m_file.path()).arg(n);
            return false;
        }
        const int down = m_sixteenBits ? 8 : 0;
        for (size_t i = 0; i < n; ++i) {
            const std::uint8_t *r = records.data() + i * length;
            for (int a = 0; a < 3; ++a) {
                const double g = loadAs<qint32>(r + 4 * a, false) * s[a] + o[a];
                out.points[i][a] = float((g + shift[a]) * scale);
            }
            tzPointAttributes &at = out.attributes[i];
            at.intensity = loadAs<quint16>(r + 12, false);
            at.returns = r[14];
            at.classification = r[16];
            if (m_colours) {
                out.colours[i] = {quint8(loadAs<quint16>(r + 30, false) >> down),
                                  quint8(loadAs<quint16>(r + 32, false) >> down),
                                  quint8(loadAs<quint16>(r + 34, false) >> down)};
            }
        }
        return true;
    }

private:
    File m_file;
    bool m_colours = false;
    bool m_sixteenBits = false;
};

} // namespace

std::unique_ptr<tzCloudSource> openSource(const QString &path, QString &errorText)
{
    if (isTileSet(path))
        return openTileSet(path, errorText);
    auto source = std::make_unique<Source>();
    if (!source->open(path, errorText))
        return nullptr;
    return source;
}

namespace {

// Scene files name the COPC files their streamed clouds are read from.
const bool g_openerSet = [] {
    tzStreamedCloud::setSourceOpener(&openSource);
    return true;
}();

} // namespace

bool isCopc(const QString &path)
{
    // The COPC info VLR comes first, right after the header.
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    const QByteArray head = file.read(4096);
    if (head.size() < 375 + 54 || !head.startsWith("LASF"))
        return false;
    const auto headerSize = quint16(quint8(head[94]) | (quint8(head[95]) << 8));
    if (head.size() < headerSize + 54)
        return false;
    const char *vlr = head.constData() + headerSize;
    return std::memcmp(vlr + 2, "copc", 5) == 0 && quint8(vlr[18]) == 1 && vlr[19] == 0;
}

} // namespace tzCopc
