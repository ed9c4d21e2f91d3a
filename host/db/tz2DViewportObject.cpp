#include "tz2DViewportObject.h"

#include "tzSerialization.h"

#include <cmath>

using namespace tzSerialization;

bool tz2DViewportObject::toFile_MeOnly(QIODevice &out) const
{
    if (!tzHObject::toFile_MeOnly(out))
        return false;
    const tzViewportParameters &p = m_params;
    bool ok = true;
    for (double v : p.viewMat)
        ok = ok && write(out, v);
    ok = ok && write(out, p.pixelSize) && write(out, p.zoom)
        && write<quint8>(out, p.perspectiveView ? 1 : 0)
        && write<quint8>(out, p.objectCenteredView ? 1 : 0) && write(out, p.zNearCoef)
        && write(out, p.zNear) && write(out, p.zFar);
    for (int d = 0; d < 3; ++d)
        ok = ok && write(out, p.pivotPoint[d]);
    for (int d = 0; d < 3; ++d)
        ok = ok && write(out, p.cameraCenter[d]);
    ok = ok && write(out, p.fov_deg) && write(out, p.cameraAspectRatio);
    return ok || fail(WriteError);
}

bool tz2DViewportObject::fromFile_MeOnly(QIODevice &in, short dataVersion, LoadedIDMap &oldToNew)
{
    if (!tzHObject::fromFile_MeOnly(in, dataVersion, oldToNew))
        return false;
    tzViewportParameters p;
    quint8 perspective = 0, objectCentered = 0;
    bool ok = true;
    for (double &v : p.viewMat)
        ok = ok && read(in, v);
    ok = ok && read(in, p.pixelSize) && read(in, p.zoom) && read(in, perspective)
        && read(in, objectCentered) && read(in, p.zNearCoef) && read(in, p.zNear)
        && read(in, p.zFar);
    for (int d = 0; d < 3; ++d)
        ok = ok && read(in, p.pivotPoint[d]);
    for (int d = 0; d < 3; ++d)
        ok = ok && read(in, p.cameraCenter[d]);
    ok = ok && read(in, p.fov_deg) && read(in, p.cameraAspectRatio);
    // A camera this program saved has a positive scale and a field of view below a half turn.
    if (!ok || perspective > 1 || objectCentered > 1 || !(p.pixelSize > 0) || !(p.zoom > 0)
        || !(p.fov_deg > 0 && p.fov_deg < 180) || !std::isfinite(p.pixelSize)
        || !std::isfinite(p.zoom))
        return fail(ReadError);
    p.perspectiveView = perspective != 0;
    p.objectCenteredView = objectCentered != 0;
    m_params = p;
    return true;
}
