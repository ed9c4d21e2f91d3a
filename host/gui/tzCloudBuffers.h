#pragma once

#include "tzDrawContext.h"

#include <QOpenGLBuffer>

#include <unordered_map>

//! The GPU buffers of the clouds a view draws: points and colours uploaded once, drawn with one
//! glDrawArrays, reloaded when a cloud's content changes and released when it is no longer
//! drawn. Lives in the view's GL context; release() before the context goes.
class tzCloudBuffers : public tzCloudRenderer
{
public:
    ~tzCloudBuffers() override;

    void drawCloud(const tzGenericPointCloud &cloud, tzDrawContext &context) override;
    //! Uploads the next part of a cloud not drawn yet (from point `done`, at most count points;
    //! done then counts what is on the GPU), so that a large upload is done in steps that
    //! leave the event loop free. The buffers are kept, drawn or not, until the cloud is drawn
    //! or forgotten. True once the whole cloud is uploaded; false on a GL failure too (done
    //! then stays where it was).
    bool prepare(const tzGenericPointCloud &cloud, unsigned &done, unsigned count);
    //! Drops what prepare() uploaded for a cloud that will not be drawn.
    void forget(unsigned cloudID);
    //! Call around each full 3D pass: buffers of clouds not drawn in it are released.
    void beginFrame();
    void endFrame();
    void release();

private:
    struct Entry
    {
        QOpenGLBuffer points {QOpenGLBuffer::VertexBuffer};
        QOpenGLBuffer colors {QOpenGLBuffer::VertexBuffer};
        quint64 version = ~quint64(0);
        unsigned count = 0;
        bool hasColors = false;
        bool used = false;
        bool pinned = false; // prepared, not drawn yet: kept by endFrame()
    };
    bool upload(Entry &entry, const tzGenericPointCloud &cloud);

    std::unordered_map<unsigned, Entry> m_entries; // by the cloud's unique ID
};
