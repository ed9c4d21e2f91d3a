#include "tzLoadPipeline.h"
#include "tzCopc.h"

#include "tzApplicationInterface.h"
#include "tzFileLoader.h"
#include "tzGLWindow.h"
#include "tzPointCloud.h"
#include "tzProgressDialog.h"

#include <QDialog>
#include <QDialogButtonBox>
#include <QDoubleSpinBox>
#include <QFileInfo>
#include <QFormLayout>
#include <QLabel>
#include <QPointer>
#include <QSettings>

#include <array>

namespace {

// The progress leaves the screen, then the result joins the scene: its first frame may be long.
constexpr int FIRST_FRAME_DELAY_MS = 30;

} // namespace

tzLoadPipeline::tzLoadPipeline(QWidget *window, tzGLWindow *view, const Options &options)
    : QObject(window)
    , m_window(window)
    , m_view(view)
    , m_viewAlive(view)
    , m_options(options)
{
    m_uploadTimer.setInterval(0);
    connect(&m_uploadTimer, &QTimer::timeout, this, &tzLoadPipeline::uploadStep);
}

tzLoadPipeline::~tzLoadPipeline()
{
    // A load in progress is cancelled and waited for; what it read never reaches the scene.
    if (m_loader) {
        m_loader->cancel();
        delete m_loader;
        m_loader = nullptr;
    }
    if (m_preview && m_viewAlive)
        m_view->setPreview(nullptr);
}

void tzLoadPipeline::open(const QStringList &paths)
{
    m_pendingFiles << paths;
    if (!m_loader)
        openNextFile();
}

void tzLoadPipeline::cancel()
{
    if (m_loader)
        m_loader->cancel();
}

void tzLoadPipeline::askShift(const QString &path, const TZVector3d &suggested, bool sceneShift)
{
    // Asked without a nested event loop: the loader waits for the answer, and the window stays
    // free to go away meanwhile (the loader is then cancelled, which ends its wait).
    QPointer<tzFileLoader> loader = m_loader;
    if (!loader)
        return;
    auto *dialog = new QDialog(m_window);
    dialog->setObjectName(QStringLiteral("shiftDialog"));
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setWindowTitle(QObject::tr("Global shift"));
    auto *form = new QFormLayout(dialog);
    const QString name = QFileInfo(path).fileName();
    QString question;
    if (sceneShift) {
        question
            = QObject::tr("The coordinates of '%1' are too large to be shown precisely.\nThey will "
                          "be shifted as the clouds already open are (the scene's shift), so that "
                          "all are drawn together:")
                  .arg(name);
    } else if (m_sceneShift && m_sceneShift()) {
        question
            = QObject::tr("'%1' lies too far from the clouds already open to share their shift: it "
                          "takes its own and is drawn apart from them.\nIts coordinates will be "
                          "shifted by:")
                  .arg(name);
    } else {
        question
            = QObject::tr("The coordinates of '%1' are too large to be shown precisely.\nThey will "
                          "be shifted by:")
                  .arg(name);
    }
    form->addRow(new QLabel(question));
    std::array<QDoubleSpinBox *, 3> boxes;
    const char *labels[3] = {"X", "Y", "Z"};
    for (int d = 0; d < 3; ++d) {
        boxes[d] = new QDoubleSpinBox(dialog);
        boxes[d]->setRange(-1e9, 1e9);
        boxes[d]->setDecimals(2);
        boxes[d]->setValue(suggested[d]);
        form->addRow(QString::fromLatin1(labels[d]), boxes[d]);
    }
    auto *buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel);
    form->addRow(buttons);
    connect(buttons, &QDialogButtonBox::accepted, dialog, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, dialog, &QDialog::reject);
    // The question is asked with nothing in front of it: the progress steps aside meanwhile.
    if (m_progress)
        m_progress->hold();
    connect(dialog, &QDialog::finished, this, [this, loader, boxes](int result) {
        if (m_progress)
            m_progress->release();
        if (loader) {
            loader->answerShift(
                result == QDialog::Accepted,
                TZVector3d(boxes[0]->value(), boxes[1]->value(), boxes[2]->value()));
        }
    });
    dialog->open();
}

void tzLoadPipeline::showPreview(const QString &path)
{
    if (!m_loader || m_loader->isCancelled())
        return;
    std::unique_ptr<tzPointCloud> cloud(m_loader->takePreview());
    if (!cloud)
        return; // taken by an earlier signal
    unsigned done = 0;
    m_view->prepareCloud(*cloud, done, cloud->size());
    m_view->setPreview(cloud.get());
    const unsigned points = cloud->size();
    m_preview = std::move(cloud);
    emit previewShown(path, points);
}

void tzLoadPipeline::dropPreview()
{
    if (!m_preview)
        return;
    m_view->setPreview(nullptr);
    m_preview.reset();
}

void tzLoadPipeline::openNextFile()
{
    if (m_loader || m_pendingFiles.isEmpty())
        return;
    const QString path = m_pendingFiles.takeFirst();
    const QString fileName = QFileInfo(path).fileName();
    if (!tzCopc::isUrl(path)) {
        QSettings settings;
        settings.beginGroup(QStringLiteral("LoadFile"));
        settings.setValue(QStringLiteral("currentPath"), QFileInfo(path).absolutePath());
        settings.endGroup();
    }

    m_loader = new tzFileLoader(path, !m_options.autoShift);
    if (const std::optional<TZVector3d> shift = m_sceneShift ? m_sceneShift() : std::nullopt)
        m_loader->setSceneShift(*shift);
    if (m_options.autoShift) {
        connect(m_loader, &tzFileLoader::shiftTaken, this,
                [this, path](const TZVector3d &shift, bool sceneShift) {
                    emit said(
                        QStringLiteral("'%1': coordinates shifted by (%2; %3; %4)%5")
                            .arg(path)
                            .arg(shift.x, 0, 'f', 2)
                            .arg(shift.y, 0, 'f', 2)
                            .arg(shift.z, 0, 'f', 2)
                            .arg(sceneShift ? QStringLiteral(", the scene's shift") : QString()),
                        tzApplicationInterface::STD_CONSOLE_MESSAGE);
                });
    } else {
        connect(m_loader, &tzFileLoader::shiftRequested, this, &tzLoadPipeline::askShift);
    }
    connect(m_loader, &tzFileLoader::note, this, [this](const QString &text) {
        emit said(text, tzApplicationInterface::WRN_CONSOLE_MESSAGE);
    });
    connect(m_loader, &tzFileLoader::previewReady, this, [this, path] { showPreview(path); });
    m_progress = new tzProgressDialog(QObject::tr("Opening %1").arg(fileName),
                                      m_options.progressDelay, m_window);
    m_progress->setObjectName(QStringLiteral("loadProgress"));
    connect(m_progress, &tzProgressDialog::canceled, m_loader, &tzFileLoader::cancel,
            Qt::DirectConnection);
    tzProgressDialog *progress = m_progress;
    connect(m_loader, &tzFileLoader::progress, progress,
            [progress, fileName](int percent, const QString &stage) {
                progress->setProgress(percent, QStringLiteral("%1 %2...").arg(stage, fileName));
            });
    const auto finish = [this, path](bool ok, const QString &error, bool cancelled) {
        // Cancel may have come after the last step checked it, while its result waited for
        // this thread: the user's word holds, nothing is added.
        if (m_loader->isCancelled()) {
            ok = false;
            cancelled = true;
        }
        if (!ok) {
            end(path, false, error, cancelled);
            return;
        }
        // The last step, on this thread: the points go to the GPU in parts, the event loop
        // (and Cancel) free between them; the scene gets the result once they are there.
        m_uploading.reset(m_loader->takeResult());
        m_uploadingPath = path;
        m_uploadClouds.clear();
        if (m_uploading->isKindOf(TZ_TYPES::POINT_CLOUD))
            m_uploadClouds.push_back(static_cast<tzGenericPointCloud *>(m_uploading.get()));
        tzHObject::Container clouds;
        m_uploading->filterChildren(clouds, true, TZ_TYPES::POINT_CLOUD);
        for (tzHObject *cloud : clouds)
            m_uploadClouds.push_back(static_cast<tzGenericPointCloud *>(cloud));
        if (!tzFileLoader::isSceneFile(path)) {
            for (tzGenericPointCloud *cloud : m_uploadClouds)
                emit cloudRead(cloud, path);
        }
        m_uploadCloud = 0;
        m_uploadedPoints = 0;
        m_uploadTimer.start();
    };
    connect(m_loader, &tzFileLoader::loaded, this, [finish] { finish(true, QString(), false); });
    connect(m_loader, &tzFileLoader::failed, this,
            [finish](const QString &error) { finish(false, error, false); });
    connect(m_loader, &tzFileLoader::cancelled, this, [finish] { finish(false, QString(), true); });
    m_loader->start();
}

void tzLoadPipeline::uploadStep()
{
    if (!m_loader || !m_uploading) {
        m_uploadTimer.stop();
        return;
    }
    const QString path = m_uploadingPath;
    if (m_loader->isCancelled()) {
        m_uploadTimer.stop();
        for (const tzGenericPointCloud *cloud : m_uploadClouds)
            m_view->forgetPreparedCloud(cloud->getUniqueID());
        m_uploadClouds.clear();
        m_uploading.reset();
        end(path, false, QString(), true);
        return;
    }
    quint64 total = 0, done = 0;
    for (std::size_t i = 0; i < m_uploadClouds.size(); ++i) {
        total += m_uploadClouds[i]->size();
        if (i < m_uploadCloud)
            done += m_uploadClouds[i]->size();
    }
    if (m_uploadCloud < m_uploadClouds.size()) {
        const tzGenericPointCloud &cloud = *m_uploadClouds[m_uploadCloud];
        if (m_view->prepareCloud(cloud, m_uploadedPoints, m_options.uploadStepPoints)) {
            done += cloud.size();
            ++m_uploadCloud;
            m_uploadedPoints = 0;
        } else {
            done += m_uploadedPoints;
        }
        if (m_progress) {
            m_progress->setProgress(90 + int(total ? 10 * done / total : 10),
                                    QObject::tr("Uploading %1...").arg(QFileInfo(path).fileName()));
        }
        if (m_uploadCloud < m_uploadClouds.size())
            return;
    }
    m_uploadTimer.stop();
    m_uploadClouds.clear();
    // The progress leaves the screen before the scene's first frame, which may be long: the
    // result joins the scene once the window system has taken the dialog away.
    if (m_progress)
        m_progress->hide();
    QTimer::singleShot(FIRST_FRAME_DELAY_MS, this, [this, path] {
        std::unique_ptr<tzHObject> object = std::move(m_uploading);
        if (!object)
            return;
        dropPreview();
        emit arrived(path, object.release());
        end(path, true, QString(), false);
    });
}

void tzLoadPipeline::end(const QString &path, bool ok, const QString &error, bool cancelled)
{
    // Taken off the members first: nothing below may find a half-finished load.
    tzFileLoader *loader = m_loader;
    tzProgressDialog *progress = m_progress;
    m_loader = nullptr;
    m_progress = nullptr;
    progress->hide();
    dropPreview();
    if (cancelled) {
        emit said(QStringLiteral("'%1': opening cancelled").arg(path),
                  tzApplicationInterface::WRN_CONSOLE_MESSAGE);
    } else if (!ok) {
        emit said(error, tzApplicationInterface::ERR_CONSOLE_MESSAGE);
    }
    // Not deleted under the signal that called us.
    loader->deleteLater();
    progress->deleteLater();
    emit opened(path, ok);
    openNextFile();
}
