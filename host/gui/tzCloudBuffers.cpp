#include "tzCloudBuffers.h"

#include "tzLog.h"
#include "tzPointCloud.h"

#include <QOpenGLFunctions_2_1>

#include <algorithm>

tzCloudBuffers::~tzCloudBuffers()
{
    release();
}

void tzCloudBuffers::release()
{
    for (auto &kv : m_entries) {
        kv.second.points.destroy();
        kv.second.colors.destroy();
    }
    m_entries.clear();
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
            it->second.points.destroy();
            it->second.colors.destroy();
            it = m_entries.erase(it);
        } else {
            ++it;
        }
    }
}

bool tzCloudBuffers::prepare(const tzGenericPointCloud &cloud, unsigned &done, unsigned count)
{
    Entry &entry = m_entries[cloud.getUniqueID()];
    entry.pinned = true;
    const auto *coloured = dynamic_cast<const tzPointCloud *>(&cloud);
    const bool colours = coloured && coloured->colorsShown();
    if (done == 0) {
        // The buffers at their full size first, filled part by part below.
        entry.version = ~quint64(0);
        entry.count = 0;
        entry.hasColors = colours;
        if ((!entry.points.isCreated() && !entry.points.create())
            || (colours && !entry.colors.isCreated() && !entry.colors.create()))
            return false;
        entry.points.bind();
        entry.points.allocate(int(sizeof(TZVector3) * cloud.size()));
        entry.points.release();
        if (colours) {
            entry.colors.bind();
            entry.colors.allocate(int(sizeof(tzRgb) * cloud.size()));
            entry.colors.release();
        } else {
            entry.colors.destroy();
        }
    }
    const unsigned end = std::min(cloud.size(), done + count);
    if (end > done) {
        entry.points.bind();
        entry.points.write(int(sizeof(TZVector3) * done), cloud.data() + done,
                           int(sizeof(TZVector3) * (end - done)));
        entry.points.release();
        if (colours) {
            entry.colors.bind();
            entry.colors.write(int(sizeof(tzRgb) * done), coloured->colorData() + done,
                               int(sizeof(tzRgb) * (end - done)));
            entry.colors.release();
        }
    }
    done = end;
    if (done < cloud.size())
        return false;
    entry.count = cloud.size();
    entry.version = cloud.contentVersion();
    return true;
}

void tzCloudBuffers::forget(unsigned cloudID)
{
    const auto it = m_entries.find(cloudID);
    if (it == m_entries.end())
        return;
    it->second.points.destroy();
    it->second.colors.destroy();
    m_entries.erase(it);
}

bool tzCloudBuffers::upload(Entry &entry, const tzGenericPointCloud &cloud)
{
    const auto *coloured = dynamic_cast<const tzPointCloud *>(&cloud);
    entry.count = cloud.size();
    entry.hasColors = coloured && coloured->colorsShown();
    if (!entry.points.isCreated() && !entry.points.create())
        return false;
    entry.points.bind();
    entry.points.allocate(cloud.data(), int(sizeof(TZVector3) * cloud.size()));
    entry.points.release();
    if (entry.hasColors) {
        if (!entry.colors.isCreated() && !entry.colors.create())
            return false;
        entry.colors.bind();
        entry.colors.allocate(coloured->colorData(), int(sizeof(tzRgb) * cloud.size()));
        entry.colors.release();
    } else {
        entry.colors.destroy();
    }
    entry.version = cloud.contentVersion();
    return true;
}

void tzCloudBuffers::drawCloud(const tzGenericPointCloud &cloud, tzDrawContext &context)
{
    QOpenGLFunctions_2_1 *gl = context.glFunctions;
    if (!gl || cloud.size() == 0)
        return;
    Entry &entry = m_entries[cloud.getUniqueID()];
    entry.used = true;
    entry.pinned = false;
    if (entry.version != cloud.contentVersion() || entry.count != cloud.size()) {
        if (!upload(entry, cloud)) {
            tzLog::Warning(
                QStringLiteral("[tzGLWindow] Could not make the GPU buffers of cloud '%1'")
                    .arg(cloud.getName()));
            return;
        }
    }
    const float size = cloud.getPointSize() > 0 ? float(cloud.getPointSize()) : context.pointSize;
    gl->glPointSize(size);
    // A moving view draws every stride-th point: a sample spread over the whole cloud (the points
    // are in scan order), drawn from the same buffers.
    const unsigned stride = context.pointBudget > 0 && entry.count > context.pointBudget
        ? (entry.count + context.pointBudget - 1) / context.pointBudget
        : 1;
    gl->glEnableClientState(GL_VERTEX_ARRAY);
    entry.points.bind();
    gl->glVertexPointer(3, GL_FLOAT, GLsizei(stride * sizeof(TZVector3)), nullptr);
    if (cloud.isTempColorEnabled()) {
        const QColor &c = cloud.getTempColor();
        gl->glColor3ub(GLubyte(c.red()), GLubyte(c.green()), GLubyte(c.blue()));
    } else if (entry.hasColors) {
        gl->glEnableClientState(GL_COLOR_ARRAY);
        entry.colors.bind();
        gl->glColorPointer(3, GL_UNSIGNED_BYTE, GLsizei(stride * sizeof(tzRgb)), nullptr);
    } else {
        const QColor &c = context.pointsDefaultColor;
        gl->glColor3ub(GLubyte(c.red()), GLubyte(c.green()), GLubyte(c.blue()));
    }
    gl->glDrawArrays(GL_POINTS, 0, GLsizei((entry.count + stride - 1) / stride));
    gl->glDisableClientState(GL_COLOR_ARRAY);
    gl->glDisableClientState(GL_VERTEX_ARRAY);
    QOpenGLBuffer::release(QOpenGLBuffer::VertexBuffer);
}
