#pragma once

// What the plug-in's drawings need of the view they are drawn in: the size of a pixel where a
// point lies (markers keep their size on screen), and where a point lands in the window.

#include "TZVector3.h"

#include <QOpenGLFunctions_2_1>

struct tzDrawContext;

//! Scene units per pixel where p lies (the pixel size at the pivot in an orthographic view).
double pixelSizeAt(const tzDrawContext &context, const TZVector3d &p);

//! The GL matrices of the pass being drawn, read once for the projection of several points.
class tzWindowProjection
{
public:
    explicit tzWindowProjection(QOpenGLFunctions_2_1 *gl);
    //! Window pixels of P (origin at the lower-left corner, y up); false behind the camera.
    bool project(const TZVector3 &P, double &x, double &y) const;

private:
    GLdouble m_modelView[16];
    GLdouble m_projection[16];
    GLint m_viewport[4];
};
