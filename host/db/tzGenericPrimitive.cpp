#include "tzGenericPrimitive.h"

#include "tzSerialization.h"

#include <QOpenGLFunctions_2_1>

using namespace tzSerialization;

tzGenericPrimitive::tzGenericPrimitive(const QString &name, unsigned drawPrecision)
    : tzHObject(name)
    , m_drawPrecision(std::max(4u, drawPrecision))
{
}

bool tzGenericPrimitive::setDrawingPrecision(unsigned steps)
{
    if (steps < 4)
        return false;
    m_drawPrecision = steps;
    rebuild();
    return true;
}

void tzGenericPrimitive::rebuild()
{
    m_vertices.clear();
    m_normals.clear();
    m_triangles.clear();
    buildUp();
}

unsigned tzGenericPrimitive::addVertex(const TZVector3 &p, const TZVector3 &n)
{
    m_vertices.push_back(p);
    m_normals.push_back(n);
    return unsigned(m_vertices.size() - 1);
}

void tzGenericPrimitive::drawMeOnly(tzDrawContext &context)
{
    QOpenGLFunctions_2_1 *gl = context.glFunctions;
    if (!gl || !context.is3D() || m_triangles.empty())
        return;
    if (context.isPicking()) {
        if (context.drawingFlags & TZ_FAST_ENTITY_PICKING)
            return;
        gl->glPushName(getUniqueID());
    }
    const QColor &c = isTempColorEnabled() ? getTempColor() : m_color;
    gl->glPushAttrib(GL_LIGHTING_BIT | GL_CURRENT_BIT);
    gl->glMatrixMode(GL_MODELVIEW);
    gl->glPushMatrix();
    gl->glMultMatrixf(m_transformation.data());
    gl->glColor3ub(GLubyte(c.red()), GLubyte(c.green()), GLubyte(c.blue()));
    gl->glBegin(GL_TRIANGLES);
    for (const Triangle &t : m_triangles) {
        for (unsigned i : t) {
            gl->glNormal3f(m_normals[i].x, m_normals[i].y, m_normals[i].z);
            gl->glVertex3f(m_vertices[i].x, m_vertices[i].y, m_vertices[i].z);
        }
    }
    gl->glEnd();
    gl->glPopMatrix();
    gl->glPopAttrib();
    if (context.isPicking())
        gl->glPopName();
}

bool tzGenericPrimitive::toFile_MeOnly(QIODevice &out) const
{
    if (!tzHObject::toFile_MeOnly(out))
        return false;
    bool ok = write<quint32>(out, m_drawPrecision) && write<quint32>(out, m_color.rgba());
    for (float v : m_transformation)
        ok = ok && write(out, v);
    return ok || fail(WriteError);
}

bool tzGenericPrimitive::fromFile_MeOnly(QIODevice &in, short dataVersion, LoadedIDMap &oldToNew)
{
    if (!tzHObject::fromFile_MeOnly(in, dataVersion, oldToNew))
        return false;
    quint32 precision = 0, color = 0;
    bool ok = read(in, precision) && read(in, color);
    for (float &v : m_transformation)
        ok = ok && read(in, v);
    // A precision below 4 (or absurdly high) is not something this program writes.
    if (!ok || precision < 4 || precision > 4096)
        return fail(ReadError);
    m_drawPrecision = precision;
    m_color = QColor::fromRgba(color);
    return true;
}
