#pragma once

// LAS files: the header, read and written in one place; the VLRs; where a LAZ file's chunks
// lie. For the LAS reader, the conversion and the header's description.

#include "tzCloudFormats_p.h"
#include "tzLazCodec.h"

#include <memory>
#include <string>
#include <vector>

namespace tzCloudFile {
namespace detail {

//! A LAS file's header, read and written here alone (LAS 1.0 to 1.4).
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
    quint64 firstReturns = 0; // the points of return 1 (legacy field, then 1.4's)
    double scale[3] = {}, offset[3] = {}, bbMin[3] = {}, bbMax[3] = {};
    QString system, software;
    quint64 waveStart = 0; // LAS 1.3: where waveform data begins (0: none)
    quint64 evlrStart = 0; // LAS 1.4: where the extended VLRs begin, and how many
    quint32 evlrCount = 0;
    int rgbOffset = -1; // of the colours in a record, -1 without

    // Where the fields lie that a conversion changes in a header it copies.
    static constexpr int DATA_OFFSET_AT = 96, VLR_COUNT_AT = 100, FORMAT_AT = 104,
                         WAVE_START_AT = 227, EVLR_START_AT = 235, EVLR_COUNT_AT = 243;

    //! The header at the start of a file; fails with the reason when it cannot be read.
    static LasHeader read(const Bytes &in);
    //! The header's bytes (headerSize of them: 227 up to LAS 1.3, 375 for 1.4), for a file
    //! written anew.
    QByteArray write() const;
};

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

//! What went wrong in a chunk (index from 0; count 0 when the chunks are not counted yet).
QString chunkProblem(size_t index, size_t count, quint64 offset, const std::string &error);
//! Whether a VLR or an extended VLR (same first fields) is one of an octree's (COPC): its
//! description or its hierarchy.
bool isCopcRecord(const uchar *vlr);
bool isLaszipVlr(const uchar *vlr);
//! The description of a LAZ file's items (its laszip VLR); fails without a usable one.
tzLaz::Description lazDescription(const Bytes &in, const LasHeader &header);
//! The laszip VLR (head and payload) that describes LAZ records so.
QByteArray laszipVlr(const tzLaz::Description &description);
//! The chunks found one after the other, when there is no chunk table to say where they are:
//! each starts where the decoder of the one before stopped.
std::vector<tzLaz::Chunk> chunksInSequence(const Bytes &in, const LasHeader &header,
                                           const tzLaz::Description &description);
//! Where the chunks of a LAZ file's points lie: from its chunk table (fromTable), or found one
//! after the other when the table is missing or damaged; the points of the first writers are
//! one stream.
std::vector<tzLaz::Chunk> lazChunks(const Bytes &in, const LasHeader &header,
                                    const tzLaz::Description &description,
                                    bool *fromTable = nullptr);

//! Where the records of a LAS or LAZ file come from, chunk by chunk, as stored (one thread).
class RecordSource
{
public:
    //! Fails when the file is truncated or its LAZ description cannot be used.
    RecordSource(const Bytes &in, const LasHeader &header);
    ~RecordSource();

    //! The next records (at least one while some remain; none at the end): LAZ chunks are
    //! decoded a few at a time on every core. What was read before goes out of memory.
    const uchar *next(size_t &count);
    quint64 done() const { return m_done; }
    //! The bytes of the file before which every record given so far lay.
    quint64 bytesRead() const;
    //! Where the point data ends (in LAZ, the last chunk; the chunk table follows).
    quint64 pointDataEnd() const;

private:
    const Bytes &m_in;
    const LasHeader &m_header;
    tzLaz::Description m_description;
    std::vector<tzLaz::Chunk> m_chunks;
    std::vector<std::unique_ptr<tzLaz::ChunkDecoder>> m_decoders; // one a thread
    std::vector<uchar> m_records;
    size_t m_chunk = 0;
    quint64 m_done = 0;
    size_t m_released = 0;
};

} // namespace detail
} // namespace tzCloudFile
