#include "tzSelectionPicker.h"

#include "tzCamera.h"
#include "tzDrawContext.h"

#include <QOpenGLFunctions_2_1>

#include <vector>

tzSelectionPicker::tzSelectionPicker(const tzCamera &camera, DrawPass draw, double sizePx)
    : m_camera(camera)
    , m_draw(std::move(draw))
    , m_sizePx(sizePx)
{
}

QMatrix4x4 tzSelectionPicker::pickMatrix(double x, double y, int width, int height, double sizePx)
{
    // GL's window y runs up.
    const double cy = height - y;
    QMatrix4x4 matrix;
    matrix.translate(float((width - 2 * x) / sizePx), float((height - 2 * cy) / sizePx), 0);
    matrix.scale(float(width / sizePx), float(height / sizePx), 1);
    return matrix;
}

bool tzSelectionPicker::nearestHit(const unsigned *records, int hits, Hit &hit,
                                   const Accept &accept)
{
    bool found = false;
    unsigned nearest = ~0u;
    const unsigned *record = records;
    for (int i = 0; i < hits; ++i) {
        const unsigned names = record[0];
        if (names > 0 && record[1] <= nearest && (!accept || accept(record[2 + names]))) {
            nearest = record[1];
            hit.name = record[2 + names];
            found = true;
        }
        record += 3 + names;
    }
    if (found)
        hit.depth = double(nearest) / double(~0u);
    return found;
}

bool tzSelectionPicker::pass(QOpenGLFunctions_2_1 *gl, int x, int y, int flags,
                             const QMatrix4x4 &projection, const QMatrix4x4 &modelView,
                             double sizePx, const Accept &accept, Hit &hit) const
{
    static_assert(sizeof(GLuint) == sizeof(unsigned), "selection records are read as unsigned");
    std::vector<GLuint> buffer(4096);
    gl->glSelectBuffer(GLsizei(buffer.size()), buffer.data());
    gl->glRenderMode(GL_SELECT);
    gl->glInitNames();
    if (flags & TZ_DRAW_3D)
        gl->glEnable(GL_DEPTH_TEST);
    else
        gl->glDisable(GL_DEPTH_TEST);
    const QMatrix4x4 pick
        = pickMatrix(x + 0.5, y + 0.5, m_camera.width, m_camera.height, sizePx) * projection;
    gl->glMatrixMode(GL_PROJECTION);
    gl->glLoadMatrixf(pick.constData());
    gl->glMatrixMode(GL_MODELVIEW);
    gl->glLoadMatrixf(modelView.constData());
    m_draw(flags | TZ_ENTITY_PICKING);
    // A full buffer gives -1 hits: nothing is read then.
    const GLint hits = gl->glRenderMode(GL_RENDER);
    return nearestHit(buffer.data(), hits, hit, accept);
}

bool tzSelectionPicker::foreground(QOpenGLFunctions_2_1 *gl, int x, int y, Hit &hit) const
{
    // The foreground's 2D frame: pixels about the centre of the view.
    QMatrix4x4 frame2D;
    frame2D.ortho(-0.5f * m_camera.width, 0.5f * m_camera.width, -0.5f * m_camera.height,
                  0.5f * m_camera.height, -1, 1);
    return pass(gl, x, y, TZ_DRAW_2D | TZ_DRAW_FOREGROUND, frame2D, QMatrix4x4(), m_sizePx,
                Accept(), hit);
}

bool tzSelectionPicker::scene(QOpenGLFunctions_2_1 *gl, int x, int y, Hit &hit, double sizePx,
                              const Accept &accept) const
{
    return pass(gl, x, y, TZ_DRAW_3D | TZ_DRAW_FOREGROUND, m_camera.projection(),
                m_camera.modelView(), sizePx > 0 ? sizePx : m_sizePx, accept, hit);
}
