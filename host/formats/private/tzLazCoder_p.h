#pragma once

// The adaptive arithmetic coder of LAZ and what its items share: models, the coder in both
// directions, integers coded as corrections of a prediction. Private to the codec
// (tzLaz*.cpp).

#include "tzLazCodec.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <vector>

namespace tzLaz {
namespace detail {

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
        if (forDecoding && symbols > 4) {
            // About one table entry a symbol, so that the search after the look-up is mostly
            // over (the table only speeds the decoder up: what it decodes is the same). At
            // most 2^8 entries: a coded value may exceed the 15-bit range by up to 64, which
            // must not reach past the table's last two entries.
            unsigned tableBits = 3;
            while (symbols > (1u << tableBits) && tableBits < 8)
                ++tableBits;
            m_tableSize = 1u << tableBits;
            m_tableShift = SYMBOL_LENGTH_SHIFT - tableBits;
        }
        // One block: the distribution, the counts, the table, read together symbol by symbol.
        m_storage.resize(2 * symbols + (m_tableSize ? m_tableSize + 2 : 0));
        bind();
        reset();
    }
    SymbolModel(const SymbolModel &other) { *this = other; }
    SymbolModel &operator=(const SymbolModel &other)
    {
        m_symbols = other.m_symbols;
        m_last = other.m_last;
        m_storage = other.m_storage;
        m_tableSize = other.m_tableSize;
        m_tableShift = other.m_tableShift;
        m_total = other.m_total;
        m_cycle = other.m_cycle;
        m_untilUpdate = other.m_untilUpdate;
        bind();
        return *this;
    }

    void reset()
    {
        std::fill(m_counts, m_counts + m_symbols, 1u);
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
            for (std::uint32_t k = 0; k < m_symbols; ++k) {
                m_counts[k] = (m_counts[k] + 1) >> 1;
                m_total += m_counts[k];
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

    void bind()
    {
        m_distribution = m_storage.data();
        m_counts = m_distribution + m_symbols;
        m_table = m_tableSize ? m_counts + m_symbols : nullptr;
    }

    std::uint32_t m_symbols = 0;
    std::uint32_t m_last = 0;
    std::vector<std::uint32_t> m_storage;
    std::uint32_t *m_distribution = nullptr;
    std::uint32_t *m_counts = nullptr;
    std::uint32_t *m_table = nullptr;
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
        const std::uint32_t y0 = m_length;
        m_length >>= SYMBOL_LENGTH_SHIFT;
        // The symbol is the last whose distribution entry is at most value / length: the
        // table narrows the search to a few symbols, a short walk up ends it.
        const std::uint32_t dv = m_value / m_length;
        std::uint32_t symbol = 0, top = m.m_last;
        if (m.m_tableSize) {
            const std::uint32_t t = dv >> m.m_tableShift;
            if (t > m.m_tableSize)
                return corrupted();
            symbol = m.m_table[t];
            top = m.m_table[t + 1];
        }
        while (symbol < top && m.m_distribution[symbol + 1] <= dv)
            ++symbol;
        const std::uint32_t x = m.m_distribution[symbol] * m_length;
        const std::uint32_t y = symbol != m.m_last ? m.m_distribution[symbol + 1] * m_length : y0;
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
        if (m_length == 0) {
            // Only bytes no encoder wrote empty the interval.
            corrupted();
            return;
        }
        do {
            m_value = (m_value << 8) | byte();
        } while ((m_length <<= 8) < MIN_LENGTH);
    }
    //! Marks the stream as damaged and puts the coder back in a state it can go on from (what
    //! it decodes then is not used).
    std::uint32_t corrupted()
    {
        m_corrupt = true;
        m_length = MAX_LENGTH;
        m_value = 0;
        return 0;
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

struct ItemEncoder
{
    virtual ~ItemEncoder() = default;
    virtual void start(const std::uint8_t *item) = 0;
    virtual void write(Encoder &encoder, const std::uint8_t *item) = 0;
};

//! A layer of a layered chunk: its bytes (none when the attribute does not change in it).
struct LayerBytes
{
    const std::uint8_t *data = nullptr;
    std::uint32_t size = 0;
};

//! An item of the layered records of LAS 1.4: its layers each have a coder of their own. The
//! items after the point follow a context that the point item sets: at a chunk's first record,
//! that record's scanner channel; after it, 0 for each record unless the record changes the
//! channel, and then the new channel. (Not the channel of every record: the format's writers
//! set it only on a change, and every decoder reads their files so. A context of 0 on a record
//! of channel 2 makes the colour item switch to its channel-0 state like any change.)
struct LayeredItemDecoder
{
    virtual ~LayeredItemDecoder() = default;
    //! How many layers (and byte counts) the item has in a chunk.
    virtual unsigned layerCount() const = 0;
    virtual void start(const std::uint8_t *item, const LayerBytes *layers, unsigned &context) = 0;
    virtual void read(std::uint8_t *item, unsigned &context) = 0;
    virtual bool failed() const = 0;
};

std::unique_ptr<LayeredItemDecoder> makeLayeredItemDecoder(const Item &item);

//! The encoding side of a layered item: each layer written into a buffer of its own.
struct LayeredItemEncoder
{
    virtual ~LayeredItemEncoder() = default;
    virtual unsigned layerCount() const = 0;
    virtual void start(const std::uint8_t *item, unsigned &context) = 0;
    virtual void write(const std::uint8_t *item, unsigned &context) = 0;
    //! Appends the size of each layer (0 for one the decoder does not need) and their bytes.
    virtual void finish(std::vector<std::uint32_t> &sizes, std::vector<std::uint8_t> &bytes) = 0;
};

std::unique_ptr<LayeredItemEncoder> makeLayeredItemEncoder(const Item &item);

//! The models of a colour item: which of the six bytes changed, and each byte's difference
//! (items of versions 2 and 3 code colours alike).
struct RgbModels
{
    SymbolModel used {128};
    std::vector<SymbolModel> diff = std::vector<SymbolModel>(6, SymbolModel(256));

    void reset()
    {
        used.reset();
        for (SymbolModel &m : diff)
            m.reset();
    }
};
//! The colour after last (red, green, blue); green's and blue's bytes are predicted from red's
//! change.
void decodeRgb(Decoder &decoder, RgbModels &models, const std::uint16_t *last, std::uint16_t *c);
void encodeRgb(Encoder &encoder, RgbModels &models, const std::uint16_t *last,
               const std::uint16_t *c);

//! The bytes of a wave packet: the descriptor's index, the offset and size of its samples, the
//! return point's place in them and the direction (x, y, z) of the pulse.
constexpr std::size_t WAVE_PACKET_SIZE = 29;

//! The models of a wave packet item and what they follow (items of versions 1 and 3 code wave
//! packets alike): the index, how the offset follows the packet before (the same, right after
//! it, a difference, or a whole new one), the size, the return point and the direction.
struct WavePacketModels
{
    SymbolModel index {256};
    std::vector<SymbolModel> offsetKind = std::vector<SymbolModel>(4, SymbolModel(4));
    IntegerCoder offsetDiff {32}, size {32}, returnPoint {32}, direction {32, 3};
    std::int32_t lastDiff = 0;
    std::uint32_t lastKind = 0;

    void reset()
    {
        index.reset();
        for (SymbolModel &m : offsetKind)
            m.reset();
        offsetDiff.reset();
        size.reset();
        returnPoint.reset();
        direction.reset();
        lastDiff = 0;
        lastKind = 0;
    }
};
//! The wave packet (WAVE_PACKET_SIZE bytes) after last.
void decodeWavePacket(Decoder &decoder, WavePacketModels &models, const std::uint8_t *last,
                      std::uint8_t *item);
void encodeWavePacket(Encoder &encoder, WavePacketModels &models, const std::uint8_t *last,
                      const std::uint8_t *item);

//! The decoders of items of version 1 (what the first LAZ writers made; null for others).
std::unique_ptr<ItemDecoder> makeItemDecoderV1(const Item &item);
//! The encoder of wave packets of point formats 4 and 5 (an item of version 1).
std::unique_ptr<ItemEncoder> makeWavePacketEncoder();

//! The item coders of a description's items (null for one this codec does not know).
std::unique_ptr<ItemDecoder> makeItemDecoder(const Item &item);
std::unique_ptr<ItemEncoder> makeItemEncoder(const Item &item);
//! What an item type is, for messages.
const char *itemName(std::uint16_t type);

} // namespace detail
} // namespace tzLaz
