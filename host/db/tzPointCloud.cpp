#include "tzPointCloud.h"

#include "tzDrawContext.h"
#include "tzSerialization.h"

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
    const bool ok = write<quint32>(out, size())
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

void tzPointCloud::reset()
{
    m_colors = {};
    tzGenericPointCloud::reset();
}

void tzPointCloud::onPointsChanged()
{
    tzGenericPointCloud::onPointsChanged();
    // Points added one by one after colours were given get a default colour.
    if (!m_colors.empty() && m_colors.size() < m_points.size())
        m_colors.resize(m_points.size());
}

bool tzPointCloud::toFile_MeOnly(QIODevice &out) const
{
    if (!tzGenericPointCloud::toFile_MeOnly(out))
        return false;
    static_assert(sizeof(tzRgb) == 3, "colours are written as packed bytes");
    const bool ok = write<quint8>(out, hasColors())
        && (!hasColors() || writeBytes(out, m_colors.data(), qint64(m_colors.size() * 3)))
        && write<quint8>(out, m_colorsShown) && write<quint8>(out, m_sfShown);
    return ok || fail(WriteError);
}

bool tzPointCloud::fromFile_MeOnly(QIODevice &in, short dataVersion, LoadedIDMap &oldToNew)
{
    if (!tzGenericPointCloud::fromFile_MeOnly(in, dataVersion, oldToNew))
        return false;
    quint8 withColors = 0, shown = 0, sf = 0;
    if (!read(in, withColors))
        return fail(ReadError);
    std::vector<tzRgb> colors;
    if (withColors) {
        if (!hasRoomFor(in, quint64(size()) * 3))
            return fail(ReadError);
        try {
            colors.resize(size());
        } catch (const std::bad_alloc &) {
            return fail(MemoryError);
        }
        if (!readBytes(in, colors.data(), qint64(colors.size() * 3)))
            return fail(ReadError);
    }
    if (!read(in, shown) || !read(in, sf))
        return fail(ReadError);
    m_colors = std::move(colors);
    m_colorsShown = shown;
    m_sfShown = sf;
    return true;
}
