#include "tzLazCodec.h"
#include "tzLazCoder_p.h"

namespace tzLaz {

using namespace detail;

// ------------------------------------------------------------------ the file's structures

std::size_t Description::recordLength() const
{
    std::size_t length = 0;
    for (const Item &item : items)
        length += item.size;
    return length;
}

bool parseDescription(const std::uint8_t *data, std::size_t size, Description &out,
                      std::string &error)
{
    constexpr std::size_t FIXED = 34;
    if (size < FIXED) {
        error = "the laszip VLR is truncated (" + std::to_string(size) + " bytes)";
        return false;
    }
    Description d;
    d.compressor = load<std::uint16_t>(data);
    d.coder = load<std::uint16_t>(data + 2);
    d.versionMajor = data[4];
    d.versionMinor = data[5];
    d.revision = load<std::uint16_t>(data + 6);
    d.options = load<std::uint32_t>(data + 8);
    d.chunkSize = load<std::uint32_t>(data + 12);
    d.specialEvlrCount = load<std::int64_t>(data + 16);
    d.specialEvlrOffset = load<std::int64_t>(data + 24);
    const std::uint16_t count = load<std::uint16_t>(data + 32);
    if (size < FIXED + 6u * count) {
        error = "the laszip VLR lists " + std::to_string(count) + " items in "
            + std::to_string(size) + " bytes";
        return false;
    }
    for (std::uint16_t i = 0; i < count; ++i) {
        Item item;
        item.type = load<std::uint16_t>(data + FIXED + 6 * i);
        item.size = load<std::uint16_t>(data + FIXED + 6 * i + 2);
        item.version = load<std::uint16_t>(data + FIXED + 6 * i + 4);
        d.items.push_back(item);
    }
    if (d.coder != 0) {
        error = "LAZ coder " + std::to_string(d.coder) + " is not supported";
        return false;
    }
    if (d.compressor < 1 || d.compressor > 3) {
        error = "LAZ compressor " + std::to_string(d.compressor) + " is not supported";
        return false;
    }
    if (d.items.empty()) {
        error = "the laszip VLR lists no item";
        return false;
    }
    for (const Item &item : d.items) {
        if (d.compressor == 3 ? !makeLayeredItemDecoder(item) : !makeItemDecoder(item)) {
            error = std::string("LAZ item '") + itemName(item.type) + "' (type "
                + std::to_string(item.type) + ", " + std::to_string(item.size) + " bytes, version "
                + std::to_string(item.version) + ") is not supported";
            return false;
        }
    }
    // The first writers made one stream of all the points (compressor 1): no chunks to size.
    if (d.compressor != 1 && d.chunkSize == 0) {
        error = "the laszip VLR gives a chunk size of 0";
        return false;
    }
    out = std::move(d);
    return true;
}

bool readChunkTable(const std::uint8_t *file, std::size_t fileSize, std::uint64_t pointDataOffset,
                    std::uint64_t pointCount, const Description &description,
                    std::vector<Chunk> &chunks, std::string &error)
{
    chunks.clear();
    if (pointDataOffset + 8 > fileSize) {
        error = "the point data is truncated";
        return false;
    }
    const std::uint64_t firstChunk = pointDataOffset + 8;
    std::int64_t tableOffset = load<std::int64_t>(file + pointDataOffset);
    if (tableOffset == -1) {
        // Written to a stream: the offset was appended at the very end.
        if (fileSize < 8) {
            error = "the chunk table's offset is missing";
            return false;
        }
        tableOffset = load<std::int64_t>(file + fileSize - 8);
    }
    if (std::uint64_t(tableOffset) == pointDataOffset) {
        error = "the chunk table was never written";
        return false;
    }
    if (tableOffset < std::int64_t(firstChunk) || std::uint64_t(tableOffset) + 8 > fileSize) {
        error
            = "the chunk table's offset " + std::to_string(tableOffset) + " lies outside the file";
        return false;
    }
    return decodeChunkTable(file + tableOffset, fileSize - std::uint64_t(tableOffset),
                            std::uint64_t(tableOffset), pointDataOffset, pointCount, description,
                            chunks, error);
}

bool decodeChunkTable(const std::uint8_t *table, std::size_t tableSize, std::uint64_t tableOffset,
                      std::uint64_t pointDataOffset, std::uint64_t pointCount,
                      const Description &description, std::vector<Chunk> &chunks,
                      std::string &error)
{
    chunks.clear();
    const std::uint64_t firstChunk = pointDataOffset + 8;
    if (tableSize < 8) {
        error = "the chunk table is truncated";
        return false;
    }
    const std::uint32_t version = load<std::uint32_t>(table);
    const std::uint32_t count = load<std::uint32_t>(table + 4);
    if (version != 0) {
        error = "chunk table version " + std::to_string(version) + " is unknown";
        return false;
    }
    const bool variable = description.chunkSize == Description::VARIABLE_CHUNK_SIZE;
    // Every chunk holds at least one point; a table of more chunks than that is damaged.
    if (count > pointCount + 1 || (count == 0 && pointCount > 0)) {
        error = "the chunk table lists " + std::to_string(count) + " chunks for "
            + std::to_string(pointCount) + " points";
        return false;
    }
    Decoder decoder;
    decoder.start(table + 8, table + tableSize);
    IntegerCoder integers(32, 2);
    std::uint32_t points = 0, bytes = 0;
    std::uint64_t offset = firstChunk, remaining = pointCount;
    chunks.reserve(count);
    for (std::uint32_t i = 0; i < count; ++i) {
        if (variable)
            points = std::uint32_t(integers.decode(decoder, std::int32_t(points), 0));
        else
            points = std::uint32_t(std::min<std::uint64_t>(description.chunkSize, remaining));
        bytes = std::uint32_t(integers.decode(decoder, std::int32_t(bytes), 1));
        if (decoder.failed() || bytes == 0 || offset + bytes > std::uint64_t(tableOffset)
            || points > remaining) {
            error = "the chunk table is damaged at chunk " + std::to_string(i + 1) + " of "
                + std::to_string(count);
            chunks.clear();
            return false;
        }
        chunks.push_back({offset, bytes, points});
        offset += bytes;
        remaining -= points;
    }
    if (remaining > 0) {
        error = "the chunk table holds " + std::to_string(pointCount - remaining) + " of "
            + std::to_string(pointCount) + " points";
        chunks.clear();
        return false;
    }
    // The chunks lie end to end from the point data to the table: entries that do not add up
    // to that are damaged, however plausible each one is.
    if (offset != std::uint64_t(tableOffset)) {
        error = "the chunk table's chunks end at byte " + std::to_string(offset)
            + ", the table starts at byte " + std::to_string(tableOffset);
        chunks.clear();
        return false;
    }
    return true;
}

// ------------------------------------------------------------------ chunks

struct ChunkDecoder::Impl
{
    Decoder decoder;
    std::vector<std::unique_ptr<ItemDecoder>> items;
    std::vector<std::unique_ptr<LayeredItemDecoder>> layeredItems;
    std::vector<std::size_t> offsets; // of each item in the record
    std::size_t recordLength = 0;
    std::vector<LayerBytes> layers;

    bool decodeLayered(const std::uint8_t *data, std::size_t size, std::uint32_t count,
                       std::uint8_t *out, std::size_t &consumed, std::string &error);
};

ChunkDecoder::ChunkDecoder(const Description &description)
    : d(std::make_unique<Impl>())
{
    for (const Item &item : description.items) {
        d->offsets.push_back(d->recordLength);
        if (description.compressor == 3)
            d->layeredItems.push_back(makeLayeredItemDecoder(item));
        else
            d->items.push_back(makeItemDecoder(item));
        d->recordLength += item.size;
    }
}

bool ChunkDecoder::Impl::decodeLayered(const std::uint8_t *data, std::size_t size,
                                       std::uint32_t count, std::uint8_t *out,
                                       std::size_t &consumed, std::string &error)
{
    // The first record, the point count, the byte count of every layer, then the layers.
    std::size_t at = recordLength;
    std::size_t layerCount = 0;
    for (const auto &item : layeredItems)
        layerCount += item->layerCount();
    if (size < at + 4 + 4 * layerCount) {
        error = "a chunk is truncated";
        return false;
    }
    const std::uint32_t stored = load<std::uint32_t>(data + at);
    at += 4;
    if (stored != count) {
        error = "a chunk holds " + std::to_string(stored) + " points where " + std::to_string(count)
            + " were expected";
        return false;
    }
    layers.resize(layerCount);
    std::size_t total = 0;
    for (std::size_t i = 0; i < layerCount; ++i) {
        layers[i].size = load<std::uint32_t>(data + at + 4 * i);
        total += layers[i].size;
    }
    at += 4 * layerCount;
    if (total > size - at) {
        error = "a chunk's layers run past its end";
        return false;
    }
    for (LayerBytes &layer : layers) {
        layer.data = data + at;
        at += layer.size;
    }
    std::memcpy(out, data, recordLength);
    unsigned context = 0;
    const LayerBytes *next = layers.data();
    for (std::size_t i = 0; i < layeredItems.size(); ++i) {
        layeredItems[i]->start(out + offsets[i], next, context);
        next += layeredItems[i]->layerCount();
    }
    for (std::uint32_t p = 1; p < count; ++p) {
        std::uint8_t *record = out + std::size_t(p) * recordLength;
        context = 0; // see LayeredItemDecoder
        for (std::size_t i = 0; i < layeredItems.size(); ++i)
            layeredItems[i]->read(record + offsets[i], context);
    }
    for (const auto &item : layeredItems) {
        if (item->failed()) {
            error = "a chunk is damaged (its layers cannot be decoded)";
            return false;
        }
    }
    consumed = at;
    return true;
}

ChunkDecoder::~ChunkDecoder() = default;

bool ChunkDecoder::decode(const std::uint8_t *data, std::size_t size, std::uint32_t count,
                          std::uint8_t *out, std::size_t &consumed, std::string &error)
{
    consumed = 0;
    if (count == 0)
        return true;
    const std::size_t length = d->recordLength;
    if (size < length) {
        error = "a chunk is truncated";
        return false;
    }
    if (!d->layeredItems.empty())
        return d->decodeLayered(data, size, count, out, consumed, error);
    // The first record is stored as it is; the coder starts after it.
    std::memcpy(out, data, length);
    for (std::size_t i = 0; i < d->items.size(); ++i)
        d->items[i]->start(out + d->offsets[i]);
    d->decoder.start(data + length, data + size);
    for (std::uint32_t p = 1; p < count; ++p) {
        std::uint8_t *record = out + std::size_t(p) * length;
        for (std::size_t i = 0; i < d->items.size(); ++i)
            d->items[i]->read(d->decoder, record + d->offsets[i]);
        if (d->decoder.failed()) {
            error = "a chunk is damaged (point " + std::to_string(p + 1) + " of "
                + std::to_string(count) + " cannot be decoded)";
            return false;
        }
    }
    consumed = length + d->decoder.consumed();
    return true;
}

// ------------------------------------------------------------------ writing

bool describeFormat(int pointFormat, std::size_t recordLength, std::uint32_t chunkSize,
                    Description &out, std::string &error)
{
    // The bytes of each format's own fields.
    static const int OWN_LENGTH[] = {20, 28, 26, 34, 57, 63, 30, 36, 38, 59, 67};
    if (pointFormat < 0 || pointFormat > 10) {
        error = "LAZ writing of point format " + std::to_string(pointFormat)
            + " is not supported (formats 0 to 10 are)";
        return false;
    }
    const std::size_t own = std::size_t(OWN_LENGTH[pointFormat]);
    if (recordLength < own || recordLength > 0xffff) {
        error = "a record of " + std::to_string(recordLength) + " bytes for point format "
            + std::to_string(pointFormat);
        return false;
    }
    Description d;
    d.coder = 0;
    d.chunkSize = chunkSize == 0 ? 50000 : chunkSize;
    const std::uint16_t extra = std::uint16_t(recordLength - own);
    if (pointFormat <= 5) {
        d.compressor = 2;
        d.versionMajor = 2;
        d.versionMinor = 2;
        d.items.push_back({ITEM_POINT10, 20, 2});
        if (pointFormat != 0 && pointFormat != 2)
            d.items.push_back({ITEM_GPSTIME11, 8, 2});
        if (pointFormat == 2 || pointFormat == 3 || pointFormat == 5)
            d.items.push_back({ITEM_RGB12, 6, 2});
        if (pointFormat >= 4)
            d.items.push_back({ITEM_WAVEPACKET13, std::uint16_t(WAVE_PACKET_SIZE), 1});
        if (extra)
            d.items.push_back({ITEM_BYTE, extra, 2});
    } else {
        // LAS 1.4 points: layered chunks.
        d.compressor = 3;
        d.versionMajor = 3;
        d.versionMinor = 4;
        d.items.push_back({ITEM_POINT14, 30, 3});
        if (pointFormat == 7)
            d.items.push_back({ITEM_RGB14, 6, 3});
        if (pointFormat == 8 || pointFormat == 10)
            d.items.push_back({ITEM_RGBNIR14, 8, 3});
        if (pointFormat >= 9)
            d.items.push_back({ITEM_WAVEPACKET14, std::uint16_t(WAVE_PACKET_SIZE), 3});
        if (extra)
            d.items.push_back({ITEM_BYTE14, extra, 3});
    }
    out = std::move(d);
    return true;
}

std::vector<std::uint8_t> descriptionBytes(const Description &description)
{
    std::vector<std::uint8_t> bytes(34 + 6 * description.items.size());
    store<std::uint16_t>(bytes.data(), description.compressor);
    store<std::uint16_t>(bytes.data() + 2, description.coder);
    bytes[4] = description.versionMajor;
    bytes[5] = description.versionMinor;
    store<std::uint16_t>(bytes.data() + 6, description.revision);
    store<std::uint32_t>(bytes.data() + 8, description.options);
    store<std::uint32_t>(bytes.data() + 12, description.chunkSize);
    store<std::int64_t>(bytes.data() + 16, description.specialEvlrCount);
    store<std::int64_t>(bytes.data() + 24, description.specialEvlrOffset);
    store<std::uint16_t>(bytes.data() + 32, std::uint16_t(description.items.size()));
    for (std::size_t i = 0; i < description.items.size(); ++i) {
        store<std::uint16_t>(bytes.data() + 34 + 6 * i, description.items[i].type);
        store<std::uint16_t>(bytes.data() + 36 + 6 * i, description.items[i].size);
        store<std::uint16_t>(bytes.data() + 38 + 6 * i, description.items[i].version);
    }
    return bytes;
}

struct ChunkEncoder::Impl
{
    Encoder encoder;
    std::vector<std::unique_ptr<ItemEncoder>> items;
    std::vector<std::unique_ptr<LayeredItemEncoder>> layeredItems;
    std::vector<std::size_t> offsets;
    std::size_t recordLength = 0;
    std::vector<std::uint32_t> sizes;
    std::vector<std::uint8_t> layers;
};

ChunkEncoder::ChunkEncoder(const Description &description)
    : d(std::make_unique<Impl>())
{
    for (const Item &item : description.items) {
        d->offsets.push_back(d->recordLength);
        if (description.compressor == 3)
            d->layeredItems.push_back(makeLayeredItemEncoder(item));
        else
            d->items.push_back(makeItemEncoder(item));
        d->recordLength += item.size;
    }
}

ChunkEncoder::~ChunkEncoder() = default;

void ChunkEncoder::encode(const std::uint8_t *records, std::uint32_t count,
                          std::vector<std::uint8_t> &out)
{
    if (count == 0)
        return;
    const std::size_t length = d->recordLength;
    out.insert(out.end(), records, records + length);
    if (!d->layeredItems.empty()) {
        // The first record, the point count, the size of every layer, then the layers.
        unsigned context = 0;
        for (std::size_t i = 0; i < d->layeredItems.size(); ++i)
            d->layeredItems[i]->start(records + d->offsets[i], context);
        for (std::uint32_t p = 1; p < count; ++p) {
            const std::uint8_t *record = records + std::size_t(p) * length;
            context = 0; // see LayeredItemDecoder
            for (std::size_t i = 0; i < d->layeredItems.size(); ++i)
                d->layeredItems[i]->write(record + d->offsets[i], context);
        }
        d->sizes.clear();
        d->layers.clear();
        for (const auto &item : d->layeredItems)
            item->finish(d->sizes, d->layers);
        std::uint8_t word[4];
        store<std::uint32_t>(word, count);
        out.insert(out.end(), word, word + 4);
        for (std::uint32_t size : d->sizes) {
            store<std::uint32_t>(word, size);
            out.insert(out.end(), word, word + 4);
        }
        out.insert(out.end(), d->layers.begin(), d->layers.end());
        return;
    }
    for (std::size_t i = 0; i < d->items.size(); ++i)
        d->items[i]->start(records + d->offsets[i]);
    d->encoder.start(out);
    for (std::uint32_t p = 1; p < count; ++p) {
        const std::uint8_t *record = records + std::size_t(p) * length;
        for (std::size_t i = 0; i < d->items.size(); ++i)
            d->items[i]->write(d->encoder, record + d->offsets[i]);
    }
    d->encoder.finish();
}

void writeChunkTable(const std::vector<Chunk> &chunks, bool variable,
                     std::vector<std::uint8_t> &out)
{
    std::uint8_t head[8];
    store<std::uint32_t>(head, 0);
    store<std::uint32_t>(head + 4, std::uint32_t(chunks.size()));
    out.insert(out.end(), head, head + 8);
    if (chunks.empty())
        return;
    Encoder encoder;
    encoder.start(out);
    IntegerCoder integers(32, 2);
    std::uint32_t points = 0, bytes = 0;
    for (const Chunk &chunk : chunks) {
        if (variable)
            integers.encode(encoder, std::int32_t(points), std::int32_t(chunk.points), 0);
        integers.encode(encoder, std::int32_t(bytes), std::int32_t(chunk.bytes), 1);
        points = chunk.points;
        bytes = std::uint32_t(chunk.bytes);
    }
    encoder.finish();
}

} // namespace tzLaz
