#include "tzCloudFile.h"
#include "tzCloudFormats_p.h"

#include "tzPointCloud.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

namespace tzCloudFile {

namespace {

using namespace detail;

//! A file's bytes, mapped (read at memory speed) or, where mapping fails, read whole; an
//! empty file cannot be mapped and gives no bytes.
class FileBytes
{
public:
    bool open(const QString &path, QString &errorText)
    {
        m_file.setFileName(path);
        if (!m_file.open(QIODevice::ReadOnly)) {
            errorText = QStringLiteral("'%1': cannot open (%2)").arg(path, m_file.errorString());
            return false;
        }
        if (m_file.size() > 0) {
            m_bytes.data = m_file.map(0, m_file.size());
            m_bytes.size = size_t(m_file.size());
            if (!m_bytes.data) {
                m_copy = m_file.readAll();
                m_bytes.data = reinterpret_cast<const uchar *>(m_copy.constData());
                m_bytes.size = size_t(m_copy.size());
            }
        }
        return true;
    }
    const Bytes &bytes() const { return m_bytes; }

private:
    QFile m_file;
    QByteArray m_copy;
    Bytes m_bytes;
};

tzPointCloud *readAny(const Bytes &bytes, const QString &extension, const QString &name,
                      QString &errorText, const LoadOptions &options)
{
    const Format *format = formatOf(extension);
    if (!format || !format->read) {
        errorText = QStringLiteral("'%1': unknown cloud format '%2'").arg(name, extension);
        return nullptr;
    }
    try {
        return format->read(bytes, name, extension.toLower(), options);
    } catch (const ReadFailure &failure) {
        errorText = QStringLiteral("'%1': %2").arg(name, failure.reason);
    } catch (const Cancelled &) {
        errorText = QStringLiteral("'%1': loading cancelled").arg(name);
    } catch (const std::bad_alloc &) {
        errorText = QStringLiteral("'%1': Not enough memory").arg(name);
    }
    return nullptr;
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

tzPointCloud *loadFromMemory(const QByteArray &bytes, const QString &format, const QString &name,
                             QString &errorText, const LoadOptions &options)
{
    const Bytes view{reinterpret_cast<const uchar *>(bytes.constData()), size_t(bytes.size())};
    return readAny(view, format, name, errorText, options);
}

bool convert(const QString &inPath, const QString &outPath, QString &errorText, quint32 chunkSize,
             const LoadOptions &options)
{
    const QString inKind = QFileInfo(inPath).suffix().toLower();
    const QString outKind = QFileInfo(outPath).suffix().toLower();
    const auto lasKind = [](const QString &kind) {
        return kind == QLatin1String("las") || kind == QLatin1String("laz");
    };
    if (QFileInfo(inPath).absoluteFilePath() == QFileInfo(outPath).absoluteFilePath()) {
        errorText = QStringLiteral("'%1': the output would overwrite the input").arg(outPath);
        return false;
    }
    if (!writableKinds().contains(outKind)) {
        errorText = QStringLiteral("'%1': clouds are written as LAS, LAZ or PLY, not '.%2'")
                        .arg(outPath, outKind);
        return false;
    }
    if (!lasKind(inKind) || !lasKind(outKind)) {
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
            convertLas(in.bytes(), outKind == QLatin1String("laz"), chunkSize, out, options);
        },
        errorText);
}

tzPointCloud *load(const QString &path, QString &errorText, const LoadOptions &options)
{
    const QFileInfo info(path);
    const QString suffix = info.suffix().toLower();
    const Format *format = formatOf(suffix);
    if (!format || !format->read) {
        errorText = QStringLiteral("'%1': unknown cloud file extension '.%2'").arg(path, suffix);
        return nullptr;
    }
    FileBytes file;
    if (!file.open(path, errorText))
        return nullptr;
    tzPointCloud *cloud = readAny(file.bytes(), suffix, path, errorText, options);
    if (cloud)
        cloud->setName(info.completeBaseName());
    return cloud;
}

} // namespace tzCloudFile
