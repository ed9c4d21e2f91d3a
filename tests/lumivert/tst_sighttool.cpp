// The sight tool in the real viewer, driven with the mouse and keys, the companion stand-in on
// the socket: what each pick places and sends, the preview, the mouse circle.
//
// The scene: a terrain in national-grid coordinates (shifted into the cloud's frame), a slope
// rising 0.1 a unit eastwards, and a bush: a column of points 2 units above the ground.

#include "CompanionSim.h"
#include "PluginViewer.h"
#include "ViewHelpers.h"

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
        // The bush: a dense top 2 units up, and its stem.
        for (int k = -2; k <= 2; ++k) {
            for (int l = -2; l <= 2; ++l)
                terrain->addPoint({BUSH.x + k * 0.02f, BUSH.y + l * 0.02f, groundZ(BUSH.x) + 2.f});
        }
        terrain->setGlobalShift(SHIFT);
        window.addToDatabase(terrain, true);
        cloud->setVisible(false); // the viewer's own small cloud stays out of the way
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
        QTest::mouseMove(view(), at);
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
    QTemporaryDir dir;
    Sim sim {writeScript(dir, "!wait 100000\n")};
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
    void previousHeightButton();

private:
    QTemporaryDir m_settings;
};

void TestSightTool::initTestCase()
{
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, m_settings.path());
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
    Session session;
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
    // The bush's top is what a simple pick takes.
    survey.pickAt({BUSH.x, BUSH.y, groundZ(BUSH.x) + 2});
    QTRY_COMPARE(received(sim, "coordonnees").size(), 3);
    QVERIFY(received(sim, "coordonnees")[2].contains(
        QStringLiteral("z=%1").arg(groundZ(BUSH.x) + 2 - SHIFT.z, 0, 'f', 4)));
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
    QTest::qWait(200);
    QVERIFY(previous->isChecked());
    QCOMPARE(survey.sightCount(), 0u);
    QVERIFY(received(sim, "coordonnees").isEmpty() && received(sim, "pointMove").isEmpty());

    previous->setChecked(false);
    survey.pickAt({10, 10, groundZ(10)});
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
}

QTEST_MAIN(TestSightTool)
#include "tst_sighttool.moc"
