#pragma once

#include "TZVector3.h"

#include <QObject>
#include <QString>

#include <atomic>
#include <functional>

class QThread;
class tzPointCloud;

//! Reads a cloud file and builds its octree on a worker thread, so that the window stays live;
//! reports progress, and the cloud or the error, by signals. A cancelled or failed load leaves
//! nothing behind. One load per loader.
class tzCloudLoader : public QObject
{
    Q_OBJECT

public:
    //! Asked (on the worker thread) when the file needs a global shift; may change it, and
    //! returns false to cancel. Empty: the suggestion is taken.
    using ShiftConfirmation = std::function<bool(const QString &path, TZVector3d &shift)>;

    explicit tzCloudLoader(const QString &path, ShiftConfirmation confirm = {},
                           QObject *parent = nullptr);
    ~tzCloudLoader() override;

    void start();
    //! Asks the load to stop at its next progress step.
    void cancel() { m_cancelled = true; }
    const QString &path() const { return m_path; }

signals:
    //! percent 0..100 of the whole load; stage names what is being done.
    void progress(int percent, const QString &stage);
    //! The new cloud, owned by the receiver.
    void loaded(tzPointCloud *cloud);
    void failed(const QString &errorText);
    void cancelled();

private:
    void run();

    QString m_path;
    ShiftConfirmation m_confirm;
    std::atomic<bool> m_cancelled {false};
    QThread *m_thread = nullptr;
};
