// The viewer application: plug-ins, selection, overlay dialogs, opening files, quitting.

#include "ViewHelpers.h"
#include "tzCloudFile.h"
#include "tzConsole.h"
#include "tzCopc.h"
#include "tzDBTree.h"
#include "tzGLWindow.h"
#include "tzLoadPipeline.h"
#include "tzMainWindow.h"
#include "tzOverlayDialog.h"
#include "tzPluginManager.h"
#include "tzPointCloud.h"
#include "tzProgressDialog.h"
#include "tzStreamedCloud.h"

#include <QAction>
#include <QDialog>
#include <QDoubleSpinBox>
#include <QFileDialog>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>
#include <QScrollBar>
#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTextBlock>
#include <QToolBar>
#include <QtTest>

#include <thread>

namespace {

tzMainWindow::Options headless()
{
    tzMainWindow::Options options;
    options.autoShift = true;
    options.loadPlugins = false; // each test chooses its plug-in folders
    return options;
}

bool consoleHas(const tzMainWindow &window, const QString &part)
{
    for (const QString &line : window.console()->lines()) {
        if (line.contains(part))
            return true;
    }
    return false;
}

QString writeFile(const QTemporaryDir &dir, const QString &name, const QByteArray &bytes)
{
    const QString path = dir.filePath(name);
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
        return QString();
    return path;
}

QByteArray asciiPly(int points, double offset)
{
    QByteArray text = "ply\nformat ascii 1.0\nelement vertex " + QByteArray::number(points)
        + "\nproperty double x\nproperty double y\nproperty double z\nend_header\n";
    for (int i = 0; i < points; ++i)
        text += QByteArray::number(offset + i * 0.5, 'f', 3) + " "
            + QByteArray::number(offset + i % 3, 'f', 3) + " 12.5\n";
    return text;
}

tzPointCloud *openAndWait(tzMainWindow &window, const QString &path)
{
    QSignalSpy opened(&window, &tzMainWindow::fileOpened);
    window.openFiles({path});
    if (!opened.wait(10000) || !opened.at(0).at(1).toBool())
        return nullptr;
    tzHObject *root = window.databaseRoot();
    return dynamic_cast<tzPointCloud *>(root->getChild(root->getChildrenNumber() - 1));
}

} // namespace

class TestTessaro : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void firstPictureWhileTheFileIsRead_data();
    void firstPictureWhileTheFileIsRead();
    void pluginActionFollowsTheSelection();
    void overlayDialogStaysInItsCorner();
    void brokenPluginIsReportedWithItsPath();
    void openingAFileAddsItAndRemembersTheFolder();
    void badFileIsReportedAndAddsNothing();
    void cancelledOpeningLeavesNothing();
    void cancelAfterTheLastStepStillAddsNothing();
    void cancelWhileUploadingAddsNothing();
    void openedCloudIsSelected();
    void statusBarShowsThePointUnderTheCursor();
    void indexedSurveyOpensStreamed();
    void surveyOverTheBudgetIsIndexedOnce();
    void tilesOpenAsOneSurvey();
    void ctrlSSavesBesideTheFirstCloud();
    void closingWithUnsavedWorkAsks();
    void selectedCloudSavedAs();
    void progressShownDuringTheLoadEndsCleanly();
    void quittingDuringALoadIsClean();
    void clickOnACloudSelectsIt();
    void sceneSavedAndLoadedBack();
    void shiftIsAskedAndMayBeChangedOrRefused();
    void closingWhileTheShiftIsAskedDoesNotHang();
    void tilesOfOneSiteShareTheSceneShift_data();
    void tilesOfOneSiteShareTheSceneShift();
    void objectDeletedBehindTheTreeIsForgotten();
    void streamOfAdditionsJoinsTheTreeInOrder();
    void displayOptionsAndTheDisplayMenu();
    void consoleKeepsItsLinesInOrderAndDropsTheOldest();

private:
    QTemporaryDir m_settings;
};

void TestTessaro::initTestCase()
{
    // Nothing reads or writes the user's real settings.
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, m_settings.path());
    QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, m_settings.path());
    QCoreApplication::setOrganizationName(QStringLiteral("Tessaro"));
    QCoreApplication::setApplicationName(QStringLiteral("Tessaro"));
}

void TestTessaro::pluginActionFollowsTheSelection()
{
    tzMainWindow window(headless());
    window.show();
    window.loadPlugins({QStringLiteral(TEST_PLUGIN_DIR)});
    QCOMPARE(window.pluginManager()->plugins().size(), 1);
    const QList<QAction *> actions = window.pluginToolBar()->actions();
    QCOMPARE(actions.size(), 1);
    QAction *action = actions.first();
    QCOMPARE(action->text(), QStringLiteral("Test action"));
    QVERIFY(window.pluginMenu()->actions().contains(action));
    QVERIFY(!action->isEnabled()); // nothing selected yet

    auto *cloud = new tzPointCloud(QStringLiteral("cloud"));
    cloud->addPoint({0, 0, 0});
    window.addToDatabase(cloud);
    window.dbTree()->selectObject(cloud);
    QVERIFY(cloud->isSelected());
    QCOMPARE(window.selectedObjects(), tzHObject::Container {cloud});
    QVERIFY(action->isEnabled());
    QVERIFY(consoleHas(window, QStringLiteral("[TestPlugin] selection: 1")));

    // Removing the object takes it out of the selection, and the plug-in is told.
    window.removeFromDatabase(cloud);
    QTRY_VERIFY(window.selectedObjects().empty());
    QTRY_VERIFY(!action->isEnabled());

    // The plug-in is stopped before it goes.
    window.pluginManager()->unloadAll();
    QVERIFY(consoleHas(window, QStringLiteral("[TestPlugin] stopped")));
    QVERIFY(window.pluginToolBar()->actions().isEmpty());
}

void TestTessaro::overlayDialogStaysInItsCorner()
{
    tzMainWindow window(headless());
    window.resize(900, 700);
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    window.loadPlugins({QStringLiteral(TEST_PLUGIN_DIR)});
    auto *cloud = new tzPointCloud(QStringLiteral("cloud"));
    cloud->addPoint({0, 0, 0});
    window.addToDatabase(cloud);
    window.dbTree()->selectObject(cloud);
    window.pluginToolBar()->actions().first()->trigger();
    auto *dialog = window.findChild<tzOverlayDialog *>(QStringLiteral("testOverlay"));
    QVERIFY(dialog);
    QVERIFY(dialog->isVisible());
    tzGLWindow *view = window.activeView();
    const auto topRightOfView = [view] { return view->mapToGlobal(QPoint(view->width(), 0)); };
    const auto check = [&] {
        const QRect frame = dialog->frameGeometry();
        return std::abs(frame.right() + 1 - topRightOfView().x()) <= 10
            && std::abs(frame.top() - topRightOfView().y()) <= 10;
    };
    QTRY_VERIFY2(check(),
                 qPrintable(QStringLiteral("dialog at %1,%2, view corner at %3,%4")
                                .arg(dialog->frameGeometry().right())
                                .arg(dialog->frameGeometry().top())
                                .arg(topRightOfView().x())
                                .arg(topRightOfView().y())));
    window.resize(1100, 750); // the view grows: the dialog follows its corner
    QTRY_VERIFY(check());
    window.move(window.pos() + QPoint(60, 40)); // the window moves: so does the dialog
    QTRY_VERIFY(check());
    window.pluginManager()->unloadAll();
}

void TestTessaro::brokenPluginIsReportedWithItsPath()
{
    QTemporaryDir dir;
    const QString broken = writeFile(dir, QStringLiteral("libbroken.so"), "not a library at all");
    QVERIFY(!broken.isEmpty());
    tzMainWindow window(headless());
    window.loadPlugins({dir.path(), QStringLiteral(TEST_PLUGIN_DIR)});
    QVERIFY(consoleHas(window,
                       QStringLiteral("[Plugin] Failed to load '%1': ")
                           .arg(QFileInfo(broken).canonicalFilePath())));
    QCOMPARE(window.pluginManager()->plugins().size(), 1); // the good one still loads
}

void TestTessaro::openingAFileAddsItAndRemembersTheFolder()
{
    QTemporaryDir dir;
    // National-grid coordinates: the cloud gets a global shift.
    const QString path = writeFile(dir, QStringLiteral("survey.ply"), asciiPly(50, 650000.0));
    tzMainWindow window(headless());
    window.show();
    tzPointCloud *cloud = openAndWait(window, path);
    QVERIFY(cloud);
    QCOMPARE(cloud->size(), 50u);
    QCOMPARE(cloud->getName(), QStringLiteral("survey"));
    QCOMPARE(window.databaseRoot()->getChildrenNumber(), 1u);
    QVERIFY(cloud->getGlobalShift().x != 0);
    QVERIFY(cloud->getOctree()); // indexed while loading
    QVERIFY(window.dbTree()->itemOf(cloud));
    QSettings settings;
    QCOMPARE(settings.value(QStringLiteral("LoadFile/currentPath")).toString(),
             QFileInfo(path).absolutePath());
}

void TestTessaro::badFileIsReportedAndAddsNothing()
{
    QTemporaryDir dir;
    const QString path = writeFile(dir, QStringLiteral("broken.ply"),
                                   "ply\nformat ascii 1.0\nelement vertex 5\nproperty float x\n");
    tzMainWindow window(headless());
    QVERIFY(!openAndWait(window, path));
    QCOMPARE(window.databaseRoot()->getChildrenNumber(), 0u);
    QVERIFY(consoleHas(window, QStringLiteral("[ERROR] '%1'").arg(path))
            || consoleHas(window, QStringLiteral("[ERROR] 'broken.ply'")));
}

void TestTessaro::firstPictureWhileTheFileIsRead_data()
{
    QTest::addColumn<bool>("cancel");
    QTest::newRow("read to the end") << false;
    QTest::newRow("cancelled at the first picture") << true;
}

void TestTessaro::firstPictureWhileTheFileIsRead()
{
    // A survey stored row after row, large enough for first pictures.
    QFETCH(bool, cancel);
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("rows.laz"));
    {
        std::vector<TZVector3> points;
        for (int i = 0; i < 640000; ++i)
            points.push_back({float(i % 800) * 0.5f, float(i / 800) * 0.5f, float(i % 7)});
        tzPointCloud cloud;
        cloud.setPoints(std::move(points));
        QString error;
        QVERIFY2(tzCloudFile::save(cloud, path, error, 5000), qPrintable(error));
    }
    tzMainWindow::Options options = headless();
    options.progressDelay = 0;
    tzMainWindow window(options);
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    tzGLWindow *view = window.activeView();
    frame(*view);
    auto *loads = window.findChild<tzLoadPipeline *>();
    QVERIFY(loads);
    QSignalSpy opened(&window, &tzMainWindow::fileOpened);
    int pictures = 0;
    bool pickedThePicture = false, blocked = false;
    QObject::connect(loads, &tzLoadPipeline::previewShown, &window, [&](const QString &, unsigned) {
        ++pictures;
        QVERIFY(view->preview() && view->preview()->size() < 640000u);
        // The window is the user's meanwhile; a pick waits for the real points.
        blocked = blocked || QApplication::activeModalWidget() != nullptr;
        tzGenericPointCloud *cloud = nullptr;
        unsigned index = 0;
        TZVector3 P;
        pickedThePicture = pickedThePicture
            || view->pickPoint(view->width() / 2, view->height() / 2, cloud, index, P, 20);
        if (cancel && pictures == 1)
            window.findChild<tzProgressDialog *>(QStringLiteral("loadProgress"))->reject();
    });
    window.openFiles({path});
    QVERIFY(opened.wait(30000));
    QVERIFY(pictures >= 1);
    QVERIFY(!blocked);
    QVERIFY(!pickedThePicture);
    QVERIFY(!view->preview());
    QCOMPARE(opened.at(0).at(1).toBool(), !cancel);
    QCOMPARE(window.databaseRoot()->getChildrenNumber(), cancel ? 0u : 1u);
    if (!cancel) {
        tzGenericPointCloud *cloud = nullptr;
        unsigned index = 0;
        TZVector3 P;
        frame(*view);
        QVERIFY(view->pickPoint(view->width() / 2, view->height() / 2, cloud, index, P, 20));
        QCOMPARE(cloud->size(), 640000u);
    }
}

void TestTessaro::cancelledOpeningLeavesNothing()
{
    QTemporaryDir dir;
    const QString path = writeFile(dir, QStringLiteral("big.ply"), asciiPly(200000, 0.0));
    tzMainWindow window(headless());
    QSignalSpy opened(&window, &tzMainWindow::fileOpened);
    window.openFiles({path});
    auto *progress = window.findChild<tzProgressDialog *>(QStringLiteral("loadProgress"));
    QVERIFY(progress);
    progress->reject(); // what its Cancel button and Escape do
    QVERIFY(opened.wait(10000));
    QCOMPARE(opened.at(0).at(1).toBool(), false);
    QCOMPARE(window.databaseRoot()->getChildrenNumber(), 0u);
    QVERIFY(consoleHas(window, QStringLiteral("opening cancelled")));
    QVERIFY(!window.isLoading());
}

void TestTessaro::cancelAfterTheLastStepStillAddsNothing()
{
    // The load ends (read and indexed) while its result waits for the window's thread; Cancel
    // is clicked meanwhile: the user's word holds.
    QTemporaryDir dir;
    const QString path = writeFile(dir, QStringLiteral("small.ply"), asciiPly(100, 0.0));
    tzMainWindow window(headless());
    QSignalSpy opened(&window, &tzMainWindow::fileOpened);
    window.openFiles({path});
    auto *progress = window.findChild<tzProgressDialog *>(QStringLiteral("loadProgress"));
    QVERIFY(progress);
    QThread::msleep(500); // no event is handled: the result is queued
    progress->reject();
    QVERIFY(opened.wait(10000));
    QCOMPARE(opened.at(0).at(1).toBool(), false);
    QCOMPARE(window.databaseRoot()->getChildrenNumber(), 0u);
    QVERIFY(consoleHas(window, QStringLiteral("opening cancelled")));
}

void TestTessaro::cancelWhileUploadingAddsNothing()
{
    // The points go to the GPU in steps of 1,000: Cancel clicked between two of them.
    QTemporaryDir dir;
    const QString path = writeFile(dir, QStringLiteral("survey.ply"), asciiPly(20000, 0.0));
    tzMainWindow::Options options = headless();
    options.progressDelay = 0;
    options.uploadStepPoints = 1000;
    tzMainWindow window(options);
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    frame(*window.activeView()); // the view's GL is up: the upload is done in steps
    QSignalSpy opened(&window, &tzMainWindow::fileOpened);
    window.openFiles({path});
    auto *progress = window.findChild<tzProgressDialog *>(QStringLiteral("loadProgress"));
    QVERIFY(progress);
    // Looked at between two turns of the event loop, as a user's click would come: the first
    // time the progress says it uploads, Cancel is clicked.
    bool clicked = false;
    QTimer watch;
    QObject::connect(&watch, &QTimer::timeout, [&] {
        if (!clicked && progress->labelText().startsWith(QStringLiteral("Uploading survey.ply"))) {
            clicked = true;
            QVERIFY(progress->isVisible());
            QTest::mouseClick(progress->findChild<QPushButton *>(), Qt::LeftButton);
        }
    });
    watch.start(0);
    QVERIFY(opened.wait(10000));
    watch.stop();
    QVERIFY(clicked);
    QCOMPARE(opened.at(0).at(1).toBool(), false);
    QCOMPARE(window.databaseRoot()->getChildrenNumber(), 0u);
    QVERIFY(consoleHas(window, QStringLiteral("opening cancelled")));
    // Not cancelled, the same file arrives whole, and is drawn.
    tzPointCloud *cloud = openAndWait(window, path);
    QVERIFY(cloud);
    QCOMPARE(cloud->size(), 20000u);
}

void TestTessaro::openedCloudIsSelected()
{
    QTemporaryDir dir;
    const QString first = writeFile(dir, QStringLiteral("a.ply"), asciiPly(10, 0.0));
    const QString second = writeFile(dir, QStringLiteral("b.ply"), asciiPly(10, 5.0));
    tzMainWindow window(headless());
    window.show();
    window.loadPlugins({QStringLiteral(TEST_PLUGIN_DIR)});
    tzPointCloud *a = openAndWait(window, first);
    QVERIFY(a);
    QCOMPARE(window.selectedObjects(), tzHObject::Container {a});
    QVERIFY(consoleHas(window, QStringLiteral("[TestPlugin] selection: 1")));
    tzPointCloud *b = openAndWait(window, second);
    QVERIFY(b);
    QCOMPARE(window.selectedObjects(), tzHObject::Container {b});
    QVERIFY(!a->isSelected());
    QCOMPARE(a->getMetaData(QLatin1String(tzGenericPointCloud::SOURCE_FILE_KEY)).toString(),
             QFileInfo(first).absoluteFilePath());
    window.pluginManager()->unloadAll();
}

void TestTessaro::statusBarShowsThePointUnderTheCursor()
{
    // A survey in a national grid: the status bar gives its own coordinates, not the shifted
    // ones the view draws.
    QTemporaryDir dir;
    const QString path = writeFile(dir, QStringLiteral("grid.ply"),
                                   "ply\nformat ascii 1.0\nelement vertex 1\nproperty double x\n"
                                   "property double y\nproperty double z\nend_header\n"
                                   "651234.5675 6861543.2120 118.25\n");
    tzMainWindow window(headless());
    window.resize(800, 600);
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    tzPointCloud *cloud = openAndWait(window, path);
    QVERIFY(cloud);
    tzGLWindow *view = window.activeView();
    view->zoomGlobal();
    double x = 0, y = 0, depth = 0;
    view->camera().project(
        TZVector3d(cloud->getPoint(0)->x, cloud->getPoint(0)->y, cloud->getPoint(0)->z), x, y,
        depth);
    QTest::mouseMove(view, QPoint(int(std::lround(x)), int(std::lround(y))));
    QTRY_COMPARE(window.cursorStatus(), QStringLiteral("X 651234.568   Y 6861543.212   Z 118.250"));
    QTRY_VERIFY(window.scaleStatus().startsWith(QStringLiteral("Scale: 1 px = ")));
    // Nothing under the cursor: nothing said.
    QTest::mouseMove(view, QPoint(2, 2));
    QTRY_COMPARE(window.cursorStatus(), QString());
}

// Answers the next file dialog with a name of its own (or the one it proposes), or cancels it,
// from a timer.
struct FileDialogAnswer
{
    QString proposed;
    QTimer timer;
    explicit FileDialogAnswer(const QString &answer = QString(), bool accepted = true)
    {
        QObject::connect(&timer, &QTimer::timeout, [this, answer, accepted] {
            for (QWidget *w : QApplication::topLevelWidgets()) {
                auto *dialog = qobject_cast<QFileDialog *>(w);
                if (!dialog || !dialog->isVisible())
                    continue;
                proposed = dialog->selectedFiles().value(0);
                if (!answer.isEmpty()) {
                    // Typed in, as the user would.
                    if (auto *edit = dialog->findChild<QLineEdit *>(QStringLiteral("fileNameEdit")))
                        edit->setText(answer);
                }
                QMetaObject::invokeMethod(dialog, accepted ? "accept" : "reject");
                timer.stop();
            }
        });
        timer.start(50);
    }
};

// Answers the next message box with a button, from a timer.
struct BoxAnswer
{
    bool asked = false;
    QTimer timer;
    explicit BoxAnswer(QMessageBox::StandardButton button)
    {
        QObject::connect(&timer, &QTimer::timeout, [this, button] {
            for (QWidget *w : QApplication::topLevelWidgets()) {
                auto *box = qobject_cast<QMessageBox *>(w);
                if (!box || !box->isVisible())
                    continue;
                asked = true;
                box->button(button)->click();
                timer.stop();
            }
        });
        timer.start(50);
    }
};

// A sight, as far as the viewer knows one: an object that is not a cloud.
tzHObject *addWork(tzMainWindow &window)
{
    auto *group = new tzHObject(QStringLiteral("mesures"));
    group->setMetaData(QStringLiteral("ident"), 1);
    window.addToDatabase(group);
    return group;
}

// Ground of 200 x 200 m every 25 cm in a national grid, green, and a mast: one red point 30 m
// above it (640 001 points), written as ground.las in the folder; its path, or empty.
QString groundWithAMast(const QTemporaryDir &dir, QString &error)
{
    tzPointCloud ground(QStringLiteral("ground"));
    std::vector<TZVector3> points;
    std::vector<tzRgb> colours;
    for (int i = 0; i < 800; ++i) {
        for (int j = 0; j < 800; ++j) {
            points.emplace_back(float(i * 0.25), float(j * 0.25), float(100 + (i + j) % 7 * 0.01));
            colours.push_back({40, 160, 40});
        }
    }
    points.emplace_back(100.125f, 100.125f, 130.f);
    colours.push_back({255, 0, 0});
    ground.setPoints(std::move(points));
    ground.setColors(std::move(colours));
    ground.setGlobalShift({-651000, -6861000, 0});
    const QString las = dir.filePath(QStringLiteral("ground.las"));
    return tzCloudFile::save(ground, las, error) ? las : QString();
}

// An indexed survey opens streamed: a picture from the top of its octree, finer nodes as the
// view comes closer, the point under the cursor the file's own, and Save cloud as writes every
// point.
void TestTessaro::indexedSurveyOpensStreamed()
{
    QTemporaryDir dir;
    QString error;
    const QString las = groundWithAMast(dir, error);
    QVERIFY2(!las.isEmpty(), qPrintable(error));
    const QString copc = dir.filePath(QStringLiteral("ground.copc.laz"));
    QVERIFY2(tzCopc::index({las}, copc, error), qPrintable(error));

    tzMainWindow window(headless());
    window.resize(900, 700);
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    auto *cloud = dynamic_cast<tzStreamedCloud *>(openAndWait(window, copc));
    QVERIFY(cloud);
    QCOMPARE(cloud->size(), 640001u);
    tzGLWindow *view = window.activeView();
    view->setTopView();
    QTRY_VERIFY(window.streamStatus().startsWith(QStringLiteral("Streamed: ")));
    QVERIFY(window.streamStatus().endsWith(QStringLiteral(" of 4.00 GB")));
    const QImage whole = frame(*view);
    QVERIFY(countColour(whole, QColor(40, 160, 40)) > 10000);
    const size_t held = cloud->nodesHeld();

    // Up close on the mast: deeper nodes come, and the point under the cursor is the mast.
    const TZVector3 mast = cloud->toLocal3d({651100.125, 6861100.125, 130});
    lookDown(*view, mast.x, mast.y);
    QTRY_VERIFY(cloud->nodesHeld() > held);
    double x = 0, y = 0, depth = 0;
    view->camera().project(TZVector3d(mast.x, mast.y, mast.z), x, y, depth);
    QTest::mouseMove(view, QPoint(int(std::lround(x)), int(std::lround(y))));
    QTRY_COMPARE(window.cursorStatus(), QStringLiteral("X 651100.125   Y 6861100.125   Z 130.000"));

    QAction *saveCloud = nullptr;
    for (QAction *a : window.findChildren<QAction *>()) {
        if (a->text().remove(QLatin1Char('&')) == QLatin1String("Save cloud as..."))
            saveCloud = a;
    }
    QVERIFY(saveCloud && saveCloud->isEnabled());
    FileDialogAnswer answer(dir.filePath(QStringLiteral("copy.laz")));
    saveCloud->trigger();
    QTRY_VERIFY(consoleHas(window, QStringLiteral("written to")));
    const std::unique_ptr<tzPointCloud> back(
        tzCloudFile::load(dir.filePath(QStringLiteral("copy.laz")), error));
    QVERIFY2(back, qPrintable(error));
    QCOMPARE(back->size(), 640001u);
}

// A survey whose points would not fit in the streaming budget is indexed beside it, with
// progress, and shown streamed; opened again, the index made is used as it is.
void TestTessaro::surveyOverTheBudgetIsIndexedOnce()
{
    QTemporaryDir dir;
    QString error;
    const QString las = groundWithAMast(dir, error);
    QVERIFY2(!las.isEmpty(), qPrintable(error));
    // The budget of the windows made here, then the default again (whatever happens here).
    QSettings().setValue(QStringLiteral("Streaming/memoryBudgetMB"), 16);
    const std::unique_ptr<void, void (*)(void *)> restore(
        this, [](void *) { QSettings().remove(QStringLiteral("Streaming/memoryBudgetMB")); });
    const QString index = las + QStringLiteral(".copc.laz");
    QDateTime made;
    for (int round = 0; round < 2; ++round) {
        tzMainWindow window(headless());
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        auto *cloud = dynamic_cast<tzStreamedCloud *>(openAndWait(window, las));
        QVERIFY2(cloud, qPrintable(window.console()->lines().join(QLatin1Char('\n'))));
        QCOMPARE(cloud->size(), 640001u);
        QCOMPARE(cloud->getName(), QStringLiteral("ground"));
        QCOMPARE(cloud->path(), index);
        QCOMPARE(cloud->memoryBudget(), std::uint64_t(16) << 20); // the one streamed cloud's
        if (round == 0) {
            QVERIFY(consoleHas(window, QStringLiteral("it is indexed into")));
            made = QFileInfo(index).lastModified();
        } else {
            QVERIFY(!consoleHas(window, QStringLiteral("it is indexed into")));
            QCOMPARE(QFileInfo(index).lastModified(), made);
        }
    }
}

// A folder of tiles opens as one streamed survey named after it; a tile too large to be read
// whole is indexed beside itself first, once.
void TestTessaro::tilesOpenAsOneSurvey()
{
    QTemporaryDir dir;
    QString error;
    const QString ground = groundWithAMast(dir, error);
    QVERIFY2(!ground.isEmpty(), qPrintable(error));
    const QString folder = dir.filePath(QStringLiteral("site"));
    QVERIFY(QDir().mkpath(folder));
    QVERIFY(QFile::rename(ground, QDir(folder).filePath(QStringLiteral("a.las"))));
    tzPointCloud small(QStringLiteral("small"));
    for (int i = 0; i < 1000; ++i)
        small.addPoint({float(210 + i % 40 * 0.5), float(i / 40 * 0.5), 101.f});
    small.setGlobalShift({-651000, -6861000, 0});
    QVERIFY2(tzCloudFile::save(small, QDir(folder).filePath(QStringLiteral("b.las")), error),
             qPrintable(error));
    QSettings().setValue(QStringLiteral("Streaming/memoryBudgetMB"), 16);
    const std::unique_ptr<void, void (*)(void *)> restore(
        this, [](void *) { QSettings().remove(QStringLiteral("Streaming/memoryBudgetMB")); });
    for (int round = 0; round < 2; ++round) {
        tzMainWindow window(headless());
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        auto *cloud = dynamic_cast<tzStreamedCloud *>(openAndWait(window, folder));
        QVERIFY2(cloud, qPrintable(window.console()->lines().join(QLatin1Char('\n'))));
        QCOMPARE(window.databaseRoot()->getChildrenNumber(), 1u);
        QCOMPARE(cloud->size(), 641001u);
        QCOMPARE(cloud->getName(), QStringLiteral("site"));
        QCOMPARE(cloud->path(), folder);
        QCOMPARE(consoleHas(window, QStringLiteral("it is indexed into")), round == 0);
        QVERIFY(QFileInfo::exists(QDir(folder).filePath(QStringLiteral("a.las.copc.laz"))));
        // The mast, in the indexed tile, is the point under a pick from above.
        TZLib::Octree::CylindricalNeighbourhood down;
        down.center = TZVector3(100.125f, 100.125f, 150.f);
        down.dir = TZVector3(0, 0, -1);
        down.radius = 0.05f;
        down.maxHalfLength = 100;
        down.onlyPositiveDir = true;
        cloud->computeOctree()->getPointsInCylindricalNeighbourhood(down);
        QVERIFY(!down.neighbours.empty());
        const auto top = std::max_element(
            down.neighbours.begin(), down.neighbours.end(),
            [](const auto &a, const auto &b) { return a.point->z < b.point->z; });
        QCOMPARE(top->point->z, 130.f);
    }
}

void TestTessaro::ctrlSSavesBesideTheFirstCloud()
{
    QTemporaryDir dir;
    const QString path = writeFile(dir, QStringLiteral("site.ply"), asciiPly(10, 0.0));
    tzMainWindow window(headless());
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    QVERIFY(openAndWait(window, path));
    addWork(window);
    QVERIFY(window.hasUnsavedChanges());
    FileDialogAnswer answer;
    // Asked of the window system (no window manager gives the focus on a bare display).
    window.activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(&window));
    QTest::keyClick(&window, Qt::Key_S, Qt::ControlModifier);
    QTRY_VERIFY(!answer.timer.isActive());
    QCOMPARE(answer.proposed, dir.filePath(QStringLiteral("site.tzs")));
    QTRY_VERIFY(QFile::exists(dir.filePath(QStringLiteral("site.tzs"))));
    QVERIFY(!window.hasUnsavedChanges());
}

void TestTessaro::closingWithUnsavedWorkAsks()
{
    QTemporaryDir dir;
    tzMainWindow window(headless());
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    // A cloud opened is no work of the user's: closing does not ask.
    QVERIFY(openAndWait(window, writeFile(dir, QStringLiteral("site.ply"), asciiPly(10, 0.0))));
    QVERIFY(!window.hasUnsavedChanges());
    tzHObject *work = addWork(window);
    {
        BoxAnswer cancel(QMessageBox::Cancel);
        QVERIFY(!window.close());
        QVERIFY(cancel.asked);
        QVERIFY(window.isVisible());
    }
    {
        // Save, then Cancel in the file dialog: still open, still unsaved.
        BoxAnswer save(QMessageBox::Save);
        FileDialogAnswer none(QString(), false);
        QVERIFY(!window.close());
        QVERIFY(save.asked);
        QVERIFY(window.hasUnsavedChanges());
    }
    {
        // Save and name the file: saved, closed.
        BoxAnswer save(QMessageBox::Save);
        FileDialogAnswer named(dir.filePath(QStringLiteral("kept.tzs")));
        QVERIFY(window.close());
        QVERIFY(QFile::exists(dir.filePath(QStringLiteral("kept.tzs"))));
    }
    window.show();
    // A change after the save is work again; Discard closes without saving it.
    work->setName(QStringLiteral("renamed"));
    QVERIFY(window.hasUnsavedChanges());
    BoxAnswer discard(QMessageBox::Discard);
    QVERIFY(window.close());
    QVERIFY(discard.asked);
}

void TestTessaro::selectedCloudSavedAs()
{
    QTemporaryDir dir;
    const QString path = writeFile(dir, QStringLiteral("site.ply"), asciiPly(30, 650000.0));
    tzMainWindow window(headless());
    window.show();
    QAction *saveCloud = nullptr;
    for (QAction *a : window.findChildren<QAction *>()) {
        if (a->text().remove(QLatin1Char('&')) == QLatin1String("Save cloud as..."))
            saveCloud = a;
    }
    QVERIFY(saveCloud);
    QVERIFY(!saveCloud->isEnabled()); // no cloud selected
    tzPointCloud *cloud = openAndWait(window, path);
    QVERIFY(cloud);
    QVERIFY(saveCloud->isEnabled()); // the cloud opened is selected
    FileDialogAnswer answer;
    saveCloud->trigger();
    QCOMPARE(answer.proposed, dir.filePath(QStringLiteral("site.laz")));
    QVERIFY(consoleHas(window, QStringLiteral("Cloud 'site' written to")));
    QString error;
    const std::unique_ptr<tzPointCloud> back(
        tzCloudFile::load(dir.filePath(QStringLiteral("site.laz")), error));
    QVERIFY2(back, qPrintable(error));
    QCOMPARE(back->size(), cloud->size());
    QCOMPARE(back->getGlobalShift(), cloud->getGlobalShift());

    // Again: a name of its own, never the file already there (one Enter would replace it).
    FileDialogAnswer again;
    saveCloud->trigger();
    QCOMPARE(again.proposed, dir.filePath(QStringLiteral("site_2.laz")));
    // A name typed without its suffix that, with it, is a file already there: asked first.
    const QString kept = writeFile(dir, QStringLiteral("kept.laz"), "not to be lost");
    FileDialogAnswer typed(dir.filePath(QStringLiteral("kept")));
    BoxAnswer no(QMessageBox::No);
    saveCloud->trigger();
    QTRY_VERIFY(no.asked);
    QCOMPARE(QFile(kept).size(), qint64(14));
}

void TestTessaro::progressShownDuringTheLoadEndsCleanly()
{
    // The progress is on screen from the start, so every update reaches a shown, modal dialog,
    // and the last update and the result arrive back to back. Updating the dialog must not run
    // an event loop that delivers the result inside the update.
    QTemporaryDir dir;
    const QString big = writeFile(dir, QStringLiteral("big.ply"), asciiPly(150000, 0.0));
    const QString small = writeFile(dir, QStringLiteral("small.ply"), asciiPly(10, 0.0));
    tzMainWindow::Options options = headless();
    options.progressDelay = 0;
    tzMainWindow window(options);
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    QSignalSpy opened(&window, &tzMainWindow::fileOpened);
    window.openFiles({big, small, small});
    QTRY_VERIFY(
        window.findChild<tzProgressDialog *>(QStringLiteral("loadProgress"))
        && window.findChild<tzProgressDialog *>(QStringLiteral("loadProgress"))->isVisible());
    QTRY_COMPARE_WITH_TIMEOUT(opened.count(), 3, 20000);
    for (const auto &signal : opened)
        QVERIFY(signal.at(1).toBool());
    QCOMPARE(window.databaseRoot()->getChildrenNumber(), 3u);
    QVERIFY(!window.isLoading());
    QTRY_VERIFY(window.findChildren<tzProgressDialog *>().isEmpty());
}

void TestTessaro::quittingDuringALoadIsClean()
{
    QTemporaryDir dir;
    const QString path = writeFile(dir, QStringLiteral("big.ply"), asciiPly(200000, 0.0));
    auto *window = new tzMainWindow(headless());
    window->show();
    window->loadPlugins({QStringLiteral(TEST_PLUGIN_DIR)});
    window->openFiles({path});
    QVERIFY(window->isLoading());
    delete window; // cancels and waits for the load, stops the plug-in: no crash, no hang
}

void TestTessaro::clickOnACloudSelectsIt()
{
    tzMainWindow window(headless());
    window.resize(800, 600);
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    auto *cloud = new tzPointCloud(QStringLiteral("patch"));
    for (int i = -20; i <= 20; ++i) {
        for (int j = -20; j <= 20; ++j)
            cloud->addPoint({i * 0.05f, j * 0.05f, 0.f});
    }
    window.addToDatabase(cloud, true);
    tzGLWindow *view = window.activeView();
    QTest::mouseClick(view, Qt::LeftButton, Qt::NoModifier, view->rect().center());
    QTRY_COMPARE(window.selectedObjects(), tzHObject::Container {cloud});
    QVERIFY(cloud->isSelected());
}

void TestTessaro::sceneSavedAndLoadedBack()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("work.tzs"));
    {
        tzMainWindow window(headless());
        auto *cloud = new tzPointCloud(QStringLiteral("kept"));
        cloud->addPoint({1, 2, 3});
        window.addToDatabase(cloud);
        QVERIFY(window.saveScene(path));
        QVERIFY(!window.saveScene(dir.filePath(QStringLiteral("missing/folder/work.tzs"))));
        QVERIFY(consoleHas(window, QStringLiteral("[ERROR]")));
    }
    tzMainWindow window(headless());
    QVERIFY(window.loadScene(path));
    QCOMPARE(window.databaseRoot()->getChildrenNumber(), 1u);
    QCOMPARE(window.databaseRoot()->getChild(0)->getName(), QStringLiteral("kept"));
    QVERIFY(window.dbTree()->itemOf(window.databaseRoot()->getChild(0)));
    QVERIFY(!window.loadScene(dir.filePath(QStringLiteral("nothing.tzs"))));
    QCOMPARE(window.databaseRoot()->getChildrenNumber(), 1u); // a failed load adds nothing

    // Opened like any file: read on the loader's thread, its clouds indexed there.
    tzMainWindow other(headless());
    QSignalSpy opened(&other, &tzMainWindow::fileOpened);
    other.openFiles({path});
    QVERIFY(opened.wait(10000));
    QVERIFY(opened.at(0).at(1).toBool());
    auto *cloud = dynamic_cast<tzPointCloud *>(other.databaseRoot()->getChild(0));
    QVERIFY(cloud);
    QVERIFY(cloud->getOctree());
    // A damaged scene file is reported with its path, and adds nothing.
    QFile damaged(dir.filePath(QStringLiteral("damaged.tzs")));
    QVERIFY(damaged.open(QIODevice::WriteOnly));
    damaged.write("TZSF\x15\x00 and then nothing sensible");
    damaged.close();
    other.openFiles({damaged.fileName()});
    QVERIFY(opened.wait(10000));
    QCOMPARE(opened.at(1).at(1).toBool(), false);
    QCOMPARE(other.databaseRoot()->getChildrenNumber(), 1u);
    QVERIFY(consoleHas(other, QStringLiteral("[ERROR] %1").arg(damaged.fileName())));
}

void TestTessaro::shiftIsAskedAndMayBeChangedOrRefused()
{
    QTemporaryDir dir;
    const QString path = writeFile(dir, QStringLiteral("grid.ply"), asciiPly(20, 650000.0));
    tzMainWindow::Options asking = headless();
    asking.autoShift = false;
    asking.progressDelay = 0; // the progress would be up when the question comes
    tzMainWindow window(asking);
    window.show();
    // Answers the shift dialog when it comes up: X changed, then OK; or Cancel.
    bool refuse = false;
    bool seen = false;
    bool progressInFront = false;
    QTimer answer;
    answer.setInterval(20);
    connect(&answer, &QTimer::timeout, [&] {
        auto *dialog = qobject_cast<QDialog *>(QApplication::activeModalWidget());
        if (!dialog || dialog->windowTitle() != QStringLiteral("Global shift"))
            return;
        seen = true;
        for (const auto *progress : window.findChildren<tzProgressDialog *>())
            progressInFront |= progress->isVisible();
        const auto boxes = dialog->findChildren<QDoubleSpinBox *>();
        QCOMPARE(boxes.size(), 3);
        // The file's own suggestion; the second time, the scene's shift (the first copy's).
        QCOMPARE(boxes[0]->value(), refuse ? -649900.0 : -650000.0);
        boxes[0]->setValue(-649900.0);
        if (refuse)
            dialog->reject();
        else
            dialog->accept();
    });
    answer.start();
    tzPointCloud *cloud = openAndWait(window, path);
    QVERIFY(seen);
    QVERIFY2(!progressInFront, "the progress dialog stood over the shift question");
    QVERIFY(cloud);
    QCOMPARE(cloud->getGlobalShift().x, -649900.0);
    QCOMPARE(double(cloud->point(0).x), 100.0); // 650000 - 649900

    refuse = true;
    seen = false;
    QVERIFY(!openAndWait(window, path));
    QVERIFY(seen);
    QCOMPARE(window.databaseRoot()->getChildrenNumber(), 1u);
    QVERIFY(consoleHas(window, QStringLiteral("opening cancelled")));
}

// A tile of a site in a national grid: a strip from (x0, y0), and one point both tiles have.
QByteArray tile(double x0, double y0, bool shared = true)
{
    QByteArray text = "ply\nformat ascii 1.0\nelement vertex " + QByteArray(shared ? "201" : "200")
        + "\nproperty double x\nproperty double y\nproperty double z\nend_header\n"
        + QByteArray(shared ? "651255.000 6861455.000 113.000\n" : "");
    for (int i = 0; i < 200; ++i)
        text += QByteArray::number(x0 + i * 0.5, 'f', 3) + " "
            + QByteArray::number(y0 + (i % 7) * 0.5, 'f', 3) + " 112.0\n";
    return text;
}

void TestTessaro::tilesOfOneSiteShareTheSceneShift_data()
{
    QTest::addColumn<bool>("eastFirst");
    QTest::addColumn<bool>("asked");
    QTest::newRow("auto-shift, east tile first") << true << false;
    QTest::newRow("auto-shift, west tile first") << false << false;
    QTest::newRow("asked, east tile first") << true << true;
    QTest::newRow("asked, west tile first") << false << true;
}

void TestTessaro::tilesOfOneSiteShareTheSceneShift()
{
    // Two tiles whose own suggestions differ by 100 m on both axes: the second takes the
    // first's shift, so that the point both hold is drawn once, at one pixel, and the status bar
    // says its coordinates there. A file 100 km away keeps a shift of its own.
    QFETCH(bool, eastFirst);
    QFETCH(bool, asked);
    QTemporaryDir dir;
    const QString east = writeFile(dir, QStringLiteral("east.ply"), tile(651256, 6861456));
    const QString west = writeFile(dir, QStringLiteral("west.ply"), tile(651150, 6861350));
    const QString far = writeFile(dir, QStringLiteral("far.ply"), tile(751150, 6861350, false));
    tzMainWindow::Options options = headless();
    options.autoShift = !asked;
    options.progressDelay = 60000;
    tzMainWindow window(options);
    window.resize(800, 600);
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    QStringList questions;
    QTimer answer;
    answer.setInterval(20);
    connect(&answer, &QTimer::timeout, [&] {
        auto *dialog = qobject_cast<QDialog *>(QApplication::activeModalWidget());
        if (!dialog || dialog->objectName() != QStringLiteral("shiftDialog"))
            return;
        questions << dialog->findChild<QLabel *>()->text();
        dialog->accept();
    });
    answer.start();
    tzPointCloud *first = openAndWait(window, eastFirst ? east : west);
    tzPointCloud *second = openAndWait(window, eastFirst ? west : east);
    QVERIFY(first && second);
    const TZVector3d shift = first->getGlobalShift();
    QCOMPARE(second->getGlobalShift(), shift);
    if (asked) {
        QCOMPARE(questions.size(), 2);
        QVERIFY2(questions[1].contains(QStringLiteral("the scene's shift")),
                 qPrintable(questions[1]));
    } else {
        QVERIFY(consoleHas(window, QStringLiteral("the scene's shift")));
    }
    // The shared point: first in each file, at one pixel; the status bar gives its coordinates.
    tzGLWindow *view = window.activeView();
    view->zoomGlobal();
    const auto pixelOf = [view](const tzPointCloud *cloud) {
        double x = 0, y = 0, depth = 0;
        const TZVector3 &p = *cloud->getPoint(0);
        view->camera().project(TZVector3d(p.x, p.y, p.z), x, y, depth);
        return QPoint(int(std::lround(x)), int(std::lround(y)));
    };
    QCOMPARE(pixelOf(first), pixelOf(second));
    QTest::mouseMove(view, QPoint(1, 1)); // (the pointer may be at the pixel already)
    QTest::mouseMove(view, pixelOf(first));
    QTRY_COMPARE(window.cursorStatus(), QStringLiteral("X 651255.000   Y 6861455.000   Z 113.000"));

    // Saved and loaded again, they stay together.
    const QString scene = dir.filePath(QStringLiteral("site.tzs"));
    QVERIFY(window.saveScene(scene));
    tzMainWindow again(headless());
    QVERIFY(again.loadScene(scene));
    tzHObject::Container clouds;
    again.databaseRoot()->filterChildren(clouds, true, TZ_TYPES::POINT_CLOUD);
    QCOMPARE(clouds.size(), size_t(2));
    for (tzHObject *cloud : clouds)
        QCOMPARE(static_cast<tzPointCloud *>(cloud)->getGlobalShift(), shift);

    // Too far for the scene's shift: the file's own, and the question says why.
    tzPointCloud *distant = openAndWait(window, far);
    QVERIFY(distant);
    QCOMPARE(distant->getGlobalShift().x, -751200.0);
    if (asked)
        QVERIFY2(questions.last().contains(QStringLiteral("too far")),
                 qPrintable(questions.last()));
}

void TestTessaro::closingWhileTheShiftIsAskedDoesNotHang()
{
    // The loader waits for the answer on its thread; a window that goes away with the question
    // still open must end that wait, not wait for the loader forever.
    QTemporaryDir dir;
    const QString path = writeFile(dir, QStringLiteral("grid.ply"), asciiPly(20, 650000.0));
    tzMainWindow::Options asking = headless();
    asking.autoShift = false;
    auto *window = new tzMainWindow(asking);
    window->show();
    window->openFiles({path});
    QTRY_VERIFY(window->findChild<QDialog *>(QStringLiteral("shiftDialog")));
    QElapsedTimer clock;
    clock.start();
    delete window;
    QVERIFY(clock.elapsed() < 2000);
}

void TestTessaro::objectDeletedBehindTheTreeIsForgotten()
{
    tzMainWindow window(headless());
    auto *doomed = new tzPointCloud(QStringLiteral("doomed"));
    auto *kept = new tzPointCloud(QStringLiteral("kept"));
    window.addToDatabase(doomed);
    window.addToDatabase(kept);
    window.dbTree()->selectObject(doomed);
    QVERIFY(doomed->isSelected());
    // A plug-in deletes it directly, without telling the application.
    window.databaseRoot()->removeChild(doomed);
    window.dbTree()->selectObject(kept); // must not touch the deleted object
    QCOMPARE(window.selectedObjects(), tzHObject::Container {kept});
    window.refreshAllViews();
    QTRY_COMPARE(window.dbTree()->topLevelItem(0)->childCount(), 1);
}

void TestTessaro::streamOfAdditionsJoinsTheTreeInOrder()
{
    tzMainWindow window(headless());
    window.show();
    const auto names = [](QTreeWidgetItem *item) {
        QStringList list;
        for (int i = 0; item && i < item->childCount(); ++i)
            list << item->child(i)->text(0);
        return list;
    };
    QTreeWidgetItem *top = window.dbTree()->topLevelItem(0);
    auto *first = new tzHObject(QStringLiteral("first"));
    window.addToDatabase(first);
    QVERIFY(window.dbTree()->itemOf(first)); // asked for: there at once

    // A group, then objects into it and beside it, one of them deleted before its item came,
    // one inserted before an earlier one, the group itself with a child it already had.
    auto *group = new tzHObject(QStringLiteral("group"));
    group->addChild(new tzHObject(QStringLiteral("inner")));
    window.addToDatabase(group, false, true);
    for (int i = 0; i < 50; ++i) {
        auto *object = new tzHObject(QStringLiteral("g%1").arg(i));
        group->addChild(object);
        window.addToDatabase(object);
    }
    auto *doomed = new tzHObject(QStringLiteral("doomed"));
    window.addToDatabase(doomed);
    window.databaseRoot()->removeChild(doomed); // behind the tree's back
    auto *last = new tzHObject(QStringLiteral("last"));
    window.addToDatabase(last);
    auto *early = new tzHObject(QStringLiteral("early"));
    group->addChild(early, DP_PARENT_OF_OTHER, 0);
    window.addToDatabase(early);

    QTRY_COMPARE(names(top), QStringList({"first", "group", "last"}));
    QTreeWidgetItem *groupItem = top->child(1);
    QCOMPARE(groupItem->childCount(), 52);
    QCOMPARE(groupItem->child(0)->text(0), QStringLiteral("early"));
    QCOMPARE(groupItem->child(1)->text(0), QStringLiteral("inner"));
    QCOMPARE(groupItem->child(51)->text(0), QStringLiteral("g49"));
    QVERIFY(top->isExpanded());
    QCOMPARE(window.dbTree()->selectedObjects(), tzHObject::Container());
    window.dbTree()->selectObject(group->getChild(10));
    QCOMPARE(window.selectedObjects(), tzHObject::Container {group->getChild(10)});
}

void TestTessaro::displayOptionsAndTheDisplayMenu()
{
    QTemporaryDir dir;
    const QString plain = writeFile(dir, QStringLiteral("plain.ply"), asciiPly(20, 10.0));
    const QString classified
        = writeFile(dir, QStringLiteral("classified.xyz"),
                    "x y z intensity classification\n0 0 0 100 2\n1 0 0 900 6\n0 1 5 500 5\n");
    // As --colour classification --point-size 4 ask: every cloud opened, where it can.
    tzMainWindow::Options options = headless();
    options.colourMode = int(tzPointDisplay::ColourMode::Classification);
    options.pointSize = 4;
    tzMainWindow window(options);
    window.show();
    tzPointCloud *first = openAndWait(window, plain);
    QVERIFY(first);
    QCOMPARE(int(first->getPointSize()), 4);
    QCOMPARE(first->colourMode(), tzPointDisplay::ColourMode::Elevation); // no classes
    QVERIFY(consoleHas(window,
                       QStringLiteral("plain.ply': no classification, shown by "
                                      "elevation instead of classification")));
    tzPointCloud *second = openAndWait(window, classified);
    QVERIFY(second);
    QCOMPARE(second->colourMode(), tzPointDisplay::ColourMode::Classification);
    QVERIFY(window.activeView()->eyeDomeShown()); // no colours shown: shaded

    // The Display menu acts on the selected cloud (the one opened last).
    auto *menu = window.findChild<QMenu *>(QStringLiteral("displayMenu"));
    QVERIFY(menu);
    const auto action = [&](const QString &name) {
        emit menu->aboutToShow();
        for (QAction *a : menu->findChildren<QAction *>() + menu->actions()) {
            if (a->objectName() == name)
                return a;
        }
        return static_cast<QAction *>(nullptr);
    };
    QVERIFY(action(QStringLiteral("colourBy_classification"))->isChecked());
    QVERIFY(!action(QStringLiteral("colourBy_rgb"))->isEnabled());
    action(QStringLiteral("colourBy_intensity"))->trigger();
    QCOMPARE(second->colourMode(), tzPointDisplay::ColourMode::Intensity);
    QCOMPARE(first->colourMode(), tzPointDisplay::ColourMode::Elevation);
    // A class unticked hides it, in the mode shown.
    QAction *vegetation = action(QStringLiteral("class_5"));
    QVERIFY(vegetation && vegetation->isChecked());
    QVERIFY(vegetation->text().contains(QStringLiteral("High vegetation (1 points)")));
    QVERIFY(!action(QStringLiteral("class_3"))); // not in the cloud: not listed
    vegetation->trigger();
    QVERIFY(!second->isClassShown(5) && second->hidesPoints());
    QCOMPARE(second->colourMode(), tzPointDisplay::ColourMode::Intensity);
    // Shading off from the menu stays off.
    action(QStringLiteral("eyeDomeShading"))->trigger();
    QVERIFY(!window.activeView()->eyeDomeShown());
    // With nothing selected the menu acts on every cloud.
    window.dbTree()->selectObject(nullptr);
    action(QStringLiteral("colourBy_elevation"))->trigger();
    QCOMPARE(first->colourMode(), tzPointDisplay::ColourMode::Elevation);
    QCOMPARE(second->colourMode(), tzPointDisplay::ColourMode::Elevation);
}

QTEST_MAIN(TestTessaro)
void TestTessaro::consoleKeepsItsLinesInOrderAndDropsTheOldest()
{
    tzConsole console;
    console.resize(400, 200);
    console.show();
    const auto text
        = [](const QString &line) { return line.mid(line.indexOf(QLatin1Char(']')) + 2); };
    console.print(QStringLiteral("first"), 0);
    console.print(QStringLiteral("careful"), 1);
    console.print(QStringLiteral("two\nlines"), 2);
    // From another thread: queued, after the lines printed before it.
    std::thread([&console] { console.print(QStringLiteral("elsewhere"), 4); }).join();
    console.print(QStringLiteral("before it arrives"), 0);
    // Every line is there at once, before the widget shows it.
    QStringList lines = console.lines();
    QCOMPARE(lines.size(), 4);
    QCOMPARE(text(lines[0]), QStringLiteral("first"));
    QCOMPARE(text(lines[1]), QStringLiteral("[Warning] careful"));
    QCOMPARE(text(lines[2]), QStringLiteral("[ERROR] two\nlines"));
    QTRY_COMPARE(console.lines().size(), 5);
    QCOMPARE(text(console.lines()[4]), QStringLiteral("[Debug] elsewhere"));
    // Shown, a message keeps its line breaks inside its one line.
    QTRY_COMPARE(console.document()->blockCount(), 5);
    QCOMPARE(text(console.lines()[2]), QStringLiteral("[ERROR] two\nlines"));

    // A long session: the oldest go, shown or still waiting, and the widget follows the last.
    // (Longer than twice what is kept, in one go: the waiting lines are cut too.)
    const int burst = 2 * tzConsole::MAX_LINES + 10;
    for (int i = 0; i < burst; ++i)
        console.print(QStringLiteral("line %1").arg(i), 0);
    lines = console.lines();
    QCOMPARE(lines.size(), tzConsole::MAX_LINES);
    QCOMPARE(text(lines.first()), QStringLiteral("line %1").arg(burst - tzConsole::MAX_LINES));
    QCOMPARE(text(lines.last()), QStringLiteral("line %1").arg(burst - 1));
    QTRY_COMPARE(console.document()->blockCount(), tzConsole::MAX_LINES);
    QCOMPARE(console.lines(), lines);
    QScrollBar *bar = console.verticalScrollBar();
    QCOMPARE(bar->value(), bar->maximum());
    // Scrolled back by the user, it stays where it was.
    bar->setValue(0);
    console.print(QStringLiteral("later"), 0);
    QTRY_COMPARE(text(console.document()->lastBlock().text()), QStringLiteral("later"));
    QCOMPARE(bar->value(), 0);
}

#include "tst_tessaro.moc"
