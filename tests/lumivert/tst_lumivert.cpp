// The plug-in loaded by the real viewer: its description, its action, a measuring run, the mode
// buttons and the picking hub, keys and picks, and the settings it reads and writes.

#include "PluginViewer.h"
#include "tzConsole.h"
#include "tzDBTree.h"
#include "tzGLWindow.h"
#include "tzMainWindow.h"
#include "tzOverlayDialog.h"
#include "tzPickingHub.h"
#include "tzPickingListener.h"
#include "tzPluginManager.h"
#include "tzPointCloud.h"
#include "tzStdPluginInterface.h"

#include <QAction>
#include <QCheckBox>
#include <QDoubleSpinBox>
#include <QLabel>
#include <QMenu>
#include <QPluginLoader>
#include <QPushButton>
#include <QRadioButton>
#include <QSettings>
#include <QSpinBox>
#include <QTemporaryDir>
#include <QTextEdit>
#include <QToolBar>
#include <QToolButton>
#include <QtTest>

#include <memory>

namespace {

const QString STYLE_NORMAL = QStringLiteral("border:1px solid #A9A9A9;");
const QString STYLE_ACTIVE = QStringLiteral("border:1px solid #ff0000;");

// The plug-in's settings store, as the plug-in opens it (redirected to a test folder).
std::unique_ptr<QSettings> store()
{
    return std::make_unique<QSettings>(QSettings::NativeFormat, QSettings::UserScope,
                                       QStringLiteral("LumiVert"), QStringLiteral("LinkServer"));
}

bool sameImage(const QIcon &icon, const QString &resource)
{
    return icon.pixmap(32, 31).toImage().convertToFormat(QImage::Format_ARGB32)
        == QPixmap(resource).toImage().convertToFormat(QImage::Format_ARGB32);
}

struct OtherTool : tzPickingListener
{
    void onItemPicked(const PickedItem &) override { }
};

// Counts the debug lines that contain a text, while it lives.
class DebugCounter
{
public:
    explicit DebugCounter(const char *text)
    {
        s_text = text;
        s_count = 0;
        m_previous = qInstallMessageHandler(&DebugCounter::handle);
    }
    ~DebugCounter() { qInstallMessageHandler(m_previous); }
    int count() const { return s_count; }

private:
    static void handle(QtMsgType, const QMessageLogContext &, const QString &message)
    {
        if (message.contains(QLatin1String(s_text)))
            ++s_count;
    }
    static inline const char *s_text = nullptr;
    static inline int s_count = 0;
    QtMessageHandler m_previous;
};

bool keyHeld(QObject *plugin, int key)
{
    bool held = false;
    QMetaObject::invokeMethod(plugin, "isKeyHeld", Q_RETURN_ARG(bool, held), Q_ARG(int, key));
    return held;
}

tzPointCloud *cloudNamed(const char *name, bool visible)
{
    auto *cloud = new tzPointCloud(QLatin1String(name));
    cloud->addPoint({0, 0, 0});
    cloud->setVisible(visible);
    return cloud;
}

} // namespace

class TestLumivert : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void describesItselfWithoutReadingItsInfoFile();
    void actionFollowsTheScene();
    void runShowsTheToolBarInTheTopRightCorner();
    void modeButtonsSwitchToolsAndTheHub();
    void cameraButtonsKeepTheirStateAcrossModes();
    void hubHeldByAnotherToolIsReported();
    void rightDoubleClickEndsListeningOnly();
    void zKeyMakesOneLowestPointPick();
    void eachKeyPressIsSeenOnce();
    void ctrlChecksTheIndicatorOnlyAloneWhileListening();
    void ctrlOfAViewerCommandLeavesTheIndicator();
    void heldKeysAreForgottenWhenTheKeyboardGoesElsewhere();
    void picksGoToTheMesuresGroup();
    void mesuresGroupIsLookedForTwoLevelsDeep();
    void hideAllPointCloudsStopsAtVisibleClouds();
    void toggleLabelsReachesTaggedObjectsAtAnyDepth();
    void settingsFirstRun();
    void settingsStoredValues();
    void settingsMarkersKeepTheMembers();
    void optionsFormRoundTrip();
    void helpWindowShowsThePage();
    void helpFromThePluginsMenuAndF1DuringARun();
    void escapeKeepsTheToolBarAndDropsWhatIsPending();
    void photoListsAreFoundBesideEachCloud();
    void quittingDuringARunIsClean();
    void toolBarOutlivesThePluginObject();
    void destroyedPluginLeavesTheHubAndANewOneIsMade();

private:
    QTemporaryDir m_settings;
};

void TestLumivert::initTestCase()
{
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, m_settings.path());
    QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, m_settings.path());
    QCoreApplication::setOrganizationName(QStringLiteral("Tessaro"));
    QCoreApplication::setApplicationName(QStringLiteral("Tessaro"));
}

void TestLumivert::init()
{
    store()->clear();
}

void TestLumivert::describesItselfWithoutReadingItsInfoFile()
{
    QPluginLoader loader(QStringLiteral(LUMIVERT_PLUGIN));
    const QJsonObject meta = loader.metaData();
    QCOMPARE(meta.value(QStringLiteral("IID")).toString(),
             QStringLiteral("tzcorp.tessaro.plugin.tzLumivert"));
    QCOMPARE(meta.value(QStringLiteral("className")).toString(), QStringLiteral("tzLumivert"));
    QVERIFY(meta.contains(QStringLiteral("MetaData")));
    QVERIFY(meta.value(QStringLiteral("MetaData")).isObject());
    QVERIFY(meta.value(QStringLiteral("MetaData")).toObject().isEmpty());
    // The Qt version as moc records it: major and minor.
    QCOMPARE(meta.value(QStringLiteral("version")).toInt(), QT_VERSION & 0xffff00);

    Viewer viewer;
    QVERIFY(viewer.plugin);
    QVERIFY(viewer.plugin->inherits("tzLumivert"));
    QVERIFY(viewer.plugin->qt_metacast("tzPickingListener"));
    QVERIFY(viewer.plugin->qt_metacast("orv.rd.Tessaro.tzStdPluginInterface/1.4"));
    QCOMPARE(viewer.std->getType(), TZ_STD_PLUGIN);
    QCOMPARE(viewer.std->getName(), QStringLiteral("Lumivert"));
    QCOMPARE(viewer.std->getDescription(),
             QStringLiteral("Plugin 'Lumivert' for transferring mesures"));
    QVERIFY(!viewer.std->getIcon().isNull());
    // The info file ships in the resources, and is never read.
    QVERIFY(!viewer.std->isCore());
    QVERIFY(viewer.std->getAuthors().isEmpty());
    QVERIFY(viewer.std->getMaintainers().isEmpty());
    QVERIFY(viewer.std->getReferences().isEmpty());
    QFile info(QStringLiteral(":/TZ/plugin/qLumivert/info.json"));
    QVERIFY(info.open(QIODevice::ReadOnly));
    const QByteArray text = info.readAll();
    QVERIFY(text.contains("\r\n"));
    QVERIFY(text.contains("\"name\": \"QLumivert (Standard Plugin)\""));
    QVERIFY(text.contains("\t\t},\r\n\t],")); // the two trailing commas of the maintainers
    // The same object while it lives, a fresh one once it is gone.
    QCOMPARE(loader.instance(), viewer.plugin);
}

void TestLumivert::actionFollowsTheScene()
{
    tzMainWindow window(Viewer::options());
    window.loadPlugins({QFileInfo(QStringLiteral(LUMIVERT_PLUGIN)).absolutePath()});
    QAction *action = window.pluginToolBar()->actions().value(0);
    QVERIFY(action);
    QCOMPARE(action->text(), QStringLiteral("Lumivert"));
    // Until a cloud is selected, the tool tip says so.
    QCOMPARE(action->toolTip(),
             QStringLiteral("Plugin 'Lumivert' for transferring mesures: "
                            "select a cloud in the tree first"));
    QVERIFY(!action->isEnabled()); // empty scene
    auto *cloud = new tzPointCloud(QStringLiteral("c"));
    cloud->addPoint({0, 0, 0});
    window.addToDatabase(cloud);
    window.dbTree()->selectObject(cloud);
    QVERIFY(action->isEnabled());
    QCOMPARE(action->toolTip(), QStringLiteral("Plugin 'Lumivert' for transferring mesures"));
    window.pluginManager()->unloadAll();
}

void TestLumivert::runShowsTheToolBarInTheTopRightCorner()
{
    Viewer viewer;
    viewer.start();
    tzOverlayDialog *bar = viewer.toolBar();
    QVERIFY(bar);
    QVERIFY(bar->isVisible());
    QCOMPARE(bar->size(), QSize(269, 75));
    QCOMPARE(bar->windowTitle(), QStringLiteral("Points"));
    tzGLWindow *view = viewer.window.activeView();
    const QPoint corner = view->mapToGlobal(QPoint(view->width(), 0));
    QTRY_VERIFY(std::abs(bar->frameGeometry().right() + 1 - corner.x()) <= 10
                && std::abs(bar->frameGeometry().top() - corner.y()) <= 10);
    QVERIFY(sameImage(viewer.button("EtatConnection")->icon(),
                      ":/TZ/plugin/qLumivert/images/ConnecteOff.png"));
    QCOMPARE(viewer.button("pointPropertiesButton")->styleSheet(), STYLE_NORMAL);
    QVERIFY(viewer.button("closeButton")->isCheckable());
    QCOMPARE(view->camera().params.zNearCoef, 0.001);

    viewer.click("closeButton");
    QVERIFY(!bar->isVisible());
    QCOMPARE(viewer.state("listening").toBool(), false);
    QCOMPARE(viewer.window.pickingHub()->listenerCount(), std::size_t(0));
    // A second run reuses the same tool bar.
    viewer.start();
    QCOMPARE(viewer.toolBar(), bar);
    QVERIFY(bar->isVisible());
}

void TestLumivert::modeButtonsSwitchToolsAndTheHub()
{
    Viewer viewer;
    viewer.start();
    tzPickingHub *hub = viewer.window.pickingHub();
    struct Row
    {
        const char *button;
        const char *message;
        const char *tool;
        QVariant simplePoint;
    };
    const Row rows[] = {
        {"pointPropertiesButton", "Creer une visee sur la souris", "sight", true},
        {"pointPropertiesPointButton", "Creer une visee sur le label", "sight", false},
        {"pointPointDistanceButton", "Permet de mesurer la distance entre deux points", "lineation",
         QVariant()},
    };
    for (const Row &row : rows) {
        store()->remove(QStringLiteral("SimplePoint"));
        viewer.click(row.button);
        QToolButton *button = viewer.button(row.button);
        QVERIFY2(button->isChecked(), row.button);
        QCOMPARE(button->styleSheet(), STYLE_ACTIVE);
        QCOMPARE(viewer.state("activeTool").toString(), QString::fromLatin1(row.tool));
        QCOMPARE(viewer.messages(), QStringList {QString::fromLatin1(row.message)});
        QVERIFY(hub->isLocked());
        QCOMPARE(viewer.window.activeView()->getPickingMode(), 6);
        if (row.simplePoint.isValid())
            QCOMPARE(store()->value(QStringLiteral("SimplePoint")).toBool(),
                     row.simplePoint.toBool());
        else
            QVERIFY(!store()->contains(QStringLiteral("SimplePoint")));
        // Only one mode button is on.
        int active = 0;
        for (const char *other :
             {"pointPropertiesButton", "pointPropertiesPointButton", "pointPointDistanceButton"})
            active += viewer.button(other)->styleSheet() == STYLE_ACTIVE ? 1 : 0;
        QCOMPARE(active, 1);
        // Clicked again: the mode goes and the hub is released.
        viewer.click(row.button);
        QVERIFY(!button->isChecked());
        QCOMPARE(button->styleSheet(), STYLE_NORMAL);
        QCOMPARE(viewer.state("activeTool").toString(), QString());
        QCOMPARE(hub->listenerCount(), std::size_t(0));
        QCOMPARE(viewer.state("listening").toBool(), false);
        QCOMPARE(viewer.window.activeView()->getPickingMode(),
                 int(tzPickingHub::DEFAULT_PICKING_MODE));
    }
    // Straight from one mode to another: the old button loses its check and its style.
    viewer.click("pointPropertiesButton");
    viewer.click("pointPointDistanceButton");
    QVERIFY(!viewer.button("pointPropertiesButton")->isChecked());
    QCOMPARE(viewer.button("pointPropertiesButton")->styleSheet(), STYLE_NORMAL);
    QCOMPARE(viewer.button("pointPointDistanceButton")->styleSheet(), STYLE_ACTIVE);
    QCOMPARE(viewer.state("activeTool").toString(), QStringLiteral("lineation"));
    QVERIFY(viewer.state("listening").toBool());
}

void TestLumivert::cameraButtonsKeepTheirStateAcrossModes()
{
    Viewer viewer;
    viewer.start();
    viewer.click("optionCameraButton");
    viewer.click("normalCameraButton");
    QCOMPARE(viewer.button("optionCameraButton")->styleSheet(), STYLE_ACTIVE);
    QVERIFY(sameImage(viewer.button("optionCameraButton")->icon(),
                      ":/TZ/plugin/qLumivert/images/cameraOff.png"));
    QVERIFY(viewer.state("cameraDirection").toBool());
    QVERIFY(sameImage(viewer.button("normalCameraButton")->icon(),
                      ":/TZ/plugin/qLumivert/images/cameraAngleOn.png"));
    viewer.click("pointPropertiesButton"); // a mode reset leaves the camera buttons alone
    QVERIFY(viewer.button("optionCameraButton")->isChecked());
    QVERIFY(viewer.button("normalCameraButton")->isChecked());
    viewer.click("normalCameraButton");
    QVERIFY(!viewer.state("cameraDirection").toBool());
    QCOMPARE(viewer.button("normalCameraButton")->styleSheet(), STYLE_NORMAL);
    // Closing puts both back.
    viewer.click("normalCameraButton");
    viewer.click("closeButton");
    QVERIFY(!viewer.button("optionCameraButton")->isChecked());
    QVERIFY(!viewer.button("normalCameraButton")->isChecked());
    QVERIFY(!viewer.state("cameraDirection").toBool());
    QVERIFY(sameImage(viewer.button("optionCameraButton")->icon(),
                      ":/TZ/plugin/qLumivert/images/cameraOn.png"));
}

void TestLumivert::hubHeldByAnotherToolIsReported()
{
    Viewer viewer;
    OtherTool other;
    QVERIFY(viewer.window.pickingHub()->addListener(&other, true, true, 6));
    viewer.start();
    viewer.click("pointPropertiesButton");
    QVERIFY(viewer.consoleHas(QStringLiteral(
        "[ERROR] Another tool is already using the picking mechanism. Stop it first")));
    QCOMPARE(viewer.state("listening").toBool(), false);
    // The buttons still switch.
    QCOMPARE(viewer.button("pointPropertiesButton")->styleSheet(), STYLE_ACTIVE);
    QCOMPARE(viewer.state("activeTool").toString(), QStringLiteral("sight"));
    viewer.window.pickingHub()->removeListener(&other);
}

void TestLumivert::rightDoubleClickEndsListeningOnly()
{
    Viewer viewer;
    viewer.start();
    viewer.click("pointPropertiesButton");
    QVERIFY(viewer.state("listening").toBool());
    tzGLWindow *view = viewer.window.activeView();
    QTest::mouseDClick(view, Qt::RightButton, Qt::NoModifier, view->rect().center());
    QCOMPARE(viewer.state("listening").toBool(), false);
    QCOMPARE(viewer.window.pickingHub()->listenerCount(), std::size_t(0));
    QVERIFY(!viewer.button("pointPropertiesButton")->isChecked());
    QVERIFY(viewer.toolBar()->isVisible());
}

void TestLumivert::zKeyMakesOneLowestPointPick()
{
    Viewer viewer;
    viewer.start();
    viewer.click("pointPropertiesButton");
    tzGLWindow *view = viewer.window.activeView();
    QTest::keyClick(view, Qt::Key_Z);
    QVERIFY(viewer.button("pointPropertiesPointButton")->isChecked());
    QVERIFY(viewer.state("zPressed").toBool());
    QCOMPARE(store()->value(QStringLiteral("SimplePoint")).toBool(), false);
    // The first pick after Z is a lowest-point one; simple-point mode then comes back.
    const TZVector3 P = viewer.cloud->point(5);
    QVERIFY(QMetaObject::invokeMethod(viewer.plugin, "pointPicked",
                                      Q_ARG(tzHObject *, viewer.cloud), Q_ARG(unsigned, 5u),
                                      Q_ARG(int, 10), Q_ARG(int, 10), Q_ARG(TZVector3, P)));
    QVERIFY(!viewer.state("zPressed").toBool());
    QVERIFY(viewer.button("pointPropertiesButton")->isChecked());
    QVERIFY(!viewer.button("pointPropertiesPointButton")->isChecked());
    QCOMPARE(store()->value(QStringLiteral("SimplePoint")).toBool(), true);
    // Z still held after its pick: the keyboard repeats the press, which arms nothing more.
    QTest::sendKeyEvent(QTest::Press, view, Qt::Key_Z, 'z', Qt::NoModifier);
    QVERIFY(viewer.state("zPressed").toBool());
    QVERIFY(QMetaObject::invokeMethod(viewer.plugin, "pointPicked",
                                      Q_ARG(tzHObject *, viewer.cloud), Q_ARG(unsigned, 5u),
                                      Q_ARG(int, 10), Q_ARG(int, 10), Q_ARG(TZVector3, P)));
    QKeyEvent repeat(QEvent::KeyPress, Qt::Key_Z, Qt::NoModifier, QStringLiteral("z"), true);
    QApplication::sendEvent(view, &repeat);
    QTest::sendKeyEvent(QTest::Release, view, Qt::Key_Z, 'z', Qt::NoModifier);
    QVERIFY(!viewer.state("zPressed").toBool());
    QVERIFY(viewer.button("pointPropertiesButton")->isChecked());
}

void TestLumivert::eachKeyPressIsSeenOnce()
{
    // The filter watches the view and the main window: a key pressed in the view must not
    // reach it a second time on its way up.
    Viewer viewer;
    viewer.start();
    tzGLWindow *view = viewer.window.activeView();
    DebugCounter zPresses(" Z press ");
    QTest::keyClick(view, Qt::Key_Z);
    QCOMPARE(zPresses.count(), 1);
    DebugCounter otherPresses(" other press ");
    QTest::keyClick(view, Qt::Key_A);
    QCOMPARE(otherPresses.count(), 1);
}

void TestLumivert::ctrlChecksTheIndicatorOnlyAloneWhileListening()
{
    Viewer viewer;
    viewer.start();
    tzGLWindow *view = viewer.window.activeView();
    auto *indicator = viewer.button<QRadioButton>("SimpleAjoutZButton");
    // One press each, as the view receives it (QTest would press the modifiers first).
    const auto press = [view](int key, Qt::KeyboardModifiers modifiers) {
        QKeyEvent event(QEvent::KeyPress, key, modifiers);
        QApplication::sendEvent(view, &event);
    };
    press(Qt::Key_Control, Qt::ControlModifier); // not listening yet
    QVERIFY(!indicator->isChecked());
    viewer.click("pointPropertiesButton");
    press(Qt::Key_A, Qt::ControlModifier | Qt::ShiftModifier);
    QVERIFY(!indicator->isChecked()); // not Ctrl alone
    press(Qt::Key_Z, Qt::ControlModifier); // the Ctrl row, not the Z row
    QVERIFY(indicator->isChecked());
    QVERIFY(!viewer.state("zPressed").toBool());
    QVERIFY(viewer.button("pointPropertiesButton")->isChecked());
}

void TestLumivert::ctrlOfAViewerCommandLeavesTheIndicator()
{
    Viewer viewer;
    viewer.start();
    viewer.click("pointPropertiesButton");
    viewer.window.activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(&viewer.window));
    tzGLWindow *view = viewer.window.activeView();
    auto *indicator = viewer.button<QRadioButton>("SimpleAjoutZButton");
    // Ctrl+S saves the scene (its dialog cancelled here): the next click must not change the
    // last sight's height.
    QTimer closer;
    QObject::connect(&closer, &QTimer::timeout, [] {
        if (QWidget *modal = QApplication::activeModalWidget())
            QMetaObject::invokeMethod(modal, "reject");
    });
    closer.start(50);
    QTest::keyPress(view, Qt::Key_Control, Qt::ControlModifier);
    QVERIFY(indicator->isChecked());
    QTest::keyClick(view, Qt::Key_S, Qt::ControlModifier);
    QTest::keyRelease(view, Qt::Key_Control);
    QVERIFY(!indicator->isChecked());
    // Ctrl alone still checks it, and a command after it, Ctrl held again, leaves it checked.
    QTest::keyClick(view, Qt::Key_Control, Qt::ControlModifier);
    QVERIFY(indicator->isChecked());
    QTest::keyPress(view, Qt::Key_Control, Qt::ControlModifier);
    QTest::keyClick(view, Qt::Key_S, Qt::ControlModifier);
    QTest::keyRelease(view, Qt::Key_Control);
    QVERIFY(indicator->isChecked());
}

void TestLumivert::heldKeysAreForgottenWhenTheKeyboardGoesElsewhere()
{
    // A release that happens while the viewer does not have the keyboard never comes: the
    // key must not stay held for good (every later pick would read Z as held).
    Viewer viewer;
    viewer.start();
    tzGLWindow *view = viewer.window.activeView();
    QTest::keyPress(view, Qt::Key_Z);
    QVERIFY(keyHeld(viewer.plugin, Qt::Key_Z));
    QTest::keyRelease(view, Qt::Key_Z);
    QVERIFY(!keyHeld(viewer.plugin, Qt::Key_Z));

    QTest::keyPress(view, Qt::Key_Z);
    QFocusEvent focusOut(QEvent::FocusOut, Qt::ActiveWindowFocusReason);
    QApplication::sendEvent(view, &focusOut);
    QVERIFY(!keyHeld(viewer.plugin, Qt::Key_Z));

    QTest::keyPress(view, Qt::Key_Z);
    QEvent deactivated(QEvent::WindowDeactivate);
    QApplication::sendEvent(&viewer.window, &deactivated);
    QVERIFY(!keyHeld(viewer.plugin, Qt::Key_Z));

    QTest::keyPress(view, Qt::Key_Z);
    viewer.click("closeButton"); // the run stops
    QVERIFY(!keyHeld(viewer.plugin, Qt::Key_Z));
}

void TestLumivert::picksGoToTheMesuresGroup()
{
    Viewer viewer;
    viewer.start();
    viewer.click("pointPropertiesButton");
    tzHObject *root = viewer.window.databaseRoot();
    QCOMPARE(root->getChildrenNumber(), 1u);
    // A real click on the cloud, through the view and the hub.
    tzGLWindow *view = viewer.window.activeView();
    view->setTopView();
    double x, y, depth;
    QVERIFY(view->camera().project({0, 0, 0}, x, y, depth));
    QTest::mouseClick(view, Qt::LeftButton, Qt::NoModifier, QPoint(int(x), int(y)));
    QCOMPARE(root->getChildrenNumber(), 2u);
    tzHObject *group = root->getChild(1);
    QCOMPARE(group->getName(), QStringLiteral("mesures"));
    QVERIFY(group->isVisible());
    // A second pick finds the same group; so does a group one level down.
    QTest::mouseClick(view, Qt::LeftButton, Qt::NoModifier, QPoint(int(x), int(y)));
    QCOMPARE(root->getChildrenNumber(), 2u);
}

void TestLumivert::mesuresGroupIsLookedForTwoLevelsDeep()
{
    Viewer viewer;
    viewer.start();
    viewer.click("pointPointDistanceButton"); // the plug-in's own lookup, not the sight tool's
    tzHObject *root = viewer.window.databaseRoot();
    auto *folder = new tzHObject(QStringLiteral("survey"));
    auto *deeper = new tzHObject(QStringLiteral("mesures")); // three levels down: not seen
    auto *inner = new tzHObject(QStringLiteral("inner"));
    inner->addChild(deeper);
    folder->addChild(inner);
    viewer.window.addToDatabase(folder);
    const auto pick = [&] {
        QVERIFY(QMetaObject::invokeMethod(
            viewer.plugin, "pointPicked", Q_ARG(tzHObject *, viewer.cloud), Q_ARG(unsigned, 0u),
            Q_ARG(int, 1), Q_ARG(int, 1), Q_ARG(TZVector3, viewer.cloud->point(0))));
    };
    deeper->setVisible(false);
    pick();
    QCOMPARE(root->getChildrenNumber(), 3u); // cloud, survey, and a new "mesures"
    QCOMPARE(root->getChild(2)->getName(), QStringLiteral("mesures"));
    QVERIFY(!deeper->isVisible());
    viewer.window.removeFromDatabase(root->getChild(2));

    // Two levels down: found, switched on, nothing new made.
    auto *second = new tzHObject(QStringLiteral("mesures"));
    second->setVisible(false);
    folder->addChild(second);
    pick();
    QCOMPARE(root->getChildrenNumber(), 2u);
    QVERIFY(second->isVisible());
}

void TestLumivert::hideAllPointCloudsStopsAtVisibleClouds()
{
    Viewer viewer;
    tzHObject *root = viewer.window.databaseRoot();
    // A visible cloud is hidden and its children are not visited; a hidden cloud, like any
    // other object, is walked through.
    auto *group = new tzHObject(QStringLiteral("group"));
    tzPointCloud *shown = cloudNamed("shown", true);
    tzPointCloud *underShown = cloudNamed("underShown", true);
    tzPointCloud *hidden = cloudNamed("hidden", false);
    tzPointCloud *underHidden = cloudNamed("underHidden", true);
    shown->addChild(underShown);
    hidden->addChild(underHidden);
    group->addChild(shown);
    group->addChild(hidden);
    viewer.window.addToDatabase(group);
    QVERIFY(
        QMetaObject::invokeMethod(viewer.plugin, "hideAllPointClouds", Q_ARG(tzHObject *, root)));
    QVERIFY(!viewer.cloud->isVisible());
    QVERIFY(!shown->isVisible());
    QVERIFY(underShown->isVisible());
    QVERIFY(!hidden->isVisible());
    QVERIFY(!underHidden->isVisible());
    QVERIFY(group->isVisible());
}

void TestLumivert::toggleLabelsReachesTaggedObjectsAtAnyDepth()
{
    Viewer viewer;
    const auto tagged = [](const char *type) {
        auto *object = new tzHObject(QLatin1String(type));
        object->setMetaData(QStringLiteral("tzLumivertType"), QLatin1String(type));
        return object;
    };
    tzHObject *pair = tagged("PointPair");
    tzHObject *lineation = tagged("Lineation");
    tzHObject *other = tagged("imageFrustum");
    auto *plain = new tzHObject(QStringLiteral("plain"));
    // A tagged object below an untagged one, and one below a tagged one.
    plain->addChild(pair);
    pair->addChild(lineation);
    plain->addChild(other);
    viewer.window.addToDatabase(plain);
    QVERIFY(QMetaObject::invokeMethod(viewer.plugin, "toggleLabels", Q_ARG(bool, true)));
    QVERIFY(pair->nameShownIn3D());
    QVERIFY(lineation->nameShownIn3D());
    QVERIFY(!other->nameShownIn3D());
    QVERIFY(!plain->nameShownIn3D());
    QVERIFY(QMetaObject::invokeMethod(viewer.plugin, "recurseLabels", Q_ARG(tzHObject *, plain),
                                      Q_ARG(bool, false)));
    QVERIFY(!pair->nameShownIn3D());
    QVERIFY(!lineation->nameShownIn3D());
}

void TestLumivert::settingsFirstRun()
{
    Viewer viewer;
    viewer.start();
    auto s = store();
    QCOMPARE(s->value(QStringLiteral("accuaryLowestPoint")).toDouble(), 0.1);
    QCOMPARE(s->value(QStringLiteral("accuaryMovePoint")).toDouble(), 0.1);
    QCOMPARE(s->value(QStringLiteral("sizeSpheres")).toFloat(), 0.8f);
    QCOMPARE(s->value(QStringLiteral("displayIn2D")).toBool(), false);
    QVERIFY(s->contains(QStringLiteral("displayIn2D")));
    QVERIFY(!s->contains(QStringLiteral("pointSizeCloud")));
    QVERIFY(!s->contains(QStringLiteral("accuaryZLabel")));
    QCOMPARE(viewer.state("pointSizeCloud").toUInt(), 0u);
    QCOMPARE(viewer.state("accuaryZLabel").toInt(), 0);
    QCOMPARE(viewer.window.activeView()->getPointSize(), 0.f); // a missing size gives 0
}

void TestLumivert::settingsStoredValues()
{
    {
        auto s = store();
        s->setValue(QStringLiteral("pointSizeCloud"), 1u);
        s->setValue(QStringLiteral("accuaryZLabel"), 2);
        s->setValue(QStringLiteral("sizeSpheres"), 1.5f);
        s->setValue(QStringLiteral("accuaryLowestPoint"), 0.123456789);
        s->setValue(QStringLiteral("displayIn2D"), true);
    }
    Viewer viewer;
    viewer.start();
    auto s = store();
    QCOMPARE(s->value(QStringLiteral("pointSizeCloud")).toUInt(),
             1u); // the member's 1, written back
    QCOMPARE(viewer.state("pointSizeCloud").toUInt(), 1u);
    QCOMPARE(s->value(QStringLiteral("accuaryZLabel")).toInt(), 2);
    QCOMPARE(viewer.state("accuaryZLabel").toInt(), 2);
    QCOMPARE(s->value(QStringLiteral("sizeSpheres")).toFloat(), 1.5f); // left alone...
    QCOMPARE(viewer.state("sizeSpheres").toFloat(), 0.8f); // ...and not taken
    QCOMPARE(viewer.state("accuaryLowestPoint").toDouble(), double(0.123456789f)); // read as float
    QVERIFY(viewer.state("displayIn2D").toBool());

    // Other stored values replace the members, 0 included.
    viewer.click("closeButton");
    s->setValue(QStringLiteral("pointSizeCloud"), 5u);
    s->setValue(QStringLiteral("accuaryZLabel"), 0);
    viewer.start();
    QCOMPARE(viewer.state("pointSizeCloud").toUInt(), 5u);
    QCOMPARE(viewer.window.activeView()->getPointSize(), 5.f);
    QCOMPARE(viewer.state("accuaryZLabel").toInt(), 0);
}

void TestLumivert::settingsMarkersKeepTheMembers()
{
    // A stored 1 (point size) or 2 (decimals) reads as "unset": the members keep their values and
    // are written back, even when they differ from the marker.
    Viewer viewer;
    viewer.start();
    viewer.click("aboutLabelButton");
    viewer.window.findChild<QSpinBox *>(QStringLiteral("ValuePointSizeCloud"))->setValue(4);
    viewer.window.findChild<QSpinBox *>(QStringLiteral("ValueAccuaryZLabel"))->setValue(3);
    QTest::mouseClick(viewer.window.findChild<QPushButton *>(QStringLiteral("setInteriorButton")),
                      Qt::LeftButton);
    viewer.click("closeButton");
    store()->setValue(QStringLiteral("pointSizeCloud"), 1u);
    store()->setValue(QStringLiteral("accuaryZLabel"), 2);
    viewer.start();
    QCOMPARE(viewer.state("pointSizeCloud").toUInt(), 4u);
    QCOMPARE(viewer.state("accuaryZLabel").toInt(), 3);
    QCOMPARE(store()->value(QStringLiteral("pointSizeCloud")).toUInt(), 4u);
    QCOMPARE(store()->value(QStringLiteral("accuaryZLabel")).toInt(), 3);
    QCOMPARE(viewer.window.activeView()->getPointSize(), 4.f);
}

void TestLumivert::optionsFormRoundTrip()
{
    Viewer viewer; // first run: point size and decimals come back 0
    viewer.start();
    viewer.click("aboutLabelButton");
    tzOverlayDialog *form = viewer.optionsForm();
    QVERIFY(form);
    QVERIFY(form->isVisible());
    QCOMPARE(viewer.window.findChild<QLabel *>(QStringLiteral("VERSION"))->text(),
             QStringLiteral("1.2.0"));
    QCOMPARE(viewer.window.findChild<QLabel *>(QStringLiteral("COMPANY"))->text(),
             QStringLiteral("Lumivert"));
    auto *pointSize = viewer.window.findChild<QSpinBox *>(QStringLiteral("ValuePointSizeCloud"));
    auto *decimals = viewer.window.findChild<QSpinBox *>(QStringLiteral("ValueAccuaryZLabel"));
    auto *spheres
        = viewer.window.findChild<QDoubleSpinBox *>(QStringLiteral("ValueSizeBoulePhoto"));
    auto *lowest
        = viewer.window.findChild<QDoubleSpinBox *>(QStringLiteral("ValueAccuaryLowestPoint"));
    QCOMPARE(pointSize->value(), 1); // 0 shown as the minimum
    QCOMPARE(decimals->value(), 1);
    QCOMPARE(spheres->text(), QLocale().toString(0.8, 'f', 2));
    QCOMPARE(lowest->text(), QLocale().toString(0.1, 'f', 2));
    auto *move = viewer.window.findChild<QDoubleSpinBox *>(QStringLiteral("ValueAccuaryMovePoint"));
    auto *in2D = viewer.window.findChild<QCheckBox *>(QStringLiteral("ValueDisplayIn2D"));
    lowest->setValue(0.256); // two decimals: kept as 0.26
    spheres->setValue(1.25);
    pointSize->setValue(4);
    move->setValue(0.35);
    in2D->setChecked(true);
    // The options button opens the form and does not stay pressed.
    QVERIFY(!viewer.button("aboutLabelButton")->isCheckable());
    QTest::mouseClick(viewer.window.findChild<QPushButton *>(QStringLiteral("setInteriorButton")),
                      Qt::LeftButton);
    QVERIFY(!form->isVisible());
    QVERIFY(!viewer.button("aboutLabelButton")->isDown());
    QVERIFY(!viewer.button("aboutLabelButton")->isChecked());
    auto s = store();
    QCOMPARE(s->value(QStringLiteral("accuaryMovePoint")).toDouble(), 0.35);
    QCOMPARE(s->value(QStringLiteral("displayIn2D")).toBool(), true);
    QCOMPARE(viewer.state("accuaryMovePoint").toDouble(), 0.35);
    QVERIFY(viewer.state("displayIn2D").toBool());
    // The stored types show in the file's text: the sphere size as a float (a typed variant of
    // type 135), the rest as plain numbers and a boolean.
    s->sync();
    QFile file(s->fileName());
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QByteArray text = file.readAll();
    for (const char *line :
         {"sizeSpheres=@Variant(\\0\\0\\0\\x87", "displayIn2D=true\n", "pointSizeCloud=4\n",
          "accuaryZLabel=1\n", "accuaryMovePoint=0.35\n", "accuaryLowestPoint=0.26\n"})
        QVERIFY2(text.contains(line), text.constData());
    QCOMPARE(s->value(QStringLiteral("pointSizeCloud")).toUInt(), 4u);
    QCOMPARE(s->value(QStringLiteral("accuaryZLabel")).toInt(), 1);
    QCOMPARE(s->value(QStringLiteral("accuaryLowestPoint")).toDouble(), 0.26);
    QCOMPARE(s->value(QStringLiteral("sizeSpheres")).toFloat(), 1.25f);
    QCOMPARE(viewer.state("sizeSpheres").toFloat(), 1.25f); // only the form changes it
    QCOMPARE(viewer.window.activeView()->getPointSize(), 4.f);
}

void TestLumivert::helpWindowShowsThePage()
{
    Viewer viewer;
    QString text;
    QSize size;
    QTimer::singleShot(0, [&] {
        QWidget *help = QApplication::activeModalWidget();
        QVERIFY(help);
        size = help->size();
        text = help->findChild<QTextEdit *>()->toPlainText();
        QTest::mouseClick(help->findChild<QPushButton *>(), Qt::LeftButton);
    });
    QVERIFY(QMetaObject::invokeMethod(viewer.plugin, "showHelp"));
    QCOMPARE(size, QSize(800, 600));
    QVERIFY(text.contains(QStringLiteral("Mensurix")));
    QVERIFY(text.contains(QStringLiteral("images.json")));
}

namespace {

// Closes the modal window opened next and tells what it showed, from a timer.
struct ModalWatch
{
    QString text;
    QTimer timer;
    ModalWatch()
    {
        QObject::connect(&timer, &QTimer::timeout, [this] {
            if (QWidget *modal = QApplication::activeModalWidget()) {
                if (auto *page = modal->findChild<QTextEdit *>())
                    text = page->toPlainText();
                QTest::mouseClick(modal->findChild<QPushButton *>(), Qt::LeftButton);
            }
        });
        timer.start(50);
    }
};

} // namespace

void TestLumivert::helpFromThePluginsMenuAndF1DuringARun()
{
    Viewer viewer;
    viewer.window.activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(&viewer.window));
    // Plugins > Lumivert > Help, the run's action beside it (and listed once).
    QMenu *lumivert = nullptr;
    for (QAction *item : viewer.window.pluginMenu()->actions()) {
        if (item->menu() && item->text() == QLatin1String("Lumivert"))
            lumivert = item->menu();
    }
    QVERIFY(lumivert);
    QCOMPARE(lumivert->actions().size(), 2);
    QCOMPARE(lumivert->actions().at(0), viewer.action());
    QAction *help = lumivert->actions().at(1);
    QCOMPARE(help->text().remove(QLatin1Char('&')), QStringLiteral("Help"));
    QVERIFY(!viewer.window.pluginMenu()->actions().contains(viewer.action()));
    {
        ModalWatch watch;
        help->trigger();
        QVERIFY(watch.text.contains(QStringLiteral("Mensurix")));
    }
    // F1 is the run's: nothing before it, the page during it, nothing after it.
    {
        ModalWatch watch;
        QTest::keyClick(viewer.window.activeView(), Qt::Key_F1);
        QCoreApplication::processEvents(); // a page would open from the key's own handling
        QVERIFY(watch.text.isEmpty());
    }
    viewer.start();
    {
        ModalWatch watch;
        QTest::keyClick(viewer.window.activeView(), Qt::Key_F1);
        QTRY_VERIFY(watch.text.contains(QStringLiteral("images.json")));
    }
    viewer.click("closeButton");
    {
        ModalWatch watch;
        QTest::keyClick(viewer.window.activeView(), Qt::Key_F1);
        QCoreApplication::processEvents(); // a page would open from the key's own handling
        QVERIFY(watch.text.isEmpty());
    }
}

void TestLumivert::escapeKeepsTheToolBarAndDropsWhatIsPending()
{
    Viewer viewer;
    viewer.start();
    tzGLWindow *view = viewer.window.activeView();
    view->setTopView();
    // A distance begun: one point picked with a real click.
    viewer.click("pointPointDistanceButton");
    double x, y, depth;
    QVERIFY(view->camera().project({0, 0, 0}, x, y, depth));
    QTest::mouseClick(view, Qt::LeftButton, Qt::NoModifier, QPoint(int(x), int(y)));
    tzHObject *root = viewer.window.databaseRoot();
    QCOMPARE(root->getChildrenNumber(), 2u);
    tzHObject *mesures = root->getChild(1);
    QCOMPARE(mesures->getChildrenNumber(), 1u);
    // Escape on the tool bar (it has the keyboard after a click on it): the begun distance goes,
    // the tool bar and the tool stay.
    tzOverlayDialog *bar = viewer.toolBar();
    QTest::keyClick(bar, Qt::Key_Escape);
    QVERIFY(bar->isVisible());
    QCOMPARE(viewer.state("activeTool").toString(), QStringLiteral("lineation"));
    QCOMPARE(mesures->getChildrenNumber(), 0u);
    QVERIFY(viewer.button("pointPointDistanceButton")->isChecked());
    // The next two picks make a whole distance; Escape in the view then keeps it.
    QTest::mouseClick(view, Qt::LeftButton, Qt::NoModifier, QPoint(int(x), int(y)));
    QVERIFY(view->camera().project({0.5, 0.5, 0}, x, y, depth));
    QTest::mouseClick(view, Qt::LeftButton, Qt::NoModifier, QPoint(int(x), int(y)));
    QCOMPARE(mesures->getChildrenNumber(), 1u);
    QTest::keyClick(view, Qt::Key_Escape);
    QCOMPARE(mesures->getChildrenNumber(), 1u);
    QVERIFY(bar->isVisible());
    // The options form stays open on Escape too.
    viewer.click("aboutLabelButton");
    tzOverlayDialog *form = viewer.optionsForm();
    QVERIFY(form->isVisible());
    QTest::keyClick(form, Qt::Key_Escape);
    QVERIFY(form->isVisible());
    QVERIFY(bar->isVisible());
}

void TestLumivert::photoListsAreFoundBesideEachCloud()
{
    // Two surveys from two folders, each with its photo list, and a third whose list is broken.
    QTemporaryDir dir;
    const auto survey = [&dir](const QString &folder, const QString &name, const QByteArray &list) {
        QDir(dir.path()).mkpath(folder + QLatin1Char('/') + name + QStringLiteral(".img"));
        const QString path
            = dir.filePath(folder + QLatin1Char('/') + name + QStringLiteral(".xyz"));
        QFile cloud(path);
        cloud.open(QIODevice::WriteOnly);
        cloud.write("0 0 0\n1 0 0\n0 1 0\n");
        QFile photos(
            dir.filePath(folder + QLatin1Char('/') + name + QStringLiteral(".img/images.json")));
        photos.open(QIODevice::WriteOnly);
        photos.write(list);
        return path;
    };
    const QString north
        = survey(QStringLiteral("north"), QStringLiteral("site"),
                 R"({"images": [{"camname": "N1", "camZ": 2, "Vz": -1, "f": 100}]})");
    const QString south = survey(QStringLiteral("south"), QStringLiteral("road"),
                                 R"({"images": [{"camname": "S1", "camZ": 2, "Vz": -1, "f": 100},
                                                {"camname": "S2", "camZ": 3, "Vz": -1, "f": 100}]})");
    const QString broken = survey(QStringLiteral("west"), QStringLiteral("yard"), "{\"images\": [");
    Viewer viewer;
    QSignalSpy opened(&viewer.window, &tzMainWindow::fileOpened);
    viewer.window.openFiles({north, broken, south});
    QTRY_COMPARE_WITH_TIMEOUT(opened.size(), 3, 10000);
    viewer.start();
    const auto photosOf = [&viewer](const QString &cloudName) {
        tzHObject *root = viewer.window.databaseRoot();
        for (unsigned i = 0; i < root->getChildrenNumber(); ++i) {
            tzHObject *cloud = root->getChild(i);
            if (cloud->getName() != cloudName)
                continue;
            QStringList names;
            for (unsigned j = 0; j < cloud->getChildrenNumber(); ++j)
                names << cloud->getChild(j)->getMetaData(QStringLiteral("camera")).toString();
            return names;
        }
        return QStringList {QStringLiteral("no cloud")};
    };
    QCOMPARE(photosOf(QStringLiteral("site")), QStringList {"N1"});
    QCOMPARE(photosOf(QStringLiteral("road")), (QStringList {"S1", "S2"}));
    QCOMPARE(photosOf(QStringLiteral("yard")), QStringList());
    const auto said = [&viewer] {
        return viewer.window.console()
            ->lines()
            .filter(QStringLiteral("The photo list of cloud 'yard' cannot be read"))
            .size();
    };
    QCOMPARE(said(), 1);
    QVERIFY(viewer.consoleHas(
        QDir::toNativeSeparators(dir.filePath(QStringLiteral("west/yard.img/images.json")))));
    // A second run reads the lists again: the stations are not doubled, the problem not repeated.
    viewer.click("closeButton");
    viewer.start();
    QCOMPARE(photosOf(QStringLiteral("road")), (QStringList {"S1", "S2"}));
    QCOMPARE(said(), 1);
}

void TestLumivert::quittingDuringARunIsClean()
{
    auto viewer = std::make_unique<Viewer>();
    viewer->start();
    viewer->click("pointPropertiesButton");
    viewer->click("aboutLabelButton");
    viewer.reset(); // the viewer stops and unloads the plug-in, then goes: no crash, no leak
}

void TestLumivert::toolBarOutlivesThePluginObject()
{
    // The tool bar is the plug-in's class, handed to the main window at stop: the library
    // must stay while it exists.
    Viewer viewer;
    viewer.start();
    QPointer<tzOverlayDialog> bar = viewer.toolBar();
    viewer.window.pluginManager()->unloadAll();
    QVERIFY(bar);
    QCOMPARE(bar->metaObject()->className(), "qLumivertDlg");
    bar->show();
    bar->hide();
    delete bar.data();
}

void TestLumivert::destroyedPluginLeavesTheHubAndANewOneIsMade()
{
    tzMainWindow window(Viewer::options());
    window.show();
    window.addToDatabase(cloudNamed("c", true));
    QPluginLoader loader(QStringLiteral(LUMIVERT_PLUGIN));
    QPointer<QObject> first = loader.instance();
    QVERIFY(first);
    auto *plugin = qobject_cast<tzStdPluginInterface *>(first);
    plugin->setAppInterface(&window);
    QVERIFY(QMetaObject::invokeMethod(first, "doAction"));
    QTest::mouseClick(window.findChild<QToolButton *>(QStringLiteral("pointPropertiesButton")),
                      Qt::LeftButton);
    QCOMPARE(window.pickingHub()->listenerCount(), std::size_t(1));
    delete first.data(); // without stop: the object itself must leave the hub
    QCOMPARE(window.pickingHub()->listenerCount(), std::size_t(0));
    QObject *second = loader.instance();
    QVERIFY(second);
    QVERIFY(second->inherits("tzLumivert"));
    QCOMPARE(second->property("listening").toBool(), false);
    delete second;
}

QTEST_MAIN(TestLumivert)
#include "tst_lumivert.moc"
