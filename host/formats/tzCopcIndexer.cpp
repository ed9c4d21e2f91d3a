// Indexing clouds into a COPC file, in bounded memory.
//
// The points are read once and sent, as records of the output's format, to the part of the
// octree they lie in (a node a few levels below the root: a "bucket"); buckets wait in memory
// and go to files in a work folder when the memory budget is reached. Each bucket is then
// taken alone: its points sorted along a Morton curve, and the subtree built from the top: a
// node keeps the middle point of each occupied cell of a 128^3 grid over its cube and hands the
// rest to its children, until at most LEAF_POINTS remain. What a bucket's own node kept waits
// for the levels above: once every bucket is done, those points build the top of the tree the
// same way. The nodes are encoded as LAZ chunks on every core and written as they come; the
// chunk table and the hierarchy follow them.

#include "tzCopc.h"

#include "tzCloudFile.h"
#include "tzLasFile_p.h"

#include <QDir>
#include <QFileInfo>
#include <QStorageInfo>
#include <QTemporaryDir>

#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <exception>
#include <map>
#include <set>
#include <thread>

namespace tzCopc {

namespace {

using namespace tzCloudFile::detail;

constexpr int KEY_BITS = 21; // of each axis in a point's Morton code
constexpr int GRID_BITS = 7; // a node keeps a point per cell of a 128^3 grid over its cube
constexpr int MAX_DEPTH = KEY_BITS - GRID_BITS;
constexpr int PAGE_LEVELS = 4; // the levels of the tree one hierarchy page describes
constexpr int CORE_LENGTH[] = {30, 36, 38}; // of point formats 6, 7 and 8

// The shortest record of each LAS point format, where its colours are, its GPS time.
constexpr int LAS_CORE[] = {20, 28, 26, 34, 57, 63, 30, 36, 38, 59, 67};
constexpr int LAS_RGB[] = {-1, -1, 20, 28, -1, 28, -1, 30, 30, -1, 30};
constexpr int LAS_GPS[] = {-1, 20, -1, 20, 20, 20, 22, 22, 22, 22, 22};

//! Gives a vector's memory back (assigning {} would only empty it and keep its capacity).
template<typename T> void freeMemory(std::vector<T> &values)
{
    std::vector<T>().swap(values);
}

//! Raised when a point lies outside the box the headers gave (some writers leave it stale):
//! the inputs are then measured and the indexing starts again.
struct OutsideTheBox
{
};

//! Runs fn(begin, end) over [0, n) in parts, one a core (one part alone when n is small); what
//! a part raises is raised here.
template<typename Fn> void inParallel(size_t n, Fn &&fn)
{
    const unsigned threads = n < 16384 ? 1 : threadsFor(n / 8192);
    if (threads <= 1) {
        fn(size_t(0), n);
        return;
    }
    std::vector<std::exception_ptr> errors(threads);
    const auto part = [&](unsigned t) {
        try {
            fn(n * t / threads, n * (t + 1) / threads);
        } catch (...) {
            errors[t] = std::current_exception();
        }
    };
    std::vector<std::thread> helpers;
    for (unsigned t = 1; t < threads; ++t)
        helpers.emplace_back(part, t);
    part(0);
    for (std::thread &helper : helpers)
        helper.join();
    for (const std::exception_ptr &error : errors) {
        if (error)
            std::rethrow_exception(error);
    }
}

//! Sorts on every core: the halves side by side, then merged.
template<typename T> void sortInParallel(std::vector<T> &values)
{
    if (values.size() < 65536 || threadsFor(2) < 2) {
        std::sort(values.begin(), values.end());
        return;
    }
    const auto middle = values.begin() + qint64(values.size() / 2);
    std::thread helper([&] { std::sort(values.begin(), middle); });
    std::sort(middle, values.end());
    helper.join();
    std::inplace_merge(values.begin(), middle, values.end());
}

//! Spreads the low 21 bits of v to every third bit.
std::uint64_t spread(std::uint64_t v)
{
    v &= 0x1fffff;
    v = (v | v << 32) & 0x1f00000000ffffull;
    v = (v | v << 16) & 0x1f0000ff0000ffull;
    v = (v | v << 8) & 0x100f00f00f00f00full;
    v = (v | v << 4) & 0x10c30c30c30c30c3ull;
    v = (v | v << 2) & 0x1249249249249249ull;
    return v;
}

std::uint32_t gather(std::uint64_t v)
{
    v &= 0x1249249249249249ull;
    v = (v ^ (v >> 2)) & 0x10c30c30c30c30c3ull;
    v = (v ^ (v >> 4)) & 0x100f00f00f00f00full;
    v = (v ^ (v >> 8)) & 0x1f0000ff0000ffull;
    v = (v ^ (v >> 16)) & 0x1f00000000ffffull;
    v = (v ^ (v >> 32)) & 0x1fffff;
    return std::uint32_t(v);
}

//! The node of a depth that a Morton code lies in.
Key keyOf(std::uint64_t code, int depth)
{
    const std::uint64_t top = depth == 0 ? 0 : code >> (3 * (KEY_BITS - depth));
    return {depth, std::int32_t(gather(top)), std::int32_t(gather(top >> 1)),
            std::int32_t(gather(top >> 2))};
}

//! What the output's records are, and the cube of the octree.
struct Layout
{
    int format = 6;
    int length = 30;
    int extra = 0; // extra bytes after the format's own
    double scale[3] = {0.001, 0.001, 0.001};
    double offset[3] = {};
    double center[3] = {};
    double halfSize = 1;

    //! The Morton code of a record's point in the cube.
    std::uint64_t code(const uchar *record) const
    {
        bool outside = false;
        return code(record, outside);
    }
    //! The code, and whether the point lies outside the cube (it is then given the nearest
    //! cell).
    std::uint64_t code(const uchar *record, bool &outside) const
    {
        std::uint64_t c = 0;
        for (int a = 0; a < 3; ++a) {
            const double v = loadAs<qint32>(record + 4 * a, false) * scale[a] + offset[a];
            const double u = (v - (center[a] - halfSize)) / (2 * halfSize);
            const auto cell = std::int64_t(std::floor(u * double(1 << KEY_BITS)));
            outside = outside || cell < 0 || cell >= (1 << KEY_BITS);
            c |= spread(std::uint64_t(std::clamp<std::int64_t>(cell, 0, (1 << KEY_BITS) - 1))) << a;
        }
        return c;
    }
};

//! One axis of a record's coordinate carried into the output's scale and offset: by an
//! integer when the grids agree (exact), else through the coordinate.
struct Requantize
{
    double inScale = 1, inOffset = 0, outScale = 1, outOffset = 0;
    bool exact = false;
    qint64 delta = 0;

    void set(double si, double oi, double so, double oo)
    {
        inScale = si;
        inOffset = oi;
        outScale = so;
        outOffset = oo;
        const double steps = (oi - oo) / so;
        exact = std::abs(si - so) <= 1e-12 * std::abs(so)
            && std::abs(steps - std::round(steps)) < 1e-6;
        delta = qint64(std::llround(steps));
    }
    qint32 operator()(qint32 v) const
    {
        const qint64 out
            = exact ? v + delta : std::llround((v * inScale + inOffset - outOffset) / outScale);
        if (out < INT32_MIN || out > INT32_MAX)
            throw OutsideTheBox {};
        return qint32(out);
    }
};

//! A file to index: what its header says, and its records made into the output's.
class Input
{
public:
    virtual ~Input() = default;
    //! Gives the records, in blocks, in the output's layout.
    virtual void read(const Layout &layout, const std::function<void(const uchar *, size_t)> &sink)
        = 0;
    //! Takes the box of the points from the points themselves, not from the header.
    virtual void measure() { }

    QString path;
    quint64 count = 0;
    double min[3] = {}, max[3] = {};
    bool colours = false, infrared = false;
    bool las = false;
    int lasFormat = -1;
    double scale[3] = {}, offset[3] = {};
    int extra = 0;
    QByteArray extraVlr; // the payload of the extra bytes' description
    QByteArray wkt; // the whole VLR
    bool hasGeoKeys = false;
    quint16 globalEncoding = 0;
};

class LasInput : public Input
{
public:
    bool open(const QString &file, QString &errorText)
    {
        path = file;
        if (!m_bytes.open(file, errorText))
            return false;
        try {
            m_header = LasHeader::read(m_bytes.bytes());
        } catch (const ReadFailure &failure) {
            errorText = QStringLiteral("'%1': %2").arg(file, failure.reason);
            return false;
        }
        las = true;
        lasFormat = m_header.format;
        count = m_header.count;
        colours = LAS_RGB[lasFormat] >= 0;
        infrared = lasFormat == 8 || lasFormat == 10;
        extra = m_header.recordLength - LAS_CORE[lasFormat];
        globalEncoding = loadAs<quint16>(m_bytes.bytes().data + 6, false);
        for (int a = 0; a < 3; ++a) {
            min[a] = m_header.bbMin[a];
            max[a] = m_header.bbMax[a];
            scale[a] = m_header.scale[a];
            offset[a] = m_header.offset[a];
        }
        forEachVlr(m_bytes.bytes(), m_header, [&](const uchar *vlr, quint16 length) {
            const bool spec = std::memcmp(vlr + 2, "LASF_Spec\0", 10) == 0;
            const bool projection = std::memcmp(vlr + 2, "LASF_Projection\0", 16) == 0;
            const quint16 id = loadAs<quint16>(vlr + 18, false);
            if (spec && id == 4)
                extraVlr = QByteArray(reinterpret_cast<const char *>(vlr + 54), length);
            if (projection && id == 2112)
                wkt = QByteArray(reinterpret_cast<const char *>(vlr), 54 + length);
            if (projection && id == 34735)
                hasGeoKeys = true;
        });
        return true;
    }

    void read(const Layout &layout, const std::function<void(const uchar *, size_t)> &sink) override
    {
        for (int a = 0; a < 3; ++a)
            m_axis[a].set(scale[a], offset[a], layout.scale[a], layout.offset[a]);
        m_layout = &layout;
        RecordSource source(m_bytes.bytes(), m_header);
        std::vector<uchar> out;
        for (size_t n = 0;;) {
            const uchar *records = source.next(n);
            if (n == 0)
                break;
            out.assign(n * size_t(layout.length), 0);
            inParallel(n, [&](size_t from, size_t to) { convert(records, from, to, out); });
            sink(out.data(), n);
        }
        if (source.done() != count)
            failWith(QStringLiteral("%1 of %2 points were read").arg(source.done()).arg(count));
    }

    void measure() override
    {
        RecordSource source(m_bytes.bytes(), m_header);
        bool any = false;
        for (size_t n = 0;;) {
            const uchar *records = source.next(n);
            if (n == 0)
                break;
            for (size_t i = 0; i < n; ++i) {
                const uchar *r = records + i * m_header.recordLength;
                for (int a = 0; a < 3; ++a) {
                    const double v = loadAs<qint32>(r + 4 * a, false) * scale[a] + offset[a];
                    min[a] = any ? std::min(min[a], v) : v;
                    max[a] = any ? std::max(max[a], v) : v;
                }
                any = true;
            }
        }
    }

private:
    //! Records [from, to) in the output's layout.
    void convert(const uchar *records, size_t from, size_t to, std::vector<uchar> &out) const
    {
        const Layout &layout = *m_layout;
        const size_t inLength = m_header.recordLength;
        const int f = lasFormat;
        for (size_t i = from; i < to; ++i) {
            const uchar *r = records + i * inLength;
            uchar *o = out.data() + i * size_t(layout.length);
            for (int a = 0; a < 3; ++a) {
                const qint32 v = m_axis[a](loadAs<qint32>(r + 4 * a, false));
                std::memcpy(o + 4 * a, &v, 4);
            }
            if (f >= 6) {
                std::memcpy(o + 12, r + 12, 18);
            } else {
                // The legacy fields in the layout of formats 6 and above.
                std::memcpy(o + 12, r + 12, 2); // intensity
                o[14] = uchar((r[14] & 7) | ((r[14] >> 3) & 7) << 4);
                o[15] = uchar((r[15] >> 5) | (r[14] & 0xc0)); // flags, direction, edge
                o[16] = r[15] & 31;
                o[17] = r[17]; // user data
                const qint16 angle = qint16(std::lround(qint8(r[16]) / 0.006));
                std::memcpy(o + 18, &angle, 2);
                std::memcpy(o + 20, r + 18, 2); // point source
                if (LAS_GPS[f] >= 0)
                    std::memcpy(o + 22, r + LAS_GPS[f], 8);
            }
            if (layout.format >= 7 && LAS_RGB[f] >= 0)
                std::memcpy(o + 30, r + LAS_RGB[f], 6);
            else if (layout.format >= 7)
                std::memset(o + 30, 0xff, 6); // white among coloured points
            if (layout.format == 8 && infrared)
                std::memcpy(o + 36, r + 36, 2);
            if (layout.extra > 0)
                std::memcpy(o + CORE_LENGTH[layout.format - 6], r + LAS_CORE[f],
                            size_t(layout.extra));
        }
    }

    FileBytes m_bytes;
    LasHeader m_header;
    Requantize m_axis[3];
    const Layout *m_layout = nullptr;
};

//! Any other format: read whole as the viewer reads it.
class CloudInput : public Input
{
public:
    //! Reads the cloud, telling the progress (which may cancel: the error then says so).
    bool open(const QString &file, QString &errorText, const IndexOptions &options)
    {
        path = file;
        tzCloudFile::LoadOptions reading;
        reading.note = options.note;
        const QString stage = QObject::tr("Reading %1 for").arg(QFileInfo(file).fileName());
        reading.progress = [&options, stage](int percent) {
            return !options.progress || options.progress(percent, stage);
        };
        m_cloud.reset(tzCloudFile::load(file, errorText, reading));
        if (!m_cloud)
            return false;
        count = m_cloud->size();
        colours = m_cloud->hasColors();
        for (unsigned i = 0; i < m_cloud->size(); ++i) {
            const TZVector3d g = m_cloud->toGlobal3d(*m_cloud->getPoint(i));
            for (int a = 0; a < 3; ++a) {
                min[a] = i == 0 ? g[a] : std::min(min[a], g[a]);
                max[a] = i == 0 ? g[a] : std::max(max[a], g[a]);
            }
        }
        return true;
    }

    void read(const Layout &layout, const std::function<void(const uchar *, size_t)> &sink) override
    {
        const tzPointCloud &cloud = *m_cloud;
        const unsigned n = cloud.size();
        constexpr unsigned BLOCK = 65536;
        std::vector<uchar> out;
        for (unsigned first = 0; first < n; first += BLOCK) {
            const unsigned count = std::min(BLOCK, n - first);
            out.assign(size_t(count) * size_t(layout.length), 0);
            for (unsigned i = 0; i < count; ++i) {
                uchar *o = out.data() + size_t(i) * size_t(layout.length);
                const TZVector3d g = cloud.toGlobal3d(*cloud.getPoint(first + i));
                for (int a = 0; a < 3; ++a) {
                    const qint64 v = std::llround((g[a] - layout.offset[a]) / layout.scale[a]);
                    const qint32 v32 = qint32(std::clamp<qint64>(v, INT32_MIN, INT32_MAX));
                    std::memcpy(o + 4 * a, &v32, 4);
                }
                o[14] = 1 | 1 << 4;
                if (cloud.attributeKinds()) {
                    const tzPointAttributes &a = cloud.getPointAttributes(first + i);
                    std::memcpy(o + 12, &a.intensity, 2);
                    if (cloud.hasAttribute(tzPointDisplay::RETURNS))
                        o[14] = a.returns;
                    o[16] = a.classification;
                }
                if (layout.format >= 7 && colours) {
                    const tzRgb &c = cloud.getPointColor(first + i);
                    const quint16 rgb[3]
                        = {quint16(c.r * 257), quint16(c.g * 257), quint16(c.b * 257)};
                    std::memcpy(o + 30, rgb, 6);
                } else if (layout.format >= 7) {
                    std::memset(o + 30, 0xff, 6);
                }
            }
            sink(out.data(), count);
        }
    }

private:
    std::unique_ptr<tzPointCloud> m_cloud;
};

//! The points waiting for their bucket to be built, in memory and, beyond the budget, in
//! files of the work folder.
class Buckets
{
public:
    struct Bucket
    {
        std::vector<uchar> held;
        quint64 onDisk = 0; // records
        quint64 count = 0;
    };

    Buckets(const QString &folder, size_t length, size_t budget)
        : m_folder(folder)
        , m_length(length)
        , m_budget(budget)
    {
    }

    void add(const Key &key, const uchar *record)
    {
        // Points come in runs of one bucket (a scan line, a tile): the last one is kept at hand.
        if (!m_last || key != m_lastKey) {
            m_last = &m_buckets[key];
            m_lastKey = key;
        }
        Bucket &b = *m_last;
        // What the buckets hold is counted as the memory they take (their capacity).
        const size_t before = b.held.capacity();
        b.held.insert(b.held.end(), record, record + m_length);
        ++b.count;
        m_held += b.held.capacity() - before;
        if (m_held > m_budget)
            spill();
    }
    std::map<Key, Bucket> &all() { return m_buckets; }
    //! Takes a bucket's records out (from its file and from memory).
    std::vector<uchar> take(const Key &key)
    {
        Bucket &b = m_buckets[key];
        std::vector<uchar> records;
        allocate(records, size_t(b.count) * m_length);
        size_t at = 0;
        if (b.onDisk > 0) {
            const QString name = fileOf(key);
            QFile file(name);
            const qint64 size = qint64(b.onDisk * m_length);
            if (!file.open(QIODevice::ReadOnly)
                || file.read(reinterpret_cast<char *>(records.data()), size) != size)
                failWith(
                    QStringLiteral("cannot read back '%1' (%2)").arg(name, file.errorString()));
            file.close();
            QFile::remove(name);
            at = size_t(size);
        }
        if (!b.held.empty()) // (written out whole, it holds nothing)
            std::memcpy(records.data() + at, b.held.data(), b.held.size());
        m_held -= b.held.capacity();
        m_buckets.erase(key);
        m_last = nullptr;
        return records;
    }

private:
    QString fileOf(const Key &key) const
    {
        return QDir(m_folder).filePath(
            QStringLiteral("%1-%2-%3-%4").arg(key.depth).arg(key.x).arg(key.y).arg(key.z));
    }
    //! Writes the largest buckets held out to their files until half the budget is free.
    void spill()
    {
        std::vector<std::pair<size_t, Key>> sizes;
        for (const auto &[key, bucket] : m_buckets)
            sizes.push_back({bucket.held.size(), key});
        std::sort(sizes.rbegin(), sizes.rend());
        for (const auto &[size, key] : sizes) {
            if (m_held <= m_budget / 2 || size == 0)
                break;
            Bucket &b = m_buckets[key];
            const QString name = fileOf(key);
            QFile file(name);
            if (!file.open(QIODevice::WriteOnly | QIODevice::Append)
                || file.write(reinterpret_cast<const char *>(b.held.data()), qint64(size))
                    != qint64(size))
                failWith(QStringLiteral("cannot write '%1' (%2)").arg(name, file.errorString()));
            b.onDisk += size / m_length;
            m_held -= b.held.capacity();
            freeMemory(b.held);
        }
    }

    QString m_folder;
    size_t m_length;
    size_t m_budget;
    size_t m_held = 0;
    std::map<Key, Bucket> m_buckets;
    Bucket *m_last = nullptr;
    Key m_lastKey;
};

//! A point of a bucket: its Morton code and where its record is.
struct Item
{
    std::uint64_t code;
    std::uint32_t index;
    bool operator<(const Item &o) const { return code < o.code; }
};

//! A node built, waiting to be encoded.
struct NodeJob
{
    Key key;
    std::vector<uchar> records;
};

class Indexer
{
public:
    ~Indexer() { stopEncoding(); }
    explicit Indexer(const IndexOptions &options)
        : m_options(options)
        , m_leafPoints(std::max<size_t>(1, options.leafPoints))
    {
        m_loadOptions.note = options.note;
    }

    void run(std::vector<std::unique_ptr<Input>> &inputs, QIODevice &out,
             const QString &workFolder);

private:
    void decideLayout(std::vector<std::unique_ptr<Input>> &inputs);
    //! Fails when the disks cannot hold the records waiting and the index.
    void checkRoom(const QString &workFolder, const QIODevice &out, size_t length,
                   quint64 held) const;
    //! Tells the user once, however many times the layout is decided.
    void noteOnce(const QString &text)
    {
        if (m_noted.insert(text).second)
            note(m_loadOptions, text);
    }
    void distribute(std::vector<std::unique_ptr<Input>> &inputs, Buckets &buckets, int depth);
    //! Builds the subtree of a bucket's records; its own node's points go to the top's.
    void buildBucket(const Key &bucket, std::vector<uchar> &&records);
    //! Builds the tree over the items from key down. Within a bucket (top false), what the
    //! bucket's own node keeps goes to the top's points (unless it is the root); over the top's
    //! points (top true), the buckets' own nodes keep every point that reaches them and the
    //! nodes above them always hand points down.
    void build(const std::vector<uchar> &records, Item *begin, Item *end, const Key &key,
               const Key &bucket, bool top, std::vector<NodeJob> &jobs);
    //! Starts the threads that encode and write the nodes built.
    void startEncoding();
    //! Hands nodes built to the encoders (waiting while a bucket's worth waits already).
    void encode(std::vector<NodeJob> &&jobs);
    //! Waits until every node handed over is written; raises what failed.
    void finishEncoding();
    //! Ends the encoders' threads (what still waits is dropped).
    void stopEncoding();
    //! Encodes a node and writes it after the others (any encoder's thread).
    void writeNode(tzLaz::ChunkEncoder &encoder, std::vector<uchar> &encoded, NodeJob &job);
    void writeHead(QIODevice &out);
    void finish(QIODevice &out);
    //! The page of the hierarchy under key, after the pages it refers to; its place.
    std::pair<quint64, quint64> writePage(const Key &key, QByteArray &evlr, quint64 evlrAt);
    void progress(int percent)
    {
        if (m_options.progress && !m_options.progress(std::clamp(percent, 0, 100), m_stage))
            throw Cancelled {};
    }

    const IndexOptions &m_options;
    tzCloudFile::LoadOptions m_loadOptions;
    QString m_stage;
    Layout m_layout;
    QByteArray m_vlrs; // after the info VLR
    quint32 m_vlrCount = 0;
    quint16 m_globalEncoding = 0;
    tzLaz::Description m_description;
    quint64 m_total = 0;
    std::atomic<quint64> m_built {0}; // points whose nodes are written
    size_t m_maxBucket = 0; // points
    size_t m_leafPoints = 100000;
    QIODevice *m_out = nullptr;
    qint64 m_start = 0;
    std::set<Key> m_bucketKeys; // the nodes the buckets start from
    std::set<QString> m_noted;
    std::vector<uchar> m_top; // the records the buckets' own nodes kept, for the levels above
    // What is written, under m_writing.
    quint64 m_evlrStart = 0;
    std::pair<quint64, quint64> m_rootPage; // offset, size
    std::mutex m_writing;
    // The nodes waiting for the encoders, under m_queueMutex with what follows.
    std::mutex m_queueMutex;
    std::condition_variable m_queueChanged;
    std::deque<NodeJob> m_queue;
    size_t m_queuedPoints = 0;
    bool m_closing = false;
    bool m_stop = false;
    QString m_failure;
    std::vector<std::thread> m_encoders;
    std::map<Key, Entry> m_nodes;
    std::vector<tzLaz::Chunk> m_chunks;
    qint64 m_min[3] = {INT32_MAX, INT32_MAX, INT32_MAX},
           m_max[3] = {INT32_MIN, INT32_MIN, INT32_MIN};
    quint64 m_byReturn[15] = {};
    double m_gpsMin = 0, m_gpsMax = 0;
    bool m_anyPoint = false;
};

void Indexer::decideLayout(std::vector<std::unique_ptr<Input>> &inputs)
{
    m_layout = Layout {};
    Layout &l = m_layout;
    m_total = 0;
    m_vlrs.clear();
    m_vlrCount = 0;
    bool colours = false, infrared = false, anyLas = false;
    double min[3], max[3];
    for (size_t i = 0; i < inputs.size(); ++i) {
        const Input &in = *inputs[i];
        colours |= in.colours;
        infrared |= in.infrared;
        m_total += in.count;
        for (int a = 0; a < 3; ++a) {
            min[a] = i == 0 ? in.min[a] : std::min(min[a], in.min[a]);
            max[a] = i == 0 ? in.max[a] : std::max(max[a], in.max[a]);
            if (in.las)
                l.scale[a] = anyLas ? std::min(l.scale[a], in.scale[a]) : in.scale[a];
        }
        anyLas |= in.las;
    }
    l.format = infrared ? 8 : colours ? 7 : 6;
    // Extra bytes are kept when every input describes the same.
    const Input &first = *inputs.front();
    bool sameExtra = first.las && first.extra > 0 && !first.extraVlr.isEmpty();
    for (const auto &in : inputs)
        sameExtra
            = sameExtra && in->las && in->extra == first.extra && in->extraVlr == first.extraVlr;
    l.extra = sameExtra ? first.extra : 0;
    l.length = CORE_LENGTH[l.format - 6] + l.extra;
    for (const auto &in : inputs) {
        if (in->extra > 0 && !sameExtra)
            noteOnce(QStringLiteral("'%1': its extra bytes are not kept (the inputs "
                                    "do not all have the same)")
                         .arg(in->path));
        if (colours && !in->colours)
            noteOnce(QStringLiteral("'%1': without colours: white in the index").arg(in->path));
        if (in->lasFormat == 4 || in->lasFormat == 5 || in->lasFormat >= 9)
            noteOnce(QStringLiteral("'%1': its waveforms are not kept").arg(in->path));
    }
    // The cube around every point, the offset on the first input's grid near its centre.
    double side = 0;
    for (int a = 0; a < 3; ++a) {
        if (!(min[a] <= max[a]) || !std::isfinite(min[a]) || !std::isfinite(max[a]))
            failWith(QStringLiteral("the points' box is empty or not finite"));
        l.center[a] = (min[a] + max[a]) / 2;
        side = std::max(side, max[a] - min[a]);
    }
    l.halfSize = std::max(side * 0.5 * (1 + 1e-9), 1e-3) + 4 * l.scale[0];
    const Input *grid = nullptr;
    for (const auto &in : inputs) {
        if (in->las && !grid)
            grid = in.get();
    }
    for (int a = 0; a < 3; ++a) {
        const double base = grid ? grid->offset[a] : 0.0;
        l.offset[a] = base + std::round((l.center[a] - base) / l.scale[a]) * l.scale[a];
        if ((l.halfSize + std::abs(l.center[a] - l.offset[a])) / l.scale[a] > 2.0e9)
            failWith(QStringLiteral("the points span too much for records of the finest scale "
                                    "(%1)")
                         .arg(l.scale[a]));
    }
    // The first input's coordinate system, and its kind of GPS time.
    m_globalEncoding = first.globalEncoding & 1;
    if (!first.wkt.isEmpty()) {
        m_vlrs.append(first.wkt);
        ++m_vlrCount;
        m_globalEncoding |= 0x10;
    } else if (first.hasGeoKeys) {
        noteOnce(QStringLiteral("'%1': its coordinate system (GeoTIFF keys) is not "
                                "kept: the index takes a WKT one")
                     .arg(first.path));
    }
    if (l.extra > 0) {
        QByteArray vlr(54, '\0');
        std::memcpy(vlr.data() + 2, "LASF_Spec", 9);
        storeAt<quint16>(vlr, 18, 4);
        storeAt<quint16>(vlr, 20, quint16(first.extraVlr.size()));
        vlr.append(first.extraVlr);
        m_vlrs.append(vlr);
        ++m_vlrCount;
    }
    std::string error;
    if (!tzLaz::describeFormat(l.format, size_t(l.length), tzLaz::Description::VARIABLE_CHUNK_SIZE,
                               m_description, error))
        failWith(QString::fromStdString(error));
    m_vlrs.prepend(laszipVlr(m_description));
    ++m_vlrCount;
}

void Indexer::distribute(std::vector<std::unique_ptr<Input>> &inputs, Buckets &buckets, int depth)
{
    m_stage = QObject::tr("Sorting the points of");
    quint64 done = 0;
    for (const auto &in : inputs) {
        std::vector<Key> keys;
        in->read(m_layout, [&](const uchar *records, size_t n) {
            keys.resize(n);
            const size_t length = size_t(m_layout.length);
            std::atomic<bool> outside {false};
            inParallel(n, [&](size_t from, size_t to) {
                bool out = false;
                for (size_t i = from; i < to; ++i)
                    keys[i] = keyOf(m_layout.code(records + i * length, out), depth);
                if (out)
                    outside = true;
            });
            if (outside)
                throw OutsideTheBox {};
            for (size_t i = 0; i < n; ++i)
                buckets.add(keys[i], records + i * length);
            done += n;
            progress(int(40 * done / std::max<quint64>(1, m_total)));
        });
    }
}

void Indexer::build(const std::vector<uchar> &records, Item *begin, Item *end, const Key &key,
                    const Key &bucket, bool top, std::vector<NodeJob> &jobs)
{
    if (begin == end)
        return;
    const size_t length = size_t(m_layout.length);
    const auto take = [&](const Item *from, const Item *to, std::vector<uchar> &into) {
        into.reserve(into.size() + size_t(to - from) * length);
        for (const Item *p = from; p < to; ++p) {
            const uchar *r = records.data() + size_t(p->index) * length;
            into.insert(into.end(), r, r + length);
        }
    };
    // Where the points of a node go: the top's, or a node of the file.
    const auto keep = [&](const Item *from, const Item *to) {
        if (!top && key == bucket && key.depth > 0) {
            take(from, to, m_top);
            return;
        }
        jobs.push_back({key, {}});
        take(from, to, jobs.back().records);
    };
    const bool leaf = top ? m_bucketKeys.count(key) > 0
                          : size_t(end - begin) <= m_leafPoints || key.depth >= MAX_DEPTH;
    if (leaf) {
        keep(begin, end);
        return;
    }
    // A point a cell: the middle of each cell's run along the curve; the others move up in
    // place, in their order, for the children.
    const int cellShift = 3 * (KEY_BITS - key.depth - GRID_BITS);
    std::vector<Item> kept;
    Item *rest = begin;
    for (Item *p = begin; p < end;) {
        Item *q = p;
        const std::uint64_t cell = p->code >> cellShift;
        while (q < end && (q->code >> cellShift) == cell)
            ++q;
        Item *middle = p + (q - p) / 2;
        kept.push_back(*middle);
        for (Item *r = p; r < q; ++r) {
            if (r != middle)
                *rest++ = *r;
        }
        p = q;
    }
    keep(kept.data(), kept.data() + kept.size());
    const int childShift = 3 * (KEY_BITS - key.depth - 1);
    for (Item *p = begin; p < rest;) {
        const int child = int((p->code >> childShift) & 7);
        Item *q = p;
        while (q < rest && int((q->code >> childShift) & 7) == child)
            ++q;
        build(records, p, q, key.child(child), bucket, top, jobs);
        p = q;
    }
}

void Indexer::buildBucket(const Key &bucket, std::vector<uchar> &&records)
{
    const size_t length = size_t(m_layout.length);
    const size_t n = records.size() / length;
    std::vector<Item> items;
    allocate(items, n);
    inParallel(n, [&](size_t from, size_t to) {
        for (size_t i = from; i < to; ++i)
            items[i] = {m_layout.code(records.data() + i * length), std::uint32_t(i)};
    });
    sortInParallel(items);
    std::vector<NodeJob> jobs;
    build(records, items.data(), items.data() + n, bucket, bucket, false, jobs);
    freeMemory(items);
    freeMemory(records);
    encode(std::move(jobs));
}

void Indexer::writeNode(tzLaz::ChunkEncoder &encoder, std::vector<uchar> &encoded, NodeJob &job)
{
    const size_t length = size_t(m_layout.length);
    const size_t count = job.records.size() / length;
    encoded.clear();
    encoder.encode(job.records.data(), std::uint32_t(count), encoded);
    // What the header and the info sum up.
    qint64 min[3] = {INT32_MAX, INT32_MAX, INT32_MAX};
    qint64 max[3] = {INT32_MIN, INT32_MIN, INT32_MIN};
    quint64 byReturn[15] = {};
    double gpsMin = 0, gpsMax = 0;
    for (size_t i = 0; i < count; ++i) {
        const uchar *r = job.records.data() + i * length;
        for (int a = 0; a < 3; ++a) {
            const qint32 v = loadAs<qint32>(r + 4 * a, false);
            min[a] = std::min<qint64>(min[a], v);
            max[a] = std::max<qint64>(max[a], v);
        }
        const int number = r[14] & 15;
        if (number >= 1)
            ++byReturn[number - 1];
        const double t = loadAs<double>(r + 22, false);
        gpsMin = i == 0 ? t : std::min(gpsMin, t);
        gpsMax = i == 0 ? t : std::max(gpsMax, t);
    }
    freeMemory(job.records);
    std::lock_guard<std::mutex> lock(m_writing);
    const qint64 at = m_out->pos() - m_start;
    if (m_out->write(reinterpret_cast<const char *>(encoded.data()), qint64(encoded.size()))
        != qint64(encoded.size()))
        failWith(QStringLiteral("cannot write: %1").arg(m_out->errorString()));
    m_chunks.push_back({quint64(at), encoded.size(), std::uint32_t(count)});
    m_nodes[job.key]
        = Entry {job.key, quint64(at), std::int32_t(encoded.size()), std::int32_t(count)};
    for (int a = 0; a < 3; ++a) {
        m_min[a] = std::min(m_min[a], min[a]);
        m_max[a] = std::max(m_max[a], max[a]);
    }
    for (int k = 0; k < 15; ++k)
        m_byReturn[k] += byReturn[k];
    if (count > 0) {
        m_gpsMin = m_anyPoint ? std::min(m_gpsMin, gpsMin) : gpsMin;
        m_gpsMax = m_anyPoint ? std::max(m_gpsMax, gpsMax) : gpsMax;
        m_anyPoint = true;
    }
    m_built += count;
}

void Indexer::startEncoding()
{
    const unsigned threads = m_options.threads > 0 ? unsigned(m_options.threads) : threadsFor(64);
    for (unsigned t = 0; t < threads; ++t) {
        m_encoders.emplace_back([this] {
            tzLaz::ChunkEncoder encoder(m_description);
            std::vector<uchar> encoded;
            std::unique_lock<std::mutex> lock(m_queueMutex);
            while (true) {
                m_queueChanged.wait(lock,
                                    [this] { return m_stop || m_closing || !m_queue.empty(); });
                if (m_stop || m_queue.empty())
                    return; // stopped, or closing with nothing left
                NodeJob job = std::move(m_queue.front());
                m_queue.pop_front();
                const size_t points = job.records.size() / size_t(m_layout.length);
                lock.unlock();
                QString failure;
                try {
                    writeNode(encoder, encoded, job);
                } catch (const ReadFailure &f) {
                    failure = f.reason;
                } catch (const std::bad_alloc &) {
                    failure = QStringLiteral("not enough memory");
                }
                lock.lock();
                m_queuedPoints -= points;
                if (!failure.isEmpty() && m_failure.isEmpty()) {
                    m_failure = failure;
                    m_stop = true;
                }
                m_queueChanged.notify_all();
            }
        });
    }
}

void Indexer::encode(std::vector<NodeJob> &&jobs)
{
    // The nodes wait for the encoders while the next bucket is built; no more than a bucket's
    // worth waits (memory), the progress told meanwhile.
    m_stage = QObject::tr("Writing the octree of");
    const quint64 total = std::max<quint64>(1, m_total);
    std::unique_lock<std::mutex> lock(m_queueMutex);
    for (NodeJob &job : jobs) {
        const size_t points = job.records.size() / size_t(m_layout.length);
        while (!m_stop && m_queuedPoints > 0 && m_queuedPoints + points > m_maxBucket) {
            m_queueChanged.wait_for(lock, std::chrono::milliseconds(50));
            lock.unlock();
            progress(40 + int(58 * m_built / total));
            lock.lock();
        }
        if (m_stop)
            break;
        m_queuedPoints += points;
        m_queue.push_back(std::move(job));
        m_queueChanged.notify_one();
    }
    if (!m_failure.isEmpty())
        failWith(m_failure);
    lock.unlock();
    progress(40 + int(58 * m_built / total));
}

void Indexer::finishEncoding()
{
    {
        std::unique_lock<std::mutex> lock(m_queueMutex);
        m_closing = true;
        m_queueChanged.notify_all();
        const quint64 total = std::max<quint64>(1, m_total);
        while (!m_stop && m_queuedPoints > 0) {
            m_queueChanged.wait_for(lock, std::chrono::milliseconds(50));
            lock.unlock();
            progress(std::min(98, 40 + int(58 * m_built / total)));
            lock.lock();
        }
    }
    stopEncoding();
    if (!m_failure.isEmpty())
        failWith(m_failure);
}

void Indexer::stopEncoding()
{
    {
        std::lock_guard<std::mutex> lock(m_queueMutex);
        m_closing = true;
        if (!m_queue.empty())
            m_stop = true; // given up (cancelled or failed): what waits is not written
        m_queueChanged.notify_all();
    }
    for (std::thread &encoder : m_encoders)
        encoder.join();
    m_encoders.clear();
}

void Indexer::writeHead(QIODevice &out)
{
    LasHeader h;
    h.major = 1;
    h.minor = 4;
    h.headerSize = 375;
    h.system = QStringLiteral("Tessaro");
    h.software = QStringLiteral("Tessaro COPC index");
    h.vlrCount = 1 + m_vlrCount;
    h.dataOffset = quint32(375 + 54 + 160 + m_vlrs.size());
    h.format = m_layout.format;
    h.compressed = true;
    h.recordLength = quint16(m_layout.length);
    h.count = m_built;
    for (int a = 0; a < 3; ++a) {
        h.scale[a] = m_layout.scale[a];
        h.offset[a] = m_layout.offset[a];
        h.bbMin[a] = m_anyPoint ? m_min[a] * h.scale[a] + h.offset[a] : 0.0;
        h.bbMax[a] = m_anyPoint ? m_max[a] * h.scale[a] + h.offset[a] : 0.0;
    }
    h.firstReturns = m_byReturn[0];
    h.evlrStart = m_evlrStart;
    h.evlrCount = 1;
    QByteArray head = h.write();
    storeAt<quint16>(head, 6, m_globalEncoding);
    for (int k = 0; k < 15; ++k)
        storeAt<quint64>(head, 255 + 8 * k, m_byReturn[k]);
    // The octree's description, first of the VLRs as readers look for it.
    QByteArray info(54 + 160, '\0');
    std::memcpy(info.data() + 2, "copc", 4);
    storeAt<quint16>(info, 18, 1);
    storeAt<quint16>(info, 20, 160);
    std::memcpy(info.data() + 22, "COPC info", 9);
    for (int a = 0; a < 3; ++a)
        storeAt<double>(info, 54 + 8 * a, m_layout.center[a]);
    storeAt<double>(info, 54 + 24, m_layout.halfSize);
    storeAt<double>(info, 54 + 32, 2 * m_layout.halfSize / (1 << GRID_BITS));
    storeAt<quint64>(info, 54 + 40, m_rootPage.first);
    storeAt<quint64>(info, 54 + 48, m_rootPage.second);
    storeAt<double>(info, 54 + 56, m_gpsMin);
    storeAt<double>(info, 54 + 64, m_gpsMax);
    const auto write = [&out](const QByteArray &bytes) {
        if (out.write(bytes) != bytes.size())
            failWith(QStringLiteral("cannot write: %1").arg(out.errorString()));
    };
    write(head);
    write(info);
    write(m_vlrs);
}

std::pair<quint64, quint64> Indexer::writePage(const Key &key, QByteArray &evlr, quint64 evlrAt)
{
    // The nodes of the page's levels; below them, a page of its own for each node that has one.
    QByteArray page;
    const auto entry = [&page](const Entry &e) {
        const int at = page.size();
        page.resize(at + 32);
        storeAt<qint32>(page, at, e.key.depth);
        storeAt<qint32>(page, at + 4, e.key.x);
        storeAt<qint32>(page, at + 8, e.key.y);
        storeAt<qint32>(page, at + 12, e.key.z);
        storeAt<quint64>(page, at + 16, e.offset);
        storeAt<qint32>(page, at + 24, e.byteSize);
        storeAt<qint32>(page, at + 28, e.pointCount);
    };
    std::vector<Key> level {key};
    for (int l = 0; l <= PAGE_LEVELS && !level.empty(); ++l) {
        std::vector<Key> below;
        for (const Key &k : level) {
            const auto found = m_nodes.find(k);
            if (found == m_nodes.end())
                continue;
            if (l == PAGE_LEVELS) {
                const auto [offset, size] = writePage(k, evlr, evlrAt);
                entry({k, offset, std::int32_t(size), -1});
                continue;
            }
            entry(found->second);
            for (int c = 0; c < 8; ++c)
                below.push_back(k.child(c));
        }
        level = std::move(below);
    }
    const quint64 offset = evlrAt + quint64(evlr.size());
    evlr.append(page);
    return {offset, quint64(page.size())};
}

void Indexer::finish(QIODevice &out)
{
    const auto write = [&out](const char *data, qint64 size) {
        if (out.write(data, size) != size)
            failWith(QStringLiteral("cannot write: %1").arg(out.errorString()));
    };
    const qint64 tableAt = out.pos() - m_start;
    std::vector<uchar> table;
    tzLaz::writeChunkTable(m_chunks, true, table);
    write(reinterpret_cast<const char *>(table.data()), qint64(table.size()));
    // A node whose points all went up (a sparse bucket's) is still in the hierarchy when
    // nodes lie below it: readers walk down from the root.
    std::vector<Key> missing;
    for (const auto &[key, entry] : m_nodes) {
        for (Key up = key; up.depth > 0;) {
            up = up.parent();
            if (m_nodes.count(up))
                break;
            missing.push_back(up);
        }
    }
    for (const Key &key : missing)
        m_nodes[key] = Entry {key, 0, 0, 0};
    // The hierarchy, an extended VLR after the points.
    m_evlrStart = quint64(out.pos() - m_start);
    QByteArray pages;
    m_rootPage = writePage(Key {}, pages, m_evlrStart + 60);
    QByteArray head(60, '\0');
    std::memcpy(head.data() + 2, "copc", 4);
    storeAt<quint16>(head, 18, 1000);
    storeAt<quint64>(head, 20, quint64(pages.size()));
    std::memcpy(head.data() + 28, "EPT hierarchy", 13);
    write(head.constData(), head.size());
    write(pages.constData(), pages.size());
    // The header and the info, now that the counts and places are known.
    if (!out.seek(m_start))
        failWith(QStringLiteral("cannot write: %1").arg(out.errorString()));
    writeHead(out);
    const qint64 tableOffsetAt = m_start + 375 + 54 + 160 + m_vlrs.size();
    if (!out.seek(tableOffsetAt))
        failWith(QStringLiteral("cannot write: %1").arg(out.errorString()));
    write(reinterpret_cast<const char *>(&tableAt), 8);
}

QString bytesText(quint64 bytes)
{
    return bytes >= 1000000000 ? QStringLiteral("%1 GB").arg(bytes / 1e9, 0, 'f', 1)
                               : QStringLiteral("%1 MB").arg(bytes / 1e6, 0, 'f', 0);
}

void Indexer::checkRoom(const QString &workFolder, const QIODevice &out, size_t length,
                        quint64 held) const
{
    // The records that do not fit in memory wait in the work folder, and the index (about a
    // third of the records, compressed) grows meanwhile: refused now rather than when the disk
    // fills up, an hour into the work.
    const quint64 waiting = m_total * length > held ? m_total * length : 0;
    const quint64 written = m_total * length / 3;
    const auto *file = qobject_cast<const QFileDevice *>(&out);
    const QString outFolder
        = file ? QFileInfo(file->fileName()).absolutePath() : QFileInfo(workFolder).path();
    const QStorageInfo work(workFolder), index(outFolder);
    const bool oneDisk = work.device() == index.device();
    const auto need = [&](const QStorageInfo &disk, quint64 bytes, const QString &folder) {
        if (disk.isValid() && disk.bytesAvailable() >= 0 && quint64(disk.bytesAvailable()) < bytes)
            failWith(QStringLiteral("cannot write: indexing %1 M points needs about %2 free "
                                    "in '%3', which has %4")
                         .arg(m_total / 1e6, 0, 'f', 1)
                         .arg(bytesText(bytes), QDir::toNativeSeparators(folder),
                              bytesText(quint64(disk.bytesAvailable()))));
    };
    if (oneDisk) {
        need(index, waiting + written, outFolder);
    } else {
        need(work, waiting, QFileInfo(workFolder).path());
        need(index, written, outFolder);
    }
}

void Indexer::run(std::vector<std::unique_ptr<Input>> &inputs, QIODevice &out,
                  const QString &workFolder)
{
    m_out = &out;
    m_start = out.pos();
    std::unique_ptr<Buckets> sorted;
    for (int attempt = 0; !sorted; ++attempt) {
        decideLayout(inputs);
        if (!out.seek(m_start))
            failWith(QStringLiteral("cannot write: %1").arg(out.errorString()));
        writeHead(out); // counts and places patched at the end
        const qint64 placeholder = -1;
        if (out.write(reinterpret_cast<const char *>(&placeholder), 8) != 8)
            failWith(QStringLiteral("cannot write: %1").arg(out.errorString()));
        // Buckets a few levels down, so that one of them (of a survey spread over the ground)
        // fits in half the budget: each point costs its record twice (read, then its node's
        // copy) and its code. A quarter holds the points waiting in memory for their buckets.
        const size_t length = size_t(m_layout.length);
        const quint64 budget = std::max<quint64>(m_options.memoryBudget, 1 << 20);
        m_maxBucket = size_t(std::max<quint64>(m_leafPoints, budget / 2 / (2 * length + 24)));
        int depth = 0;
        while (depth < MAX_DEPTH - 2 && (m_total >> (2 * depth)) > m_maxBucket / 2)
            ++depth;
        if (attempt == 0)
            checkRoom(workFolder, out, length, budget / 4);
        const QString folder = QDir(workFolder).filePath(QString::number(attempt));
        if (!QDir().mkpath(folder))
            failWith(QStringLiteral("cannot make the work folder '%1'").arg(folder));
        auto buckets = std::make_unique<Buckets>(folder, length, size_t(budget / 4));
        try {
            distribute(inputs, *buckets, depth);
            sorted = std::move(buckets);
        } catch (const OutsideTheBox &) {
            if (attempt > 0)
                failWith(QStringLiteral("the points span too much for records of the finest "
                                        "scale"));
            // The headers' boxes do not hold every point: the points say where they lie.
            buckets.reset();
            QDir(folder).removeRecursively();
            m_stage = QObject::tr("Measuring the points of");
            for (const auto &in : inputs)
                in->measure();
        }
    }
    Buckets &buckets = *sorted;
    const size_t length = size_t(m_layout.length);
    startEncoding();
    inputs.clear();

    // The buckets one by one; one still too large is shared among its children first.
    std::vector<Key> waiting;
    for (const auto &[key, bucket] : buckets.all())
        waiting.push_back(key);
    std::reverse(waiting.begin(), waiting.end());
    while (!waiting.empty()) {
        const Key key = waiting.back();
        waiting.pop_back();
        const quint64 count = buckets.all()[key].count;
        if (count > m_maxBucket && key.depth < MAX_DEPTH - 2) {
            std::vector<uchar> records = buckets.take(key);
            for (size_t i = 0; i < records.size(); i += length)
                buckets.add(keyOf(m_layout.code(records.data() + i), key.depth + 1),
                            records.data() + i);
            freeMemory(records);
            for (int c = 7; c >= 0; --c) {
                if (buckets.all().count(key.child(c)))
                    waiting.push_back(key.child(c));
            }
            continue;
        }
        m_bucketKeys.insert(key);
        buildBucket(key, buckets.take(key));
    }
    // The levels above the buckets, from what their own nodes kept.
    if (!m_top.empty()) {
        std::vector<uchar> top = std::move(m_top);
        const size_t n = top.size() / length;
        std::vector<Item> items(n);
        for (size_t i = 0; i < n; ++i)
            items[i] = {m_layout.code(top.data() + i * length), std::uint32_t(i)};
        std::sort(items.begin(), items.end());
        std::vector<NodeJob> jobs;
        build(top, items.data(), items.data() + n, Key {}, Key {}, true, jobs);
        encode(std::move(jobs));
    }
    finishEncoding();
    if (m_built != m_total)
        failWith(QStringLiteral("%1 of %2 points were indexed").arg(m_built).arg(m_total));
    m_stage = QObject::tr("Writing the hierarchy of");
    finish(out);
    progress(100);
}

} // namespace

bool index(const QStringList &given, const QString &outPath, QString &errorText,
           const IndexOptions &options)
{
    // A survey's tiles are its files.
    QStringList inputs;
    for (const QString &in : given)
        inputs << (isTileSet(in) ? tilesOf(in) : QStringList {in});
    if (inputs.isEmpty()) {
        errorText = QStringLiteral("'%1': no cloud to index").arg(outPath);
        return false;
    }
    for (const QString &in : inputs) {
        if (QFileInfo(in).absoluteFilePath() == QFileInfo(outPath).absoluteFilePath()) {
            errorText = QStringLiteral("'%1': the output would overwrite an input").arg(outPath);
            return false;
        }
    }
    std::vector<std::unique_ptr<Input>> opened;
    for (const QString &path : inputs) {
        const QString kind = QFileInfo(path).suffix().toLower();
        if (kind == QLatin1String("las") || kind == QLatin1String("laz")) {
            auto input = std::make_unique<LasInput>();
            if (!input->open(path, errorText))
                return false;
            opened.push_back(std::move(input));
        } else {
            auto input = std::make_unique<CloudInput>();
            if (!input->open(path, errorText, options))
                return false;
            opened.push_back(std::move(input));
        }
    }
    quint64 total = 0;
    for (const auto &in : opened)
        total += in->count;
    if (total == 0) {
        errorText = QStringLiteral("'%1': the inputs have no point").arg(inputs.join(", "));
        return false;
    }
    const QString folder
        = options.workFolder.isEmpty() ? QFileInfo(outPath).absolutePath() : options.workFolder;
    QTemporaryDir work(QDir(folder).filePath(QStringLiteral(".index-XXXXXX")));
    if (!work.isValid()) {
        errorText = QStringLiteral("'%1': cannot make a work folder (%2)")
                        .arg(folder, work.errorString());
        return false;
    }
    return writeWhole(
        outPath, inputs.join(", "), QStringLiteral("indexing"),
        [&](QIODevice &out) {
            Indexer indexer(options);
            indexer.run(opened, out, work.path());
        },
        errorText);
}

} // namespace tzCopc
