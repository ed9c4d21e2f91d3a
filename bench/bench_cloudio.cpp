// Loading a 10 M point survey terrain from binary PLY and LAS, warm in the file cache, against
// reading the same bytes into memory (the limit) in the same run. Prints MB/s and the ratios.
//
//   bench_cloudio [--points=N]

#include "Terrain.h"
#include "tzCloudFile.h"
#include "tzPointCloud.h"

#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <functional>

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
        best = std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
    }
    return best;
}

bool writePly(const QString &path, const TZLib::PointCloud &cloud)
{
    QFile f(path);
    if (!f.open(QIODevice::WriteOnly))
        return false;
    f.write(QByteArray("ply\nformat binary_little_endian 1.0\nelement vertex ") + QByteArray::number(cloud.size())
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

// LAS 1.2, point format 3, in a national grid (scale 1 mm).
bool writeLas(const QString &path, const TZLib::PointCloud &cloud)
{
    QFile f(path);
    if (!f.open(QIODevice::WriteOnly))
        return false;
    QByteArray h(227, '\0');
    std::memcpy(h.data(), "LASF", 4);
    h[24] = 1;
    h[25] = 2;
    auto put = [&h](int at, auto v) { std::memcpy(h.data() + at, &v, sizeof(v)); };
    put(94, quint16(227));
    put(96, quint32(227));
    h[104] = 3;
    put(105, quint16(34));
    put(107, quint32(cloud.size()));
    const double offsets[3] = {650000, 6860000, 0};
    for (int d = 0; d < 3; ++d) {
        put(131 + 8 * d, 0.001);
        put(155 + 8 * d, offsets[d]);
        put(179 + 16 * d, offsets[d] + 600);
        put(187 + 16 * d, offsets[d] - 20);
    }
    f.write(h);
    QByteArray chunk;
    char rec[34] = {};
    for (unsigned i = 0; i < cloud.size(); ++i) {
        const TZVector3 &p = cloud.point(i);
        const qint32 xyz[3] = {qint32(std::lround(p.x * 1000.0)), qint32(std::lround(p.y * 1000.0)),
                               qint32(std::lround(p.z * 1000.0))};
        std::memcpy(rec, xyz, 12);
        const quint16 rgb[3] = {quint16(i << 8), quint16(i), quint16(i >> 8)};
        std::memcpy(rec + 28, rgb, 6);
        chunk.append(rec, 34);
        if (chunk.size() > (1 << 22)) {
            f.write(chunk);
            chunk.clear();
        }
    }
    f.write(chunk);
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    unsigned points = 10000000;
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "--points=", 9) == 0)
            points = unsigned(std::strtoul(argv[i] + 9, nullptr, 10));
    }
    bench::Terrain terrain;
    bench::makeTerrain(terrain, points);
    QTemporaryDir dir;
    const QString ply = dir.filePath("terrain.ply"), las = dir.filePath("terrain.las");
    if (!writePly(ply, terrain.cloud) || !writeLas(las, terrain.cloud)) {
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
        std::printf("%-22s %10.1f %10.3f %12.0f %9.2fx\n", qPrintable(QFileInfo(path).fileName()), mb, load,
                    mb / load, load / read);
    }
    return 0;
}
