#include "tzPhotoStations.h"

#include "tzApplicationInterface.h"
#include "tzImageFrustum.h"
#include "tzPhotoList.h"
#include "tzPointCloud.h"

#include <QDir>
#include <QFileInfo>
#include <QSettings>
#include <QStandardPaths>

#include <algorithm>

std::vector<tzImageFrustum *> tzPhotoStations::under(tzHObject *root)
{
    std::vector<tzImageFrustum *> frustums;
    tzHObject::Container objects;
    if (root)
        root->filterChildren(objects, true, TZ_TYPES::IMAGE);
    for (tzHObject *object : objects) {
        if (auto *frustum = dynamic_cast<tzImageFrustum *>(object))
            frustums.push_back(frustum);
    }
    return frustums;
}

void tzPhotoStations::setVisible(tzHObject *root, bool visible)
{
    for (tzImageFrustum *frustum : under(root))
        frustum->setVisible(visible);
}

void tzPhotoStations::select(tzImageFrustum *photo, tzHObject *root)
{
    for (tzImageFrustum *other : under(root)) {
        if (other != photo && other->isSelected())
            other->setSelected(false);
    }
    photo->setSelected(true);
}

namespace {

struct ListPlace
{
    QString path; // the list
    QString folder; // its pictures
};

ListPlace photoListOf(const tzGenericPointCloud &cloud, const QString &currentPath)
{
    // Beside the cloud's own file first, then in the viewer's last folder.
    const QString name = photoListBase(cloud.getName());
    QStringList bases;
    const QString source
        = cloud.getMetaData(QLatin1String(tzGenericPointCloud::SOURCE_FILE_KEY)).toString();
    if (!source.isEmpty())
        bases << QFileInfo(source).absoluteDir().filePath(name);
    bases << currentPath + QLatin1Char('/') + name;
    QString base = bases.first();
    for (const QString &candidate : bases) {
        if (QFileInfo::exists(candidate + QStringLiteral(".img/images.json"))) {
            base = candidate;
            break;
        }
    }
    ListPlace place {base + QStringLiteral(".img/images.json"), base + QStringLiteral(".img/")};
    // The list the viewer made of the photos the cloud's own file holds (a scanner's).
    const QString made
        = cloud.getMetaData(QLatin1String(tzGenericPointCloud::PHOTO_LIST_KEY)).toString();
    if (!made.isEmpty() && !QFileInfo::exists(place.path))
        place = {made, QFileInfo(made).absolutePath() + QLatin1Char('/')};
    return place;
}

} // namespace

void tzPhotoStations::load(tzApplicationInterface *app, const std::function<bool()> &directionShown)
{
    if (!app || !app->databaseRoot())
        return;
    QSettings settings;
    settings.beginGroup(QStringLiteral("LoadFile"));
    const QStringList documents
        = QStandardPaths::standardLocations(QStandardPaths::DocumentsLocation);
    const QString currentPath
        = settings.value(QStringLiteral("currentPath"), documents.value(0)).toString();
    tzHObject::Container clouds;
    app->databaseRoot()->filterChildren(clouds, true, TZ_TYPES::POINT_CLOUD);
    for (tzHObject *object : clouds) {
        auto *cloud = dynamic_cast<tzGenericPointCloud *>(object);
        if (!cloud)
            continue;
        const ListPlace list = photoListOf(*cloud, currentPath);
        QString problem;
        const std::vector<tzImageFrustum *> photos
            = readPhotoList(list.path, list.folder, app, directionShown, &problem);
        if (!problem.isEmpty() && !m_unreadableLists.contains(list.path)) {
            m_unreadableLists.insert(list.path);
            app->printToConsole(
                QStringLiteral("[tzLumivert] The photo list of cloud '%1' cannot "
                               "be read: '%2': %3")
                    .arg(cloud->getName(), QDir::toNativeSeparators(list.path), problem),
                tzApplicationInterface::WRN_CONSOLE_MESSAGE);
        }
        if (photos.empty())
            continue;
        std::vector<tzImageFrustum *> known = under(cloud);
        for (tzImageFrustum *photo : photos) {
            const bool duplicate
                = std::any_of(known.begin(), known.end(), [photo](tzImageFrustum *k) {
                      return k->cameraName() == photo->cameraName();
                  });
            if (duplicate) {
                delete photo;
                continue;
            }
            cloud->addChild(photo, DP_PARENT_OF_OTHER, -1);
            photo->setVisible(true);
            app->addToDatabase(photo, false, false, false, false);
            known.push_back(photo);
        }
        app->refreshAllViews();
    }
}
