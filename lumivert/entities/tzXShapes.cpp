#include "tzXShapes.h"

#include <QJsonArray>
#include <QOpenGLFunctions_2_1>
#include <QtDebug>

#include <cmath>

namespace {

TZVector3d point(const QJsonObject &object)
{
    return {jsonNumber(object, "X"), jsonNumber(object, "Y"), jsonNumber(object, "Z")};
}

void drawAlone(const tzXentity &entity, QOpenGLFunctions_2_1 *gl)
{
    tzXLineBatch batch;
    entity.addTo(batch);
    batch.draw(gl);
}

} // namespace

tzXLineBatch::Run &tzXLineBatch::startRun(unsigned mode, bool wide, const tzXentity &colour)
{
    m_runs.push_back({mode, int(m_xyz.size() / 3), 0, wide, (unsigned char)(colour.red()),
                      (unsigned char)(colour.green()), (unsigned char)(colour.blue())});
    return m_runs.back();
}

void tzXLineBatch::addVertex(const TZVector3d &v)
{
    m_xyz.push_back(float(v.x));
    m_xyz.push_back(float(v.y));
    m_xyz.push_back(float(v.z));
}

void tzXLineBatch::addSegments(const QVector<TZVector3d> &vertices, const tzXentity &colour)
{
    // Pairs only: an odd last vertex would pair with the next entity's first.
    const int count = vertices.size() & ~1;
    if (count == 0)
        return;
    const bool sameRun = !m_runs.empty() && m_runs.back().mode == GL_LINES
        && m_runs.back().red == colour.red() && m_runs.back().green == colour.green()
        && m_runs.back().blue == colour.blue();
    Run &run = sameRun ? m_runs.back() : startRun(GL_LINES, false, colour);
    for (int i = 0; i < count; ++i)
        addVertex(vertices[i]);
    run.count += count;
}

void tzXLineBatch::addLoop(const QVector<TZVector3d> &vertices, const tzXentity &colour)
{
    // Even an empty outline sets the width for what follows.
    Run &run = startRun(GL_LINE_LOOP, true, colour);
    for (const TZVector3d &v : vertices)
        addVertex(v);
    run.count = vertices.size();
}

void tzXLineBatch::addCircle(const TZVector3d &centre, double radius, const tzXentity &colour)
{
    Run &run = startRun(GL_LINE_LOOP, false, colour);
    for (int i = 0; i < 360; ++i) {
        const float angle = float(i * M_PI / 180.0);
        addVertex(
            {std::cos(angle) * radius + centre.x, std::sin(angle) * radius + centre.y, centre.z});
    }
    run.count = 360;
}

void tzXLineBatch::clear()
{
    m_xyz.clear();
    m_runs.clear();
}

void tzXLineBatch::draw(QOpenGLFunctions_2_1 *gl) const
{
    if (m_runs.empty())
        return;
    gl->glPushAttrib(GL_COLOR_BUFFER_BIT);
    gl->glPushClientAttrib(GL_CLIENT_VERTEX_ARRAY_BIT);
    gl->glEnable(GL_BLEND);
    gl->glEnableClientState(GL_VERTEX_ARRAY);
    gl->glVertexPointer(3, GL_FLOAT, 0, m_xyz.data());
    for (const Run &run : m_runs) {
        if (run.wide)
            gl->glLineWidth(3.f);
        gl->glColor3ub(run.red, run.green, run.blue);
        if (run.count > 0)
            gl->glDrawArrays(run.mode, run.first, run.count);
    }
    gl->glPopClientAttrib();
    gl->glPopAttrib();
}

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

void tzXLine::convertToView(const tzCoordinateFrame &frame)
{
    for (TZVector3d &v : m_vertices)
        v = frame.toScene(v);
}

void tzXLine::convertFromView(const tzCoordinateFrame &frame)
{
    for (TZVector3d &v : m_vertices)
        v = frame.shapeToCompanion(v);
}

void tzXLine::addTo(tzXLineBatch &batch) const
{
    batch.addSegments(m_vertices, *this);
}

void tzXLine::drawEntity(QOpenGLFunctions_2_1 *gl)
{
    drawAlone(*this, gl);
}

bool tzXPolyline::readJson(const QJsonObject &frame)
{
    // The entity's own members only: a polyline's vertices are read below, not as a line's.
    tzXentity::readJson(frame); // NOLINT(bugprone-parent-virtual-call)
    readVertices(frame, "XPolyLine: R: %d, G: %d, B: %d , vextex %d : %lf,%lf,%lf");
    return true;
}

void tzXPolyline::addTo(tzXLineBatch &batch) const
{
    batch.addLoop(m_vertices, *this);
}

bool tzXCircle::readJson(const QJsonObject &frame)
{
    tzXentity::readJson(frame);
    m_center = point(frame.value(QLatin1String("center")).toObject());
    m_radius = jsonNumber(frame, "radius");
    qDebug("XCircle: R: %d, G: %d, B: %d , center: %lf,%lf,%lf radius: %lf", m_red, m_green, m_blue,
           m_center.x, m_center.y, m_center.z, m_radius);
    return true;
}

void tzXCircle::convertToView(const tzCoordinateFrame &frame)
{
    m_center = frame.toScene(m_center);
    m_radius *= frame.scale;
}

void tzXCircle::convertFromView(const tzCoordinateFrame &frame)
{
    m_center = frame.shapeToCompanion(m_center);
    m_radius /= frame.scale;
}

void tzXCircle::addTo(tzXLineBatch &batch) const
{
    batch.addCircle(m_center, m_radius, *this);
}

void tzXCircle::drawEntity(QOpenGLFunctions_2_1 *gl)
{
    drawAlone(*this, gl);
}
