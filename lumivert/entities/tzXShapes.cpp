#include "tzXShapes.h"

#include <QJsonArray>
#include <QOpenGLFunctions_2_1>
#include <QtDebug>

#include <cmath>

namespace {

TZVector3d toView(const TZVector3d &p)
{
    const double s = tzGlobalShift::scale;
    const TZVector3d &t = tzGlobalShift::shift;
    return {p.x * s + t.x, p.y * s + t.y, p.z * s + t.z};
}

// The division comes before the subtraction: not the inverse of toView unless the scale is 1.
TZVector3d fromView(const TZVector3d &p)
{
    const double s = tzGlobalShift::scale;
    const TZVector3d &t = tzGlobalShift::shift;
    return {p.x / s - t.x, p.y / s - t.y, p.z / s - t.z};
}

TZVector3d point(const QJsonObject &object)
{
    return {jsonNumber(object, "X"), jsonNumber(object, "Y"), jsonNumber(object, "Z")};
}

// Colour and blending for one primitive; the colour-buffer group is restored by end().
void begin(QOpenGLFunctions_2_1 *gl, const tzXentity &entity, GLenum mode)
{
    gl->glPushAttrib(GL_COLOR_BUFFER_BIT);
    gl->glEnable(GL_BLEND);
    gl->glColor3ub(GLubyte(entity.red()), GLubyte(entity.green()), GLubyte(entity.blue()));
    gl->glBegin(mode);
}

void end(QOpenGLFunctions_2_1 *gl)
{
    gl->glEnd();
    gl->glPopAttrib();
}

} // namespace

void tzXLine::readVertices(const QJsonObject &frame, const char *trace)
{
    const QJsonArray vertices = frame.value(QLatin1String("vertex")).toArray();
    for (const QJsonValue &value : vertices) {
        m_vertices.append(point(value.toObject()));
        const TZVector3d &v = m_vertices.last();
        qDebug(trace, m_red, m_green, m_blue, m_vertices.size() - 1, v.x, v.y, v.z);
    }
}

bool tzXLine::readJson(const QJsonObject &frame)
{
    tzXentity::readJson(frame);
    readVertices(frame, "XLine: R: %d, G: %d, B: %d , vextex %d: %lf,%lf,%lf");
    return true;
}

void tzXLine::convertToView()
{
    for (TZVector3d &v : m_vertices)
        v = toView(v);
}

void tzXLine::convertFromView()
{
    for (TZVector3d &v : m_vertices)
        v = fromView(v);
}

void tzXLine::drawEntity(QOpenGLFunctions_2_1 *gl)
{
    begin(gl, *this, GL_LINES);
    for (const TZVector3d &v : m_vertices)
        gl->glVertex3d(v.x, v.y, v.z);
    end(gl);
}

bool tzXPolyline::readJson(const QJsonObject &frame)
{
    tzXentity::readJson(frame);
    readVertices(frame, "XPolyLine: R: %d, G: %d, B: %d , vextex %d : %lf,%lf,%lf");
    return true;
}

void tzXPolyline::drawEntity(QOpenGLFunctions_2_1 *gl)
{
    // The width is not part of the saved group: later lines keep it.
    gl->glLineWidth(3.f);
    begin(gl, *this, GL_LINE_LOOP);
    for (const TZVector3d &v : m_vertices)
        gl->glVertex3d(v.x, v.y, v.z);
    end(gl);
}

bool tzXCircle::readJson(const QJsonObject &frame)
{
    tzXentity::readJson(frame);
    m_center = point(frame.value(QLatin1String("center")).toObject());
    m_radius = jsonNumber(frame, "radius");
    qDebug("XCircle: R: %d, G: %d, B: %d , center: %lf,%lf,%lf radius: %lf", m_red, m_green,
           m_blue, m_center.x, m_center.y, m_center.z, m_radius);
    return true;
}

void tzXCircle::convertToView()
{
    m_center = toView(m_center);
    m_radius *= tzGlobalShift::scale;
}

void tzXCircle::convertFromView()
{
    m_center = fromView(m_center);
    m_radius /= tzGlobalShift::scale;
}

void tzXCircle::drawEntity(QOpenGLFunctions_2_1 *gl)
{
    begin(gl, *this, GL_LINE_LOOP);
    for (int i = 0; i < 360; ++i) {
        const float angle = float(i * M_PI / 180.0);
        gl->glVertex3d(std::cos(angle) * m_radius + m_center.x,
                       std::sin(angle) * m_radius + m_center.y, m_center.z);
    }
    end(gl);
}
