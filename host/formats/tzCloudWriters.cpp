// Writing a cloud of the scene to a file, in its global coordinates: LAS 1.2, LAZ, binary PLY.

#include "tzCloudFormats_p.h"
#include "tzCopc.h"
#include "tzLasFile_p.h"
#include "tzLazCodec.h"
#include "tzStreamedCloud.h"

#include <QFileInfo>
#include <QSaveFile>

#include <cmath>
#include <cstring>

namespace tzCloudFile {

namespace {

using namespace detail;

// A point's intensity, returns and class in a record of point format 0 to 5 (3-bit return
// fields, a 5-bit class: a class above 31 is written as unclassified); return 1 of 1 and never
// classified where the cloud has no such attribute.
void writeAttributes(const tzPointCloud &cloud, unsigned index, uchar *record)
{
    record[14] = 1 | (1 << 3);
    if (!cloud.attributeKinds())
        return;
    const tzPointAttributes &a = cloud.getPointAttributes(index);
    std::memcpy(record + 12, &a.intensity, 2);
    if (cloud.hasAttribute(tzPointDisplay::RETURNS)) {
        record[14] = uchar(std::min<int>(a.returnNumber(), 7)
                           | std::min<int>(a.numberOfReturns(), 7) << 3);
    }
    record[15] = a.classification <= 31 ? a.classification : 1;
}

// The LAS records are in millimetres.
constexpr double LAS_SCALE = 0.001;

//! The global coordinates of a cloud's point: local / scale - shift.
TZVector3d globalOf(const tzGenericPointCloud &cloud, unsigned i)
{
    const double s = cloud.getGlobalScale() == 0 ? 1.0 : cloud.getGlobalScale();
    const TZVector3 &p = *cloud.getPoint(i);
    const TZVector3d &t = cloud.getGlobalShift();
    return {p.x / s - t.x, p.y / s - t.y, p.z / s - t.z};
}

void writeAll(QIODevice &out, const char *data, qint64 size)
{
    if (out.write(data, size) != size)
        failWith(QStringLiteral("cannot write: %1").arg(out.errorString()));
}

void writeLasOrLaz(const tzPointCloud &cloud, bool laz, quint32 chunkSize, QIODevice &out,
                   const LoadOptions &options)
{
    const unsigned n = cloud.size();
    const bool colours = cloud.hasColors();
    const int format = colours ? 2 : 0;
    const int length = colours ? 26 : 20;
    // The box, and the offsets that keep the records' integers small.
    TZVector3d min(0, 0, 0), max(0, 0, 0);
    for (unsigned i = 0; i < n; ++i) {
        const TZVector3d g = globalOf(cloud, i);
        for (int d = 0; d < 3; ++d) {
            min[d] = i == 0 ? g[d] : std::min(min[d], g[d]);
            max[d] = i == 0 ? g[d] : std::max(max[d], g[d]);
        }
    }
    double offset[3];
    for (int d = 0; d < 3; ++d) {
        offset[d] = std::floor(min[d] / 1000.0) * 1000.0;
        if ((max[d] - offset[d]) / LAS_SCALE > 2147483647.0)
            failWith(QStringLiteral("the cloud is too large for LAS records in millimetres"));
    }
    tzLaz::Description description;
    QByteArray vlr;
    if (laz) {
        std::string error;
        if (!tzLaz::describeFormat(format, size_t(length), chunkSize, description, error))
            failWith(QString::fromStdString(error));
        vlr = laszipVlr(description);
    }
    LasHeader header;
    header.major = 1;
    header.minor = 2;
    header.software = QStringLiteral("Tessaro");
    header.headerSize = 227;
    header.dataOffset = quint32(227 + vlr.size());
    header.vlrCount = laz ? 1u : 0u;
    header.format = format;
    header.compressed = laz;
    header.recordLength = quint16(length);
    header.count = n;
    header.firstReturns = n; // all first returns
    for (int d = 0; d < 3; ++d) {
        header.scale[d] = LAS_SCALE;
        header.offset[d] = offset[d];
        header.bbMax[d] = n ? max[d] : 0.0;
        header.bbMin[d] = n ? min[d] : 0.0;
    }
    const QByteArray head = header.write();
    writeAll(out, head.constData(), head.size());
    writeAll(out, vlr.constData(), vlr.size());
    const qint64 tableOffsetAt = out.pos();
    if (laz) {
        const qint64 placeholder = -1;
        writeAll(out, reinterpret_cast<const char *>(&placeholder), 8);
    }
    const quint32 step = laz ? description.chunkSize : 65536u;
    tzLaz::ChunkEncoder encoder(description);
    std::vector<uchar> records, encoded;
    std::vector<tzLaz::Chunk> chunks;
    CloudBuilder progress(options);
    for (unsigned first = 0; first < n; first += step) {
        const unsigned count = std::min(step, n - first);
        records.assign(size_t(count) * size_t(length), 0);
        for (unsigned i = 0; i < count; ++i) {
            uchar *r = records.data() + size_t(i) * size_t(length);
            const TZVector3d g = globalOf(cloud, first + i);
            for (int d = 0; d < 3; ++d) {
                const qint32 v = qint32(std::llround((g[d] - offset[d]) / LAS_SCALE));
                std::memcpy(r + 4 * d, &v, 4);
            }
            writeAttributes(cloud, first + i, r);
            if (colours) {
                const tzRgb &c = cloud.getPointColor(first + i);
                const quint16 rgb[3] = {quint16(c.r * 257), quint16(c.g * 257), quint16(c.b * 257)};
                std::memcpy(r + 20, rgb, 6);
            }
        }
        if (laz) {
            encoded.clear();
            encoder.encode(records.data(), count, encoded);
            chunks.push_back({quint64(out.pos()), encoded.size(), count});
            writeAll(out, reinterpret_cast<const char *>(encoded.data()), qint64(encoded.size()));
        } else {
            writeAll(out, reinterpret_cast<const char *>(records.data()), qint64(records.size()));
        }
        progress.progress(first + count, n);
    }
    if (laz) {
        const qint64 tableOffset = out.pos();
        std::vector<uchar> table;
        tzLaz::writeChunkTable(chunks, false, table);
        writeAll(out, reinterpret_cast<const char *>(table.data()), qint64(table.size()));
        if (!out.seek(tableOffsetAt))
            failWith(QStringLiteral("cannot write: %1").arg(out.errorString()));
        writeAll(out, reinterpret_cast<const char *>(&tableOffset), 8);
    }
}

void writePly(const tzPointCloud &cloud, QIODevice &out, const LoadOptions &options)
{
    const unsigned n = cloud.size();
    const bool colours = cloud.hasColors();
    const bool intensity = cloud.hasAttribute(tzPointDisplay::INTENSITY);
    const bool classification = cloud.hasAttribute(tzPointDisplay::CLASSIFICATION);
    const bool returns = cloud.hasAttribute(tzPointDisplay::RETURNS);
    QByteArray head = "ply\nformat binary_little_endian 1.0\ncomment written by Tessaro, global "
                      "coordinates\nelement vertex "
        + QByteArray::number(n) + "\nproperty double x\nproperty double y\nproperty double z\n";
    if (colours)
        head += "property uchar red\nproperty uchar green\nproperty uchar blue\n";
    if (intensity)
        head += "property ushort intensity\n";
    if (classification)
        head += "property uchar classification\n";
    if (returns)
        head += "property uchar return_number\nproperty uchar number_of_returns\n";
    head += "end_header\n";
    writeAll(out, head.constData(), head.size());
    QByteArray block;
    CloudBuilder progress(options);
    for (unsigned i = 0; i < n; ++i) {
        const TZVector3d g = globalOf(cloud, i);
        block.append(reinterpret_cast<const char *>(&g.x), 8);
        block.append(reinterpret_cast<const char *>(&g.y), 8);
        block.append(reinterpret_cast<const char *>(&g.z), 8);
        if (colours) {
            const tzRgb &c = cloud.getPointColor(i);
            const char rgb[3] = {char(c.r), char(c.g), char(c.b)};
            block.append(rgb, 3);
        }
        if (intensity || classification || returns) {
            const tzPointAttributes &a = cloud.getPointAttributes(i);
            if (intensity)
                block.append(reinterpret_cast<const char *>(&a.intensity), 2);
            if (classification)
                block.append(char(a.classification));
            if (returns) {
                block.append(char(a.returnNumber()));
                block.append(char(a.numberOfReturns()));
            }
        }
        if (block.size() > (1 << 22) || i + 1 == n) {
            writeAll(out, block.constData(), block.size());
            block.clear();
            progress.progress(i + 1, n);
        }
    }
}

} // namespace

const QStringList &writableKinds()
{
    static const QStringList kinds {QStringLiteral("las"), QStringLiteral("laz"),
                                    QStringLiteral("ply")};
    return kinds;
}

bool save(const tzPointCloud &cloud, const QString &path, QString &errorText, quint32 chunkSize,
          const LoadOptions &options)
{
    const QString kind = QFileInfo(path).suffix().toLower();
    if (!writableKinds().contains(kind)) {
        errorText = QStringLiteral("'%1': clouds are written as LAS, LAZ or PLY, not '.%2'")
                        .arg(path, kind);
        return false;
    }
    // A streamed cloud holds a part of its points at a time: its file gives them all.
    if (const auto *streamed = dynamic_cast<const tzStreamedCloud *>(&cloud)) {
        if (tzCopc::isUrl(streamed->path())) {
            errorText = QStringLiteral("'%1': the points of '%2' are read from a server, a part "
                                       "at a time; copy its file to the disk and open it from "
                                       "there to write them all")
                            .arg(path, streamed->path());
            return false;
        }
        // (QFileInfo's own equality holds between any two files that do not exist.)
        const auto where = [](const QString &name) {
            const QFileInfo file(name);
            return file.exists() ? file.canonicalFilePath() : file.absoluteFilePath();
        };
        if (where(streamed->path()) == where(path)) {
            errorText = QStringLiteral("'%1': the cloud is read from this file, it cannot be "
                                       "written over")
                            .arg(path);
            return false;
        }
        // LAS and LAZ are written record by record; PLY goes through the points held whole.
        constexpr double BYTES_PER_POINT = 53;
        if (kind == QLatin1String("ply")
            && double(streamed->size()) * BYTES_PER_POINT
                > double(tzStreamedCloud::defaultMemoryBudget())) {
            errorText = QStringLiteral("'%1': the %2 million points of '%3' are more than the "
                                       "memory budget holds to write them as PLY; LAS and LAZ "
                                       "are written point by point")
                            .arg(path)
                            .arg(streamed->size() / 1e6, 0, 'f', 1)
                            .arg(streamed->getName());
            return false;
        }
        return convert(streamed->path(), path, errorText, chunkSize, options);
    }
    return writeWhole(
        path, path, QStringLiteral("writing"),
        [&](QIODevice &out) {
            if (kind == QLatin1String("ply"))
                writePly(cloud, out, options);
            else
                writeLasOrLaz(cloud, kind == QLatin1String("laz"), chunkSize, out, options);
        },
        errorText);
}

namespace detail {

bool writeWhole(const QString &path, const QString &source, const QString &work,
                const std::function<void(QIODevice &)> &write, QString &errorText)
{
    QSaveFile out(path);
    if (!out.open(QIODevice::WriteOnly)) {
        errorText = QStringLiteral("'%1': cannot write (%2)").arg(path, out.errorString());
        return false;
    }
    QString failure, culprit = source;
    try {
        write(out);
    } catch (const ReadFailure &f) {
        failure = f.reason;
        if (f.reason.startsWith(QLatin1String("cannot write")))
            culprit = path;
    } catch (const Cancelled &) {
        failure = work + QLatin1String(" cancelled");
    } catch (const std::bad_alloc &) {
        failure = QStringLiteral("not enough memory");
    }
    if (!failure.isEmpty()) {
        out.cancelWriting();
        errorText = QStringLiteral("'%1': %2").arg(culprit, failure);
        return false;
    }
    if (!out.commit()) {
        errorText = QStringLiteral("'%1': cannot write (%2)").arg(path, out.errorString());
        return false;
    }
    return true;
}

} // namespace detail

} // namespace tzCloudFile
