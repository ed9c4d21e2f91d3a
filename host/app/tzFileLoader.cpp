#include "tzFileLoader.h"

#include "tzCloudFile.h"
#include "tzCopc.h"
#include "tzPointCloud.h"
#include "tzSceneFile.h"
#include "tzStreamedCloud.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QStandardPaths>
#include <QThread>

#include <memory>

tzFileLoader::tzFileLoader(const QString &path, bool askShift, QObject *parent)
    : QObject(parent)
    , m_path(path)
    , m_askShift(askShift)
{
    qRegisterMetaType<TZVector3d>();
}

tzFileLoader::~tzFileLoader()
{
    if (m_thread) {
        cancel();
        m_thread->wait();
        delete m_thread;
    }
}

void tzFileLoader::cancel()
{
    m_cancelled = true;
    std::lock_guard<std::mutex> lock(m_answerMutex);
    m_answerReady.notify_all();
}

void tzFileLoader::answerShift(bool accepted, const TZVector3d &shift)
{
    std::lock_guard<std::mutex> lock(m_answerMutex);
    m_answered = true;
    m_shiftAccepted = accepted;
    m_answeredShift = shift;
    m_answerReady.notify_all();
}

bool tzFileLoader::askForShift(TZVector3d &shift, bool sceneShift)
{
    std::unique_lock<std::mutex> lock(m_answerMutex);
    m_answered = false;
    lock.unlock();
    emit shiftRequested(m_path, shift, sceneShift);
    lock.lock();
    m_answerReady.wait(lock, [this] { return m_answered || m_cancelled; });
    if (m_cancelled || !m_shiftAccepted) {
        // Refusing the shift is the user's cancel, not a failure of the file.
        m_cancelled = true;
        return false;
    }
    shift = m_answeredShift;
    return true;
}

void tzFileLoader::start()
{
    if (m_thread)
        return;
    m_thread = QThread::create([this] { run(); });
    m_thread->start();
}

tzPointCloud *tzFileLoader::takePreview()
{
    std::lock_guard<std::mutex> lock(m_previewMutex);
    return m_preview.release();
}

bool tzFileLoader::isSceneFile(const QString &path)
{
    return tzCloudFile::isScene(path);
}

tzHObject *tzFileLoader::read(QString &error)
{
    // Reading is 70 % of the bar, the octrees 20 %; the window uploads the points after.
    const auto readProgress = [this](int percent) {
        emit progress(percent * 7 / 10, tr("Reading"));
        return !m_cancelled.load();
    };
    // A survey on a server is streamed from it (an indexed file is all it can be), and so is
    // a survey's set of tiles.
    if (tzCopc::isUrl(m_path))
        return readStreamed(m_path, error);
    if (tzCopc::isTileSet(m_path))
        return indexLargeTiles(error) ? readStreamed(m_path, error) : nullptr;
    if (isSceneFile(m_path))
        return tzSceneFile::load(m_path, error, readProgress);
    if (tzCopc::isCopc(m_path))
        return readStreamed(m_path, error);
    QString indexed;
    if (!indexIfTooLarge(m_path, double(tzStreamedCloud::defaultMemoryBudget()), indexed, error, 0,
                         90))
        return nullptr;
    if (!indexed.isEmpty())
        return readStreamed(indexed, error);
    tzCloudFile::LoadOptions options = loadOptions();
    options.progress = readProgress;
    const QString name = QFileInfo(m_path).completeBaseName();
    options.preview = [this, name](std::vector<TZVector3> &&points, std::vector<tzRgb> &&colours,
                                   const TZVector3d &shift) {
        auto cloud = std::make_unique<tzPointCloud>(name);
        cloud->setPoints(std::move(points));
        if (!colours.empty())
            cloud->setColors(std::move(colours));
        cloud->setGlobalShift(shift);
        {
            std::lock_guard<std::mutex> lock(m_previewMutex);
            m_preview = std::move(cloud);
        }
        emit previewReady();
    };
    tzHObject *object = tzCloudFile::loadObjects(m_path, error, options);
    if (!object)
        return nullptr;
    if (object->getName().isEmpty())
        object->setName(QFileInfo(m_path).completeBaseName());
    tzHObject::Container clouds;
    if (object->isKindOf(TZ_TYPES::POINT_CLOUD))
        clouds.push_back(object);
    object->filterChildren(clouds, true, TZ_TYPES::POINT_CLOUD);
    for (tzHObject *cloud : clouds) {
        cloud->setMetaData(QLatin1String(tzGenericPointCloud::SOURCE_FILE_KEY),
                           QFileInfo(m_path).absoluteFilePath());
    }
    return object;
}

tzCloudFile::LoadOptions tzFileLoader::loadOptions()
{
    tzCloudFile::LoadOptions options;
    options.sceneShift = m_sceneShift;
    options.confirmShift = [this](TZVector3d &shift, bool sceneShift) {
        if (m_askShift)
            return askForShift(shift, sceneShift);
        emit shiftTaken(shift, sceneShift);
        return true;
    };
    options.note = [this](const QString &text) { emit note(text); };
    return options;
}

bool tzFileLoader::indexIfTooLarge(const QString &path, double limit, QString &indexPath,
                                   QString &error, int progressFrom, int progressSpan)
{
    QJsonObject info;
    QString problem;
    if (!tzCloudFile::describe(path, info, problem))
        return true; // the reader will say what is wrong with it
    const double points = info.value(QStringLiteral("points")).toDouble();
    if (points * BYTES_PER_POINT <= limit)
        return true;
    // The index goes beside the file, or in the cache when its folder cannot be written; one
    // made before is used again while it is newer than the file.
    indexPath = tzCopc::indexPathFor(path);
    if (tzCopc::isIndexOf(indexPath, path))
        return true;
    emit note(tr("'%1' holds %2 million points, more than the memory budget of %3 GB takes: "
                 "it is indexed into '%4' and shown part by part")
                  .arg(QFileInfo(path).fileName())
                  .arg(points / 1e6, 0, 'f', 1)
                  .arg(double(tzStreamedCloud::defaultMemoryBudget()) / double(1 << 30), 0, 'f', 1)
                  .arg(indexPath));
    if (QFileInfo::exists(indexPath))
        QFile::remove(indexPath); // made before the file changed
    tzCopc::IndexOptions options;
    options.progress = [this, progressFrom, progressSpan](int percent, const QString &stage) {
        emit progress(progressFrom + percent * progressSpan / 100, stage);
        return !m_cancelled.load();
    };
    options.note = [this](const QString &text) { emit note(text); };
    if (!tzCopc::index({path}, indexPath, error, options)) {
        indexPath.clear();
        return false;
    }
    return true;
}

bool tzFileLoader::indexLargeTiles(QString &error)
{
    // A tile is read whole as one node: one that would take more than an eighth of the budget
    // is indexed first.
    const QStringList tiles = tzCopc::tilesOf(m_path);
    const double limit = double(tzStreamedCloud::defaultMemoryBudget()) / 8;
    for (int i = 0; i < tiles.size() && !m_cancelled; ++i) {
        const QString &tile = tiles[i];
        if (tzCopc::isUrl(tile) || tzCopc::isCopc(tile))
            continue;
        QString indexPath;
        if (!indexIfTooLarge(tile, limit, indexPath, error, 90 * i / int(tiles.size()),
                             90 / int(tiles.size())))
            return false;
    }
    return !m_cancelled;
}

tzHObject *tzFileLoader::readStreamed(const QString &path, QString &error)
{
    // An indexed file: its points are read part by part as the views need them.
    std::unique_ptr<tzCloudSource> source = tzCopc::openSource(path, error);
    if (!source)
        return nullptr;
    // The shift by the box's low corner, or its high one when only that needs one.
    double lo[3], hi[3];
    source->pointBounds(lo, hi);
    const TZVector3d low(lo[0], lo[1], lo[2]), high(hi[0], hi[1], hi[2]);
    TZVector3d shift;
    if (!tzCloudFile::decideShift(tzCloudFile::needsShift(low) ? low : high, loadOptions(), shift))
        return nullptr;
    auto cloud = std::make_unique<tzStreamedCloud>(std::move(source),
                                                   QFileInfo(m_path).completeBaseName());
    cloud->setGlobalShift(shift);
    if (!cloud->open(error))
        return nullptr;
    // A survey without colours is shown by elevation, as the readers of whole files do.
    if (!cloud->hasColors())
        cloud->setColourMode(tzPointDisplay::ColourMode::Elevation);
    cloud->setMetaData(QLatin1String(tzGenericPointCloud::SOURCE_FILE_KEY),
                       tzCopc::isUrl(m_path) ? m_path : QFileInfo(m_path).absoluteFilePath());
    return cloud.release();
}

bool tzFileLoader::index(tzHObject *object, QString &error)
{
    tzHObject::Container clouds;
    if (object->isKindOf(TZ_TYPES::POINT_CLOUD))
        clouds.push_back(object);
    object->filterChildren(clouds, true, TZ_TYPES::POINT_CLOUD);
    for (std::size_t i = 0; i < clouds.size() && !m_cancelled; ++i) {
        auto *cloud = static_cast<tzGenericPointCloud *>(clouds[i]);
        const int first = 70 + int(20 * i / clouds.size());
        const int span = int(20 / clouds.size());
        if (!cloud->computeOctree([this, first, span](int percent) {
                emit progress(first + percent * span / 100, tr("Indexing"));
            })
            && cloud->size() > 0) {
            error = QStringLiteral("'%1': not enough memory to index the points of '%2'")
                        .arg(m_path, cloud->getName());
            return false;
        }
        // What the colour modes read (percentiles, classes), ready before the first switch.
        if (auto *shown = dynamic_cast<tzPointCloud *>(cloud))
            shown->classCounts();
    }
    return !m_cancelled;
}

void tzFileLoader::run()
{
    QString error;
    std::unique_ptr<tzHObject> object(read(error));
    if (object && index(object.get(), error)) {
        m_result = std::move(object);
        emit progress(90, tr("Indexing"));
        emit loaded();
        return;
    }
    if (m_cancelled)
        emit cancelled();
    else
        emit failed(error);
}
