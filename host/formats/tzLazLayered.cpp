// The items of LAZ records of point formats 6 to 10 (LAS 1.4), version 3: layered chunks.
//
// A layered chunk holds its first record raw, its point count, the byte count of every layer,
// then the layers: the coordinates and returns first, then the Z, the classification, the flags,
// the intensity, the scan angle, the user data, the point source, the GPS time, then the colours,
// the near infrared and each extra byte. Each layer has a coder of its own, and a layer of no
// bytes means the attribute does not change within the chunk. Predictions are kept apart for
// each of the four scanner channels; a channel met for the first time starts from the last
// record of the channel before.

#include "tzLazCoder_p.h"

namespace tzLaz {
namespace detail {

namespace {

// Which of 6 prediction slots a point of return r of n returns uses.
constexpr std::uint8_t RETURN_SLOT14[16][16] = {{0, 1, 2, 3, 4, 5, 3, 4, 4, 5, 5, 5, 5, 5, 5, 5},
                                                {1, 0, 1, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3},
                                                {2, 1, 2, 4, 4, 4, 4, 4, 4, 4, 4, 3, 3, 3, 3, 3},
                                                {3, 3, 4, 5, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4},
                                                {4, 3, 4, 4, 5, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4},
                                                {5, 3, 4, 4, 4, 5, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4},
                                                {3, 3, 4, 4, 4, 4, 5, 4, 4, 4, 4, 4, 4, 4, 4, 4},
                                                {4, 3, 4, 4, 4, 4, 4, 5, 4, 4, 4, 4, 4, 4, 4, 4},
                                                {4, 3, 4, 4, 4, 4, 4, 4, 5, 4, 4, 4, 4, 4, 4, 4},
                                                {5, 3, 4, 4, 4, 4, 4, 4, 4, 5, 4, 4, 4, 4, 4, 4},
                                                {5, 3, 4, 4, 4, 4, 4, 4, 4, 4, 5, 4, 4, 4, 4, 4},
                                                {5, 3, 3, 4, 4, 4, 4, 4, 4, 4, 4, 5, 5, 4, 4, 4},
                                                {5, 3, 3, 4, 4, 4, 4, 4, 4, 4, 4, 5, 5, 5, 4, 4},
                                                {5, 3, 3, 4, 4, 4, 4, 4, 4, 4, 4, 4, 5, 5, 5, 4},
                                                {5, 3, 3, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 5, 5, 5},
                                                {5, 3, 3, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 5, 5}};

//! Which of 8 height predictions: the distance between r and n, at most 7.
inline unsigned returnLevel(unsigned n, unsigned r)
{
    return std::min(n > r ? n - r : r - n, 7u);
}

//! The fields of a point record of format 6 and up (30 bytes) the predictions work on.
struct Point14
{
    std::int32_t x = 0, y = 0, z = 0;
    std::uint16_t intensity = 0;
    unsigned returnNumber = 0, returns = 0;
    unsigned classFlags = 0, channel = 0, scanDirection = 0, edge = 0;
    unsigned classification = 0, userData = 0;
    std::int16_t scanAngle = 0;
    std::uint16_t source = 0;
    std::uint64_t gpsTime = 0;
    bool gpsTimeChanged = false; // for the record after it

    void read(const std::uint8_t *r)
    {
        x = load<std::int32_t>(r);
        y = load<std::int32_t>(r + 4);
        z = load<std::int32_t>(r + 8);
        intensity = load<std::uint16_t>(r + 12);
        returnNumber = r[14] & 15;
        returns = r[14] >> 4;
        classFlags = r[15] & 15;
        channel = (r[15] >> 4) & 3;
        scanDirection = (r[15] >> 6) & 1;
        edge = r[15] >> 7;
        classification = r[16];
        userData = r[17];
        scanAngle = load<std::int16_t>(r + 18);
        source = load<std::uint16_t>(r + 20);
        gpsTime = load<std::uint64_t>(r + 22);
    }
    void write(std::uint8_t *r) const
    {
        store<std::int32_t>(r, x);
        store<std::int32_t>(r + 4, y);
        store<std::int32_t>(r + 8, z);
        store<std::uint16_t>(r + 12, intensity);
        r[14] = std::uint8_t(returnNumber | (returns << 4));
        r[15] = std::uint8_t(classFlags | (channel << 4) | (scanDirection << 6) | (edge << 7));
        r[16] = std::uint8_t(classification);
        r[17] = std::uint8_t(userData);
        store<std::int16_t>(r + 18, scanAngle);
        store<std::uint16_t>(r + 20, source);
        store<std::uint64_t>(r + 22, gpsTime);
    }
};

//! A layer of a chunk: its bytes, and the coder reading them.
struct Layer
{
    bool present = false; // bytes in this chunk: the attribute changes within it
    Decoder decoder;

    void start(const LayerBytes &bytes)
    {
        present = bytes.size > 0;
        if (present)
            decoder.start(bytes.data, bytes.data + bytes.size);
    }
    bool failed() const { return present && decoder.failed(); }
};

// The GPS time codes of the layered point item (no "unchanged" code: the point says whether
// its time changed).
constexpr std::int32_t MULTI = 500;
constexpr std::int32_t MULTI_MINUS = -10;
constexpr std::uint32_t CODE_FULL = MULTI - MULTI_MINUS + 1;
constexpr std::uint32_t TIME_TOTAL = MULTI - MULTI_MINUS + 5;

inline std::int32_t times(std::int32_t factor, std::int32_t diff)
{
    return std::int32_t(std::uint32_t(factor) * std::uint32_t(diff));
}

// What the point item keeps for one scanner channel, in both directions.
struct Point14Channel
{
    bool used = false;
    Point14 last;
    std::vector<SymbolModel> changed = std::vector<SymbolModel>(8, SymbolModel(128));
    SymbolModel channelModel {3};
    LazyModels returnsModels {16}, returnNumberModels {16};
    SymbolModel returnNumberSameTime {13};
    IntegerCoder dx {32, 2}, dy {32, 22}, z {32, 20};
    Median5 xDiff[12], yDiff[12];
    std::int32_t lastZ[8] = {};
    LazyModels classification {256}, flags {64}, userData {256};
    IntegerCoder intensity {16, 4};
    std::uint16_t lastIntensity[8] = {};
    IntegerCoder scanAngle {16, 2};
    IntegerCoder source {16};
    // The GPS time sequences, as in the version 2 item.
    unsigned lastSeq = 0, nextSeq = 0;
    std::uint64_t time[4] = {};
    std::int32_t timeDiff[4] = {};
    std::int32_t extremes[4] = {};
    SymbolModel timeMulti {TIME_TOTAL};
    SymbolModel timeZeroDiff {5};
    IntegerCoder times {32, 9};

    //! Starts from a record (the chunk's first, or the last one of the channel before).
    void start(const Point14 &from)
    {
        for (SymbolModel &m : changed)
            m.reset();
        channelModel.reset();
        returnsModels.reset();
        returnNumberModels.reset();
        returnNumberSameTime.reset();
        dx.reset();
        dy.reset();
        for (int i = 0; i < 12; ++i) {
            xDiff[i].reset();
            yDiff[i].reset();
        }
        z.reset();
        std::fill(std::begin(lastZ), std::end(lastZ), from.z);
        classification.reset();
        flags.reset();
        userData.reset();
        intensity.reset();
        std::fill(std::begin(lastIntensity), std::end(lastIntensity), from.intensity);
        scanAngle.reset();
        source.reset();
        timeMulti.reset();
        timeZeroDiff.reset();
        times.reset();
        lastSeq = nextSeq = 0;
        std::fill(std::begin(timeDiff), std::end(timeDiff), 0);
        std::fill(std::begin(extremes), std::end(extremes), 0);
        time[0] = from.gpsTime;
        time[1] = time[2] = time[3] = 0;
        last = from;
        last.gpsTimeChanged = false;
        used = true;
    }
    //! The kind of the last return (single, first, last, other) and whether its time changed:
    //! they choose the model of what changed in the next record.
    unsigned lastKind() const
    {
        return (last.returnNumber == 1 ? 1u : 0u) + (last.returnNumber >= last.returns ? 2u : 0u)
            + (last.gpsTimeChanged ? 4u : 0u);
    }
    //! A difference far from the last one's multiples: the fourth in a row becomes the new one.
    void extreme(std::int32_t diff)
    {
        if (++extremes[lastSeq] > 3) {
            timeDiff[lastSeq] = diff;
            extremes[lastSeq] = 0;
        }
    }
};

//! A chunk's channels, none met yet but the first record's; returns that record's channel.
unsigned startChannels(Point14Channel (&channels)[4], const std::uint8_t *item)
{
    for (Point14Channel &c : channels)
        c.used = false;
    Point14 first;
    first.read(item);
    channels[first.channel].start(first);
    return first.channel;
}

// The point's own fields, in nine layers.
class Point14Decoder final : public LayeredItemDecoder
{
public:
    unsigned layerCount() const override { return 9; }

    void start(const std::uint8_t *item, const LayerBytes *layers, unsigned &context) override
    {
        for (int i = 0; i < 9; ++i)
            m_layers[i].start(layers[i]);
        m_current = startChannels(m_channels, item);
        context = m_current;
    }

    void read(std::uint8_t *item, unsigned &context) override
    {
        Point14Channel *c = &m_channels[m_current];
        Decoder &xy = m_layers[XY].decoder;
        const std::uint32_t changed = xy.decodeSymbol(c->changed[c->lastKind()]);
        if (changed & (1u << 6)) {
            const std::uint32_t step = xy.decodeSymbol(c->channelModel);
            const unsigned channel = (m_current + step + 1) % 4;
            if (!m_channels[channel].used)
                m_channels[channel].start(c->last);
            m_current = channel;
            c = &m_channels[m_current];
            c->last.channel = channel;
            context = m_current;
        }
        Point14 &last = c->last;
        const bool sourceChanged = changed & (1u << 5);
        const bool timeChanged = changed & (1u << 4);
        const bool angleChanged = changed & (1u << 3);

        unsigned n = last.returns;
        if (changed & (1u << 2)) {
            n = xy.decodeSymbol(c->returnsModels[last.returns]);
            last.returns = n;
        }
        unsigned r = last.returnNumber;
        switch (changed & 3) {
        case 0:
            break;
        case 1:
            r = (r + 1) % 16;
            break;
        case 2:
            r = (r + 15) % 16;
            break;
        default:
            if (timeChanged)
                r = xy.decodeSymbol(c->returnNumberModels[last.returnNumber]);
            else
                r = (r + xy.decodeSymbol(c->returnNumberSameTime) + 2) % 16;
            break;
        }
        last.returnNumber = r;

        const unsigned slot = RETURN_SLOT14[n][r];
        const unsigned level = returnLevel(n, r);
        const unsigned kind = (r == 1 ? 2u : 0u) + (r >= n ? 1u : 0u);
        const unsigned medianSlot = (slot << 1) | (timeChanged ? 1u : 0u);

        std::int32_t diff = c->dx.decode(xy, c->xDiff[medianSlot].get(), n == 1);
        last.x = std::int32_t(std::uint32_t(last.x) + std::uint32_t(diff));
        c->xDiff[medianSlot].add(diff);
        unsigned kBits = c->dx.k();
        diff = c->dy.decode(xy, c->yDiff[medianSlot].get(),
                            (n == 1) + (kBits < 20 ? (kBits & ~1u) : 20));
        last.y = std::int32_t(std::uint32_t(last.y) + std::uint32_t(diff));
        c->yDiff[medianSlot].add(diff);

        if (m_layers[Z].present) {
            kBits = (c->dx.k() + c->dy.k()) / 2;
            last.z = c->z.decode(m_layers[Z].decoder, c->lastZ[level],
                                 (n == 1) + (kBits < 18 ? (kBits & ~1u) : 18));
            c->lastZ[level] = last.z;
        }
        if (m_layers[CLASSIFICATION].present) {
            const unsigned context = ((last.classification & 0x1f) << 1) + (kind == 3 ? 1 : 0);
            last.classification
                = m_layers[CLASSIFICATION].decoder.decodeSymbol(c->classification[context]);
        }
        if (m_layers[FLAGS].present) {
            const unsigned lastFlags
                = (last.edge << 5) | (last.scanDirection << 4) | last.classFlags;
            const std::uint32_t flags = m_layers[FLAGS].decoder.decodeSymbol(c->flags[lastFlags]);
            last.edge = (flags >> 5) & 1;
            last.scanDirection = (flags >> 4) & 1;
            last.classFlags = flags & 15;
        }
        if (m_layers[INTENSITY].present) {
            const unsigned at = (kind << 1) | (timeChanged ? 1u : 0u);
            last.intensity = std::uint16_t(
                c->intensity.decode(m_layers[INTENSITY].decoder, c->lastIntensity[at], kind));
            c->lastIntensity[at] = last.intensity;
        }
        if (m_layers[SCAN_ANGLE].present && angleChanged) {
            last.scanAngle = std::int16_t(
                c->scanAngle.decode(m_layers[SCAN_ANGLE].decoder, last.scanAngle, timeChanged));
        }
        if (m_layers[USER_DATA].present)
            last.userData
                = m_layers[USER_DATA].decoder.decodeSymbol(c->userData[last.userData / 4]);
        if (m_layers[SOURCE].present && sourceChanged)
            last.source = std::uint16_t(c->source.decode(m_layers[SOURCE].decoder, last.source));
        if (m_layers[GPS_TIME].present && timeChanged)
            last.gpsTime = readTime(*c, m_layers[GPS_TIME].decoder);

        last.write(item);
        last.gpsTimeChanged = timeChanged;
    }

    bool failed() const override
    {
        return std::any_of(std::begin(m_layers), std::end(m_layers),
                           [](const Layer &l) { return l.failed(); });
    }

private:
    enum { XY, Z, CLASSIFICATION, FLAGS, INTENSITY, SCAN_ANGLE, USER_DATA, SOURCE, GPS_TIME };
    std::uint64_t readTime(Point14Channel &c, Decoder &decoder)
    {
        const auto extreme = [&c](std::int32_t diff) { c.extreme(diff); };
        const auto fullTime = [&] {
            c.nextSeq = (c.nextSeq + 1) & 3;
            const std::int32_t high
                = c.times.decode(decoder, std::int32_t(std::uint32_t(c.time[c.lastSeq] >> 32)), 8);
            c.time[c.nextSeq] = (std::uint64_t(std::uint32_t(high)) << 32) | decoder.readInt();
            c.lastSeq = c.nextSeq;
            c.timeDiff[c.lastSeq] = 0;
            c.extremes[c.lastSeq] = 0;
        };
        for (int hop = 0; hop < 8; ++hop) {
            if (c.timeDiff[c.lastSeq] == 0) {
                const std::uint32_t multi = decoder.decodeSymbol(c.timeZeroDiff);
                if (multi == 0) {
                    c.timeDiff[c.lastSeq] = c.times.decode(decoder, 0, 0);
                    c.time[c.lastSeq] += std::uint64_t(std::int64_t(c.timeDiff[c.lastSeq]));
                    c.extremes[c.lastSeq] = 0;
                } else if (multi == 1) {
                    fullTime();
                } else {
                    c.lastSeq = (c.lastSeq + multi - 1) & 3;
                    continue;
                }
            } else {
                const std::uint32_t multi = decoder.decodeSymbol(c.timeMulti);
                const std::int32_t last = c.timeDiff[c.lastSeq];
                if (multi == 1) {
                    c.time[c.lastSeq]
                        += std::uint64_t(std::int64_t(c.times.decode(decoder, last, 1)));
                    c.extremes[c.lastSeq] = 0;
                } else if (multi < CODE_FULL) {
                    std::int32_t diff;
                    if (multi == 0) {
                        diff = c.times.decode(decoder, 0, 7);
                        extreme(diff);
                    } else if (multi < std::uint32_t(MULTI)) {
                        diff = c.times.decode(decoder, times(std::int32_t(multi), last),
                                              multi < 10 ? 2 : 3);
                    } else if (multi == std::uint32_t(MULTI)) {
                        diff = c.times.decode(decoder, times(MULTI, last), 4);
                        extreme(diff);
                    } else {
                        const std::int32_t minus = MULTI - std::int32_t(multi);
                        if (minus > MULTI_MINUS) {
                            diff = c.times.decode(decoder, times(minus, last), 5);
                        } else {
                            diff = c.times.decode(decoder, times(MULTI_MINUS, last), 6);
                            extreme(diff);
                        }
                    }
                    c.time[c.lastSeq] += std::uint64_t(std::int64_t(diff));
                } else if (multi == CODE_FULL) {
                    fullTime();
                } else {
                    c.lastSeq = (c.lastSeq + multi - CODE_FULL) & 3;
                    continue;
                }
            }
            break;
        }
        return c.time[c.lastSeq];
    }

    Layer m_layers[9];
    Point14Channel m_channels[4];
    unsigned m_current = 0;
};

// The layered items that follow the point keep their predictions by scanner channel too. On
// the record where the channel changes to one met before, the format codes with the new
// channel's models but from the last values of the channel before (and leaves the result
// there): kept as it is, or nothing decodes.
template<typename State> class ChannelStates
{
public:
    void startAt(unsigned context, const State &from)
    {
        for (State &s : m_states)
            s.used = false;
        m_current = context;
        m_states[context].start(from);
    }
    //! The state whose models code this record, and (values) the one whose last values it
    //! follows and updates.
    State &follow(unsigned context, State *&values)
    {
        unsigned valuesOf = m_current;
        if (context != m_current) {
            m_current = context;
            if (!m_states[context].used) {
                m_states[context].start(m_states[valuesOf]);
                valuesOf = context;
            }
        }
        values = &m_states[valuesOf];
        return m_states[m_current];
    }

private:
    State m_states[4];
    unsigned m_current = 0;
};

class Rgb14Decoder final : public LayeredItemDecoder
{
public:
    explicit Rgb14Decoder(bool nir)
        : m_nir(nir)
    {
    }
    unsigned layerCount() const override { return m_nir ? 2 : 1; }

    void start(const std::uint8_t *item, const LayerBytes *layers, unsigned &context) override
    {
        m_rgbLayer.start(layers[0]);
        if (m_nir)
            m_nirLayer.start(layers[1]);
        State first;
        for (int i = 0; i < (m_nir ? 4 : 3); ++i)
            first.last[i] = load<std::uint16_t>(item + 2 * i);
        m_states.startAt(context, first);
    }

    void read(std::uint8_t *item, unsigned &context) override
    {
        State *values = nullptr;
        State &models = m_states.follow(context, values);
        std::uint16_t *last = values->last;
        std::uint16_t c[4];
        if (m_rgbLayer.present) {
            decodeRgb(m_rgbLayer.decoder, models.rgb, last, c);
            std::copy(c, c + 3, last);
        } else {
            std::copy(last, last + 3, c);
        }
        if (m_nir) {
            if (m_nirLayer.present) {
                Decoder &d = m_nirLayer.decoder;
                const std::uint32_t used = d.decodeSymbol(models.nirUsed);
                c[3] = (used & 1)
                    ? fold(std::int32_t(d.decodeSymbol(models.nirDiff[0])) + (last[3] & 0xff))
                    : std::uint16_t(last[3] & 0xff);
                if (used & 2)
                    c[3] |= std::uint16_t(
                        fold(std::int32_t(d.decodeSymbol(models.nirDiff[1])) + (last[3] >> 8))
                        << 8);
                else
                    c[3] |= std::uint16_t(last[3] & 0xff00);
                last[3] = c[3];
            } else {
                c[3] = last[3];
            }
        }
        for (int i = 0; i < (m_nir ? 4 : 3); ++i)
            store<std::uint16_t>(item + 2 * i, c[i]);
    }

    bool failed() const override { return m_rgbLayer.failed() || (m_nir && m_nirLayer.failed()); }

    //! The models and last values of one channel (the encoder keeps the same).
    struct State
    {
        bool used = false;
        std::uint16_t last[4] = {};
        RgbModels rgb;
        SymbolModel nirUsed {4};
        std::vector<SymbolModel> nirDiff = std::vector<SymbolModel>(2, SymbolModel(256));

        void start(const State &from)
        {
            rgb.reset();
            nirUsed.reset();
            for (SymbolModel &m : nirDiff)
                m.reset();
            std::copy(from.last, from.last + 4, last);
            used = true;
        }
    };

private:
    bool m_nir;
    Layer m_rgbLayer, m_nirLayer;
    ChannelStates<State> m_states;
};

class Bytes14Decoder final : public LayeredItemDecoder
{
public:
    explicit Bytes14Decoder(std::size_t count)
        : m_layers(count)
        , m_count(count)
    {
    }
    unsigned layerCount() const override { return unsigned(m_count); }

    void start(const std::uint8_t *item, const LayerBytes *layers, unsigned &context) override
    {
        for (std::size_t i = 0; i < m_count; ++i)
            m_layers[i].start(layers[i]);
        State first;
        first.last.assign(item, item + m_count);
        m_states.startAt(context, first);
    }

    void read(std::uint8_t *item, unsigned &context) override
    {
        State *values = nullptr;
        State &models = m_states.follow(context, values);
        std::vector<std::uint8_t> &last = values->last;
        for (std::size_t i = 0; i < m_count; ++i) {
            if (m_layers[i].present)
                last[i] = fold(std::int32_t(last[i])
                               + std::int32_t(m_layers[i].decoder.decodeSymbol(models.models[i])));
            item[i] = last[i];
        }
    }

    bool failed() const override
    {
        return std::any_of(m_layers.begin(), m_layers.end(),
                           [](const Layer &l) { return l.failed(); });
    }

    //! The models and last values of one channel (the encoder keeps the same).
    struct State
    {
        bool used = false;
        std::vector<std::uint8_t> last;
        std::vector<SymbolModel> models;

        void start(const State &from)
        {
            if (models.size() != from.last.size())
                models.assign(from.last.size(), SymbolModel(256));
            for (SymbolModel &m : models)
                m.reset();
            last = from.last;
            used = true;
        }
    };

private:
    std::vector<Layer> m_layers;
    std::size_t m_count;
    ChannelStates<State> m_states;
};

// The wave packet of LAS 1.4 points: one layer, each packet coded as in formats 4 and 5.
class WavePacket14Decoder final : public LayeredItemDecoder
{
public:
    unsigned layerCount() const override { return 1; }

    void start(const std::uint8_t *item, const LayerBytes *layers, unsigned &context) override
    {
        m_layer.start(layers[0]);
        State first;
        std::memcpy(first.last, item, WAVE_PACKET_SIZE);
        m_states.startAt(context, first);
    }

    void read(std::uint8_t *item, unsigned &context) override
    {
        State *values = nullptr;
        State &models = m_states.follow(context, values);
        if (m_layer.present) {
            decodeWavePacket(m_layer.decoder, models.models, values->last, item);
            std::memcpy(values->last, item, WAVE_PACKET_SIZE);
        } else {
            std::memcpy(item, values->last, WAVE_PACKET_SIZE);
        }
    }

    bool failed() const override { return m_layer.failed(); }

    //! The models and last packet of one channel (the encoder keeps the same).
    struct State
    {
        bool used = false;
        std::uint8_t last[WAVE_PACKET_SIZE] = {};
        WavePacketModels models;

        void start(const State &from)
        {
            models.reset();
            std::memcpy(last, from.last, WAVE_PACKET_SIZE);
            used = true;
        }
    };

private:
    Layer m_layer;
    ChannelStates<State> m_states;
};

// ------------------------------------------------------------------ encoding
//
// Each layer gets a coder of its own writing into a buffer; at the chunk's end a layer whose
// attribute never changed in the chunk is left out (its size is 0), as the decoder expects.

struct OutLayer
{
    std::vector<std::uint8_t> bytes;
    Encoder encoder;
    bool changed = false;

    void start()
    {
        bytes.clear();
        encoder.start(bytes);
        changed = false;
    }
    //! The layer's size and bytes, appended; kept: whether the decoder needs it.
    void finish(bool kept, std::vector<std::uint32_t> &sizes, std::vector<std::uint8_t> &out)
    {
        encoder.finish();
        sizes.push_back(kept ? std::uint32_t(bytes.size()) : 0);
        if (kept)
            out.insert(out.end(), bytes.begin(), bytes.end());
    }
};

class Point14Encoder final : public LayeredItemEncoder
{
public:
    unsigned layerCount() const override { return 9; }

    void start(const std::uint8_t *item, unsigned &context) override
    {
        for (OutLayer &l : m_layers)
            l.start();
        m_current = startChannels(m_channels, item);
        context = m_current;
    }

    void write(const std::uint8_t *item, unsigned &context) override
    {
        Point14 p;
        p.read(item);
        Point14Channel *c = &m_channels[m_current];
        const Point14 *last = &c->last;
        // Compared with the last record of the point's own channel when it was met before.
        if (p.channel != m_current && m_channels[p.channel].used)
            last = &m_channels[p.channel].last;
        const bool sourceChanged = p.source != last->source;
        const bool timeChanged = p.gpsTime != last->gpsTime;
        const bool angleChanged = p.scanAngle != last->scanAngle;
        const unsigned lastN = last->returns, lastR = last->returnNumber;
        const unsigned n = p.returns, r = p.returnNumber;
        std::uint32_t changed = (std::uint32_t(p.channel != m_current) << 6)
            | (std::uint32_t(sourceChanged) << 5) | (std::uint32_t(timeChanged) << 4)
            | (std::uint32_t(angleChanged) << 3) | (std::uint32_t(n != lastN) << 2);
        if (r != lastR)
            changed |= r == (lastR + 1) % 16 ? 1u : (r == (lastR + 15) % 16 ? 2u : 3u);
        Encoder &xy = m_layers[XY].encoder;
        xy.encodeSymbol(c->changed[c->lastKind()], changed);
        if (changed & (1u << 6)) {
            const int diff = int(p.channel) - int(m_current);
            xy.encodeSymbol(c->channelModel, std::uint32_t(diff > 0 ? diff - 1 : diff + 3));
            if (!m_channels[p.channel].used)
                m_channels[p.channel].start(c->last);
            m_current = p.channel;
            c = &m_channels[m_current];
            context = m_current;
        }
        Point14 &state = c->last;
        if (changed & (1u << 2))
            xy.encodeSymbol(c->returnsModels[lastN], n);
        if ((changed & 3) == 3) {
            if (timeChanged) {
                xy.encodeSymbol(c->returnNumberModels[lastR], r);
            } else {
                const int diff = int(r) - int(lastR);
                xy.encodeSymbol(c->returnNumberSameTime,
                                std::uint32_t(diff > 1 ? diff - 2 : diff + 14));
            }
        }
        const unsigned slot = RETURN_SLOT14[n][r];
        const unsigned level = returnLevel(n, r);
        const unsigned kind = (r == 1 ? 2u : 0u) + (r >= n ? 1u : 0u);
        const unsigned medianSlot = (slot << 1) | (timeChanged ? 1u : 0u);

        std::int32_t diff = std::int32_t(std::uint32_t(p.x) - std::uint32_t(state.x));
        c->dx.encode(xy, c->xDiff[medianSlot].get(), diff, n == 1);
        c->xDiff[medianSlot].add(diff);
        unsigned kBits = c->dx.k();
        diff = std::int32_t(std::uint32_t(p.y) - std::uint32_t(state.y));
        c->dy.encode(xy, c->yDiff[medianSlot].get(), diff,
                     (n == 1) + (kBits < 20 ? (kBits & ~1u) : 20));
        c->yDiff[medianSlot].add(diff);

        kBits = (c->dx.k() + c->dy.k()) / 2;
        c->z.encode(m_layers[Z].encoder, c->lastZ[level], p.z,
                    (n == 1) + (kBits < 18 ? (kBits & ~1u) : 18));
        c->lastZ[level] = p.z;

        m_layers[CLASSIFICATION].changed |= p.classification != state.classification;
        const unsigned classContext = ((state.classification & 0x1f) << 1) + (kind == 3 ? 1 : 0);
        m_layers[CLASSIFICATION].encoder.encodeSymbol(c->classification[classContext],
                                                      p.classification);

        const unsigned lastFlags
            = (state.edge << 5) | (state.scanDirection << 4) | state.classFlags;
        const unsigned flags = (p.edge << 5) | (p.scanDirection << 4) | p.classFlags;
        m_layers[FLAGS].changed |= flags != lastFlags;
        m_layers[FLAGS].encoder.encodeSymbol(c->flags[lastFlags], flags);

        m_layers[INTENSITY].changed |= p.intensity != state.intensity;
        const unsigned at = (kind << 1) | (timeChanged ? 1u : 0u);
        c->intensity.encode(m_layers[INTENSITY].encoder, c->lastIntensity[at], p.intensity, kind);
        c->lastIntensity[at] = p.intensity;

        if (angleChanged) {
            m_layers[SCAN_ANGLE].changed = true;
            c->scanAngle.encode(m_layers[SCAN_ANGLE].encoder, state.scanAngle, p.scanAngle,
                                timeChanged);
        }
        m_layers[USER_DATA].changed |= p.userData != state.userData;
        m_layers[USER_DATA].encoder.encodeSymbol(c->userData[state.userData / 4], p.userData);
        if (sourceChanged) {
            m_layers[SOURCE].changed = true;
            c->source.encode(m_layers[SOURCE].encoder, state.source, p.source);
        }
        if (timeChanged) {
            m_layers[GPS_TIME].changed = true;
            writeTime(*c, m_layers[GPS_TIME].encoder, p.gpsTime);
        }
        state = p;
        state.gpsTimeChanged = timeChanged;
    }

    void finish(std::vector<std::uint32_t> &sizes, std::vector<std::uint8_t> &bytes) override
    {
        // The coordinates and the heights always go; the others when they changed.
        for (int i = 0; i < 9; ++i)
            m_layers[i].finish(i == XY || i == Z || m_layers[i].changed, sizes, bytes);
    }

private:
    enum { XY, Z, CLASSIFICATION, FLAGS, INTENSITY, SCAN_ANGLE, USER_DATA, SOURCE, GPS_TIME };

    static bool fits(std::int64_t d) { return d == std::int64_t(std::int32_t(d)); }

    void writeTime(Point14Channel &c, Encoder &encoder, std::uint64_t time)
    {
        for (int hop = 0; hop < 2; ++hop) {
            const std::int64_t wide = std::int64_t(time - c.time[c.lastSeq]);
            if (!fits(wide)) {
                int other = 0;
                for (int i = 1; i < 4 && !other; ++i) {
                    if (fits(std::int64_t(time - c.time[(c.lastSeq + unsigned(i)) & 3])))
                        other = i;
                }
                const bool zero = c.timeDiff[c.lastSeq] == 0;
                if (other) {
                    encoder.encodeSymbol(zero ? c.timeZeroDiff : c.timeMulti,
                                         zero ? std::uint32_t(other + 1)
                                              : CODE_FULL + std::uint32_t(other));
                    c.lastSeq = (c.lastSeq + unsigned(other)) & 3;
                    continue;
                }
                encoder.encodeSymbol(zero ? c.timeZeroDiff : c.timeMulti, zero ? 1 : CODE_FULL);
                c.times.encode(encoder, std::int32_t(c.time[c.lastSeq] >> 32),
                               std::int32_t(time >> 32), 8);
                encoder.writeInt(std::uint32_t(time));
                c.nextSeq = (c.nextSeq + 1) & 3;
                c.lastSeq = c.nextSeq;
                c.timeDiff[c.lastSeq] = 0;
                c.extremes[c.lastSeq] = 0;
                c.time[c.lastSeq] = time;
                return;
            }
            const std::int32_t diff = std::int32_t(wide);
            const std::int32_t last = c.timeDiff[c.lastSeq];
            if (last == 0) {
                encoder.encodeSymbol(c.timeZeroDiff, 0);
                c.times.encode(encoder, 0, diff, 0);
                c.timeDiff[c.lastSeq] = diff;
                c.extremes[c.lastSeq] = 0;
            } else {
                // The multiple of the last difference, rounded half away from zero in single
                // precision as the format's own encoder does it.
                const float ratio = float(diff) / float(last);
                // The format rounds so (half away from zero, in floats): kept to the bit.
                const std::int32_t multi
                    // NOLINTNEXTLINE(bugprone-incorrect-roundings)
                    = ratio >= 0 ? std::int32_t(ratio + 0.5f) : std::int32_t(ratio - 0.5f);
                if (multi == 1) {
                    encoder.encodeSymbol(c.timeMulti, 1);
                    c.times.encode(encoder, last, diff, 1);
                    c.extremes[c.lastSeq] = 0;
                } else if (multi > 0 && multi < MULTI) {
                    encoder.encodeSymbol(c.timeMulti, std::uint32_t(multi));
                    c.times.encode(encoder, times(multi, last), diff, multi < 10 ? 2 : 3);
                } else if (multi >= MULTI) {
                    encoder.encodeSymbol(c.timeMulti, MULTI);
                    c.times.encode(encoder, times(MULTI, last), diff, 4);
                    c.extreme(diff);
                } else if (multi < 0 && multi > MULTI_MINUS) {
                    encoder.encodeSymbol(c.timeMulti, std::uint32_t(MULTI - multi));
                    c.times.encode(encoder, times(multi, last), diff, 5);
                } else if (multi < 0) {
                    encoder.encodeSymbol(c.timeMulti, std::uint32_t(MULTI - MULTI_MINUS));
                    c.times.encode(encoder, times(MULTI_MINUS, last), diff, 6);
                    c.extreme(diff);
                } else {
                    encoder.encodeSymbol(c.timeMulti, 0);
                    c.times.encode(encoder, 0, diff, 7);
                    c.extreme(diff);
                }
            }
            c.time[c.lastSeq] = time;
            return;
        }
    }

    OutLayer m_layers[9];
    Point14Channel m_channels[4];
    unsigned m_current = 0;
};

class Rgb14Encoder final : public LayeredItemEncoder
{
public:
    explicit Rgb14Encoder(bool nir)
        : m_nir(nir)
    {
    }
    unsigned layerCount() const override { return m_nir ? 2 : 1; }

    void start(const std::uint8_t *item, unsigned &context) override
    {
        m_rgbLayer.start();
        m_nirLayer.start();
        State first;
        for (int i = 0; i < (m_nir ? 4 : 3); ++i)
            first.last[i] = load<std::uint16_t>(item + 2 * i);
        m_states.startAt(context, first);
    }

    void write(const std::uint8_t *item, unsigned &context) override
    {
        State *values = nullptr;
        State &models = m_states.follow(context, values);
        std::uint16_t *last = values->last;
        std::uint16_t c[4] = {};
        for (int i = 0; i < (m_nir ? 4 : 3); ++i)
            c[i] = load<std::uint16_t>(item + 2 * i);
        m_rgbLayer.changed |= c[0] != last[0] || c[1] != last[1] || c[2] != last[2];
        encodeRgb(m_rgbLayer.encoder, models.rgb, last, c);
        if (m_nir) {
            const std::uint32_t used = std::uint32_t((c[3] & 0xff) != (last[3] & 0xff))
                | (std::uint32_t((c[3] >> 8) != (last[3] >> 8)) << 1);
            Encoder &e = m_nirLayer.encoder;
            e.encodeSymbol(models.nirUsed, used);
            if (used & 1)
                e.encodeSymbol(models.nirDiff[0],
                               fold(std::int32_t(c[3] & 0xff) - std::int32_t(last[3] & 0xff)));
            if (used & 2)
                e.encodeSymbol(models.nirDiff[1],
                               fold(std::int32_t(c[3] >> 8) - std::int32_t(last[3] >> 8)));
            m_nirLayer.changed |= used != 0;
        }
        std::copy(c, c + (m_nir ? 4 : 3), last);
    }

    void finish(std::vector<std::uint32_t> &sizes, std::vector<std::uint8_t> &bytes) override
    {
        m_rgbLayer.finish(m_rgbLayer.changed, sizes, bytes);
        if (m_nir)
            m_nirLayer.finish(m_nirLayer.changed, sizes, bytes);
    }

private:
    using State = Rgb14Decoder::State;

    bool m_nir;
    OutLayer m_rgbLayer, m_nirLayer;
    ChannelStates<State> m_states;
};

class Bytes14Encoder final : public LayeredItemEncoder
{
public:
    explicit Bytes14Encoder(std::size_t count)
        : m_layers(count)
        , m_count(count)
    {
    }
    unsigned layerCount() const override { return unsigned(m_count); }

    void start(const std::uint8_t *item, unsigned &context) override
    {
        for (OutLayer &l : m_layers)
            l.start();
        State first;
        first.last.assign(item, item + m_count);
        m_states.startAt(context, first);
    }

    void write(const std::uint8_t *item, unsigned &context) override
    {
        State *values = nullptr;
        State &models = m_states.follow(context, values);
        std::vector<std::uint8_t> &last = values->last;
        for (std::size_t i = 0; i < m_count; ++i) {
            m_layers[i].changed |= item[i] != last[i];
            m_layers[i].encoder.encodeSymbol(models.models[i],
                                             fold(std::int32_t(item[i]) - std::int32_t(last[i])));
            last[i] = item[i];
        }
    }

    void finish(std::vector<std::uint32_t> &sizes, std::vector<std::uint8_t> &bytes) override
    {
        for (OutLayer &l : m_layers)
            l.finish(l.changed, sizes, bytes);
    }

private:
    using State = Bytes14Decoder::State;

    std::vector<OutLayer> m_layers;
    std::size_t m_count;
    ChannelStates<State> m_states;
};

class WavePacket14Encoder final : public LayeredItemEncoder
{
public:
    unsigned layerCount() const override { return 1; }

    void start(const std::uint8_t *item, unsigned &context) override
    {
        m_layer.start();
        State first;
        std::memcpy(first.last, item, WAVE_PACKET_SIZE);
        m_states.startAt(context, first);
    }

    void write(const std::uint8_t *item, unsigned &context) override
    {
        State *values = nullptr;
        State &models = m_states.follow(context, values);
        m_layer.changed |= std::memcmp(item, values->last, WAVE_PACKET_SIZE) != 0;
        encodeWavePacket(m_layer.encoder, models.models, values->last, item);
        std::memcpy(values->last, item, WAVE_PACKET_SIZE);
    }

    void finish(std::vector<std::uint32_t> &sizes, std::vector<std::uint8_t> &bytes) override
    {
        m_layer.finish(m_layer.changed, sizes, bytes);
    }

private:
    using State = WavePacket14Decoder::State;

    OutLayer m_layer;
    ChannelStates<State> m_states;
};

// Which layered item a description names, its size checked, for either direction.
template<class Base, class Point, class Colour, class Wave, class Bytes>
std::unique_ptr<Base> makeLayeredItem(const Item &item)
{
    if (item.version != 3)
        return nullptr;
    switch (item.type) {
    case ITEM_POINT14:
        return item.size == 30 ? std::make_unique<Point>() : nullptr;
    case ITEM_RGB14:
        return item.size == 6 ? std::make_unique<Colour>(false) : nullptr;
    case ITEM_RGBNIR14:
        return item.size == 8 ? std::make_unique<Colour>(true) : nullptr;
    case ITEM_WAVEPACKET14:
        return item.size == WAVE_PACKET_SIZE ? std::make_unique<Wave>() : nullptr;
    case ITEM_BYTE14:
        return item.size > 0 ? std::make_unique<Bytes>(item.size) : nullptr;
    default:
        return nullptr;
    }
}

} // namespace

std::unique_ptr<LayeredItemDecoder> makeLayeredItemDecoder(const Item &item)
{
    return makeLayeredItem<LayeredItemDecoder, Point14Decoder, Rgb14Decoder, WavePacket14Decoder,
                           Bytes14Decoder>(item);
}

std::unique_ptr<LayeredItemEncoder> makeLayeredItemEncoder(const Item &item)
{
    return makeLayeredItem<LayeredItemEncoder, Point14Encoder, Rgb14Encoder, WavePacket14Encoder,
                           Bytes14Encoder>(item);
}

} // namespace detail
} // namespace tzLaz
