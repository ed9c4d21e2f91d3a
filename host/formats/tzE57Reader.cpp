// E57: a scanner's project. Each scan becomes a cloud, placed by its pose in the file's
// coordinates, all of them in one global shift; the scans are decoded on every core. The
// pictures of pinhole cameras become a photo list of the scan they were taken from.

#include "tzCloudFormats_p.h"
#include "tzE57File.h"
#include "tzPhotoListKeys.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>
#include <QStandardPaths>

#include <array>
#include <cmath>

namespace tzCloudFile {
namespace detail {

namespace {

//! The fields of a scan's records that make its points, by their index in the prototype (-1:
//! none).
struct Layout
{
    std::array<int, 3> coordinates {-1, -1, -1};
    bool spherical = false;
    int invalid = -1;
    int intensity = -1;
    std::array<int, 3> colour {-1, -1, -1};

    bool hasColour() const { return colour[0] >= 0 && colour[1] >= 0 && colour[2] >= 0; }
};

int fieldIndex(const tzE57::Scan &scan, const char *name)
{
    for (size_t k = 0; k < scan.fields.size(); ++k) {
        if (scan.fields[k].name == QLatin1String(name))
            return int(k);
    }
    return -1;
}

QString scanLabel(const tzE57::Scan &scan, size_t index)
{
    return scan.name.isEmpty() ? QStringLiteral("scan %1").arg(index + 1)
                               : QStringLiteral("scan '%1'").arg(scan.name);
}

Layout layoutOf(const tzE57::Scan &scan, size_t index)
{
    Layout layout;
    const char *cartesian[3] = {"cartesianX", "cartesianY", "cartesianZ"};
    const char *spherical[3] = {"sphericalRange", "sphericalAzimuth", "sphericalElevation"};
    for (int d = 0; d < 3; ++d)
        layout.coordinates[size_t(d)] = fieldIndex(scan, cartesian[d]);
    if (std::any_of(layout.coordinates.begin(), layout.coordinates.end(),
                    [](int k) { return k < 0; })) {
        layout.spherical = true;
        for (int d = 0; d < 3; ++d)
            layout.coordinates[size_t(d)] = fieldIndex(scan, spherical[d]);
        if (std::any_of(layout.coordinates.begin(), layout.coordinates.end(),
                        [](int k) { return k < 0; }))
            failWith(QStringLiteral("%1 has neither cartesian nor spherical coordinates")
                         .arg(scanLabel(scan, index)));
    }
    layout.invalid
        = fieldIndex(scan, layout.spherical ? "sphericalInvalidState" : "cartesianInvalidState");
    layout.intensity = fieldIndex(scan, "intensity");
    layout.colour = {fieldIndex(scan, "colorRed"), fieldIndex(scan, "colorGreen"),
                     fieldIndex(scan, "colorBlue")};
    return layout;
}

//! A rotation quaternion (w, x, y, z; made of unit length) as a matrix, row by row.
std::array<double, 9> rotationMatrix(const std::array<double, 4> &q)
{
    const double n = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3]);
    if (!(n > 0))
        return {1, 0, 0, 0, 1, 0, 0, 0, 1};
    const double w = q[0] / n, x = q[1] / n, y = q[2] / n, z = q[3] / n;
    return {1 - 2 * (y * y + z * z), 2 * (x * y - w * z),     2 * (x * z + w * y),
            2 * (x * y + w * z),     1 - 2 * (x * x + z * z), 2 * (y * z - w * x),
            2 * (x * z - w * y),     2 * (y * z + w * x),     1 - 2 * (x * x + y * y)};
}

//! Where a value goes from a field's range: lo and hi of the file's limits where it gives them,
//! else of the field itself (floats: 0 to 1).
void rangeOf(const tzE57::Field &field, double &lo, double &hi)
{
    if (field.kind == tzE57::Field::Float) {
        lo = 0;
        hi = 1;
    } else if (field.kind == tzE57::Field::ScaledInteger) {
        lo = double(field.minimum) * field.scale + field.offset;
        hi = double(field.maximum) * field.scale + field.offset;
    } else {
        lo = double(field.minimum);
        hi = double(field.maximum);
    }
}

//! A scan's points, colours and intensities, as decoded (the invalid points left out).
struct ScanPoints
{
    std::vector<TZVector3> points;
    std::vector<tzRgb> colours;
    std::vector<tzPointAttributes> attributes;
};

//! Turns a scan's records into points in the global shift: each in its scan's frame (from
//! spherical coordinates where the scan has them), turned and moved by the scan's pose.
class ScanConverter
{
public:
    ScanConverter(const tzE57::Scan &scan, const Layout &layout, const TZVector3d &shift)
        : m_layout(layout)
        , m_rotation(rotationMatrix(scan.pose.rotation))
    {
        for (int d = 0; d < 3; ++d)
            m_move[size_t(d)] = scan.pose.translation[size_t(d)] + shift[d];
        if (layout.intensity >= 0) {
            rangeOf(scan.fields[size_t(layout.intensity)], m_intensityLow, m_intensityHigh);
            if (scan.hasIntensityLimits) {
                m_intensityLow = scan.intensityMin;
                m_intensityHigh = scan.intensityMax;
            }
        }
        if (layout.hasColour()) {
            for (size_t c = 0; c < 3; ++c) {
                rangeOf(scan.fields[size_t(layout.colour[c])], m_colourLow[c], m_colourHigh[c]);
                if (scan.hasColourLimits) {
                    m_colourLow[c] = scan.colourMin[c];
                    m_colourHigh[c] = scan.colourMax[c];
                }
            }
        }
    }

    //! The point of a record's three coordinates, in the file's coordinates plus the shift.
    TZVector3d place(double a, double b, double c) const
    {
        double p[3] = {a, b, c};
        if (m_layout.spherical) {
            // Range, azimuth from X towards Y, elevation from the XY plane.
            const double flat = a * std::cos(c);
            p[0] = flat * std::cos(b);
            p[1] = flat * std::sin(b);
            p[2] = a * std::sin(c);
        }
        const auto &r = m_rotation;
        return {r[0] * p[0] + r[1] * p[1] + r[2] * p[2] + m_move[0],
                r[3] * p[0] + r[4] * p[1] + r[5] * p[2] + m_move[1],
                r[6] * p[0] + r[7] * p[1] + r[8] * p[2] + m_move[2]};
    }
    quint16 intensity(double v) const
    {
        return quint16(std::lround(65535.0 * fraction(v, m_intensityLow, m_intensityHigh)));
    }
    quint8 colour(size_t channel, double v) const
    {
        return quint8(
            std::lround(255.0 * fraction(v, m_colourLow[channel], m_colourHigh[channel])));
    }

private:
    static double fraction(double v, double lo, double hi)
    {
        if (!(hi > lo))
            return 0;
        return std::clamp((v - lo) / (hi - lo), 0.0, 1.0);
    }

    const Layout &m_layout;
    std::array<double, 9> m_rotation;
    std::array<double, 3> m_move {};
    double m_intensityLow = 0, m_intensityHigh = 1;
    std::array<double, 3> m_colourLow {0, 0, 0}, m_colourHigh {255, 255, 255};
};

//! Where a block of a scan's records is read to: a column for each field that is used (the
//! coordinates, the invalid state, the intensity and the colours when asked), none for the others.
struct Columns
{
    std::vector<std::vector<double>> values;
    std::vector<double *> columns;

    Columns(const tzE57::Scan &scan, const Layout &layout, size_t block, bool withIntensity,
            bool withColours)
        : values(scan.fields.size())
        , columns(scan.fields.size(), nullptr)
    {
        const auto use = [&](int k) {
            if (k >= 0) {
                values[size_t(k)].resize(block);
                columns[size_t(k)] = values[size_t(k)].data();
            }
        };
        for (int k : layout.coordinates)
            use(k);
        use(layout.invalid);
        if (withIntensity)
            use(layout.intensity);
        if (withColours) {
            for (int k : layout.colour)
                use(k);
        }
    }
    //! Field k's values (null for no field).
    const double *of(int k) const { return k >= 0 ? values[size_t(k)].data() : nullptr; }
};

//! Decodes a scan in blocks of records into its points; false with the problem (or when the
//! work was stopped).
bool decodeScan(const tzE57::File &file, const tzE57::Scan &scan, const Layout &layout,
                const TZVector3d &shift, ScanPoints &out, SharedWork &work, QString &problem)
{
    tzE57::Records records;
    std::string error;
    if (!records.open(file, scan, error)) {
        problem = QString::fromStdString(error);
        return false;
    }
    const size_t count = size_t(records.count());
    const bool withColours = layout.hasColour(), withIntensity = layout.intensity >= 0;
    out.points.resize(count);
    if (withColours)
        out.colours.resize(count);
    if (withIntensity)
        out.attributes.resize(count);
    const ScanConverter convert(scan, layout, shift);
    constexpr size_t BLOCK = 1 << 14;
    Columns read(scan, layout, BLOCK, withIntensity, withColours);
    std::vector<std::vector<double>> &values = read.values;
    std::vector<double *> &columns = read.columns;
    const double *a = read.of(layout.coordinates[0]), *b = read.of(layout.coordinates[1]),
                 *c = read.of(layout.coordinates[2]), *invalid = read.of(layout.invalid),
                 *intensity = read.of(layout.intensity);
    size_t kept = 0;
    while (records.left() > 0) {
        if (work.stopped())
            return false;
        const size_t n = size_t(std::min<quint64>(BLOCK, records.left()));
        if (!records.read(n, columns.data(), error)) {
            problem = QString::fromStdString(error);
            return false;
        }
        for (size_t i = 0; i < n; ++i) {
            // 0 is a whole point; 1 (a direction without its range) and 2 are no point.
            if (invalid && invalid[i] != 0)
                continue;
            const TZVector3d p = convert.place(a[i], b[i], c[i]);
            out.points[kept] = {float(p.x), float(p.y), float(p.z)};
            if (withIntensity)
                out.attributes[kept].intensity = convert.intensity(intensity[i]);
            if (withColours) {
                tzRgb &rgb = out.colours[kept];
                rgb.r = convert.colour(0, values[size_t(layout.colour[0])][i]);
                rgb.g = convert.colour(1, values[size_t(layout.colour[1])][i]);
                rgb.b = convert.colour(2, values[size_t(layout.colour[2])][i]);
            }
            ++kept;
        }
        work.done(n);
    }
    out.points.resize(kept);
    if (withColours)
        out.colours.resize(kept);
    if (withIntensity)
        out.attributes.resize(kept);
    return true;
}

//! Where the global shift is decided: the first record of the first scan with points, placed
//! by its pose (its pose's origin where that record cannot be read).
TZVector3d firstPoint(const tzE57::File &file, const std::vector<Layout> &layouts)
{
    for (size_t s = 0; s < file.scans().size(); ++s) {
        const tzE57::Scan &scan = file.scans()[s];
        if (scan.recordCount == 0)
            continue;
        const ScanConverter convert(scan, layouts[s], TZVector3d());
        tzE57::Records records;
        std::string error;
        std::vector<double> values(scan.fields.size());
        if (records.open(file, scan, error) && records.next(values.data())) {
            const auto &k = layouts[s].coordinates;
            return convert.place(values[size_t(k[0])], values[size_t(k[1])], values[size_t(k[2])]);
        }
        return {scan.pose.translation[0], scan.pose.translation[1], scan.pose.translation[2]};
    }
    return {};
}

//! A first picture, before the scans are decoded whole: 64 evenly spaced blocks of a 1024th of
//! each scan's records (a scanner sweeps around itself: its records in order make a wedge, not
//! a sample). Nothing is shown when a scan cannot be read so: the decoding says why.
void previewScans(const tzE57::File &file, const std::vector<Layout> &layouts,
                  const TZVector3d &shift, const LoadOptions &options, quint64 total)
{
    if (!options.preview || total < PREVIEW_MIN_POINTS)
        return;
    constexpr size_t BLOCKS = 64;
    const std::vector<tzE57::Scan> &scans = file.scans();
    bool withColours = true;
    for (const Layout &layout : layouts)
        withColours &= layout.colour[0] >= 0;
    std::vector<TZVector3> points;
    std::vector<tzRgb> colours;
    for (size_t s = 0; s < scans.size(); ++s) {
        const tzE57::Scan &scan = scans[s];
        const Layout &layout = layouts[s];
        const size_t n = size_t(scan.recordCount);
        const size_t block = std::max<size_t>(1, n / 1024);
        tzE57::Records records;
        std::string error;
        if (n < BLOCKS || !records.open(file, scan, error))
            continue;
        const ScanConverter convert(scan, layout, shift);
        Columns read(scan, layout, block, false, withColours);
        std::vector<std::vector<double>> &values = read.values;
        std::vector<double *> &columns = read.columns;
        const auto &c = layout.coordinates;
        for (size_t b = 0; b < BLOCKS; ++b) {
            const size_t first = b * (n / BLOCKS);
            const size_t count = std::min(block, n - first);
            if (!records.seek(first, error) || !records.read(count, columns.data(), error))
                return;
            for (size_t i = 0; i < count; ++i) {
                if (layout.invalid >= 0 && values[size_t(layout.invalid)][i] != 0)
                    continue;
                const TZVector3d p = convert.place(values[size_t(c[0])][i], values[size_t(c[1])][i],
                                                   values[size_t(c[2])][i]);
                points.push_back({float(p.x), float(p.y), float(p.z)});
                if (withColours) {
                    colours.push_back({convert.colour(0, values[size_t(layout.colour[0])][i]),
                                       convert.colour(1, values[size_t(layout.colour[1])][i]),
                                       convert.colour(2, values[size_t(layout.colour[2])][i])});
                }
            }
        }
    }
    if (!points.empty())
        options.preview(std::move(points), std::move(colours), shift);
}

//! An E57 file opened and its scans decoded into clouds (the same shift for all).
struct E57Scans
{
    tzE57::File file;
    std::vector<std::unique_ptr<tzPointCloud>> clouds; // one per scan, in the file's order
};

void readScans(const Bytes &in, const LoadOptions &options, E57Scans &result)
{
    std::string error;
    if (!result.file.open(in.data, in.size, error, threadsFor(8)))
        failWith(QString::fromStdString(error));
    const std::vector<tzE57::Scan> &scans = result.file.scans();
    std::vector<Layout> layouts;
    quint64 total = 0;
    for (size_t s = 0; s < scans.size(); ++s) {
        layouts.push_back(layoutOf(scans[s], s));
        total += scans[s].recordCount;
    }
    CloudBuilder builder(options);
    if (total > 0) {
        builder.decideShift(firstPoint(result.file, layouts));
        previewScans(result.file, layouts, builder.shift(), options, total);
    }
    std::vector<ScanPoints> decoded(scans.size());
    SharedWork work;
    std::atomic<size_t> next {0};
    work.run(threadsFor(scans.size()), builder, size_t(total), [&] {
        for (size_t s = next++; s < scans.size() && !work.stopped(); s = next++) {
            QString problem;
            try {
                if (!decodeScan(result.file, scans[s], layouts[s], builder.shift(), decoded[s],
                                work, problem)) {
                    if (!problem.isEmpty())
                        work.fail(QStringLiteral("%1: %2").arg(scanLabel(scans[s], s), problem));
                    return;
                }
            } catch (const std::bad_alloc &) {
                work.fail(QStringLiteral("not enough memory for the %1 points of %2")
                              .arg(scans[s].recordCount)
                              .arg(scanLabel(scans[s], s)));
                return;
            }
        }
    });
    for (size_t s = 0; s < scans.size(); ++s) {
        ScanPoints &p = decoded[s];
        const QString name
            = scans[s].name.isEmpty() ? QStringLiteral("Scan %1").arg(s + 1) : scans[s].name;
        // The builder makes each scan's cloud in turn, with the shift it decided.
        const quint8 kinds = layouts[s].intensity >= 0 ? quint8(tzPointDisplay::INTENSITY) : 0;
        result.clouds.emplace_back(builder.finish(name, std::move(p.points), std::move(p.colours),
                                                  std::move(p.attributes), kinds));
    }
}

//! Says that a scan without a valid point is left out.
void noteLeftOut(const LoadOptions &options, const QString &name, const tzPointCloud &cloud)
{
    note(options,
         QStringLiteral("'%1': %2 holds no valid point: left out").arg(name, cloud.getName()));
}

//! The reason a file gives no points to show, or empty.
QString nothingToShow(const E57Scans &scans)
{
    size_t points = 0;
    for (const auto &cloud : scans.clouds)
        points += cloud->size();
    if (points > 0)
        return {};
    if (scans.clouds.empty())
        return QStringLiteral("no points to show: the file holds no scans");
    return QStringLiteral("no points to show: its %1 scan(s) hold no valid point")
        .arg(scans.clouds.size());
}

// ---------------------------------------------------------------- pictures

//! A pinhole camera as the photo lists give it: its position, the angles that turn the
//! picture's frame (x right, y up, looking along -z) onto the world's as Rx(roll) Ry(pitch)
//! Rz(yaw), its viewing direction and its focal length in pixels. The E57 camera frame has x
//! to the right of the picture, y down it and z along the view.
QJsonObject photoEntry(const tzE57::Image &image, const QString &camname)
{
    const std::array<double, 9> r = rotationMatrix(image.pose.rotation);
    const double right[3] = {r[0], r[3], r[6]};
    const double up[3] = {-r[1], -r[4], -r[7]};
    const double forward[3] = {r[2], r[5], r[8]};
    const double pitch = std::asin(std::clamp(-forward[0], -1.0, 1.0));
    const double yaw = std::atan2(-up[0], right[0]);
    const double roll = std::atan2(forward[1], -forward[2]);
    using namespace tzPhotoListKeys;
    QJsonObject entry;
    const auto set = [&entry](const char *key, const QJsonValue &value) {
        entry.insert(QLatin1String(key), value);
    };
    set(CAMERA_NAME, camname);
    set(CAMERA_X, image.pose.translation[0]);
    set(CAMERA_Y, image.pose.translation[1]);
    set(CAMERA_Z, image.pose.translation[2]);
    set(ROLL, roll);
    set(PITCH, pitch);
    set(YAW, yaw);
    set(VIEW_X, forward[0]);
    set(VIEW_Y, forward[1]);
    set(VIEW_Z, forward[2]);
    set(FOCAL, image.focalLength / image.pixelWidth);
    set(CENTRE_X, image.principalX);
    set(CENTRE_Y, image.principalY);
    return entry;
}

//! Why an image cannot be a photo station, or empty.
QString unusable(const tzE57::Image &image)
{
    if (image.representation != QLatin1String("pinholeRepresentation")) {
        return image.representation.isEmpty()
            ? QStringLiteral("it has no picture")
            : QStringLiteral("a %1 picture is not shown as a photo")
                  .arg(QString(image.representation).remove(QStringLiteral("Representation")));
    }
    if (!image.hasPose)
        return QStringLiteral("its camera has no pose");
    if (!(image.focalLength > 0) || !(image.pixelWidth > 0))
        return QStringLiteral("its camera has no focal length");
    if (image.width < 2 || image.height < 2)
        return QStringLiteral("its picture is %1 x %2 pixels").arg(image.width).arg(image.height);
    if (image.blobLength == 0)
        return QStringLiteral("it has no picture");
    return {};
}

//! The folder in the user's cache where a file's pictures go: named after the file's path,
//! size and pictures, so that opening it again finds them written.
QString pictureFolder(const QString &name, const Bytes &in, const std::vector<tzE57::Image> &images)
{
    QCryptographicHash hash(QCryptographicHash::Sha1);
    hash.addData(QFileInfo(name).absoluteFilePath().toUtf8());
    hash.addData(QByteArray::number(qulonglong(in.size)));
    for (const tzE57::Image &image : images)
        hash.addData(QByteArray::number(qulonglong(image.blobOffset)));
    QString cache = QStandardPaths::writableLocation(QStandardPaths::CacheLocation);
    if (cache.isEmpty())
        cache = QDir::temp().filePath(QStringLiteral("tessaro-cache"));
    return QDir(cache).filePath(QStringLiteral("e57-photos/")
                                + QString::fromLatin1(hash.result().toHex().left(16)));
}

bool writeWholeFile(const QString &path, const QByteArray &bytes)
{
    QSaveFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size() && file.commit();
}

//! Writes the usable pinhole pictures and, for each scan that has some, a photo list whose
//! path goes in its cloud's metadata; the others are noted with their reason.
void attachPictures(const Bytes &in, const QString &name, const LoadOptions &options,
                    E57Scans &scans)
{
    const std::vector<tzE57::Image> &images = scans.file.images();
    if (images.empty())
        return;
    const QString folder = pictureFolder(name, in, images);
    std::vector<QJsonArray> lists(scans.clouds.size());
    QStringList taken;
    for (size_t i = 0; i < images.size(); ++i) {
        const tzE57::Image &image = images[i];
        const QString label = image.name.isEmpty() ? QStringLiteral("%1").arg(i + 1)
                                                   : QStringLiteral("'%1'").arg(image.name);
        QString why = unusable(image);
        std::vector<uchar> picture;
        std::string error;
        if (why.isEmpty() && !scans.file.picture(image, picture, error))
            why = QString::fromStdString(error);
        if (why.isEmpty() && scans.clouds.empty())
            why = QStringLiteral("the file has no scan to show it with");
        if (!why.isEmpty()) {
            note(options, QStringLiteral("'%1': image %2 skipped: %3").arg(name, label, why));
            continue;
        }
        // The scan it was taken from, else the first.
        size_t scan = 0;
        for (size_t s = 0; s < scans.file.scans().size(); ++s) {
            if (!image.scanGuid.isEmpty() && scans.file.scans()[s].guid == image.scanGuid)
                scan = s;
        }
        const QString camname
            = uniqueFileName(image.name, QStringLiteral("image%1").arg(i + 1), taken);
        const QString path = QDir(folder).filePath(camname + (image.png ? ".png" : ".jpg"));
        const QByteArray bytes(reinterpret_cast<const char *>(picture.data()), int(picture.size()));
        if (QFileInfo(path).size() != bytes.size()
            && (!QDir().mkpath(folder) || !writeWholeFile(path, bytes))) {
            note(options,
                 QStringLiteral("'%1': image %2 skipped: its picture cannot be written "
                                "to '%3'")
                     .arg(name, label, QDir::toNativeSeparators(path)));
            continue;
        }
        lists[scan].append(photoEntry(image, camname));
    }
    for (size_t s = 0; s < lists.size(); ++s) {
        if (lists[s].isEmpty())
            continue;
        const QString list = QDir(folder).filePath(QStringLiteral("scan%1.json").arg(s + 1));
        QJsonObject root;
        root.insert(QLatin1String(tzPhotoListKeys::IMAGES), lists[s]);
        if (!writeWholeFile(list, QJsonDocument(root).toJson())) {
            note(options,
                 QStringLiteral("'%1': the photo list cannot be written to '%2'")
                     .arg(name, QDir::toNativeSeparators(list)));
            continue;
        }
        scans.clouds[s]->setMetaData(QLatin1String(tzGenericPointCloud::PHOTO_LIST_KEY), list);
    }
}

} // namespace

std::vector<std::unique_ptr<tzPointCloud>> readE57Scans(const Bytes &in, const QString &name,
                                                        const LoadOptions &options)
{
    E57Scans scans;
    readScans(in, options, scans);
    const QString nothing = nothingToShow(scans);
    if (!nothing.isEmpty())
        failWith(nothing);
    std::vector<std::unique_ptr<tzPointCloud>> clouds;
    for (std::unique_ptr<tzPointCloud> &cloud : scans.clouds) {
        if (cloud->size() == 0)
            noteLeftOut(options, name, *cloud);
        else
            clouds.push_back(std::move(cloud));
    }
    return clouds;
}

QJsonObject describeE57(const Bytes &in)
{
    // The XML alone: only its pages' checksums are checked, no point is read.
    tzE57::File file;
    std::string error;
    if (!file.open(in.data, in.size, error, 1, false))
        failWith(QString::fromStdString(error));
    const auto pose = [](const tzE57::Pose &p) {
        return QJsonObject {
            {QStringLiteral("rotation"),
             QJsonArray {p.rotation[0], p.rotation[1], p.rotation[2], p.rotation[3]}},
            {QStringLiteral("translation"),
             QJsonArray {p.translation[0], p.translation[1], p.translation[2]}}};
    };
    QJsonArray scans, images;
    double total = 0;
    for (size_t s = 0; s < file.scans().size(); ++s) {
        const tzE57::Scan &scan = file.scans()[s];
        QStringList fields;
        for (const tzE57::Field &field : scan.fields)
            fields << field.name;
        total += double(scan.recordCount);
        scans.append(
            QJsonObject {{QStringLiteral("name"),
                          scan.name.isEmpty() ? QStringLiteral("Scan %1").arg(s + 1) : scan.name},
                         {QStringLiteral("guid"), scan.guid},
                         {QStringLiteral("points"), double(scan.recordCount)},
                         {QStringLiteral("pose"), pose(scan.pose)},
                         {QStringLiteral("fields"), QJsonArray::fromStringList(fields)}});
    }
    for (const tzE57::Image &image : file.images()) {
        QJsonObject entry {{QStringLiteral("name"), image.name},
                           {QStringLiteral("representation"), image.representation},
                           {QStringLiteral("width"), image.width},
                           {QStringLiteral("height"), image.height},
                           {QStringLiteral("scan"), image.scanGuid}};
        if (image.hasPose)
            entry.insert(QStringLiteral("pose"), pose(image.pose));
        images.append(entry);
    }
    QJsonObject info {{QStringLiteral("format"), QStringLiteral("E57")},
                      {QStringLiteral("version"),
                       QStringLiteral("%1.%2")
                           .arg(loadAs<quint32>(in.data + 8, false))
                           .arg(loadAs<quint32>(in.data + 12, false))},
                      {QStringLiteral("points"), total},
                      {QStringLiteral("scans"), scans}};
    if (!images.isEmpty())
        info.insert(QStringLiteral("images"), images);
    return info;
}

tzHObject *readE57Group(const Bytes &in, const QString &name, const LoadOptions &options)
{
    E57Scans scans;
    readScans(in, options, scans);
    const QString nothing = nothingToShow(scans);
    attachPictures(in, name, options, scans);
    if (!nothing.isEmpty())
        failWith(nothing);
    auto group = std::make_unique<tzHObject>(QFileInfo(name).completeBaseName());
    for (std::unique_ptr<tzPointCloud> &cloud : scans.clouds) {
        // A scan without a valid point has nothing to show.
        if (cloud->size() == 0) {
            noteLeftOut(options, name, *cloud);
            continue;
        }
        group->addChild(cloud.release());
    }
    return group.release();
}

tzPointCloud *readE57(const Bytes &in, const QString &name, const QString &,
                      const LoadOptions &options)
{
    std::vector<std::unique_ptr<tzPointCloud>> clouds = readE57Scans(in, name, options);
    if (clouds.size() == 1)
        return clouds.front().release();
    // One cloud of every scan's points, in the same shift.
    size_t total = 0;
    bool colours = false;
    QStringList grey; // scans of points without colour
    quint8 kinds = tzPointDisplay::INTENSITY;
    for (const auto &cloud : clouds) {
        total += cloud->size();
        colours = colours || cloud->hasColors();
        if (cloud->size() > 0 && !cloud->hasColors())
            grey << cloud->getName();
        if (cloud->size() > 0 && !(cloud->attributeKinds() & tzPointDisplay::INTENSITY))
            kinds = 0;
    }
    // A scan in colour gives the merged cloud its colours; the points of the scans without
    // any are white there.
    if (colours && !grey.isEmpty()) {
        note(options,
             QStringLiteral("'%1': %2 without colour: white in the merged cloud")
                 .arg(name, grey.join(QStringLiteral(", "))));
    }
    std::vector<TZVector3> points;
    std::vector<tzRgb> rgb;
    std::vector<tzPointAttributes> attributes;
    allocate(points, total);
    if (colours)
        allocate(rgb, total);
    if (kinds)
        allocate(attributes, total);
    const TZVector3d shift = clouds.front()->getGlobalShift();
    size_t at = 0;
    for (auto &cloud : clouds) {
        const size_t n = cloud->size();
        if (n > 0) {
            std::copy_n(&cloud->point(0), n, points.begin() + std::ptrdiff_t(at));
            if (colours && cloud->hasColors())
                std::copy_n(cloud->colorData(), n, rgb.begin() + std::ptrdiff_t(at));
            if (kinds)
                std::copy_n(cloud->attributeData(), n, attributes.begin() + std::ptrdiff_t(at));
        }
        at += n;
        cloud.reset();
    }
    CloudBuilder builder(options);
    tzPointCloud *merged = builder.finish(QFileInfo(name).completeBaseName(), std::move(points),
                                          std::move(rgb), std::move(attributes), kinds);
    merged->setGlobalShift(shift);
    return merged;
}

} // namespace detail
} // namespace tzCloudFile
