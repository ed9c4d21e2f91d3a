#include "Octree.h"
#include "ReferenceCloud.h"

#include <QtTest>

#include <algorithm>
#include <cmath>
#include <random>

using namespace TZLib;

Q_DECLARE_METATYPE(TZVector3)

namespace {

using Hits = std::vector<std::pair<unsigned, double>>;

// The same tests the octree applies, written out plainly over every point.
Hits bruteSphere(const PointCloud &cloud, const TZVector3 &c, float r)
{
    Hits hits;
    const double r2 = double(r) * double(r);
    for (unsigned i = 0; i < cloud.size(); ++i) {
        const TZVector3 &p = cloud.point(i);
        const double dx = double(p.x) - c.x, dy = double(p.y) - c.y, dz = double(p.z) - c.z;
        const double d2 = dx * dx + dy * dy + dz * dz;
        if (d2 <= r2)
            hits.emplace_back(i, d2);
    }
    return hits;
}

Hits bruteCylinder(const PointCloud &cloud, const Octree::CylindricalNeighbourhood &q)
{
    Hits hits;
    const double r2 = double(q.radius) * double(q.radius);
    const double tmax = q.maxHalfLength, tmin = q.onlyPositiveDir ? 0.0 : -tmax;
    for (unsigned i = 0; i < cloud.size(); ++i) {
        const TZVector3 &p = cloud.point(i);
        const double v[3]
            = {double(p.x) - q.center.x, double(p.y) - q.center.y, double(p.z) - q.center.z};
        const double t = v[0] * q.dir.x + v[1] * q.dir.y + v[2] * q.dir.z;
        if (t < tmin || t > tmax)
            continue;
        const double w[3] = {v[0] - t * q.dir.x, v[1] - t * q.dir.y, v[2] - t * q.dir.z};
        const double d2 = w[0] * w[0] + w[1] * w[1] + w[2] * w[2];
        if (d2 <= r2)
            hits.emplace_back(i, d2);
    }
    return hits;
}

Hits sortedHits(const Octree::NeighboursSet &set, const PointCloud &cloud)
{
    Hits hits;
    for (const auto &n : set) {
        // Every descriptor must point at the cloud's own point of that index.
        if (n.point != cloud.getPoint(n.pointIndex))
            return {{~0u, -1.0}};
        hits.emplace_back(n.pointIndex, n.squareDistd);
    }
    std::sort(hits.begin(), hits.end());
    return hits;
}

// A survey-like surface: undulating ground in rows, a fifth of the points raised as vegetation.
void makeTerrain(PointCloud &cloud, unsigned n, unsigned seed)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> jitter(-0.05f, 0.05f), veg(0.f, 10.f), u(0.f, 1.f);
    const unsigned side = unsigned(std::sqrt(double(n)));
    cloud.reserve(n);
    for (unsigned i = 0; i < n; ++i) {
        const float x = float(i % side) * 0.16f + jitter(rng);
        const float y = float(i / side) * 0.16f + jitter(rng);
        float z = 2.f * std::sin(x * 0.05f) + 1.5f * std::cos(y * 0.07f);
        if (u(rng) < 0.2f)
            z += veg(rng);
        cloud.addPoint({x, y, z});
    }
}

void makeUniform(PointCloud &cloud, unsigned n, unsigned seed, float size)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(0.f, size);
    for (unsigned i = 0; i < n; ++i)
        cloud.addPoint({u(rng), u(rng), u(rng)});
}

} // namespace

class TestOctree : public QObject
{
    Q_OBJECT

private slots:
    void sphereMatchesBruteForce_data();
    void sphereMatchesBruteForce();
    void cylinderMatchesBruteForce_data();
    void cylinderMatchesBruteForce();
    void resultDoesNotDependOnLevel();
    void orderIsStable();
    void emptyCloud();
    void identicalPoints();
    void pointExactlyOnRadiusIsIncluded();
    void cylinderReachingPastTheCloud();
    void farOutlierKeepsQueriesExact();
    void memoryStaysWithinEightBytesPerPoint();
    void bestLevelGrowsAsRadiusShrinks();
    void referenceCloudAndPolyline();
};

void TestOctree::sphereMatchesBruteForce_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<unsigned>("count");
    QTest::addColumn<float>("radius");
    QTest::newRow("terrain r=0.1") << "terrain" << 300000u << 0.1f;
    QTest::newRow("terrain r=0.5") << "terrain" << 300000u << 0.5f;
    QTest::newRow("terrain r=3") << "terrain" << 300000u << 3.f;
    QTest::newRow("uniform small r") << "uniform" << 50000u << 0.02f;
    QTest::newRow("uniform large r") << "uniform" << 50000u << 0.4f;
    QTest::newRow("tiny cloud") << "uniform" << 7u << 0.5f;
    // A dense block and one far point: the coarse cells are large and hold many leaves, so
    // queries descend through the levels instead of scanning the leaves of a cell.
    QTest::newRow("clustered") << "clustered" << 60000u << 0.05f;
}

void TestOctree::sphereMatchesBruteForce()
{
    QFETCH(QString, kind);
    QFETCH(unsigned, count);
    QFETCH(float, radius);
    PointCloud cloud;
    if (kind == "terrain") {
        makeTerrain(cloud, count, 42);
    } else if (kind == "clustered") {
        makeUniform(cloud, count - 1, 7, 1.f);
        cloud.addPoint({3000.f, 2.f, 1.f});
    } else {
        makeUniform(cloud, count, 7, 1.f);
    }
    Octree octree(&cloud);
    QCOMPARE(octree.build(), int(count));

    std::mt19937 rng(1234);
    TZVector3 mn, mx;
    cloud.getBoundingBox(mn, mx);
    std::uniform_int_distribution<unsigned> pick(0, count - 1);
    std::uniform_real_distribution<float> off(-radius, radius);
    const unsigned char level = octree.findBestLevelForAGivenNeighbourhoodSizeExtraction(radius);
    for (int q = 0; q < 200; ++q) {
        // Half the centres on cloud points, half beside them.
        TZVector3 c = cloud.point(pick(rng));
        if (q % 2)
            c += TZVector3(off(rng), off(rng), off(rng));
        Octree::NeighboursSet found;
        octree.getPointsInSphericalNeighbourhood(c, radius, found, level);
        QCOMPARE(sortedHits(found, cloud), bruteSphere(cloud, c, radius));
    }
}

void TestOctree::cylinderMatchesBruteForce_data()
{
    QTest::addColumn<TZVector3>("dir");
    QTest::addColumn<bool>("onlyPositive");
    QTest::addColumn<float>("radius");
    QTest::addColumn<float>("halfLength");
    QTest::newRow("downward lowest-point search") << TZVector3(0, 0, -1) << true << 0.1f << 20.f;
    QTest::newRow("vertical both ways") << TZVector3(0, 0, 1) << false << 0.3f << 5.f;
    QTest::newRow("horizontal") << TZVector3(1, 0, 0) << false << 0.2f << 3.f;
    const float s = 1.f / std::sqrt(3.f);
    QTest::newRow("oblique positive") << TZVector3(s, s, s) << true << 0.25f << 4.f;
}

void TestOctree::cylinderMatchesBruteForce()
{
    QFETCH(TZVector3, dir);
    QFETCH(bool, onlyPositive);
    QFETCH(float, radius);
    QFETCH(float, halfLength);
    PointCloud cloud;
    makeTerrain(cloud, 200000, 9);
    Octree octree(&cloud);
    octree.build();
    std::mt19937 rng(99);
    std::uniform_int_distribution<unsigned> pick(0, cloud.size() - 1);
    for (int q = 0; q < 200; ++q) {
        Octree::CylindricalNeighbourhood params;
        params.center = cloud.point(pick(rng)) + TZVector3(0, 0, q % 3 == 0 ? 5.f : 0.f);
        params.dir = dir;
        params.radius = radius;
        params.maxHalfLength = halfLength;
        params.onlyPositiveDir = onlyPositive;
        params.level = octree.findBestLevelForAGivenNeighbourhoodSizeExtraction(radius);
        octree.getPointsInCylindricalNeighbourhood(params);
        QCOMPARE(sortedHits(params.neighbours, cloud), bruteCylinder(cloud, params));
    }
}

void TestOctree::resultDoesNotDependOnLevel()
{
    PointCloud cloud;
    makeTerrain(cloud, 100000, 3);
    Octree octree(&cloud);
    octree.build();
    const TZVector3 c = cloud.point(5000);
    const Hits expected = bruteSphere(cloud, c, 1.f);
    QVERIFY(!expected.empty());
    for (unsigned level = 0; level <= Octree::MAX_LEVEL + 2; ++level) {
        Octree::NeighboursSet found;
        octree.getPointsInSphericalNeighbourhood(c, 1.f, found, static_cast<unsigned char>(level));
        QCOMPARE(sortedHits(found, cloud), expected);
    }
}

void TestOctree::orderIsStable()
{
    // Large enough for the build to split the work between threads: one thread and several
    // must give the same octree, down to the order of the results.
    PointCloud cloud;
    makeTerrain(cloud, 300000, 5);
    Octree a(&cloud), b(&cloud);
    a.build({}, 1);
    b.build({}, 3);
    QCOMPARE(a.leafLevel(), b.leafLevel());
    QCOMPARE(a.memoryUsed(), b.memoryUsed());
    const TZVector3 c = cloud.point(123456);
    Octree::NeighboursSet first, second;
    a.getPointsInSphericalNeighbourhood(c, 1.5f, first, 4);
    b.getPointsInSphericalNeighbourhood(c, 1.5f, second, 4);
    QVERIFY(first.size() > 100);
    QCOMPARE(first.size(), second.size());
    for (std::size_t i = 0; i < first.size(); ++i)
        QCOMPARE(first[i].pointIndex, second[i].pointIndex);
    QCOMPARE(sortedHits(first, cloud), bruteSphere(cloud, c, 1.5f));
}

void TestOctree::emptyCloud()
{
    PointCloud cloud;
    Octree octree(&cloud);
    QCOMPARE(octree.build(), 0);
    Octree::NeighboursSet found;
    QCOMPARE(octree.getPointsInSphericalNeighbourhood({0, 0, 0}, 10.f, found, 3), 0);
    Octree::CylindricalNeighbourhood params;
    params.radius = 1;
    params.maxHalfLength = 1;
    QCOMPARE(octree.getPointsInCylindricalNeighbourhood(params), std::size_t(0));
}

void TestOctree::identicalPoints()
{
    PointCloud cloud;
    for (int i = 0; i < 1000; ++i)
        cloud.addPoint({650000.f, 6860000.f, 100.f});
    Octree octree(&cloud);
    QCOMPARE(octree.build(), 1000);
    Octree::NeighboursSet found;
    octree.getPointsInSphericalNeighbourhood({650000.f, 6860000.f, 100.f}, 0.f, found, 5);
    QCOMPARE(found.size(), std::size_t(1000));
    for (unsigned i = 0; i < 1000; ++i)
        QCOMPARE(found[i].pointIndex, i); // ties keep index order
}

void TestOctree::pointExactlyOnRadiusIsIncluded()
{
    PointCloud cloud;
    makeUniform(cloud, 5000, 11, 4.f);
    cloud.addPoint({3.f, 2.f, 2.f});
    cloud.addPoint({2.f, 2.f, 1.f});
    Octree octree(&cloud);
    octree.build();
    Octree::NeighboursSet found;
    octree.getPointsInSphericalNeighbourhood({2.f, 2.f, 2.f}, 1.f, found, 6);
    const Hits hits = sortedHits(found, cloud);
    QCOMPARE(hits, bruteSphere(cloud, {2.f, 2.f, 2.f}, 1.f));
    QVERIFY(std::count_if(hits.begin(), hits.end(), [](auto &h) { return h.first >= 5000; }) == 2);
}

void TestOctree::cylinderReachingPastTheCloud()
{
    PointCloud cloud;
    makeUniform(cloud, 10000, 13, 1.f);
    Octree octree(&cloud);
    octree.build();
    Octree::CylindricalNeighbourhood params;
    params.center = {0.5f, 0.5f, 50.f}; // far above, reaching down through and below the cloud
    params.dir = {0, 0, -1};
    params.radius = 0.1f;
    params.maxHalfLength = 100.f;
    params.onlyPositiveDir = true;
    params.level = 3;
    octree.getPointsInCylindricalNeighbourhood(params);
    QVERIFY(!params.neighbours.empty());
    QCOMPARE(sortedHits(params.neighbours, cloud), bruteCylinder(cloud, params));
    params.dir = {0, 0, 1}; // pointing away: nothing
    octree.getPointsInCylindricalNeighbourhood(params);
    QVERIFY(params.neighbours.empty());
}

void TestOctree::farOutlierKeepsQueriesExact()
{
    PointCloud cloud;
    makeTerrain(cloud, 50000, 17);
    cloud.addPoint({1.0e5f, -3.0e4f, 900.f});
    Octree octree(&cloud);
    octree.build();
    std::mt19937 rng(5);
    std::uniform_int_distribution<unsigned> pick(0, cloud.size() - 2);
    for (int q = 0; q < 50; ++q) {
        const TZVector3 c = cloud.point(pick(rng));
        Octree::NeighboursSet found;
        octree.getPointsInSphericalNeighbourhood(
            c, 0.3f, found, octree.findBestLevelForAGivenNeighbourhoodSizeExtraction(0.3f));
        QCOMPARE(sortedHits(found, cloud), bruteSphere(cloud, c, 0.3f));
        Octree::CylindricalNeighbourhood params;
        params.center = c;
        params.dir = {0, 0, -1};
        params.radius = 0.1f;
        params.maxHalfLength = 20.f;
        params.onlyPositiveDir = true;
        params.level = octree.findBestLevelForAGivenNeighbourhoodSizeExtraction(0.1f);
        octree.getPointsInCylindricalNeighbourhood(params);
        QCOMPARE(sortedHits(params.neighbours, cloud), bruteCylinder(cloud, params));
    }
}

void TestOctree::memoryStaysWithinEightBytesPerPoint()
{
    for (unsigned seed : {1u, 2u}) {
        PointCloud cloud;
        if (seed == 1)
            makeTerrain(cloud, 1000000, seed);
        else
            makeUniform(cloud, 1000000, seed, 100.f);
        Octree octree(&cloud);
        octree.build();
        QVERIFY2(octree.memoryUsed() <= 8 * std::size_t(cloud.size()),
                 qPrintable(QString::number(double(octree.memoryUsed()) / cloud.size())));
    }
}

void TestOctree::bestLevelGrowsAsRadiusShrinks()
{
    PointCloud cloud;
    makeUniform(cloud, 100000, 19, 100.f);
    Octree octree(&cloud);
    octree.build();
    const unsigned char big = octree.findBestLevelForAGivenNeighbourhoodSizeExtraction(20.f);
    const unsigned char small = octree.findBestLevelForAGivenNeighbourhoodSizeExtraction(0.5f);
    QVERIFY(big < small);
    QVERIFY(octree.cellSize(small) >= 1.0);
    QVERIFY(small <= octree.leafLevel());
}

void TestOctree::referenceCloudAndPolyline()
{
    PointCloud cloud;
    cloud.addPoint({1, 2, 3});
    cloud.addPoint({4, 5, 6});
    Polyline line(&cloud);
    QVERIFY(line.addPointIndex(1));
    QVERIFY(line.addPointIndex(0));
    line.setClosed(true);
    QCOMPARE(line.size(), 2u);
    QCOMPARE(*line.getPoint(0), TZVector3(4, 5, 6));
    QCOMPARE(line.getPoint(2), nullptr);
    QVERIFY(line.isClosed());
    cloud.reset();
    QCOMPARE(cloud.getPoint(0), nullptr);
}

QTEST_APPLESS_MAIN(TestOctree)
#include "tst_octree.moc"
