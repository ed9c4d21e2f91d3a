#include "tzEyeDome.h"

#include "tzLog.h"

#include <QOpenGLContext>
#include <QOpenGLFunctions>
#include <QOpenGLFunctions_2_1>
#include <QOpenGLShaderProgram>

namespace {

// Each pixel's depth against eight neighbours on a small circle, in log2 of the distance from
// the eye (so the shading looks the same near and far): what stands in front darkens.
const char *const EDL_SHADER = R"(#version 120
uniform sampler2D colour;
uniform sampler2D depth;
uniform vec2 pixel;        // one pixel in texture coordinates
uniform float nearPlane;
uniform float farPlane;
uniform bool perspective;
uniform float strength;

float eyeDistance(float d)
{
    if (perspective)
        return 2.0 * nearPlane * farPlane
            / (farPlane + nearPlane - (2.0 * d - 1.0) * (farPlane - nearPlane));
    return nearPlane + d * (farPlane - nearPlane);
}

void main()
{
    vec2 at = gl_TexCoord[0].st;
    float d = texture2D(depth, at).r;
    vec4 c = texture2D(colour, at);
    gl_FragDepth = d;
    if (d >= 1.0) {
        gl_FragColor = c; // background
        return;
    }
    float here = log2(eyeDistance(d));
    float response = 0.0;
    for (int k = 0; k < 8; ++k) {
        float a = 0.785398 * float(k);
        vec2 offset = 1.5 * vec2(cos(a), sin(a)) * pixel;
        float n = texture2D(depth, at + offset).r;
        if (n < 1.0)
            response += max(0.0, here - log2(eyeDistance(n)));
    }
    float shade = exp(-strength * response / 8.0);
    gl_FragColor = vec4(c.rgb * shade, c.a);
}
)";

QOpenGLFunctions *functions()
{
    return QOpenGLContext::currentContext()->functions();
}

#ifndef GL_DEPTH_COMPONENT24
#define GL_DEPTH_COMPONENT24 0x81A6
#endif

} // namespace

tzEyeDome::tzEyeDome() = default;

tzEyeDome::~tzEyeDome() = default;

void tzEyeDome::release()
{
    releaseTarget();
    m_program.reset();
    m_programTried = false;
}

void tzEyeDome::releaseTarget()
{
    if (QOpenGLContext::currentContext()) {
        QOpenGLFunctions *gl = functions();
        if (m_framebuffer)
            gl->glDeleteFramebuffers(1, &m_framebuffer);
        if (m_colour)
            gl->glDeleteTextures(1, &m_colour);
        if (m_depth)
            gl->glDeleteTextures(1, &m_depth);
    }
    m_framebuffer = m_colour = m_depth = 0;
    m_width = m_height = 0;
}

bool tzEyeDome::makeProgram()
{
    m_programTried = true;
    auto program = std::make_unique<QOpenGLShaderProgram>();
    if (!program->addShaderFromSourceCode(QOpenGLShader::Fragment, EDL_SHADER)
        || !program->link()) {
        tzLog::Warning(QStringLiteral("[tzGLWindow] No eye-dome shading on this display: %1")
                           .arg(program->log().trimmed()));
        return false;
    }
    m_program = std::move(program);
    return true;
}

bool tzEyeDome::bindTarget(int width, int height)
{
    if (!m_programTried)
        makeProgram();
    if (!m_program)
        return false;
    QOpenGLFunctions *gl = functions();
    if (width != m_width || height != m_height || !m_framebuffer) {
        releaseTarget();
        const auto texture
            = [gl](GLuint &name, GLint internal, GLenum format, GLenum type, int w, int h) {
                  gl->glGenTextures(1, &name);
                  gl->glBindTexture(GL_TEXTURE_2D, name);
                  gl->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
                  gl->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
                  gl->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
                  gl->glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
                  gl->glTexImage2D(GL_TEXTURE_2D, 0, internal, w, h, 0, format, type, nullptr);
              };
        texture(m_colour, GL_RGBA, GL_RGBA, GL_UNSIGNED_BYTE, width, height);
        texture(m_depth, GL_DEPTH_COMPONENT24, GL_DEPTH_COMPONENT, GL_UNSIGNED_INT, width, height);
        gl->glBindTexture(GL_TEXTURE_2D, 0);
        gl->glGenFramebuffers(1, &m_framebuffer);
        gl->glBindFramebuffer(GL_FRAMEBUFFER, m_framebuffer);
        gl->glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, m_colour,
                                   0);
        gl->glFramebufferTexture2D(GL_FRAMEBUFFER, GL_DEPTH_ATTACHMENT, GL_TEXTURE_2D, m_depth, 0);
        if (gl->glCheckFramebufferStatus(GL_FRAMEBUFFER) != GL_FRAMEBUFFER_COMPLETE) {
            tzLog::Warning(QStringLiteral("[tzGLWindow] No eye-dome shading: no depth texture"));
            releaseTarget();
            m_program.reset(); // not tried again
            return false;
        }
        m_width = width;
        m_height = height;
    }
    gl->glBindFramebuffer(GL_FRAMEBUFFER, m_framebuffer);
    return true;
}

void tzEyeDome::shade(float nearPlane, float farPlane, bool perspective)
{
    auto *gl = QOpenGLContext::currentContext()->versionFunctions<QOpenGLFunctions_2_1>();
    if (!gl || !m_program)
        return;
    m_program->bind();
    gl->glActiveTexture(GL_TEXTURE0);
    gl->glBindTexture(GL_TEXTURE_2D, m_colour);
    gl->glActiveTexture(GL_TEXTURE1);
    gl->glBindTexture(GL_TEXTURE_2D, m_depth);
    m_program->setUniformValue("colour", 0);
    m_program->setUniformValue("depth", 1);
    m_program->setUniformValue("pixel", QVector2D(1.f / float(m_width), 1.f / float(m_height)));
    m_program->setUniformValue("nearPlane", nearPlane);
    m_program->setUniformValue("farPlane", farPlane);
    m_program->setUniformValue("perspective", perspective);
    m_program->setUniformValue("strength", 300.f);
    // One quad over the whole target; the depth test always passes so every depth is written.
    gl->glViewport(0, 0, m_width, m_height);
    gl->glEnable(GL_DEPTH_TEST);
    gl->glDepthFunc(GL_ALWAYS);
    gl->glMatrixMode(GL_PROJECTION);
    gl->glPushMatrix();
    gl->glLoadIdentity();
    gl->glMatrixMode(GL_MODELVIEW);
    gl->glPushMatrix();
    gl->glLoadIdentity();
    gl->glBegin(GL_QUADS);
    gl->glTexCoord2f(0, 0);
    gl->glVertex2f(-1, -1);
    gl->glTexCoord2f(1, 0);
    gl->glVertex2f(1, -1);
    gl->glTexCoord2f(1, 1);
    gl->glVertex2f(1, 1);
    gl->glTexCoord2f(0, 1);
    gl->glVertex2f(-1, 1);
    gl->glEnd();
    gl->glPopMatrix();
    gl->glMatrixMode(GL_PROJECTION);
    gl->glPopMatrix();
    gl->glMatrixMode(GL_MODELVIEW);
    gl->glDepthFunc(GL_LESS);
    gl->glBindTexture(GL_TEXTURE_2D, 0);
    gl->glActiveTexture(GL_TEXTURE0);
    gl->glBindTexture(GL_TEXTURE_2D, 0);
    m_program->release();
}
