#include "tzCone.h"

#include "tzSerialization.h"

#include <cmath>

using namespace tzSerialization;

tzCone::tzCone(float bottomRadius, float topRadius, float height, const QString &name,
               unsigned precision)
    : tzGenericPrimitive(name, precision)
    , m_bottomRadius(bottomRadius)
    , m_topRadius(topRadius)
    , m_height(height)
{
    rebuild();
}

void tzCone::setDimensions(float bottomRadius, float topRadius, float height)
{
    m_bottomRadius = bottomRadius;
    m_topRadius = topRadius;
    m_height = height;
    rebuild();
}

void tzCone::buildUp()
{
    const unsigned steps = m_drawPrecision;
    const double pi = 3.14159265358979323846;
    const float z0 = -m_height / 2, z1 = m_height / 2;
    // Side normals lean by the slope of the side.
    const float slope = m_height > 0 ? (m_bottomRadius - m_topRadius) / m_height : 0.f;
    for (unsigned i = 0; i < steps; ++i) {
        const double a = 2 * pi * i / steps;
        const float c = float(std::cos(a)), s = float(std::sin(a));
        TZVector3 n(c, s, slope);
        n.normalize();
        addVertex({c * m_bottomRadius, s * m_bottomRadius, z0}, n);
        addVertex({c * m_topRadius, s * m_topRadius, z1}, n);
    }
    for (unsigned i = 0; i < steps; ++i) {
        const unsigned b0 = 2 * i, t0 = b0 + 1, b1 = 2 * ((i + 1) % steps), t1 = b1 + 1;
        m_triangles.push_back({b0, b1, t1});
        m_triangles.push_back({b0, t1, t0});
    }
    // Caps, fanned from their centres.
    const unsigned bottomCentre = addVertex({0, 0, z0}, {0, 0, -1});
    const unsigned topCentre = addVertex({0, 0, z1}, {0, 0, 1});
    const unsigned ring = unsigned(m_vertices.size());
    for (unsigned i = 0; i < steps; ++i) {
        addVertex(m_vertices[2 * i], {0, 0, -1});
        addVertex(m_vertices[2 * i + 1], {0, 0, 1});
    }
    for (unsigned i = 0; i < steps; ++i) {
        const unsigned j = (i + 1) % steps;
        if (m_bottomRadius > 0)
            m_triangles.push_back({bottomCentre, ring + 2 * j, ring + 2 * i});
        if (m_topRadius > 0)
            m_triangles.push_back({topCentre, ring + 2 * i + 1, ring + 2 * j + 1});
    }
}

bool tzCone::toFile_MeOnly(QIODevice &out) const
{
    return tzGenericPrimitive::toFile_MeOnly(out)
        && ((write(out, m_bottomRadius) && write(out, m_topRadius) && write(out, m_height))
            || fail(WriteError));
}

bool tzCone::fromFile_MeOnly(QIODevice &in, short dataVersion, LoadedIDMap &oldToNew)
{
    if (!tzGenericPrimitive::fromFile_MeOnly(in, dataVersion, oldToNew))
        return false;
    if (!read(in, m_bottomRadius) || !read(in, m_topRadius) || !read(in, m_height))
        return fail(ReadError);
    rebuild();
    return true;
}
