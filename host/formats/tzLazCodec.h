#pragma once

// LAZ: LAS point records compressed chunk by chunk. The LAS header and the VLRs stay as they are
// (the point format's high bit set); a VLR "laszip encoded" lists the items a record is made
// of; the point data starts with the offset of the chunk table, then the chunks follow. Each
// chunk holds its first record raw, then the others as the output of an adaptive arithmetic
// coder that predicts each item from the record before it; models and predictions start afresh
// in every chunk, so chunks decode independently. The chunk table at the end gives each chunk's
// size in bytes (and its point count when the chunk size varies), itself arithmetic coded.
//
// Everything here is exact integer work on bytes: a record decodes to the very bytes the LAS
// file had. No Qt, no allocation per point; one ChunkDecoder per thread.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace tzLaz {

//! Kinds of items of a compressed record (the VLR's item types).
enum ItemType : std::uint16_t {
    ITEM_BYTE = 0,
    ITEM_POINT10 = 6,
    ITEM_GPSTIME11 = 7,
    ITEM_RGB12 = 8,
    ITEM_WAVEPACKET13 = 9,
    ITEM_POINT14 = 10,
    ITEM_RGB14 = 11,
    ITEM_RGBNIR14 = 12,
    ITEM_WAVEPACKET14 = 13,
    ITEM_BYTE14 = 14,
};

struct Item
{
    std::uint16_t type = 0;
    std::uint16_t size = 0; // bytes in the record
    std::uint16_t version = 0;
};

//! The "laszip encoded" VLR (user "laszip encoded", record 22204).
struct Description
{
    static constexpr std::uint16_t RECORD_ID = 22204;
    //! The chunk size that says every chunk's point count is in the chunk table.
    static constexpr std::uint32_t VARIABLE_CHUNK_SIZE = 0xffffffffu;

    std::uint16_t compressor = 0; // 1 whole file, 2 chunks, 3 layered chunks (LAS 1.4)
    std::uint16_t coder = 0; // 0: arithmetic
    std::uint8_t versionMajor = 0;
    std::uint8_t versionMinor = 0;
    std::uint16_t revision = 0;
    std::uint32_t options = 0;
    std::uint32_t chunkSize = 0;
    std::int64_t specialEvlrCount = -1;
    std::int64_t specialEvlrOffset = -1;
    std::vector<Item> items;

    //! The record length the items add up to.
    std::size_t recordLength() const;
};

//! Reads the VLR's payload. False, with the reason, when it is malformed or asks for what this
//! decoder does not do (an item kind or version, another coder).
bool parseDescription(const std::uint8_t *data, std::size_t size, Description &out,
                      std::string &error);

//! Where a chunk lies in the file and how many points it holds.
struct Chunk
{
    std::uint64_t offset = 0;
    std::uint64_t bytes = 0;
    std::uint32_t points = 0;
};

//! The chunks of the point data, from the chunk table. pointDataOffset is the header's offset to
//! the point data (where the table's own offset is stored); pointCount the header's count.
//! False when there is no usable table (never written, damaged, or pointing outside the file):
//! error says why, and with a fixed chunk size the chunks can still be read one after the
//! other.
bool readChunkTable(const std::uint8_t *file, std::size_t fileSize, std::uint64_t pointDataOffset,
                    std::uint64_t pointCount, const Description &description,
                    std::vector<Chunk> &chunks, std::string &error);
//! The same from the table's own bytes, [table, table + tableSize), found at tableOffset in
//! the file: for a file read a part at a time.
bool decodeChunkTable(const std::uint8_t *table, std::size_t tableSize, std::uint64_t tableOffset,
                      std::uint64_t pointDataOffset, std::uint64_t pointCount,
                      const Description &description, std::vector<Chunk> &chunks,
                      std::string &error);

//! Decodes the records of one chunk. Reused chunk after chunk on one thread.
class ChunkDecoder
{
public:
    explicit ChunkDecoder(const Description &description);
    ~ChunkDecoder();
    ChunkDecoder(const ChunkDecoder &) = delete;
    ChunkDecoder &operator=(const ChunkDecoder &) = delete;

    //! Decodes count records from the chunk's bytes [data, data + size) into out (count times
    //! the record length). consumed: the bytes the chunk took (where the next one starts when
    //! there is no chunk table). False, with the reason, when the bytes run out or cannot be
    //! what an encoder wrote.
    bool decode(const std::uint8_t *data, std::size_t size, std::uint32_t count, std::uint8_t *out,
                std::size_t &consumed, std::string &error);

private:
    struct Impl;
    std::unique_ptr<Impl> d;
};

//! The items this encoder writes for records of a LAS point format (0 to 3: items of version 2;
//! 6 to 8: layered items of version 3): the format's own fields, then what the record holds
//! beyond them as extra bytes. False, with the reason, for another format. chunkSize 0: the
//! usual 50,000 points.
bool describeFormat(int pointFormat, std::size_t recordLength, std::uint32_t chunkSize,
                    Description &out, std::string &error);
//! The payload of the "laszip encoded" VLR.
std::vector<std::uint8_t> descriptionBytes(const Description &description);

//! Encodes the records of one chunk. Reused chunk after chunk on one thread.
class ChunkEncoder
{
public:
    explicit ChunkEncoder(const Description &description);
    ~ChunkEncoder();
    ChunkEncoder(const ChunkEncoder &) = delete;
    ChunkEncoder &operator=(const ChunkEncoder &) = delete;

    //! Appends the chunk of count records (count times the record length) to out.
    void encode(const std::uint8_t *records, std::uint32_t count, std::vector<std::uint8_t> &out);

private:
    struct Impl;
    std::unique_ptr<Impl> d;
};

//! Appends the chunk table (its version, its count, then the coded sizes; the counts too when
//! chunks vary in size).
void writeChunkTable(const std::vector<Chunk> &chunks, bool variable,
                     std::vector<std::uint8_t> &out);

} // namespace tzLaz
