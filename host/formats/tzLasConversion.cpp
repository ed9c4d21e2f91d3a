// Converting LAS and LAZ files into each other, record for record, in chunks as they come.

#include "tzLasFile_p.h"

#include <QIODevice>

#include <cstring>

namespace tzCloudFile {
namespace detail {

namespace {

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
    const LasHeader header = LasHeader::read(in);
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
        vlrs.append(laszipVlr(description));
        ++vlrCount;
    }
    QByteArray head(reinterpret_cast<const char *>(in.data), header.headerSize);
    const quint32 dataOffset = quint32(header.headerSize + vlrs.size() + between.size());
    storeAt<quint32>(head, LasHeader::DATA_OFFSET_AT, dataOffset);
    storeAt<quint32>(head, LasHeader::VLR_COUNT_AT, vlrCount);
    head[LasHeader::FORMAT_AT] = char(toLaz ? (header.format | 0x80) : header.format);

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
        const quint64 waveStart = header.waveStart;
        const quint64 evlrStart = header.evlrCount > 0 ? header.evlrStart : 0;
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
                const quint32 count = header.evlrCount;
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
                moved(LasHeader::WAVE_START_AT, waveStart);
            if (evlrsLast) {
                if (!out.seek(start + LasHeader::EVLR_START_AT))
                    failWith(QStringLiteral("cannot write: %1").arg(out.errorString()));
                write(reinterpret_cast<const char *>(&newEvlrStart), 8);
                write(reinterpret_cast<const char *>(&keptEvlrs), 4); // EVLR_COUNT_AT follows
            } else if (after(evlrStart)) {
                moved(LasHeader::EVLR_START_AT, evlrStart);
            }
            out.seek(finished);
        }
    }
}

} // namespace detail
} // namespace tzCloudFile
