#pragma once

// LAS files of the benchmarks' terrain: plain records (coordinates and colours), or the records
// of an airborne survey (intensity, returns, classes, GPS time).

#include "PointCloudTpl.h"

#include <QByteArray>
#include <QFile>
#include <QString>

#include <algorithm>
#include <cmath>
#include <cstring>

namespace bench {

// The header of a LAS 1.2 file of count records of point format 3 in a national grid (scale
// 1 mm), with no VLR.
inline QByteArray lasHeader(unsigned count)
{
    QByteArray h(227, '\0');
    std::memcpy(h.data(), "LASF", 4);
    h[24] = 1;
    h[25] = 2;
    auto put = [&h](int at, auto v) { std::memcpy(h.data() + at, &v, sizeof(v)); };
    put(94, quint16(227));
    put(96, quint32(227));
    h[104] = 3;
    put(105, quint16(34));
    put(107, quint32(count));
    const double offsets[3] = {650000, 6860000, 0};
    for (int d = 0; d < 3; ++d) {
        put(131 + 8 * d, 0.001);
        put(155 + 8 * d, offsets[d]);
        put(179 + 16 * d, offsets[d] + 600);
        put(187 + 16 * d, offsets[d] - 20);
    }
    return h;
}

// Writes the box of the cloud's points (as the records round them) into the header of f.
inline void writeBounds(QFile &f, const TZLib::PointCloud &cloud)
{
    const double offsets[3] = {650000, 6860000, 0};
    double min[3] = {0, 0, 0}, max[3] = {0, 0, 0};
    for (unsigned i = 0; i < cloud.size(); ++i) {
        const TZVector3 &p = cloud.point(i);
        for (int d = 0; d < 3; ++d) {
            const double v = std::lround(p[d] * 1000.0) / 1000.0 + offsets[d];
            min[d] = i == 0 ? v : std::min(min[d], v);
            max[d] = i == 0 ? v : std::max(max[d], v);
        }
    }
    for (int d = 0; d < 3; ++d) {
        f.seek(179 + 16 * d);
        f.write(reinterpret_cast<const char *>(&max[d]), 8);
        f.write(reinterpret_cast<const char *>(&min[d]), 8);
    }
}

// LAS 1.2, point format 3, in a national grid (scale 1 mm).
inline bool writeLas(const QString &path, const TZLib::PointCloud &cloud)
{
    QFile f(path);
    if (!f.open(QIODevice::WriteOnly))
        return false;
    f.write(lasHeader(cloud.size()));
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
    writeBounds(f, cloud);
    return true;
}

// LAS 1.2, point format 3, with what an airborne survey's records hold: an intensity that
// follows the ground, first and last returns, ground and vegetation classes, a GPS time a few
// microseconds apart, 8-bit colours in the 16-bit fields.
inline bool writeSurveyLas(const QString &path, const TZLib::PointCloud &cloud)
{
    QFile f(path);
    if (!f.open(QIODevice::WriteOnly))
        return false;
    f.write(lasHeader(cloud.size()));
    QByteArray chunk;
    uchar rec[34] = {};
    quint32 seed = 7;
    for (unsigned i = 0; i < cloud.size(); ++i) {
        seed = seed * 1664525u + 1013904223u;
        const TZVector3 &p = cloud.point(i);
        const qint32 xyz[3] = {qint32(std::lround(p.x * 1000.0)), qint32(std::lround(p.y * 1000.0)),
                               qint32(std::lround(p.z * 1000.0))};
        std::memcpy(rec, xyz, 12);
        const quint16 intensity = quint16(300 + int(p.z * 7) % 200 + int(seed >> 28));
        std::memcpy(rec + 12, &intensity, 2);
        const bool vegetation = (seed >> 8) % 5 == 0;
        rec[14] = vegetation ? uchar(1 | (2 << 3)) : uchar(1 | (1 << 3));
        rec[15] = vegetation ? 3 : 2;
        rec[16] = uchar(qint8(int(p.x) % 30 - 15));
        const double time = 250000.0 + i * 2.0e-6;
        std::memcpy(rec + 20, &time, 8);
        const quint16 rgb[3] = {quint16(90 + int(p.z * 3) % 60), quint16(120 + int(p.z * 2) % 70),
                                quint16(60 + (seed >> 29))};
        std::memcpy(rec + 28, rgb, 6);
        chunk.append(reinterpret_cast<const char *>(rec), 34);
        if (chunk.size() > (1 << 22)) {
            f.write(chunk);
            chunk.clear();
        }
    }
    f.write(chunk);
    writeBounds(f, cloud);
    return true;
}

} // namespace bench
