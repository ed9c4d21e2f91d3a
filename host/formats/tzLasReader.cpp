// LAS 1.0 to 1.4, every point format (0 to 10; waveform packets are not read), plain or
// compressed as LAZ.

#include "tzLasFile_p.h"

#include <QtGlobal>

#include <atomic>
#include <cstring>

namespace tzCloudFile {
namespace detail {

namespace {

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
    // Blocks of records spread over the file first, for the previews; each block's colours
    // taken as 8 or 16 bits by its own values until the whole file says.
    const size_t STEP = std::clamp<size_t>(n / 256, 4096, 65536);
    const size_t blocks = (n + STEP - 1) / STEP;
    std::vector<char> wideBlock(blocks, 0);
    Previews previews(options, n);
    size_t done = 0;
    for (const size_t block : spreadOrder(blocks)) {
        const size_t first = block * STEP;
        const size_t count = std::min(STEP, n - first);
        const uchar *records = data + first * header.recordLength;
        convert.points(records, count, points.data() + first);
        convert.attributes(records, count, attributes.data() + first);
        if (withColours) {
            wideBlock[block] = convert.wideColours(records, count);
            convert.colours(records, count, wideBlock[block], colours.data() + first);
        }
        previews.pieceDone(first, count, points.data(), withColours ? colours.data() : nullptr,
                           builder.shift());
        done += count;
        builder.progress(done, n);
    }
    // In a file of 16-bit colours, the blocks whose values all fit in 8 bits kept them as they
    // were: their high bytes are zeros.
    if (std::any_of(wideBlock.begin(), wideBlock.end(), [](char w) { return w != 0; })) {
        for (size_t block = 0; block < blocks; ++block) {
            if (!wideBlock[block]) {
                std::fill_n(colours.begin() + qint64(block * STEP),
                            std::min(STEP, n - block * STEP), tzRgb {0, 0, 0});
            }
        }
    }
    return builder.finish(name, std::move(points), std::move(colours), std::move(attributes),
                          LAS_ATTRIBUTES);
}

// ---------------------------------------------------------------- LAZ

// Decodes the chunks on every core into the cloud's arrays: each worker takes the next chunk,
// decodes it into a buffer of its own and converts it where its points go. Memory: the cloud
// plus one decoded chunk per worker.
class LazDecoding
{
public:
    LazDecoding(const Bytes &in, const LasHeader &header, const tzLaz::Description &description,
                const RecordConverter &convert, std::vector<tzLaz::Chunk> chunks, TZVector3 *points,
                tzRgb *colours, tzPointAttributes *attributes, Previews &previews)
        : m_in(in)
        , m_header(header)
        , m_description(description)
        , m_convert(convert)
        , m_chunks(std::move(chunks))
        , m_points(points)
        , m_colours(colours)
        , m_attributes(attributes)
        , m_wideChunk(m_chunks.size(), 0)
        , m_previews(previews)
    {
        size_t first = 0;
        // Chunks follow the flight lines: they are read in an order that covers the extent
        // early, by where the first record of each lies (stored as it is, at the chunk's start).
        std::vector<std::pair<double, double>> places;
        for (const tzLaz::Chunk &chunk : m_chunks) {
            m_firstPoint.push_back(first);
            first += chunk.points;
            const uchar *record = in.data + chunk.offset;
            if (chunk.offset + 8 <= in.size) {
                places.push_back({loadAs<qint32>(record, false) * header.scale[0],
                                  loadAs<qint32>(record + 4, false) * header.scale[1]});
            } else {
                places.push_back({0.0, 0.0});
            }
        }
        m_order = coveringOrder(places);
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
        for (size_t next = m_next++; next < m_chunks.size() && !m_work.stopped(); next = m_next++) {
            const size_t c = m_order[next];
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
            m_previews.pieceDone(m_firstPoint[c], chunk.points, m_points, m_colours,
                                 m_convert.shift);
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
    Previews &m_previews;
    std::vector<size_t> m_order;
    std::atomic<size_t> m_next {0};
    SharedWork m_work;
};

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
        Previews previews(options, n);
        LazDecoding decoding(in, header, description, convert, std::move(where),
                             arrays.points.data(), colours.empty() ? nullptr : colours.data(),
                             arrays.attributes.data(), previews);
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

} // namespace

tzPointCloud *readLas(const Bytes &in, const QString &name, const QString &,
                      const LoadOptions &options)
{
    const LasHeader header = LasHeader::read(in);
    return header.compressed ? readCompressed(in, header, name, options)
                             : readPlain(in, header, name, options);
}

} // namespace detail
} // namespace tzCloudFile
