#pragma once

#include "TZVector3.h"
#include "tzCloudFile.h"
#include "tzHObject.h"
#include "tzMetaTypes.h"

#include <QObject>
#include <QString>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>

class QThread;
class tzPointCloud;

//! Reads a cloud file or a scene file and builds the clouds' octrees on a worker thread, so
//! that the window stays live; reports progress, and the result or the error, by signals. A
//! cancelled or failed load leaves nothing behind. One load per loader.
//!
//! A scene file is one whose name ends in ".tzs"; anything else is read as a cloud.
//!
//! A cloud whose coordinates need a global shift either takes the suggested one, or (askShift)
//! emits shiftRequested and waits for answerShift(); cancel() ends the wait too, so a window
//! that goes away while its question is still unanswered never leaves the loader waiting. The
//! suggestion is the scene's shift when the scene has one and the file fits in it
//! (setSceneShift), else the file's own.
class tzFileLoader : public QObject
{
    Q_OBJECT

public:
    explicit tzFileLoader(const QString &path, bool askShift = false, QObject *parent = nullptr);
    ~tzFileLoader() override;

    //! The shift of the scene the file joins (before start()).
    void setSceneShift(const TZVector3d &shift) { m_sceneShift = shift; }
    void start();
    //! Asks the load to stop at its next progress step (any thread).
    void cancel();
    //! Whether the load was asked to stop (what it has read is then not to be used, even if it
    //! finished meanwhile).
    bool isCancelled() const { return m_cancelled; }
    //! The answer to shiftRequested (any thread): the shift to apply, or refused (the load is
    //! then cancelled).
    void answerShift(bool accepted, const TZVector3d &shift);
    const QString &path() const { return m_path; }
    static bool isSceneFile(const QString &path);
    //! The new cloud (a tzPointCloud), the group of a file's scans (E57) or the root of the
    //! scene read, once loaded; the caller owns it. What nobody takes goes with the loader.
    tzHObject *takeResult() { return m_result.release(); }
    //! The latest first picture of the cloud being read (previewReady), or null; the caller
    //! owns it. Any thread.
    tzPointCloud *takePreview();

signals:
    //! percent 0..100 of the whole load; stage names what is being done.
    void progress(int percent, const QString &stage);
    //! The load succeeded: takeResult() gives what was read.
    void loaded();
    void failed(const QString &errorText);
    void cancelled();
    //! The file needs a global shift; suggested is what the reader proposes (sceneShift: the
    //! scene's). Emitted on the worker thread, which waits for answerShift() or cancel().
    void shiftRequested(const QString &path, const TZVector3d &suggested, bool sceneShift);
    //! The suggested shift was applied without asking.
    void shiftTaken(const TZVector3d &shift, bool sceneShift);
    //! What the reader passed over that the user should know (emitted on the worker thread).
    void note(const QString &text);
    //! A coarse sample of the points read so far is ready (takePreview()); emitted on the
    //! worker thread, while the reading goes on.
    void previewReady();

private:
    void run();
    tzHObject *read(QString &error);
    //! How the files are read: the scene's shift, the shift asked or told, the notes.
    tzCloudFile::LoadOptions loadOptions();
    //! Opens an indexed (COPC) file as a streamed cloud.
    tzHObject *readStreamed(const QString &path, QString &error);
    //! Indexes a file whose points read whole would take more than limit bytes (indexPath: the
    //! index to open, empty when the file is read whole), its progress told between
    //! progressFrom and progressFrom + progressSpan percent; false, with the error, when
    //! indexing failed or was cancelled.
    bool indexIfTooLarge(const QString &path, double limit, QString &indexPath, QString &error,
                         int progressFrom, int progressSpan);
    //! Indexes the tiles of a survey's set that are too large to be read whole as one node.
    bool indexLargeTiles(QString &error);
    //! What a point read whole costs in memory (points, colours, attributes, octree, buffers).
    static constexpr double BYTES_PER_POINT = 53;
    //! Builds the octree of every cloud under object; false when memory ran out or the load was
    //! cancelled meanwhile.
    bool index(tzHObject *object, QString &error);
    bool askForShift(TZVector3d &shift, bool sceneShift);

    QString m_path;
    bool m_askShift = false;
    std::optional<TZVector3d> m_sceneShift;
    std::atomic<bool> m_cancelled {false};
    std::mutex m_answerMutex;
    std::condition_variable m_answerReady;
    bool m_answered = false; // under m_answerMutex, with the two below
    bool m_shiftAccepted = false;
    TZVector3d m_answeredShift;
    QThread *m_thread = nullptr;
    std::unique_ptr<tzHObject> m_result;
    std::mutex m_previewMutex;
    std::unique_ptr<tzPointCloud> m_preview; // under m_previewMutex
};
