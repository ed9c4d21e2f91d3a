#include "tzPointCloud.h"

#include "tzDrawContext.h"
#include "tzSerialization.h"

#include <algorithm>
#include <cmath>
#include <cstring>

using namespace tzSerialization;

tzGenericPointCloud::tzGenericPointCloud(const QString &name)
    : tzHObject(name)
{
}

tzGenericPointCloud::~tzGenericPointCloud() = default;

void tzGenericPointCloud::setPoints(std::vector<TZVector3> &&points)
{
    m_points = std::move(points);
    onPointsChanged();
}

void tzGenericPointCloud::reset()
{
    TZLib::PointCloud::reset();
}

TZVector3d tzGenericPointCloud::toGlobal3d(const TZVector3 &local) const
{
    return TZVector3d::fromVector(local) / m_globalScale - m_globalShift;
}

TZVector3 tzGenericPointCloud::toLocal3d(const TZVector3d &global) const
{
    return TZVector3::fromVector((global + m_globalShift) * m_globalScale);
}

TZLib::Octree *tzGenericPointCloud::computeOctree(const TZLib::Octree::ProgressCallback &progress)
{
    auto octree = std::make_unique<TZLib::Octree>(this);
    if (octree->build(progress) < 0)
        return nullptr;
    m_octree = std::move(octree);
    return m_octree.get();
}

bool tzGenericPointCloud::toFile_MeOnly(QIODevice &out) const
{
    if (!tzHObject::toFile_MeOnly(out))
        return false;
    static_assert(sizeof(TZVector3) == 3 * sizeof(float), "points are written as packed floats");
    const bool ok = write<quint32>(out, quint32(m_points.size()))
        && writeBytes(out, m_points.data(), qint64(m_points.size() * sizeof(TZVector3)))
        && write(out, m_globalShift.x) && write(out, m_globalShift.y) && write(out, m_globalShift.z)
        && write(out, m_globalScale) && write<quint8>(out, m_pointSize);
    return ok || fail(WriteError);
}

bool tzGenericPointCloud::fromFile_MeOnly(QIODevice &in, short dataVersion, LoadedIDMap &oldToNew)
{
    if (!tzHObject::fromFile_MeOnly(in, dataVersion, oldToNew))
        return false;
    quint32 count = 0;
    if (!read(in, count) || !hasRoomFor(in, quint64(count) * sizeof(TZVector3)))
        return fail(ReadError);
    std::vector<TZVector3> points;
    try {
        points.resize(count);
    } catch (const std::bad_alloc &) {
        return fail(MemoryError);
    }
    quint8 pointSize = 0;
    const bool ok = readBytes(in, points.data(), qint64(count * sizeof(TZVector3)))
        && read(in, m_globalShift.x) && read(in, m_globalShift.y) && read(in, m_globalShift.z)
        && read(in, m_globalScale) && read(in, pointSize);
    if (!ok)
        return fail(ReadError);
    m_pointSize = pointSize;
    setPoints(std::move(points));
    return true;
}

void tzGenericPointCloud::drawMeOnly(tzDrawContext &context)
{
    // Clouds are drawn in the 3D pass only, and never in the entity-picking pass: the view finds
    // cloud points on the CPU.
    if (context.is3D() && !context.isPicking() && context.cloudRenderer)
        context.cloudRenderer->drawCloud(*this, context);
}

tzPointCloud::tzPointCloud(const QString &name)
    : tzGenericPointCloud(name)
{
}

bool tzPointCloud::resizeColors()
{
    try {
        m_colors.resize(m_points.size());
    } catch (const std::bad_alloc &) {
        return false;
    }
    ++m_contentVersion;
    return true;
}

void tzPointCloud::setColors(std::vector<tzRgb> &&colors)
{
    m_colors = std::move(colors);
    ++m_contentVersion;
}

void tzPointCloud::showColors(bool state)
{
    if (state == m_colorsShown)
        return;
    m_colorsShown = state;
    ++m_displayVersion;
}

void tzPointCloud::setAttributes(std::vector<tzPointAttributes> &&attributes, quint8 kinds)
{
    m_attributes = kinds ? std::move(attributes) : std::vector<tzPointAttributes> {};
    m_attributeKinds = m_attributes.empty() ? 0 : kinds;
    ++m_contentVersion;
}

void tzPointCloud::reset()
{
    decltype(m_colors)().swap(m_colors); // its memory back, not only emptied
    decltype(m_attributes)().swap(m_attributes); // its memory back, not only emptied
    m_attributeKinds = 0;
    tzGenericPointCloud::reset();
}

void tzPointCloud::onPointsChanged()
{
    tzGenericPointCloud::onPointsChanged();
    // Points added one by one after colours or attributes were given get default ones.
    if (!m_colors.empty() && m_colors.size() < m_points.size())
        m_colors.resize(m_points.size());
    if (!m_attributes.empty() && m_attributes.size() < m_points.size())
        m_attributes.resize(m_points.size());
}

// ---------------------------------------------------------------- display

bool tzPointCloud::canShow(ColourMode mode) const
{
    switch (mode) {
    case ColourMode::Rgb:
        return hasColors();
    case ColourMode::Intensity:
        return hasAttribute(tzPointDisplay::INTENSITY);
    case ColourMode::Classification:
        return hasAttribute(tzPointDisplay::CLASSIFICATION);
    case ColourMode::Elevation:
        return true;
    }
    return false;
}

tzPointCloud::ColourMode tzPointCloud::colourMode() const
{
    if (m_modeChosen && canShow(m_colourMode))
        return m_colourMode;
    return ColourMode::Rgb;
}

bool tzPointCloud::plainColour() const
{
    return colourMode() == ColourMode::Rgb && !(hasColors() && m_colorsShown);
}

bool tzPointCloud::setColourMode(ColourMode mode)
{
    if (!canShow(mode))
        return false;
    if (!m_modeChosen || m_colourMode != mode) {
        m_modeChosen = true;
        m_colourMode = mode;
        ++m_displayVersion;
    }
    return true;
}

void tzPointCloud::updateStatistics() const
{
    if (m_statistics.version == m_contentVersion)
        return;
    m_statistics = statisticsOf(m_points.data(), m_attributes.data(), m_points.size());
    m_statistics.version = m_contentVersion;
}

tzPointCloud::Statistics tzPointCloud::statisticsOf(const TZVector3 *points,
                                                    const tzPointAttributes *attributes,
                                                    size_t n) const
{
    Statistics s;
    if (n == 0)
        return s;
    // The percentiles from a sample of at most a million points, spread over the cloud (a
    // survey's points come in scan order); exact for smaller clouds.
    const size_t stride = std::max<size_t>(1, n / 1000000);
    const auto percentile = [](std::vector<float> &values, double p) {
        const size_t k
            = std::min(values.size() - 1, size_t(std::llround(p * double(values.size() - 1))));
        std::nth_element(values.begin(), values.begin() + std::ptrdiff_t(k), values.end());
        return values[k];
    };
    std::vector<float> sample;
    sample.reserve(n / stride + 1);
    for (size_t i = 0; i < n; i += stride)
        sample.push_back(points[i].z);
    s.zLow = percentile(sample, 0.02);
    s.zHigh = percentile(sample, 0.98);
    if (hasAttribute(tzPointDisplay::INTENSITY)) {
        sample.clear();
        for (size_t i = 0; i < n; i += stride)
            sample.push_back(float(attributes[i].intensity));
        s.intensityLow = quint16(percentile(sample, 0.02));
        s.intensityHigh = quint16(percentile(sample, 0.98));
    }
    if (hasAttribute(tzPointDisplay::CLASSIFICATION)) {
        for (size_t i = 0; i < n; ++i)
            ++s.classCounts[attributes[i].classification];
    }
    return s;
}

void tzPointCloud::elevationRange(double &low, double &high) const
{
    if (m_elevationRangeSet) {
        low = m_elevationLow;
        high = m_elevationHigh;
        return;
    }
    updateStatistics();
    // Back to global z.
    low = double(m_statistics.zLow) / m_globalScale - m_globalShift.z;
    high = double(m_statistics.zHigh) / m_globalScale - m_globalShift.z;
}

void tzPointCloud::setElevationRange(double low, double high)
{
    if (!std::isfinite(low) || !std::isfinite(high))
        return;
    m_elevationRangeSet = true;
    m_elevationLow = std::min(low, high);
    m_elevationHigh = std::max(low, high);
    ++m_displayVersion;
}

void tzPointCloud::resetElevationRange()
{
    m_elevationRangeSet = false;
    ++m_displayVersion;
}

void tzPointCloud::intensityRange(quint16 &low, quint16 &high) const
{
    updateStatistics();
    low = m_statistics.intensityLow;
    high = m_statistics.intensityHigh;
}

void tzPointCloud::showClass(int classification, bool shown)
{
    if (classification < 0 || classification > 255 || isClassShown(classification) == shown)
        return;
    m_hiddenClasses[size_t(classification)] = !shown;
    ++m_displayVersion;
}

bool tzPointCloud::isPointShown(unsigned index) const
{
    return !hidesPoints() || index >= m_attributes.size()
        || isClassShown(m_attributes[index].classification);
}

const std::array<quint32, 256> &tzPointCloud::classCounts() const
{
    updateStatistics();
    return m_statistics.classCounts;
}

// ---------------------------------------------------------------- scene files

bool tzPointCloud::toFile_MeOnly(QIODevice &out) const
{
    if (!tzGenericPointCloud::toFile_MeOnly(out))
        return false;
    static_assert(sizeof(tzRgb) == 3, "colours are written as packed bytes");
    bool ok = write<quint8>(out, !m_colors.empty())
        && (m_colors.empty() || writeBytes(out, m_colors.data(), qint64(m_colors.size() * 3)))
        && write<quint8>(out, m_colorsShown) && write<quint8>(out, m_sfShown);
    if (writtenVersion() < 22)
        return ok || fail(WriteError);
    // Since version 22: the attributes and how the points are shown.
    ok = ok && write<quint8>(out, m_attributes.empty() ? quint8(0) : m_attributeKinds)
        && (!m_attributeKinds
            || writeBytes(out, m_attributes.data(),
                          qint64(m_attributes.size() * sizeof(tzPointAttributes))))
        && write<quint8>(out, m_modeChosen ? quint8(m_colourMode) : quint8(0xff))
        && write<quint8>(out, m_elevationRangeSet) && write(out, m_elevationLow)
        && write(out, m_elevationHigh);
    for (size_t word = 0; ok && word < 8; ++word) {
        quint32 bits = 0;
        for (size_t b = 0; b < 32; ++b)
            bits |= quint32(m_hiddenClasses[word * 32 + b]) << b;
        ok = write(out, bits);
    }
    return ok || fail(WriteError);
}

bool tzPointCloud::fromFile_MeOnly(QIODevice &in, short dataVersion, LoadedIDMap &oldToNew)
{
    if (!tzGenericPointCloud::fromFile_MeOnly(in, dataVersion, oldToNew))
        return false;
    const auto sized = [&](auto &values, quint64 bytesEach) {
        if (!hasRoomFor(in, quint64(size()) * bytesEach))
            return fail(ReadError);
        try {
            values.resize(size());
        } catch (const std::bad_alloc &) {
            return fail(MemoryError);
        }
        return readBytes(in, values.data(), qint64(values.size() * bytesEach)) || fail(ReadError);
    };
    quint8 withColors = 0, shown = 0, sf = 0;
    if (!read(in, withColors))
        return fail(ReadError);
    std::vector<tzRgb> colors;
    if (withColors && !sized(colors, 3))
        return false;
    if (!read(in, shown) || !read(in, sf))
        return fail(ReadError);
    std::vector<tzPointAttributes> attributes;
    quint8 kinds = 0, mode = 0xff, rangeSet = 0;
    double rangeLow = 0, rangeHigh = 0;
    std::bitset<256> hidden;
    if (dataVersion >= 22) {
        if (!read(in, kinds) || (kinds && !sized(attributes, sizeof(tzPointAttributes))))
            return kinds ? false : fail(ReadError);
        if (!read(in, mode) || !read(in, rangeSet) || !read(in, rangeLow) || !read(in, rangeHigh))
            return fail(ReadError);
        for (size_t word = 0; word < 8; ++word) {
            quint32 bits = 0;
            if (!read(in, bits))
                return fail(ReadError);
            for (size_t b = 0; b < 32; ++b)
                hidden[word * 32 + b] = (bits >> b) & 1;
        }
    }
    m_colors = std::move(colors);
    m_colorsShown = shown;
    m_sfShown = sf;
    m_attributes = std::move(attributes);
    m_attributeKinds = m_attributes.empty() ? 0 : kinds;
    m_modeChosen = mode < tzPointDisplay::COLOUR_MODES;
    m_colourMode = m_modeChosen ? ColourMode(mode) : ColourMode::Rgb;
    m_elevationRangeSet = rangeSet && std::isfinite(rangeLow) && std::isfinite(rangeHigh);
    m_elevationLow = rangeLow;
    m_elevationHigh = rangeHigh;
    m_hiddenClasses = hidden;
    ++m_contentVersion;
    ++m_displayVersion;
    return true;
}
