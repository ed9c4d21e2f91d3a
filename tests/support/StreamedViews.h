#pragma once

// What the tests of streamed clouds use: a survey to index, a cloud streamed from a file (or a
// URL, or tiles), a top view of a box, and the nodes it shows once every node it asked for has
// been read.

#include "tzCloudFile.h"
#include "tzCopc.h"
#include "tzPointCloud.h"
#include "tzStreamedCloud.h"

#include <cmath>
#include <memory>
#include <random>
#include <vector>

namespace streamed {

// Ground over 300 x 200 m on a national grid, trees on it, a dense patch and points stacked on
// one spot.
inline std::unique_ptr<tzPointCloud> survey(int count)
{
    std::mt19937 random(7);
    std::uniform_real_distribution<double> u(0, 1);
    auto cloud = std::make_unique<tzPointCloud>(QStringLiteral("survey"));
    const TZVector3d shift(-651000, -6861000, 0);
    std::vector<TZVector3> points;
    std::vector<tzRgb> colours;
    std::vector<tzPointAttributes> attributes;
    for (int i = 0; i < count; ++i) {
        double x = 300 * u(random), y = 200 * u(random);
        if (i % 4 == 0) { // the dense patch
            x = 40 + 10 * u(random);
            y = 30 + 10 * u(random);
        }
        if (i % 101 == 0) {
            x = 123.45;
            y = 67.89;
        }
        double z = 100 + 3 * std::sin(x / 20) + 0.05 * u(random);
        if (i % 5 == 0)
            z += 12 * u(random); // vegetation
        // Millimetres, as the file keeps them.
        const auto mm = [](double v) { return std::round(v * 1000) / 1000; };
        points.push_back(
            TZVector3::fromVector(TZVector3d(mm(651000 + x), mm(6861000 + y), mm(z)) + shift));
        colours.push_back({quint8(i % 251), quint8(i % 13 * 19), quint8(200)});
        attributes.push_back({quint16(i % 4000), quint8(i % 5 == 0 ? 5 : 2), quint8(0x11)});
    }
    cloud->setPoints(std::move(points));
    cloud->setColors(std::move(colours));
    cloud->setAttributes(std::move(attributes),
                         tzPointDisplay::INTENSITY | tzPointDisplay::CLASSIFICATION);
    cloud->setGlobalShift(shift);
    return cloud;
}

// The survey of count points written as folder/survey.las and indexed into
// folder/survey.copc.laz with nodes of at most leafPoints points: the index's path, or empty
// with the error.
inline QString indexSurvey(const QString &folder, int count, std::size_t leafPoints, QString &error)
{
    const QString las = folder + QStringLiteral("/survey.las");
    const QString copc = folder + QStringLiteral("/survey.copc.laz");
    tzCopc::IndexOptions options;
    options.leafPoints = leafPoints;
    if (!tzCloudFile::save(*survey(count), las, error)
        || !tzCopc::index({las}, copc, error, options))
        return QString();
    return copc;
}

// A file (a COPC file, a URL, a survey's tiles) open streamed with the given shift; null, with
// the error, when it cannot be.
inline std::unique_ptr<tzStreamedCloud> openStreamed(const QString &name, const TZVector3d &shift,
                                                     QString &error)
{
    std::unique_ptr<tzCloudSource> source = tzCopc::openSource(name, error);
    if (!source)
        return nullptr;
    auto cloud = std::make_unique<tzStreamedCloud>(std::move(source));
    cloud->setGlobalShift(shift);
    if (!cloud->open(error))
        return nullptr;
    return cloud;
}

// A top view (orthographic) of the box [x0, x1] x [y0, y1] around z 100 in local coordinates,
// on a screen of size pixels: the matrix that maps the box to the unit square.
inline tzStreamedCloud::View topView(double x0, double x1, double y0, double y1, int size,
                                     std::uint64_t budget = 0)
{
    tzStreamedCloud::View view;
    auto &m = view.modelViewProjection;
    m.fill(0);
    m[0] = float(2 / (x1 - x0));
    m[5] = float(2 / (y1 - y0));
    m[10] = float(-2.0 / 1000);
    m[12] = float(-(x1 + x0) / (x1 - x0));
    m[13] = float(-(y1 + y0) / (y1 - y0));
    m[14] = float(100.0 * 2 / 1000);
    m[15] = 1;
    view.width = view.height = size;
    view.pointBudget = budget;
    return view;
}

// The nodes the view draws once the reads it asked for have come (or 64 rounds).
inline std::vector<tzStreamedCloud::Piece> settle(tzStreamedCloud &cloud,
                                                  const tzStreamedCloud::View &view)
{
    bool complete = false;
    std::vector<tzStreamedCloud::Piece> pieces;
    for (int round = 0; round < 64 && !complete; ++round) {
        pieces = cloud.selectNodes(view, &complete);
        cloud.waitForReads();
        cloud.integrateArrivals();
    }
    return pieces;
}

} // namespace streamed
