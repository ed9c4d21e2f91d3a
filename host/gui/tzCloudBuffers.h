#pragma once

#include "tzDrawContext.h"
#include "tzStreamedCloud.h"

#include <QOpenGLBuffer>

#include <memory>
#include <unordered_map>
#include <vector>

class QOpenGLShaderProgram;
class QOpenGLTexture;
class tzPointCloud;

//! The GPU buffers of the clouds a view draws: points uploaded once, with what the cloud's
//! colour mode needs (its colours, or its intensities and classes), drawn with one
//! glDrawArrays; reloaded when a cloud's content changes and released when it is no longer
//! drawn. The colour modes are worked out by a small shader program from the points and those
//! values, so that switching modes costs no upload of colours. Lives in the view's GL context;
//! release() before the context goes.
class tzCloudBuffers : public tzCloudRenderer
{
public:
    tzCloudBuffers();
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
    //! Whether the colour modes are drawn (false when the driver has no shaders: colours or
    //! one plain colour then).
    bool modesDrawn() const { return m_program != nullptr; }
    //! The most points of a streamed cloud drawn in a still view.
    void setStillBudget(unsigned points) { m_stillBudget = points; }
    unsigned stillBudget() const { return m_stillBudget; }
    //! Told the time a still frame of the clouds took: the still budget follows it (fewer
    //! points when the frame is slow, more when it is quick and the budget held points back).
    void adaptStillBudget(qint64 frameNs);

private:
    //! What a cloud needs on the GPU besides its points (bits).
    enum Extra : int { NO_EXTRA = 0, COLOURS = 1, ATTRIBUTES = 2 };
    //! A buffer and the content version of the cloud it holds (none: ~0).
    struct Buffer
    {
        QOpenGLBuffer buffer {QOpenGLBuffer::VertexBuffer};
        quint64 version = ~quint64(0);
        void destroy()
        {
            buffer.destroy();
            version = ~quint64(0);
        }
    };
    struct Entry
    {
        Buffer points;
        // Uploaded the first time the cloud is shown in a mode that needs them, then kept while
        // the cloud is drawn: switching back and forth between modes uploads nothing.
        Buffer colours;
        Buffer attributes;
        unsigned count = 0;
        bool used = false;
        bool pinned = false; // prepared, not drawn yet: kept by endFrame()
        void destroy()
        {
            points.destroy();
            colours.destroy();
            attributes.destroy();
        }
    };
    int extrasOf(const tzGenericPointCloud &cloud) const;
    //! Brings the points and what the cloud's mode needs up to date; false on a GL failure.
    bool upload(Entry &entry, const tzGenericPointCloud &cloud);
    //! Writes values [from, to) of a buffer of the cloud's size (made on from == 0).
    static bool write(Buffer &buffer, const void *values, int bytesEach, unsigned size,
                      unsigned from, unsigned to);
    //! Brings a streamed node's buffers up to date; false on a GL failure.
    static bool uploadPiece(Entry &entry, const tzStreamedCloud::Piece &piece, int extras);
    //! The buffers of the nodes of a streamed cloud that the pass's camera needs.
    std::vector<Entry *> streamedEntries(const tzStreamedCloud &cloud, tzDrawContext &context,
                                         int extras);
    void makeProgram();
    void setUniforms(const tzPointCloud *cloud, bool round);

    // By the cloud's unique ID; a streamed cloud's nodes by the ID in the high bits and the
    // node's serial in the low ones.
    std::unordered_map<quint64, Entry> m_entries;
    unsigned m_stillBudget = 8000000;
    bool m_budgetReached = false; // a streamed cloud of the last frame had more to draw
    bool m_programTried = false;
    std::unique_ptr<QOpenGLShaderProgram> m_program;
    std::unique_ptr<QOpenGLTexture> m_ramp;
    std::unique_ptr<QOpenGLTexture> m_classes;
    int m_intensityLocation = -1;
    int m_classLocation = -1;
};
