// Photo lists: the file beside a cloud that names its photos' stations, read into frustums.

#include "tzImageFrustum.h"
#include "tzPhotoList.h"

#include <QTemporaryDir>
#include <QtTest>

namespace {

QString write(const QTemporaryDir &dir, const QByteArray &text)
{
    const QString path = dir.filePath(QStringLiteral("images.json"));
    QFile file(path);
    file.open(QIODevice::WriteOnly);
    file.write(text);
    return path;
}

struct Read
{
    std::vector<tzImageFrustum *> frustums;
    ~Read() { qDeleteAll(frustums); }
};

} // namespace

class TestPhotoList : public QObject
{
    Q_OBJECT

private slots:
    void baseNameCutsTheLastCloudSuffix_data();
    void baseNameCutsTheLastCloudSuffix();
    void photosAreReadWithTheirDefaults();
    void filesThatGiveNothing_data();
    void filesThatGiveNothing();
    void pictureFileOfAPhoto();
};

void TestPhotoList::baseNameCutsTheLastCloudSuffix_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("base");
    QTest::newRow("suffix") << "Site - Cloud"
                            << "Site";
    QTest::newRow("twice") << "Site - Cloud - Cloud"
                           << "Site - Cloud";
    QTest::newRow("none") << "Site"
                          << "Site";
    QTest::newRow("inside") << "A - Cloud B"
                            << "A";
}

void TestPhotoList::baseNameCutsTheLastCloudSuffix()
{
    QFETCH(QString, name);
    QFETCH(QString, base);
    QCOMPARE(photoListBase(name), base);
}

void TestPhotoList::photosAreReadWithTheirDefaults()
{
    QTemporaryDir dir;
    const QString path = write(dir, R"({"images": [
        {"camname": "IMG_0001", "camX": 651210.5, "camY": 6861420.25, "camZ": 118.0,
         "roll": 1.5, "pitch": -0.25, "yaw": 3.0, "Vx": 0, "Vy": 1, "Vz": 0,
         "cx": 2000, "cy": 1500, "f": 2000, "other": "ignored"},
        {"camname": "IMG_0002", "camX": "12.5", "f": 1800},
        42,
        {}
    ]})");
    Read read {readPhotoList(path, dir.path(), nullptr, nullptr)};
    QCOMPARE(int(read.frustums.size()), 4);
    const tzImageFrustum &first = *read.frustums[0];
    QCOMPARE(first.cameraName(), QStringLiteral("IMG_0001"));
    QCOMPARE(first.cameraPosition(), TZVector3d(651210.5, 6861420.25, 118.0));
    QCOMPARE(first.roll(), 1.5);
    QCOMPARE(first.pitch(), -0.25);
    QCOMPARE(first.yaw(), 3.0);
    QCOMPARE(first.viewDirection(), TZVector3d(0, 1, 0));
    QCOMPARE(first.focal(), 2000.0);
    QCOMPARE(first.getMetaData(QStringLiteral("tzLumivertType")).toString(),
             QStringLiteral("imageFrustum"));
    QCOMPARE(first.getMetaData(QStringLiteral("camera")).toString(), QStringLiteral("IMG_0001"));
    QCOMPARE(first.getMetaData(QStringLiteral("Coord y")).toDouble(), 6861420.25);
    // Made enabled and hidden, under the image's own name.
    QVERIFY(first.isEnabled() && !first.isVisible());
    QCOMPARE(first.getName(), QStringLiteral("Not loaded"));
    // A number written as a string reads 0; an element that is not an object, or is empty,
    // gives a photo at the origin with no name.
    QCOMPARE(read.frustums[1]->cameraPosition(), TZVector3d(0, 0, 0));
    QCOMPARE(read.frustums[1]->focal(), 1800.0);
    for (int i : {2, 3}) {
        QVERIFY(read.frustums[size_t(i)]->cameraName().isEmpty());
        QCOMPARE(read.frustums[size_t(i)]->cameraPosition(), TZVector3d(0, 0, 0));
    }
}

void TestPhotoList::filesThatGiveNothing_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::newRow("empty array") << QByteArray(R"({"images": []})");
    QTest::newRow("not JSON") << QByteArray("camname;camX\nIMG_1;12\n");
    QTest::newRow("empty object") << QByteArray("{}");
    QTest::newRow("array at the top") << QByteArray(R"([{"camname": "IMG_1"}])");
    QTest::newRow("images not an array") << QByteArray(R"({"images": {"camname": "IMG_1"}})");
    QTest::newRow("empty file") << QByteArray();
}

void TestPhotoList::filesThatGiveNothing()
{
    QFETCH(QByteArray, text);
    QTemporaryDir dir;
    Read read {readPhotoList(write(dir, text), dir.path(), nullptr, nullptr)};
    QVERIFY(read.frustums.empty());
    Read missing {
        readPhotoList(dir.filePath(QStringLiteral("none.json")), dir.path(), nullptr, nullptr)};
    QVERIFY(missing.frustums.empty());
}

void TestPhotoList::pictureFileOfAPhoto()
{
    QTemporaryDir dir;
    QFile(dir.filePath(QStringLiteral("IMG_0002.png"))).open(QIODevice::WriteOnly);
    QFile(dir.filePath(QStringLiteral("IMG_0003.JPG"))).open(QIODevice::WriteOnly);
    const QString path = write(dir, R"({"images": [{"camname": "IMG_0001"},
        {"camname": "IMG_0002"}, {"camname": "IMG_0003.JPG"}]})");
    Read read {readPhotoList(path, dir.path(), nullptr, nullptr)};
    QCOMPARE(read.frustums[0]->imagePath(), dir.filePath(QStringLiteral("IMG_0001.jpg")));
    QCOMPARE(read.frustums[1]->imagePath(), dir.filePath(QStringLiteral("IMG_0002.png")));
    QCOMPARE(read.frustums[2]->imagePath(), dir.filePath(QStringLiteral("IMG_0003.JPG")));
}

QTEST_MAIN(TestPhotoList)
#include "tst_photolist.moc"
