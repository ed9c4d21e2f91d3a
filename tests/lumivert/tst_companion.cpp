// The plug-in in the real viewer with the companion stand-in on the real socket: every kind of
// frame reaching the scene and drawing where it should, and the companion going away and
// coming back.

#include "CompanionSim.h"
#include "PluginViewer.h"
#include "ViewHelpers.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QSettings>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

namespace {

// The national grid of the data scripts, and the shift that brings it near the origin.
const TZVector3d SHIFT(-651200.0, -6861400.0, -112.0);

// The sights of the scene, as "number/ident" (what they keep in their metadata).
QStringList sightsOf(tzHObject *root)
{
    tzHObject::Container all;
    root->filterChildren(all, true, TZ_TYPES::LABEL_KIND);
    QStringList sights;
    for (const tzHObject *sight : all) {
        if (sight->getMetaData(QStringLiteral("tzLumivertType")).toString() == "CVisee")
            sights << sight->getMetaData(QStringLiteral("number")).toString() + QLatin1Char('/')
                    + sight->getMetaData(QStringLiteral("ident")).toString();
    }
    return sights;
}

tzHObject *group(tzHObject *root, const char *name)
{
    for (unsigned i = 0; i < root->getChildrenNumber(); ++i) {
        if (root->getChild(i)->getName() == QLatin1String(name))
            return root->getChild(i);
    }
    return nullptr;
}

// Whether the colour is within a few pixels of where p projects.
bool colourNear(const QImage &image, const tzGLWindow &view, const TZVector3d &p, QColor colour)
{
    double x = 0, y = 0, depth = 0;
    if (!view.camera().project(p, x, y, depth))
        return false;
    for (int dy = -2; dy <= 2; ++dy) {
        for (int dx = -2; dx <= 2; ++dx) {
            const int px = int(x) + dx, py = int(y) + dy;
            if (image.rect().contains(px, py) && isColour(image, px, py, colour, 40))
                return true;
        }
    }
    return false;
}

} // namespace

class TestCompanion : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void everyFrameKindReachesTheScene();
    void symbolLinesDrawWhereTheyAre();
    void companionKilledAndRestarted();
    void quittingWhileConnectedIsQuick();

private:
    QTemporaryDir m_settings;
};

void TestCompanion::initTestCase()
{
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, m_settings.path());
    QCoreApplication::setOrganizationName(QStringLiteral("Tessaro"));
    QCoreApplication::setApplicationName(QStringLiteral("Tessaro"));
}

void TestCompanion::everyFrameKindReachesTheScene()
{
    Viewer viewer;
    viewer.cloud->setGlobalShift(SHIFT);
    // Ground under the objects (it gives the view its depth range).
    auto *ground = new tzPointCloud(QStringLiteral("ground"));
    for (int i = 0; i <= 100; ++i) {
        for (int j = 0; j <= 100; ++j)
            ground->addPoint({i * 2.f, j * 2.f, 0.f});
    }
    ground->setColors(std::vector<tzRgb>(ground->size(), tzRgb {40, 40, 40}));
    ground->setGlobalShift(SHIFT);
    viewer.window.addToDatabase(ground);

    Sim sim(QStringLiteral(LUMIVERT_DATA "/companion/every-frame.jsonl"));
    QTRY_VERIFY(sim.listening());
    viewer.start();
    tzHObject *root = viewer.window.databaseRoot();
    QTRY_COMPARE_WITH_TIMEOUT(
        sightsOf(root), QStringList({"1001b/1", "1010/10", "1004/4", "1005/5", "1006/6"}), 10000);
    tzHObject *symbols = group(root, "XSymbole");
    tzHObject *alignments = group(root, "XAlignement");
    QVERIFY(symbols && alignments);
    QCOMPARE(symbols->getChildrenNumber(), 1u);
    QCOMPARE(alignments->getChildrenNumber(), 1u);
    QVERIFY(!group(root, "XLine") && !group(root, "XTexte"));
    QVERIFY(!group(root, "")); // each group named by its frame's type

    // Where they draw: a top view over the symbol, 0.1 unit per pixel.
    tzGLWindow &view = *viewer.window.activeView();
    lookDown(view, 75, 80);
    const QImage image = frame(view);
    if (qEnvironmentVariableIsSet("TZ_SAVE_FRAMES"))
        image.save(QStringLiteral("/tmp/companion.png"));
    const QColor magenta(255, 0, 255), red(255, 0, 0), yellow(255, 255, 0);
    QVERIFY(colourNear(image, view, {75, 82, 4}, magenta)); // the circle, radius 2 now
    QVERIFY(colourNear(image, view, {74, 80, 4}, red)); // its line
    QVERIFY(!colourNear(image, view, {75, 83, 4}, magenta)); // the replaced circle is gone
    QVERIFY(colourNear(image, view, {62, 61, 4.1}, yellow)); // sight 1001b's marker
    QVERIFY(!colourNear(image, view, {110, 100, 2.9}, yellow)); // 1003, deleted
}

void TestCompanion::symbolLinesDrawWhereTheyAre()
{
    // Two lines of one colour, the first with an odd vertex that draws nothing, an alignment's
    // outline and a circle: (x, y) in scene units, z 4 (companion 116).
    const auto v = [](double x, double y) {
        return QStringLiteral("{\"X\": %1, \"Y\": %2, \"Z\": 116}")
            .arg(x - SHIFT.x, 0, 'f', 1)
            .arg(y - SHIFT.y, 0, 'f', 1);
    };
    const QString red = QStringLiteral("\"Rcolor\": 255, \"Gcolor\": 0, \"Bcolor\": 0");
    const QString symbol
        = QStringLiteral("{\"type\": \"XSymbole\", \"ident\": 7, \"entities\": [{\"type\": "
                         "\"XInsert\", \"entities\": ["
                         "{\"type\": \"XLine\", %1, \"vertex\": [%2, %3, %4]}, "
                         "{\"type\": \"XLine\", %1, \"vertex\": [%5, %6]}, "
                         "{\"type\": \"XCircle\", \"Rcolor\": 0, \"Gcolor\": 255, "
                         "\"Bcolor\": 0, \"center\": %7, \"radius\": 3}]}]}\n")
              .arg(red, v(70, 70), v(80, 70), v(80, 80), v(60, 80), v(60, 90), v(75, 85));
    const QString alignment
        = QStringLiteral("{\"type\": \"XAlignement\", \"ident\": 8, \"entities\": ["
                         "{\"type\": \"XPolyline\", \"Rcolor\": 0, \"Gcolor\": 0, "
                         "\"Bcolor\": 255, \"vertex\": [%1, %2, %3]}]}\n")
              .arg(v(85, 65), v(95, 65), v(95, 75));
    QTemporaryDir dir;
    Sim sim(writeScript(dir, (symbol + alignment).toUtf8()));
    QTRY_VERIFY(sim.listening());
    Viewer viewer;
    viewer.cloud->setGlobalShift(SHIFT);
    // Ground surveyed at the height of the alignment's first side, all under it.
    auto *road = new tzPointCloud(QStringLiteral("road"));
    for (int i = 0; i <= 240; ++i) {
        for (int j = -10; j <= 10; ++j)
            road->addPoint({84.f + i * 0.05f, 65.f + j * 0.05f, 4.f});
    }
    road->setColors(std::vector<tzRgb>(road->size(), tzRgb {90, 90, 90}));
    road->setGlobalShift(SHIFT);
    viewer.window.addToDatabase(road);
    viewer.start();
    tzHObject *root = viewer.window.databaseRoot();
    QTRY_VERIFY(group(root, "XSymbole") && group(root, "XAlignement"));

    tzGLWindow &view = *viewer.window.activeView();
    lookDown(view, 78, 78);
    view.setPointSize(3);
    const QImage image = frame(view);
    // The side shows all along, not cut into dashes by the points at its height.
    double x0 = 0, x1 = 0, y = 0, depth = 0;
    view.camera().project({86, 65, 4}, x0, y, depth);
    view.camera().project({94, 65, 4}, x1, y, depth);
    int shown = 0;
    for (int x = int(x0); x <= int(x1); ++x) {
        bool blue = false;
        for (int dy = -1; dy <= 1; ++dy)
            blue = blue || isColour(image, x, int(y) + dy, QColor(0, 0, 255), 40);
        shown += blue ? 1 : 0;
    }
    QVERIFY2(shown >= 0.95 * (int(x1) - int(x0) + 1), qPrintable(QString::number(shown)));
    const QColor r(255, 0, 0), g(0, 255, 0), b(0, 0, 255);
    QVERIFY(colourNear(image, view, {75, 70, 4}, r));
    QVERIFY(colourNear(image, view, {60, 85, 4}, r));
    QVERIFY(!colourNear(image, view, {70, 80, 4}, r)); // the odd vertex joins nothing
    QVERIFY(!colourNear(image, view, {80, 75, 4}, r));
    QVERIFY(colourNear(image, view, {78, 85, 4}, g));
    QVERIFY(colourNear(image, view, {75, 88, 4}, g));
    QVERIFY(!colourNear(image, view, {75, 85, 4}, g));
    QVERIFY(colourNear(image, view, {90, 70, 4}, b)); // the outline is closed
    QVERIFY(colourNear(image, view, {95, 70, 4}, b));
    viewer.click("closeButton");
}

void TestCompanion::companionKilledAndRestarted()
{
    QTemporaryDir dir;
    QByteArray lines;
    for (int i = 0; i < 400; ++i) {
        lines += QStringLiteral("{\"type\": \"CVisee\", \"ident\": %1, \"number\": \"%1\", "
                                "\"coord\": {\"X\": %1, \"Y\": 0, \"Z\": 0}}\n!wait 5\n")
                     .arg(i + 1)
                     .toUtf8();
    }
    Viewer viewer;
    tzHObject *root = viewer.window.databaseRoot();
    {
        Sim first(writeScript(dir, lines));
        QTRY_VERIFY(first.listening());
        viewer.start();
        QTRY_VERIFY(sightsOf(root).size() > 20);
        first.kill(); // mid-stream
    }
    // What was on its way still arrives: all of it is in once the loss is seen.
    QTRY_VERIFY(viewer.consoleHas(QStringLiteral("Link with Mensurix lost")));
    QCoreApplication::processEvents();

    Sim second(
        writeScript(dir, "{\"type\": \"CVisee\", \"ident\": 9999, \"number\": \"again\"}\n"));
    QTRY_VERIFY(second.listening());
    viewer.click("closeButton");
    QVERIFY(!viewer.toolBar()->isVisible());
    viewer.start();
    QTRY_VERIFY(second.log().contains(QStringLiteral("client connected")));
    QTRY_COMPARE(sightsOf(root).last(), QStringLiteral("again/9999"));
    viewer.click("closeButton");
}

void TestCompanion::quittingWhileConnectedIsQuick()
{
    QTemporaryDir dir;
    Sim sim(writeScript(dir, "!wait 100000\n"));
    QTRY_VERIFY(sim.listening());
    auto viewer = std::make_unique<Viewer>();
    viewer->start();
    QTRY_VERIFY(sim.log().contains(QStringLiteral("client connected")));
    QElapsedTimer clock;
    clock.start();
    viewer.reset();
    QVERIFY2(clock.elapsed() < 1000, qPrintable(QString::number(clock.elapsed())));
}

QTEST_MAIN(TestCompanion)
#include "tst_companion.moc"
