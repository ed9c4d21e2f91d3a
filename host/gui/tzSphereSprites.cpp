#include "tzSphereSprites.h"

#include <QOpenGLFunctions_2_1>

#include <cstring>

namespace {

// Fixed-function matrices, so that the spheres follow whatever the pass has loaded.
const char *const VERTEX_SHADER = R"(#version 120
attribute vec4 sphere; // centre, radius
attribute vec4 colour;
uniform float halfHeight; // half the viewport's height, in pixels
varying vec4 fillColour;
void main()
{
    gl_Position = gl_ModelViewProjectionMatrix * vec4(sphere.xyz, 1.0);
    // The radius seen at the centre's depth (w is 1 in an orthographic view).
    float pixels = sphere.w * gl_ProjectionMatrix[1][1] * halfHeight / gl_Position.w;
    gl_PointSize = max(1.0, 2.0 * pixels);
    fillColour = colour;
}
)";

const char *const FRAGMENT_SHADER = R"(#version 120
varying vec4 fillColour;
void main()
{
    vec2 d = 2.0 * gl_PointCoord - vec2(1.0);
    if (dot(d, d) > 1.0)
        discard;
    gl_FragColor = fillColour;
}
)";

// Not in the GL 2.1 headers' names on every platform.
constexpr GLenum POINT_SPRITE = 0x8861;
constexpr GLenum VERTEX_PROGRAM_POINT_SIZE = 0x8642;

} // namespace

bool tzSphereSprites::initialize()
{
    auto program = std::make_unique<QOpenGLShaderProgram>();
    if (!program->addShaderFromSourceCode(QOpenGLShader::Vertex, VERTEX_SHADER)
        || !program->addShaderFromSourceCode(QOpenGLShader::Fragment, FRAGMENT_SHADER)
        || !program->link()) {
        return false;
    }
    m_sphereAttribute = program->attributeLocation("sphere");
    m_colourAttribute = program->attributeLocation("colour");
    m_halfHeightUniform = program->uniformLocation("halfHeight");
    if (m_sphereAttribute < 0 || m_colourAttribute < 0)
        return false;
    m_program = std::move(program);
    return true;
}

void tzSphereSprites::addSphere(const TZVector3 &centre, float radius, const QColor &colour)
{
    m_spheres.push_back({centre.x, centre.y, centre.z, radius});
    const quint8 rgba[4] = {quint8(colour.red()), quint8(colour.green()), quint8(colour.blue()),
                            quint8(colour.alpha())};
    quint32 packed;
    std::memcpy(&packed, rgba, sizeof packed);
    m_colours.push_back(packed);
}

void tzSphereSprites::flush(QOpenGLFunctions_2_1 *gl, int viewportHeight)
{
    if (m_spheres.empty())
        return;
    if (gl && isReady() && m_program->bind()) {
        gl->glPushAttrib(GL_ENABLE_BIT | GL_POINT_BIT);
        gl->glEnable(POINT_SPRITE);
        gl->glEnable(VERTEX_PROGRAM_POINT_SIZE);
        gl->glDisable(GL_POINT_SMOOTH);
        m_program->setUniformValue(m_halfHeightUniform, 0.5f * float(viewportHeight));
        m_program->enableAttributeArray(m_sphereAttribute);
        m_program->enableAttributeArray(m_colourAttribute);
        m_program->setAttributeArray(m_sphereAttribute, GL_FLOAT, m_spheres.data(), 4);
        gl->glVertexAttribPointer(GLuint(m_colourAttribute), 4, GL_UNSIGNED_BYTE, GL_TRUE, 0,
                                  m_colours.data());
        gl->glDrawArrays(GL_POINTS, 0, GLsizei(m_spheres.size()));
        m_program->disableAttributeArray(m_sphereAttribute);
        m_program->disableAttributeArray(m_colourAttribute);
        m_program->release();
        gl->glPopAttrib();
    }
    m_spheres.clear();
    m_colours.clear();
}

void tzSphereSprites::release()
{
    m_program.reset();
    m_spheres.clear();
    m_colours.clear();
}
