// Converting LAS and LAZ files into each other, record for record, in chunks as they come.

#include "tzLasFile_p.h"

#include <QIODevice>

#include <atomic>
#include <cstring>
#include <thread>

namespace tzCloudFile {
namespace detail {

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
    // Records go out as they come in, in chunks of the output's size when it is LAZ: a few
    // chunks a thread encoded side by side, then written in their order.
    const unsigned threads = threadsFor(size_t(header.count / std::max(1u, description.chunkSize)));
    std::vector<std::unique_ptr<tzLaz::ChunkEncoder>> encoders;
    for (unsigned t = 0; toLaz && t < threads; ++t)
        encoders.push_back(std::make_unique<tzLaz::ChunkEncoder>(description));
    std::vector<uchar> pending;
    const size_t length = header.recordLength;
    const auto flush = [&](size_t chunkCount, size_t lastPoints) {
        // Chunks [0, chunkCount) of pending, the last of lastPoints records.
        std::vector<std::vector<uchar>> encoded(chunkCount);
        std::atomic<size_t> next {0};
        const auto work = [&](tzLaz::ChunkEncoder &encoder) {
            for (size_t c = next++; c < chunkCount; c = next++) {
                const size_t points = c + 1 == chunkCount ? lastPoints : description.chunkSize;
                encoder.encode(pending.data() + c * description.chunkSize * length, quint32(points),
                               encoded[c]);
            }
        };
        std::vector<std::thread> helpers;
        for (size_t t = 1; t < encoders.size() && t < chunkCount; ++t)
            helpers.emplace_back(work, std::ref(*encoders[t]));
        work(*encoders[0]);
        for (std::thread &helper : helpers)
            helper.join();
        for (size_t c = 0; c < chunkCount; ++c) {
            const quint32 points
                = quint32(c + 1 == chunkCount ? lastPoints : description.chunkSize);
            chunks.push_back({quint64(out.pos() - start), encoded[c].size(), points});
            write(reinterpret_cast<const char *>(encoded[c].data()), qint64(encoded[c].size()));
        }
        const size_t used = ((chunkCount - 1) * description.chunkSize + lastPoints) * length;
        pending.erase(pending.begin(), pending.begin() + qint64(used));
    };
    const size_t batch = size_t(4) * std::max<size_t>(1, encoders.size());
    CloudBuilder progress(options);
    for (size_t count = 0;;) {
        const uchar *records = source.next(count);
        if (count == 0)
            break;
        if (!toLaz) {
            write(reinterpret_cast<const char *>(records), qint64(count * length));
        } else {
            pending.insert(pending.end(), records, records + count * length);
            while (pending.size() >= batch * description.chunkSize * length)
                flush(batch, description.chunkSize);
        }
        progress.progress(size_t(source.done()), size_t(std::max<quint64>(1, header.count)));
    }
    if (toLaz && !pending.empty()) {
        const size_t left = pending.size() / length;
        const size_t full = left / description.chunkSize, rest = left % description.chunkSize;
        flush(full + (rest ? 1 : 0), rest ? rest : description.chunkSize);
    }
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
