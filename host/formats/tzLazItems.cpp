// The items of LAZ records of point formats 0 to 5, version 2: how each is predicted from the
// record before and coded, in both directions (version 1 and wave packets: tzLazItemsV1.cpp).

#include "tzLazCoder_p.h"

namespace tzLaz {
namespace detail {

namespace {

constexpr std::uint8_t RETURN_SLOT[8][8]
    = {{15, 14, 13, 12, 11, 10, 9, 8},  {14, 0, 1, 3, 6, 10, 10, 9},
       {13, 1, 2, 4, 7, 11, 11, 10},    {12, 3, 4, 5, 8, 12, 12, 11},
       {11, 6, 7, 8, 9, 13, 13, 12},    {10, 10, 11, 12, 13, 14, 14, 13},
       {9, 10, 11, 12, 13, 14, 15, 14}, {8, 9, 10, 11, 12, 13, 14, 15}};
constexpr std::uint8_t RETURN_LEVEL[8][8]
    = {{0, 1, 2, 3, 4, 5, 6, 7}, {1, 0, 1, 2, 3, 4, 5, 6}, {2, 1, 0, 1, 2, 3, 4, 5},
       {3, 2, 1, 0, 1, 2, 3, 4}, {4, 3, 2, 1, 0, 1, 2, 3}, {5, 4, 3, 2, 1, 0, 1, 2},
       {6, 5, 4, 3, 2, 1, 0, 1}, {7, 6, 5, 4, 3, 2, 1, 0}};

//! A model made the first time its context is met in a chunk.

// ------------------------------------------------------------------ items, version 2

// What both directions of the point item keep: the last record, the medians of the last
// coordinate differences and the last intensities and heights by return kind, and the models.
class Point10Models
{
protected:
    void startModels(const std::uint8_t *item)
    {
        for (int i = 0; i < 16; ++i) {
            m_xDiff[i].reset();
            m_yDiff[i].reset();
            m_intensity[i] = 0;
            m_height[i / 2] = 0;
        }
        m_changed.reset();
        m_intensityCoder.reset();
        m_scanAngle[0].reset();
        m_scanAngle[1].reset();
        m_sourceCoder.reset();
        m_flags.reset();
        m_classification.reset();
        m_userData.reset();
        m_dx.reset();
        m_dy.reset();
        m_z.reset();
        std::memcpy(m_last, item, 20);
    }

    std::uint8_t m_last[20] = {};
    Median5 m_xDiff[16], m_yDiff[16];
    std::uint16_t m_intensity[16] = {};
    std::int32_t m_height[8] = {};
    SymbolModel m_changed {64};
    IntegerCoder m_intensityCoder {16, 4};
    SymbolModel m_scanAngle[2] {SymbolModel(256), SymbolModel(256)};
    IntegerCoder m_sourceCoder {16};
    LazyModels m_flags {256}, m_classification {256}, m_userData {256};
    IntegerCoder m_dx {32, 2}, m_dy {32, 22}, m_z {32, 20};
};

// X, Y, Z, intensity, return and flag bits, classification, scan angle, user data, point
// source (20 bytes). Each coordinate is predicted from the median of its last differences among
// the points of the same return kind; which fields changed is one symbol.
class Point10Decoder final : public ItemDecoder, Point10Models
{
public:
    void start(const std::uint8_t *item) override
    {
        startModels(item);
        // The intensity is predicted from zero in each chunk.
        m_last[12] = m_last[13] = 0;
    }

    void read(Decoder &decoder, std::uint8_t *item) override
    {
        const std::uint32_t changed = decoder.decodeSymbol(m_changed);
        unsigned r, n, slot, level;
        const auto returns = [&] {
            r = m_last[14] & 7;
            n = (m_last[14] >> 3) & 7;
            slot = RETURN_SLOT[n][r];
            level = RETURN_LEVEL[n][r];
        };
        if (changed) {
            if (changed & 32)
                m_last[14] = std::uint8_t(decoder.decodeSymbol(m_flags[m_last[14]]));
            returns();
            if (changed & 16) {
                const std::int32_t intensity
                    = m_intensityCoder.decode(decoder, m_intensity[slot], slot < 3 ? slot : 3);
                m_intensity[slot] = std::uint16_t(intensity);
            }
            store<std::uint16_t>(m_last + 12, m_intensity[slot]);
            if (changed & 8)
                m_last[15] = std::uint8_t(decoder.decodeSymbol(m_classification[m_last[15]]));
            if (changed & 4) {
                const std::int32_t value
                    = std::int32_t(decoder.decodeSymbol(m_scanAngle[(m_last[14] >> 6) & 1]));
                m_last[16] = fold(value + m_last[16]);
            }
            if (changed & 2)
                m_last[17] = std::uint8_t(decoder.decodeSymbol(m_userData[m_last[17]]));
            if (changed & 1) {
                const std::int32_t source
                    = m_sourceCoder.decode(decoder, load<std::uint16_t>(m_last + 18));
                store<std::uint16_t>(m_last + 18, std::uint16_t(source));
            }
        } else {
            returns();
        }

        std::int32_t diff = m_dx.decode(decoder, m_xDiff[slot].get(), n == 1);
        store<std::int32_t>(
            m_last, std::int32_t(std::uint32_t(load<std::int32_t>(m_last)) + std::uint32_t(diff)));
        m_xDiff[slot].add(diff);

        unsigned kBits = m_dx.k();
        diff = m_dy.decode(decoder, m_yDiff[slot].get(),
                           (n == 1) + (kBits < 20 ? (kBits & ~1u) : 20));
        store<std::int32_t>(
            m_last + 4,
            std::int32_t(std::uint32_t(load<std::int32_t>(m_last + 4)) + std::uint32_t(diff)));
        m_yDiff[slot].add(diff);

        kBits = (m_dx.k() + m_dy.k()) / 2;
        const std::int32_t z
            = m_z.decode(decoder, m_height[level], (n == 1) + (kBits < 18 ? (kBits & ~1u) : 18));
        store<std::int32_t>(m_last + 8, z);
        m_height[level] = z;

        std::memcpy(item, m_last, 20);
    }
};

// What both directions of the GPS time item keep: up to four sequences of times, each with its
// last value, its last difference and how many times in a row the difference was far from a
// multiple of it; and the models.
class GpsTimeModels
{
protected:
    static constexpr std::int32_t MULTI = 500;
    static constexpr std::int32_t MULTI_MINUS = -10;
    static constexpr std::uint32_t UNCHANGED = MULTI - MULTI_MINUS + 1;
    static constexpr std::uint32_t CODE_FULL = MULTI - MULTI_MINUS + 2;
    static constexpr std::uint32_t TOTAL = MULTI - MULTI_MINUS + 6;

    void startModels(const std::uint8_t *item)
    {
        m_last = m_next = 0;
        for (int i = 0; i < 4; ++i) {
            m_diff[i] = 0;
            m_extremes[i] = 0;
            m_time[i] = 0;
        }
        m_multi.reset();
        m_zeroDiff.reset();
        m_integers.reset();
        m_time[0] = load<std::uint64_t>(item);
    }
    //! factor times diff, wrapping as the format's own coder does.
    static std::int32_t times(std::int32_t factor, std::int32_t diff)
    {
        return std::int32_t(std::uint32_t(factor) * std::uint32_t(diff));
    }
    //! A difference far from the last one's multiples: the fourth in a row becomes the new one.
    void extreme(std::int32_t diff)
    {
        if (++m_extremes[m_last] > 3) {
            m_diff[m_last] = diff;
            m_extremes[m_last] = 0;
        }
    }

    unsigned m_last = 0, m_next = 0;
    std::uint64_t m_time[4] = {};
    std::int32_t m_diff[4] = {};
    std::int32_t m_extremes[4] = {};
    SymbolModel m_multi {TOTAL};
    SymbolModel m_zeroDiff {6};
    IntegerCoder m_integers {32, 9};
};

// The GPS time (8 bytes, a double taken as a 64-bit integer). Up to four sequences of times are
// followed at once (interleaved flight lines); a time is a multiple of its sequence's last
// difference, a new difference, a jump to another sequence or a whole new value.
class GpsTimeDecoder final : public ItemDecoder, GpsTimeModels
{
public:
    void start(const std::uint8_t *item) override { startModels(item); }

    void read(Decoder &decoder, std::uint8_t *item) override
    {
        // A jump to another sequence reads again, at most a few times in a row in any file an
        // encoder wrote.
        for (int hop = 0; hop < 8; ++hop) {
            if (m_diff[m_last] == 0) {
                const std::uint32_t multi = decoder.decodeSymbol(m_zeroDiff);
                if (multi == 1) {
                    m_diff[m_last] = m_integers.decode(decoder, 0, 0);
                    m_time[m_last] += std::uint64_t(std::int64_t(m_diff[m_last]));
                    m_extremes[m_last] = 0;
                } else if (multi == 2) {
                    fullTime(decoder);
                } else if (multi > 2) {
                    m_last = (m_last + multi - 2) & 3;
                    continue;
                }
            } else {
                const std::uint32_t multi = decoder.decodeSymbol(m_multi);
                if (multi == 1) {
                    m_time[m_last] += std::uint64_t(
                        std::int64_t(m_integers.decode(decoder, m_diff[m_last], 1)));
                    m_extremes[m_last] = 0;
                } else if (multi < UNCHANGED) {
                    std::int32_t diff;
                    if (multi == 0) {
                        diff = m_integers.decode(decoder, 0, 7);
                        extreme(diff);
                    } else if (multi < MULTI) {
                        diff = m_integers.decode(decoder, times(multi, m_diff[m_last]),
                                                 multi < 10 ? 2 : 3);
                    } else if (multi == MULTI) {
                        diff = m_integers.decode(decoder, times(MULTI, m_diff[m_last]), 4);
                        extreme(diff);
                    } else {
                        const std::int32_t minus = std::int32_t(MULTI) - std::int32_t(multi);
                        if (minus > MULTI_MINUS) {
                            diff = m_integers.decode(decoder, times(minus, m_diff[m_last]), 5);
                        } else {
                            diff
                                = m_integers.decode(decoder, times(MULTI_MINUS, m_diff[m_last]), 6);
                            extreme(diff);
                        }
                    }
                    m_time[m_last] += std::uint64_t(std::int64_t(diff));
                } else if (multi == CODE_FULL) {
                    fullTime(decoder);
                } else if (multi > CODE_FULL) {
                    m_last = (m_last + multi - CODE_FULL) & 3;
                    continue;
                }
            }
            break;
        }
        store<std::uint64_t>(item, m_time[m_last]);
    }

private:
    void fullTime(Decoder &decoder)
    {
        m_next = (m_next + 1) & 3;
        const std::int32_t high
            = m_integers.decode(decoder, std::int32_t(std::uint32_t(m_time[m_last] >> 32)), 8);
        m_time[m_next] = (std::uint64_t(std::uint32_t(high)) << 32) | decoder.readInt();
        m_last = m_next;
        m_diff[m_last] = 0;
        m_extremes[m_last] = 0;
    }
};

// Red, green, blue (three 16-bit values). Which of their six bytes changed is one symbol; the
// low and high bytes of green and blue are predicted from red's change.
class RgbDecoder final : public ItemDecoder
{
public:
    void start(const std::uint8_t *item) override
    {
        m_models.reset();
        for (int i = 0; i < 3; ++i)
            m_last[i] = load<std::uint16_t>(item + 2 * i);
    }

    void read(Decoder &decoder, std::uint8_t *item) override
    {
        std::uint16_t c[3];
        decodeRgb(decoder, m_models, m_last, c);
        for (int i = 0; i < 3; ++i) {
            m_last[i] = c[i];
            store<std::uint16_t>(item + 2 * i, c[i]);
        }
    }

private:
    std::uint16_t m_last[3] = {};
    RgbModels m_models;
};

// What both directions of the extra bytes keep: the last bytes and a model for each.
class BytesModels
{
protected:
    explicit BytesModels(std::size_t count)
        : m_last(count)
        , m_models(count, SymbolModel(256))
    {
    }
    void startModels(const std::uint8_t *item)
    {
        for (SymbolModel &m : m_models)
            m.reset();
        std::memcpy(m_last.data(), item, m_last.size());
    }

    std::vector<std::uint8_t> m_last;
    std::vector<SymbolModel> m_models;
};

// Extra bytes: each byte's difference from the same byte of the record before.
class BytesDecoder final : public ItemDecoder, BytesModels
{
public:
    explicit BytesDecoder(std::size_t count)
        : BytesModels(count)
    {
    }
    void start(const std::uint8_t *item) override { startModels(item); }
    void read(Decoder &decoder, std::uint8_t *item) override
    {
        for (std::size_t i = 0; i < m_last.size(); ++i) {
            m_last[i]
                = fold(std::int32_t(m_last[i]) + std::int32_t(decoder.decodeSymbol(m_models[i])));
            item[i] = m_last[i];
        }
    }
};

// ------------------------------------------------------------------ items, version 2, encoding
//
// Each encoder makes the very choices its decoder above undoes, from the record before.

class Point10Encoder final : public ItemEncoder, Point10Models
{
public:
    void start(const std::uint8_t *item) override { startModels(item); }

    void write(Encoder &encoder, const std::uint8_t *item) override
    {
        const unsigned r = item[14] & 7, n = (item[14] >> 3) & 7;
        const unsigned slot = RETURN_SLOT[n][r], level = RETURN_LEVEL[n][r];
        const std::uint16_t intensity = load<std::uint16_t>(item + 12);
        const std::uint16_t source = load<std::uint16_t>(item + 18);
        const std::uint32_t changed = (std::uint32_t(m_last[14] != item[14]) << 5)
            | (std::uint32_t(m_intensity[slot] != intensity) << 4)
            | (std::uint32_t(m_last[15] != item[15]) << 3)
            | (std::uint32_t(m_last[16] != item[16]) << 2)
            | (std::uint32_t(m_last[17] != item[17]) << 1)
            | std::uint32_t(load<std::uint16_t>(m_last + 18) != source);
        encoder.encodeSymbol(m_changed, changed);
        if (changed & 32)
            encoder.encodeSymbol(m_flags[m_last[14]], item[14]);
        if (changed & 16) {
            m_intensityCoder.encode(encoder, m_intensity[slot], intensity, slot < 3 ? slot : 3);
            m_intensity[slot] = intensity;
        }
        if (changed & 8)
            encoder.encodeSymbol(m_classification[m_last[15]], item[15]);
        if (changed & 4)
            encoder.encodeSymbol(m_scanAngle[(item[14] >> 6) & 1],
                                 fold(std::int32_t(item[16]) - std::int32_t(m_last[16])));
        if (changed & 2)
            encoder.encodeSymbol(m_userData[m_last[17]], item[17]);
        if (changed & 1)
            m_sourceCoder.encode(encoder, load<std::uint16_t>(m_last + 18), source);

        std::int32_t diff = std::int32_t(std::uint32_t(load<std::int32_t>(item))
                                         - std::uint32_t(load<std::int32_t>(m_last)));
        m_dx.encode(encoder, m_xDiff[slot].get(), diff, n == 1);
        m_xDiff[slot].add(diff);

        unsigned kBits = m_dx.k();
        diff = std::int32_t(std::uint32_t(load<std::int32_t>(item + 4))
                            - std::uint32_t(load<std::int32_t>(m_last + 4)));
        m_dy.encode(encoder, m_yDiff[slot].get(), diff,
                    (n == 1) + (kBits < 20 ? (kBits & ~1u) : 20));
        m_yDiff[slot].add(diff);

        kBits = (m_dx.k() + m_dy.k()) / 2;
        const std::int32_t z = load<std::int32_t>(item + 8);
        m_z.encode(encoder, m_height[level], z, (n == 1) + (kBits < 18 ? (kBits & ~1u) : 18));
        m_height[level] = z;

        std::memcpy(m_last, item, 20);
    }
};

class GpsTimeEncoder final : public ItemEncoder, GpsTimeModels
{
public:
    void start(const std::uint8_t *item) override { startModels(item); }

    void write(Encoder &encoder, const std::uint8_t *item) override
    {
        const std::uint64_t time = load<std::uint64_t>(item);
        for (int hop = 0; hop < 2; ++hop) {
            if (time == m_time[m_last]) {
                encoder.encodeSymbol(m_diff[m_last] == 0 ? m_zeroDiff : m_multi,
                                     m_diff[m_last] == 0 ? 0 : UNCHANGED);
                return;
            }
            const std::int64_t wide = std::int64_t(time - m_time[m_last]);
            const bool fits = wide == std::int64_t(std::int32_t(wide));
            if (!fits) {
                // Another sequence it continues, or a new one.
                const int other = otherSequence(time);
                if (other > 0) {
                    encoder.encodeSymbol(m_diff[m_last] == 0 ? m_zeroDiff : m_multi,
                                         m_diff[m_last] == 0 ? std::uint32_t(other + 2)
                                                             : CODE_FULL + std::uint32_t(other));
                    m_last = (m_last + unsigned(other)) & 3;
                    continue;
                }
                encoder.encodeSymbol(m_diff[m_last] == 0 ? m_zeroDiff : m_multi,
                                     m_diff[m_last] == 0 ? 2 : CODE_FULL);
                m_integers.encode(encoder, std::int32_t(m_time[m_last] >> 32),
                                  std::int32_t(time >> 32), 8);
                encoder.writeInt(std::uint32_t(time));
                m_next = (m_next + 1) & 3;
                m_last = m_next;
                m_diff[m_last] = 0;
                m_extremes[m_last] = 0;
                m_time[m_last] = time;
                return;
            }
            const std::int32_t diff = std::int32_t(wide);
            if (m_diff[m_last] == 0) {
                encoder.encodeSymbol(m_zeroDiff, 1);
                m_integers.encode(encoder, 0, diff, 0);
                m_diff[m_last] = diff;
                m_extremes[m_last] = 0;
            } else {
                writeMultiple(encoder, diff);
            }
            m_time[m_last] = time;
            return;
        }
    }

private:
    int otherSequence(std::uint64_t time) const
    {
        for (int i = 1; i < 4; ++i) {
            const std::int64_t d = std::int64_t(time - m_time[(m_last + unsigned(i)) & 3]);
            if (d == std::int64_t(std::int32_t(d)))
                return i;
        }
        return 0;
    }
    void writeMultiple(Encoder &encoder, std::int32_t diff)
    {
        // The multiple of the last difference, rounded half away from zero in single precision
        // as the format's own encoder does it.
        const float ratio = float(diff) / float(m_diff[m_last]);
        // The format rounds so (half away from zero, in floats): kept to the bit.
        const std::int32_t multi
            // NOLINTNEXTLINE(bugprone-incorrect-roundings)
            = ratio >= 0 ? std::int32_t(ratio + 0.5f) : std::int32_t(ratio - 0.5f);
        const std::int32_t last = m_diff[m_last];
        if (multi == 1) {
            encoder.encodeSymbol(m_multi, 1);
            m_integers.encode(encoder, last, diff, 1);
            m_extremes[m_last] = 0;
        } else if (multi > 0) {
            if (multi < MULTI) {
                encoder.encodeSymbol(m_multi, std::uint32_t(multi));
                m_integers.encode(encoder, times(multi, last), diff, multi < 10 ? 2 : 3);
            } else {
                encoder.encodeSymbol(m_multi, MULTI);
                m_integers.encode(encoder, times(MULTI, last), diff, 4);
                extreme(diff);
            }
        } else if (multi < 0) {
            if (multi > MULTI_MINUS) {
                encoder.encodeSymbol(m_multi, std::uint32_t(MULTI - multi));
                m_integers.encode(encoder, times(multi, last), diff, 5);
            } else {
                encoder.encodeSymbol(m_multi, std::uint32_t(MULTI - MULTI_MINUS));
                m_integers.encode(encoder, times(MULTI_MINUS, last), diff, 6);
                extreme(diff);
            }
        } else {
            encoder.encodeSymbol(m_multi, 0);
            m_integers.encode(encoder, 0, diff, 7);
            extreme(diff);
        }
    }
};

class RgbEncoder final : public ItemEncoder
{
public:
    void start(const std::uint8_t *item) override
    {
        m_models.reset();
        for (int i = 0; i < 3; ++i)
            m_last[i] = load<std::uint16_t>(item + 2 * i);
    }

    void write(Encoder &encoder, const std::uint8_t *item) override
    {
        std::uint16_t c[3];
        for (int i = 0; i < 3; ++i)
            c[i] = load<std::uint16_t>(item + 2 * i);
        encodeRgb(encoder, m_models, m_last, c);
        std::copy(c, c + 3, m_last);
    }

private:
    std::uint16_t m_last[3] = {};
    RgbModels m_models;
};

class BytesEncoder final : public ItemEncoder, BytesModels
{
public:
    explicit BytesEncoder(std::size_t count)
        : BytesModels(count)
    {
    }
    void start(const std::uint8_t *item) override { startModels(item); }
    void write(Encoder &encoder, const std::uint8_t *item) override
    {
        for (std::size_t i = 0; i < m_last.size(); ++i) {
            encoder.encodeSymbol(m_models[i],
                                 fold(std::int32_t(item[i]) - std::int32_t(m_last[i])));
            m_last[i] = item[i];
        }
    }
};

} // namespace

void decodeRgb(Decoder &decoder, RgbModels &models, const std::uint16_t *last, std::uint16_t *c)
{
    const auto byteOf
        = [](std::uint16_t v, int high) { return std::int32_t(high ? v >> 8 : v & 0xff); };
    const auto corrected = [&](int model, std::int32_t prediction) {
        return fold(std::int32_t(decoder.decodeSymbol(models.diff[model])) + prediction);
    };
    const std::uint32_t used = decoder.decodeSymbol(models.used);
    // Red, low byte then high byte.
    c[0] = (used & 1) ? corrected(0, byteOf(last[0], 0)) : std::uint16_t(last[0] & 0xff);
    c[0] |= (used & 2) ? std::uint16_t(corrected(1, byteOf(last[0], 1)) << 8)
                       : std::uint16_t(last[0] & 0xff00);
    if (!(used & 64)) {
        // Grey: green and blue are red.
        c[1] = c[2] = c[0];
        return;
    }
    std::int32_t diff = byteOf(c[0], 0) - byteOf(last[0], 0);
    c[1] = (used & 4) ? corrected(2, clamp8(diff + byteOf(last[1], 0)))
                      : std::uint16_t(last[1] & 0xff);
    if (used & 16) {
        diff = (diff + (byteOf(c[1], 0) - byteOf(last[1], 0))) / 2;
        c[2] = corrected(4, clamp8(diff + byteOf(last[2], 0)));
    } else {
        c[2] = std::uint16_t(last[2] & 0xff);
    }
    diff = byteOf(c[0], 1) - byteOf(last[0], 1);
    c[1] |= (used & 8) ? std::uint16_t(corrected(3, clamp8(diff + byteOf(last[1], 1))) << 8)
                       : std::uint16_t(last[1] & 0xff00);
    if (used & 32) {
        diff = (diff + (byteOf(c[1], 1) - byteOf(last[1], 1))) / 2;
        c[2] |= std::uint16_t(corrected(5, clamp8(diff + byteOf(last[2], 1))) << 8);
    } else {
        c[2] |= std::uint16_t(last[2] & 0xff00);
    }
}

void encodeRgb(Encoder &encoder, RgbModels &models, const std::uint16_t *last,
               const std::uint16_t *c)
{
    const auto lo = [](std::uint16_t v) { return std::int32_t(v & 0xff); };
    const auto hi = [](std::uint16_t v) { return std::int32_t(v >> 8); };
    std::uint32_t used = 0;
    for (int i = 0; i < 3; ++i) {
        used |= std::uint32_t(lo(last[i]) != lo(c[i])) << (2 * i);
        used |= std::uint32_t(hi(last[i]) != hi(c[i])) << (2 * i + 1);
    }
    used |= std::uint32_t(lo(c[0]) != lo(c[1]) || lo(c[0]) != lo(c[2]) || hi(c[0]) != hi(c[1])
                          || hi(c[0]) != hi(c[2]))
        << 6;
    encoder.encodeSymbol(models.used, used);
    std::int32_t diffLow = 0, diffHigh = 0;
    if (used & 1) {
        diffLow = lo(c[0]) - lo(last[0]);
        encoder.encodeSymbol(models.diff[0], fold(diffLow));
    }
    if (used & 2) {
        diffHigh = hi(c[0]) - hi(last[0]);
        encoder.encodeSymbol(models.diff[1], fold(diffHigh));
    }
    if (!(used & 64))
        return;
    if (used & 4)
        encoder.encodeSymbol(models.diff[2], fold(lo(c[1]) - clamp8(diffLow + lo(last[1]))));
    if (used & 16) {
        diffLow = (diffLow + lo(c[1]) - lo(last[1])) / 2;
        encoder.encodeSymbol(models.diff[4], fold(lo(c[2]) - clamp8(diffLow + lo(last[2]))));
    }
    if (used & 8)
        encoder.encodeSymbol(models.diff[3], fold(hi(c[1]) - clamp8(diffHigh + hi(last[1]))));
    if (used & 32) {
        diffHigh = (diffHigh + hi(c[1]) - hi(last[1])) / 2;
        encoder.encodeSymbol(models.diff[5], fold(hi(c[2]) - clamp8(diffHigh + hi(last[2]))));
    }
}

std::unique_ptr<ItemEncoder> makeItemEncoder(const Item &item)
{
    // Wave packets have a version 1 only (some writers call it 2: it is the same).
    if (item.type == ITEM_WAVEPACKET13)
        return (item.version == 1 || item.version == 2) && item.size == WAVE_PACKET_SIZE
            ? makeWavePacketEncoder()
            : nullptr;
    if (item.version != 2)
        return nullptr;
    switch (item.type) {
    case ITEM_POINT10:
        return item.size == 20 ? std::make_unique<Point10Encoder>() : nullptr;
    case ITEM_GPSTIME11:
        return item.size == 8 ? std::make_unique<GpsTimeEncoder>() : nullptr;
    case ITEM_RGB12:
        return item.size == 6 ? std::make_unique<RgbEncoder>() : nullptr;
    case ITEM_BYTE:
        return item.size > 0 ? std::make_unique<BytesEncoder>(item.size) : nullptr;
    default:
        return nullptr;
    }
}

std::unique_ptr<ItemDecoder> makeItemDecoder(const Item &item)
{
    if (item.version == 1 || (item.version == 2 && item.type == ITEM_WAVEPACKET13))
        return makeItemDecoderV1(item);
    if (item.version != 2)
        return nullptr;
    switch (item.type) {
    case ITEM_POINT10:
        return item.size == 20 ? std::make_unique<Point10Decoder>() : nullptr;
    case ITEM_GPSTIME11:
        return item.size == 8 ? std::make_unique<GpsTimeDecoder>() : nullptr;
    case ITEM_RGB12:
        return item.size == 6 ? std::make_unique<RgbDecoder>() : nullptr;
    case ITEM_BYTE:
        return item.size > 0 ? std::make_unique<BytesDecoder>(item.size) : nullptr;
    default:
        return nullptr;
    }
}

const char *itemName(std::uint16_t type)
{
    switch (type) {
    case ITEM_BYTE:
        return "extra bytes";
    case ITEM_POINT10:
        return "point";
    case ITEM_GPSTIME11:
        return "GPS time";
    case ITEM_RGB12:
        return "RGB";
    case ITEM_WAVEPACKET13:
        return "wave packet";
    case ITEM_POINT14:
        return "point (LAS 1.4)";
    case ITEM_RGB14:
        return "RGB (LAS 1.4)";
    case ITEM_RGBNIR14:
        return "RGB and NIR (LAS 1.4)";
    case ITEM_WAVEPACKET14:
        return "wave packet (LAS 1.4)";
    case ITEM_BYTE14:
        return "extra bytes (LAS 1.4)";
    default:
        return "unknown";
    }
}

} // namespace detail
} // namespace tzLaz
