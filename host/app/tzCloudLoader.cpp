#include "tzCloudLoader.h"

#include "tzCloudFile.h"
#include "tzPointCloud.h"

#include <QFileInfo>
#include <QThread>

tzCloudLoader::tzCloudLoader(const QString &path, ShiftConfirmation confirm, QObject *parent)
    : QObject(parent)
    , m_path(path)
    , m_confirm(std::move(confirm))
{
}

tzCloudLoader::~tzCloudLoader()
{
    if (m_thread) {
        m_cancelled = true;
        m_thread->wait();
        delete m_thread;
    }
}

void tzCloudLoader::start()
{
    if (m_thread)
        return;
    m_thread = QThread::create([this] { run(); });
    m_thread->start();
}

void tzCloudLoader::run()
{
    // Reading is 80 % of the bar, the octree the rest.
    tzCloudFile::LoadOptions options;
    options.progress = [this](int percent) {
        emit progress(percent * 8 / 10, tr("Reading"));
        return !m_cancelled.load();
    };
    if (m_confirm) {
        options.confirmShift = [this](TZVector3d &shift) {
            // Refusing the shift is the user's cancel, not a failure of the file.
            if (m_confirm(m_path, shift))
                return true;
            m_cancelled = true;
            return false;
        };
    }
    QString error;
    tzPointCloud *cloud = tzCloudFile::load(m_path, error, options);
    if (!cloud) {
        if (m_cancelled)
            emit cancelled();
        else
            emit failed(error);
        return;
    }
    if (cloud->getName().isEmpty())
        cloud->setName(QFileInfo(m_path).completeBaseName());
    const auto *octree = cloud->computeOctree(
        [this](int percent) { emit progress(80 + percent / 5, tr("Indexing")); });
    if (m_cancelled) {
        delete cloud;
        emit cancelled();
        return;
    }
    if (!octree && cloud->size() > 0) {
        delete cloud;
        emit failed(QStringLiteral("'%1': not enough memory to index the points").arg(m_path));
        return;
    }
    emit progress(100, tr("Done"));
    emit loaded(cloud);
}
