#include "tzViewGeometry.h"

#include "tzDrawContext.h"
#include "tzViewportParameters.h"

#include <cmath>

double pixelSizeAt(const tzDrawContext &context, const TZVector3d &p)
{
    const tzViewportParameters *params = context.viewportParams;
    if (!params || !params->perspectiveView || context.glH <= 0)
        return context.pixelSize;
    const TZVector3d d = p - params->cameraCenter;
    const double distance = std::sqrt(d.x * d.x + d.y * d.y + d.z * d.z);
    return 2.0 * distance * std::tan(params->fov_deg * M_PI / 360.0) / context.glH;
}

tzWindowProjection::tzWindowProjection(QOpenGLFunctions_2_1 *gl)
{
    gl->glGetDoublev(GL_MODELVIEW_MATRIX, m_modelView);
    gl->glGetDoublev(GL_PROJECTION_MATRIX, m_projection);
    gl->glGetIntegerv(GL_VIEWPORT, m_viewport);
}

bool tzWindowProjection::project(const TZVector3 &P, double &x, double &y) const
{
    double eye[4], clip[4];
    for (int r = 0; r < 4; ++r)
        eye[r] = m_modelView[r] * P.x + m_modelView[4 + r] * P.y + m_modelView[8 + r] * P.z
            + m_modelView[12 + r];
    for (int r = 0; r < 4; ++r)
        clip[r] = m_projection[r] * eye[0] + m_projection[4 + r] * eye[1]
            + m_projection[8 + r] * eye[2] + m_projection[12 + r] * eye[3];
    if (clip[3] <= 0)
        return false;
    x = m_viewport[0] + (clip[0] / clip[3] + 1) * 0.5 * m_viewport[2];
    y = m_viewport[1] + (clip[1] / clip[3] + 1) * 0.5 * m_viewport[3];
    return true;
}
