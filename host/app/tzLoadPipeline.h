#pragma once

#include "TZVector3.h"

#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QTimer>

#include <functional>
#include <memory>
#include <optional>
#include <vector>

class QWidget;
class tzFileLoader;
class tzGLWindow;
class tzGenericPointCloud;
class tzHObject;
class tzPointCloud;
class tzProgressDialog;

//! Opening files into the viewer, one after the other: each read and indexed on a loader's
//! thread (the global shift asked or taken, the scene's when the file fits in it), its points
//! then put on the GPU in steps with the event loop free between them, a progress with its
//! Cancel throughout, and what was read handed over at the end. The main window shows what it
//! reports and adopts what arrives.
class tzLoadPipeline : public QObject
{
    Q_OBJECT

public:
    struct Options
    {
        bool autoShift = false; //!< take the suggested shift without asking
        int progressDelay = 300; //!< ms before a load's progress is shown
        unsigned uploadStepPoints = 2000000; //!< points put on the GPU in one step
    };

    //! window: the parent of the questions and the progress; view: where the points go.
    tzLoadPipeline(QWidget *window, tzGLWindow *view, const Options &options);
    //! Cancels a load under way and waits for its thread.
    ~tzLoadPipeline() override;

    //! The shift of the scene a file joins, asked as each file starts (nothing: none yet).
    void setSceneShift(std::function<std::optional<TZVector3d>()> shift)
    {
        m_sceneShift = std::move(shift);
    }
    //! Opens the files after those already waiting.
    void open(const QStringList &paths);
    //! Cancels the load under way (the next files still open).
    void cancel();
    bool isLoading() const { return m_loader != nullptr; }

signals:
    //! A cloud of a file just read, before its points go to the GPU (a scene's are not told).
    void cloudRead(tzGenericPointCloud *cloud, const QString &path);
    //! What a file gave, its points on the GPU: the receiver owns it and adds it to the scene now.
    void arrived(const QString &path, tzHObject *object);
    //! A file done: ok false when it failed or was cancelled (nothing added).
    void opened(const QString &path, bool ok);
    //! What the user should read (a tzApplicationInterface console level).
    void said(const QString &text, int level);
    //! A first picture of a file being read is drawn (points: how many it shows).
    void previewShown(const QString &path, unsigned points);

private:
    void openNextFile();
    void askShift(const QString &path, const TZVector3d &suggested, bool sceneShift);
    //! Draws the loader's latest first picture in the view (not in the scene), in place of the
    //! one before.
    void showPreview(const QString &path);
    void dropPreview();
    //! One step of a load's last phase: the next part of its points to the GPU, or, all there,
    //! the result handed over.
    void uploadStep();
    //! Ends the load under way: says how it went and goes on with the next file.
    void end(const QString &path, bool ok, const QString &error, bool cancelled);

    QWidget *m_window;
    tzGLWindow *m_view;
    QPointer<tzGLWindow> m_viewAlive; // the view may go first when the window closes
    Options m_options;
    std::function<std::optional<TZVector3d>()> m_sceneShift;
    QStringList m_pendingFiles;
    tzFileLoader *m_loader = nullptr;
    tzProgressDialog *m_progress = nullptr;
    // A load's last phase: what it read, its clouds going to the GPU one step at a time.
    std::unique_ptr<tzHObject> m_uploading;
    QString m_uploadingPath;
    std::vector<tzGenericPointCloud *> m_uploadClouds;
    std::size_t m_uploadCloud = 0; // the cloud being uploaded
    unsigned m_uploadedPoints = 0; // of that cloud
    QTimer m_uploadTimer;
    std::unique_ptr<tzPointCloud> m_preview; // drawn by the view while its file is read
};
