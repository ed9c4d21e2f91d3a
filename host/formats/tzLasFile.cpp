// LAS files: the header, the VLRs, where a LAZ file's chunks lie, and what --info says of them.

#include "tzLasFile_p.h"

#include <QJsonArray>
#include <QJsonObject>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <thread>

namespace tzCloudFile {
namespace detail {

namespace {

//! Text of a fixed-size field, up to its first zero byte.
QString fixedText(const uchar *p, int size)
{
    const auto *c = reinterpret_cast<const char *>(p);
    return QString::fromLatin1(c, int(std::find(c, c + size, '\0') - c)).trimmed();
}

// The shortest record of each point format, and where its colours are.
constexpr int MIN_RECORD[] = {20, 28, 26, 34, 57, 63, 30, 36, 38, 59, 67};
constexpr int RGB_OFFSET[] = {-1, -1, 20, 28, -1, 28, -1, 30, 30, -1, 30};

} // namespace

LasHeader LasHeader::read(const Bytes &in)
{
    constexpr size_t MIN_HEADER = 227;
    if (in.size < 4 || std::memcmp(in.data, "LASF", 4) != 0)
        failWith(QStringLiteral("not a LAS file (no 'LASF' signature)"));
    if (in.size < MIN_HEADER)
        failWith(QStringLiteral("the LAS header is truncated"));
    const uchar *h = in.data;
    LasHeader header;
    header.major = h[24];
    header.minor = h[25];
    if (header.major != 1 || header.minor > 4)
        failWith(QStringLiteral("LAS version %1.%2 is not supported")
                     .arg(header.major)
                     .arg(header.minor));
    header.headerSize = loadAs<quint16>(h + 94, false);
    header.dataOffset = loadAs<quint32>(h + DATA_OFFSET_AT, false);
    header.vlrCount = loadAs<quint32>(h + VLR_COUNT_AT, false);
    const quint8 formatByte = h[FORMAT_AT];
    header.recordLength = loadAs<quint16>(h + 105, false);
    header.count = loadAs<quint32>(h + 107, false);
    // Bit 7 marks LAZ; bit 6 was used the same way by an older compressor.
    header.compressed = formatByte & 0xc0;
    header.format = formatByte & 0x3f;
    if (header.format > 10)
        failWith(QStringLiteral("LAS point data format %1 is not supported").arg(header.format));
    if (header.recordLength < MIN_RECORD[header.format])
        failWith(QStringLiteral("LAS point record length %1 is too short for point format %2")
                     .arg(header.recordLength)
                     .arg(header.format));
    header.rgbOffset = RGB_OFFSET[header.format];
    if (header.minor >= 4 && header.headerSize >= 375 && in.size >= 255) {
        const quint64 extended = loadAs<quint64>(h + 247, false);
        if (header.count == 0 || extended > header.count)
            header.count = extended;
    }
    if (header.headerSize < MIN_HEADER || header.dataOffset < header.headerSize
        || header.dataOffset > in.size)
        failWith(QStringLiteral("the LAS header gives an impossible point data offset %1")
                     .arg(header.dataOffset));
    header.firstReturns = loadAs<quint32>(h + 111, false);
    header.system = fixedText(h + 26, 32);
    header.software = fixedText(h + 58, 32);
    if (header.minor >= 3 && header.headerSize >= 235 && in.size >= 235)
        header.waveStart = loadAs<quint64>(h + WAVE_START_AT, false);
    if (header.minor >= 4 && header.headerSize >= 375 && in.size >= 375) {
        header.evlrStart = loadAs<quint64>(h + EVLR_START_AT, false);
        header.evlrCount = loadAs<quint32>(h + EVLR_COUNT_AT, false);
        header.firstReturns
            = std::max<quint64>(header.firstReturns, loadAs<quint64>(h + 255, false));
    }
    for (int d = 0; d < 3; ++d) {
        header.scale[d] = loadAs<double>(h + 131 + 8 * d, false);
        header.offset[d] = loadAs<double>(h + 155 + 8 * d, false);
        header.bbMax[d] = loadAs<double>(h + 179 + 16 * d, false);
        header.bbMin[d] = loadAs<double>(h + 187 + 16 * d, false);
        if (!(header.scale[d] != 0) || !std::isfinite(header.scale[d])
            || !std::isfinite(header.offset[d]))
            failWith(QStringLiteral("the LAS header has an invalid scale or offset"));
    }
    return header;
}

QByteArray LasHeader::write() const
{
    QByteArray head(headerSize, '\0');
    std::memcpy(head.data(), "LASF", 4);
    head[24] = char(major);
    head[25] = char(minor);
    const auto text = [&head](int at, int size, const QString &value) {
        const QByteArray bytes = value.toLatin1().left(size);
        head.replace(at, bytes.size(), bytes);
    };
    text(26, 32, system);
    text(58, 32, software);
    storeAt<quint16>(head, 94, headerSize);
    storeAt<quint32>(head, DATA_OFFSET_AT, dataOffset);
    storeAt<quint32>(head, VLR_COUNT_AT, vlrCount);
    head[FORMAT_AT] = char(compressed ? (format | 0x80) : format);
    storeAt<quint16>(head, 105, recordLength);
    // The legacy counts where they fit, as LAS 1.4 asks of formats 0 to 5.
    const bool legacy = count <= 0xffffffffull && format <= 5;
    storeAt<quint32>(head, 107, legacy ? quint32(count) : 0u);
    storeAt<quint32>(head, 111, legacy ? quint32(firstReturns) : 0u);
    for (int d = 0; d < 3; ++d) {
        storeAt<double>(head, 131 + 8 * d, scale[d]);
        storeAt<double>(head, 155 + 8 * d, offset[d]);
        storeAt<double>(head, 179 + 16 * d, bbMax[d]);
        storeAt<double>(head, 187 + 16 * d, bbMin[d]);
    }
    if (headerSize >= 375) {
        storeAt<quint64>(head, WAVE_START_AT, waveStart);
        storeAt<quint64>(head, EVLR_START_AT, evlrStart);
        storeAt<quint32>(head, EVLR_COUNT_AT, evlrCount);
        storeAt<quint64>(head, 247, count);
        storeAt<quint64>(head, 255, firstReturns);
    }
    return head;
}

QString chunkProblem(size_t index, size_t count, quint64 offset, const std::string &error)
{
    const QString which = count ? QStringLiteral("chunk %1 of %2").arg(index + 1).arg(count)
                                : QStringLiteral("chunk %1").arg(index + 1);
    return QStringLiteral("%1 at byte %2: %3")
        .arg(which)
        .arg(offset)
        .arg(QString::fromStdString(error));
}

bool isCopcRecord(const uchar *vlr)
{
    return std::memcmp(vlr + 2, "copc\0", 5) == 0;
}

bool isLaszipVlr(const uchar *vlr)
{
    return std::memcmp(vlr + 2, "laszip encoded", 14) == 0
        && loadAs<quint16>(vlr + 18, false) == tzLaz::Description::RECORD_ID;
}

tzLaz::Description lazDescription(const Bytes &in, const LasHeader &header)
{
    const uchar *found = nullptr;
    quint16 foundLength = 0;
    forEachVlr(in, header, [&](const uchar *vlr, quint16 length) {
        if (!found && isLaszipVlr(vlr)) {
            found = vlr;
            foundLength = length;
        }
    });
    if (!found)
        failWith(QStringLiteral("the point data is compressed but there is no laszip VLR"));
    tzLaz::Description description;
    std::string error;
    if (!tzLaz::parseDescription(found + 54, foundLength, description, error))
        failWith(QString::fromStdString(error));
    return description;
}

QByteArray laszipVlr(const tzLaz::Description &description)
{
    const std::vector<uchar> payload = tzLaz::descriptionBytes(description);
    QByteArray vlr(54, '\0');
    std::memcpy(vlr.data() + 2, "laszip encoded", 14);
    storeAt<quint16>(vlr, 18, tzLaz::Description::RECORD_ID);
    storeAt<quint16>(vlr, 20, quint16(payload.size()));
    std::memcpy(vlr.data() + 22, "Tessaro LAZ", 11);
    vlr.append(reinterpret_cast<const char *>(payload.data()), int(payload.size()));
    return vlr;
}

std::vector<tzLaz::Chunk> chunksInSequence(const Bytes &in, const LasHeader &header,
                                           const tzLaz::Description &description)
{
    if (description.chunkSize == tzLaz::Description::VARIABLE_CHUNK_SIZE)
        failWith(QStringLiteral("the chunk table is needed (chunks of varying size) and unusable"));
    std::vector<tzLaz::Chunk> chunks;
    tzLaz::ChunkDecoder decoder(description);
    std::vector<uchar> records;
    quint64 offset = quint64(header.dataOffset) + 8, remaining = header.count;
    std::string error;
    while (remaining > 0) {
        const quint32 points = quint32(std::min<quint64>(description.chunkSize, remaining));
        if (offset >= in.size)
            failWith(QStringLiteral("the point data ends after %1 of %2 points")
                         .arg(header.count - remaining)
                         .arg(header.count));
        records.resize(size_t(points) * header.recordLength);
        size_t consumed = 0;
        if (!decoder.decode(in.data + offset, size_t(in.size - offset), points, records.data(),
                            consumed, error))
            failWith(chunkProblem(chunks.size(), 0, offset, error));
        chunks.push_back({offset, consumed, points});
        offset += consumed;
        remaining -= points;
    }
    return chunks;
}

std::vector<tzLaz::Chunk> lazChunks(const Bytes &in, const LasHeader &header,
                                    const tzLaz::Description &description, bool *fromTable)
{
    if (fromTable)
        *fromTable = false;
    std::vector<tzLaz::Chunk> chunks;
    if (header.count == 0)
        return chunks;
    if (description.compressor == 1) {
        if (header.dataOffset >= in.size)
            failWith(QStringLiteral("the point data is truncated"));
        chunks.push_back({header.dataOffset, in.size - header.dataOffset, quint32(header.count)});
        return chunks;
    }
    std::string tableError;
    if (!tzLaz::readChunkTable(in.data, in.size, header.dataOffset, header.count, description,
                               chunks, tableError))
        chunks = chunksInSequence(in, header, description);
    else if (fromTable)
        *fromTable = true;
    return chunks;
}

RecordSource::RecordSource(const Bytes &in, const LasHeader &header)
    : m_in(in)
    , m_header(header)
{
    if (!header.compressed) {
        if ((in.size - header.dataOffset) / header.recordLength < header.count)
            failWith(QStringLiteral("the file is truncated: %1 points announced, data for %2")
                         .arg(header.count)
                         .arg((in.size - header.dataOffset) / header.recordLength));
        return;
    }
    m_description = lazDescription(in, header);
    if (m_description.recordLength() != header.recordLength)
        failWith(
            QStringLiteral("the laszip VLR's items make records of %1 bytes, the header says %2")
                .arg(m_description.recordLength())
                .arg(header.recordLength));
    m_chunks = lazChunks(in, header, m_description);
    for (unsigned t = 0; t < threadsFor(m_chunks.size()); ++t)
        m_decoders.push_back(std::make_unique<tzLaz::ChunkDecoder>(m_description));
}

RecordSource::~RecordSource() = default;

const uchar *RecordSource::next(size_t &count)
{
    releaseRead(m_in, size_t(bytesRead()), m_released);
    if (!m_header.compressed) {
        count = size_t(std::min<quint64>(1u << 16, m_header.count - m_done));
        const uchar *records = m_in.data + m_header.dataOffset + m_done * m_header.recordLength;
        m_done += count;
        return records;
    }
    if (m_chunk >= m_chunks.size()) {
        count = 0;
        return nullptr;
    }
    // A few chunks a thread, decoded side by side into one run of records.
    const size_t first = m_chunk;
    const size_t last = std::min(m_chunks.size(), first + 4 * m_decoders.size());
    std::vector<size_t> at {0};
    for (size_t c = first; c < last; ++c)
        at.push_back(at.back() + size_t(m_chunks[c].points) * m_header.recordLength);
    allocate(m_records, at.back());
    std::atomic<size_t> next {first};
    std::atomic<size_t> failed {SIZE_MAX};
    std::vector<std::string> errors(last - first);
    const auto work = [&](tzLaz::ChunkDecoder &decoder) {
        for (size_t c = next++; c < last; c = next++) {
            const tzLaz::Chunk &chunk = m_chunks[c];
            size_t consumed = 0;
            if (!decoder.decode(m_in.data + chunk.offset, size_t(chunk.bytes), chunk.points,
                                m_records.data() + at[c - first], consumed, errors[c - first])) {
                // The first damaged chunk in the file's order is the one named.
                size_t seen = failed;
                while (c < seen && !failed.compare_exchange_weak(seen, c)) { }
            }
        }
    };
    std::vector<std::thread> helpers;
    for (size_t t = 1; t < m_decoders.size() && t < last - first; ++t)
        helpers.emplace_back(work, std::ref(*m_decoders[t]));
    work(*m_decoders[0]);
    for (std::thread &helper : helpers)
        helper.join();
    if (failed != SIZE_MAX) {
        const size_t c = failed;
        failWith(chunkProblem(c, m_chunks.size(), m_chunks[c].offset, errors[c - first]));
    }
    m_chunk = last;
    count = at.back() / m_header.recordLength;
    m_done += count;
    return m_records.data();
}

quint64 RecordSource::bytesRead() const
{
    if (!m_header.compressed)
        return m_header.dataOffset + m_done * m_header.recordLength;
    return m_chunk == 0 ? m_header.dataOffset
                        : m_chunks[m_chunk - 1].offset + m_chunks[m_chunk - 1].bytes;
}

quint64 RecordSource::pointDataEnd() const
{
    if (!m_header.compressed)
        return m_header.dataOffset + m_header.count * m_header.recordLength;
    return m_chunks.empty() ? m_header.dataOffset + 8
                            : m_chunks.back().offset + m_chunks.back().bytes;
}

namespace {

QJsonArray triple(const double (&v)[3])
{
    return QJsonArray {v[0], v[1], v[2]};
}

//! A VLR's or an extended VLR's head (their first fields are alike; the description lies
//! after a length of 2 or 8 bytes).
QJsonObject recordHead(const uchar *head, quint64 length, bool extended)
{
    return QJsonObject {
        {QStringLiteral("userId"), fixedText(head + 2, 16)},
        {QStringLiteral("recordId"), loadAs<quint16>(head + 18, false)},
        {QStringLiteral("length"), double(length)},
        {QStringLiteral("description"), fixedText(head + (extended ? 28 : 22), 32)}};
}

//! The GeoTIFF keys of a key directory (its entries of 4 shorts after a head of 4).
QJsonArray geoKeys(const uchar *payload, quint64 length)
{
    QJsonArray keys;
    if (length < 8)
        return keys;
    const quint16 count = loadAs<quint16>(payload + 6, false);
    for (quint64 i = 0; i < count && 8 + 8 * (i + 1) <= length; ++i) {
        const uchar *e = payload + 8 + 8 * i;
        const quint16 location = loadAs<quint16>(e + 2, false);
        QJsonObject key {{QStringLiteral("key"), loadAs<quint16>(e, false)}};
        if (location == 0)
            key.insert(QStringLiteral("value"), loadAs<quint16>(e + 6, false));
        else
            key.insert(QStringLiteral("in"),
                       QStringLiteral("%1[%2]").arg(location).arg(loadAs<quint16>(e + 6, false)));
        keys.append(key);
    }
    return keys;
}

//! The octree of a COPC file: from its info VLR, the hierarchy's pages walked from the root
//! (each page's entries: a node's key, where its chunk is and its points, or a page below).
QJsonObject copcOctree(const Bytes &in, const uchar *info)
{
    const auto number = [info](int at) { return loadAs<double>(info + at, false); };
    const quint64 rootOffset = loadAs<quint64>(info + 40, false);
    const quint64 rootSize = loadAs<quint64>(info + 48, false);
    int depth = -1;
    quint64 nodes = 0, pages = 0, points = 0;
    QString problem; // the octree is described as far as its pages can be read
    std::vector<std::pair<quint64, quint64>> toRead {{rootOffset, rootSize}};
    while (!toRead.empty() && pages < 1000000) {
        const auto [offset, size] = toRead.back();
        toRead.pop_back();
        if (offset > in.size || size > in.size - offset || size % 32 != 0) {
            problem = QStringLiteral("a hierarchy page (%1 bytes at byte %2) lies outside the "
                                     "file")
                          .arg(size)
                          .arg(offset);
            break;
        }
        ++pages;
        for (quint64 at = offset; at < offset + size; at += 32) {
            const uchar *e = in.data + at;
            const qint32 count = loadAs<qint32>(e + 28, false);
            depth = std::max(depth, int(loadAs<qint32>(e, false)));
            if (count == -1) {
                toRead.push_back(
                    {loadAs<quint64>(e + 16, false), quint64(loadAs<qint32>(e + 24, false))});
            } else {
                ++nodes;
                points += quint64(std::max(0, count));
            }
        }
    }
    QJsonObject octree {{QStringLiteral("center"), QJsonArray {number(0), number(8), number(16)}},
                        {QStringLiteral("halfSize"), number(24)},
                        {QStringLiteral("spacing"), number(32)},
                        {QStringLiteral("depth"), depth + 1},
                        {QStringLiteral("nodes"), double(nodes)},
                        {QStringLiteral("hierarchyPages"), double(pages)},
                        {QStringLiteral("pointsInNodes"), double(points)},
                        {QStringLiteral("gpsTime"), QJsonArray {number(56), number(64)}}};
    if (!problem.isEmpty())
        octree.insert(QStringLiteral("problem"), problem);
    return octree;
}

} // namespace

QJsonObject describeLas(const Bytes &in)
{
    const LasHeader header = LasHeader::read(in);
    QJsonObject info;
    info.insert(QStringLiteral("version"),
                QStringLiteral("%1.%2").arg(header.major).arg(header.minor));
    info.insert(QStringLiteral("pointFormat"), header.format);
    info.insert(QStringLiteral("recordLength"), header.recordLength);
    info.insert(QStringLiteral("points"), double(header.count));
    info.insert(QStringLiteral("bounds"),
                QJsonObject {{QStringLiteral("min"), triple(header.bbMin)},
                             {QStringLiteral("max"), triple(header.bbMax)}});
    info.insert(QStringLiteral("scale"), triple(header.scale));
    info.insert(QStringLiteral("offset"), triple(header.offset));
    info.insert(QStringLiteral("system"), header.system);
    info.insert(QStringLiteral("software"), header.software);
    QJsonArray vlrs;
    const uchar *copcInfo = nullptr;
    const auto projection = [&info, &in](const uchar *head, const uchar *payload, quint64 length) {
        if (fixedText(head + 2, 16) != QLatin1String("LASF_Projection")
            || payload + length > in.data + in.size)
            return;
        const quint16 id = loadAs<quint16>(head + 18, false);
        if (id == 2112)
            info.insert(QStringLiteral("wkt"), fixedText(payload, int(length)));
        else if (id == 34735)
            info.insert(QStringLiteral("geoKeys"), geoKeys(payload, length));
    };
    forEachVlr(in, header, [&](const uchar *vlr, quint16 length) {
        vlrs.append(recordHead(vlr, length, false));
        projection(vlr, vlr + 54, length);
        if (vlrs.size() == 1 && std::memcmp(vlr + 2, "copc\0", 5) == 0
            && loadAs<quint16>(vlr + 18, false) == 1 && length >= 160)
            copcInfo = vlr + 54;
    });
    info.insert(QStringLiteral("vlrs"), vlrs);
    if (header.evlrCount > 0) {
        QJsonArray evlrs;
        quint64 at = header.evlrStart;
        for (quint32 i = 0; i < header.evlrCount && at + 60 <= in.size; ++i) {
            const quint64 length = loadAs<quint64>(in.data + at + 20, false);
            evlrs.append(recordHead(in.data + at, length, true));
            if (length > in.size - at - 60)
                break;
            projection(in.data + at, in.data + at + 60, length);
            at += 60 + length;
        }
        if (!evlrs.isEmpty())
            info.insert(QStringLiteral("evlrs"), evlrs);
    }
    info.insert(QStringLiteral("format"),
                !header.compressed ? QStringLiteral("LAS")
                    : copcInfo     ? QStringLiteral("COPC")
                                   : QStringLiteral("LAZ"));
    if (header.compressed) {
        const tzLaz::Description description = lazDescription(in, header);
        static const char *const KINDS[] = {"", "one stream", "chunks", "layered chunks"};
        QJsonObject laz {
            {QStringLiteral("compressor"),
             QString::fromLatin1(description.compressor <= 3 ? KINDS[description.compressor]
                                                             : "unknown")},
            {QStringLiteral("version"),
             QStringLiteral("%1.%2 r%3")
                 .arg(description.versionMajor)
                 .arg(description.versionMinor)
                 .arg(description.revision)}};
        if (description.compressor >= 2) {
            if (description.chunkSize == tzLaz::Description::VARIABLE_CHUNK_SIZE)
                laz.insert(QStringLiteral("chunkSize"), QStringLiteral("variable"));
            else
                laz.insert(QStringLiteral("chunkSize"), double(description.chunkSize));
            std::vector<tzLaz::Chunk> chunks;
            std::string tableError;
            if (tzLaz::readChunkTable(in.data, in.size, header.dataOffset, header.count,
                                      description, chunks, tableError))
                laz.insert(QStringLiteral("chunks"), double(chunks.size()));
            else
                laz.insert(QStringLiteral("chunkTable"), QString::fromStdString(tableError));
        }
        info.insert(QStringLiteral("laz"), laz);
        if (copcInfo)
            info.insert(QStringLiteral("copc"), copcOctree(in, copcInfo));
    }
    return info;
}

} // namespace detail
} // namespace tzCloudFile
