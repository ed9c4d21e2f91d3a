#pragma once

#include <QtGui/qopengl.h>

#include <memory>

class QOpenGLShaderProgram;

//! Eye-dome lighting: a shading of the drawn clouds worked out from their depth alone, which
//! darkens each pixel by how much its neighbours stand in front of it. Edges and relief show
//! on clouds without colours (a roof against the ground, a kerb, a trunk against its crown).
//!
//! The clouds are drawn into this object's target (a colour and a depth texture), then
//! shade() writes the shaded colours, with the same depths, into the bound framebuffer.
//! Lives in one GL context; release() while it is current.
class tzEyeDome
{
public:
    tzEyeDome();
    ~tzEyeDome();

    //! Binds the target at this size (made or remade as needed); false when this GL cannot
    //! make it (no shading then).
    bool bindTarget(int width, int height);
    //! Writes the target, shaded, into the framebuffer bound (colour and depth); the clouds'
    //! camera: its near and far planes and whether it is a perspective.
    void shade(float nearPlane, float farPlane, bool perspective);
    void release();

private:
    bool makeProgram();
    void releaseTarget();

    int m_width = 0, m_height = 0;
    GLuint m_framebuffer = 0;
    GLuint m_colour = 0;
    GLuint m_depth = 0;
    bool m_programTried = false;
    std::unique_ptr<QOpenGLShaderProgram> m_program;
};
