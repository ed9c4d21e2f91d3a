#include "tzSceneFile.h"

#include "tz2DViewportObject.h"
#include "tzCone.h"
#include "tzImage.h"
#include "tzLog.h"
#include "tzPointCloud.h"
#include "tzPolyline.h"
#include "tzSerialization.h"
#include "tzSphere.h"

#include <QFileInfo>
#include <QSaveFile>

#include <cstring>
#include <memory>

using namespace tzSerialization;

namespace tzSceneFile {

namespace {

const char MAGIC[4] = {'T', 'Z', 'S', 'F'};

void registerBuiltInTypes()
{
    static const bool done = [] {
        tzHObject::RegisterFactory(TZ_TYPES::HIERARCHY_OBJECT, [] { return new tzHObject(); });
        tzHObject::RegisterFactory(TZ_TYPES::POINT_CLOUD, [] { return new tzPointCloud(); });
        tzHObject::RegisterFactory(TZ_TYPES::POLY_LINE, [] { return new tzPolyline(); });
        tzHObject::RegisterFactory(TZ_TYPES::SPHERE, [] { return new tzSphere(); });
        tzHObject::RegisterFactory(TZ_TYPES::CONE, [] { return new tzCone(); });
        tzHObject::RegisterFactory(TZ_TYPES::CYLINDER, [] { return new tzCylinder(); });
        tzHObject::RegisterFactory(TZ_TYPES::IMAGE, [] { return new tzImage(); });
        tzHObject::RegisterFactory(TZ_TYPES::VIEWPORT_2D_OBJECT, [] { return new tz2DViewportObject(); });
        return true;
    }();
    Q_UNUSED(done)
}

bool relink(tzHObject *object, const tzHObject::LoadedIDMap &oldToNew)
{
    if (!object->resolveLoadedReferences(oldToNew))
        return false;
    for (unsigned i = 0; i < object->getChildrenNumber(); ++i) {
        if (!relink(object->getChild(i), oldToNew))
            return false;
    }
    return true;
}


} // namespace

bool write(const tzHObject *root, QIODevice &out, short dataVersion)
{
    if (!root)
        return false;
    return (writeBytes(out, MAGIC, 4) && tzSerialization::write<quint16>(out, quint16(dataVersion)))
        ? root->toFile(out)
        : fail(WriteError);
}

tzHObject *read(QIODevice &in, QString &errorText)
{
    registerBuiltInTypes();
    char magic[4] = {};
    quint16 version = 0;
    if (!readBytes(in, magic, 4) || std::memcmp(magic, MAGIC, 4) != 0 || !tzSerialization::read(in, version)) {
        errorText = QString::fromLatin1(ReadError);
        return nullptr;
    }
    if (short(version) < OLDEST_DATA_VERSION || short(version) > CURRENT_DATA_VERSION) {
        errorText = QStringLiteral("Unsupported scene file version %1 (this program reads %2 to %3)")
                        .arg(version)
                        .arg(OLDEST_DATA_VERSION)
                        .arg(CURRENT_DATA_VERSION);
        return nullptr;
    }
    quint32 classID = 0;
    if (!tzSerialization::read(in, classID)) {
        errorText = QString::fromLatin1(ReadError);
        return nullptr;
    }
    QString factoryName;
    if ((classID & TZ_TYPES::CUSTOM_H_OBJECT) == TZ_TYPES::CUSTOM_H_OBJECT && !readString(in, factoryName)) {
        errorText = QString::fromLatin1(ReadError);
        return nullptr;
    }
    std::unique_ptr<tzHObject> root(tzHObject::New(classID, factoryName));
    if (!root) {
        errorText = QString::fromLatin1(ReadError);
        return nullptr;
    }
    tzHObject::LoadedIDMap oldToNew;
    bool ok = false;
    try {
        ok = root->fromFile(in, short(version), oldToNew);
    } catch (const std::bad_alloc &) {
        errorText = QString::fromLatin1(MemoryError);
        return nullptr;
    }
    if (!ok || !in.atEnd() || !relink(root.get(), oldToNew)) {
        errorText = QString::fromLatin1(ReadError);
        return nullptr;
    }
    return root.release();
}

bool save(const tzHObject *root, const QString &path, QString &errorText, short dataVersion)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        errorText = QStringLiteral("%1: %2 (%3)").arg(path, QLatin1String(WriteError), file.errorString());
        tzLog::Error(errorText);
        return false;
    }
    if (!write(root, file, dataVersion) || !file.commit()) {
        file.cancelWriting();
        errorText = QStringLiteral("%1: %2").arg(path, QLatin1String(WriteError));
        return false;
    }
    return true;
}

tzHObject *load(const QString &path, QString &errorText)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        errorText = QStringLiteral("%1: %2 (%3)").arg(path, QLatin1String(ReadError), file.errorString());
        return nullptr;
    }
    QString reason;
    tzHObject *root = read(file, reason);
    if (!root) {
        errorText = QStringLiteral("%1: %2").arg(path, reason);
        return nullptr;
    }
    if (root->getName().isEmpty())
        root->setName(QFileInfo(path).fileName());
    return root;
}

} // namespace tzSceneFile
