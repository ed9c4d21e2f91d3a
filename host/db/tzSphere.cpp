#include "tzSphere.h"

#include "tzSerialization.h"

#include <cmath>

using namespace tzSerialization;

tzSphere::tzSphere(float radius, const QString &name, unsigned precision)
    : tzGenericPrimitive(name, precision)
    , m_radius(radius)
{
    rebuild();
}

void tzSphere::setRadius(float radius)
{
    m_radius = radius;
    rebuild();
}

void tzSphere::buildUp()
{
    // Latitude rings from pole to pole, precision steps around, precision / 2 rings.
    const unsigned steps = m_drawPrecision;
    const unsigned rings = std::max(2u, steps / 2);
    const double pi = 3.14159265358979323846;
    for (unsigned j = 0; j <= rings; ++j) {
        const double theta = pi * j / rings;
        for (unsigned i = 0; i < steps; ++i) {
            const double phi = 2 * pi * i / steps;
            const TZVector3 n(float(std::sin(theta) * std::cos(phi)),
                              float(std::sin(theta) * std::sin(phi)), float(std::cos(theta)));
            addVertex(n * m_radius, n);
        }
    }
    for (unsigned j = 0; j < rings; ++j) {
        for (unsigned i = 0; i < steps; ++i) {
            const unsigned a = j * steps + i, b = j * steps + (i + 1) % steps;
            const unsigned c = a + steps, d = b + steps;
            if (j > 0)
                m_triangles.push_back({a, c, b});
            if (j + 1 < rings)
                m_triangles.push_back({b, c, d});
        }
    }
}

bool tzSphere::toFile_MeOnly(QIODevice &out) const
{
    return tzGenericPrimitive::toFile_MeOnly(out) && (write(out, m_radius) || fail(WriteError));
}

bool tzSphere::fromFile_MeOnly(QIODevice &in, short dataVersion, LoadedIDMap &oldToNew)
{
    if (!tzGenericPrimitive::fromFile_MeOnly(in, dataVersion, oldToNew))
        return false;
    if (!read(in, m_radius))
        return fail(ReadError);
    rebuild();
    return true;
}
