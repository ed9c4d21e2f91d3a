#include "tzPolyline.h"

#include "tzPointCloud.h"
#include "tzSerialization.h"

#include <QOpenGLFunctions_2_1>

using namespace tzSerialization;

tzPolyline::tzPolyline(tzGenericPointCloud *vertices)
    : tzHObject(QStringLiteral("Polyline"))
    , TZLib::Polyline(vertices)
    , m_vertices(vertices)
{
    if (m_vertices)
        m_vertices->addDependency(this, DP_NOTIFY_OTHER_ON_DELETE);
}

void tzPolyline::setVertices(tzGenericPointCloud *vertices)
{
    if (m_vertices)
        m_vertices->removeDependencyWith(this);
    m_vertices = vertices;
    setAssociatedCloud(vertices);
    if (m_vertices)
        m_vertices->addDependency(this, DP_NOTIFY_OTHER_ON_DELETE);
}

void tzPolyline::onDeletionOf(const tzHObject *object)
{
    if (object == m_vertices) {
        // The indices mean nothing without their cloud.
        m_vertices = nullptr;
        setAssociatedCloud(nullptr);
    }
    tzHObject::onDeletionOf(object);
}

void tzPolyline::drawMeOnly(tzDrawContext &context)
{
    QOpenGLFunctions_2_1 *gl = context.glFunctions;
    const unsigned n = size();
    if (!gl || n < 2 || !m_vertices)
        return;
    // A 2D polyline is drawn in the 2D pass (its vertices in pixels, origin at the view's
    // centre), any other in the 3D pass; a foreground one over everything drawn before it.
    if (m_mode2D ? !context.is2D() : !context.is3D())
        return;
    const QColor &c = isTempColorEnabled() ? getTempColor() : m_color;
    if (context.isPicking())
        gl->glPushName(getUniqueID());
    gl->glPushAttrib(GL_LINE_BIT | GL_ENABLE_BIT);
    if (m_width > 0)
        gl->glLineWidth(m_width);
    if (m_foreground)
        gl->glDisable(GL_DEPTH_TEST);
    gl->glColor3ub(GLubyte(c.red()), GLubyte(c.green()), GLubyte(c.blue()));
    gl->glBegin(isClosed() ? GL_LINE_LOOP : GL_LINE_STRIP);
    for (unsigned i = 0; i < n; ++i) {
        const TZVector3 *p = getPoint(i);
        if (p)
            gl->glVertex3f(p->x, p->y, p->z);
    }
    gl->glEnd();
    gl->glPopAttrib();
    if (context.isPicking())
        gl->glPopName();
}

bool tzPolyline::toFile_MeOnly(QIODevice &out) const
{
    if (!tzHObject::toFile_MeOnly(out))
        return false;
    bool ok = write<quint32>(out, m_vertices ? m_vertices->getUniqueID() : 0u)
        && write<quint32>(out, size());
    for (unsigned i = 0; ok && i < size(); ++i)
        ok = write<quint32>(out, getPointGlobalIndex(i));
    ok = ok && write<quint8>(out, isClosed()) && write(out, m_width)
        && write<quint8>(out, m_foreground) && write<quint8>(out, m_mode2D)
        && write<quint32>(out, m_color.rgba());
    return ok || fail(WriteError);
}

bool tzPolyline::fromFile_MeOnly(QIODevice &in, short dataVersion, LoadedIDMap &oldToNew)
{
    if (!tzHObject::fromFile_MeOnly(in, dataVersion, oldToNew))
        return false;
    quint32 verticesID = 0, count = 0;
    if (!read(in, verticesID) || !read(in, count) || !hasRoomFor(in, quint64(count) * 4))
        return fail(ReadError);
    clear();
    if (!reserve(count))
        return fail(MemoryError);
    for (quint32 i = 0; i < count; ++i) {
        quint32 index = 0;
        if (!read(in, index))
            return fail(ReadError);
        addPointIndex(index);
    }
    quint8 closed = 0, foreground = 0, mode2D = 0;
    quint32 color = 0;
    if (!read(in, closed) || !read(in, m_width) || !read(in, foreground) || !read(in, mode2D)
        || !read(in, color))
        return fail(ReadError);
    setClosed(closed);
    m_foreground = foreground;
    m_mode2D = mode2D;
    m_color = QColor::fromRgba(color);
    m_loadedVerticesID = verticesID;
    return true;
}

bool tzPolyline::resolveLoadedReferences(const LoadedIDMap &oldToNew)
{
    if (m_loadedVerticesID == 0)
        return true;
    auto *cloud = dynamic_cast<tzGenericPointCloud *>(oldToNew.value(m_loadedVerticesID));
    m_loadedVerticesID = 0;
    if (!cloud)
        return false;
    const std::vector<unsigned> indices = this->indices();
    setVertices(cloud);
    for (unsigned index : indices)
        addPointIndex(index);
    return true;
}
