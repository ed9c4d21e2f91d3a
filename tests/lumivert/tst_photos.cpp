// Photos in the viewer: the list beside the cloud read at the start of a run, the stations
// drawn, a photo entered with a click (the view at its station, looking through the picture)
// and left when the camera moves; a picture that cannot be read.

#include "CompanionSim.h"
#include "PluginViewer.h"
#include "ViewHelpers.h"
#include "tzDBTree.h"
#include "tzImage.h"

#include <QMessageBox>
#include <QProcess>
#include <QSettings>
#include <QStandardPaths>
#include <QtTest>

namespace {

const QColor BLUE(0, 0, 255);
const QColor MAGENTA(255, 0, 255);

std::vector<tzHObject *> photosOf(tzHObject *cloud)
{
    std::vector<tzHObject *> photos;
    for (unsigned i = 0; i < cloud->getChildrenNumber(); ++i) {
        tzHObject *child = cloud->getChild(i);
        if (child->getMetaData(QStringLiteral("tzLumivertType")).toString()
            == QLatin1String("imageFrustum"))
            photos.push_back(child);
    }
    return photos;
}

QPoint pixelOf(const tzGLWindow &view, const TZVector3d &p)
{
    double x = 0, y = 0, depth = 0;
    view.camera().project(p, x, y, depth);
    return QPoint(int(std::lround(x)), int(std::lround(y)));
}

// Mean difference of colour between the picture and the cloud where the cloud is drawn, in the
// middle of the view, with the picture's pixels taken `shift` pixels to the right.
double mismatch(const QImage &picture, const QImage &cloud, int shift)
{
    const QColor background = cloud.pixelColor(0, 0);
    const int half = cloud.height() / 4;
    double sum = 0;
    int count = 0;
    for (int y = cloud.height() / 2 - half; y < cloud.height() / 2 + half; ++y) {
        for (int x = cloud.width() / 2 - half; x < cloud.width() / 2 + half; ++x) {
            const QColor c = cloud.pixelColor(x, y);
            if (isColour(cloud, x, y, background, 4))
                continue;
            const QColor p = picture.pixelColor(x + shift, y);
            sum += std::abs(c.red() - p.red()) + std::abs(c.green() - p.green())
                + std::abs(c.blue() - p.blue());
            ++count;
        }
    }
    return count > 1000 ? sum / (3 * count) : 255;
}

//! Each photo, opaque, against the cloud seen from its station without it: the picture matches
//! the points where they are, and not a few pixels aside.
void checkPhotosLineUp(tzGLWindow *view, const std::vector<tzHObject *> &photos)
{
    view->setObliqueView();
    view->setPointSize(4);
    for (tzHObject *photo : photos) {
        auto *image = dynamic_cast<tzImage *>(photo);
        QVERIFY(image);
        image->setAlpha(1.f);
        photo->setSelected(true);
        QTRY_VERIFY(view->isViewpointMode());
        const QImage picture = frame(*view);
        photo->setSelected(false);
        const QImage cloudOnly = frame(*view);
        const double aligned = mismatch(picture, cloudOnly, 0);
        const double aside
            = std::min(mismatch(picture, cloudOnly, 20), mismatch(picture, cloudOnly, -20));
        const QByteArray said = photo->getMetaData(QStringLiteral("camera")).toString().toUtf8()
            + ": " + QByteArray::number(aligned, 'f', 1) + " aligned, "
            + QByteArray::number(aside, 'f', 1) + " 20 pixels aside";
        qInfo("%s", said.constData());
        QVERIFY2(aligned < 18 && aligned < 0.7 * aside, said.constData());
        view->setCameraPos(view->getViewportParameters().cameraCenter + TZVector3d(5, 0, 0));
        QVERIFY(!view->isViewpointMode());
        view->setObliqueView();
    }
}

//! The demo survey, small, written by the generator as out (its photos beside it, or inside
//! an E57).
bool makeDemoSurvey(const QString &out)
{
    QProcess generator;
    generator.start(QStringLiteral(MAKE_DEMO_SURVEY), {out, QStringLiteral("60000")});
    if (!generator.waitForFinished(60000) || generator.exitCode() != 0) {
        qWarning("%s", generator.readAllStandardError().constData());
        return false;
    }
    return true;
}

} // namespace

class TestPhotos : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void photoIsEnteredAndLeft();
    void demoPhotosLineUpWithTheCloud();
    void scannerPhotosInsideAnE57LineUpToo();

private:
    QTemporaryDir m_settings;
    QTemporaryDir m_survey;
};

void TestPhotos::initTestCase()
{
    // The pictures of an E57 go to the cache: the tests' own.
    QStandardPaths::setTestModeEnabled(true);
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, m_settings.path());
    QCoreApplication::setOrganizationName(QStringLiteral("Tessaro"));
    QCoreApplication::setApplicationName(QStringLiteral("Tessaro"));
    QSettings(QSettings::NativeFormat, QSettings::UserScope, QStringLiteral("LumiVert"),
              QStringLiteral("LinkServer"))
        .setValue(QStringLiteral("sizeSpheres"), 0.1);
    QSettings().setValue(QStringLiteral("LoadFile/currentPath"), m_survey.path());
    // The viewer's cloud "Site - Cloud": its photos are listed in Site.img/images.json. A blue
    // picture of 4000 x 3000 with f = 2000 looks down from 10 above the cloud; the second
    // photo's picture is missing.
    QDir(m_survey.path()).mkdir(QStringLiteral("Site.img"));
    QImage picture(4000, 3000, QImage::Format_RGB32);
    picture.fill(BLUE);
    QVERIFY(picture.save(m_survey.filePath(QStringLiteral("Site.img/IMG_1.png"))));
    QFile list(m_survey.filePath(QStringLiteral("Site.img/images.json")));
    QVERIFY(list.open(QIODevice::WriteOnly));
    list.write(R"({"images": [
        {"camname": "IMG_1", "camX": 0, "camY": 0, "camZ": 10, "Vx": 0, "Vy": 0, "Vz": -1,
         "f": 2000, "cx": 2000, "cy": 1500},
        {"camname": "IMG_2", "camX": 0.5, "camY": 0.5, "camZ": 10, "Vz": -1, "f": 2000},
        {"camname": "IMG_1", "camX": 7}
    ]})");
}

void TestPhotos::photoIsEnteredAndLeft()
{
    // The companion draws a magenta line on the ground, 0.3 north of the station.
    QTemporaryDir dir;
    Sim sim(writeScript(dir,
                        R"({"type": "XSymbole", "ident": 7, "entities": [{"type": "XInsert", )"
                        R"("entities": [{"type": "XLine", "Rcolor": 255, "Gcolor": 0, )"
                        R"("Bcolor": 255, "vertex": [{"X": -0.5, "Y": 0.3, "Z": 0.0}, )"
                        R"({"X": 0.5, "Y": 0.3, "Z": 0.0}]}]}]})"
                        "\n!wait 100000\n"));
    QTRY_VERIFY(sim.listening());
    Viewer viewer;
    viewer.start();
    QTRY_VERIFY(sim.log().contains(QStringLiteral("client connected")));
    tzGLWindow *view = viewer.window.activeView();
    // Two photos (the repeated name is skipped), shown.
    const std::vector<tzHObject *> photos = photosOf(viewer.cloud);
    QCOMPARE(int(photos.size()), 2);
    QVERIFY(photos[0]->isVisible() && photos[1]->isVisible());
    QCOMPARE(photos[0]->getMetaData(QStringLiteral("Coord z")).toDouble(), 10.0);

    // From the top, the stations are green spheres.
    tzViewportParameters top = view->getViewportParameters();
    top.perspectiveView = false;
    top.pixelSize = 0.01;
    top.zoom = 1;
    top.pivotPoint = {0, 0, 0};
    top.cameraCenter = {0, 0, 50};
    view->setViewportParameters(top);
    // Looking down with east up on the screen: the photo, taken facing down with north at the
    // top of its picture, stands upright all the same once entered.
    view->setCustomView({0, 0, -1}, {1, 0, 0});
    const QPoint station = pixelOf(*view, {0, 0, 10});
    QImage image = frame(*view);
    QVERIFY(isColour(image, station.x(), station.y(), QColor(0, 255, 0), 60));
    const tzViewportParameters before = view->getViewportParameters();

    // A click on the station enters the photo: the view at the station, 90 degrees, the
    // picture (2 x 1.5 at distance 1: three quarters of the height, upright) half over the
    // cloud.
    QTest::mouseClick(view, Qt::LeftButton, Qt::NoModifier, station);
    QTRY_VERIFY(view->isViewpointMode());
    QCOMPARE(view->getViewportParameters().cameraCenter, TZVector3d(0, 0, 10));
    QCOMPARE(view->getViewportParameters().fov_deg, 90.f);
    QVERIFY(view->getViewportParameters().perspectiveView);
    image = frame(*view);
    const QColor middle = image.pixelColor(view->width() / 2, view->height() / 2);
    QVERIFY2(middle.blue() > 100 && middle.blue() < 200 && middle.red() < 100,
             qPrintable(middle.name()));
    const QColor above = image.pixelColor(view->width() / 2, view->height() / 20);
    QVERIFY2(above.blue() < 100, qPrintable(above.name()));
    // The symbol shows over the picture, whatever lies nearer: 0.3 north at 10 below is 0.03
    // of the half height above the middle.
    const int lineRow = view->height() / 2 - int(0.03 * view->height() / 2);
    bool line = false;
    for (int y = lineRow - 2; y <= lineRow + 2; ++y)
        line = line || isColour(image, view->width() / 2, y, MAGENTA, 60);
    QVERIFY(line);

    // Rotating on the spot keeps the photo; moving away leaves it and gives the view back.
    view->setCameraPos({0, 0, 10});
    QVERIFY(view->isViewpointMode());
    view->setCameraPos({1, 0, 10});
    QVERIFY(!view->isViewpointMode());
    QVERIFY(!photos[0]->isVisible());
    QCOMPARE(view->getViewportParameters().perspectiveView, false);
    QCOMPARE(view->getViewportParameters().cameraCenter, before.cameraCenter);
    QCOMPARE(view->getViewportParameters().fov_deg, before.fov_deg);

    // A picture that cannot be read: the box says so, and closing it leaves the photo.
    photos[0]->setSelected(false);
    QTimer closer;
    QString said;
    int boxes = 0;
    QObject::connect(&closer, &QTimer::timeout, [&] {
        for (QWidget *w : QApplication::topLevelWidgets()) {
            if (auto *box = qobject_cast<QMessageBox *>(w); box && box->isVisible()) {
                said = box->text();
                ++boxes;
                box->accept();
            }
        }
    });
    closer.start(50);
    photos[1]->setSelected(true);
    QVERIFY(view->isViewpointMode());
    frame(*view);
    QTRY_COMPARE(said, QStringLiteral("Erreur de chargement de l'image"));
    QTRY_VERIFY(!view->isViewpointMode());
    // No second box for the same selection: a box opens from the event loop right after the
    // frame that failed, and it would be counted before the events below are done.
    QVERIFY(photos[1]->isSelected());
    frame(*view);
    QCoreApplication::processEvents();
    QCOMPARE(boxes, 1);
}

void TestPhotos::demoPhotosLineUpWithTheCloud()
{
    // The demo survey, small, with its photos rendered from it.
    QTemporaryDir dir;
    const QString survey = dir.filePath(QStringLiteral("survey.ply"));
    QVERIFY(makeDemoSurvey(survey));
    Viewer viewer;
    viewer.window.openFiles({survey});
    QTRY_VERIFY_WITH_TIMEOUT(!viewer.window.isLoading(), 20000);
    viewer.start();
    tzHObject *cloud = nullptr;
    for (unsigned i = 0; i < viewer.window.databaseRoot()->getChildrenNumber(); ++i) {
        if (viewer.window.databaseRoot()->getChild(i)->getName() == QLatin1String("survey"))
            cloud = viewer.window.databaseRoot()->getChild(i);
    }
    QVERIFY(cloud);
    const std::vector<tzHObject *> photos = photosOf(cloud);
    QCOMPARE(int(photos.size()), 5);
    tzGLWindow *view = viewer.window.activeView();
    checkPhotosLineUp(view, photos);
    if (QTest::currentTestFailed())
        return;

    // From the top view a survey opens in, a photo picked in the tree stands upright and lines
    // up with the cloud all the same; Escape leaves it and gives back the view exactly.
    tzDBTree *tree = viewer.window.dbTree();
    for (tzHObject *photo : {photos[0], photos[4]}) {
        view->setTopView();
        const tzViewportParameters top = view->getViewportParameters();
        photo->setVisible(true);
        QTreeWidgetItem *item = tree->itemOf(photo);
        QVERIFY(item);
        tree->scrollToItem(item);
        QTest::mouseClick(tree->viewport(), Qt::LeftButton, Qt::NoModifier,
                          tree->visualItemRect(item).center());
        QTRY_VERIFY(view->isViewpointMode());
        const QImage picture = frame(*view);
        photo->setVisible(false); // the picture out of the way, the view where it is
        const QImage cloudOnly = frame(*view);
        photo->setVisible(true);
        const double aligned = mismatch(picture, cloudOnly, 0);
        QVERIFY2(aligned < 18, qPrintable(QString::number(aligned)));
        QTest::keyClick(view, Qt::Key_Escape);
        QVERIFY(!view->isViewpointMode());
        const tzViewportParameters after = view->getViewportParameters();
        QCOMPARE(after.cameraCenter, top.cameraCenter);
        QCOMPARE(after.pivotPoint, top.pivotPoint);
        QCOMPARE(after.perspectiveView, top.perspectiveView);
        QCOMPARE(after.pixelSize, top.pixelSize);
        QCOMPARE(view->getCurrentUpDir(), TZVector3d(0, 1, 0));
    }
    QCOMPARE(viewer.toolBar()->isVisible(), true);
}

void TestPhotos::scannerPhotosInsideAnE57LineUpToo()
{
    // The same site as a scanner exports it: two scans, each with its pose, and the photos
    // inside the file as pinhole pictures; nothing beside it. The run finds the photos under
    // the scans they were taken from and they line up as the list's do.
    QTemporaryDir dir;
    const QString survey = dir.filePath(QStringLiteral("scanned.e57"));
    QVERIFY(makeDemoSurvey(survey));
    QVERIFY(!QFileInfo::exists(dir.filePath(QStringLiteral("scanned.img"))));
    Viewer viewer;
    viewer.window.openFiles({survey});
    QTRY_VERIFY_WITH_TIMEOUT(!viewer.window.isLoading(), 20000);
    viewer.start();
    std::vector<tzHObject *> photos;
    tzHObject::Container clouds;
    viewer.window.databaseRoot()->filterChildren(clouds, true, TZ_TYPES::POINT_CLOUD);
    QStringList scans;
    for (tzHObject *cloud : clouds) {
        scans << cloud->getName();
        for (tzHObject *photo : photosOf(cloud))
            photos.push_back(photo);
    }
    QVERIFY(scans.contains(QStringLiteral("Station 1"))
            && scans.contains(QStringLiteral("Station 2")));
    QCOMPARE(int(photos.size()), 5);
    checkPhotosLineUp(viewer.window.activeView(), photos);
    // A second run finds the same photos, not twice as many.
    viewer.click("closeButton");
    QTRY_VERIFY(!viewer.toolBar() || !viewer.toolBar()->isVisible());
    viewer.start();
    int again = 0;
    for (tzHObject *cloud : clouds)
        again += int(photosOf(cloud).size());
    QCOMPARE(again, 5);
}

QTEST_MAIN(TestPhotos)
#include "tst_photos.moc"
