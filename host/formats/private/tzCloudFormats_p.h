#pragma once

// What the cloud file formats share: their failures, the view of a file's bytes, the builder of
// the cloud, the small text helpers, and the table of formats with their readers. Private to
// the formats (host/formats/) and tzCloudFile.cpp.

#include "tzCloudFile.h"
#include "tzPointCloud.h"

#include <QFile>
#include <QIODevice>
#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>

#include <sys/mman.h>
#include <vector>

namespace tzCloudFile {
namespace detail {

//! Raised inside the readers; turned into the error text at the top. Never leaves this file.
struct ReadFailure
{
    QString reason;
};
struct Cancelled
{
};

[[noreturn]] inline void failWith(const QString &reason)
{
    throw ReadFailure {reason};
}

struct Bytes
{
    const uchar *data = nullptr;
    size_t size = 0;
    bool mapped = false; // a mapping of the file (its pages can be let go and read again)
};

//! Lets the system take back the pages of a mapped file before byte upTo, from released on (a
//! reading in order that will not come back), so that a file larger than memory is not held
//! all; released moves on. Nothing for bytes that are not a mapping.
inline void releaseRead(const Bytes &in, size_t upTo, size_t &released)
{
    if (!in.mapped)
        return;
    const size_t page = 1 << 16;
    const size_t end = std::min(upTo, in.size) / page * page;
    if (end > released) {
        ::madvise(const_cast<uchar *>(in.data) + released, end - released, MADV_DONTNEED);
        released = end;
    }
}

//! A value of a file's bytes (unaligned), byte-swapped when asked.
template<typename T> T loadAs(const uchar *p, bool swap)
{
    uchar b[sizeof(T)];
    std::memcpy(b, p, sizeof(T));
    if (swap)
        std::reverse(b, b + sizeof(T));
    T v;
    std::memcpy(&v, b, sizeof(T));
    return v;
}

//! Writes a value into bytes at offset (within them), as the file stores it (little-endian).
template<typename T> void storeAt(QByteArray &bytes, int offset, T value)
{
    bytes.replace(offset, int(sizeof value), reinterpret_cast<const char *>(&value),
                  int(sizeof value));
}

//! name made safe as a file name (letters, digits, '-' and '_' kept, anything else '_'; fallback
//! when nothing is left) and unique among taken (any case), which it joins.
inline QString uniqueFileName(const QString &name, const QString &fallback, QStringList &taken)
{
    QString safe;
    for (const QChar ch : name) {
        safe += ch.isLetterOrNumber() || ch == QLatin1Char('-') || ch == QLatin1Char('_')
            ? ch
            : QLatin1Char('_');
    }
    if (safe.isEmpty())
        safe = fallback;
    QString unique = safe;
    for (int n = 2; taken.contains(unique, Qt::CaseInsensitive); ++n)
        unique = QStringLiteral("%1_%2").arg(safe).arg(n);
    taken << unique;
    return unique;
}

//! A file's bytes, mapped (read at memory speed) or, where mapping fails, read whole; an
//! empty file cannot be mapped and gives no bytes.
class FileBytes
{
public:
    bool open(const QString &path, QString &errorText)
    {
        m_file.setFileName(path);
        if (!m_file.open(QIODevice::ReadOnly)) {
            errorText = QStringLiteral("'%1': cannot open (%2)").arg(path, m_file.errorString());
            return false;
        }
        if (m_file.size() > 0) {
            m_bytes.data = m_file.map(0, m_file.size());
            m_bytes.size = size_t(m_file.size());
            m_bytes.mapped = m_bytes.data != nullptr;
            if (!m_bytes.data) {
                m_copy = m_file.readAll();
                m_bytes.data = reinterpret_cast<const uchar *>(m_copy.constData());
                m_bytes.size = size_t(m_copy.size());
            }
        }
        return true;
    }
    const Bytes &bytes() const { return m_bytes; }

private:
    QFile m_file;
    QByteArray m_copy;
    Bytes m_bytes;
};

//! Sizes an array for n values, or fails saying that memory ran out.
template<typename T> void allocate(std::vector<T> &values, size_t n)
{
    try {
        values.resize(n);
    } catch (const std::bad_alloc &) {
        failWith(QStringLiteral("not enough memory for %1 points").arg(n));
    }
}

// Collects the points, deciding the global shift on the first one (or from a header box).
class CloudBuilder
{
public:
    explicit CloudBuilder(const LoadOptions &options)
        : m_options(options)
    {
    }

    void reserve(size_t n, bool colors, bool attributes = false)
    {
        try {
            m_points.reserve(n);
            if (colors)
                m_colors.reserve(n);
            if (attributes) {
                m_attributes.reserve(n);
                if (m_attributeKinds & tzPointDisplay::INTENSITY)
                    m_rawIntensities.reserve(n);
            }
        } catch (const std::bad_alloc &) {
            failWith(QStringLiteral("not enough memory for %1 points").arg(n));
        }
    }
    const LoadOptions &options() const { return m_options; }
    void decideShift(const TZVector3d &reference)
    {
        m_shiftDecided = true;
        if (!tzCloudFile::decideShift(reference, m_options, m_shift))
            throw Cancelled {};
    }
    void add(double x, double y, double z)
    {
        if (!m_shiftDecided)
            decideShift({x, y, z});
        m_points.push_back({float(x + m_shift.x), float(y + m_shift.y), float(z + m_shift.z)});
    }
    void addColor(tzRgb c) { m_colors.push_back(c); }
    void progress(size_t done, size_t total)
    {
        if (m_options.progress && total > 0 && !m_options.progress(int(done * 100 / total)))
            throw Cancelled {};
    }
    size_t count() const { return m_points.size(); }
    //! The global shift decided (zero until then).
    const TZVector3d &shift() const { return m_shift; }

    //! The cloud of points, colours and attributes made elsewhere (in the shift decided here);
    //! attributeKinds says which attributes the file gave (none: the array may be empty).
    tzPointCloud *finish(const QString &name, std::vector<TZVector3> &&points,
                         std::vector<tzRgb> &&colors,
                         std::vector<tzPointAttributes> &&attributes = {},
                         quint8 attributeKinds = 0)
    {
        m_points = std::move(points);
        m_colors = std::move(colors);
        m_attributes = std::move(attributes);
        m_attributeKinds = attributeKinds;
        return finish(name);
    }

    //! Keeps these attributes of the points added one by one (addAttributes after each add).
    void keepAttributes(quint8 kinds) { m_attributeKinds = kinds; }
    //! The attributes of the point added last, as the file gives them: intensities of any
    //! range (they are fitted to 16 bits at the end), class and returns as numbers.
    void addAttributes(double intensity, double classification, double returnNumber,
                       double numberOfReturns)
    {
        const auto small
            = [](double v, int max) { return quint8(std::clamp(v, 0.0, double(max))); };
        tzPointAttributes a;
        a.classification = small(classification, 255);
        a.returns = quint8(small(returnNumber, 15) | small(numberOfReturns, 15) << 4);
        m_attributes.push_back(a);
        if (m_attributeKinds & tzPointDisplay::INTENSITY)
            m_rawIntensities.push_back(std::isfinite(intensity) ? float(intensity) : 0.f);
    }

    tzPointCloud *finish(const QString &name)
    {
        auto cloud = std::make_unique<tzPointCloud>(name);
        const bool withColors = !m_colors.empty();
        if (withColors && m_colors.size() != m_points.size())
            failWith(QStringLiteral("colours for %1 of %2 points")
                         .arg(m_colors.size())
                         .arg(m_points.size()));
        fitIntensities();
        dropEmptyAttributes();
        const bool withAttributes = m_attributeKinds != 0;
        if (withAttributes && m_attributes.size() != m_points.size())
            failWith(QStringLiteral("attributes for %1 of %2 points")
                         .arg(m_attributes.size())
                         .arg(m_points.size()));
        cloud->setPoints(std::move(m_points));
        if (withColors)
            cloud->setColors(std::move(m_colors));
        if (withAttributes)
            cloud->setAttributes(std::move(m_attributes), m_attributeKinds);
        // A survey without colours is shown by elevation, which tells ground from roofs.
        if (!withColors)
            cloud->setColourMode(tzPointDisplay::ColourMode::Elevation);
        cloud->setGlobalShift(m_shift);
        return cloud.release();
    }

private:
    //! The intensities added one by one, as 16-bit values: kept as they are when they are
    //! whole numbers of 0 to 65535, else stretched from their range (fractions of 1, the signed
    //! values of some scanners' text exports).
    void fitIntensities()
    {
        if (m_rawIntensities.empty() || m_rawIntensities.size() != m_attributes.size())
            return;
        const auto [lo, hi] = std::minmax_element(m_rawIntensities.begin(), m_rawIntensities.end());
        const float low = *lo, high = *hi;
        const bool asTheyAre = low >= 0 && high <= 65535
            && std::all_of(m_rawIntensities.begin(), m_rawIntensities.end(),
                           [](float v) { return v == std::floor(v); });
        const double scale = high > low ? 65535.0 / (double(high) - low) : 0.0;
        for (size_t i = 0; i < m_rawIntensities.size(); ++i) {
            const float v = m_rawIntensities[i];
            m_attributes[i].intensity
                = asTheyAre ? quint16(v) : quint16(std::lround((double(v) - low) * scale));
        }
        decltype(m_rawIntensities)().swap(m_rawIntensities); // its memory back, not only emptied
    }

    //! Forgets the attributes whose values are all zero (fields a writer left empty): nothing
    //! to show, and a cloud with none costs nothing more.
    void dropEmptyAttributes()
    {
        if (m_attributeKinds == 0 || m_attributes.empty()) {
            m_attributeKinds = 0;
            decltype(m_attributes)().swap(m_attributes); // its memory back, not only emptied
            return;
        }
        // Returns that are all "1 of 1" (a writer's default) tell nothing either.
        quint32 intensity = 0, classification = 0;
        bool returns = false;
        for (const tzPointAttributes &a : m_attributes) {
            intensity |= a.intensity;
            classification |= a.classification;
            returns = returns || (a.returns != 0 && a.returns != 0x11);
        }
        if (!intensity)
            m_attributeKinds &= ~quint8(tzPointDisplay::INTENSITY);
        if (!classification)
            m_attributeKinds &= ~quint8(tzPointDisplay::CLASSIFICATION);
        if (!returns)
            m_attributeKinds &= ~quint8(tzPointDisplay::RETURNS);
        if (m_attributeKinds == 0)
            decltype(m_attributes)().swap(m_attributes); // its memory back, not only emptied
    }

    const LoadOptions &m_options;
    std::vector<TZVector3> m_points;
    std::vector<tzRgb> m_colors;
    std::vector<tzPointAttributes> m_attributes;
    std::vector<float> m_rawIntensities;
    quint8 m_attributeKinds = 0;
    TZVector3d m_shift;
    bool m_shiftDecided = false;
};

//! Work shared among threads, its progress told from the thread that runs it (which may cancel
//! it): each worker says how many points it has done, asks whether it must stop (a cancel, or
//! another worker's failure) and may fail the whole with a reason. run() returns when every
//! worker has ended, raising the cancel or the first failure.
class SharedWork
{
public:
    void run(unsigned threads, CloudBuilder &builder, size_t total,
             const std::function<void()> &work);
    void done(size_t points) { m_done += points; }
    bool stopped() const { return m_stop; }
    void fail(const QString &reason);

private:
    std::atomic<size_t> m_done {0};
    std::atomic<bool> m_stop {false};
    std::mutex m_mutex;
    std::condition_variable m_changed;
    unsigned m_finished = 0; // under m_mutex
    QString m_error; // under m_mutex
};

//! The previews of a reading whose pieces (chunks, blocks of records) are read in an order that
//! covers the extent early: each piece done is told (from any thread) once its points are where
//! they stay; when the points done reach the next share, what is done so far is copied out and
//! given to options.preview.
class Previews
{
public:
    Previews(const LoadOptions &options, size_t total)
        : m_options(options)
    {
        if (!options.preview || total < PREVIEW_MIN_POINTS)
            return;
        m_thresholds
            = {std::min<size_t>(total / 16, 1000000), std::min<size_t>(total / 4, 4000000)};
    }
    void pieceDone(size_t first, size_t count, const TZVector3 *points, const tzRgb *colours,
                   const TZVector3d &shift)
    {
        if (m_thresholds.empty())
            return;
        std::lock_guard<std::mutex> lock(m_mutex);
        m_pieces.push_back({first, count});
        m_done += count;
        if (m_next >= m_thresholds.size() || m_done < m_thresholds[m_next])
            return;
        while (m_next < m_thresholds.size() && m_done >= m_thresholds[m_next])
            ++m_next;
        std::vector<TZVector3> shownPoints;
        std::vector<tzRgb> shownColours;
        try {
            shownPoints.reserve(m_done);
            if (colours)
                shownColours.reserve(m_done);
        } catch (const std::bad_alloc &) {
            return; // no picture before the whole
        }
        for (const auto &[from, n] : m_pieces) {
            shownPoints.insert(shownPoints.end(), points + from, points + from + n);
            if (colours)
                shownColours.insert(shownColours.end(), colours + from, colours + from + n);
        }
        m_options.preview(std::move(shownPoints), std::move(shownColours), shift);
    }

private:
    const LoadOptions &m_options;
    std::vector<size_t> m_thresholds;
    std::mutex m_mutex;
    std::vector<std::pair<size_t, size_t>> m_pieces; // under m_mutex, with the two below
    size_t m_done = 0;
    size_t m_next = 0;
};

//! A first picture of a file of n records that can be read in any order but are read in the
//! file's: 64 evenly spaced blocks of a 1024th of the records each, given to options.preview
//! before the reading. point(i) gives record i's global coordinates, colour(i) its colour
//! (withColours); shift is the one decided.
template<typename PointOf, typename ColourOf>
void previewEvenBlocks(const LoadOptions &options, size_t n, const TZVector3d &shift,
                       PointOf &&point, bool withColours, ColourOf &&colour)
{
    if (!options.preview || n < PREVIEW_MIN_POINTS)
        return;
    constexpr size_t BLOCKS = 64;
    const size_t block = n / 1024;
    std::vector<TZVector3> points;
    std::vector<tzRgb> colours;
    points.reserve(BLOCKS * block);
    if (withColours)
        colours.reserve(BLOCKS * block);
    for (size_t b = 0; b < BLOCKS; ++b) {
        const size_t first = b * (n / BLOCKS);
        for (size_t i = first; i < first + block; ++i) {
            const TZVector3d g = point(i);
            points.push_back({float(g.x + shift.x), float(g.y + shift.y), float(g.z + shift.z)});
            if (withColours)
                colours.push_back(colour(i));
        }
    }
    options.preview(std::move(points), std::move(colours), shift);
}

//! The order in which to read pieces so that the first ones are spread over the whole: piece
//! i's place is given by (x, y), a point of it; the first piece of each part of the extent
//! comes before the second of any, and the parts alternate from far apart to near.
std::vector<size_t> coveringOrder(const std::vector<std::pair<double, double>> &places);
//! The order of count pieces of a file whose places are not known: spread along the file.
std::vector<size_t> spreadOrder(size_t count);

//! The threads worth starting for count pieces of work: the cores, at most one a piece.
unsigned threadsFor(size_t count);

inline quint8 clampColor(double v)
{
    return quint8(std::lround(std::min(255.0, std::max(0.0, v))));
}

// ---------------------------------------------------------------- text helpers

inline const char *skipBlanks(const char *p, const char *end)
{
    while (p < end && (*p == ' ' || *p == '\t' || *p == ',' || *p == ';' || *p == '\r'))
        ++p;
    return p;
}

// Reads a number at p; returns the position after it, or null when there is none.
inline const char *parseNumber(const char *p, const char *end, double &value)
{
    p = skipBlanks(p, end);
    if (p < end && *p == '+')
        ++p;
    const auto result = std::from_chars(p, end, value);
    if (result.ec != std::errc() || result.ptr == p)
        return nullptr;
    return result.ptr;
}

// ---------------------------------------------------------------- the formats
//
// Each reader takes the file's bytes, its name (for messages) and its extension (lower case,
// which settles the columns of a text file that does not name them).

using Reader = tzPointCloud *(*)(const Bytes &in, const QString &name, const QString &extension,
                                 const LoadOptions &options);
//! The reader of a file that holds several clouds: a group of them (null when the file holds
//! no points, with errorText saying why; failures raised as in the readers).
using GroupReader
    = tzHObject *(*)(const Bytes &in, const QString &name, const LoadOptions &options);

//! What a file's header says, read without its points (tessaro --info): the keys of
//! tzCloudFile::describe. Failures raised as in the readers.
using Describer = QJsonObject (*)(const Bytes &in);

//! The clouds of a file of several scans, each its own, in one shift (--split).
using ScansReader
    = std::vector<std::unique_ptr<tzPointCloud>> (*)(const Bytes &in, const QString &name,
                                                     const LoadOptions &options);
//! Copies a file's records as stored into LAS (toLaz false) or LAZ, header and VLRs kept.
using RecordCopier = void (*)(const Bytes &in, bool toLaz, quint32 chunkSize, QIODevice &out,
                              const LoadOptions &options);

//! A format of files the viewer opens: what it is, the extensions it goes by (lower case), its
//! reader (none for scenes, which tzSceneFile reads), what reads its header alone, and the
//! readers and copiers that the files of some formats have besides.
struct Format
{
    QString description;
    QStringList extensions;
    Reader read = nullptr;
    GroupReader readGroup = nullptr; // files of several clouds: the viewer shows them apart
    Describer describe = nullptr;
    ScansReader readScans = nullptr;
    RecordCopier copyRecords = nullptr; // LAS and LAZ into each other, record for record
};
//! Every format opened, in the order the open dialog lists them (tzCloudFormats.cpp).
const std::vector<Format> &formats();
//! The format of files with this extension (any case), or null.
const Format *formatOf(const QString &extension);

tzPointCloud *readPly(const Bytes &in, const QString &name, const QString &extension,
                      const LoadOptions &options);
//! LAS 1.0 to 1.4, plain or compressed (LAZ).
tzPointCloud *readLas(const Bytes &in, const QString &name, const QString &extension,
                      const LoadOptions &options);
//! E57: the scans merged into one cloud.
tzPointCloud *readE57(const Bytes &in, const QString &name, const QString &extension,
                      const LoadOptions &options);
//! E57: a group named after the file, a cloud per scan, the pinhole pictures as photo lists.
tzHObject *readE57Group(const Bytes &in, const QString &name, const LoadOptions &options);
//! E57: the clouds of the scans, in one shift.
std::vector<std::unique_ptr<tzPointCloud>> readE57Scans(const Bytes &in, const QString &name,
                                                        const LoadOptions &options);
//! The headers alone: LAS and LAZ (COPC's octree too), E57, PLY, PCD.
QJsonObject describeLas(const Bytes &in);
QJsonObject describeE57(const Bytes &in);
QJsonObject describePly(const Bytes &in);
QJsonObject describePcd(const Bytes &in);
//! What a reader tells the user beside its result (options.note, or the log).
void note(const LoadOptions &options, const QString &text);

//! PCD, ascii and binary.
tzPointCloud *readPcd(const Bytes &in, const QString &name, const QString &extension,
                      const LoadOptions &options);
//! The text layouts (x y z, with intensity, colours or normals).
tzPointCloud *readText(const Bytes &in, const QString &name, const QString &extension,
                       const LoadOptions &options);

//! Copies a LAS or LAZ file's header, VLRs and point records to out as LAS (toLaz false) or
//! LAZ (chunks of chunkSize points, 0: the usual), the records byte for byte (tzLasReader.cpp).
void convertLas(const Bytes &in, bool toLaz, quint32 chunkSize, QIODevice &out,
                const LoadOptions &options);
//! Runs write into a file made beside path and put in its place only when it succeeds: a
//! failure, a cancel or a full disk leaves nothing at path. Problems of the input are said of
//! source, those of writing of path; cancelled names the work ("conversion")
//! (tzCloudWriters.cpp).
bool writeWhole(const QString &path, const QString &source, const QString &work,
                const std::function<void(QIODevice &)> &write, QString &errorText);

} // namespace detail
} // namespace tzCloudFile
