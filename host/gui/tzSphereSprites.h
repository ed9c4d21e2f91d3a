#pragma once

#include "tzDrawContext.h"

#include <QOpenGLShaderProgram>

#include <memory>
#include <vector>

class QOpenGLFunctions_2_1;

//! The view's batch of marker spheres: one point sprite per sphere, sized in the vertex shader
//! from the sphere's radius and depth, cut round in the fragment shader. Ten thousand markers are
//! one draw call instead of ten thousand.
class tzSphereSprites : public tzSphereBatch
{
public:
    //! Compiles the shaders in the current context; false when it cannot (the objects then draw
    //! their own markers).
    bool initialize();
    bool isReady() const { return m_program && m_program->isLinked(); }

    void addSphere(const TZVector3 &centre, float radius, const QColor &colour) override;

    //! Draws the spheres collected since the last flush with the current matrices, then forgets
    //! them. viewportHeight in pixels.
    void flush(QOpenGLFunctions_2_1 *gl, int viewportHeight);
    //! The GL objects go (call with the context current).
    void release();

private:
    struct Sphere
    {
        float x, y, z, radius;
    };
    std::vector<Sphere> m_spheres;
    std::vector<quint32> m_colours; // RGBA bytes in memory order
    std::unique_ptr<QOpenGLShaderProgram> m_program;
    int m_sphereAttribute = -1;
    int m_colourAttribute = -1;
    int m_halfHeightUniform = -1;
};
