#include "tzPhotoList.h"

#include "tzImageFrustum.h"
#include "tzPhotoListKeys.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTextStream>

QString photoListBase(const QString &cloudName)
{
    const int cut = cloudName.lastIndexOf(QLatin1String(" - Cloud"));
    return cut < 0 ? cloudName : cloudName.left(cut);
}

std::vector<tzImageFrustum *> readPhotoList(const QString &path, const QString &folder,
                                            tzApplicationInterface *app,
                                            const std::function<bool()> &directionShown,
                                            QString *problem)
{
    std::vector<tzImageFrustum *> frustums;
    QFile file(path);
    if (!file.exists())
        return frustums;
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        if (problem)
            *problem = file.errorString();
        return frustums;
    }
    QTextStream in(&file);
    in.setCodec("UTF-8");
    QString text;
    while (!in.atEnd())
        text += in.readLine();
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(text.toUtf8(), &error);
    if (problem && error.error != QJsonParseError::NoError) {
        *problem = QStringLiteral("not JSON (%1 at character %2)")
                       .arg(error.errorString())
                       .arg(error.offset);
    } else if (problem && !document.isObject()) {
        *problem = QStringLiteral("not a JSON object with an \"images\" list");
    }
    if (document.isEmpty() || document.object().isEmpty())
        return frustums;
    const QJsonArray images
        = document.object().value(QLatin1String(tzPhotoListKeys::IMAGES)).toArray();
    for (int i = 0; i < images.size(); ++i) {
        auto *frustum = new tzImageFrustum(app, directionShown, QStringLiteral("imageFrustum"));
        if (!frustum->readPhoto(images.at(i).toObject())) {
            delete frustum;
            continue;
        }
        frustum->setPhotoFolder(folder);
        frustums.push_back(frustum);
    }
    return frustums;
}
