// Loading a 10 M point survey terrain from binary PLY and LAS, warm in the file cache, against
// reading the same bytes into memory (the limit) in the same run. Prints MB/s and the ratios.
//
// Then LAZ, on the same survey as LAS point format 3 with the attributes an airborne survey has
// (intensity, returns, classes, GPS times, colours): our decoding on one thread and on every
// core against laz-perf (the format's reference decoder compiled to WebAssembly, run by Node.js
// from the build tree's peer/ folder, installed by scripts/setup --peer), both timed the same
// way: the file in memory, from the first chunk to the last record, the best of three runs in
// one process. Then opening the LAZ against
// the LAS in the viewer (from the file to the first frame that shows it), encoding against
// decoding, and the sizes. The table at the end gives each figure, ours, the other side's and
// the ratio (ours over theirs: below 1 is faster or smaller).
//
//   bench_cloudio [--points=N] [--peer=DIR] [--keep=DIR]
//
// Last, E57: the same survey as 4 scans (scaled integer coordinates in each scan's frame, each
// turned and moved by its pose, intensities, colours) read as the viewer reads it, a cloud per
// scan on every core, against reading the survey's LAS, both warm in the file cache, the best
// of three.
//
// --keep writes the benchmark's files into DIR and leaves them there (for profiling by hand).

#include "LasFiles.h"
#include "SurveyViewer.h"
#include "Terrain.h"
#include "tzCloudFile.h"
#include "tzE57File.h"
#include "tzLazCodec.h"
#include "tzPointCloud.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QSurfaceFormat>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>

namespace {

double secondsOf(const std::function<void()> &fn, int runs = 3)
{
    double best = 1e30;
    for (int i = 0; i < runs; ++i) {
        const auto t0 = std::chrono::steady_clock::now();
        fn();
        best = std::min(
            best, std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
    }
    return best;
}

bool writePly(const QString &path, const TZLib::PointCloud &cloud)
{
    QFile f(path);
    if (!f.open(QIODevice::WriteOnly))
        return false;
    f.write(QByteArray("ply\nformat binary_little_endian 1.0\nelement vertex ")
            + QByteArray::number(cloud.size())
            + "\nproperty float x\nproperty float y\nproperty float z\nproperty uchar red\n"
              "property uchar green\nproperty uchar blue\nend_header\n");
    QByteArray chunk;
    for (unsigned i = 0; i < cloud.size(); ++i) {
        chunk.append(reinterpret_cast<const char *>(&cloud.point(i)), 12);
        const char rgb[3] = {char(i), char(i >> 8), char(i >> 16)};
        chunk.append(rgb, 3);
        if (chunk.size() > (1 << 22)) {
            f.write(chunk);
            chunk.clear();
        }
    }
    f.write(chunk);
    return true;
}

template<typename T> T at(const QByteArray &bytes, int offset)
{
    T v;
    std::memcpy(&v, bytes.constData() + offset, sizeof v);
    return v;
}

// Every record of a LAZ file in memory, its chunks shared among the threads: the seconds taken.
double decodeLaz(const QByteArray &laz, unsigned threads, std::vector<uchar> &records)
{
    int vlr = at<quint16>(laz, 94);
    tzLaz::Description description;
    std::string error;
    for (quint32 i = 0; i < at<quint32>(laz, 100); ++i) {
        if (laz.mid(vlr + 2, 14) == "laszip encoded")
            tzLaz::parseDescription(reinterpret_cast<const uchar *>(laz.constData()) + vlr + 54,
                                    at<quint16>(laz, vlr + 20), description, error);
        vlr += 54 + at<quint16>(laz, vlr + 20);
    }
    const auto *file = reinterpret_cast<const uchar *>(laz.constData());
    const auto t0 = std::chrono::steady_clock::now();
    std::vector<tzLaz::Chunk> chunks;
    if (!tzLaz::readChunkTable(file, size_t(laz.size()), at<quint32>(laz, 96),
                               at<quint32>(laz, 107), description, chunks, error)) {
        std::fprintf(stderr, "chunk table: %s\n", error.c_str());
        std::abort();
    }
    const size_t length = description.recordLength();
    std::vector<size_t> first;
    size_t total = 0;
    for (const tzLaz::Chunk &c : chunks) {
        first.push_back(total);
        total += c.points;
    }
    records.resize(total * length);
    std::atomic<size_t> next {0};
    const auto work = [&] {
        tzLaz::ChunkDecoder decoder(description);
        std::string problem;
        size_t consumed = 0;
        for (size_t c = next++; c < chunks.size(); c = next++) {
            if (!decoder.decode(file + chunks[c].offset, size_t(chunks[c].bytes), chunks[c].points,
                                records.data() + first[c] * length, consumed, problem))
                std::abort();
        }
    };
    std::vector<std::thread> pool;
    for (unsigned t = 1; t < threads; ++t)
        pool.emplace_back(work);
    work();
    for (std::thread &t : pool)
        t.join();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// Encoding the records in memory, as the converter does, on one thread: the seconds taken.
double encodeLaz(const std::vector<uchar> &records, size_t length)
{
    tzLaz::Description description;
    std::string error;
    tzLaz::describeFormat(3, length, 50000, description, error);
    tzLaz::ChunkEncoder encoder(description);
    std::vector<uchar> out;
    out.reserve(records.size() / 3);
    const size_t points = records.size() / length;
    const auto t0 = std::chrono::steady_clock::now();
    for (size_t first = 0; first < points; first += 50000)
        encoder.encode(records.data() + first * length,
                       quint32(std::min<size_t>(50000, points - first)), out);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// Opening a file in the viewer as a user does, until the first frame that shows its cloud: the
// seconds taken (a fresh window each time).
double openToFirstFrame(const QString &path)
{
    tzMainWindow window(bench::viewerOptions());
    bench::showWindow(window, "bench_cloudio");
    QSignalSpy opened(&window, &tzMainWindow::fileOpened);
    QElapsedTimer timer;
    timer.start();
    window.openFiles({path});
    if (!opened.wait(300000) || window.databaseRoot()->getChildrenNumber() == 0) {
        std::fprintf(stderr, "bench_cloudio: '%s' did not open\n", qPrintable(path));
        std::abort();
    }
    tzGLWindow *view = window.activeView();
    QSignalSpy drawn(view, &tzGLWindow::frameDrawn);
    view->redraw();
    drawn.wait(120000);
    return timer.elapsed() / 1000.0;
}

// The survey as an E57 of four scans, each a quarter of the points seen from a station in its
// middle, turned a quarter turn more than the one before.
bool writeSurveyE57(const QString &path, const TZLib::PointCloud &cloud)
{
    std::vector<tzE57::ScanToWrite> scans(4);
    const unsigned n = cloud.size();
    quint32 seed = 7;
    for (size_t s = 0; s < scans.size(); ++s) {
        tzE57::ScanToWrite &scan = scans[s];
        scan.name = QStringLiteral("Station %1").arg(s + 1);
        const unsigned first = unsigned(n * s / 4), last = unsigned(n * (s + 1) / 4);
        const TZVector3 &middle = cloud.point((first + last) / 2);
        const double angle = M_PI / 2 * double(s);
        scan.pose.rotation = {std::cos(angle / 2), 0, 0, std::sin(angle / 2)};
        // In the national grid of the LAS files.
        scan.pose.translation = {650000.0 + middle.x, 6860000.0 + middle.y, middle.z + 2.0};
        const double c = std::cos(angle), sn = std::sin(angle);
        for (unsigned i = first; i < last; ++i) {
            seed = seed * 1664525u + 1013904223u;
            const TZVector3 &p = cloud.point(i);
            const double dx = 650000.0 + p.x - scan.pose.translation[0];
            const double dy = 6860000.0 + p.y - scan.pose.translation[1];
            // The inverse of the pose: into the station's frame.
            scan.xyz.insert(scan.xyz.end(),
                            {c * dx + sn * dy, -sn * dx + c * dy, p.z - scan.pose.translation[2]});
            scan.intensities.push_back(quint16(300 + int(p.z * 7) % 200 + int(seed >> 28)));
            scan.colours.push_back({quint8(90 + int(p.z * 3) % 60), quint8(120 + int(p.z * 2) % 70),
                                    quint8(60 + (seed >> 29))});
        }
    }
    QByteArray bytes;
    std::string error;
    if (!tzE57::writeFile(scans, bytes, error))
        return false;
    QFile f(path);
    return f.open(QIODevice::WriteOnly) && f.write(bytes) == bytes.size();
}

// The peer decoder's seconds on a LAZ file (it prints them), or -1 when it cannot run.
double peerSeconds(const QString &peerDir, const QString &laz, const QString &records)
{
    if (!QFile::exists(peerDir + QStringLiteral("/node_modules/laz-perf/package.json")))
        return -1;
    QProcess node;
    node.start(QStringLiteral("node"),
               {QStringLiteral(LAZ_PEER_SCRIPT), peerDir, laz, records, QStringLiteral("3")});
    if (!node.waitForFinished(600000) || node.exitCode() != 0) {
        std::fprintf(stderr, "laz-perf: %s\n", node.readAllStandardError().constData());
        return -1;
    }
    const QList<QByteArray> words = node.readAllStandardOutput().trimmed().split(' ');
    return words.size() >= 2 ? words[words.size() - 2].toDouble() : -1;
}

} // namespace

int main(int argc, char **argv)
{
    QSurfaceFormat::setDefaultFormat(tzGLWindow::defaultFormat());
    QApplication app(argc, argv);
    QApplication::setOrganizationName(QStringLiteral("TessaroBench"));
    QApplication::setApplicationName(QStringLiteral("bench_cloudio"));
    bench::silenceDebugLines();
    unsigned points = 10000000;
    QString peerDir = QStringLiteral(LAZ_PEER_DIR), keep;
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "--points=", 9) == 0)
            points = unsigned(std::strtoul(argv[i] + 9, nullptr, 10));
        else if (std::strncmp(argv[i], "--peer=", 7) == 0)
            peerDir = QString::fromLocal8Bit(argv[i] + 7);
        else if (std::strncmp(argv[i], "--keep=", 7) == 0)
            keep = QString::fromLocal8Bit(argv[i] + 7);
    }
    bench::Terrain terrain;
    bench::makeTerrain(terrain, points);
    QTemporaryDir temporary;
    const QDir dir(keep.isEmpty() ? temporary.path() : keep);
    const QString ply = dir.filePath("terrain.ply"), las = dir.filePath("terrain.las");
    if (!writePly(ply, terrain.cloud) || !bench::writeLas(las, terrain.cloud)) {
        std::fprintf(stderr, "cannot write the benchmark files in %s\n", qPrintable(dir.path()));
        return 1;
    }
    std::printf("%-22s %10s %10s %12s %10s\n", "file", "MB", "load s", "MB/s", "vs read");
    for (const QString &path : {ply, las}) {
        QFile f(path);
        f.open(QIODevice::ReadOnly);
        const double mb = double(f.size()) / 1e6;
        const double read = secondsOf([&] {
            f.seek(0);
            QByteArray all = f.readAll();
            if (all.isEmpty())
                std::abort();
        });
        QString error;
        const double load = secondsOf([&] {
            std::unique_ptr<tzPointCloud> cloud(tzCloudFile::load(path, error));
            if (!cloud || cloud->size() != points) {
                std::fprintf(stderr, "%s\n", qPrintable(error));
                std::abort();
            }
        });
        std::printf("%-22s %10.1f %10.3f %12.0f %9.2fx\n", qPrintable(QFileInfo(path).fileName()),
                    mb, load, mb / load, load / read);
    }

    // ---- LAZ
    const QString surveyLas = dir.filePath("survey.las"), surveyLaz = dir.filePath("survey.laz");
    QString error;
    if (!bench::writeSurveyLas(surveyLas, terrain.cloud)
        || !tzCloudFile::convert(surveyLas, surveyLaz, error)) {
        std::fprintf(stderr, "cannot write the LAZ survey: %s\n", qPrintable(error));
        return 1;
    }
    QFile lazFile(surveyLaz), lasFile(surveyLas);
    lazFile.open(QIODevice::ReadOnly);
    lasFile.open(QIODevice::ReadOnly);
    const QByteArray laz = lazFile.readAll();
    std::vector<uchar> records;
    const double decode1 = std::min(
        {decodeLaz(laz, 1, records), decodeLaz(laz, 1, records), decodeLaz(laz, 1, records)});
    const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
    const double decodeAll
        = std::min({decodeLaz(laz, cores, records), decodeLaz(laz, cores, records),
                    decodeLaz(laz, cores, records)});
    const double encode1
        = std::min({encodeLaz(records, 34), encodeLaz(records, 34), encodeLaz(records, 34)});
    // Alternated, the best of two each.
    double openLaz = 1e30, openLas = 1e30;
    for (int round = 0; round < 2; ++round) {
        openLas = std::min(openLas, openToFirstFrame(surveyLas));
        openLaz = std::min(openLaz, openToFirstFrame(surveyLaz));
    }
    const QString peerRecords = dir.filePath("peer.records");
    const double peer = peerSeconds(peerDir, surveyLaz, peerRecords);
    if (peer > 0) {
        QFile check(peerRecords);
        check.open(QIODevice::ReadOnly);
        const QByteArray theirs = check.readAll();
        if (theirs.size() != qsizetype(records.size())
            || std::memcmp(theirs.constData(), records.data(), records.size()) != 0) {
            std::fprintf(stderr, "laz-perf and our decoder disagree on the survey's records\n");
            return 1;
        }
    }
    std::printf("\nLAZ of %u points (point format 3), %u cores\n", points, cores);
    std::printf("%-34s %12s %12s %8s\n", "figure", "ours", "other", "ratio");
    if (peer > 0) {
        std::printf("%-34s %10.3f s %10.3f s %8.3f\n", "laz decode, 1 thread vs peer", decode1,
                    peer, decode1 / peer);
        std::printf("%-34s %10.3f s %10.3f s %8.3f\n", "laz decode, all cores vs peer", decodeAll,
                    peer, decodeAll / peer);
    } else {
        std::printf("%-34s %10.3f s %12s %8s\n", "laz decode, 1 thread vs peer", decode1, "no peer",
                    "-");
        std::printf("%-34s %10.3f s %12s %8s\n", "laz decode, all cores vs peer", decodeAll,
                    "no peer", "-");
    }
    std::printf("%-34s %10.3f s %10.3f s %8.3f\n", "laz open vs las open", openLaz, openLas,
                openLaz / openLas);
    std::printf("%-34s %10.3f s %10.3f s %8.3f\n", "laz encode vs decode", encode1, decode1,
                encode1 / decode1);
    std::printf("%-34s %9.1f MB %9.1f MB %8.3f\n", "laz size vs las size", laz.size() / 1e6,
                lasFile.size() / 1e6, double(laz.size()) / double(lasFile.size()));

    // ---- E57
    const QString surveyE57 = dir.filePath("survey.e57");
    if (!writeSurveyE57(surveyE57, terrain.cloud)) {
        std::fprintf(stderr, "cannot write the E57 survey\n");
        return 1;
    }
    size_t e57Points = 0;
    const double e57Read = secondsOf([&] {
        std::unique_ptr<tzHObject> scans(tzCloudFile::loadObjects(surveyE57, error));
        e57Points = 0;
        for (unsigned i = 0; scans && i < scans->getChildrenNumber(); ++i)
            e57Points += static_cast<tzPointCloud *>(scans->getChild(i))->size();
    });
    const double lasRead = secondsOf([&] {
        std::unique_ptr<tzPointCloud> cloud(tzCloudFile::load(surveyLas, error));
        if (!cloud)
            std::abort();
    });
    if (e57Points != points) {
        std::fprintf(stderr, "the E57 survey read %zu of %u points: %s\n", e57Points, points,
                     qPrintable(error));
        return 1;
    }
    std::printf("\nE57 of %u points in 4 scans (%.1f MB), %u cores\n", points,
                QFileInfo(surveyE57).size() / 1e6, cores);
    std::printf("%-34s %12s %12s %8s\n", "figure", "ours", "other", "ratio");
    std::printf("%-34s %10.3f s %10.3f s %8.3f\n", "e57 read vs las read", e57Read, lasRead,
                e57Read / lasRead);
    return 0;
}
