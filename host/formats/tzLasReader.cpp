// LAS 1.0 to 1.4, every point format (0 to 10; waveform packets are not read), plain or
// compressed as LAZ.

#include "tzCloudFormats_p.h"
#include "tzLazCodec.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QtGlobal>

#include <atomic>
#include <cstring>

namespace tzCloudFile {
namespace detail {

namespace {

struct LasHeader
{
    int major = 0, minor = 0;
    quint16 headerSize = 0;
    quint32 dataOffset = 0;
    quint32 vlrCount = 0;
    int format = 0;
    bool compressed = false;
    quint16 recordLength = 0;
    quint64 count = 0;
    double scale[3] = {}, offset[3] = {}, bbMin[3] = {}, bbMax[3] = {};
    int rgbOffset = -1; // of the colours in a record, -1 without
};

// The shortest record of each point format, and where its colours are.
constexpr int MIN_RECORD[] = {20, 28, 26, 34, 57, 63, 30, 36, 38, 59, 67};
constexpr int RGB_OFFSET[] = {-1, -1, 20, 28, -1, 28, -1, 30, 30, -1, 30};

LasHeader parseHeader(const Bytes &in)
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
    header.dataOffset = loadAs<quint32>(h + 96, false);
    header.vlrCount = loadAs<quint32>(h + 100, false);
    const quint8 formatByte = h[104];
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

//! The global shift of the cloud: from the header's box when it is sane and holds the first
//! point, else from the first point (some writers fill the box with unscaled or stale values).
void decideShift(CloudBuilder &builder, const LasHeader &header, const uchar *firstRecord)
{
    TZVector3d centre, first;
    bool boxValid = true;
    for (int d = 0; d < 3; ++d) {
        first[d] = loadAs<qint32>(firstRecord + 4 * d, false) * header.scale[d] + header.offset[d];
        centre[d] = (header.bbMin[d] + header.bbMax[d]) / 2;
        const double margin = 1.0 + std::abs(header.scale[d]);
        boxValid = boxValid && std::isfinite(centre[d]) && header.bbMin[d] <= header.bbMax[d]
            && first[d] >= header.bbMin[d] - margin && first[d] <= header.bbMax[d] + margin;
    }
    builder.decideShift(boxValid ? centre : first);
}

//! Every point format has intensity, classification and returns.
constexpr quint8 LAS_ATTRIBUTES
    = tzPointDisplay::INTENSITY | tzPointDisplay::CLASSIFICATION | tzPointDisplay::RETURNS;

//! Turns records into the cloud's local points (and 8-bit colours, the high bytes of 16-bit
//! values, or the values themselves where the file put 8-bit values in the 16-bit fields).
struct RecordConverter
{
    const LasHeader &header;
    TZVector3d shift;

    void points(const uchar *records, size_t count, TZVector3 *out) const
    {
        const size_t length = header.recordLength;
        for (size_t i = 0; i < count; ++i) {
            const uchar *rec = records + i * length;
            for (int d = 0; d < 3; ++d) {
                out[i][d] = float(loadAs<qint32>(rec + 4 * d, false) * header.scale[d]
                                  + header.offset[d] + shift[d]);
            }
        }
    }
    //! Whether a colour value of these records does not fit in 8 bits.
    bool wideColours(const uchar *records, size_t count) const
    {
        for (size_t i = 0; i < count; ++i) {
            const uchar *c = records + i * header.recordLength + header.rgbOffset;
            for (int k = 0; k < 3; ++k) {
                if (loadAs<quint16>(c + 2 * k, false) > 255)
                    return true;
            }
        }
        return false;
    }
    //! Intensity, classification and returns, where each point format keeps them.
    void attributes(const uchar *records, size_t count, tzPointAttributes *out) const
    {
        const size_t length = header.recordLength;
        const bool extended = header.format >= 6;
        for (size_t i = 0; i < count; ++i) {
            const uchar *rec = records + i * length;
            tzPointAttributes &a = out[i];
            a.intensity = loadAs<quint16>(rec + 12, false);
            if (extended) {
                // Return number and number of returns: 4 bits each; the class has a byte.
                a.returns = quint8((rec[14] & 0x0f) | (rec[14] & 0xf0));
                a.classification = rec[16];
            } else {
                // 3 bits each; the class is the low 5 bits (the others are flags).
                a.returns = quint8((rec[14] & 0x07) | ((rec[14] >> 3) & 0x07) << 4);
                a.classification = rec[15] & 0x1f;
            }
        }
    }
    void colours(const uchar *records, size_t count, bool wide, tzRgb *out) const
    {
        const int shift = wide ? 8 : 0;
        for (size_t i = 0; i < count; ++i) {
            const uchar *c = records + i * header.recordLength + header.rgbOffset;
            out[i] = {quint8(loadAs<quint16>(c, false) >> shift),
                      quint8(loadAs<quint16>(c + 2, false) >> shift),
                      quint8(loadAs<quint16>(c + 4, false) >> shift)};
        }
    }
};

//! The arrays a LAS or LAZ file's n points are read into (colours where the format has them).
struct CloudArrays
{
    std::vector<TZVector3> points;
    std::vector<tzRgb> colours;
    std::vector<tzPointAttributes> attributes;

    CloudArrays(const LasHeader &header, size_t n)
    {
        allocate(points, n);
        allocate(attributes, n);
        if (header.rgbOffset >= 0)
            allocate(colours, n);
    }
};

tzPointCloud *readPlain(const Bytes &in, const LasHeader &header, const QString &name,
                        const LoadOptions &options)
{
    if (header.count > 0xffffffffull
        || (in.size - header.dataOffset) / header.recordLength < header.count)
        failWith(QStringLiteral("the file is truncated: %1 points announced, data for %2")
                     .arg(header.count)
                     .arg((in.size - header.dataOffset) / header.recordLength));
    const size_t n = size_t(header.count);
    const uchar *data = in.data + header.dataOffset;
    CloudBuilder builder(options);
    if (n > 0)
        decideShift(builder, header, data);
    const RecordConverter convert {header, builder.shift()};
    CloudArrays arrays(header, n);
    auto &[points, colours, attributes] = arrays;
    const bool withColours = !colours.empty();
    const bool wide = withColours && convert.wideColours(data, n);
    constexpr size_t STEP = 1 << 20;
    for (size_t done = 0; done < n; done += STEP) {
        const size_t count = std::min(STEP, n - done);
        const uchar *records = data + done * header.recordLength;
        convert.points(records, count, points.data() + done);
        convert.attributes(records, count, attributes.data() + done);
        if (withColours)
            convert.colours(records, count, wide, colours.data() + done);
        builder.progress(done + count, n);
    }
    return builder.finish(name, std::move(points), std::move(colours), std::move(attributes),
                          LAS_ATTRIBUTES);
}

// ---------------------------------------------------------------- LAZ

//! What went wrong in a chunk (index from 0; count 0 when the chunks are not counted yet).
QString chunkProblem(size_t index, size_t count, quint64 offset, const std::string &error)
{
    const QString which = count ? QStringLiteral("chunk %1 of %2").arg(index + 1).arg(count)
                                : QStringLiteral("chunk %1").arg(index + 1);
    return QStringLiteral("%1 at byte %2: %3")
        .arg(which)
        .arg(offset)
        .arg(QString::fromStdString(error));
}

//! Calls fn(vlr, payload length) for each VLR of the header, in order; fails when one runs past
//! the point data.
template<typename Fn> void forEachVlr(const Bytes &in, const LasHeader &header, Fn &&fn)
{
    size_t at = header.headerSize;
    for (quint32 i = 0; i < header.vlrCount; ++i) {
        const quint16 length
            = at + 54 <= header.dataOffset ? loadAs<quint16>(in.data + at + 20, false) : 0;
        if (at + 54 + length > header.dataOffset)
            failWith(QStringLiteral("VLR %1 of %2 runs past the point data")
                         .arg(i + 1)
                         .arg(header.vlrCount));
        fn(in.data + at, length);
        at += 54 + length;
    }
}

//! Whether a VLR or an extended VLR (same first fields) is one of an octree's (COPC): its
//! description or its hierarchy.
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

// Decodes the chunks on every core into the cloud's arrays: each worker takes the next chunk,
// decodes it into a buffer of its own and converts it where its points go. Memory: the cloud
// plus one decoded chunk per worker.
class LazDecoding
{
public:
    LazDecoding(const Bytes &in, const LasHeader &header, const tzLaz::Description &description,
                const RecordConverter &convert, std::vector<tzLaz::Chunk> chunks, TZVector3 *points,
                tzRgb *colours, tzPointAttributes *attributes)
        : m_in(in)
        , m_header(header)
        , m_description(description)
        , m_convert(convert)
        , m_chunks(std::move(chunks))
        , m_points(points)
        , m_colours(colours)
        , m_attributes(attributes)
        , m_wideChunk(m_chunks.size(), 0)
    {
        size_t first = 0;
        for (const tzLaz::Chunk &chunk : m_chunks) {
            m_firstPoint.push_back(first);
            first += chunk.points;
        }
    }

    //! Runs the workers; progress is told from this thread, which may cancel.
    void run(CloudBuilder &builder, size_t total)
    {
        m_work.run(threadsFor(m_chunks.size()), builder, total, [this] { work(); });
    }

    //! Whether a chunk's colours did not fit in 8 bits (they were then kept as high bytes).
    bool wide() const
    {
        return std::any_of(m_wideChunk.begin(), m_wideChunk.end(), [](char w) { return w != 0; });
    }
    //! In a file of 16-bit colours, the chunks whose values all fit in 8 bits kept them as
    //! they were: their high bytes are zeros.
    void narrowColoursOfNarrowChunks()
    {
        for (size_t c = 0; c < m_chunks.size(); ++c) {
            if (!m_wideChunk[c])
                std::fill_n(m_colours + m_firstPoint[c], m_chunks[c].points, tzRgb {0, 0, 0});
        }
    }

private:
    void work()
    {
        tzLaz::ChunkDecoder decoder(m_description);
        std::vector<uchar> records;
        std::string error;
        for (size_t c = m_next++; c < m_chunks.size() && !m_work.stopped(); c = m_next++) {
            const tzLaz::Chunk &chunk = m_chunks[c];
            try {
                records.resize(size_t(chunk.points) * m_header.recordLength);
            } catch (const std::bad_alloc &) {
                m_work.fail(QStringLiteral("not enough memory to decode a chunk of %1 points")
                                .arg(chunk.points));
                return;
            }
            size_t consumed = 0;
            if (!decoder.decode(m_in.data + chunk.offset, size_t(chunk.bytes), chunk.points,
                                records.data(), consumed, error)) {
                m_work.fail(chunkProblem(c, m_chunks.size(), chunk.offset, error));
                return;
            }
            m_convert.points(records.data(), chunk.points, m_points + m_firstPoint[c]);
            m_convert.attributes(records.data(), chunk.points, m_attributes + m_firstPoint[c]);
            if (m_colours) {
                const bool wide = m_convert.wideColours(records.data(), chunk.points);
                m_wideChunk[c] = wide;
                m_convert.colours(records.data(), chunk.points, wide, m_colours + m_firstPoint[c]);
            }
            m_work.done(chunk.points);
        }
    }

    const Bytes &m_in;
    const LasHeader &m_header;
    const tzLaz::Description &m_description;
    const RecordConverter &m_convert;
    const std::vector<tzLaz::Chunk> m_chunks;
    std::vector<size_t> m_firstPoint;
    TZVector3 *m_points;
    tzRgb *m_colours;
    tzPointAttributes *m_attributes;
    std::vector<char> m_wideChunk;
    std::atomic<size_t> m_next {0};
    SharedWork m_work;
};

//! The chunks found one after the other, when there is no chunk table to say where they are:
//! each starts where the decoder of the one before stopped.
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

//! Where the chunks of a LAZ file's points lie: from its chunk table (fromTable), or found one
//! after the other when the table is missing or damaged; the points of the first writers are
//! one stream.
std::vector<tzLaz::Chunk> lazChunks(const Bytes &in, const LasHeader &header,
                                    const tzLaz::Description &description,
                                    bool *fromTable = nullptr)
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

tzPointCloud *readCompressed(const Bytes &in, const LasHeader &header, const QString &name,
                             const LoadOptions &options)
{
    const tzLaz::Description description = lazDescription(in, header);
    if (description.recordLength() != header.recordLength)
        failWith(
            QStringLiteral("the laszip VLR's items make records of %1 bytes, the header says %2")
                .arg(description.recordLength())
                .arg(header.recordLength));
    if (header.count > 0xffffffffull)
        failWith(QStringLiteral("%1 points are more than a cloud holds").arg(header.count));
    const size_t n = size_t(header.count);
    bool fromTable = false;
    std::vector<tzLaz::Chunk> chunks = lazChunks(in, header, description, &fromTable);
    CloudBuilder builder(options);
    if (n > 0) {
        if (chunks.front().offset + header.recordLength > in.size)
            failWith(QStringLiteral("the point data is truncated"));
        decideShift(builder, header, in.data + chunks.front().offset);
    }
    const RecordConverter convert {header, builder.shift()};
    CloudArrays arrays(header, n);
    const auto decode = [&](std::vector<tzLaz::Chunk> where) {
        std::vector<tzRgb> &colours = arrays.colours;
        LazDecoding decoding(in, header, description, convert, std::move(where),
                             arrays.points.data(), colours.empty() ? nullptr : colours.data(),
                             arrays.attributes.data());
        decoding.run(builder, n);
        if (!colours.empty() && decoding.wide())
            decoding.narrowColoursOfNarrowChunks();
    };
    try {
        decode(std::move(chunks));
    } catch (const ReadFailure &) {
        // A table whose entries add up and still point a chunk to the wrong place: the chunks
        // found one after the other say whether one is really damaged, and which.
        if (!fromTable)
            throw;
        decode(chunksInSequence(in, header, description));
    }
    return builder.finish(name, std::move(arrays.points), std::move(arrays.colours),
                          std::move(arrays.attributes), LAS_ATTRIBUTES);
}

// ---------------------------------------------------------------- conversion

//! Where the records of a LAS or LAZ file come from, chunk by chunk, as stored.
class RecordSource
{
public:
    RecordSource(const Bytes &in, const LasHeader &header)
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
            failWith(QStringLiteral(
                         "the laszip VLR's items make records of %1 bytes, the header says %2")
                         .arg(m_description.recordLength())
                         .arg(header.recordLength));
        m_chunks = lazChunks(in, header, m_description);
        m_decoder = std::make_unique<tzLaz::ChunkDecoder>(m_description);
    }

    //! The next records (at least one while some remain; none at the end).
    const uchar *next(size_t &count)
    {
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
        const tzLaz::Chunk &chunk = m_chunks[m_chunk];
        allocate(m_records, size_t(chunk.points) * m_header.recordLength);
        size_t consumed = 0;
        std::string error;
        if (!m_decoder->decode(m_in.data + chunk.offset, size_t(chunk.bytes), chunk.points,
                               m_records.data(), consumed, error))
            failWith(chunkProblem(m_chunk, m_chunks.size(), chunk.offset, error));
        ++m_chunk;
        m_done += chunk.points;
        count = chunk.points;
        return m_records.data();
    }
    quint64 done() const { return m_done; }
    //! Where the point data ends (in LAZ, the last chunk; the chunk table follows).
    quint64 pointDataEnd() const
    {
        if (!m_header.compressed)
            return m_header.dataOffset + m_header.count * m_header.recordLength;
        return m_chunks.empty() ? m_header.dataOffset + 8
                                : m_chunks.back().offset + m_chunks.back().bytes;
    }

private:
    const Bytes &m_in;
    const LasHeader &m_header;
    tzLaz::Description m_description;
    std::vector<tzLaz::Chunk> m_chunks;
    std::unique_ptr<tzLaz::ChunkDecoder> m_decoder;
    std::vector<uchar> m_records;
    size_t m_chunk = 0;
    quint64 m_done = 0;
};

} // namespace

void convertLas(const Bytes &in, bool toLaz, quint32 chunkSize, QIODevice &out,
                const LoadOptions &options)
{
    const LasHeader header = parseHeader(in);
    if (header.count > 0xffffffffull)
        failWith(QStringLiteral("%1 points are more than this converter takes").arg(header.count));
    const int minor = header.minor;
    // The VLRs that stay: all but a laszip VLR and an octree's (COPC) records, whose chunks
    // and hierarchy the conversion does not keep.
    QByteArray vlrs;
    quint32 vlrCount = 0;
    size_t at = header.headerSize;
    forEachVlr(in, header, [&](const uchar *vlr, quint16 length) {
        if (!isLaszipVlr(vlr) && !isCopcRecord(vlr)) {
            vlrs.append(reinterpret_cast<const char *>(vlr), 54 + length);
            ++vlrCount;
        }
        at += 54 + length;
    });
    // What lies between the VLRs and the points (some writers leave bytes there) stays too.
    const QByteArray between(reinterpret_cast<const char *>(in.data + at),
                             int(header.dataOffset - at));
    tzLaz::Description description;
    if (toLaz) {
        std::string error;
        if (!tzLaz::describeFormat(header.format, header.recordLength, chunkSize, description,
                                   error))
            failWith(QString::fromStdString(error));
        const std::vector<uchar> payload = tzLaz::descriptionBytes(description);
        QByteArray vlr(54, '\0');
        std::memcpy(vlr.data() + 2, "laszip encoded", 14);
        storeAt<quint16>(vlr, 18, tzLaz::Description::RECORD_ID);
        storeAt<quint16>(vlr, 20, quint16(payload.size()));
        std::memcpy(vlr.data() + 22, "Tessaro LAZ", 11);
        vlr.append(reinterpret_cast<const char *>(payload.data()), int(payload.size()));
        vlrs.append(vlr);
        ++vlrCount;
    }
    QByteArray head(reinterpret_cast<const char *>(in.data), header.headerSize);
    const quint32 dataOffset = quint32(header.headerSize + vlrs.size() + between.size());
    storeAt<quint32>(head, 96, dataOffset);
    storeAt<quint32>(head, 100, vlrCount);
    head[104] = char(toLaz ? (header.format | 0x80) : header.format);

    RecordSource source(in, header);
    const auto write = [&out](const char *data, qint64 size) {
        if (out.write(data, size) != size)
            failWith(QStringLiteral("cannot write: %1").arg(out.errorString()));
    };
    const qint64 start = out.pos();
    write(head.constData(), head.size());
    write(vlrs.constData(), vlrs.size());
    write(between.constData(), between.size());
    std::vector<tzLaz::Chunk> chunks;
    const qint64 tableOffsetAt = out.pos();
    if (toLaz) {
        const qint64 placeholder = -1;
        write(reinterpret_cast<const char *>(&placeholder), 8);
    }
    // Records go out as they come in, in chunks of the output's size when it is LAZ.
    tzLaz::ChunkEncoder encoder(description);
    std::vector<uchar> pending, encoded;
    const size_t length = header.recordLength;
    const auto flush = [&](size_t points) {
        encoded.clear();
        encoder.encode(pending.data(), quint32(points), encoded);
        chunks.push_back({quint64(out.pos() - start), encoded.size(), quint32(points)});
        write(reinterpret_cast<const char *>(encoded.data()), qint64(encoded.size()));
        pending.erase(pending.begin(), pending.begin() + qint64(points * length));
    };
    CloudBuilder progress(options);
    for (size_t count = 0;;) {
        const uchar *records = source.next(count);
        if (count == 0)
            break;
        if (!toLaz) {
            write(reinterpret_cast<const char *>(records), qint64(count * length));
        } else {
            pending.insert(pending.end(), records, records + count * length);
            while (pending.size() >= size_t(description.chunkSize) * length)
                flush(description.chunkSize);
        }
        progress.progress(size_t(source.done()), size_t(std::max<quint64>(1, header.count)));
    }
    if (toLaz && !pending.empty())
        flush(pending.size() / length);
    if (source.done() != header.count)
        failWith(QStringLiteral("%1 of %2 points were read").arg(source.done()).arg(header.count));
    if (toLaz) {
        const qint64 tableOffset = out.pos() - start;
        std::vector<uchar> table;
        tzLaz::writeChunkTable(chunks, false, table);
        write(reinterpret_cast<const char *>(table.data()), qint64(table.size()));
        const qint64 end = out.pos();
        if (!out.seek(tableOffsetAt))
            failWith(QStringLiteral("cannot write: %1").arg(out.errorString()));
        write(reinterpret_cast<const char *>(&tableOffset), 8);
        out.seek(end);
    }
    // What follows the point data (LAS 1.3's waveform data, LAS 1.4's extended VLRs) follows it
    // again, and the header is told where it went.
    if (minor >= 3 && header.headerSize >= 235) {
        const quint64 end = source.pointDataEnd();
        const auto after = [&](quint64 offset) { return offset >= end && offset < in.size; };
        const quint64 waveStart = loadAs<quint64>(in.data + 227, false);
        quint64 evlrStart = 0;
        if (minor >= 4 && header.headerSize >= 375 && loadAs<quint32>(in.data + 243, false) > 0)
            evlrStart = loadAs<quint64>(in.data + 235, false);
        quint64 tail = in.size;
        for (const quint64 offset : {waveStart, evlrStart}) {
            if (after(offset))
                tail = std::min(tail, offset);
        }
        if (tail < in.size) {
            const qint64 newTail = out.pos() - start;
            // The extended VLRs, last in the file, go one by one: an octree's hierarchy stays
            // behind with its description.
            const bool evlrsLast = after(evlrStart) && !(after(waveStart) && waveStart > evlrStart);
            const quint64 copied = evlrsLast ? evlrStart : in.size;
            write(reinterpret_cast<const char *>(in.data + tail), qint64(copied - tail));
            qint64 newEvlrStart = 0;
            quint32 keptEvlrs = 0;
            if (evlrsLast) {
                newEvlrStart = out.pos() - start;
                quint32 kept = 0;
                const quint32 count = loadAs<quint32>(in.data + 243, false);
                quint64 p = evlrStart;
                for (quint32 i = 0; i < count && p + 60 <= in.size; ++i) {
                    const quint64 length = loadAs<quint64>(in.data + p + 20, false);
                    if (length > in.size - p - 60)
                        failWith(QStringLiteral("extended VLR %1 of %2 runs past the end of the "
                                                "file")
                                     .arg(i + 1)
                                     .arg(count));
                    if (!isCopcRecord(in.data + p)) {
                        write(reinterpret_cast<const char *>(in.data + p), qint64(60 + length));
                        ++kept;
                    }
                    p += 60 + length;
                }
                keptEvlrs = kept;
                if (kept == 0)
                    newEvlrStart = 0; // none left
            }
            const qint64 finished = out.pos();
            const auto moved = [&](int field, quint64 offset) {
                const qint64 now = qint64(offset - tail) + newTail;
                if (!out.seek(start + field))
                    failWith(QStringLiteral("cannot write: %1").arg(out.errorString()));
                write(reinterpret_cast<const char *>(&now), 8);
            };
            if (after(waveStart))
                moved(227, waveStart);
            if (evlrsLast) {
                if (!out.seek(start + 235))
                    failWith(QStringLiteral("cannot write: %1").arg(out.errorString()));
                write(reinterpret_cast<const char *>(&newEvlrStart), 8);
                write(reinterpret_cast<const char *>(&keptEvlrs), 4); // at 243
            } else if (after(evlrStart)) {
                moved(235, evlrStart);
            }
            out.seek(finished);
        }
    }
}

namespace {

//! Text of a fixed-size field, up to its first zero byte.
QString fixedText(const uchar *p, int size)
{
    const auto *c = reinterpret_cast<const char *>(p);
    return QString::fromLatin1(c, int(std::find(c, c + size, '\0') - c)).trimmed();
}

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
    const LasHeader header = parseHeader(in);
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
    info.insert(QStringLiteral("system"), fixedText(in.data + 26, 32));
    info.insert(QStringLiteral("software"), fixedText(in.data + 58, 32));
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
    if (header.minor >= 4 && header.headerSize >= 375) {
        QJsonArray evlrs;
        quint64 at = loadAs<quint64>(in.data + 235, false);
        const quint32 count = loadAs<quint32>(in.data + 243, false);
        for (quint32 i = 0; i < count && at + 60 <= in.size; ++i) {
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

tzPointCloud *readLas(const Bytes &in, const QString &name, const QString &,
                      const LoadOptions &options)
{
    const LasHeader header = parseHeader(in);
    return header.compressed ? readCompressed(in, header, name, options)
                             : readPlain(in, header, name, options);
}

} // namespace detail
} // namespace tzCloudFile
