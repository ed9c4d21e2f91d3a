#pragma once

#include "TZVector3.h"
#include "tzHObject.h"

#include <QObject>
#include <QString>

#include <atomic>
#include <functional>
#include <memory>

class QThread;

//! Reads a cloud file or a scene file and builds the clouds' octrees on a worker thread, so
//! that the window stays live; reports progress, and the result or the error, by signals. A
//! cancelled or failed load leaves nothing behind. One load per loader.
//!
//! A scene file is one whose name ends in ".tzs"; anything else is read as a cloud.
class tzFileLoader : public QObject
{
    Q_OBJECT

public:
    //! Asked (on the worker thread) when the file needs a global shift; may change it, and
    //! returns false to cancel. Empty: the suggestion is taken.
    using ShiftConfirmation = std::function<bool(const QString &path, TZVector3d &shift)>;

    explicit tzFileLoader(const QString &path, ShiftConfirmation confirm = {},
                          QObject *parent = nullptr);
    ~tzFileLoader() override;

    void start();
    //! Asks the load to stop at its next progress step.
    void cancel() { m_cancelled = true; }
    const QString &path() const { return m_path; }
    static bool isSceneFile(const QString &path);
    //! The new cloud (a tzPointCloud) or the root of the scene read, once loaded; the caller
    //! owns it. What nobody takes goes with the loader.
    tzHObject *takeResult() { return m_result.release(); }

signals:
    //! percent 0..100 of the whole load; stage names what is being done.
    void progress(int percent, const QString &stage);
    //! The load succeeded: takeResult() gives what was read.
    void loaded();
    void failed(const QString &errorText);
    void cancelled();

private:
    void run();
    tzHObject *read(QString &error);
    //! Builds the octree of every cloud under object; false when memory ran out or the load was
    //! cancelled meanwhile.
    bool index(tzHObject *object, QString &error);

    QString m_path;
    ShiftConfirmation m_confirm;
    std::atomic<bool> m_cancelled {false};
    QThread *m_thread = nullptr;
    std::unique_ptr<tzHObject> m_result;
};
