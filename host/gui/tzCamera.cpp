#include "tzCamera.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr double DEG_TO_RAD = 3.14159265358979323846 / 180.0;

TZVector3d normalized(const TZVector3d &v)
{
    const double n = v.norm();
    return n > 0 ? v / n : v;
}

} // namespace

void tzCamera::setSceneBounds(const TZVector3d &min, const TZVector3d &max)
{
    m_boundsMin = min;
    m_boundsMax = max;
    m_hasBounds = true;
}

TZVector3d tzCamera::toEye(const TZVector3d &v) const
{
    return {rowOfR(0).dot(v), rowOfR(1).dot(v), rowOfR(2).dot(v)};
}

TZVector3d tzCamera::fromEye(const TZVector3d &v) const
{
    return rowOfR(0) * v.x + rowOfR(1) * v.y + rowOfR(2) * v.z;
}

void tzCamera::setRows(const TZVector3d &r0, const TZVector3d &r1, const TZVector3d &r2)
{
    // Column-major 4x4: element (row i, column j) at j * 4 + i.
    for (int j = 0; j < 3; ++j) {
        params.viewMat[j * 4 + 0] = r0[j];
        params.viewMat[j * 4 + 1] = r1[j];
        params.viewMat[j * 4 + 2] = r2[j];
        params.viewMat[j * 4 + 3] = 0;
    }
    params.viewMat[12] = params.viewMat[13] = params.viewMat[14] = 0;
    params.viewMat[15] = 1;
}

double tzCamera::focal() const
{
    return 0.5 * height / std::tan(0.5 * double(params.fov_deg) * DEG_TO_RAD);
}

double tzCamera::pixelSizeAt(double depth) const
{
    if (!params.perspectiveView)
        return params.pixelSize / params.zoom;
    return std::max(depth, 0.0) / focal();
}

double tzCamera::pixelSize() const
{
    if (!params.perspectiveView)
        return pixelSizeAt(0);
    return pixelSizeAt(std::abs(toEye(params.pivotPoint - params.cameraCenter).z));
}

void tzCamera::depthRange(double &zNear, double &zFar) const
{
    double dmin = 0, dmax = 1;
    if (m_hasBounds) {
        dmin = 1e300;
        dmax = -1e300;
        for (int k = 0; k < 8; ++k) {
            const TZVector3d corner((k & 1) ? m_boundsMax.x : m_boundsMin.x,
                                    (k & 2) ? m_boundsMax.y : m_boundsMin.y,
                                    (k & 4) ? m_boundsMax.z : m_boundsMin.z);
            const double depth = -toEye(corner - params.cameraCenter).z;
            dmin = std::min(dmin, depth);
            dmax = std::max(dmax, depth);
        }
    }
    // Objects other than clouds (markers, frustums, labels) lie near the clouds but may stick
    // out of their box: keep a box's diagonal of room on both sides.
    const double room = m_hasBounds ? std::max((m_boundsMax - m_boundsMin).norm(), 1.0) : 1.0;
    if (!params.perspectiveView) {
        // Everything from the camera's plane on is shown, as in a perspective view.
        zNear = std::min(dmin, 0.0) - room;
        zFar = dmax + room;
        return;
    }
    zFar = std::max(dmax + room, 1e-2);
    zNear = std::max(zFar * std::max(params.zNearCoef, 1e-6), 1e-4);
}

QMatrix4x4 tzCamera::projection() const
{
    double zNear, zFar;
    depthRange(zNear, zFar);
    QMatrix4x4 m;
    if (params.perspectiveView) {
        m.perspective(params.fov_deg, float(width) / float(std::max(height, 1)), float(zNear),
                      float(zFar));
    } else {
        const double ps = pixelSizeAt(0);
        const float hw = float(0.5 * width * ps), hh = float(0.5 * height * ps);
        m.ortho(-hw, hw, -hh, hh, float(zNear), float(zFar));
    }
    return m;
}

QMatrix4x4 tzCamera::modelView() const
{
    QMatrix4x4 m;
    for (int i = 0; i < 3; ++i) {
        const TZVector3d row = rowOfR(i);
        m.setRow(i,
                 QVector4D(float(row.x), float(row.y), float(row.z),
                           float(-row.dot(params.cameraCenter))));
    }
    m.setRow(3, QVector4D(0, 0, 0, 1));
    return m;
}

bool tzCamera::project(const TZVector3d &P, double &x, double &y, double &depth) const
{
    const TZVector3d e = toEye(P - params.cameraCenter);
    depth = -e.z;
    if (!params.perspectiveView) {
        const double ps = pixelSizeAt(0);
        x = 0.5 * width + e.x / ps;
        y = 0.5 * height - e.y / ps;
        return true;
    }
    if (depth <= 0)
        return false;
    const double f = focal();
    x = 0.5 * width + e.x * f / depth;
    y = 0.5 * height - e.y * f / depth;
    return true;
}

void tzCamera::ray(double x, double y, TZVector3d &origin, TZVector3d &dir) const
{
    const double ex = x - 0.5 * width;
    const double ey = 0.5 * height - y;
    if (!params.perspectiveView) {
        const double ps = pixelSizeAt(0);
        origin = params.cameraCenter + fromEye({ex * ps, ey * ps, 0});
        dir = viewDir();
    } else {
        origin = params.cameraCenter;
        dir = normalized(fromEye({ex, ey, -focal()}));
    }
}

TZVector3d tzCamera::unproject(double x, double y, double windowZ) const
{
    double zNear, zFar;
    depthRange(zNear, zFar);
    TZVector3d origin, dir;
    ray(x, y, origin, dir);
    if (!params.perspectiveView)
        return origin + dir * (zNear + windowZ * (zFar - zNear));
    // The depth buffer holds a hyperbolic function of the eye depth.
    const double ndc = 2 * windowZ - 1;
    const double depth = 2 * zNear * zFar / (zFar + zNear - ndc * (zFar - zNear));
    return origin + dir * (depth / -toEye(dir).z);
}

void tzCamera::rotate(const TZVector3d &eyeAxis, double angle)
{
    const TZVector3d a = normalized(eyeAxis);
    if (a.norm() == 0 || angle == 0)
        return;
    // Rodrigues' rotation in eye space, applied after R: R' = dR R.
    const double c = std::cos(angle), s = std::sin(angle), t = 1 - c;
    const double dR[3][3] = {{t * a.x * a.x + c, t * a.x * a.y - s * a.z, t * a.x * a.z + s * a.y},
                             {t * a.x * a.y + s * a.z, t * a.y * a.y + c, t * a.y * a.z - s * a.x},
                             {t * a.x * a.z - s * a.y, t * a.y * a.z + s * a.x, t * a.z * a.z + c}};
    const TZVector3d pivotEye = toEye(params.pivotPoint - params.cameraCenter);
    TZVector3d rows[3];
    for (int i = 0; i < 3; ++i)
        rows[i] = rowOfR(0) * dR[i][0] + rowOfR(1) * dR[i][1] + rowOfR(2) * dR[i][2];
    setRows(normalized(rows[0]), normalized(rows[1]), normalized(rows[2]));
    if (params.objectCenteredView) {
        // The pivot keeps its place on the screen: the camera turns around it.
        params.cameraCenter = params.pivotPoint - fromEye(pivotEye);
    }
}

void tzCamera::pan(double dxPixels, double dyPixels)
{
    const double ps = pixelSize();
    const TZVector3d shift = fromEye({-dxPixels * ps, dyPixels * ps, 0});
    params.cameraCenter += shift;
    params.pivotPoint += shift;
}

void tzCamera::zoom(double factor)
{
    if (!(factor > 0))
        return;
    if (!params.perspectiveView) {
        params.zoom *= factor;
        return;
    }
    // Move towards the pivot (object-centred) or along the view direction.
    const TZVector3d toPivot = params.pivotPoint - params.cameraCenter;
    double distance = std::abs(toEye(toPivot).z);
    if (distance <= 0)
        distance = 1;
    params.cameraCenter += viewDir() * (distance * (1 - 1 / factor));
}

void tzCamera::setCustomView(const TZVector3d &forward, const TZVector3d &up)
{
    const TZVector3d f = normalized(forward);
    TZVector3d s = normalized(f.cross(up));
    if (s.norm() == 0) // up along forward: any side will do
        s = normalized(f.cross(std::abs(f.z) < 0.9 ? TZVector3d(0, 0, 1) : TZVector3d(0, 1, 0)));
    const TZVector3d u = s.cross(f);
    setRows(s, u, f * -1.0);
}

void tzCamera::fit(const TZVector3d &min, const TZVector3d &max)
{
    const TZVector3d centre = (min + max) * 0.5;
    const double radius = std::max((max - min).norm() * 0.5, 1e-6);
    params.pivotPoint = centre;
    if (!params.perspectiveView) {
        params.zoom = 1;
        params.pixelSize = 2.0 * radius / std::max(1, std::min(width, height));
        params.cameraCenter = centre - viewDir() * (2 * radius);
    } else {
        const double distance = radius / std::sin(0.5 * double(params.fov_deg) * DEG_TO_RAD);
        params.cameraCenter = centre - viewDir() * distance;
    }
}
