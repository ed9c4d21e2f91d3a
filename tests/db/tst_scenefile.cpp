#include "tz2DViewportObject.h"
#include "tzCustomHObject.h"
#include "tzImage.h"
#include "tzLog.h"
#include "tzPointCloud.h"
#include "tzPolyline.h"
#include "tzSceneFile.h"
#include "tzSerialization.h"
#include "tzSphere.h"

#include <QBuffer>
#include <QTemporaryDir>
#include <QtTest>

namespace {

// A plug-in-like object with its own record: an attached cloud (kept by ID) and a field that
// exists only from data version 21 on.
class Marker : public tzCustomHObject
{
public:
    Marker()
        : tzCustomHObject("marker")
    {
    }
    QString getFactoryName() const override { return QStringLiteral("Marker"); }
    tzPointCloud *cloud = nullptr;
    unsigned loadedCloudID = 0;
    float screenX = 0.05f;
    bool shownIn2D = true;
    // Writes as a program of data version 20 did, without shownIn2D.
    static inline bool legacyWriter = false;

    bool toFile_MeOnly(QIODevice &out) const override
    {
        using namespace tzSerialization;
        return tzCustomHObject::toFile_MeOnly(out)
            && ((write<quint32>(out, cloud ? cloud->getUniqueID() : 0) && write(out, screenX)
                 && (legacyWriter || write<quint8>(out, shownIn2D)))
                || fail(WriteError));
    }
    bool fromFile_MeOnly(QIODevice &in, short version, LoadedIDMap &map) override
    {
        using namespace tzSerialization;
        quint8 shown = 1;
        if (!tzCustomHObject::fromFile_MeOnly(in, version, map))
            return false;
        if (!read(in, loadedCloudID) || !read(in, screenX) || (version >= 21 && !read(in, shown)))
            return fail(ReadError);
        shownIn2D = shown;
        return true;
    }
    bool resolveLoadedReferences(const LoadedIDMap &map) override
    {
        cloud = dynamic_cast<tzPointCloud *>(map.value(loadedCloudID));
        return loadedCloudID == 0 || cloud;
    }
};

// A scene with every kind of built-in object and one custom object.
tzHObject *makeScene()
{
    auto *root = new tzHObject("scene");
    auto *cloud = new tzPointCloud("survey");
    for (int i = 0; i < 1000; ++i)
        cloud->addPoint({float(i) * 0.1f, float(i % 7), float(i % 13) * 0.5f});
    cloud->resizeColors();
    cloud->setPointColor(3, {10, 20, 30});
    cloud->setGlobalShift({-650000, -6860000, 0});
    cloud->setGlobalScale(2.0);
    cloud->setMetaData("source", "unit test");
    std::vector<tzPointAttributes> attributes(1000);
    attributes[7] = {4000, 6, 0x21};
    cloud->setAttributes(std::move(attributes),
                         tzPointDisplay::INTENSITY | tzPointDisplay::CLASSIFICATION);
    cloud->setColourMode(tzPointDisplay::ColourMode::Classification);
    cloud->showClass(2, false);
    cloud->showClass(200, false);
    cloud->setElevationRange(12.5, -3.0);
    cloud->setPointSize(4);
    root->addChild(cloud);
    auto *group = new tzHObject("mesures");
    group->setVisible(false);
    root->addChild(group);
    auto *marker = new Marker;
    marker->cloud = cloud;
    marker->screenX = 0.25f;
    marker->shownIn2D = false;
    group->addChild(marker);
    auto *line = new tzPolyline(cloud);
    line->addPointIndex(5);
    line->addPointIndex(9);
    line->setClosed(true);
    line->setWidth(2.f);
    group->addChild(line);
    auto *sphere = new tzSphere(1.5f, "PointMarker", 12);
    sphere->setColor(Qt::red);
    root->addChild(sphere);
    auto *image = new tzImage("photo");
    QImage picture(8, 4, QImage::Format_ARGB32);
    picture.fill(Qt::green);
    image->setData(picture);
    image->setAlpha(0.5f);
    root->addChild(image);
    auto *view = new tz2DViewportObject("before the photo");
    tzViewportParameters camera;
    camera.viewMat[1] = 0.5;
    camera.perspectiveView = true;
    camera.objectCenteredView = false;
    camera.pixelSize = 0.02;
    camera.fov_deg = 62.f;
    camera.cameraCenter = {650010.5, 6860020.25, 31.0};
    view->setParameters(camera);
    root->addChild(view);
    return root;
}

QByteArray sceneBytes(short version = tzSceneFile::CURRENT_DATA_VERSION)
{
    std::unique_ptr<tzHObject> scene(makeScene());
    QBuffer buffer;
    buffer.open(QIODevice::WriteOnly);
    if (!tzSceneFile::write(scene.get(), buffer, version))
        return {};
    return buffer.data();
}

} // namespace

class TestSceneFile : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        tzHObject::RegisterFactory(QStringLiteral("Marker"), [] { return new Marker; });
    }
    void roundTripKeepsEverything();
    void olderVersionSkipsNewerFields();
    void truncatedFileFails_data();
    void truncatedFileFails();
    void corruptFileFails_data();
    void corruptFileFails();
    void failedSaveKeepsThePreviousFile();
    void missingFileNamesThePath();
    void fuzzFindingsAreRefused();
    void progressIsToldAndCanStopTheLoad();
};

void TestSceneFile::roundTripKeepsEverything()
{
    QTemporaryDir dir;
    const QString path = dir.filePath("scene.tzs");
    std::unique_ptr<tzHObject> scene(makeScene());
    QString error;
    QVERIFY2(tzSceneFile::save(scene.get(), path, error), qPrintable(error));
    std::unique_ptr<tzHObject> loaded(tzSceneFile::load(path, error));
    QVERIFY2(loaded, qPrintable(error));

    QCOMPARE(loaded->getChildrenNumber(), 5u);
    auto *cloud = dynamic_cast<tzPointCloud *>(loaded->getChild(0));
    QVERIFY(cloud);
    QCOMPARE(cloud->getName(), QStringLiteral("survey"));
    QCOMPARE(cloud->size(), 1000u);
    QCOMPARE(*cloud->getPoint(999), TZVector3(99.9f, float(999 % 7), float(999 % 13) * 0.5f));
    QCOMPARE(cloud->getPointColor(3), (tzRgb {10, 20, 30}));
    QCOMPARE(cloud->getGlobalShift(), TZVector3d(-650000, -6860000, 0));
    QCOMPARE(cloud->getGlobalScale(), 2.0);
    QCOMPARE(cloud->getMetaData("source").toString(), QStringLiteral("unit test"));
    QVERIFY(cloud->getUniqueID() != scene->getChild(0)->getUniqueID()); // fresh IDs
    // The survey attributes and how the points are shown.
    QCOMPARE(int(cloud->attributeKinds()),
             tzPointDisplay::INTENSITY | tzPointDisplay::CLASSIFICATION);
    QCOMPARE(cloud->getPointAttributes(7), (tzPointAttributes {4000, 6, 0x21}));
    QCOMPARE(cloud->colourMode(), tzPointDisplay::ColourMode::Classification);
    QVERIFY(!cloud->isClassShown(2) && !cloud->isClassShown(200) && cloud->isClassShown(6));
    double low = 0, high = 0;
    cloud->elevationRange(low, high);
    QCOMPARE(low, -3.0);
    QCOMPARE(high, 12.5);
    QCOMPARE(int(cloud->getPointSize()), 4);

    tzHObject *group = loaded->getChild(1);
    QVERIFY(!group->isVisible());
    auto *marker = dynamic_cast<Marker *>(group->getChild(0));
    QVERIFY(marker);
    QCOMPARE(marker->cloud, cloud); // relinked by the ID stored in the file
    QCOMPARE(marker->screenX, 0.25f);
    QCOMPARE(marker->shownIn2D, false);
    auto *line = dynamic_cast<tzPolyline *>(group->getChild(1));
    QVERIFY(line);
    QCOMPARE(line->getVertices(), cloud);
    QCOMPARE(line->size(), 2u);
    QCOMPARE(line->getPointGlobalIndex(1), 9u);
    QVERIFY(line->isClosed());
    auto *sphere = dynamic_cast<tzSphere *>(loaded->getChild(2));
    QVERIFY(sphere);
    QCOMPARE(sphere->getRadius(), 1.5f);
    QCOMPARE(sphere->getDrawingPrecision(), 12u);
    QCOMPARE(sphere->getColor(), QColor(Qt::red));
    auto *image = dynamic_cast<tzImage *>(loaded->getChild(3));
    QVERIFY(image);
    QCOMPARE(image->getW(), 8u);
    QCOMPARE(image->getAlpha(), 0.5f);
    auto *view = dynamic_cast<tz2DViewportObject *>(loaded->getChild(4));
    QVERIFY(view);
    const tzViewportParameters &camera = view->getParameters();
    QCOMPARE(camera.viewMat[1], 0.5);
    QVERIFY(camera.perspectiveView);
    QVERIFY(!camera.objectCenteredView);
    QCOMPARE(camera.pixelSize, 0.02);
    QCOMPARE(camera.fov_deg, 62.f);
    QCOMPARE(camera.cameraCenter, TZVector3d(650010.5, 6860020.25, 31.0));
}

void TestSceneFile::olderVersionSkipsNewerFields()
{
    Marker::legacyWriter = true;
    const QByteArray bytes = sceneBytes(20);
    Marker::legacyWriter = false;
    QBuffer buffer;
    buffer.setData(bytes);
    buffer.open(QIODevice::ReadOnly);
    QString error;
    std::unique_ptr<tzHObject> loaded(tzSceneFile::read(buffer, error));
    QVERIFY2(loaded, qPrintable(error));
    auto *marker = dynamic_cast<Marker *>(loaded->getChild(1)->getChild(0));
    QVERIFY(marker);
    QCOMPARE(marker->shownIn2D, true); // not in a version 20 file: the initial value
    // Nor the survey attributes: the cloud comes in colours, as before.
    auto *cloud = dynamic_cast<tzPointCloud *>(loaded->getChild(0));
    QVERIFY(cloud);
    QCOMPARE(cloud->size(), 1000u);
    QCOMPARE(int(cloud->attributeKinds()), 0);
    QCOMPARE(cloud->colourMode(), tzPointDisplay::ColourMode::Rgb);
    QCOMPARE(cloud->getPointColor(3), (tzRgb {10, 20, 30}));
}

void TestSceneFile::truncatedFileFails_data()
{
    QTest::addColumn<int>("keep");
    const int size = sceneBytes().size();
    QTest::newRow("empty") << 0;
    QTest::newRow("magic only") << 4;
    QTest::newRow("header only") << 6;
    QTest::newRow("inside the root record") << 20;
    QTest::newRow("inside the points") << 200;
    QTest::newRow("half") << size / 2;
    QTest::newRow("last byte missing") << size - 1;
}

void TestSceneFile::truncatedFileFails()
{
    QFETCH(int, keep);
    QStringList errors;
    tzLog::SetHandler([&](const QString &text, int) { errors << text; });
    QBuffer buffer;
    buffer.setData(sceneBytes().left(keep));
    buffer.open(QIODevice::ReadOnly);
    QString error;
    std::unique_ptr<tzHObject> loaded(tzSceneFile::read(buffer, error));
    tzLog::SetHandler(nullptr);
    QVERIFY(!loaded);
    QCOMPARE(error, QStringLiteral("Read error (corrupted file or no access right?)"));
}

void TestSceneFile::corruptFileFails_data()
{
    QTest::addColumn<int>("offset");
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("expected");
    const QString readError = QStringLiteral("Read error (corrupted file or no access right?)");
    QTest::newRow("wrong magic") << 0 << QByteArray("XXXX") << readError;
    QTest::newRow("future version")
        << 4 << QByteArray("\x63\x00", 2)
        << "Unsupported scene file version 99 (this program reads 20 to 22)";
    QTest::newRow("unknown root type") << 6 << QByteArray("\x02\x00\x00\x00", 4) << readError;
    // The root's name length (after its class ID and unique ID) claims 4 GB.
    QTest::newRow("huge name length") << 14 << QByteArray("\xff\xff\xff\xff", 4) << readError;
}

void TestSceneFile::corruptFileFails()
{
    QFETCH(int, offset);
    QFETCH(QByteArray, bytes);
    QFETCH(QString, expected);
    QByteArray data = sceneBytes();
    data.replace(offset, bytes.size(), bytes);
    tzLog::SetHandler([](const QString &, int) {});
    QBuffer buffer(&data);
    buffer.open(QIODevice::ReadOnly);
    QString error;
    std::unique_ptr<tzHObject> loaded(tzSceneFile::read(buffer, error));
    tzLog::SetHandler(nullptr);
    QVERIFY(!loaded);
    QCOMPARE(error, expected);
}

void TestSceneFile::failedSaveKeepsThePreviousFile()
{
    QTemporaryDir dir;
    const QString path = dir.filePath("scene.tzs");
    std::unique_ptr<tzHObject> scene(makeScene());
    QString error;
    QVERIFY(tzSceneFile::save(scene.get(), path, error));
    const QByteArray before = [&] {
        QFile f(path);
        f.open(QIODevice::ReadOnly);
        return f.readAll();
    }();
    // An object whose record cannot be written makes the save fail halfway.
    struct Unwritable : Marker
    {
        bool toFile_MeOnly(QIODevice &) const override
        {
            return tzSerialization::fail(tzSerialization::WriteError);
        }
    };
    scene->addChild(new Unwritable);
    tzLog::SetHandler([](const QString &, int) {});
    const bool saved = tzSceneFile::save(scene.get(), path, error);
    tzLog::SetHandler(nullptr);
    QVERIFY(!saved);
    QVERIFY(error.startsWith(path));
    QVERIFY(error.contains("Write error (disk full or no access right?)"));
    QFile f(path);
    QVERIFY(f.open(QIODevice::ReadOnly));
    QCOMPARE(f.readAll(), before);
    QCOMPARE(QDir(dir.path()).entryList(QDir::Files), QStringList {"scene.tzs"}); // no leftover
}

void TestSceneFile::missingFileNamesThePath()
{
    QString error;
    QVERIFY(!tzSceneFile::load("/nonexistent/scene.tzs", error));
    QVERIFY(error.startsWith("/nonexistent/scene.tzs: Read error"));
}

// Inputs the fuzzer once crashed on (first byte: the reader it chose; 0 = scene file).
void TestSceneFile::fuzzFindingsAreRefused()
{
    const QDir dir(QStringLiteral(TESSARO_TEST_DATA "/fuzz"));
    const QStringList files = dir.entryList(QDir::Files);
    QVERIFY(!files.isEmpty());
    tzLog::SetHandler([](const QString &, int) {});
    for (const QString &name : files) {
        QFile f(dir.filePath(name));
        QVERIFY(f.open(QIODevice::ReadOnly));
        QBuffer buffer;
        buffer.setData(f.readAll().mid(1));
        buffer.open(QIODevice::ReadOnly);
        QString error;
        std::unique_ptr<tzHObject> loaded(tzSceneFile::read(buffer, error));
        QVERIFY2(!loaded, qPrintable(name));
        QVERIFY(!error.isEmpty());
    }
    tzLog::SetHandler(nullptr);
}

void TestSceneFile::progressIsToldAndCanStopTheLoad()
{
    QTemporaryDir dir;
    const QString path = dir.filePath("scene.tzs");
    std::unique_ptr<tzHObject> scene(makeScene());
    QString error;
    QVERIFY(tzSceneFile::save(scene.get(), path, error));

    QList<int> told;
    std::unique_ptr<tzHObject> loaded(tzSceneFile::load(path, error, [&told](int percent) {
        told << percent;
        return true;
    }));
    QVERIFY2(loaded, qPrintable(error));
    QCOMPARE(loaded->getChildrenNumber(), 5u);
    QVERIFY(!told.isEmpty());
    QCOMPARE(told.last(), 100);
    QVERIFY(std::is_sorted(told.begin(), told.end()));

    // Stopped halfway: no tree, an error naming the file.
    std::unique_ptr<tzHObject> stopped(
        tzSceneFile::load(path, error, [](int percent) { return percent < 50; }));
    QVERIFY(!stopped);
    QVERIFY(error.startsWith(path));
}

QTEST_GUILESS_MAIN(TestSceneFile)
#include "tst_scenefile.moc"
