// The camera's projections and the CPU point picking, against a brute-force scan.

#include "tzCamera.h"
#include "tzPointCloud.h"
#include "tzPointPicker.h"

#include <QtTest>

#include <cmath>
#include <random>

namespace {

// The front-most point within tolPx of the pixel, by projecting every point; ties by index.
bool brutePick(const tzCamera &camera, const std::vector<tzGenericPointCloud *> &clouds, double x,
               double y, double tolPx, tzGenericPointCloud *&cloud, unsigned &index)
{
    TZVector3d origin, dir;
    camera.ray(x, y, origin, dir);
    bool found = false;
    double best = 0;
    for (tzGenericPointCloud *c : clouds) {
        for (unsigned i = 0; i < c->size(); ++i) {
            const TZVector3 &q = c->point(i);
            const TZVector3d p(q.x, q.y, q.z);
            double px, py, depth;
            if (!camera.project(p, px, py, depth))
                continue;
            if ((px - x) * (px - x) + (py - y) * (py - y) > tolPx * tolPx)
                continue;
            const double t = (p - origin).dot(dir);
            if (!found || t < best) {
                found = true;
                best = t;
                cloud = c;
                index = i;
            }
        }
    }
    return found;
}

void makeTerrain(tzPointCloud &cloud, unsigned n, unsigned seed)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(0.f, 1.f), jitter(-0.05f, 0.05f);
    const unsigned side = unsigned(std::sqrt(double(n)));
    for (unsigned i = 0; i < n; ++i) {
        const float x = float(i % side) * 0.2f + jitter(rng);
        const float y = float(i / side) * 0.2f + jitter(rng);
        float z = std::sin(x * 0.1f) * 2.f;
        if (u(rng) < 0.2f)
            z += 5.f * u(rng);
        cloud.addPoint({x, y, z});
    }
}

tzCamera lookingAt(const TZVector3d &target, const TZVector3d &from, bool perspective, int w, int h)
{
    tzCamera camera;
    camera.width = w;
    camera.height = h;
    camera.params.perspectiveView = perspective;
    camera.params.fov_deg = 40.f;
    camera.params.pixelSize = 0.05;
    camera.params.cameraCenter = from;
    camera.params.pivotPoint = target;
    camera.setCustomView(target - from, TZVector3d(0, 0, 1));
    return camera;
}

} // namespace

class TestPointPicker : public QObject
{
    Q_OBJECT

private slots:
    void projectionAndRayAgree_data();
    void projectionAndRayAgree();
    void pickMatchesBruteForce_data();
    void pickMatchesBruteForce();
    void frontPointHidesTheOneBehind();
    void nearestCloudWins();
    void emptyPixelPicksNothing();
    void cameraMovesKeepThePivotInPlace();
};

void TestPointPicker::projectionAndRayAgree_data()
{
    QTest::addColumn<bool>("perspective");
    QTest::newRow("orthographic") << false;
    QTest::newRow("perspective") << true;
}

void TestPointPicker::projectionAndRayAgree()
{
    QFETCH(bool, perspective);
    const tzCamera camera = lookingAt({10, 20, 0}, {-30, -10, 25}, perspective, 640, 480);
    std::mt19937 rng(3);
    std::uniform_real_distribution<double> px(0, 640), py(0, 480), t(5, 80);
    for (int i = 0; i < 100; ++i) {
        const double x = px(rng), y = py(rng);
        TZVector3d origin, dir;
        camera.ray(x, y, origin, dir);
        QVERIFY(std::abs(dir.norm() - 1) < 1e-12);
        double bx, by, depth;
        QVERIFY(camera.project(origin + dir * t(rng), bx, by, depth));
        QVERIFY2(std::abs(bx - x) < 1e-6 && std::abs(by - y) < 1e-6,
                 qPrintable(QStringLiteral("%1,%2 -> %3,%4").arg(x).arg(y).arg(bx).arg(by)));
    }
    // The pivot is at the centre of the view, up is up on the screen.
    double cx, cy, depth;
    QVERIFY(camera.project(camera.params.pivotPoint, cx, cy, depth));
    QVERIFY(std::abs(cx - 320) < 1e-6 && std::abs(cy - 240) < 1e-6);
    double ux, uy;
    QVERIFY(camera.project(camera.params.pivotPoint + camera.upDir(), ux, uy, depth));
    QVERIFY(uy < cy);
}

void TestPointPicker::pickMatchesBruteForce_data()
{
    QTest::addColumn<bool>("perspective");
    QTest::addColumn<double>("tolerance");
    QTest::addColumn<double>("eyeHeight");
    QTest::newRow("orthographic, oblique") << false << 3.0 << 18.0;
    QTest::newRow("perspective, oblique") << true << 3.0 << 18.0;
    QTest::newRow("perspective, wide tolerance") << true << 8.0 << 18.0;
    // Rays far from the view axis and nearly level with the ground: the hardest for pruning.
    QTest::newRow("perspective, grazing") << true << 3.0 << 4.0;
}

void TestPointPicker::pickMatchesBruteForce()
{
    QFETCH(bool, perspective);
    QFETCH(double, tolerance);
    tzPointCloud cloud;
    makeTerrain(cloud, 40000, 11);
    const std::vector<tzGenericPointCloud *> clouds {&cloud};
    const tzCamera camera = lookingAt({20, 20, 0}, {-15, -25, 18}, perspective, 320, 240);
    std::mt19937 rng(5);
    std::uniform_int_distribution<int> px(0, 319), py(0, 239);
    int hits = 0;
    for (int i = 0; i < 150; ++i) {
        const double x = px(rng) + 0.5, y = py(rng) + 0.5;
        tzGenericPointCloud *expectedCloud = nullptr;
        unsigned expected = 0;
        const bool any = brutePick(camera, clouds, x, y, tolerance, expectedCloud, expected);
        tzPointPicker::Result result;
        QCOMPARE(tzPointPicker::pick(camera, clouds, x, y, tolerance, result), any);
        if (any) {
            QCOMPARE(result.index, expected);
            QCOMPARE(result.P, cloud.point(expected));
            ++hits;
        }
    }
    QVERIFY2(hits > 20, qPrintable(QString::number(hits))); // the cloud fills much of the view
}

void TestPointPicker::frontPointHidesTheOneBehind()
{
    tzPointCloud cloud;
    cloud.addPoint({0, 0, 0}); // behind, seen from above
    cloud.addPoint({0, 0, 5}); // in front
    cloud.addPoint({3, 3, 1});
    const std::vector<tzGenericPointCloud *> clouds {&cloud};
    for (bool perspective : {false, true}) {
        tzCamera above = lookingAt({0, 0, 0}, {0, 0, 50}, perspective, 200, 200);
        above.setCustomView({0, 0, -1}, {0, 1, 0});
        tzPointPicker::Result result;
        QVERIFY(tzPointPicker::pick(above, clouds, 100, 100, 3, result));
        QCOMPARE(result.index, 1u);
        // From below the other one is in front.
        tzCamera below = lookingAt({0, 0, 0}, {0, 0, -50}, perspective, 200, 200);
        below.setCustomView({0, 0, 1}, {0, 1, 0});
        QVERIFY(tzPointPicker::pick(below, clouds, 100, 100, 3, result));
        QCOMPARE(result.index, 0u);
    }
}

void TestPointPicker::nearestCloudWins()
{
    tzPointCloud ground, roof;
    ground.addPoint({0, 0, 0});
    roof.addPoint({0.01f, 0, 4});
    const std::vector<tzGenericPointCloud *> clouds {&ground, &roof};
    tzCamera camera = lookingAt({0, 0, 0}, {0, 0, 30}, false, 100, 100);
    camera.setCustomView({0, 0, -1}, {0, 1, 0});
    tzPointPicker::Result result;
    QVERIFY(tzPointPicker::pick(camera, clouds, 50, 50, 3, result));
    QCOMPARE(result.cloud, static_cast<tzGenericPointCloud *>(&roof));
    roof.setVisible(false); // the caller passes the visible clouds only
    QVERIFY(tzPointPicker::pick(camera, {&ground}, 50, 50, 3, result));
    QCOMPARE(result.cloud, static_cast<tzGenericPointCloud *>(&ground));
}

void TestPointPicker::emptyPixelPicksNothing()
{
    tzPointCloud cloud;
    cloud.addPoint({0, 0, 0});
    tzCamera camera = lookingAt({0, 0, 0}, {0, 0, 10}, true, 100, 100);
    camera.setCustomView({0, 0, -1}, {0, 1, 0});
    tzPointPicker::Result result;
    QVERIFY(!tzPointPicker::pick(camera, {&cloud}, 90, 90, 3, result));
    tzPointCloud empty;
    QVERIFY(!tzPointPicker::pick(camera, {&empty}, 50, 50, 3, result));
    // A point behind a perspective eye is never picked.
    camera.setCustomView({0, 0, 1}, {0, 1, 0});
    QVERIFY(!tzPointPicker::pick(camera, {&cloud}, 50, 50, 3, result));
}

void TestPointPicker::cameraMovesKeepThePivotInPlace()
{
    for (bool perspective : {false, true}) {
        tzCamera camera = lookingAt({5, 5, 0}, {-20, -20, 15}, perspective, 400, 300);
        double x0, y0, d0;
        QVERIFY(camera.project(camera.params.pivotPoint, x0, y0, d0));
        camera.rotate({0.3, 1, 0}, 0.4);
        double x1, y1, d1;
        QVERIFY(camera.project(camera.params.pivotPoint, x1, y1, d1));
        QVERIFY(std::abs(x1 - x0) < 1e-6 && std::abs(y1 - y0) < 1e-6);
        // A pan moves a point by the same pixels as the mouse.
        const TZVector3d P(6, 4, 1);
        QVERIFY(camera.project(P, x0, y0, d0));
        camera.pan(12, -7);
        QVERIFY(camera.project(P, x1, y1, d1));
        if (!perspective) {
            QVERIFY(std::abs((x1 - x0) - 12) < 1e-6 && std::abs((y1 - y0) + 7) < 1e-6);
        } else {
            QVERIFY((x1 - x0) > 0 && (y1 - y0) < 0);
        }
    }
}

QTEST_MAIN(TestPointPicker)
#include "tst_pointpicker.moc"
