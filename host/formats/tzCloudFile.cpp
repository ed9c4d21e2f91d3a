#include "tzCloudFile.h"
#include "tzCloudFormats_p.h"

#include "tzPointCloud.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

namespace tzCloudFile {

namespace {

using namespace detail;

//! What read() gives, or nothing with errorText naming the file and the problem.
template<typename Read>
auto reading(const QString &name, QString &errorText, Read &&read) -> decltype(read())
{
    try {
        return read();
    } catch (const ReadFailure &failure) {
        errorText = QStringLiteral("'%1': %2").arg(name, failure.reason);
    } catch (const Cancelled &) {
        errorText = QStringLiteral("'%1': loading cancelled").arg(name);
    } catch (const std::bad_alloc &) {
        errorText = QStringLiteral("'%1': Not enough memory").arg(name);
    }
    return {};
}

tzPointCloud *readAny(const Bytes &bytes, const QString &extension, const QString &name,
                      QString &errorText, const LoadOptions &options)
{
    const Format *format = formatOf(extension);
    if (!format || !format->read) {
        errorText = QStringLiteral("'%1': unknown cloud format '%2'").arg(name, extension);
        return nullptr;
    }
    return reading(name, errorText,
                   [&] { return format->read(bytes, name, extension.toLower(), options); });
}

//! The format of a cloud file by its extension, or null with errorText saying so.
const Format *cloudFormatOf(const QString &path, QString &errorText)
{
    const QString suffix = QFileInfo(path).suffix().toLower();
    const Format *format = formatOf(suffix);
    if (!format || !format->read) {
        errorText = QStringLiteral("'%1': unknown cloud file extension '.%2'").arg(path, suffix);
        return nullptr;
    }
    return format;
}

} // namespace

bool needsShift(const TZVector3d &p)
{
    return std::abs(p.x) >= MAX_UNSHIFTED_COORDINATE || std::abs(p.y) >= MAX_UNSHIFTED_COORDINATE
        || std::abs(p.z) >= MAX_UNSHIFTED_COORDINATE;
}

TZVector3d suggestShift(const TZVector3d &p)
{
    TZVector3d shift;
    for (int d = 0; d < 3; ++d) {
        if (std::abs(p[d]) >= MAX_UNSHIFTED_COORDINATE)
            shift[d] = -std::round(p[d] / 100.0) * 100.0;
    }
    return shift;
}

bool decideShift(const TZVector3d &reference, const LoadOptions &options, TZVector3d &shift)
{
    shift = TZVector3d();
    if (!needsShift(reference))
        return true;
    const std::optional<TZVector3d> &scene = options.sceneShift;
    const bool inScene = scene && !needsShift(reference + *scene);
    shift = inScene ? *scene : suggestShift(reference);
    return !options.confirmShift || options.confirmShift(shift, inScene);
}

tzPointCloud *loadFromMemory(const QByteArray &bytes, const QString &format, const QString &name,
                             QString &errorText, const LoadOptions &options)
{
    const Bytes view {reinterpret_cast<const uchar *>(bytes.constData()), size_t(bytes.size())};
    return readAny(view, format, name, errorText, options);
}

bool describe(const QString &path, QJsonObject &info, QString &errorText)
{
    const QString suffix = QFileInfo(path).suffix().toLower();
    const Format *format = formatOf(suffix);
    FileBytes in;
    if (!format || !format->read) {
        errorText = QStringLiteral("'%1': unknown cloud file extension '.%2'").arg(path, suffix);
        return false;
    }
    if (!in.open(path, errorText))
        return false;
    info = QJsonObject();
    if (format->describe) {
        info = reading(path, errorText, [&] { return format->describe(in.bytes()); });
        if (info.isEmpty())
            return false;
    } else {
        info.insert(QStringLiteral("format"), format->description);
    }
    info.insert(QStringLiteral("file"), QFileInfo(path).absoluteFilePath());
    info.insert(QStringLiteral("bytes"), double(in.bytes().size));
    return true;
}

namespace {

QString textOf(const QJsonValue &value)
{
    if (value.isDouble()) {
        const double v = value.toDouble();
        return v == std::round(v) && std::abs(v) < 1e15 ? QString::number(qint64(v))
                                                        : QString::number(v, 'g', 15);
    }
    if (value.isBool())
        return value.toBool() ? QStringLiteral("yes") : QStringLiteral("no");
    return value.toString();
}

void appendText(QStringList &lines, const QString &indent, const QString &key,
                const QJsonValue &value)
{
    if (value.isObject()) {
        // The first facts first, the rest by name.
        static const QStringList FIRST {
            QStringLiteral("file"),         QStringLiteral("bytes"),
            QStringLiteral("format"),       QStringLiteral("compressor"),
            QStringLiteral("version"),      QStringLiteral("encoding"),
            QStringLiteral("points"),       QStringLiteral("pointFormat"),
            QStringLiteral("recordLength"), QStringLiteral("bounds"),
            QStringLiteral("min"),          QStringLiteral("max"),
            QStringLiteral("scale"),        QStringLiteral("offset"),
            QStringLiteral("system"),       QStringLiteral("software"),
            QStringLiteral("name"),         QStringLiteral("userId"),
            QStringLiteral("recordId"),     QStringLiteral("description"),
            QStringLiteral("laz"),          QStringLiteral("copc")};
        const QJsonObject object = value.toObject();
        QStringList keys = object.keys();
        std::stable_sort(keys.begin(), keys.end(), [](const QString &a, const QString &b) {
            const int ia = FIRST.indexOf(a), ib = FIRST.indexOf(b);
            return (ia < 0 ? FIRST.size() : ia) < (ib < 0 ? FIRST.size() : ib);
        });
        const QString inner = key.isEmpty() ? indent : indent + QStringLiteral("  ");
        if (!key.isEmpty())
            lines << indent + key + QLatin1Char(':');
        for (const QString &k : keys)
            appendText(lines, inner, k, object.value(k));
        return;
    }
    if (value.isArray()) {
        const QJsonArray array = value.toArray();
        const bool flat = std::none_of(array.begin(), array.end(), [](const QJsonValue &v) {
            return v.isObject() || v.isArray();
        });
        if (flat) {
            QStringList items;
            for (const QJsonValue &v : array)
                items << textOf(v);
            lines << indent + key + QStringLiteral(": ") + items.join(QStringLiteral(", "));
            return;
        }
        lines << indent + key + QStringLiteral(" (%1):").arg(array.size());
        for (int i = 0; i < array.size(); ++i)
            appendText(lines, indent + QStringLiteral("  "), QString::number(i + 1), array[i]);
        return;
    }
    lines << indent + key + QStringLiteral(": ") + textOf(value);
}

} // namespace

QString describeAsText(const QJsonObject &info)
{
    QStringList lines;
    appendText(lines, QString(), QString(), info);
    return lines.join(QLatin1Char('\n')) + QLatin1Char('\n');
}

bool convert(const QString &inPath, const QString &outPath, QString &errorText, quint32 chunkSize,
             const LoadOptions &options)
{
    const QString outKind = QFileInfo(outPath).suffix().toLower();
    const Format *inFormat = formatOf(QFileInfo(inPath).suffix());
    const Format *outFormat = formatOf(outKind);
    if (QFileInfo(inPath).absoluteFilePath() == QFileInfo(outPath).absoluteFilePath()) {
        errorText = QStringLiteral("'%1': the output would overwrite the input").arg(outPath);
        return false;
    }
    if (!writableKinds().contains(outKind)) {
        errorText = QStringLiteral("'%1': clouds are written as LAS, LAZ or PLY, not '.%2'")
                        .arg(outPath, outKind);
        return false;
    }
    // Between two formats of one record copier (LAS and LAZ), the records are copied as they
    // are stored.
    if (!inFormat || !inFormat->copyRecords || inFormat != outFormat) {
        // Through the cloud: read, then written in its global coordinates.
        const std::unique_ptr<tzPointCloud> cloud(load(inPath, errorText, options));
        return cloud && save(*cloud, outPath, errorText, chunkSize, options);
    }
    FileBytes in;
    if (!in.open(inPath, errorText))
        return false;
    return writeWhole(
        outPath, inPath, QStringLiteral("conversion"),
        [&](QIODevice &out) {
            inFormat->copyRecords(in.bytes(), outKind == QLatin1String("laz"), chunkSize, out,
                                  options);
        },
        errorText);
}

bool convertScans(const QString &inPath, const QString &outPath, QStringList &written,
                  QString &errorText, quint32 chunkSize, const LoadOptions &options)
{
    written.clear();
    const QFileInfo out(outPath);
    if (!writableKinds().contains(out.suffix().toLower())) {
        errorText = QStringLiteral("'%1': clouds are written as LAS, LAZ or PLY, not '.%2'")
                        .arg(outPath, out.suffix());
        return false;
    }
    std::vector<std::unique_ptr<tzPointCloud>> scans;
    for (tzPointCloud *scan : loadScans(inPath, errorText, options))
        scans.emplace_back(scan);
    if (scans.empty())
        return false;
    QStringList names;
    for (const auto &scan : scans) {
        const QString unique = uniqueFileName(
            scan->getName(), QStringLiteral("scan%1").arg(names.size() + 1), names);
        const QString path = out.dir().filePath(
            QStringLiteral("%1-%2.%3").arg(out.completeBaseName(), unique, out.suffix()));
        if (!save(*scan, path, errorText, chunkSize, options)) {
            for (const QString &done : written)
                QFile::remove(done);
            written.clear();
            return false;
        }
        written << path;
    }
    return true;
}

tzPointCloud *load(const QString &path, QString &errorText, const LoadOptions &options)
{
    FileBytes file;
    if (!cloudFormatOf(path, errorText) || !file.open(path, errorText))
        return nullptr;
    const QFileInfo info(path);
    tzPointCloud *cloud = readAny(file.bytes(), info.suffix().toLower(), path, errorText, options);
    if (cloud)
        cloud->setName(info.completeBaseName());
    return cloud;
}

tzHObject *loadObjects(const QString &path, QString &errorText, const LoadOptions &options)
{
    const Format *format = cloudFormatOf(path, errorText);
    if (!format)
        return nullptr;
    if (!format->readGroup)
        return load(path, errorText, options);
    FileBytes file;
    if (!file.open(path, errorText))
        return nullptr;
    return reading(path, errorText, [&] { return format->readGroup(file.bytes(), path, options); });
}

std::vector<tzPointCloud *> loadScans(const QString &path, QString &errorText,
                                      const LoadOptions &options)
{
    std::vector<tzPointCloud *> scans;
    const Format *format = formatOf(QFileInfo(path).suffix());
    if (!format || !format->readScans) {
        if (tzPointCloud *cloud = load(path, errorText, options))
            scans.push_back(cloud);
        return scans;
    }
    FileBytes file;
    if (!file.open(path, errorText))
        return scans;
    std::vector<std::unique_ptr<tzPointCloud>> read
        = reading(path, errorText, [&] { return format->readScans(file.bytes(), path, options); });
    for (std::unique_ptr<tzPointCloud> &cloud : read)
        scans.push_back(cloud.release());
    return scans;
}

} // namespace tzCloudFile
