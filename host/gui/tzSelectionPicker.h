#pragma once

#include "qtz_gui_global.h"

#include <QMatrix4x4>

#include <functional>

class QOpenGLFunctions_2_1;
class tzCamera;

//! Finds the object drawn about a pixel with the GL selection mode: in a pass limited to the few
//! pixels about it, the objects that are not clouds draw themselves with their unique ID as GL
//! name (drawing flag TZ_ENTITY_PICKING), and the nearest hit names the object. Clouds are found
//! on the CPU instead (tzPointPicker). The GL context must be current during the calls.
class QTZ_GUI_LIB_API tzSelectionPicker
{
public:
    //! Draws the objects for a pass with these drawing flags (the matrices are loaded).
    using DrawPass = std::function<void(int flags)>;
    //! A hit: the object's unique ID and its nearest depth in the window (0 near, 1 far).
    struct Hit
    {
        unsigned name = 0;
        double depth = 1.0;
    };

    //! Which objects' hits count, by unique ID (none given: every one).
    using Accept = std::function<bool(unsigned name)>;

    //! sizePx: the side of the square about the pixel that the passes look at, unless a pass
    //! gives its own.
    tzSelectionPicker(const tzCamera &camera, DrawPass draw, double sizePx);

    //! The object of the 2D foreground (a label's box) about a pixel (window coordinates).
    bool foreground(QOpenGLFunctions_2_1 *gl, int x, int y, Hit &hit) const;
    //! The object of the 3D scene about a pixel, among those accepted, in a square of sizePx
    //! (0: the picker's own).
    bool scene(QOpenGLFunctions_2_1 *gl, int x, int y, Hit &hit, double sizePx = 0,
               const Accept &accept = Accept()) const;

    //! The matrix put before a projection so that the square of sizePx about the point (x, y)
    //! (window coordinates, y down) fills the clip volume.
    static QMatrix4x4 pickMatrix(double x, double y, int width, int height, double sizePx);
    //! The nearest of the records a selection pass left (name count, min depth, max depth, names
    //! outermost first), by its innermost name; at equal depths the later one. False when no
    //! record has a name (or none that is accepted).
    static bool nearestHit(const unsigned *records, int hits, Hit &hit,
                           const Accept &accept = Accept());

private:
    bool pass(QOpenGLFunctions_2_1 *gl, int x, int y, int flags, const QMatrix4x4 &projection,
              const QMatrix4x4 &modelView, double sizePx, const Accept &accept, Hit &hit) const;

    const tzCamera &m_camera;
    DrawPass m_draw;
    double m_sizePx;
};
