#include "tzSceneFile.h"

#include "tz2DViewportObject.h"
#include "tzCone.h"
#include "tzImage.h"
#include "tzLog.h"
#include "tzPointCloud.h"
#include "tzPolyline.h"
#include "tzSerialization.h"
#include "tzSphere.h"
#include "tzStreamedCloud.h"

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
        tzHObject::RegisterFactory(TZ_TYPES::STREAMED_CLOUD, [] { return new tzStreamedCloud(); });
        tzHObject::RegisterFactory(TZ_TYPES::POLY_LINE, [] { return new tzPolyline(); });
        tzHObject::RegisterFactory(TZ_TYPES::SPHERE, [] { return new tzSphere(); });
        tzHObject::RegisterFactory(TZ_TYPES::CONE, [] { return new tzCone(); });
        tzHObject::RegisterFactory(TZ_TYPES::CYLINDER, [] { return new tzCylinder(); });
        tzHObject::RegisterFactory(TZ_TYPES::IMAGE, [] { return new tzImage(); });
        tzHObject::RegisterFactory(TZ_TYPES::VIEWPORT_2D_OBJECT,
                                   [] { return new tz2DViewportObject(); });
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
    if (!writeBytes(out, MAGIC, 4) || !tzSerialization::write<quint16>(out, quint16(dataVersion)))
        return fail(WriteError);
    tzSerialization::setWrittenVersion(dataVersion);
    const bool written = root->toFile(out);
    tzSerialization::setWrittenVersion(CURRENT_DATA_VERSION);
    return written;
}

namespace {

// A file seen through its progress: reads pass through, the share read so far is told, and a
// "stop" answer makes further reads fail. Random access, so that size checks still bound what
// a corrupt count may allocate.
class ProgressDevice : public QIODevice
{
public:
    ProgressDevice(QIODevice &source, const std::function<bool(int)> &progress)
        : m_source(source)
        , m_progress(progress)
    {
    }
    bool isSequential() const override { return false; }
    qint64 size() const override { return m_source.size(); }
    bool seek(qint64 pos) override { return QIODevice::seek(pos) && m_source.seek(pos); }

protected:
    qint64 readData(char *data, qint64 maxSize) override
    {
        if (m_stopped)
            return -1;
        const qint64 n = m_source.read(data, maxSize);
        const qint64 total = m_source.size();
        if (n > 0 && total > 0) {
            const int percent = int(100 * m_source.pos() / total);
            if (percent != m_lastPercent) {
                m_lastPercent = percent;
                if (!m_progress(percent)) {
                    m_stopped = true;
                    return -1;
                }
            }
        }
        return n;
    }
    qint64 writeData(const char *, qint64) override { return -1; }

private:
    QIODevice &m_source;
    const std::function<bool(int)> &m_progress;
    int m_lastPercent = -1;
    bool m_stopped = false;
};

} // namespace

tzHObject *read(QIODevice &in, QString &errorText)
{
    registerBuiltInTypes();
    char magic[4] = {};
    quint16 version = 0;
    if (!readBytes(in, magic, 4) || std::memcmp(magic, MAGIC, 4) != 0
        || !tzSerialization::read(in, version)) {
        errorText = QString::fromLatin1(ReadError);
        return nullptr;
    }
    if (short(version) < OLDEST_DATA_VERSION || short(version) > CURRENT_DATA_VERSION) {
        errorText
            = QStringLiteral("Unsupported scene file version %1 (this program reads %2 to %3)")
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
    if ((classID & TZ_TYPES::CUSTOM_H_OBJECT) == TZ_TYPES::CUSTOM_H_OBJECT
        && !readString(in, factoryName)) {
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
        errorText = QStringLiteral("%1: %2 (%3)")
                        .arg(path, QLatin1String(WriteError), file.errorString());
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
    return load(path, errorText, {});
}

tzHObject *load(const QString &path, QString &errorText,
                const std::function<bool(int percent)> &progress)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        errorText
            = QStringLiteral("%1: %2 (%3)").arg(path, QLatin1String(ReadError), file.errorString());
        return nullptr;
    }
    QString reason;
    tzHObject *root = nullptr;
    if (progress) {
        ProgressDevice watched(file, progress);
        watched.open(QIODevice::ReadOnly | QIODevice::Unbuffered);
        root = read(watched, reason);
    } else {
        root = read(file, reason);
    }
    if (!root) {
        errorText = QStringLiteral("%1: %2").arg(path, reason);
        return nullptr;
    }
    if (root->getName().isEmpty())
        root->setName(QFileInfo(path).fileName());
    return root;
}

} // namespace tzSceneFile
