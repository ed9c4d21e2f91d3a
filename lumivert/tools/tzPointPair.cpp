#include "tzPointPair.h"

#include "tzCone.h"
#include "tzDrawContext.h"
#include "tzPointCloud.h"
#include "tzSphere.h"
#include "tzViewGeometry.h"

#include <QOpenGLFunctions_2_1>
#include <QVariantMap>

#include <cmath>
#include <memory>

namespace {

constexpr double DEGREES = 57.29577951308232;

// The marker shapes of every point pair, made at the first draw.
struct Shapes
{
    tzSphere marker {1.f, QStringLiteral("PointMarker")};
    tzCylinder shaft {1.f, 0.9f, QStringLiteral("UnitNormal")};
    tzCone head {3.f, 0.f, 0.1f, QStringLiteral("UnitNormalHead")};
};

Shapes &shapes()
{
    static const std::unique_ptr<Shapes> shared = std::make_unique<Shapes>();
    return *shared;
}

// Draws a shared shape in a colour, the object's own name staying the innermost in picking.
void drawShape(tzGenericPrimitive &shape, tzDrawContext &context, const QColor &colour)
{
    tzDrawContext plain = context;
    plain.drawingFlags &= ~(TZ_ENTITY_PICKING | TZ_FAST_ENTITY_PICKING);
    plain.spheres = nullptr;
    shape.setTempColor(colour);
    shape.draw(plain);
}

} // namespace

tzPointPair::tzPointPair(tzPointCloud *cloud)
    : tzPolyline(cloud)
{
}

tzPointPair::tzPointPair(const tzPolyline &polyline)
    : tzPolyline(polyline.getVertices())
{
    for (unsigned i = 0; i < polyline.size(); ++i)
        addPointIndex(polyline.getPointGlobalIndex(i));
}

TZVector3 tzPointPair::direction() const
{
    if (size() != 2)
        return TZVector3(0, 0, 0);
    const TZVector3 *start = getPoint(0), *end = getPoint(1);
    return start && end ? *end - *start : TZVector3(0, 0, 0);
}

void tzPointPair::drawMeOnly(tzDrawContext &context)
{
    QOpenGLFunctions_2_1 *gl = context.glFunctions;
    if (!gl || !context.is3D() || size() == 0)
        return;
    const bool picking = context.isPicking();
    const QColor colour = isSelected() && !picking ? QColor(Qt::red) : m_activeColour;
    if (picking)
        gl->glPushName(getUniqueID());
    const float factor = m_markerScale * context.labelMarkerSize;
    gl->glMatrixMode(GL_MODELVIEW);
    for (unsigned i = 0; i < size(); ++i) {
        const TZVector3 *p = getPoint(i);
        if (!p)
            continue;
        const float s = float(factor * 0.2 * pixelSizeAt(context, TZVector3d(p->x, p->y, p->z)));
        gl->glPushMatrix();
        gl->glTranslatef(p->x, p->y, p->z);
        gl->glScalef(s, s, s);
        drawShape(shapes().marker, context, colour);
        gl->glPopMatrix();
    }
    const TZVector3 d = direction();
    const float length = d.norm();
    if (length > 0) {
        const TZVector3 &start = *getPoint(0);
        const TZVector3 u = d / length;
        const float width
            = float(factor * 0.05 * pixelSizeAt(context, TZVector3d(start.x, start.y, start.z)));
        gl->glPushMatrix();
        gl->glTranslatef(start.x, start.y, start.z);
        // From +Z onto the direction.
        const TZVector3 axis = TZVector3(0, 0, 1).cross(u);
        const float angle = float(std::acos(std::max(-1.f, std::min(1.f, u.z))) * DEGREES);
        if (axis.norm() > 1e-6f)
            gl->glRotatef(angle, axis.x, axis.y, axis.z);
        else if (u.z < 0)
            gl->glRotatef(180.f, 1.f, 0.f, 0.f);
        gl->glScalef(width, width, length);
        gl->glPushMatrix();
        gl->glTranslatef(0.f, 0.f, 0.45f);
        drawShape(shapes().shaft, context, colour);
        gl->glPopMatrix();
        gl->glTranslatef(0.f, 0.f, 0.95f);
        drawShape(shapes().head, context, colour);
        gl->glPopMatrix();
    }
    if (picking)
        gl->glPopName();
    // The name (the length) over the middle of the segment, when asked for.
    if (nameShownIn3D() && !picking && context.display && length > 0) {
        const TZVector3 middle = *getPoint(0) + d * 0.5f;
        double x = 0, y = 0;
        if (tzWindowProjection(gl).project(middle, x, y))
            context.display->displayText(getName(), int(x), int(y) + 8,
                                         Qt::AlignHCenter | Qt::AlignBottom, 0.55f, colour,
                                         &context.labelFont);
    }
}

const char *const tzLineation::FACTORY_NAME = "tzLineation";

tzLineation::tzLineation(tzPointCloud *cloud)
    : tzPointPair(cloud)
{
    computeMetadata();
}

void tzLineation::computeMetadata()
{
    setMetaData(QStringLiteral("tzLumivertType"), QStringLiteral("Lineation"));
    if (size() != 2)
        return;
    TZVector3 d = direction();
    const double squared = double(d.x) * d.x + double(d.y) * d.y + double(d.z) * d.z;
    if (squared > 0)
        d = d / float(std::sqrt(squared));
    double trend = 0, plunge = 0;
    if (d.x + d.y + d.z == 0) {
        // The test is on the sum of the components, not on the norm: kept as it is.
    } else if (double(d.z) > 0.9999999 || double(d.z) < -0.9999999) {
        plunge = d.z < 0 ? 90 : -90;
    } else {
        TZVector3 h(d.x, d.y, 0);
        h = h / h.norm();
        plunge = std::acos(double(h.dot(d))) * DEGREES;
        if (d.z > 0)
            plunge = -plunge;
        trend = std::atan2(double(h.x), double(h.y)) * DEGREES;
        if (trend < 0)
            trend += 360;
    }
    const TZVector3 S = *getPoint(0), E = *getPoint(1);
    const float dx = S.x - E.x, dy = S.y - E.y, dz = S.z - E.z;
    const float length = float(std::sqrt(double(dx) * dx + double(dy) * dy + double(dz) * dz));
    QVariantMap data;
    data.insert(QStringLiteral("tzLumivertType"), QStringLiteral("Lineation"));
    data.insert(QStringLiteral("Sx"), S.x);
    data.insert(QStringLiteral("Sy"), S.y);
    data.insert(QStringLiteral("Sz"), S.z);
    data.insert(QStringLiteral("Ex"), E.x);
    data.insert(QStringLiteral("Ey"), E.y);
    data.insert(QStringLiteral("Ez"), E.z);
    data.insert(QStringLiteral("Trend"), float(trend));
    data.insert(QStringLiteral("Plunge"), float(plunge));
    data.insert(QStringLiteral("Length"), length);
    setMetaData(data, true);
    setName(QString::asprintf("%.1f metre ", double(length)));
}
