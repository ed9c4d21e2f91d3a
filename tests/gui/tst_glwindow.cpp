// The 3D view on a real OpenGL context (under Xvfb): pixels of drawn frames, clicks that pick.

#include "ViewHelpers.h"
#include "tz2DViewportObject.h"
#include "tzGLWindow.h"
#include "tzPointCloud.h"
#include "tzPolyline.h"
#include "tzSphere.h"

#include <QOpenGLFunctions_2_1>

#include <QSignalSpy>
#include <QtTest>

namespace {

constexpr int SIZE = 240;

// A label drawn in the 2D foreground: a square of side pixels centred on (x, y) of that frame
// (origin at the view's centre, y up), pushing its ID in the picking pass.
class Label : public tz2DViewportObject
{
public:
    int x = 0, y = 0, side = 20;

protected:
    void drawMeOnly(tzDrawContext &context) override
    {
        QOpenGLFunctions_2_1 *gl = context.glFunctions;
        if (!gl || !(context.drawingFlags & TZ_DRAW_2D))
            return;
        if (context.isPicking())
            gl->glPushName(getUniqueID());
        gl->glColor3ub(255, 128, 0);
        gl->glBegin(GL_QUADS);
        gl->glVertex2i(x - side / 2, y - side / 2);
        gl->glVertex2i(x + side / 2, y - side / 2);
        gl->glVertex2i(x + side / 2, y + side / 2);
        gl->glVertex2i(x - side / 2, y + side / 2);
        gl->glEnd();
        if (context.isPicking())
            gl->glPopName();
    }
};

// A square patch of points, side metres wide, spacing apart, at height z, all of one colour.
tzPointCloud *makePatch(float x0, float y0, float side, float spacing, float z, tzRgb colour)
{
    auto *cloud = new tzPointCloud(QStringLiteral("patch"));
    std::vector<tzRgb> colours;
    for (float x = x0; x <= x0 + side; x += spacing) {
        for (float y = y0; y <= y0 + side; y += spacing) {
            cloud->addPoint({x, y, z});
            colours.push_back(colour);
        }
    }
    cloud->setColors(std::move(colours));
    return cloud;
}

// Records the flags of every pass it is drawn in.
class FlagRecorder : public tzHObject
{
public:
    QList<int> flags;

protected:
    void drawMeOnly(tzDrawContext &context) override { flags << context.drawingFlags; }
};

// Writes a text at a fixed anchor in the 2D pass.
class Caption : public tzHObject
{
protected:
    void drawMeOnly(tzDrawContext &context) override
    {
        if (context.is2D() && context.display)
            context.display->displayText(QStringLiteral("WWW"), 20, 30,
                                         Qt::AlignLeft | Qt::AlignBottom, 0.f, Qt::yellow, nullptr);
    }
};

// Markers handed to the view's sphere batch when it has one (drawn by the object otherwise).
class Markers : public tzHObject
{
public:
    struct Marker
    {
        TZVector3 centre;
        float radius;
        QColor colour;
    };
    std::vector<Marker> markers;
    int batched = 0;

protected:
    void drawMeOnly(tzDrawContext &context) override
    {
        if (!context.is3D() || !context.spheres)
            return;
        for (const Marker &m : markers)
            context.spheres->addSphere(m.centre, m.radius, m.colour);
        ++batched;
    }
};

} // namespace

class TestGLWindow : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void cloudAppearsWhereTheCameraSays_data();
    void cloudAppearsWhereTheCameraSays();
    void pointSizeChangeShows();
    void clickPicksTheFrontPointOnly();
    void clickInDefaultModeSelects();
    void sphereIsFoundByTheSelectionPass();
    void viewDatabaseIsDrawnAndMessagesAreTimed();
    void movingViewDrawsASampleThenEverything();
    void labelInTheForegroundWinsTheClick();
    void passesCarryTheirFlags();
    void foregroundLineShowsThroughTheCloud();
    void textIsWrittenWhereTheObjectAsks();
    void cloudLayerIsKeptWhileOnlyOtherObjectsChange();
    void batchedMarkersAreRoundAndHiddenByWhatIsNearer();
    void redrawRequestsInAStreamArePaced();

private:
    std::unique_ptr<tzHObject> m_root;
    std::unique_ptr<tzGLWindow> m_view;
};

void TestGLWindow::init()
{
    m_root = std::make_unique<tzHObject>(QStringLiteral("root"));
    m_view = std::make_unique<tzGLWindow>();
    m_view->resize(SIZE, SIZE);
    m_view->setSceneDB(m_root.get());
    m_view->show();
    QVERIFY(QTest::qWaitForWindowExposed(m_view.get()));
    QVERIFY2(m_view->functions(), "no OpenGL 2.1 functions on this display");
}

void TestGLWindow::cleanup()
{
    m_view.reset();
    m_root.reset();
}

void TestGLWindow::cloudAppearsWhereTheCameraSays_data()
{
    QTest::addColumn<bool>("perspective");
    QTest::newRow("orthographic") << false;
    QTest::newRow("perspective") << true;
}

void TestGLWindow::cloudAppearsWhereTheCameraSays()
{
    QFETCH(bool, perspective);
    // A red patch right of and above the centre of the view.
    m_root->addChild(makePatch(2.f, 2.f, 3.f, 0.02f, 0.f, {255, 0, 0}));
    m_view->setPointSize(2);
    lookDown(*m_view, 0, 0, perspective);
    const QImage image = frame(*m_view);
    double x, y, depth;
    QVERIFY(m_view->camera().project({3.5, 3.5, 0}, x, y, depth));
    QVERIFY(x > SIZE / 2 && y < SIZE / 2); // right and up on the screen
    QVERIFY2(isColour(image, int(x), int(y), Qt::red),
             qPrintable(image.pixelColor(int(x), int(y)).name()));
    // The opposite quarter shows the background.
    QVERIFY(!isColour(image, SIZE - int(x), SIZE - int(y), Qt::red));
    QVERIFY(!isColour(image, SIZE / 4, SIZE * 3 / 4, Qt::red));
}

void TestGLWindow::pointSizeChangeShows()
{
    auto *cloud = new tzPointCloud(QStringLiteral("one point"));
    cloud->addPoint({0, 0, 0});
    cloud->setColors({{0, 255, 0}});
    m_root->addChild(cloud);
    lookDown(*m_view, 0.03, 0.03);
    m_view->setPointSize(1);
    const int small = countColour(frame(*m_view), Qt::green);
    m_view->setPointSize(6);
    const int large = countColour(frame(*m_view), Qt::green);
    QVERIFY2(small >= 1 && small <= 4, qPrintable(QString::number(small)));
    // Large points are round: a disc of 6 pixels across, not a square of 36.
    QVERIFY2(large >= 24 && large <= 32, qPrintable(QString::number(large)));
    // A cloud's own point size overrides the view's.
    cloud->setPointSize(3);
    const int own = countColour(frame(*m_view), Qt::green);
    QVERIFY2(own >= 8 && own <= 10, qPrintable(QString::number(own)));
}

void TestGLWindow::clickPicksTheFrontPointOnly()
{
    auto *cloud = new tzPointCloud(QStringLiteral("two layers"));
    cloud->addPoint({1, 1, 0}); // ground, hidden from above by the next one
    cloud->addPoint({1, 1, 4}); // canopy
    cloud->addPoint({-2, -2, 0});
    cloud->setColors({{0, 0, 255}, {255, 0, 0}, {0, 255, 0}});
    m_root->addChild(cloud);
    lookDown(*m_view, 0, 0);
    m_view->setPointSize(3);
    const QImage image = frame(*m_view);
    double x, y, depth;
    QVERIFY(m_view->camera().project({1, 1, 4}, x, y, depth));
    QVERIFY(isColour(image, int(x), int(y), Qt::red)); // what is seen is what is picked
    m_view->setPickingMode(tzGLWindow::POINT_PICKING);
    QSignalSpy picked(m_view.get(), &tzGLWindow::itemPicked);
    // A click two pixels off still finds the point.
    QTest::mouseClick(m_view.get(), Qt::LeftButton, Qt::NoModifier, QPoint(int(x) + 2, int(y)));
    QCOMPARE(picked.size(), 1);
    QCOMPARE(picked.at(0).at(0).value<tzHObject *>(), static_cast<tzHObject *>(cloud));
    QCOMPARE(picked.at(0).at(1).toUInt(), 1u);
    QCOMPARE(picked.at(0).at(2).toInt(), int(x) + 2);
    QCOMPARE(picked.at(0).at(4).value<TZVector3>(), TZVector3(1, 1, 4));
    // Far from every point: nothing.
    QTest::mouseClick(m_view.get(), Qt::LeftButton, Qt::NoModifier, QPoint(5, 5));
    QCOMPARE(picked.size(), 1);
    // A drag is not a click.
    QTest::mousePress(m_view.get(), Qt::LeftButton, Qt::NoModifier, QPoint(int(x), int(y)));
    QTest::mouseMove(m_view.get(), QPoint(int(x) + 30, int(y) + 30));
    QTest::mouseRelease(m_view.get(), Qt::LeftButton, Qt::NoModifier,
                        QPoint(int(x) + 30, int(y) + 30));
    QCOMPARE(picked.size(), 1);
    // No picking at all in mode 0.
    m_view->setPickingMode(tzGLWindow::NO_PICKING);
    lookDown(*m_view, 0, 0);
    QTest::mouseClick(m_view.get(), Qt::LeftButton, Qt::NoModifier, QPoint(int(x), int(y)));
    QCOMPARE(picked.size(), 1);
}

void TestGLWindow::clickInDefaultModeSelects()
{
    auto *cloud = makePatch(-1.f, -1.f, 2.f, 0.05f, 0.f, {200, 200, 200});
    m_root->addChild(cloud);
    lookDown(*m_view, 0, 0);
    frame(*m_view);
    QCOMPARE(m_view->getPickingMode(), int(tzGLWindow::DEFAULT_PICKING));
    QSignalSpy selected(m_view.get(), &tzGLWindow::entitySelectionChanged);
    QSignalSpy picked(m_view.get(), &tzGLWindow::itemPicked);
    QTest::mouseClick(m_view.get(), Qt::LeftButton, Qt::NoModifier, QPoint(SIZE / 2, SIZE / 2));
    QCOMPARE(selected.size(), 1);
    QCOMPARE(selected.at(0).at(0).value<tzHObject *>(), static_cast<tzHObject *>(cloud));
    QCOMPARE(picked.size(), 0);
    QTest::mouseClick(m_view.get(), Qt::LeftButton, Qt::NoModifier, QPoint(5, 5));
    QCOMPARE(selected.size(), 2);
    QCOMPARE(selected.at(1).at(0).value<tzHObject *>(), static_cast<tzHObject *>(nullptr));
}

void TestGLWindow::sphereIsFoundByTheSelectionPass()
{
    // A cloud far below, and a sphere between it and the eye.
    m_root->addChild(makePatch(-3.f, -3.f, 6.f, 0.05f, -10.f, {90, 90, 90}));
    auto *sphere = new tzSphere(1.f, QStringLiteral("marker"), 16);
    std::array<float, 16> m {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 2, 0, 0, 1}; // at (2, 0, 0)
    sphere->setTransformation(m);
    sphere->setColor(Qt::yellow);
    m_root->addChild(sphere);
    lookDown(*m_view, 0, 0);
    const QImage image = frame(*m_view);
    double x, y, depth;
    QVERIFY(m_view->camera().project({2, 0, 0}, x, y, depth));
    QVERIFY(isColour(image, int(x), int(y), Qt::yellow, 40));
    TZVector3 P;
    QCOMPARE(m_view->pickEntity(int(x), int(y), &P), static_cast<tzHObject *>(sphere));
    QVERIFY(std::abs(P.z - 1.f) < 0.05f); // the top of the sphere
    // Beside the sphere the selection pass finds nothing (clouds are not in it).
    QCOMPARE(m_view->pickEntity(SIZE / 2 - 40, SIZE / 2, nullptr),
             static_cast<tzHObject *>(nullptr));
    // In a point-and-label mode the nearer sphere wins over the cloud below it.
    m_view->setPickingMode(tzGLWindow::POINT_OR_TRIANGLE_OR_LABEL_PICKING);
    QSignalSpy picked(m_view.get(), &tzGLWindow::itemPicked);
    QTest::mouseClick(m_view.get(), Qt::LeftButton, Qt::NoModifier, QPoint(int(x), int(y)));
    QCOMPARE(picked.size(), 1);
    QCOMPARE(picked.at(0).at(0).value<tzHObject *>(), static_cast<tzHObject *>(sphere));
}

void TestGLWindow::viewDatabaseIsDrawnAndMessagesAreTimed()
{
    tzPointCloud *own = makePatch(-0.5f, -0.5f, 1.f, 0.02f, 0.f, {0, 255, 255});
    m_view->addToViewDatabase(own, false); // the view owns it
    lookDown(*m_view, 0, 0);
    m_view->setPointSize(2);
    QVERIFY(isColour(frame(*m_view), SIZE / 2, SIZE / 2, Qt::cyan));
    m_view->removeFromViewDatabase(own);
    QVERIFY(!isColour(frame(*m_view), SIZE / 2, SIZE / 2, Qt::cyan));
    delete own;

    m_view->showViewMessage(QStringLiteral("first"), tzGLWindow::UPPER_CENTER_MESSAGE, false, 3600);
    m_view->showViewMessage(QStringLiteral("second"), tzGLWindow::UPPER_CENTER_MESSAGE, true, 3600);
    QCOMPARE(m_view->viewMessages(tzGLWindow::UPPER_CENTER_MESSAGE),
             (QStringList {"first", "second"}));
    m_view->showViewMessage(QStringLiteral("third"), tzGLWindow::UPPER_CENTER_MESSAGE, false, 3600);
    QCOMPARE(m_view->viewMessages(tzGLWindow::UPPER_CENTER_MESSAGE), QStringList {"third"});
    m_view->showViewMessage(QString(), tzGLWindow::UPPER_CENTER_MESSAGE, false, 3600);
    QVERIFY(m_view->viewMessages(tzGLWindow::UPPER_CENTER_MESSAGE).isEmpty());
    m_view->showViewMessage(QStringLiteral("brief"), tzGLWindow::LOWER_LEFT_MESSAGE, false, 0);
    QVERIFY(m_view->viewMessages(tzGLWindow::LOWER_LEFT_MESSAGE).isEmpty()); // already expired
    // A message is drawn: white text appears at the top of the frame.
    m_view->showViewMessage(QStringLiteral("MESSAGE"), tzGLWindow::UPPER_CENTER_MESSAGE, false,
                            3600);
    const QImage top = frame(*m_view).copy(0, 0, SIZE, 30);
    QVERIFY(countColour(top, Qt::white) > 10);
}

void TestGLWindow::movingViewDrawsASampleThenEverything()
{
    // 900 points, one per pixel (0.1 m apart at 0.1 m per pixel), in rows as a scanner writes.
    auto *cloud = new tzPointCloud(QStringLiteral("grid"));
    std::vector<tzRgb> colours;
    for (int j = 0; j < 30; ++j) {
        for (int i = 0; i < 30; ++i) {
            cloud->addPoint({(i - 15) * 0.3f, (j - 15) * 0.3f, 0.f});
            colours.push_back({255, 0, 255});
        }
    }
    cloud->setColors(std::move(colours));
    m_root->addChild(cloud);
    lookDown(*m_view, 0, 0);
    m_view->setPointSize(1);
    m_view->setInteractionPointBudget(100);
    QCOMPARE(countColour(frame(*m_view), Qt::magenta), 900);

    // A pan with the right button: while it moves, about a hundred points, spread over the grid.
    const QPoint from(SIZE / 2, SIZE / 2);
    QMouseEvent press(QEvent::MouseButtonPress, from, Qt::RightButton, Qt::RightButton,
                      Qt::NoModifier);
    QCoreApplication::sendEvent(m_view.get(), &press);
    QMouseEvent move(QEvent::MouseMove, from + QPoint(6, 0), Qt::NoButton, Qt::RightButton,
                     Qt::NoModifier);
    QCoreApplication::sendEvent(m_view.get(), &move);
    QVERIFY(m_view->isInteracting());
    const QImage moving = frame(*m_view);
    const int sample = countColour(moving, Qt::magenta);
    QVERIFY2(sample >= 90 && sample <= 110, qPrintable(QString::number(sample)));
    int rowsHit = 0; // the sample covers the whole grid, not its first rows
    for (int y = 0; y < SIZE; ++y) {
        for (int x = 0; x < SIZE; ++x) {
            if (isColour(moving, x, y, Qt::magenta)) {
                ++rowsHit;
                break;
            }
        }
    }
    QVERIFY2(rowsHit >= 25, qPrintable(QString::number(rowsHit)));
    QMouseEvent release(QEvent::MouseButtonRelease, from + QPoint(6, 0), Qt::RightButton,
                        Qt::NoButton, Qt::NoModifier);
    QCoreApplication::sendEvent(m_view.get(), &release);
    // Once the camera rests, every point again.
    QTRY_VERIFY(!m_view->isInteracting());
    QCOMPARE(countColour(frame(*m_view), Qt::magenta), 900);
}

void TestGLWindow::labelInTheForegroundWinsTheClick()
{
    tzPointCloud *cloud = makePatch(-5.f, -5.f, 10.f, 0.05f, 0.f, {120, 120, 120});
    m_root->addChild(cloud);
    auto *label = new Label;
    label->x = 40; // 40 pixels right of the centre, 30 up
    label->y = 30;
    m_root->addChild(label);
    lookDown(*m_view, 0, 0);
    m_view->setPointSize(2);
    const QImage image = frame(*m_view);
    const QPoint onLabel(SIZE / 2 + 40, SIZE / 2 - 30);
    QVERIFY(isColour(image, onLabel.x(), onLabel.y(), QColor(255, 128, 0)));
    bool foreground = false;
    QCOMPARE(m_view->pickEntity(onLabel.x(), onLabel.y(), nullptr, &foreground),
             static_cast<tzHObject *>(label));
    QVERIFY(foreground);
    // Over the label the label is picked, though the cloud lies under it; beside it, the cloud.
    m_view->setPickingMode(tzGLWindow::POINT_OR_TRIANGLE_OR_LABEL_PICKING);
    QSignalSpy picked(m_view.get(), &tzGLWindow::itemPicked);
    QTest::mouseClick(m_view.get(), Qt::LeftButton, Qt::NoModifier, onLabel);
    QCOMPARE(picked.size(), 1);
    QTest::mouseClick(m_view.get(), Qt::LeftButton, Qt::NoModifier,
                      QPoint(SIZE / 2 - 15, SIZE / 2));
    QCOMPARE(picked.size(), 2);
    QCOMPARE(picked.at(0).at(0).value<tzHObject *>(), static_cast<tzHObject *>(label));
    QCOMPARE(picked.at(1).at(0).value<tzHObject *>(), static_cast<tzHObject *>(cloud));
    // A mode without labels ignores it.
    m_view->setPickingMode(tzGLWindow::POINT_PICKING);
    QTest::mouseClick(m_view.get(), Qt::LeftButton, Qt::NoModifier, onLabel);
    QCOMPARE(picked.size(), 3);
    QCOMPARE(picked.at(2).at(0).value<tzHObject *>(), static_cast<tzHObject *>(cloud));
}

void TestGLWindow::passesCarryTheirFlags()
{
    auto *recorder = new FlagRecorder;
    m_root->addChild(recorder);
    frame(*m_view);
    // Each frame (the grab draws one more): the 3D pass, then the 2D foreground pass.
    QVERIFY(!recorder->flags.isEmpty() && recorder->flags.size() % 2 == 0);
    for (int i = 0; i < recorder->flags.size(); i += 2) {
        QCOMPARE(recorder->flags[i], TZ_DRAW_3D | TZ_DRAW_FOREGROUND);
        QCOMPARE(recorder->flags[i + 1], TZ_DRAW_2D | TZ_DRAW_FOREGROUND);
    }
    recorder->flags.clear();
    // Picking: the 2D foreground, then the 3D scene twice (within the view's tolerance, and
    // within the narrower one of lines laid on the ground).
    m_view->pickEntity(SIZE / 2, SIZE / 2);
    QCOMPARE(recorder->flags,
             (QList<int> {TZ_DRAW_2D | TZ_DRAW_FOREGROUND | TZ_ENTITY_PICKING,
                          TZ_DRAW_3D | TZ_DRAW_FOREGROUND | TZ_ENTITY_PICKING,
                          TZ_DRAW_3D | TZ_DRAW_FOREGROUND | TZ_ENTITY_PICKING}));
}

void TestGLWindow::foregroundLineShowsThroughTheCloud()
{
    // A dense grey patch at z = 0, and two lines below it: one plain, one in the foreground.
    m_root->addChild(makePatch(-5.f, -5.f, 10.f, 0.05f, 0.f, {128, 128, 128}));
    auto *vertices = new tzPointCloud(QStringLiteral("vertices"));
    vertices->addPoint({-4, 2, -1});
    vertices->addPoint({4, 2, -1});
    vertices->addPoint({-4, -2, -1});
    vertices->addPoint({4, -2, -1});
    m_root->addChild(vertices);
    vertices->setVisible(false);
    auto *hidden = new tzPolyline(vertices);
    hidden->addPointIndex(0);
    hidden->addPointIndex(1);
    hidden->setColor(Qt::green);
    hidden->setWidth(3);
    auto *shown = new tzPolyline(vertices);
    shown->addPointIndex(2);
    shown->addPointIndex(3);
    shown->setColor(Qt::green);
    shown->setWidth(3);
    shown->setForeground(true);
    m_root->addChild(hidden);
    m_root->addChild(shown);
    lookDown(*m_view, 0, 0);
    m_view->setPointSize(4);
    const QImage image = frame(*m_view);
    QVERIFY(!isColour(image, SIZE / 2, SIZE / 2 - 20, Qt::green, 60)); // y = 2 m: under the cloud
    QVERIFY(isColour(image, SIZE / 2, SIZE / 2 + 20, Qt::green, 60)); // y = -2 m: drawn over it
}

void TestGLWindow::textIsWrittenWhereTheObjectAsks()
{
    m_root->addChild(new Caption);
    const QImage image = frame(*m_view);
    // Anchored 20 px from the left and 30 px from the bottom, the text sits just above that.
    const QImage near = image.copy(18, SIZE - 30 - 20, 60, 22);
    const QImage far = image.copy(0, 0, SIZE, SIZE / 2);
    QVERIFY(countColour(near, Qt::yellow) > 5);
    QCOMPARE(countColour(far, Qt::yellow), 0);
}

namespace {

tzSphere *sphereAt(float x, float y, float z, QColor colour)
{
    auto *sphere = new tzSphere(0.5f, QStringLiteral("ball"), 16);
    sphere->setTransformation({1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, x, y, z, 1});
    sphere->setColor(colour);
    return sphere;
}

} // namespace

void TestGLWindow::cloudLayerIsKeptWhileOnlyOtherObjectsChange()
{
    tzPointCloud *patch = makePatch(2.f, 2.f, 3.f, 0.02f, 0.f, {255, 0, 0});
    m_root->addChild(patch);
    m_root->addChild(sphereAt(3.5f, 3.5f, -1.f, Qt::green)); // under the patch
    m_view->setPointSize(2);
    lookDown(*m_view, 0, 0);
    frame(*m_view);
    const quint64 draws = m_view->cloudLayerDraws();

    // Another object: the clouds are not drawn again, and still hide what lies behind them.
    m_root->addChild(sphereAt(-3.f, -3.f, 0.f, Qt::blue));
    QImage image = frame(*m_view);
    QCOMPARE(m_view->cloudLayerDraws(), draws);
    double x, y, depth;
    QVERIFY(m_view->camera().project({3.5, 3.5, 0}, x, y, depth));
    QVERIFY(isColour(image, int(x), int(y), Qt::red));
    QVERIFY(m_view->camera().project({-3, -3, 0}, x, y, depth));
    QVERIFY(isColour(image, int(x), int(y), Qt::blue, 60));

    // A hidden cloud, a camera move, a point size, or the asking: drawn again.
    patch->setVisible(false);
    image = frame(*m_view);
    QCOMPARE(m_view->cloudLayerDraws(), draws + 1);
    QVERIFY(m_view->camera().project({3.5, 3.5, 0}, x, y, depth));
    QVERIFY(isColour(image, int(x), int(y), Qt::green, 60));
    patch->setVisible(true);
    lookDown(*m_view, 0.5, 0);
    frame(*m_view);
    QCOMPARE(m_view->cloudLayerDraws(), draws + 2);
    m_view->setPointSize(3);
    frame(*m_view);
    QCOMPARE(m_view->cloudLayerDraws(), draws + 3);
    m_view->deprecate3DLayer();
    frame(*m_view);
    QCOMPARE(m_view->cloudLayerDraws(), draws + 4);
    frame(*m_view);
    QCOMPARE(m_view->cloudLayerDraws(), draws + 4);
}

void TestGLWindow::batchedMarkersAreRoundAndHiddenByWhatIsNearer()
{
    // A red patch at z = 0 right of x = 0.5, below y = 0; markers of radius 1 (10 px at 0.1 per
    // pixel) left of it, and one under the patch.
    m_root->addChild(makePatch(0.5f, -5.f, 5.f, 0.02f, 0.f, {255, 0, 0}));
    auto *markers = new Markers;
    markers->markers = {{{-3.f, 0.f, 0.f}, 1.f, Qt::yellow},
                        {{-3.f, -3.5f, 1.f}, 0.5f, Qt::cyan},
                        {{3.f, -2.5f, -2.f}, 1.f, Qt::green}};
    m_root->addChild(markers);
    m_view->setPointSize(2);
    lookDown(*m_view, 0, 0);
    QImage image = frame(*m_view);
    QVERIFY2(markers->batched > 0, "the view gives no sphere batch on this OpenGL");

    // Round: the centre and 8 px along the axes are in, the square's corner (7, 7) is out.
    double x, y, depth;
    QVERIFY(m_view->camera().project({-3, 0, 0}, x, y, depth));
    const int cx = int(std::lround(x)), cy = int(std::lround(y));
    for (const QPoint d : {QPoint(0, 0), QPoint(8, 0), QPoint(-8, 0), QPoint(0, 8), QPoint(0, -8)})
        QVERIFY2(isColour(image, cx + d.x(), cy + d.y(), Qt::yellow),
                 qPrintable(QString::number(d.x())));
    QVERIFY(!isColour(image, cx + 8, cy + 8, Qt::yellow));
    QVERIFY(!isColour(image, cx + 12, cy, Qt::yellow));
    // Its area is that of a disc of 10 px, within the rasterising.
    const int yellow = countColour(image, Qt::yellow);
    QVERIFY2(yellow > 280 && yellow < 350, qPrintable(QString::number(yellow)));
    QCOMPARE(countColour(image, Qt::cyan) > 60, true); // 5 px radius: about 79 px
    // Below the patch: hidden.
    QCOMPARE(countColour(image, Qt::green), 0);

    // In perspective the radius follows the distance: the nearer marker looks larger.
    lookDown(*m_view, 0, 0, true);
    image = frame(*m_view);
    const int nearYellow = countColour(image, Qt::yellow);
    markers->markers[0].centre.z = -20.f;
    image = frame(*m_view);
    QVERIFY2(countColour(image, Qt::yellow) < nearYellow / 2,
             qPrintable(
                 QStringLiteral("%1 then %2").arg(nearYellow).arg(countColour(image, Qt::yellow))));

    // The picking passes have no batch: the object draws there itself.
    const int before = markers->batched;
    m_view->pickEntity(cx, cy, nullptr);
    QCOMPARE(markers->batched, before);
}

void TestGLWindow::redrawRequestsInAStreamArePaced()
{
    lookDown(*m_view, 0, 0);
    frame(*m_view);
    QSignalSpy drawn(m_view.get(), &tzGLWindow::frameDrawn);
    QElapsedTimer clock;
    clock.start();
    // Half a second of requests every 2 ms, the events handled between them.
    while (clock.elapsed() < 500) {
        m_view->redraw();
        QTest::qWait(2);
    }
    // One request more: a frame comes for it (its own, or one already due), so every request
    // was served; but frames start 33 ms apart at the least.
    const int before = drawn.size();
    m_view->redraw();
    QTRY_VERIFY(drawn.size() > before);
    QVERIFY2(drawn.size() >= 2 && drawn.size() <= 18, qPrintable(QString::number(drawn.size())));
}

QTEST_MAIN(TestGLWindow)
#include "tst_glwindow.moc"
