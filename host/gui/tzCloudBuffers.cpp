#include "tzCloudBuffers.h"

#include "tzLog.h"
#include "tzPointCloud.h"
#include "tzStreamedCloud.h"

#include <QOpenGLFunctions_2_1>
#include <QOpenGLShaderProgram>
#include <QOpenGLTexture>

#include <algorithm>

using ColourMode = tzPointDisplay::ColourMode;

namespace {

// What the fragment shader colours a point by.
enum ShaderMode : int {
    BY_COLOUR = 0, // the point's colour array, or the one colour given
    BY_INTENSITY = 1,
    BY_ELEVATION = 2,
    BY_CLASS = 3,
};

// A point's value along the mode's ramp (or its class, as a texture coordinate) is worked out
// once per point; the fragments look it up, and drop what falls outside a round point or in a
// hidden class.
const char *const VERTEX_SHADER = R"(#version 120
attribute float intensity;
attribute float classification;
uniform int mode;
uniform vec2 range; // low end, 1 / (high - low)
varying float along;
varying float classAt; // the point's class as a coordinate of the classes' table
void main()
{
    gl_Position = ftransform();
    gl_FrontColor = gl_Color;
    classAt = (classification + 0.5) / 256.0;
    if (mode == 1)
        along = clamp((intensity - range.x) * range.y, 0.0, 1.0);
    else if (mode == 2)
        along = clamp((gl_Vertex.z - range.x) * range.y, 0.0, 1.0);
    else
        along = 0.0;
}
)";

const char *const FRAGMENT_SHADER = R"(#version 120
uniform int mode;
uniform bool round;
uniform bool hiding; // some classes are hidden
uniform sampler2D ramp;
uniform sampler2D classes;
varying float along;
varying float classAt;
void main()
{
    if (round) {
        vec2 d = gl_PointCoord - vec2(0.5);
        if (dot(d, d) > 0.25)
            discard;
    }
    vec4 c = texture2D(classes, vec2(classAt, 0.5));
    if (hiding && c.a < 0.5)
        discard;
    if (mode == 1) {
        gl_FragColor = vec4(along, along, along, 1.0);
    } else if (mode == 2) {
        gl_FragColor = vec4(texture2D(ramp, vec2(along, 0.5)).rgb, 1.0);
    } else if (mode == 3) {
        gl_FragColor = vec4(c.rgb, 1.0);
    } else {
        gl_FragColor = gl_Color;
    }
}
)";

#ifndef GL_POINT_SPRITE
#define GL_POINT_SPRITE 0x8861
#endif

std::unique_ptr<QOpenGLTexture> lookupTexture(QOpenGLTexture::TextureFormat format, int width)
{
    auto texture = std::make_unique<QOpenGLTexture>(QOpenGLTexture::Target2D);
    texture->setSize(width, 1);
    texture->setFormat(format);
    texture->setMinMagFilters(QOpenGLTexture::Nearest, QOpenGLTexture::Nearest);
    texture->setWrapMode(QOpenGLTexture::ClampToEdge);
    texture->allocateStorage();
    return texture;
}

} // namespace

tzCloudBuffers::tzCloudBuffers() = default;

tzCloudBuffers::~tzCloudBuffers()
{
    release();
}

void tzCloudBuffers::release()
{
    for (auto &kv : m_entries)
        kv.second.destroy();
    m_entries.clear();
    m_program.reset();
    m_ramp.reset();
    m_classes.reset();
    m_programTried = false;
}

void tzCloudBuffers::adaptStillBudget(qint64 frameNs)
{
    constexpr unsigned LOWEST = 2000000, HIGHEST = 30000000;
    if (frameNs > 250000000)
        m_stillBudget = std::max(LOWEST, m_stillBudget / 4 * 3);
    else if (frameNs < 100000000 && m_budgetReached)
        m_stillBudget = std::min(HIGHEST, m_stillBudget / 4 * 5);
    m_budgetReached = false;
}

void tzCloudBuffers::beginFrame()
{
    for (auto &kv : m_entries)
        kv.second.used = false;
}

void tzCloudBuffers::endFrame()
{
    for (auto it = m_entries.begin(); it != m_entries.end();) {
        if (!it->second.used && !it->second.pinned) {
            it->second.destroy();
            it = m_entries.erase(it);
        } else {
            ++it;
        }
    }
}

void tzCloudBuffers::makeProgram()
{
    m_programTried = true;
    auto program = std::make_unique<QOpenGLShaderProgram>();
    if (!program->addShaderFromSourceCode(QOpenGLShader::Vertex, VERTEX_SHADER)
        || !program->addShaderFromSourceCode(QOpenGLShader::Fragment, FRAGMENT_SHADER)
        || !program->link()) {
        tzLog::Warning(QStringLiteral("[tzGLWindow] Clouds are drawn in their colours only: %1")
                           .arg(program->log().trimmed()));
        return;
    }
    m_intensityLocation = program->attributeLocation("intensity");
    m_classLocation = program->attributeLocation("classification");
    if (m_intensityLocation < 0 || m_classLocation < 0) {
        tzLog::Warning(QStringLiteral("[tzGLWindow] Clouds are drawn in their colours only"));
        return;
    }
    m_ramp = lookupTexture(QOpenGLTexture::RGB8_UNorm, 256);
    m_ramp->setData(QOpenGLTexture::RGB, QOpenGLTexture::UInt8, tzPointDisplay::rampTable().data());
    m_classes = lookupTexture(QOpenGLTexture::RGBA8_UNorm, 256);
    m_program = std::move(program);
}

int tzCloudBuffers::extrasOf(const tzGenericPointCloud &cloud) const
{
    const auto *coloured = dynamic_cast<const tzPointCloud *>(&cloud);
    if (!coloured)
        return NO_EXTRA;
    int extras = coloured->colorsShown() ? COLOURS : NO_EXTRA;
    const ColourMode mode = coloured->colourMode();
    // The attributes for the modes that show them, and for the classes hidden in any mode.
    if (m_program
        && (mode == ColourMode::Intensity || mode == ColourMode::Classification
            || coloured->hidesPoints()))
        extras |= ATTRIBUTES;
    return extras;
}

bool tzCloudBuffers::write(Buffer &buffer, const void *values, int bytesEach, unsigned size,
                           unsigned from, unsigned to)
{
    if (from == 0) {
        buffer.version = ~quint64(0);
        if (!buffer.buffer.isCreated() && !buffer.buffer.create())
            return false;
        buffer.buffer.bind();
        buffer.buffer.allocate(bytesEach * int(size));
    } else {
        buffer.buffer.bind();
    }
    if (to > from) {
        buffer.buffer.write(bytesEach * int(from),
                            static_cast<const char *>(values) + size_t(bytesEach) * from,
                            bytesEach * int(to - from));
    }
    buffer.buffer.release();
    return true;
}

bool tzCloudBuffers::prepare(const tzGenericPointCloud &cloud, unsigned &done, unsigned count)
{
    if (dynamic_cast<const tzStreamedCloud *>(&cloud)) {
        // Its nodes are uploaded as the views select them.
        done = cloud.size();
        return true;
    }
    if (!m_programTried)
        makeProgram();
    Entry &entry = m_entries[cloud.getUniqueID()];
    entry.pinned = true;
    const auto *coloured = dynamic_cast<const tzPointCloud *>(&cloud);
    const int extras = extrasOf(cloud);
    const unsigned end = std::min(cloud.size(), done + count);
    // The points and what the cloud's mode needs, part by part.
    if (!write(entry.points, cloud.data(), int(sizeof(TZVector3)), cloud.size(), done, end)
        || ((extras & COLOURS)
            && !write(entry.colours, coloured->colorData(), int(sizeof(tzRgb)), cloud.size(), done,
                      end))
        || ((extras & ATTRIBUTES)
            && !write(entry.attributes, coloured->attributeData(), int(sizeof(tzPointAttributes)),
                      cloud.size(), done, end)))
        return false;
    done = end;
    if (done < cloud.size())
        return false;
    entry.count = cloud.size();
    entry.points.version = cloud.contentVersion();
    if (extras & COLOURS)
        entry.colours.version = cloud.contentVersion();
    if (extras & ATTRIBUTES)
        entry.attributes.version = cloud.contentVersion();
    return true;
}

void tzCloudBuffers::forget(unsigned cloudID)
{
    const auto it = m_entries.find(cloudID);
    if (it == m_entries.end())
        return;
    it->second.destroy();
    m_entries.erase(it);
}

bool tzCloudBuffers::upload(Entry &entry, const tzGenericPointCloud &cloud)
{
    const quint64 version = cloud.contentVersion();
    if (entry.count != cloud.size()) {
        entry.destroy();
        entry.count = cloud.size();
    }
    const auto refresh = [&](Buffer &buffer, const void *values, int bytesEach) {
        if (buffer.version == version)
            return true;
        if (!write(buffer, values, bytesEach, cloud.size(), 0, cloud.size()))
            return false;
        buffer.version = version;
        return true;
    };
    if (!refresh(entry.points, cloud.data(), int(sizeof(TZVector3))))
        return false;
    const auto *coloured = dynamic_cast<const tzPointCloud *>(&cloud);
    const int extras = extrasOf(cloud);
    return (!(extras & COLOURS)
            || refresh(entry.colours, coloured->colorData(), int(sizeof(tzRgb))))
        && (!(extras & ATTRIBUTES)
            || refresh(entry.attributes, coloured->attributeData(),
                       int(sizeof(tzPointAttributes))));
}

void tzCloudBuffers::setUniforms(const tzPointCloud *cloud, bool round)
{
    int mode = BY_COLOUR;
    float low = 0, high = 1;
    const ColourMode colourMode = cloud ? cloud->colourMode() : ColourMode::Rgb;
    if (cloud && !cloud->isTempColorEnabled()) {
        if (colourMode == ColourMode::Intensity) {
            mode = BY_INTENSITY;
            quint16 lo = 0, hi = 0;
            cloud->intensityRange(lo, hi);
            low = lo / 65535.f;
            high = hi / 65535.f;
        } else if (colourMode == ColourMode::Elevation) {
            mode = BY_ELEVATION;
            double lo = 0, hi = 0;
            cloud->elevationRange(lo, hi);
            // The ramp runs along the local z the buffers hold.
            low = float((lo + cloud->getGlobalShift().z) * cloud->getGlobalScale());
            high = float((hi + cloud->getGlobalShift().z) * cloud->getGlobalScale());
        } else if (colourMode == ColourMode::Classification) {
            mode = BY_CLASS;
        }
    }
    const bool hiding = cloud && cloud->hidesPoints();
    if (mode == BY_CLASS || hiding) {
        // The classes' colours, and which are shown (alpha).
        quint8 table[256 * 4];
        for (int c = 0; c < 256; ++c) {
            const QColor colour = tzPointDisplay::classColour(c);
            table[4 * c] = quint8(colour.red());
            table[4 * c + 1] = quint8(colour.green());
            table[4 * c + 2] = quint8(colour.blue());
            table[4 * c + 3] = cloud->isClassShown(c) ? 255 : 0;
        }
        m_classes->setData(QOpenGLTexture::RGBA, QOpenGLTexture::UInt8,
                           static_cast<const void *>(table));
    }
    m_program->setUniformValue("mode", mode);
    // A degenerate range (a flat cloud, one intensity) shows the ramp's middle.
    const float span = high - low;
    m_program->setUniformValue("range",
                               span > 0 ? QVector2D(low, 1.f / span) : QVector2D(low - 0.5f, 1.f));
    m_program->setUniformValue("round", round);
    m_program->setUniformValue("hiding", hiding);
    m_ramp->bind(0);
    m_classes->bind(1);
    m_program->setUniformValue("ramp", 0);
    m_program->setUniformValue("classes", 1);
}

bool tzCloudBuffers::uploadPiece(Entry &entry, const tzStreamedCloud::Piece &piece, int extras)
{
    const auto refresh = [&](Buffer &buffer, const void *values, int bytesEach) {
        if (buffer.version == piece.serial)
            return true;
        if (!values || !write(buffer, values, bytesEach, piece.count, 0, piece.count))
            return false;
        buffer.version = piece.serial;
        return true;
    };
    entry.count = piece.count;
    return refresh(entry.points, piece.points, int(sizeof(TZVector3)))
        && (!(extras & COLOURS) || refresh(entry.colours, piece.colours, int(sizeof(tzRgb))))
        && (!(extras & ATTRIBUTES)
            || refresh(entry.attributes, piece.attributes, int(sizeof(tzPointAttributes))));
}

std::vector<tzCloudBuffers::Entry *>
tzCloudBuffers::streamedEntries(const tzStreamedCloud &cloud, tzDrawContext &context, int extras)
{
    QOpenGLFunctions_2_1 *gl = context.glFunctions;
    // The nodes the camera needs, chosen with the matrices the pass draws with.
    float modelView[16], projection[16];
    gl->glGetFloatv(GL_MODELVIEW_MATRIX, modelView);
    gl->glGetFloatv(GL_PROJECTION_MATRIX, projection);
    tzStreamedCloud::View view;
    for (int c = 0; c < 4; ++c) {
        for (int r = 0; r < 4; ++r) {
            float v = 0;
            for (int k = 0; k < 4; ++k)
                v += projection[4 * k + r] * modelView[4 * c + k];
            view.modelViewProjection[size_t(4 * c + r)] = v;
        }
    }
    view.width = context.glW;
    view.height = context.glH;
    view.pointBudget = context.pointBudget > 0 ? context.pointBudget : m_stillBudget;
    const std::vector<tzStreamedCloud::Piece> pieces = cloud.selectNodes(view);
    std::uint64_t drawn = 0;
    for (const tzStreamedCloud::Piece &piece : pieces)
        drawn += piece.count;
    if (context.pointBudget == 0 && drawn >= view.pointBudget * 9 / 10)
        m_budgetReached = true;
    std::vector<Entry *> entries;
    entries.reserve(pieces.size());
    const quint64 cloudKey = quint64(cloud.getUniqueID()) << 40;
    for (const tzStreamedCloud::Piece &piece : pieces) {
        if (piece.count == 0)
            continue;
        Entry &entry = m_entries[cloudKey ^ piece.serial];
        entry.used = true;
        entry.pinned = false;
        if (!uploadPiece(entry, piece, extras)) {
            tzLog::Warning(QStringLiteral("[tzGLWindow] Could not make the GPU buffers of cloud "
                                          "'%1'")
                               .arg(cloud.getName()));
            break;
        }
        entries.push_back(&entry);
    }
    return entries;
}

void tzCloudBuffers::drawCloud(const tzGenericPointCloud &cloud, tzDrawContext &context)
{
    QOpenGLFunctions_2_1 *gl = context.glFunctions;
    if (!gl || cloud.size() == 0)
        return;
    if (!m_programTried)
        makeProgram();
    const int extras = extrasOf(cloud);
    // A streamed cloud is drawn by the nodes the view needs, a cloud in memory whole.
    std::vector<Entry *> entries;
    unsigned stride = 1;
    if (const auto *streamed = dynamic_cast<const tzStreamedCloud *>(&cloud)) {
        entries = streamedEntries(*streamed, context, extras);
    } else {
        Entry &entry = m_entries[cloud.getUniqueID()];
        entry.used = true;
        entry.pinned = false;
        if (!upload(entry, cloud)) {
            tzLog::Warning(
                QStringLiteral("[tzGLWindow] Could not make the GPU buffers of cloud '%1'")
                    .arg(cloud.getName()));
            return;
        }
        entries.push_back(&entry);
        // A moving view draws every stride-th point: a sample spread over the whole cloud (the
        // points are in scan order), drawn from the same buffers.
        if (context.pointBudget > 0 && entry.count > context.pointBudget)
            stride = (entry.count + context.pointBudget - 1) / context.pointBudget;
    }
    const auto *coloured = dynamic_cast<const tzPointCloud *>(&cloud);
    const float size = cloud.getPointSize() > 0 ? float(cloud.getPointSize()) : context.pointSize;
    gl->glPointSize(size);
    // The program only where the fixed pipeline cannot do as well: a colour mode, round points,
    // hidden classes.
    const bool round = size >= 3.f;
    const bool shaded = m_program
        && (round || (extras & ATTRIBUTES)
            || (coloured && !cloud.isTempColorEnabled() && !coloured->plainColour()
                && coloured->colourMode() != ColourMode::Rgb));
    if (shaded) {
        m_program->bind();
        setUniforms(coloured, round);
        if (round)
            gl->glEnable(GL_POINT_SPRITE);
    }
    gl->glEnableClientState(GL_VERTEX_ARRAY);
    const bool attributesOn = shaded && (extras & ATTRIBUTES);
    const bool coloursOn = !cloud.isTempColorEnabled() && (extras & COLOURS);
    if (cloud.isTempColorEnabled()) {
        const QColor &c = cloud.getTempColor();
        gl->glColor3ub(GLubyte(c.red()), GLubyte(c.green()), GLubyte(c.blue()));
    } else if (coloursOn) {
        gl->glEnableClientState(GL_COLOR_ARRAY);
    } else if (!attributesOn) {
        const QColor &c = context.pointsDefaultColor;
        gl->glColor3ub(GLubyte(c.red()), GLubyte(c.green()), GLubyte(c.blue()));
    }
    if (attributesOn) {
        gl->glEnableVertexAttribArray(GLuint(m_intensityLocation));
        gl->glEnableVertexAttribArray(GLuint(m_classLocation));
    }
    for (Entry *entry : entries) {
        entry->points.buffer.bind();
        gl->glVertexPointer(3, GL_FLOAT, GLsizei(stride * sizeof(TZVector3)), nullptr);
        if (coloursOn) {
            entry->colours.buffer.bind();
            gl->glColorPointer(3, GL_UNSIGNED_BYTE, GLsizei(stride * sizeof(tzRgb)), nullptr);
        }
        if (attributesOn) {
            entry->attributes.buffer.bind();
            const GLsizei bytes = GLsizei(stride * sizeof(tzPointAttributes));
            gl->glVertexAttribPointer(GLuint(m_intensityLocation), 1, GL_UNSIGNED_SHORT, GL_TRUE,
                                      bytes, nullptr);
            gl->glVertexAttribPointer(GLuint(m_classLocation), 1, GL_UNSIGNED_BYTE, GL_FALSE, bytes,
                                      reinterpret_cast<const void *>(2));
        }
        gl->glDrawArrays(GL_POINTS, 0, GLsizei((entry->count + stride - 1) / stride));
    }
    if (attributesOn) {
        gl->glDisableVertexAttribArray(GLuint(m_intensityLocation));
        gl->glDisableVertexAttribArray(GLuint(m_classLocation));
    }
    gl->glDisableClientState(GL_COLOR_ARRAY);
    gl->glDisableClientState(GL_VERTEX_ARRAY);
    QOpenGLBuffer::release(QOpenGLBuffer::VertexBuffer);
    if (shaded) {
        if (round)
            gl->glDisable(GL_POINT_SPRITE);
        m_program->release();
        gl->glActiveTexture(GL_TEXTURE1);
        gl->glBindTexture(GL_TEXTURE_2D, 0);
        gl->glActiveTexture(GL_TEXTURE0);
        gl->glBindTexture(GL_TEXTURE_2D, 0);
    }
}
