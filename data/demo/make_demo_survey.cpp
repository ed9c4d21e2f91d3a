// Writes the demo survey: the cloud of a site with relief, a road, buildings, trees and bushes,
// in a national grid (X about 651 000, Y about 6 861 000), coloured, as a binary little-endian
// PLY with double coordinates; beside it, in <name>.img/, the photos of a few camera stations
// rendered from that cloud with their list, images.json; and <name>.companion.jsonl, the
// companion's objects on the site as a script for mensurix-sim. Named .las, the cloud is written
// as a survey is delivered, with the intensity and the class of each point (and without colours
// with --no-colours, as most airborne surveys come). Named .e57, it is written as a terrestrial
// scanner exports its project: two scans, each in the frame of its station with the station's
// pose, and the photos inside the file as pinhole pictures with their cameras' poses (no
// <name>.img/ then).

#include "DemoCompanion.h"
#include "DemoPhotos.h"
#include "DemoScene.h"
#include "tzE57File.h"

#include <QBuffer>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

const char USAGE[]
    = "usage: make_demo_survey [--no-photos] [--no-colours] <out.ply|out.las|out.e57> "
      "[points (default 2000000)] [seed]\n";

#pragma pack(push, 1)
struct Record
{
    double x, y, z;
    uint8_t r, g, b;
};
#pragma pack(pop)
static_assert(sizeof(Record) == 27, "packed PLY record");

// Opens a file to write, or says why it cannot.
bool opened(QSaveFile &file)
{
    if (file.open(QIODevice::WriteOnly))
        return true;
    std::fprintf(stderr, "make_demo_survey: cannot write '%s': %s\n", qPrintable(file.fileName()),
                 qPrintable(file.errorString()));
    return false;
}

// Puts a written file in place, or says why it cannot.
bool committed(QSaveFile &file)
{
    if (file.commit())
        return true;
    std::fprintf(stderr, "make_demo_survey: write error on '%s': %s\n", qPrintable(file.fileName()),
                 qPrintable(file.errorString()));
    return false;
}

bool writeCloud(const QString &path, const std::vector<demo::Point> &points)
{
    QSaveFile file(path);
    if (!opened(file))
        return false;
    file.write(
        QByteArray("ply\nformat binary_little_endian 1.0\ncomment demo survey, national grid\n")
        + "element vertex " + QByteArray::number(qulonglong(points.size()))
        + "\nproperty double x\nproperty double y\nproperty double z\n"
          "property uchar red\nproperty uchar green\nproperty uchar blue\nend_header\n");
    std::vector<Record> batch;
    batch.reserve(65536);
    for (size_t i = 0; i < points.size(); ++i) {
        const demo::Point &p = points[i];
        batch.push_back(
            {demo::ORIGIN_X + p.x, demo::ORIGIN_Y + p.y, demo::ORIGIN_Z + p.z, p.r, p.g, p.b});
        if (batch.size() == batch.capacity() || i + 1 == points.size()) {
            file.write(reinterpret_cast<const char *>(batch.data()),
                       qint64(batch.size() * sizeof(Record)));
            batch.clear();
        }
    }
    return committed(file);
}

// The site as a survey is delivered: LAS 1.2 of point format 3 (the intensity, the class, the
// GPS time and the colour of each return), or of point format 1 without the colours as most
// airborne surveys come; coordinates in millimetres.
bool writeLas(const QString &path, const std::vector<demo::Point> &points, bool colours)
{
    QSaveFile file(path);
    if (!opened(file))
        return false;
    constexpr int HEADER = 227;
    const int RECORD = colours ? 34 : 28;
    const double origin[3] = {demo::ORIGIN_X, demo::ORIGIN_Y, demo::ORIGIN_Z};
    double low[3] = {1e300, 1e300, 1e300}, high[3] = {-1e300, -1e300, -1e300};
    for (const demo::Point &p : points) {
        const double xyz[3] = {p.x, p.y, p.z};
        for (int d = 0; d < 3; ++d) {
            low[d] = std::min(low[d], origin[d] + xyz[d]);
            high[d] = std::max(high[d], origin[d] + xyz[d]);
        }
    }
    QByteArray header(HEADER, '\0');
    const auto put = [&header](int at, const auto value) {
        std::memcpy(header.data() + at, &value, sizeof value);
    };
    std::memcpy(header.data(), "LASF", 4);
    header[24] = 1;
    header[25] = 2;
    std::memcpy(header.data() + 26, "demo survey", 11);
    std::memcpy(header.data() + 58, "make_demo_survey", 16);
    put(90, quint16(327));
    put(92, quint16(2026));
    put(94, quint16(HEADER));
    put(96, quint32(HEADER));
    header[104] = colours ? 3 : 1;
    put(105, quint16(RECORD));
    put(107, quint32(points.size()));
    put(111, quint32(points.size())); // all first returns
    for (int d = 0; d < 3; ++d) {
        put(131 + 8 * d, 0.001);
        put(155 + 8 * d, origin[d]);
        put(179 + 16 * d, high[d]);
        put(187 + 16 * d, low[d]);
    }
    file.write(header);
    QByteArray batch;
    batch.reserve(RECORD * 65536);
    char record[34] = {};
    for (size_t i = 0; i < points.size(); ++i) {
        const demo::Point &p = points[i];
        const qint32 xyz[3] = {qint32(std::lround(p.x * 1000.0)), qint32(std::lround(p.y * 1000.0)),
                               qint32(std::lround(p.z * 1000.0))};
        std::memcpy(record, xyz, 12);
        std::memcpy(record + 12, &p.intensity, 2);
        record[14] = char(1 | (1 << 3)); // return 1 of 1
        record[15] = char(p.classification);
        const double time = 386400.0 + double(i) * 2e-6;
        std::memcpy(record + 20, &time, 8);
        const quint16 rgb[3] = {quint16(p.r * 257), quint16(p.g * 257), quint16(p.b * 257)};
        std::memcpy(record + 28, rgb, 6);
        batch.append(record, RECORD);
        if (batch.size() >= RECORD * 65536 || i + 1 == points.size()) {
            file.write(batch);
            batch.clear();
        }
    }
    return committed(file);
}

//! The rotation whose matrix has the columns a, b, c (a right-handed orthonormal frame), as a
//! quaternion (w, x, y, z).
std::array<double, 4> quaternionOf(const demo::Vec &a, const demo::Vec &b, const demo::Vec &c)
{
    const double m00 = a.x, m11 = b.y, m22 = c.z;
    const double trace = m00 + m11 + m22;
    if (trace > 0) {
        const double s = 2 * std::sqrt(1 + trace);
        return {s / 4, (b.z - c.y) / s, (c.x - a.z) / s, (a.y - b.x) / s};
    }
    if (m00 > m11 && m00 > m22) {
        const double s = 2 * std::sqrt(1 + m00 - m11 - m22);
        return {(b.z - c.y) / s, s / 4, (b.x + a.y) / s, (c.x + a.z) / s};
    }
    if (m11 > m22) {
        const double s = 2 * std::sqrt(1 + m11 - m00 - m22);
        return {(c.x - a.z) / s, (b.x + a.y) / s, s / 4, (c.y + b.z) / s};
    }
    const double s = 2 * std::sqrt(1 + m22 - m00 - m11);
    return {(a.y - b.x) / s, (c.x + a.z) / s, (c.y + b.z) / s, s / 4};
}

// The site as a terrestrial scanner's project: the points split between two stations (west and
// east halves), each scan in its station's frame (turned by its heading) with its pose; the
// photos as pinhole pictures (JPEG) whose camera frame has x to the right of the picture, y
// down it and z along the view.
bool writeE57(const QString &path, const demo::Scene &scene, const std::vector<demo::Point> &points,
              bool colours, bool photos)
{
    const double side = scene.side();
    std::vector<tzE57::ScanToWrite> scans(2);
    const double headings[2] = {0.3, 2.1};
    for (size_t s = 0; s < 2; ++s) {
        tzE57::ScanToWrite &scan = scans[s];
        scan.name = QStringLiteral("Station %1").arg(s + 1);
        scan.guid = QStringLiteral("{demo-station-%1}").arg(s + 1);
        const double x = (0.25 + 0.5 * double(s)) * side, y = 0.5 * side;
        scan.pose.translation
            = {demo::ORIGIN_X + x, demo::ORIGIN_Y + y, demo::ORIGIN_Z + scene.ground(x, y) + 1.6};
        scan.pose.rotation = {std::cos(headings[s] / 2), 0, 0, std::sin(headings[s] / 2)};
    }
    for (const demo::Point &p : points) {
        tzE57::ScanToWrite &scan = scans[p.x < 0.5 * side ? 0 : 1];
        const double heading = headings[&scan - scans.data()];
        const double c = std::cos(heading), s = std::sin(heading);
        const double dx = demo::ORIGIN_X + p.x - scan.pose.translation[0];
        const double dy = demo::ORIGIN_Y + p.y - scan.pose.translation[1];
        scan.xyz.insert(
            scan.xyz.end(),
            {c * dx + s * dy, -s * dx + c * dy, demo::ORIGIN_Z + p.z - scan.pose.translation[2]});
        scan.intensities.push_back(p.intensity);
        if (colours)
            scan.colours.push_back({p.r, p.g, p.b});
    }
    std::vector<tzE57::ImageToWrite> images;
    if (photos) {
        for (const demo::Camera &camera : demo::demoStations(scene)) {
            tzE57::ImageToWrite image;
            image.name = camera.name;
            image.scanGuid = scans[camera.position.x < 0.5 * side ? 0 : 1].guid;
            QBuffer jpeg(&image.picture);
            jpeg.open(QIODevice::WriteOnly);
            if (!demo::render(camera, points, scene.spacing()).save(&jpeg, "JPG", 90)) {
                std::fprintf(stderr, "make_demo_survey: cannot make the photo '%s'\n",
                             qPrintable(camera.name));
                return false;
            }
            image.width = camera.width;
            image.height = camera.height;
            image.pixelWidth = image.pixelHeight = 5e-6;
            image.focalLength = camera.f * image.pixelWidth;
            image.principalX = 0.5 * camera.width;
            image.principalY = 0.5 * camera.height;
            const demo::Vec down {-camera.up.x, -camera.up.y, -camera.up.z};
            image.pose.rotation = quaternionOf(camera.right, down, camera.forward);
            image.pose.translation
                = {demo::ORIGIN_X + camera.position.x, demo::ORIGIN_Y + camera.position.y,
                   demo::ORIGIN_Z + camera.position.z};
            images.push_back(std::move(image));
        }
    }
    QByteArray bytes;
    std::string error;
    if (!tzE57::writeFile(scans, bytes, error, images)) {
        std::fprintf(stderr, "make_demo_survey: cannot make '%s': %s\n", qPrintable(path),
                     error.c_str());
        return false;
    }
    QSaveFile file(path);
    if (!opened(file))
        return false;
    file.write(bytes);
    if (photos)
        std::printf("%s: %zu photos inside\n", qPrintable(path), images.size());
    return committed(file);
}

bool writePhotos(const QString &folder, const demo::Scene &scene,
                 const std::vector<demo::Point> &points)
{
    if (!QDir().mkpath(folder)) {
        std::fprintf(stderr, "make_demo_survey: cannot make the folder '%s'\n", qPrintable(folder));
        return false;
    }
    const std::vector<demo::Camera> cameras = demo::demoStations(scene);
    for (const demo::Camera &camera : cameras) {
        const QString path = QDir(folder).filePath(camera.name + QStringLiteral(".jpg"));
        if (!demo::render(camera, points, scene.spacing()).save(path, "JPG", 90)) {
            std::fprintf(stderr, "make_demo_survey: cannot write the photo '%s'\n",
                         qPrintable(path));
            return false;
        }
    }
    QSaveFile list(QDir(folder).filePath(QStringLiteral("images.json")));
    if (!list.open(QIODevice::WriteOnly) || list.write(demo::photoList(cameras)) < 0
        || !list.commit()) {
        std::fprintf(stderr, "make_demo_survey: cannot write '%s': %s\n",
                     qPrintable(list.fileName()), qPrintable(list.errorString()));
        return false;
    }
    std::printf("%s: %zu photos\n", qPrintable(folder), cameras.size());
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QStringList args = app.arguments().mid(1);
    const bool photos = !args.removeAll(QStringLiteral("--no-photos"));
    const bool colours = !args.removeAll(QStringLiteral("--no-colours"));
    if (args.contains(QStringLiteral("--help")) || args.contains(QStringLiteral("-h"))) {
        std::fputs(USAGE, stdout);
        return 0;
    }
    bool numbers = true;
    unsigned long count = 2000000ul;
    unsigned seed = 20261121u;
    if (args.size() > 1)
        count = args[1].toULong(&numbers);
    if (numbers && args.size() > 2)
        seed = args[2].toUInt(&numbers);
    if (args.isEmpty() || args.size() > 3 || args[0].startsWith(QLatin1Char('-')) || !numbers) {
        std::fputs(USAGE, stderr);
        return 2;
    }
    if (count < 100) {
        std::fprintf(stderr, "make_demo_survey: at least 100 points, not %lu\n", count);
        return 2;
    }
    const QString out = args[0];

    const demo::Scene scene(count, seed);
    const std::vector<demo::Point> points = scene.scan();
    // The photos and the script first: a cloud on disk is a complete survey.
    const QFileInfo info(out);
    QSaveFile script(
        info.dir().filePath(info.completeBaseName() + QStringLiteral(".companion.jsonl")));
    if (!script.open(QIODevice::WriteOnly) || script.write(demo::companionScript(scene)) < 0
        || !script.commit()) {
        std::fprintf(stderr, "make_demo_survey: cannot write '%s': %s\n",
                     qPrintable(script.fileName()), qPrintable(script.errorString()));
        return 1;
    }
    const bool las = out.endsWith(QStringLiteral(".las"), Qt::CaseInsensitive);
    const bool e57 = out.endsWith(QStringLiteral(".e57"), Qt::CaseInsensitive);
    if (photos && !e57
        && !writePhotos(info.dir().filePath(info.completeBaseName() + QStringLiteral(".img")),
                        scene, points))
        return 1;
    if (e57 ? !writeE57(out, scene, points, colours, photos)
            : !(las ? writeLas(out, points, colours) : writeCloud(out, points)))
        return 1;
    std::printf("%s: %zu points, %.0f m x %.0f m\n", qPrintable(out), points.size(), scene.side(),
                scene.side());
    return 0;
}
