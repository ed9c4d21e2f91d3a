#pragma once

// What the cloud file formats share: their failures, the view of a file's bytes, the builder of
// the cloud, the small text helpers, and the table of formats with their readers. Private to
// the formats (host/formats/) and tzCloudFile.cpp.

#include "tzCloudFile.h"
#include "tzPointCloud.h"

#include <QIODevice>
#include <QString>
#include <QStringList>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <functional>
#include <memory>
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
};

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

    void reserve(size_t n, bool colors)
    {
        try {
            m_points.reserve(n);
            if (colors)
                m_colors.reserve(n);
        } catch (const std::bad_alloc &) {
            failWith(QStringLiteral("not enough memory for %1 points").arg(n));
        }
    }
    void decideShift(const TZVector3d &reference)
    {
        m_shiftDecided = true;
        if (!needsShift(reference))
            return;
        m_shift = suggestShift(reference);
        if (m_options.confirmShift && !m_options.confirmShift(m_shift))
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

    //! The cloud of points and colours made elsewhere (in the shift decided here).
    tzPointCloud *finish(const QString &name, std::vector<TZVector3> &&points,
                         std::vector<tzRgb> &&colors)
    {
        m_points = std::move(points);
        m_colors = std::move(colors);
        return finish(name);
    }

    tzPointCloud *finish(const QString &name)
    {
        auto cloud = std::make_unique<tzPointCloud>(name);
        const bool withColors = !m_colors.empty();
        if (withColors && m_colors.size() != m_points.size())
            failWith(QStringLiteral("colours for %1 of %2 points")
                         .arg(m_colors.size())
                         .arg(m_points.size()));
        cloud->setPoints(std::move(m_points));
        if (withColors)
            cloud->setColors(std::move(m_colors));
        cloud->setGlobalShift(m_shift);
        return cloud.release();
    }

private:
    const LoadOptions &m_options;
    std::vector<TZVector3> m_points;
    std::vector<tzRgb> m_colors;
    TZVector3d m_shift;
    bool m_shiftDecided = false;
};

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

//! A format of files the viewer opens: what it is, the extensions it goes by (lower case), and
//! its reader (none for scenes, which tzSceneFile reads).
struct Format
{
    QString description;
    QStringList extensions;
    Reader read = nullptr;
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
