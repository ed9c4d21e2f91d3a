// The sight tool in the real viewer, driven with the mouse and keys, the companion stand-in on
// the socket: what each pick places and sends, the preview, the mouse circle.
//
// The scene: a terrain in national-grid coordinates (shifted into the cloud's frame), a slope
// rising 0.1 a unit eastwards, and a bush: a column of points 2 units above the ground.

#include "CompanionSim.h"
#include "PluginViewer.h"
#include "ViewHelpers.h"
#include "tzCVisee.h"
#include "tzDBTree.h"

#include <QScreen>
#include <QSettings>
#include <QtTest>

namespace {

const TZVector3d SHIFT(-651200.0, -6861400.0, -112.0);
const TZVector3 BUSH(20.f, 20.f, 0.f); // ground point under the bush (x, y)

float groundZ(float x)
{
    return 0.1f * x;
}

std::unique_ptr<QSettings> store()
{
    return std::make_unique<QSettings>(QSettings::NativeFormat, QSettings::UserScope,
                                       QStringLiteral("LumiVert"), QStringLiteral("LinkServer"));
}

// The companion's coordinates of a point of the cloud's frame, as the sim prints them.
QString companion(double x, double y, double z)
{
    return QStringLiteral("x=%1 y=%2 z=%3")
        .arg(x - SHIFT.x, 0, 'f', 4)
        .arg(y - SHIFT.y, 0, 'f', 4)
        .arg(z - SHIFT.z, 0, 'f', 4);
}

QStringList received(const Sim &sim, const char *kind)
{
    QStringList lines;
    for (const QString &line : sim.log().split(QLatin1Char('\n'))) {
        if (line.startsWith(QStringLiteral("[mensurix-sim] <- ") + QLatin1String(kind)))
            lines << line;
    }
    return lines;
}

tzHObject *childNamed(tzHObject *parent, const char *name)
{
    for (unsigned i = 0; i < parent->getChildrenNumber(); ++i) {
        if (parent->getChild(i)->getName() == QLatin1String(name))
            return parent->getChild(i);
    }
    return nullptr;
}

// A sight of the plug-in, read through its inline accessors (its type information lives in the
// plug-in: the type is checked on the metadata).
const tzCVisee *sightOf(tzHObject *object)
{
    if (!object
        || object->getMetaData(QStringLiteral("tzLumivertType")).toString()
            != QLatin1String("CVisee"))
        return nullptr;
    return static_cast<const tzCVisee *>(static_cast<const tzCustomHObject *>(object));
}

// A mouse move over the view, delivered now. (QTest's moves warp the real pointer, whose
// motion reaches the view later, possibly after the clicks that follow it.)
void moveMouse(QWidget *view, const QPoint &at, Qt::MouseButtons buttons = Qt::NoButton)
{
    QMouseEvent move(QEvent::MouseMove, at, view->mapToGlobal(at), Qt::NoButton, buttons,
                     Qt::NoModifier);
    QApplication::sendEvent(view, &move);
}

struct Survey : Viewer
{
    tzPointCloud *terrain = nullptr;

    Survey()
    {
        terrain = new tzPointCloud(QStringLiteral("Terrain - Cloud"));
        for (int i = 0; i <= 80; ++i) {
            for (int j = 0; j <= 80; ++j) {
                const float x = i * 0.5f, y = j * 0.5f;
                terrain->addPoint({x, y, groundZ(x)});
            }
        }
        // The bush: a canopy 2 units across and 2 units up, over the ground's points (5 pixels
        // apart on screen: a click takes the one under it).
        for (int k = -2; k <= 2; ++k) {
            for (int l = -2; l <= 2; ++l) {
                const float x = BUSH.x + k * 0.5f;
                terrain->addPoint({x, BUSH.y + l * 0.5f, groundZ(x) + 2.f});
            }
        }
        terrain->setGlobalShift(SHIFT);
        window.addToDatabase(terrain, true);
        // The viewer's own small cloud stays out of the way, in the scene's one frame (the
        // companion's objects are drawn in the first cloud's).
        cloud->setVisible(false);
        cloud->setGlobalShift(SHIFT);
    }
    tzGLWindow *view() { return window.activeView(); }
    QPoint pixelOf(const TZVector3d &p)
    {
        double x = 0, y = 0, depth = 0;
        view()->camera().project(p, x, y, depth);
        return QPoint(int(std::lround(x)), int(std::lround(y)));
    }
    void pickAt(const TZVector3d &p)
    {
        const QPoint at = pixelOf(p);
        moveMouse(view(), at);
        QTest::mouseClick(view(), Qt::LeftButton, Qt::NoModifier, at);
    }
    tzHObject *mesures()
    {
        tzHObject *root = window.databaseRoot();
        for (unsigned i = 0; i < root->getChildrenNumber(); ++i) {
            if (root->getChild(i)->getName() == QLatin1String("mesures"))
                return root->getChild(i);
        }
        return nullptr;
    }
    unsigned sightCount()
    {
        tzHObject *group = mesures();
        return group ? group->getChildrenNumber() : 0;
    }
    void topView()
    {
        tzViewportParameters p = view()->getViewportParameters();
        p.perspectiveView = false;
        p.pixelSize = 0.1; // 10 pixels a unit
        p.zoom = 1;
        p.pivotPoint = {20, 20, 0};
        p.cameraCenter = {20, 20, 100};
        view()->setViewportParameters(p);
        view()->setCustomView({0, 0, -1}, {0, 1, 0});
    }
};

// The stand-in waiting on the socket, and the survey in the viewer with a run started in one of
// the sight modes (the button's name), seen from the top at 10 pixels a unit.
struct Session
{
    //! A stand-in that numbers the sights placed, as the companion does, or (by default, so
    //! that only the plug-in's own sights are in the scene) one that does not.
    explicit Session(bool numbering = false, const QByteArray &script = "!wait 100000\n")
        : sim(writeScript(dir, script),
              numbering ? QStringList() : QStringList {QStringLiteral("--no-numbering")})
    {
    }

    QTemporaryDir dir;
    Sim sim;
    Survey survey;

    bool start(const char *modeButton)
    {
        if (!QTest::qWaitFor([this] { return sim.listening(); }, 5000))
            return false;
        survey.start();
        if (!QTest::qWaitFor(
                [this] { return sim.log().contains(QStringLiteral("client connected")); }, 5000))
            return false;
        survey.click(modeButton);
        survey.topView();
        // The run's tool bar takes its room in the window a little later: clicks are aimed with
        // the view at its final size.
        QSize size;
        for (int i = 0; i < 10 && size != survey.view()->size(); ++i) {
            size = survey.view()->size();
            frame(*survey.view());
        }
        return true;
    }
};

} // namespace

class TestSightTool : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void simplePointPicksSendTheirCoordinates();
    void lowestPointTakesTheGroundUnderTheBush();
    void zHeldOrPressedGivesOneLowestPointSight();
    void pickNearASightThenElsewhereMovesIt();
    void companionGoingAwayAndComingBack();
    void clickBesideACompanionLineReachesTheGround();
    void restartedStandInNumbersAboveWhatItGave();
    void lowestPointIndexZeroIsNeverPreviewed();
    void previousHeightButton();
    void mouseCircleAndCursorReports();
    void sightBoxHeightDragAndSave();
    void distanceBetweenTwoPicks();
    void runOnACloudShownByClassWithShading();

private:
    QTemporaryDir m_settings;
};

void TestSightTool::initTestCase()
{
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, m_settings.path());
    // The stand-ins keep their numbering in the cache: this run's own.
    qputenv("XDG_CACHE_HOME", m_settings.filePath(QStringLiteral("cache")).toUtf8());
    QCoreApplication::setOrganizationName(QStringLiteral("Tessaro"));
    QCoreApplication::setApplicationName(QStringLiteral("Tessaro"));
}

void TestSightTool::init()
{
    store()->clear();
    store()->setValue(QStringLiteral("accuaryLowestPoint"), 0.3);
    store()->setValue(QStringLiteral("accuaryMovePoint"), 0.5);
}

void TestSightTool::simplePointPicksSendTheirCoordinates()
{
    Session session(true);
    QVERIFY(session.start("pointPropertiesButton"));
    const Sim &sim = session.sim;
    Survey &survey = session.survey;

    survey.pickAt({10, 12, groundZ(10)});
    survey.pickAt({30, 5, groundZ(30)});
    QTRY_COMPARE(received(sim, "coordonnees").size(), 2);
    const QStringList sent = received(sim, "coordonnees");
    QVERIFY2(sent[0].contains(companion(10, 12, groundZ(10))), qPrintable(sent[0]));
    QVERIFY2(sent[1].contains(companion(30, 5, groundZ(30))), qPrintable(sent[1]));
    QVERIFY(sent[1].endsWith(QStringLiteral("port=0"))); // no port in the settings
    QCOMPARE(survey.sightCount(), 2u);
    // The fixed sights are plain (not selected) and keep the companion's coordinates.
    const tzHObject *sight = survey.mesures()->getChild(0);
    QVERIFY(!sight->isSelected());
    QCOMPARE(sight->getMetaData(QStringLiteral("Coord x")).toDouble(), 651210.0);
    QVERIFY(survey.consoleHas(QStringLiteral("[Picked] Point #")));
    // The stand-in numbers each placed sight as the companion does: its CVisee frames come back
    // at the picked places, 1001 then 1002.
    tzHObject *numbered = nullptr;
    QTRY_VERIFY((numbered = childNamed(survey.window.databaseRoot(), "CVisee"))
                && numbered->getChildrenNumber() == 2);
    for (unsigned i = 0; i < 2; ++i) {
        const tzCVisee *answer = sightOf(numbered->getChild(i));
        QVERIFY(answer);
        QCOMPARE(answer->number(), QString::number(1001 + i));
        QCOMPARE(answer->getMetaData(QStringLiteral("Coord x")).toDouble(),
                 i == 0 ? 651210.0 : 651230.0);
    }
    // The bush's top is what a simple pick takes.
    survey.pickAt({BUSH.x, BUSH.y, groundZ(BUSH.x) + 2});
    QTRY_COMPARE(received(sim, "coordonnees").size(), 3);
    QVERIFY(received(sim, "coordonnees")[2].contains(
        QStringLiteral("z=%1").arg(groundZ(BUSH.x) + 2 - SHIFT.z, 0, 'f', 4)));
}

void TestSightTool::lowestPointTakesTheGroundUnderTheBush()
{
    Session session;
    QVERIFY(session.start("pointPropertiesPointButton"));
    session.survey.pickAt({BUSH.x, BUSH.y, groundZ(BUSH.x) + 2});
    QTRY_COMPARE(received(session.sim, "coordonnees").size(), 1);
    // x and y of the pick, z of the ground point right under the bush (ground points lie 0.5
    // apart, the cylinder is 0.3 wide).
    const QString sent = received(session.sim, "coordonnees").first();
    QVERIFY2(sent.contains(companion(BUSH.x, BUSH.y, groundZ(BUSH.x))), qPrintable(sent));
}

void TestSightTool::zHeldOrPressedGivesOneLowestPointSight()
{
    Session session;
    QVERIFY(session.start("pointPropertiesButton"));
    Survey &survey = session.survey;
    // Three spots of the canopy, more than accuaryMovePoint apart.
    const float x[] = {BUSH.x - 0.5f, BUSH.x, BUSH.x + 0.5f};
    const float y[] = {BUSH.y, BUSH.y + 0.5f, BUSH.y - 0.5f};
    const auto top = [&](int i) { return TZVector3d(x[i], y[i], groundZ(x[i]) + 2); };
    // Z pressed: the next pick is a lowest-point sight, the one after a simple one again.
    QTest::keyClick(survey.view(), Qt::Key_Z);
    survey.pickAt(top(0));
    survey.pickAt(top(1));
    // Z held during a pick in simple-point mode.
    QTest::keyPress(survey.view(), Qt::Key_Z);
    survey.pickAt(top(2));
    QTest::keyRelease(survey.view(), Qt::Key_Z);
    QTRY_COMPARE(received(session.sim, "coordonnees").size(), 3);
    const QStringList sent = received(session.sim, "coordonnees");
    QVERIFY2(sent[0].contains(companion(x[0], y[0], groundZ(x[0]))), qPrintable(sent[0]));
    QVERIFY2(sent[1].contains(companion(x[1], y[1], groundZ(x[1]) + 2)), qPrintable(sent[1]));
    QVERIFY2(sent[2].contains(companion(x[2], y[2], groundZ(x[2]))), qPrintable(sent[2]));
}

void TestSightTool::pickNearASightThenElsewhereMovesIt()
{
    store()->setValue(QStringLiteral("accuaryMovePoint"), 1.2);
    Session session;
    QVERIFY(session.start("pointPropertiesButton"));
    const Sim &sim = session.sim;
    Survey &survey = session.survey;
    const TZVector3d a(10, 10, groundZ(10)), b(10, 12, groundZ(10)), c(14, 16, groundZ(14)),
        d(30, 30, groundZ(30));
    survey.pickAt(a);
    survey.pickAt(b); // 2 units away: beyond accuaryMovePoint
    QTRY_COMPARE(received(sim, "coordonnees").size(), 2);
    tzHObject *first = survey.mesures()->getChild(0);
    const QString name = survey.window.dbTree()->itemOf(first)->text(0);
    QVERIFY(name.startsWith(QStringLiteral("Point #")));
    // A pick as near to both (1 unit, 10 pixels from their markers) selects the first placed;
    // the next pick moves it.
    survey.pickAt({10, 11, groundZ(10)});
    survey.pickAt(c);
    QTRY_COMPARE(received(sim, "pointMove").size(), 1);
    QCOMPARE(received(sim, "coordonnees").size(), 2);
    // Moved, it keeps its name in the tree.
    survey.window.refreshAllViews();
    QTRY_COMPARE(survey.window.dbTree()->itemOf(first)->text(0), name);
    const auto triple = [](const TZVector3d &p) {
        return QStringLiteral("(%1, %2, %3)")
            .arg(p.x - SHIFT.x, 0, 'f', 4)
            .arg(p.y - SHIFT.y, 0, 'f', 4)
            .arg(p.z - SHIFT.z, 0, 'f', 4);
    };
    const auto moved = [&](const TZVector3d &from, const TZVector3d &to) {
        return QStringLiteral("from ") + triple(from) + QStringLiteral(" to ") + triple(to);
    };
    QVERIFY2(received(sim, "pointMove")[0].contains(moved(a, c)),
             qPrintable(received(sim, "pointMove")[0]));
    // A click right on b's marker selects b as well.
    survey.pickAt(b);
    survey.pickAt(d);
    QTRY_COMPARE(received(sim, "pointMove").size(), 2);
    QVERIFY2(received(sim, "pointMove")[1].contains(moved(b, d)),
             qPrintable(received(sim, "pointMove")[1]));
    QCOMPARE(survey.sightCount(), 2u);
    // And the next pick places a new sight again.
    survey.pickAt({30, 10, groundZ(30)});
    QTRY_COMPARE(received(sim, "coordonnees").size(), 3);
    // Escape drops a sight picked up: the next pick places a new one.
    survey.pickAt(d);
    QTest::keyClick(survey.view(), Qt::Key_Escape);
    survey.pickAt({36, 36, groundZ(36)});
    QTRY_COMPARE(received(sim, "coordonnees").size(), 4);
    QCOMPARE(received(sim, "pointMove").size(), 2);
    QCOMPARE(survey.sightCount(), 4u);
}

void TestSightTool::companionGoingAwayAndComingBack()
{
    Session session;
    QVERIFY(session.start("pointPropertiesButton"));
    Survey &survey = session.survey;
    QToolButton *link = survey.button("EtatConnection");
    const QImage on
        = QPixmap(QStringLiteral(":/TZ/plugin/qLumivert/images/ConnecteOn.png")).toImage();
    const auto shows = [link](const QImage &icon) {
        return link->icon().pixmap(32, 31).toImage().convertToFormat(QImage::Format_ARGB32)
            == icon.convertToFormat(QImage::Format_ARGB32);
    };
    QVERIFY(shows(on));
    survey.pickAt({10, 10, groundZ(10)});
    QTRY_COMPARE(received(session.sim, "coordonnees").size(), 1);

    const int attempts = survey.state("linkAttempts").toInt();
    session.sim.kill(); // the companion goes away in the middle of the run
    QTRY_VERIFY(survey.consoleHas(QStringLiteral("Link with Mensurix lost")));
    QVERIFY(!shows(on));
    // Two sights placed meanwhile are drawn, and wait for the companion.
    const TZVector3d b(20, 10, groundZ(20)), c(30, 10, groundZ(30));
    survey.pickAt(b);
    survey.pickAt(c);
    QCOMPARE(survey.sightCount(), 3u);
    // An attempt fails in the meantime, silently.
    QTRY_VERIFY_WITH_TIMEOUT(survey.state("linkAttempts").toInt() > attempts, 5000);

    QTemporaryDir dir;
    Sim back(writeScript(dir, "!wait 100000\n"));
    QTRY_VERIFY(back.listening());
    QElapsedTimer since;
    since.start();
    QTRY_COMPARE_WITH_TIMEOUT(received(back, "coordonnees").size(), 2, 5000);
    QVERIFY2(since.elapsed() < 3000, qPrintable(QString::number(since.elapsed())));
    const QStringList sent = received(back, "coordonnees");
    const auto at = [](const TZVector3d &p) {
        return QStringLiteral("x=%1 y=%2")
            .arg(p.x - SHIFT.x, 0, 'f', 4)
            .arg(p.y - SHIFT.y, 0, 'f', 4);
    };
    QVERIFY2(sent[0].contains(at(b)) && sent[1].contains(at(c)), qPrintable(sent.join('|')));
    QVERIFY(!back.log().contains(QStringLiteral("NOT")));
    QTRY_VERIFY(survey.consoleHas(QStringLiteral("Link with Mensurix back")));
    QVERIFY(shows(on));
    // New sights go straight on, after the ones that waited.
    survey.pickAt({36, 10, groundZ(36)});
    QTRY_COMPARE(received(back, "coordonnees").size(), 3);
}

void TestSightTool::restartedStandInNumbersAboveWhatItGave()
{
    // Its script holds sight 1007, not sent yet: the first sight placed is 1008. Restarted with
    // the same script, it numbers the next one 1009; sight 1008 stays where it was.
    const QByteArray script = "!wait 100000\n{\"type\": \"CVisee\", \"ident\": 7, \"number\": "
                              "\"1007\", \"coord\": {\"X\": 651201, \"Y\": 6861401, \"Z\": 112}}\n";
    Session session(true, script);
    QVERIFY(session.start("pointPropertiesButton"));
    Survey &survey = session.survey;
    const auto numbered = [&survey] {
        QStringList numbers;
        if (tzHObject *group = childNamed(survey.window.databaseRoot(), "CVisee")) {
            for (unsigned i = 0; i < group->getChildrenNumber(); ++i)
                numbers << sightOf(group->getChild(i))->number();
        }
        return numbers;
    };
    survey.pickAt({10, 10, groundZ(10)});
    QTRY_COMPARE(numbered(), QStringList {QStringLiteral("1008")});
    session.sim.kill();
    QTRY_VERIFY(survey.consoleHas(QStringLiteral("Link with Mensurix lost")));
    Sim back(writeScript(session.dir, script));
    QTRY_VERIFY_WITH_TIMEOUT(back.log().contains(QStringLiteral("client connected")), 5000);
    survey.pickAt({30, 10, groundZ(30)});
    QTRY_COMPARE(numbered(), (QStringList {QStringLiteral("1008"), QStringLiteral("1009")}));
    const auto *first = sightOf(childNamed(survey.window.databaseRoot(), "CVisee")->getChild(0));
    QCOMPARE(first->getMetaData(QStringLiteral("Coord x")).toDouble(), 651210.0);
}

void TestSightTool::clickBesideACompanionLineReachesTheGround()
{
    // The companion's alignment along y = 20, 5 cm over the ground (a line surveyed on it): seen
    // from the top, it lies in front of the ground's points.
    const auto vertex = [](double x) {
        return QStringLiteral("{\"X\": %1, \"Y\": %2, \"Z\": %3}")
            .arg(x - SHIFT.x, 0, 'f', 3)
            .arg(20 - SHIFT.y, 0, 'f', 3)
            .arg(groundZ(float(x)) + 0.05 - SHIFT.z, 0, 'f', 3);
    };
    const QString alignment = QStringLiteral("{\"type\": \"XAlignement\", \"ident\": 200, "
                                             "\"entities\": [{\"type\": \"XPolyline\", "
                                             "\"Rcolor\": 255, \"Gcolor\": 255, \"Bcolor\": 0, "
                                             "\"vertex\": [%1, %2]}]}\n!wait 100000\n")
                                  .arg(vertex(0), vertex(40));
    Session session(false, alignment.toUtf8());
    QVERIFY(session.start("pointPropertiesButton"));
    Survey &survey = session.survey;
    QTRY_VERIFY(childNamed(survey.window.databaseRoot(), "XAlignement"));
    frame(*survey.view());

    // Clicks 0 to 8 pixels beside the line (10 pixels a unit), each at its own x so that no
    // sight is near another: within 2 pixels the line takes the click and nothing is placed;
    // farther, the ground point under the cursor is the sight's.
    struct Click
    {
        int offsetPx;
        float x;
        bool places;
    };
    const Click clicks[] = {{0, 4, false}, {1, 8, false}, {-1, 12, false},
                            {3, 16, true}, {5, 24, true}, {-8, 32, true}};
    int placed = 0;
    for (const Click &click : clicks) {
        QPoint at = survey.pixelOf({click.x, 20, groundZ(click.x)});
        at.ry() -= click.offsetPx; // north of the line: up on the screen
        moveMouse(survey.view(), at);
        QTest::mouseClick(survey.view(), Qt::LeftButton, Qt::NoModifier, at);
        if (!click.places)
            continue;
        ++placed;
        QTRY_COMPARE(received(session.sim, "coordonnees").size(), placed);
        // A ground point within the picking tolerance (3 pixels) of the click.
        const QString sent = received(session.sim, "coordonnees").last();
        const QRegularExpressionMatch m
            = QRegularExpression(QStringLiteral("x=(\\S+) y=(\\S+) z=(\\S+)")).match(sent);
        QVERIFY2(m.hasMatch(), qPrintable(sent));
        const double x = m.captured(1).toDouble() + SHIFT.x, y = m.captured(2).toDouble() + SHIFT.y;
        QVERIFY2(std::abs(x - click.x) < 1e-3
                     && std::abs(y - (20 + 0.1 * click.offsetPx)) <= 0.3 + 1e-3
                     && std::abs(m.captured(3).toDouble() + SHIFT.z - groundZ(click.x)) < 1e-3,
                 qPrintable(QString::number(click.offsetPx) + ": " + sent));
    }
    // The clicks on the line itself placed nothing.
    QCOMPARE(received(session.sim, "coordonnees").size(), placed);
    QCOMPARE(survey.sightCount(), unsigned(placed));
}

void TestSightTool::lowestPointIndexZeroIsNeverPreviewed()
{
    Session session;
    QVERIFY(session.start("pointPropertiesPointButton"));
    Survey &survey = session.survey;
    tzGLWindow *view = survey.view();
    survey.pickAt({20, 10, groundZ(20)}); // the tool now knows the cloud
    // The cloud's first point is (0, 0, 0): a lowest point there reads as no result.
    const QPoint first = survey.pixelOf({0, 0, 0}), next = survey.pixelOf({0.5, 0, 0.05});
    const QColor red(255, 0, 0);
    moveMouse(view, first);
    QVERIFY(!isColour(frame(*view), first.x(), first.y(), red, 60));
    moveMouse(view, next);
    QVERIFY(isColour(frame(*view), next.x(), next.y(), red, 60));
}

void TestSightTool::previousHeightButton()
{
    Session session;
    QVERIFY(session.start("pointPropertiesButton"));
    const Sim &sim = session.sim;
    Survey &survey = session.survey;
    auto *previous = survey.button<QAbstractButton>("SimpleAjoutZButton");
    // No sight yet: nothing is sent and the button stays checked.
    previous->setChecked(true);
    survey.pickAt({10, 10, groundZ(10)});
    QVERIFY(previous->isChecked());
    QCOMPARE(survey.sightCount(), 0u);

    previous->setChecked(false);
    survey.pickAt({10, 10, groundZ(10)});
    QTRY_COMPARE(survey.sightCount(), 1u);
    // The link keeps the order of the texts: the first that arrives is this pick's, so the
    // pick with no sight sent nothing.
    QTRY_COMPARE(received(sim, "coordonnees").size(), 1);
    QVERIFY(received(sim, "pointMove").isEmpty());
    tzHObject *sight = survey.mesures()->getChild(0);
    const QString name = sight->getName();
    QVERIFY(name.startsWith(QStringLiteral("Point #")));
    // Checked: the last sight takes the height of the next pick, x and y kept.
    previous->setChecked(true);
    survey.pickAt({30, 30, groundZ(30)});
    QTRY_COMPARE(received(sim, "pointMove").size(), 1);
    QVERIFY(!previous->isChecked());
    const QString move = received(sim, "pointMove").first();
    QVERIFY2(move.contains(QStringLiteral("to (651210.0000, 6861410.0000, %1)")
                               .arg(groundZ(30) - SHIFT.z, 0, 'f', 4)),
             qPrintable(move));
    QCOMPARE(survey.sightCount(), 1u);
    QCOMPARE(sight->getName(), name); // not "(no name)" in the tree
}

void TestSightTool::mouseCircleAndCursorReports()
{
    Session session;
    QVERIFY(session.start("pointPropertiesButton"));
    const Sim &sim = session.sim;
    Survey &survey = session.survey;
    survey.pickAt({5, 5, groundZ(5)}); // the tool now knows the cloud
    tzGLWindow *view = survey.view();

    // The circle: red, 15 pixels round the cursor for 0.3.
    const QPoint at = survey.pixelOf({20, 30, groundZ(20)});
    QCursor::setPos(view->mapToGlobal(at)); // the circle follows the pointer itself
    QTRY_COMPARE(view->mapFromGlobal(QCursor::pos()), at);
    moveMouse(view, at);
    QImage image = frame(*view);
    const QColor red(255, 0, 0);
    int onCircle = 0, inside = 0;
    for (int a = 0; a < 360; a += 10) {
        const double t = a * M_PI / 180;
        for (int d = -1; d <= 1; ++d) {
            if (isColour(image, at.x() + int(std::lround((15 + d) * std::cos(t))),
                         at.y() + int(std::lround((15 + d) * std::sin(t))), red, 60)) {
                ++onCircle;
                break;
            }
        }
        inside += isColour(image, at.x() + int(7 * std::cos(t)), at.y() + int(7 * std::sin(t)), red,
                           60);
    }
    QVERIFY2(onCircle >= 18, qPrintable(QString::number(onCircle))); // dashed: half of it
    QCOMPARE(inside, 0);

    // The preview placed under the cursor goes to the console at each move, as a pick does.
    const auto pickedLines = [&survey] {
        const QStringList lines = survey.window.console()->lines();
        return std::count_if(lines.begin(), lines.end(),
                             [](const QString &l) { return l.contains("[Picked]\t- P#"); });
    };
    const auto pickedBefore = pickedLines();
    moveMouse(view, at + QPoint(3, 3));
    QTRY_VERIFY2(pickedLines() > pickedBefore,
                 qPrintable(survey.window.console()->lines().mid(-5).join('\n')));

    // Cursor reports: the first move reports at once, moves within half a second do not.
    const int before = received(sim, "mouseCursor").size();
    QTest::qWait(600);
    for (int i = 0; i < 20; ++i)
        moveMouse(view, at + QPoint(i % 5, 0));
    QTRY_COMPARE(received(sim, "mouseCursor").size(), before + 1);
    QTest::qWait(300);
    QCOMPARE(received(sim, "mouseCursor").size(), before + 1);
    const QString report = received(sim, "mouseCursor").last();
    QVERIFY2(report.contains(QStringLiteral("up (0.0000, 1.0000, 0.0000)"))
                 || report.contains(QStringLiteral("up (-0.0000, 1.0000")),
             qPrintable(report));
    // The pointer out of the way of the next windows.
    QCursor::setPos(QGuiApplication::primaryScreen()->geometry().bottomRight());
}

void TestSightTool::sightBoxHeightDragAndSave()
{
    store()->setValue(QStringLiteral("accuaryZLabel"), 2);
    store()->setValue(QStringLiteral("displayIn2D"), true);
    Session session;
    QVERIFY(session.start("pointPropertiesButton"));
    Survey &survey = session.survey;
    tzGLWindow *view = survey.view();
    survey.pickAt({10, 10, groundZ(10)});
    QTRY_COMPARE(survey.sightCount(), 1u);
    const tzCVisee *sight = sightOf(survey.mesures()->getChild(0));
    QVERIFY(sight && sight->isShownIn2D());

    // The box, drawn half-transparent over the cloud, is dragged with the mouse; the camera
    // stays and nothing is picked.
    QImage image = frame(*view);
    const QRect box = sight->labelRect();
    QVERIFY(box.width() > 20 && box.height() > 10);
    QCOMPARE(sight->lastScreenPos(), box.topLeft());
    const QColor inside = image.pixelColor(box.left() + 3, box.bottom() - 3);
    QVERIFY2(inside.value() < 80 && inside.value() > 10, qPrintable(inside.name()));
    const QPointF before = sight->screenPos();
    const tzViewportParameters camera = view->getViewportParameters();
    const QPoint from = box.topLeft() + QPoint(4, 4);
    QTest::mousePress(view, Qt::LeftButton, Qt::NoModifier, from);
    for (int i = 1; i <= 10; ++i)
        moveMouse(view, from + QPoint(4 * i, 3 * i), Qt::LeftButton);
    QTest::mouseRelease(view, Qt::LeftButton, Qt::NoModifier, from + QPoint(40, 30));
    const QPointF moved = sight->screenPos() - before; // fractions of the view (floats)
    QVERIFY(std::abs(moved.x() - 40.0 / view->width()) < 1e-6);
    QVERIFY(std::abs(moved.y() - 30.0 / view->height()) < 1e-6);
    QCOMPARE(view->getViewportParameters().cameraCenter, camera.cameraCenter);
    QCoreApplication::processEvents(); // a pick would have been handled by now
    QCOMPARE(survey.sightCount(), 1u);
    QTRY_COMPARE(received(session.sim, "coordonnees").size(), 1);

    // Saved and loaded back: the box where it was dragged, the flags, the point, the height.
    const_cast<tzCVisee *>(sight)->showPointLegends(true);
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("survey.bin"));
    QVERIFY(survey.window.saveScene(path));
    QVERIFY(survey.window.loadScene(path));
    tzHObject::Container labels;
    survey.window.databaseRoot()->filterChildren(labels, true, TZ_TYPES::LABEL_KIND);
    QCOMPARE(int(labels.size()), 2);
    const tzCVisee *copy = sightOf(labels.back());
    QVERIFY(copy && copy != sight);
    QCOMPARE(copy->screenPos(), sight->screenPos());
    QVERIFY(copy->isShownIn2D() && copy->isFullBodyShown() && copy->arePointLegendsShown());
    QCOMPARE(copy->size(), 1u);
}

void TestSightTool::distanceBetweenTwoPicks()
{
    Session session;
    QVERIFY(session.start("pointPointDistanceButton"));
    Survey &survey = session.survey;
    tzGLWindow *view = survey.view();
    const TZVector3d a(10, 10, groundZ(10)), b(10, 30, groundZ(10));
    survey.pickAt(a);
    survey.pickAt(b);
    QTRY_VERIFY(
        survey.consoleHas(QStringLiteral("[tzLumivert] Distance entre les points = 20.0 metre ")));
    // Drawn: an arrow from a to b in yellow, over the cloud; nothing goes to the companion.
    const QImage image = frame(*view);
    const QColor yellow(255, 255, 0);
    const QPoint middle = survey.pixelOf({10, 20, groundZ(10)});
    int onArrow = 0;
    for (int dx = -2; dx <= 2; ++dx)
        onArrow += isColour(image, middle.x() + dx, middle.y(), yellow, 60) ? 1 : 0;
    QVERIFY(onArrow > 0);
    QVERIFY(!isColour(image, middle.x() + 15, middle.y(), yellow, 60));
    QVERIFY(received(session.sim, "coordonnees").isEmpty());
    QCOMPARE(survey.sightCount(), 1u); // the group holds the distance
}

void TestSightTool::runOnACloudShownByClassWithShading()
{
    Session session;
    Survey &survey = session.survey;
    // The terrain classified as a survey comes: ground, and the bush as high vegetation; shown
    // by class with eye-dome shading, as a surveyor looks at a cloud without colours.
    const unsigned ground = 81 * 81;
    std::vector<tzPointAttributes> attributes(survey.terrain->size());
    for (unsigned i = 0; i < attributes.size(); ++i)
        attributes[i].classification = i < ground ? 2 : 5;
    survey.terrain->setAttributes(std::move(attributes), tzPointDisplay::CLASSIFICATION);
    QVERIFY(survey.terrain->setColourMode(tzPointDisplay::ColourMode::Classification));
    survey.view()->setShading(tzGLWindow::Shading::EyeDome);
    QVERIFY(session.start("pointPropertiesButton"));
    QVERIFY(survey.view()->eyeDomeShown());

    // The ground is drawn in its class's colour under the shading (flat: barely shaded).
    const QImage image = frame(*survey.view());
    const QPoint open = survey.pixelOf({5, 30, groundZ(5)});
    bool groundShown = false;
    for (int dy = -1; dy <= 1; ++dy) {
        for (int dx = -1; dx <= 1; ++dx)
            groundShown |= isColour(image, open.x() + dx, open.y() + dy,
                                    tzPointDisplay::classColour(2), 40);
    }
    QVERIFY(groundShown);
    // A pick takes the bush's top; the sight placed there shows over the shaded cloud.
    const TZVector3d top(BUSH.x, BUSH.y, groundZ(BUSH.x) + 2);
    survey.pickAt(top);
    QTRY_COMPARE(received(session.sim, "coordonnees").size(), 1);
    QVERIFY(received(session.sim, "coordonnees")[0].contains(companion(top.x, top.y, top.z)));
    const QImage withSight = frame(*survey.view());
    const QPoint at = survey.pixelOf(top);
    QVERIFY(withSight.pixelColor(at) != image.pixelColor(at));
    // Vegetation hidden: what is seen is what is picked, the ground under the bush.
    survey.terrain->showClass(5, false);
    survey.pickAt({BUSH.x + 1, BUSH.y, groundZ(BUSH.x + 1) + 2});
    QTRY_COMPARE(received(session.sim, "coordonnees").size(), 2);
    const QString second = received(session.sim, "coordonnees")[1];
    QVERIFY2(second.contains(companion(BUSH.x + 1, BUSH.y, groundZ(BUSH.x + 1))),
             qPrintable(second));
}

QTEST_MAIN(TestSightTool)
#include "tst_sighttool.moc"
