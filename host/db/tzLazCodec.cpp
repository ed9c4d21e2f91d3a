#include "tzLazCodec.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace tzLaz {

namespace {

// ------------------------------------------------------------------ the arithmetic coder
//
// A range coder with 32-bit registers: the interval [value, value + length) narrows with each
// symbol and is renormalised a byte at a time when its length falls under 2^24. Symbol models
// keep counts and a cumulative distribution rebuilt at intervals that lengthen as the counts
// grow; bit models keep the probability of a zero. The constants and update rules below are
// the format's: a decoder that differs in one of them decodes garbage after a few points.

constexpr std::uint32_t MIN_LENGTH = 0x01000000u;
constexpr std::uint32_t MAX_LENGTH = 0xffffffffu;
constexpr unsigned BIT_LENGTH_SHIFT = 13; // bit model probabilities are 13-bit
constexpr std::uint32_t BIT_MAX_COUNT = 1u << 13;
constexpr unsigned SYMBOL_LENGTH_SHIFT = 15; // symbol distributions are 15-bit
constexpr std::uint32_t SYMBOL_MAX_COUNT = 1u << 15;

struct BitModel
{
    std::uint32_t zeroCount = 1;
    std::uint32_t count = 2;
    std::uint32_t zeroProbability = 1u << (BIT_LENGTH_SHIFT - 1);
    std::uint32_t cycle = 4;
    std::uint32_t untilUpdate = 4;

    void reset() { *this = BitModel(); }
    void update()
    {
        count += cycle;
        if (count > BIT_MAX_COUNT) {
            count = (count + 1) >> 1;
            zeroCount = (zeroCount + 1) >> 1;
            if (zeroCount == count)
                ++count;
        }
        const std::uint32_t scale = 0x80000000u / count;
        zeroProbability = (zeroCount * scale) >> (31 - BIT_LENGTH_SHIFT);
        cycle = std::min<std::uint32_t>((5 * cycle) >> 2, 64);
        untilUpdate = cycle;
    }
};

class SymbolModel
{
public:
    //! symbols: 2 to 2048. A decoder keeps a table that finds a symbol's range quickly in
    //! models of more than 16 symbols.
    explicit SymbolModel(std::uint32_t symbols, bool forDecoding = true)
        : m_symbols(symbols)
        , m_last(symbols - 1)
    {
        if (forDecoding && symbols > 16) {
            unsigned tableBits = 3;
            while (symbols > (1u << (tableBits + 2)))
                ++tableBits;
            m_tableSize = 1u << tableBits;
            m_tableShift = SYMBOL_LENGTH_SHIFT - tableBits;
            m_table.resize(m_tableSize + 2);
        }
        m_distribution.resize(symbols);
        m_counts.resize(symbols);
        reset();
    }

    void reset()
    {
        std::fill(m_counts.begin(), m_counts.end(), 1u);
        m_total = 0;
        m_cycle = m_symbols;
        update();
        m_cycle = m_untilUpdate = (m_symbols + 6) >> 1;
    }

    void update()
    {
        m_total += m_cycle;
        if (m_total > SYMBOL_MAX_COUNT) {
            m_total = 0;
            for (std::uint32_t &c : m_counts) {
                c = (c + 1) >> 1;
                m_total += c;
            }
        }
        const std::uint32_t scale = 0x80000000u / m_total;
        std::uint32_t sum = 0;
        if (m_tableSize == 0) {
            for (std::uint32_t k = 0; k < m_symbols; ++k) {
                m_distribution[k] = (scale * sum) >> (31 - SYMBOL_LENGTH_SHIFT);
                sum += m_counts[k];
            }
        } else {
            std::uint32_t s = 0;
            for (std::uint32_t k = 0; k < m_symbols; ++k) {
                m_distribution[k] = (scale * sum) >> (31 - SYMBOL_LENGTH_SHIFT);
                sum += m_counts[k];
                const std::uint32_t w = m_distribution[k] >> m_tableShift;
                while (s < w)
                    m_table[++s] = k - 1;
            }
            m_table[0] = 0;
            while (s <= m_tableSize)
                m_table[++s] = m_symbols - 1;
        }
        m_cycle = std::min((5 * m_cycle) >> 2, (m_symbols + 6) << 3);
        m_untilUpdate = m_cycle;
    }

    void counted(std::uint32_t symbol)
    {
        ++m_counts[symbol];
        if (--m_untilUpdate == 0)
            update();
    }

    std::uint32_t m_symbols;
    std::uint32_t m_last;
    std::vector<std::uint32_t> m_distribution;
    std::vector<std::uint32_t> m_counts;
    std::vector<std::uint32_t> m_table;
    std::uint32_t m_tableSize = 0;
    std::uint32_t m_tableShift = 0;
    std::uint32_t m_total = 0;
    std::uint32_t m_cycle = 0;
    std::uint32_t m_untilUpdate = 0;
};

class Decoder
{
public:
    //! Starts on the bytes [begin, end): reads the first four. Reading past the end gives
    //! zeros and marks the stream as overrun.
    void start(const std::uint8_t *begin, const std::uint8_t *end)
    {
        m_begin = m_at = begin;
        m_end = end;
        m_overrun = 0;
        m_corrupt = false;
        m_length = MAX_LENGTH;
        m_value = 0;
        for (int i = 0; i < 4; ++i)
            m_value = (m_value << 8) | byte();
    }

    std::size_t consumed() const { return std::size_t(m_at - m_begin); }
    //! The stream ran out, or held a value no encoder writes. Encoders before the padding of
    //! the coder's last bytes left the decoder reading up to four bytes past the chunk, which
    //! do not change what it decodes: those are not a failure.
    bool failed() const { return m_corrupt || m_overrun > 4; }

    std::uint32_t decodeBit(BitModel &m)
    {
        const std::uint32_t x = m.zeroProbability * (m_length >> BIT_LENGTH_SHIFT);
        const std::uint32_t bit = m_value >= x ? 1u : 0u;
        if (bit == 0) {
            m_length = x;
            ++m.zeroCount;
        } else {
            m_value -= x;
            m_length -= x;
        }
        if (m_length < MIN_LENGTH)
            renormalise();
        if (--m.untilUpdate == 0)
            m.update();
        return bit;
    }

    std::uint32_t decodeSymbol(SymbolModel &m)
    {
        std::uint32_t symbol, x, y = m_length;
        if (m.m_tableSize) {
            m_length >>= SYMBOL_LENGTH_SHIFT;
            const std::uint32_t dv = m_value / m_length;
            const std::uint32_t t = dv >> m.m_tableShift;
            if (t > m.m_tableSize) {
                m_corrupt = true;
                return 0;
            }
            symbol = m.m_table[t];
            std::uint32_t n = m.m_table[t + 1] + 1;
            while (n > symbol + 1) {
                const std::uint32_t k = (symbol + n) >> 1;
                if (m.m_distribution[k] > dv)
                    n = k;
                else
                    symbol = k;
            }
            x = m.m_distribution[symbol] * m_length;
            if (symbol != m.m_last)
                y = m.m_distribution[symbol + 1] * m_length;
        } else {
            x = symbol = 0;
            m_length >>= SYMBOL_LENGTH_SHIFT;
            std::uint32_t n = m.m_symbols;
            std::uint32_t k = n >> 1;
            do {
                const std::uint32_t z = m_length * m.m_distribution[k];
                if (z > m_value) {
                    n = k;
                    y = z;
                } else {
                    symbol = k;
                    x = z;
                }
            } while ((k = (symbol + n) >> 1) != symbol);
        }
        m_value -= x;
        m_length = y - x;
        if (m_length < MIN_LENGTH)
            renormalise();
        if (symbol >= m.m_symbols) {
            m_corrupt = true;
            return 0;
        }
        m.counted(symbol);
        return symbol;
    }

    //! bits raw bits (1 to 32), the lower 16 first when there are more than 19.
    std::uint32_t readBits(unsigned bits)
    {
        if (bits > 19) {
            const std::uint32_t low = readShort();
            const std::uint32_t high = readBits(bits - 16);
            return (high << 16) | low;
        }
        m_length >>= bits;
        const std::uint32_t symbol = m_value / m_length;
        m_value -= m_length * symbol;
        if (m_length < MIN_LENGTH)
            renormalise();
        if (symbol >= (1u << bits))
            m_corrupt = true;
        return symbol;
    }
    std::uint32_t readShort() { return readBits(16); }
    std::uint32_t readInt()
    {
        const std::uint32_t low = readShort();
        const std::uint32_t high = readShort();
        return (high << 16) | low;
    }

private:
    std::uint32_t byte()
    {
        if (m_at < m_end)
            return *m_at++;
        ++m_overrun;
        return 0;
    }
    void renormalise()
    {
        do {
            m_value = (m_value << 8) | byte();
        } while ((m_length <<= 8) < MIN_LENGTH);
    }

    const std::uint8_t *m_begin = nullptr;
    const std::uint8_t *m_at = nullptr;
    const std::uint8_t *m_end = nullptr;
    std::size_t m_overrun = 0;
    bool m_corrupt = false;
    std::uint32_t m_value = 0;
    std::uint32_t m_length = MAX_LENGTH;
};

class Encoder
{
public:
    //! Starts appending to out.
    void start(std::vector<std::uint8_t> &out)
    {
        m_out = &out;
        m_start = out.size();
        m_base = 0;
        m_length = MAX_LENGTH;
    }

    void encodeBit(BitModel &m, std::uint32_t bit)
    {
        const std::uint32_t x = m.zeroProbability * (m_length >> BIT_LENGTH_SHIFT);
        if (bit == 0) {
            m_length = x;
            ++m.zeroCount;
        } else {
            add(x);
            m_length -= x;
        }
        if (m_length < MIN_LENGTH)
            renormalise();
        if (--m.untilUpdate == 0)
            m.update();
    }

    void encodeSymbol(SymbolModel &m, std::uint32_t symbol)
    {
        std::uint32_t x;
        if (symbol == m.m_last) {
            x = m.m_distribution[symbol] * (m_length >> SYMBOL_LENGTH_SHIFT);
            add(x);
            m_length -= x;
        } else {
            m_length >>= SYMBOL_LENGTH_SHIFT;
            x = m.m_distribution[symbol] * m_length;
            add(x);
            m_length = m.m_distribution[symbol + 1] * m_length - x;
        }
        if (m_length < MIN_LENGTH)
            renormalise();
        m.counted(symbol);
    }

    void writeBits(unsigned bits, std::uint32_t value)
    {
        if (bits > 19) {
            writeBits(16, value & 0xffff);
            value >>= 16;
            bits -= 16;
        }
        m_length >>= bits;
        add(value * m_length);
        if (m_length < MIN_LENGTH)
            renormalise();
    }
    void writeInt(std::uint32_t value)
    {
        writeBits(16, value & 0xffff);
        writeBits(16, value >> 16);
    }

    //! The last bytes: enough to settle the interval, then zeros up to what the decoder reads.
    void finish()
    {
        bool anotherByte = true;
        if (m_length > 2 * MIN_LENGTH) {
            add(MIN_LENGTH);
            m_length = MIN_LENGTH >> 1;
        } else {
            add(MIN_LENGTH >> 1);
            m_length = MIN_LENGTH >> 9;
            anotherByte = false;
        }
        renormalise();
        m_out->push_back(0);
        m_out->push_back(0);
        if (anotherByte)
            m_out->push_back(0);
    }

private:
    void add(std::uint32_t x)
    {
        const std::uint32_t before = m_base;
        m_base += x;
        if (m_base < before) {
            // The carry runs back through the bytes already written.
            std::size_t i = m_out->size();
            while (i > m_start && (*m_out)[i - 1] == 0xff)
                (*m_out)[--i] = 0;
            if (i > m_start)
                ++(*m_out)[i - 1];
        }
    }
    void renormalise()
    {
        do {
            m_out->push_back(std::uint8_t(m_base >> 24));
            m_base <<= 8;
        } while ((m_length <<= 8) < MIN_LENGTH);
    }

    std::vector<std::uint8_t> *m_out = nullptr;
    std::size_t m_start = 0;
    std::uint32_t m_base = 0;
    std::uint32_t m_length = MAX_LENGTH;
};

// ------------------------------------------------------------------ integers
//
// An integer is coded as its difference from a prediction: first k, the number of bits of that
// difference (in a model per context), then the difference within the 2^k values it can take
// (the top bitsHigh of them modelled, the rest raw). Differences wrap around within the range
// of the integer's bits.

class IntegerCoder
{
public:
    IntegerCoder(unsigned bits = 16, unsigned contexts = 1, unsigned bitsHigh = 8)
        : m_bitsHigh(bitsHigh)
    {
        if (bits && bits < 32) {
            m_corrBits = bits;
            m_corrRange = 1u << bits;
            m_corrMin = -std::int32_t(m_corrRange / 2);
        } else {
            m_corrBits = 32;
            m_corrRange = 0;
            m_corrMin = INT32_MIN;
        }
        m_kModels.reserve(contexts);
        for (unsigned i = 0; i < contexts; ++i)
            m_kModels.emplace_back(m_corrBits + 1);
        m_corrector.reserve(m_corrBits + 1);
        m_corrector.emplace_back(2); // unused: k = 0 has a bit model
        for (unsigned i = 1; i <= m_corrBits; ++i)
            m_corrector.emplace_back(1u << std::min(i, bitsHigh));
    }

    void reset()
    {
        for (SymbolModel &m : m_kModels)
            m.reset();
        m_zeroOrOne.reset();
        for (SymbolModel &m : m_corrector)
            m.reset();
        m_k = 0;
    }

    std::int32_t decode(Decoder &decoder, std::int32_t prediction, unsigned context = 0)
    {
        std::uint32_t real = std::uint32_t(prediction) + std::uint32_t(corrector(decoder, context));
        if (std::int32_t(real) < 0)
            real += m_corrRange;
        else if (real >= m_corrRange)
            real -= m_corrRange;
        return std::int32_t(real);
    }
    //! The bits of the last difference (the next item's context).
    unsigned k() const { return m_k; }

    void encode(Encoder &encoder, std::int32_t prediction, std::int32_t real, unsigned context = 0)
    {
        std::int32_t c = std::int32_t(std::uint32_t(real) - std::uint32_t(prediction));
        if (m_corrRange) {
            const std::int32_t corrMax = m_corrMin + std::int32_t(m_corrRange) - 1;
            if (c < m_corrMin)
                c += std::int32_t(m_corrRange);
            else if (c > corrMax)
                c -= std::int32_t(m_corrRange);
        }
        // k: the bits of the interval [-(2^k - 1), 2^k] that holds c.
        std::uint32_t magnitude = c <= 0 ? 0u - std::uint32_t(c) : std::uint32_t(c) - 1;
        m_k = 0;
        while (magnitude) {
            magnitude >>= 1;
            ++m_k;
        }
        encoder.encodeSymbol(m_kModels[context], m_k);
        if (m_k == 0) {
            encoder.encodeBit(m_zeroOrOne, std::uint32_t(c));
            return;
        }
        if (m_k >= 32)
            return; // the lowest value: k says it all
        std::int64_t v
            = c < 0 ? std::int64_t(c) + ((std::int64_t(1) << m_k) - 1) : std::int64_t(c) - 1;
        if (m_k <= m_bitsHigh) {
            encoder.encodeSymbol(m_corrector[m_k], std::uint32_t(v));
        } else {
            const unsigned low = m_k - m_bitsHigh;
            encoder.encodeSymbol(m_corrector[m_k], std::uint32_t(v >> low));
            encoder.writeBits(low, std::uint32_t(v & ((std::int64_t(1) << low) - 1)));
        }
    }

private:
    std::int32_t corrector(Decoder &decoder, unsigned context)
    {
        m_k = decoder.decodeSymbol(m_kModels[context]);
        if (m_k == 0)
            return std::int32_t(decoder.decodeBit(m_zeroOrOne));
        if (m_k >= 32)
            return m_corrMin;
        std::int64_t c;
        if (m_k <= m_bitsHigh) {
            c = decoder.decodeSymbol(m_corrector[m_k]);
        } else {
            const unsigned low = m_k - m_bitsHigh;
            c = decoder.decodeSymbol(m_corrector[m_k]);
            c = (c << low) | decoder.readBits(low);
        }
        // [0, 2^(k-1)) holds the negative differences, [2^(k-1), 2^k) the positive ones.
        if (c >= (std::int64_t(1) << (m_k - 1)))
            c += 1;
        else
            c -= (std::int64_t(1) << m_k) - 1;
        return std::int32_t(c);
    }

    unsigned m_bitsHigh;
    unsigned m_corrBits = 0;
    std::uint32_t m_corrRange = 0;
    std::int32_t m_corrMin = 0;
    std::vector<SymbolModel> m_kModels;
    BitModel m_zeroOrOne;
    std::vector<SymbolModel> m_corrector;
    unsigned m_k = 0;
};

// ------------------------------------------------------------------ helpers of the items

inline std::uint8_t fold(std::int32_t n)
{
    return std::uint8_t(n < 0 ? n + 256 : (n > 255 ? n - 256 : n));
}
inline std::int32_t clamp8(std::int32_t n)
{
    return n < 0 ? 0 : (n > 255 ? 255 : n);
}
template<typename T> T load(const std::uint8_t *p)
{
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
template<typename T> void store(std::uint8_t *p, T v)
{
    std::memcpy(p, &v, sizeof v);
}

//! The median of the last five values: the prediction of a coordinate's next difference.
class Median5
{
public:
    void reset()
    {
        m_v.fill(0);
        m_high = true;
    }
    std::int32_t get() const { return m_v[2]; }
    void add(std::int32_t v)
    {
        // Kept sorted; the value that goes is alternately the highest and the lowest.
        if (m_high) {
            if (v < m_v[2]) {
                m_v[4] = m_v[3];
                m_v[3] = m_v[2];
                if (v < m_v[0]) {
                    m_v[2] = m_v[1];
                    m_v[1] = m_v[0];
                    m_v[0] = v;
                } else if (v < m_v[1]) {
                    m_v[2] = m_v[1];
                    m_v[1] = v;
                } else {
                    m_v[2] = v;
                }
            } else {
                if (v < m_v[3]) {
                    m_v[4] = m_v[3];
                    m_v[3] = v;
                } else {
                    m_v[4] = v;
                }
                m_high = false;
            }
        } else {
            if (m_v[2] < v) {
                m_v[0] = m_v[1];
                m_v[1] = m_v[2];
                if (m_v[4] < v) {
                    m_v[2] = m_v[3];
                    m_v[3] = m_v[4];
                    m_v[4] = v;
                } else if (m_v[3] < v) {
                    m_v[2] = m_v[3];
                    m_v[3] = v;
                } else {
                    m_v[2] = v;
                }
            } else {
                if (m_v[1] < v) {
                    m_v[0] = m_v[1];
                    m_v[1] = v;
                } else {
                    m_v[0] = v;
                }
                m_high = true;
            }
        }
    }

private:
    std::array<std::int32_t, 5> m_v {};
    bool m_high = true;
};

// Which of 16 prediction slots a point of return r of n returns uses, and which of 8 heights.
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
class LazyModels
{
public:
    explicit LazyModels(std::uint32_t symbols)
        : m_symbols(symbols)
    {
    }
    void reset()
    {
        for (auto &m : m_models)
            m.reset();
    }
    SymbolModel &operator[](std::size_t context)
    {
        if (!m_models[context])
            m_models[context] = std::make_unique<SymbolModel>(m_symbols);
        return *m_models[context];
    }

private:
    std::uint32_t m_symbols;
    std::array<std::unique_ptr<SymbolModel>, 256> m_models;
};

struct ItemDecoder
{
    virtual ~ItemDecoder() = default;
    //! The chunk's first record's bytes of this item: the start of every prediction.
    virtual void start(const std::uint8_t *item) = 0;
    virtual void read(Decoder &decoder, std::uint8_t *item) = 0;
};

// ------------------------------------------------------------------ items, version 2

// X, Y, Z, intensity, return and flag bits, classification, scan angle, user data, point
// source (20 bytes). Each coordinate is predicted from the median of its last differences among
// the points of the same return kind; which fields changed is one symbol.
class Point10Decoder final : public ItemDecoder
{
public:
    void start(const std::uint8_t *item) override
    {
        for (int i = 0; i < 16; ++i) {
            m_xDiff[i].reset();
            m_yDiff[i].reset();
            m_intensity[i] = 0;
            m_height[i / 2] = 0;
        }
        m_changed.reset();
        m_intensityDecoder.reset();
        m_scanAngle[0].reset();
        m_scanAngle[1].reset();
        m_sourceDecoder.reset();
        m_flags.reset();
        m_classification.reset();
        m_userData.reset();
        m_dx.reset();
        m_dy.reset();
        m_z.reset();
        std::memcpy(m_last, item, 20);
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
                    = m_intensityDecoder.decode(decoder, m_intensity[slot], slot < 3 ? slot : 3);
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
                    = m_sourceDecoder.decode(decoder, load<std::uint16_t>(m_last + 18));
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

private:
    std::uint8_t m_last[20] = {};
    Median5 m_xDiff[16], m_yDiff[16];
    std::uint16_t m_intensity[16] = {};
    std::int32_t m_height[8] = {};
    SymbolModel m_changed {64};
    IntegerCoder m_intensityDecoder {16, 4};
    SymbolModel m_scanAngle[2] {SymbolModel(256), SymbolModel(256)};
    IntegerCoder m_sourceDecoder {16};
    LazyModels m_flags {256}, m_classification {256}, m_userData {256};
    IntegerCoder m_dx {32, 2}, m_dy {32, 22}, m_z {32, 20};
};

// The GPS time (8 bytes, a double taken as a 64-bit integer). Up to four sequences of times are
// followed at once (interleaved flight lines); a time is a multiple of its sequence's last
// difference, a new difference, a jump to another sequence or a whole new value.
class GpsTimeDecoder final : public ItemDecoder
{
public:
    void start(const std::uint8_t *item) override
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
    static constexpr std::int32_t MULTI = 500;
    static constexpr std::int32_t MULTI_MINUS = -10;
    static constexpr std::uint32_t UNCHANGED = MULTI - MULTI_MINUS + 1;
    static constexpr std::uint32_t CODE_FULL = MULTI - MULTI_MINUS + 2;
    static constexpr std::uint32_t TOTAL = MULTI - MULTI_MINUS + 6;

    static std::int32_t times(std::int32_t factor, std::int32_t diff)
    {
        return std::int32_t(std::uint32_t(factor) * std::uint32_t(diff)); // wraps as the encoder's
    }
    void extreme(std::int32_t diff)
    {
        if (++m_extremes[m_last] > 3) {
            m_diff[m_last] = diff;
            m_extremes[m_last] = 0;
        }
    }
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

    unsigned m_last = 0, m_next = 0;
    std::uint64_t m_time[4] = {};
    std::int32_t m_diff[4] = {};
    std::int32_t m_extremes[4] = {};
    SymbolModel m_multi {TOTAL};
    SymbolModel m_zeroDiff {6};
    IntegerCoder m_integers {32, 9};
};

// Red, green, blue (three 16-bit values). Which of their six bytes changed is one symbol; the
// low and high bytes of green and blue are predicted from red's change.
class RgbDecoder final : public ItemDecoder
{
public:
    void start(const std::uint8_t *item) override
    {
        m_used.reset();
        for (SymbolModel &m : m_diff)
            m.reset();
        for (int i = 0; i < 3; ++i)
            m_last[i] = load<std::uint16_t>(item + 2 * i);
    }

    void read(Decoder &decoder, std::uint8_t *item) override
    {
        const auto byteOf
            = [](std::uint16_t v, int high) { return std::int32_t(high ? v >> 8 : v & 0xff); };
        const std::uint32_t used = decoder.decodeSymbol(m_used);
        std::uint16_t c[3];
        // Red, low byte then high byte.
        c[0] = (used & 1)
            ? fold(std::int32_t(decoder.decodeSymbol(m_diff[0])) + byteOf(m_last[0], 0))
            : std::uint16_t(m_last[0] & 0xff);
        if (used & 2)
            c[0] |= std::uint16_t(
                fold(std::int32_t(decoder.decodeSymbol(m_diff[1])) + byteOf(m_last[0], 1)) << 8);
        else
            c[0] |= std::uint16_t(m_last[0] & 0xff00);
        if (used & 64) {
            std::int32_t diff = byteOf(c[0], 0) - byteOf(m_last[0], 0);
            c[1] = (used & 4) ? fold(std::int32_t(decoder.decodeSymbol(m_diff[2]))
                                     + clamp8(diff + byteOf(m_last[1], 0)))
                              : std::uint16_t(m_last[1] & 0xff);
            if (used & 16) {
                diff = (diff + (byteOf(c[1], 0) - byteOf(m_last[1], 0))) / 2;
                c[2] = fold(std::int32_t(decoder.decodeSymbol(m_diff[4]))
                            + clamp8(diff + byteOf(m_last[2], 0)));
            } else {
                c[2] = std::uint16_t(m_last[2] & 0xff);
            }
            diff = byteOf(c[0], 1) - byteOf(m_last[0], 1);
            if (used & 8)
                c[1] |= std::uint16_t(fold(std::int32_t(decoder.decodeSymbol(m_diff[3]))
                                           + clamp8(diff + byteOf(m_last[1], 1)))
                                      << 8);
            else
                c[1] |= std::uint16_t(m_last[1] & 0xff00);
            if (used & 32) {
                diff = (diff + (byteOf(c[1], 1) - byteOf(m_last[1], 1))) / 2;
                c[2] |= std::uint16_t(fold(std::int32_t(decoder.decodeSymbol(m_diff[5]))
                                           + clamp8(diff + byteOf(m_last[2], 1)))
                                      << 8);
            } else {
                c[2] |= std::uint16_t(m_last[2] & 0xff00);
            }
        } else {
            // Grey: green and blue are red.
            c[1] = c[2] = c[0];
        }
        for (int i = 0; i < 3; ++i) {
            m_last[i] = c[i];
            store<std::uint16_t>(item + 2 * i, c[i]);
        }
    }

private:
    std::uint16_t m_last[3] = {};
    SymbolModel m_used {128};
    std::vector<SymbolModel> m_diff = std::vector<SymbolModel>(6, SymbolModel(256));
};

// Extra bytes: each byte's difference from the same byte of the record before.
class BytesDecoder final : public ItemDecoder
{
public:
    explicit BytesDecoder(std::size_t count)
        : m_last(count)
        , m_models(count, SymbolModel(256))
    {
    }
    void start(const std::uint8_t *item) override
    {
        for (SymbolModel &m : m_models)
            m.reset();
        std::memcpy(m_last.data(), item, m_last.size());
    }
    void read(Decoder &decoder, std::uint8_t *item) override
    {
        for (std::size_t i = 0; i < m_last.size(); ++i) {
            m_last[i]
                = fold(std::int32_t(m_last[i]) + std::int32_t(decoder.decodeSymbol(m_models[i])));
            item[i] = m_last[i];
        }
    }

private:
    std::vector<std::uint8_t> m_last;
    std::vector<SymbolModel> m_models;
};

// ------------------------------------------------------------------ items, version 2, encoding
//
// Each encoder makes the very choices its decoder above undoes, from the record before.

struct ItemEncoder
{
    virtual ~ItemEncoder() = default;
    virtual void start(const std::uint8_t *item) = 0;
    virtual void write(Encoder &encoder, const std::uint8_t *item) = 0;
};

class Point10Encoder final : public ItemEncoder
{
public:
    void start(const std::uint8_t *item) override
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

private:
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

class GpsTimeEncoder final : public ItemEncoder
{
public:
    void start(const std::uint8_t *item) override
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
        m_time[0] = load<std::int64_t>(item);
    }

    void write(Encoder &encoder, const std::uint8_t *item) override
    {
        const std::int64_t time = load<std::int64_t>(item);
        for (int hop = 0; hop < 2; ++hop) {
            if (time == m_time[m_last]) {
                encoder.encodeSymbol(m_diff[m_last] == 0 ? m_zeroDiff : m_multi,
                                     m_diff[m_last] == 0 ? 0 : UNCHANGED);
                return;
            }
            const std::int64_t wide
                = std::int64_t(std::uint64_t(time) - std::uint64_t(m_time[m_last]));
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
                m_integers.encode(encoder, std::int32_t(std::uint64_t(m_time[m_last]) >> 32),
                                  std::int32_t(std::uint64_t(time) >> 32), 8);
                encoder.writeInt(std::uint32_t(std::uint64_t(time)));
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
    static constexpr std::int32_t MULTI = 500;
    static constexpr std::int32_t MULTI_MINUS = -10;
    static constexpr std::uint32_t UNCHANGED = MULTI - MULTI_MINUS + 1;
    static constexpr std::uint32_t CODE_FULL = MULTI - MULTI_MINUS + 2;
    static constexpr std::uint32_t TOTAL = MULTI - MULTI_MINUS + 6;

    static std::int32_t times(std::int32_t factor, std::int32_t diff)
    {
        return std::int32_t(std::uint32_t(factor) * std::uint32_t(diff));
    }
    int otherSequence(std::int64_t time) const
    {
        for (int i = 1; i < 4; ++i) {
            const std::int64_t d = std::int64_t(
                std::uint64_t(time) - std::uint64_t(m_time[(m_last + unsigned(i)) & 3]));
            if (d == std::int64_t(std::int32_t(d)))
                return i;
        }
        return 0;
    }
    void extreme(std::int32_t diff)
    {
        if (++m_extremes[m_last] > 3) {
            m_diff[m_last] = diff;
            m_extremes[m_last] = 0;
        }
    }
    void writeMultiple(Encoder &encoder, std::int32_t diff)
    {
        // The multiple of the last difference, rounded half away from zero in single precision
        // as the format's own encoder does it.
        const float ratio = float(diff) / float(m_diff[m_last]);
        const std::int32_t multi
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

    unsigned m_last = 0, m_next = 0;
    std::int64_t m_time[4] = {};
    std::int32_t m_diff[4] = {};
    std::int32_t m_extremes[4] = {};
    SymbolModel m_multi {TOTAL};
    SymbolModel m_zeroDiff {6};
    IntegerCoder m_integers {32, 9};
};

class RgbEncoder final : public ItemEncoder
{
public:
    void start(const std::uint8_t *item) override
    {
        m_used.reset();
        for (SymbolModel &m : m_diff)
            m.reset();
        for (int i = 0; i < 3; ++i)
            m_last[i] = load<std::uint16_t>(item + 2 * i);
    }

    void write(Encoder &encoder, const std::uint8_t *item) override
    {
        std::uint16_t c[3];
        for (int i = 0; i < 3; ++i)
            c[i] = load<std::uint16_t>(item + 2 * i);
        const auto lo = [](std::uint16_t v) { return std::int32_t(v & 0xff); };
        const auto hi = [](std::uint16_t v) { return std::int32_t(v >> 8); };
        std::uint32_t used = 0;
        for (int i = 0; i < 3; ++i) {
            used |= std::uint32_t(lo(m_last[i]) != lo(c[i])) << (2 * i);
            used |= std::uint32_t(hi(m_last[i]) != hi(c[i])) << (2 * i + 1);
        }
        used |= std::uint32_t(lo(c[0]) != lo(c[1]) || lo(c[0]) != lo(c[2]) || hi(c[0]) != hi(c[1])
                              || hi(c[0]) != hi(c[2]))
            << 6;
        encoder.encodeSymbol(m_used, used);
        std::int32_t diffLow = 0, diffHigh = 0;
        if (used & 1) {
            diffLow = lo(c[0]) - lo(m_last[0]);
            encoder.encodeSymbol(m_diff[0], fold(diffLow));
        }
        if (used & 2) {
            diffHigh = hi(c[0]) - hi(m_last[0]);
            encoder.encodeSymbol(m_diff[1], fold(diffHigh));
        }
        if (used & 64) {
            if (used & 4)
                encoder.encodeSymbol(m_diff[2], fold(lo(c[1]) - clamp8(diffLow + lo(m_last[1]))));
            if (used & 16) {
                diffLow = (diffLow + lo(c[1]) - lo(m_last[1])) / 2;
                encoder.encodeSymbol(m_diff[4], fold(lo(c[2]) - clamp8(diffLow + lo(m_last[2]))));
            }
            if (used & 8)
                encoder.encodeSymbol(m_diff[3], fold(hi(c[1]) - clamp8(diffHigh + hi(m_last[1]))));
            if (used & 32) {
                diffHigh = (diffHigh + hi(c[1]) - hi(m_last[1])) / 2;
                encoder.encodeSymbol(m_diff[5], fold(hi(c[2]) - clamp8(diffHigh + hi(m_last[2]))));
            }
        }
        std::copy(c, c + 3, m_last);
    }

private:
    std::uint16_t m_last[3] = {};
    SymbolModel m_used {128};
    std::vector<SymbolModel> m_diff = std::vector<SymbolModel>(6, SymbolModel(256));
};

class BytesEncoder final : public ItemEncoder
{
public:
    explicit BytesEncoder(std::size_t count)
        : m_last(count)
        , m_models(count, SymbolModel(256))
    {
    }
    void start(const std::uint8_t *item) override
    {
        for (SymbolModel &m : m_models)
            m.reset();
        std::memcpy(m_last.data(), item, m_last.size());
    }
    void write(Encoder &encoder, const std::uint8_t *item) override
    {
        for (std::size_t i = 0; i < m_last.size(); ++i) {
            encoder.encodeSymbol(m_models[i],
                                 fold(std::int32_t(item[i]) - std::int32_t(m_last[i])));
            m_last[i] = item[i];
        }
    }

private:
    std::vector<std::uint8_t> m_last;
    std::vector<SymbolModel> m_models;
};

std::unique_ptr<ItemEncoder> makeItemEncoder(const Item &item)
{
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

} // namespace

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
    if (d.compressor != 2) {
        error = "LAZ compressor " + std::to_string(d.compressor)
            + (d.compressor == 3 ? " (layered chunks of LAS 1.4 points)" : "")
            + " is not supported yet";
        return false;
    }
    if (d.items.empty()) {
        error = "the laszip VLR lists no item";
        return false;
    }
    for (const Item &item : d.items) {
        if (!makeItemDecoder(item)) {
            error = std::string("LAZ item '") + itemName(item.type) + "' (type "
                + std::to_string(item.type) + ", " + std::to_string(item.size) + " bytes, version "
                + std::to_string(item.version) + ") is not supported";
            return false;
        }
    }
    if (d.chunkSize == 0) {
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
    const std::uint8_t *table = file + tableOffset;
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
    decoder.start(table + 8, file + fileSize);
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
    return true;
}

// ------------------------------------------------------------------ chunks

struct ChunkDecoder::Impl
{
    Decoder decoder;
    std::vector<std::unique_ptr<ItemDecoder>> items;
    std::vector<std::size_t> offsets; // of each item in the record
    std::size_t recordLength = 0;
};

ChunkDecoder::ChunkDecoder(const Description &description)
    : d(std::make_unique<Impl>())
{
    for (const Item &item : description.items) {
        d->offsets.push_back(d->recordLength);
        d->items.push_back(makeItemDecoder(item));
        d->recordLength += item.size;
    }
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
    static const std::size_t OWN_LENGTH[] = {20, 28, 26, 34};
    if (pointFormat < 0 || pointFormat > 3) {
        error = "LAZ writing of point format " + std::to_string(pointFormat)
            + " is not supported yet (formats 0 to 3 are)";
        return false;
    }
    if (recordLength < OWN_LENGTH[pointFormat] || recordLength > 0xffff) {
        error = "a record of " + std::to_string(recordLength) + " bytes for point format "
            + std::to_string(pointFormat);
        return false;
    }
    Description d;
    d.compressor = 2;
    d.coder = 0;
    d.versionMajor = 2;
    d.versionMinor = 2;
    d.chunkSize = chunkSize == 0 ? 50000 : chunkSize;
    d.items.push_back({ITEM_POINT10, 20, 2});
    if (pointFormat == 1 || pointFormat == 3)
        d.items.push_back({ITEM_GPSTIME11, 8, 2});
    if (pointFormat == 2 || pointFormat == 3)
        d.items.push_back({ITEM_RGB12, 6, 2});
    if (recordLength > OWN_LENGTH[pointFormat])
        d.items.push_back({ITEM_BYTE, std::uint16_t(recordLength - OWN_LENGTH[pointFormat]), 2});
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
    std::vector<std::size_t> offsets;
    std::size_t recordLength = 0;
};

ChunkEncoder::ChunkEncoder(const Description &description)
    : d(std::make_unique<Impl>())
{
    for (const Item &item : description.items) {
        d->offsets.push_back(d->recordLength);
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
