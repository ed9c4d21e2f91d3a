// The items of version 1: what the first LAZ writers made of point formats 0 to 3 (read only:
// nothing writes them any more), and the wave packets of point formats 4 and 5 (version 1 is
// their only version; the layered wave packet of LAS 1.4 codes each packet the same way).

#include "tzLazCoder_p.h"

namespace tzLaz {
namespace detail {

namespace {

std::int32_t medianOf(const std::int32_t *v)
{
    return std::max(std::min(v[0], v[1]), std::min(std::max(v[0], v[1]), v[2]));
}

// X, Y, Z, intensity, flags, classification, scan angle, user data, point source (20 bytes).
// X and Y are predicted from the median of their last three differences, Z from the last Z;
// which other fields changed is one symbol.
class Point10V1Decoder final : public ItemDecoder
{
public:
    void start(const std::uint8_t *item) override
    {
        std::memcpy(m_last, item, 20);
        for (int i = 0; i < 3; ++i)
            m_xDiff[i] = m_yDiff[i] = 0;
        m_next = 0;
        for (IntegerCoder *c : {&m_dx, &m_dy, &m_z, &m_intensity, &m_scanAngle, &m_source})
            c->reset();
        m_changed.reset();
        m_flags.reset();
        m_classification.reset();
        m_userData.reset();
    }

    void read(Decoder &decoder, std::uint8_t *item) override
    {
        const std::int32_t dx = m_dx.decode(decoder, medianOf(m_xDiff));
        add(0, dx);
        unsigned k = m_dx.k();
        const std::int32_t dy = m_dy.decode(decoder, medianOf(m_yDiff), std::min(k, 19u));
        add(4, dy);
        k = (k + m_dy.k()) / 2;
        store<std::int32_t>(m_last + 8,
                            m_z.decode(decoder, load<std::int32_t>(m_last + 8), std::min(k, 19u)));

        const std::uint32_t changed = decoder.decodeSymbol(m_changed);
        if (changed & 32)
            store<std::uint16_t>(
                m_last + 12,
                std::uint16_t(m_intensity.decode(decoder, load<std::uint16_t>(m_last + 12))));
        if (changed & 16)
            m_last[14] = std::uint8_t(decoder.decodeSymbol(m_flags[m_last[14]]));
        if (changed & 8)
            m_last[15] = std::uint8_t(decoder.decodeSymbol(m_classification[m_last[15]]));
        if (changed & 4)
            m_last[16] = std::uint8_t(m_scanAngle.decode(decoder, m_last[16], k < 3));
        if (changed & 2)
            m_last[17] = std::uint8_t(decoder.decodeSymbol(m_userData[m_last[17]]));
        if (changed & 1)
            store<std::uint16_t>(
                m_last + 18,
                std::uint16_t(m_source.decode(decoder, load<std::uint16_t>(m_last + 18))));

        m_xDiff[m_next] = dx;
        m_yDiff[m_next] = dy;
        m_next = (m_next + 1) % 3;
        std::memcpy(item, m_last, 20);
    }

private:
    void add(int at, std::int32_t diff)
    {
        store<std::int32_t>(
            m_last + at,
            std::int32_t(std::uint32_t(load<std::int32_t>(m_last + at)) + std::uint32_t(diff)));
    }

    std::uint8_t m_last[20] = {};
    std::int32_t m_xDiff[3] = {}, m_yDiff[3] = {};
    unsigned m_next = 0;
    IntegerCoder m_dx {32}, m_dy {32, 20}, m_z {32, 20};
    IntegerCoder m_intensity {16}, m_scanAngle {8, 2}, m_source {16};
    SymbolModel m_changed {64};
    LazyModels m_flags {256}, m_classification {256}, m_userData {256};
};

// The GPS time: the same as the last, a multiple of the last difference (corrected), a new
// difference or a whole new value.
class GpsTimeV1Decoder final : public ItemDecoder
{
public:
    void start(const std::uint8_t *item) override
    {
        m_time = load<std::uint64_t>(item);
        m_diff = 0;
        m_extremes = 0;
        m_multi.reset();
        m_zeroDiff.reset();
        m_integers.reset();
    }

    void read(Decoder &decoder, std::uint8_t *item) override
    {
        if (m_diff == 0) {
            const std::uint32_t code = decoder.decodeSymbol(m_zeroDiff);
            if (code == 1) {
                m_diff = m_integers.decode(decoder, 0, 0);
                m_time += std::uint64_t(std::int64_t(m_diff));
            } else if (code == 2) {
                m_time = readWhole(decoder);
            }
        } else {
            const std::uint32_t multi = decoder.decodeSymbol(m_multi);
            if (multi < MULTI_MAX - 2) {
                std::int32_t diff;
                if (multi == 1) {
                    diff = m_integers.decode(decoder, m_diff, 1);
                    m_diff = diff;
                    m_extremes = 0;
                } else if (multi == 0) {
                    diff = m_integers.decode(decoder, m_diff / 4, 2);
                    extreme(diff);
                } else {
                    const std::int32_t predicted
                        = std::int32_t(std::uint32_t(multi) * std::uint32_t(m_diff));
                    diff = m_integers.decode(decoder, predicted,
                                             multi < 10       ? 3
                                                 : multi < 50 ? 4
                                                              : 5);
                    if (multi == MULTI_MAX - 3)
                        extreme(diff);
                }
                m_time += std::uint64_t(std::int64_t(diff));
            } else if (multi == MULTI_MAX - 2) {
                m_time = readWhole(decoder);
            }
        }
        store<std::uint64_t>(item, m_time);
    }

private:
    static constexpr std::uint32_t MULTI_MAX = 512;

    static std::uint64_t readWhole(Decoder &decoder)
    {
        const std::uint64_t low = decoder.readInt();
        return (std::uint64_t(decoder.readInt()) << 32) | low;
    }
    //! The fourth far difference in a row becomes the one predicted from.
    void extreme(std::int32_t diff)
    {
        if (++m_extremes > 3) {
            m_diff = diff;
            m_extremes = 0;
        }
    }

    std::uint64_t m_time = 0;
    std::int32_t m_diff = 0;
    int m_extremes = 0;
    SymbolModel m_multi {MULTI_MAX};
    SymbolModel m_zeroDiff {3};
    IntegerCoder m_integers {32, 6};
};

// Red, green, blue: which of the six bytes changed is one symbol, each changed byte is
// predicted from the same byte before.
class RgbV1Decoder final : public ItemDecoder
{
public:
    void start(const std::uint8_t *item) override
    {
        std::memcpy(m_last, item, 6);
        m_used.reset();
        m_bytes.reset();
    }

    void read(Decoder &decoder, std::uint8_t *item) override
    {
        const std::uint32_t used = decoder.decodeSymbol(m_used);
        // The bytes lie low, high, low, high... as the six contexts go.
        for (unsigned i = 0; i < 6; ++i) {
            if (used & (1u << i))
                m_last[i] = std::uint8_t(m_bytes.decode(decoder, m_last[i], i));
        }
        std::memcpy(item, m_last, 6);
    }

private:
    std::uint8_t m_last[6] = {};
    SymbolModel m_used {64};
    IntegerCoder m_bytes {8, 6};
};

// Extra bytes, each predicted from the same byte before.
class BytesV1Decoder final : public ItemDecoder
{
public:
    explicit BytesV1Decoder(std::size_t count)
        : m_last(count)
        , m_bytes(8, unsigned(count))
    {
    }
    void start(const std::uint8_t *item) override
    {
        std::memcpy(m_last.data(), item, m_last.size());
        m_bytes.reset();
    }
    void read(Decoder &decoder, std::uint8_t *item) override
    {
        for (std::size_t i = 0; i < m_last.size(); ++i)
            item[i] = m_last[i] = std::uint8_t(m_bytes.decode(decoder, m_last[i], unsigned(i)));
    }

private:
    std::vector<std::uint8_t> m_last;
    IntegerCoder m_bytes;
};

class WavePacketDecoder final : public ItemDecoder
{
public:
    void start(const std::uint8_t *item) override
    {
        std::memcpy(m_last, item, WAVE_PACKET_SIZE);
        m_models.reset();
    }
    void read(Decoder &decoder, std::uint8_t *item) override
    {
        decodeWavePacket(decoder, m_models, m_last, item);
        std::memcpy(m_last, item, WAVE_PACKET_SIZE);
    }

private:
    std::uint8_t m_last[WAVE_PACKET_SIZE] = {};
    WavePacketModels m_models;
};

class WavePacketEncoder final : public ItemEncoder
{
public:
    void start(const std::uint8_t *item) override
    {
        std::memcpy(m_last, item, WAVE_PACKET_SIZE);
        m_models.reset();
    }
    void write(Encoder &encoder, const std::uint8_t *item) override
    {
        encodeWavePacket(encoder, m_models, m_last, item);
        std::memcpy(m_last, item, WAVE_PACKET_SIZE);
    }

private:
    std::uint8_t m_last[WAVE_PACKET_SIZE] = {};
    WavePacketModels m_models;
};

// The offset's codes.
enum : std::uint32_t { SAME_OFFSET, RIGHT_AFTER, OFFSET_DIFF, WHOLE_OFFSET };

} // namespace

void decodeWavePacket(Decoder &decoder, WavePacketModels &m, const std::uint8_t *last,
                      std::uint8_t *item)
{
    const std::uint64_t lastOffset = load<std::uint64_t>(last + 1);
    const std::uint32_t lastSize = load<std::uint32_t>(last + 9);
    item[0] = std::uint8_t(decoder.decodeSymbol(m.index));
    m.lastKind = decoder.decodeSymbol(m.offsetKind[m.lastKind]);
    std::uint64_t offset = lastOffset;
    if (m.lastKind == RIGHT_AFTER) {
        offset = lastOffset + lastSize;
    } else if (m.lastKind == OFFSET_DIFF) {
        m.lastDiff = m.offsetDiff.decode(decoder, m.lastDiff);
        offset = lastOffset + std::uint64_t(std::int64_t(m.lastDiff));
    } else if (m.lastKind == WHOLE_OFFSET) {
        const std::uint64_t low = decoder.readInt();
        offset = (std::uint64_t(decoder.readInt()) << 32) | low;
    }
    store<std::uint64_t>(item + 1, offset);
    store<std::int32_t>(item + 9, m.size.decode(decoder, std::int32_t(lastSize)));
    store<std::int32_t>(item + 13, m.returnPoint.decode(decoder, load<std::int32_t>(last + 13)));
    for (unsigned d = 0; d < 3; ++d)
        store<std::int32_t>(item + 17 + 4 * d,
                            m.direction.decode(decoder, load<std::int32_t>(last + 17 + 4 * d), d));
}

void encodeWavePacket(Encoder &encoder, WavePacketModels &m, const std::uint8_t *last,
                      const std::uint8_t *item)
{
    const std::uint64_t lastOffset = load<std::uint64_t>(last + 1);
    const std::uint32_t lastSize = load<std::uint32_t>(last + 9);
    const std::uint64_t offset = load<std::uint64_t>(item + 1);
    encoder.encodeSymbol(m.index, item[0]);
    const std::int64_t wide = std::int64_t(offset - lastOffset);
    const bool narrow = wide == std::int64_t(std::int32_t(wide));
    const std::uint32_t kind = !narrow   ? WHOLE_OFFSET
        : wide == 0                      ? SAME_OFFSET
        : wide == std::int64_t(lastSize) ? RIGHT_AFTER
                                         : OFFSET_DIFF;
    encoder.encodeSymbol(m.offsetKind[m.lastKind], kind);
    m.lastKind = kind;
    if (kind == OFFSET_DIFF) {
        m.offsetDiff.encode(encoder, m.lastDiff, std::int32_t(wide));
        m.lastDiff = std::int32_t(wide);
    } else if (kind == WHOLE_OFFSET) {
        encoder.writeInt(std::uint32_t(offset));
        encoder.writeInt(std::uint32_t(offset >> 32));
    }
    m.size.encode(encoder, std::int32_t(lastSize), load<std::int32_t>(item + 9));
    m.returnPoint.encode(encoder, load<std::int32_t>(last + 13), load<std::int32_t>(item + 13));
    for (unsigned d = 0; d < 3; ++d)
        m.direction.encode(encoder, load<std::int32_t>(last + 17 + 4 * d),
                           load<std::int32_t>(item + 17 + 4 * d), d);
}

std::unique_ptr<ItemDecoder> makeItemDecoderV1(const Item &item)
{
    switch (item.type) {
    case ITEM_POINT10:
        return item.size == 20 ? std::make_unique<Point10V1Decoder>() : nullptr;
    case ITEM_GPSTIME11:
        return item.size == 8 ? std::make_unique<GpsTimeV1Decoder>() : nullptr;
    case ITEM_RGB12:
        return item.size == 6 ? std::make_unique<RgbV1Decoder>() : nullptr;
    case ITEM_WAVEPACKET13:
        return item.size == WAVE_PACKET_SIZE ? std::make_unique<WavePacketDecoder>() : nullptr;
    case ITEM_BYTE:
        return item.size > 0 ? std::make_unique<BytesV1Decoder>(item.size) : nullptr;
    default:
        return nullptr;
    }
}

std::unique_ptr<ItemEncoder> makeWavePacketEncoder()
{
    return std::make_unique<WavePacketEncoder>();
}

} // namespace detail
} // namespace tzLaz
