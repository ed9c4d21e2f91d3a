#include "tzCloudFile.h"
#include "tzE57File.h"
#include "tzPointCloud.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtEndian>
#include <QtTest>

#include <cstring>

Q_DECLARE_METATYPE(TZVector3d)

namespace {

QByteArray plyHeader(const char *format, int count, const char *props)
{
    return QByteArray("ply\nformat ") + format + " 1.0\ncomment made by a test\nelement vertex "
        + QByteArray::number(count) + "\n" + props + "end_header\n";
}

template<typename T> void append(QByteArray &out, T v, bool bigEndian = false)
{
    if (bigEndian)
        v = qToBigEndian(v);
    out.append(reinterpret_cast<const char *>(&v), sizeof(T));
}

// A LAS file of the given version and point format with these points (integers before scaling).
QByteArray makeLas(int minor, int format, const QVector<std::array<qint32, 3>> &points,
                   const QVector<std::array<quint16, 3>> &colors = {}, double scale = 0.001,
                   double offsetX = 650000, double offsetY = 6860000)
{
    static const int lengths[] = {20, 28, 26, 34, 0, 0, 30, 36, 38};
    const quint16 headerSize = minor >= 4 ? 375 : 227;
    QByteArray h(headerSize, '\0');
    std::memcpy(h.data(), "LASF", 4);
    h[24] = 1;
    h[25] = char(minor);
    auto put = [&h](int at, auto v) { std::memcpy(h.data() + at, &v, sizeof(v)); };
    put(94, headerSize);
    put(96, quint32(headerSize));
    h[104] = char(format);
    put(105, quint16(lengths[format]));
    put(107, quint32(points.size()));
    const double offsets[3] = {offsetX, offsetY, 0};
    for (int d = 0; d < 3; ++d) {
        put(131 + 8 * d, scale);
        put(155 + 8 * d, offsets[d]);
        put(179 + 16 * d, offsets[d] + 10); // max
        put(187 + 16 * d, offsets[d]); // min
    }
    if (minor >= 4)
        put(247, quint64(points.size()));
    const int rgb = format == 2 ? 20 : (format == 3 ? 28 : (format >= 7 ? 30 : -1));
    for (int i = 0; i < points.size(); ++i) {
        QByteArray rec(lengths[format], '\0');
        std::memcpy(rec.data(), points[i].data(), 12);
        if (rgb >= 0 && i < colors.size())
            std::memcpy(rec.data() + rgb, colors[i].data(), 6);
        h.append(rec);
    }
    return h;
}

} // namespace

class TestCloudFile : public QObject
{
    Q_OBJECT

private slots:
    void firstPictureOfFilesReadInOrder_data();
    void firstPictureOfFilesReadInOrder();
    void goodFiles_data();
    void goodFiles();
    void attributesOfTextAndPly_data();
    void attributesOfTextAndPly();
    void brokenFiles_data();
    void brokenFiles();
    void largeCoordinatesGetAShift();
    void shiftCanBeChangedOrRefused();
    void loadByExtensionNamesTheFile();
    void cancelLeavesNoCloud();
    void filesWrittenByAnotherProgram_data();
    void filesWrittenByAnotherProgram();
    void headersAreDescribedWithoutThePoints_data();
    void headersAreDescribedWithoutThePoints();
};

void TestCloudFile::goodFiles_data()
{
    QTest::addColumn<QString>("format");
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<TZVector3d>("lastPoint"); // global
    QTest::addColumn<bool>("colors");
    QTest::addColumn<int>("lastRed");

    QTest::newRow("ply ascii with colours")
        << "ply"
        << plyHeader("ascii", 2,
                     "property float x\nproperty float y\nproperty float z\nproperty uchar red\n"
                     "property uchar green\nproperty uchar blue\n")
            + "1 2 3 10 20 30\n4.5 5.5 -6.5 40 50 60\n"
        << TZVector3d(4.5, 5.5, -6.5) << true << 40;
    {
        QByteArray b = plyHeader("binary_little_endian", 2,
                                 "property double x\nproperty double y\nproperty double z\n");
        for (double v : {1.0, 2.0, 3.0, 650000.125, 6860000.5, 101.25})
            append(b, v);
        QTest::newRow("ply binary LE doubles")
            << "ply" << b << TZVector3d(650000.125, 6860000.5, 101.25) << false << 0;
    }
    {
        QByteArray b = plyHeader("binary_big_endian", 1,
                                 "property float x\nproperty float y\nproperty float z\n"
                                 "property uchar red\nproperty uchar green\nproperty uchar blue\n");
        for (float v : {7.f, 8.f, 9.f})
            append(b, v, true);
        b.append("\x01\x02\x03", 3);
        QTest::newRow("ply binary BE floats") << "ply" << b << TZVector3d(7, 8, 9) << true << 1;
    }
    {
        // A face element before the vertices (fixed size) is skipped.
        QByteArray b = "ply\nformat binary_little_endian 1.0\nelement camera 1\nproperty int id\n"
                       "element vertex 1\nproperty float x\nproperty float y\nproperty float "
                       "z\nend_header\n";
        append(b, qint32(42));
        for (float v : {1.f, 1.f, 1.f})
            append(b, v);
        QTest::newRow("ply element before vertices")
            << "ply" << b << TZVector3d(1, 1, 1) << false << 0;
    }
    QTest::newRow("las 1.2 format 0")
        << "las" << makeLas(2, 0, {{1000, 2000, 3000}, {1500, 2500, 3500}})
        << TZVector3d(650001.5, 6860002.5, 3.5) << false << 0;
    QTest::newRow("las 1.2 format 3, 16-bit colours")
        << "las" << makeLas(2, 3, {{0, 0, 0}, {1, 1, 1}}, {{0, 0, 0}, {65535, 256, 0}})
        << TZVector3d(650000.001, 6860000.001, 0.001) << true << 255;
    QTest::newRow("las 1.3 format 2, 8-bit colours")
        << "las" << makeLas(3, 2, {{0, 0, 0}}, {{200, 100, 50}}) << TZVector3d(650000, 6860000, 0)
        << true << 200;
    QTest::newRow("las 1.4 format 7") << "las" << makeLas(4, 7, {{5, 6, 7}}, {{512, 0, 0}})
                                      << TZVector3d(650000.005, 6860000.006, 0.007) << true << 2;
    QTest::newRow("las 1.4 format 6") << "las" << makeLas(4, 6, {{5, 6, 7}})
                                      << TZVector3d(650000.005, 6860000.006, 0.007) << false << 0;
    QTest::newRow("xyz with header and colours")
        << "xyz" << QByteArray("X Y Z R G B\n1,2,3,4,5,6\n\n# note\n7;8;9;10;11;12\n")
        << TZVector3d(7, 8, 9) << true << 10;
    QTest::newRow("xyz plain") << "xyz" << QByteArray("1 2 3\r\n4 5 6\r\n") << TZVector3d(4, 5, 6)
                               << false << 0;
    QTest::newRow("xyz tabs") << "xyz" << QByteArray("1\t2\t3\n4\t5\t6\n") << TZVector3d(4, 5, 6)
                              << false << 0;
    // x y z intensity r g b after a count line: the colours are the last three columns.
    QTest::newRow("pts with intensity and colours")
        << "pts" << QByteArray("2\n1 2 3 -1200 10 20 30\n4 5 6 350 40 50 60\n")
        << TZVector3d(4, 5, 6) << true << 40;
    QTest::newRow("pts: a count far beyond the points")
        << "pts" << QByteArray("6520000000\n1 2 3 0 10 20 30\n") << TZVector3d(1, 2, 3) << true
        << 10;
    QTest::newRow("pts intensity only")
        << "pts" << QByteArray("2\n1 2 3 0.5\n4 5 6 0.25\n") << TZVector3d(4, 5, 6) << false << 0;
    QTest::newRow("colours as fractions")
        << "xyz" << QByteArray("1 2 3 0.5 0.25 0.75\n4 5 6 1.0 0 0.2\n") << TZVector3d(4, 5, 6)
        << true << 255;
    QTest::newRow("colours as integers that stay below 2")
        << "xyz" << QByteArray("1 2 3 1 0 0\n4 5 6 1 1 0\n") << TZVector3d(4, 5, 6) << true << 1;
    QTest::newRow("xyzrgb: 0 and 1 are fractions")
        << "xyzrgb" << QByteArray("1 2 3 1 0 0\n") << TZVector3d(1, 2, 3) << true << 255;
    QTest::newRow("header says fractions") << "txt" << QByteArray("//X Y Z Rf Gf Bf\n1 2 3 1 0 0\n")
                                           << TZVector3d(1, 2, 3) << true << 255;
    QTest::newRow("csv header, columns by name")
        << "csv" << QByteArray("id,blue,x,green,y,red,z\n1,30,1.5,20,2.5,10,3.5\n")
        << TZVector3d(1.5, 2.5, 3.5) << true << 10;
    QTest::newRow("semicolons, decimal commas, northing first, a text column")
        << "csv"
        << QByteArray("Point;Northing;Easting;Elevation;Code\n1;6862345,25;652345,5;123,75;TREE\n")
        << TZVector3d(652345.5, 6862345.25, 123.75) << false << 0;
    QTest::newRow("quoted fields")
        << "csv" << QByteArray("\"x\",\"y\",\"z\"\n\"1.5\",\"2.5\",\"3.5\"\n")
        << TZVector3d(1.5, 2.5, 3.5) << false << 0;
    QTest::newRow("xyzn: normals are not colours")
        << "xyzn" << QByteArray("1 2 3 0 0 1\n") << TZVector3d(1, 2, 3) << false << 0;
    QTest::newRow("points without finite coordinates are skipped")
        << "xyz" << QByteArray("1 2 3\n4 5 6\nnan nan nan\n") << TZVector3d(4, 5, 6) << false << 0;
    QTest::newRow("pcd ascii, colour as float bits")
        << "pcd"
        << QByteArray("# .PCD v0.7\nVERSION 0.7\nFIELDS x y z rgb\nSIZE 4 4 4 4\nTYPE F F F "
                      "F\nCOUNT 1 1 1 1\n"
                      "WIDTH 2\nHEIGHT 1\nVIEWPOINT 0 0 0 1 0 0 0\nPOINTS 2\nDATA ascii\n"
                      "1 2 3 9.25571649e-40\n4 5 6 2.34180515e-38\n")
        << TZVector3d(4, 5, 6) << true << 255;
    {
        // Doubles, a padding field of 4 values, the colour as an unsigned integer, and an
        // organised cloud's NaN point.
        QByteArray b(
            "VERSION .7\nFIELDS x y z _ rgb\nSIZE 8 8 8 1 4\nTYPE F F F U U\nCOUNT 1 1 1 4 1\n"
            "WIDTH 1\nHEIGHT 2\nDATA binary\n");
        for (double v : {650000.25, 6860000.5, 12.0})
            append(b, v);
        b.append("pad!", 4);
        append(b, quint32(0x000a141e));
        for (double v : {std::nan(""), 0.0, 0.0})
            append(b, v);
        b.append("pad!", 4);
        append(b, quint32(0));
        QTest::newRow("pcd binary, doubles, padding, a NaN point")
            << "pcd" << b << TZVector3d(650000.25, 6860000.5, 12) << true << 10;
    }
}

void TestCloudFile::firstPictureOfFilesReadInOrder_data()
{
    // A survey stored row after row (800 rows of 750 points, 0.5 m apart), coloured by row.
    constexpr int ROW = 750, ROWS = 800;
    QByteArray ply("ply\nformat binary_little_endian 1.0\nelement vertex 600000\n"
                   "property float x\nproperty float y\nproperty float z\n"
                   "property uchar red\nproperty uchar green\nproperty uchar blue\nend_header\n");
    QByteArray pcd("VERSION .7\nFIELDS x y z rgb\nSIZE 4 4 4 4\nTYPE F F F U\nCOUNT 1 1 1 1\n"
                   "WIDTH 600000\nHEIGHT 1\nDATA binary\n");
    QByteArray text("// x y z r g b\n");
    for (int i = 0; i < ROW * ROWS; ++i) {
        for (const float v : {float(i % ROW) * 0.5f, float(i / ROW) * 0.5f, float(i % 5)}) {
            append(ply, v);
            append(pcd, v);
        }
        const uchar grey = uchar(i / ROW % 256);
        ply.append(char(grey)).append(char(grey)).append(char(grey));
        text += QByteArray::number(double(i % ROW) * 0.5) + ' '
            + QByteArray::number(double(i / ROW) * 0.5) + ' ' + QByteArray::number(i % 5) + ' '
            + QByteArray::number(grey) + ' ' + QByteArray::number(grey) + ' '
            + QByteArray::number(grey) + '\n';
        append(pcd, quint32(grey) << 16 | quint32(grey) << 8 | grey);
    }
    QTest::addColumn<QString>("format");
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("binary PLY") << "ply" << ply;
    QTest::newRow("binary PCD") << "pcd" << pcd;
    QTest::newRow("text") << "xyz" << text;
    // E57: the blocks are sought in the scan's streams (packets of 64 kB, fields of their own
    // widths), not read in order.
    std::vector<tzE57::ScanToWrite> scans(1);
    scans[0].name = QStringLiteral("rows");
    for (int i = 0; i < ROW * ROWS; ++i) {
        scans[0].xyz.insert(scans[0].xyz.end(), {(i % ROW) * 0.5, (i / ROW) * 0.5, double(i % 5)});
        const quint8 grey = quint8(i / ROW % 256);
        scans[0].colours.push_back({grey, grey, grey});
    }
    QByteArray e57;
    std::string problem;
    QVERIFY2(tzE57::writeFile(scans, e57, problem), problem.c_str());
    QTest::newRow("E57") << "e57" << e57;
}

void TestCloudFile::firstPictureOfFilesReadInOrder()
{
    QFETCH(QString, format);
    QFETCH(QByteArray, bytes);
    std::vector<TZVector3> shown;
    std::vector<tzRgb> shownColours;
    int pictures = 0;
    tzCloudFile::LoadOptions options;
    options.preview
        = [&](std::vector<TZVector3> &&points, std::vector<tzRgb> &&colours, const TZVector3d &) {
              ++pictures;
              shown = std::move(points);
              shownColours = std::move(colours);
          };
    QString error;
    const std::unique_ptr<tzPointCloud> cloud(
        tzCloudFile::loadFromMemory(bytes, format, "rows", error, options));
    QVERIFY2(cloud, qPrintable(error));
    QCOMPARE(cloud->size(), 600000u);
    // A 16th of the points, from every part of the file: rows from first to last.
    QCOMPARE(pictures, 1);
    if (format == QLatin1String("xyz")) // by bytes: about a 16th of the lines
        QVERIFY2(shown.size() > 600000 / 20 && shown.size() < 600000 / 12,
                 qPrintable(QString::number(shown.size())));
    else
        QCOMPARE(shown.size(), size_t(64 * (600000 / 1024)));
    QCOMPARE(shownColours.size(), shown.size());
    float low = 1e9f, high = -1e9f;
    for (size_t i = 0; i < shown.size(); ++i) {
        low = std::min(low, shown[i].y);
        high = std::max(high, shown[i].y);
        // Each is a point of the file with its colour.
        const unsigned row = unsigned(std::lround(shown[i].y / 0.5f));
        const unsigned index = row * 750 + unsigned(std::lround(shown[i].x / 0.5f));
        QVERIFY(index < cloud->size());
        if (!(*cloud->getPoint(index) == shown[i])
            || !(cloud->getPointColor(index) == shownColours[i]))
            QFAIL(qPrintable(QStringLiteral("preview point %1 is not the file's").arg(i)));
    }
    QVERIFY(high - low > 0.9f * 799 * 0.5f);
}

void TestCloudFile::goodFiles()
{
    QFETCH(QString, format);
    QFETCH(QByteArray, bytes);
    QFETCH(TZVector3d, lastPoint);
    QFETCH(bool, colors);
    QFETCH(int, lastRed);
    QString error;
    std::unique_ptr<tzPointCloud> cloud(tzCloudFile::loadFromMemory(bytes, format, "test", error));
    QVERIFY2(cloud, qPrintable(error));
    const TZVector3d global = cloud->toGlobal3d(*cloud->getPoint(cloud->size() - 1));
    for (int d = 0; d < 3; ++d)
        QVERIFY2(std::abs(global[d] - lastPoint[d]) < 1e-3,
                 qPrintable(QString::number(global[d], 'f', 4)));
    QCOMPARE(cloud->hasColors(), colors);
    if (colors)
        QCOMPARE(int(cloud->getPointColor(cloud->size() - 1).r), lastRed);
}

void TestCloudFile::attributesOfTextAndPly_data()
{
    QTest::addColumn<QString>("format");
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<int>("kinds");
    QTest::addColumn<QList<int>>("intensities");
    QTest::addColumn<QList<int>>("classes");
    const int both = tzPointDisplay::INTENSITY | tzPointDisplay::CLASSIFICATION;
    // The signed intensities of a scanner's export, stretched onto 16 bits in their order.
    QTest::newRow("pts, signed intensity")
        << "pts" << QByteArray("3\n1 2 3 -2048\n1 2 4 0\n1 2 5 2047\n")
        << int(tzPointDisplay::INTENSITY) << QList<int> {0, 32776, 65535} << QList<int> {};
    QTest::newRow("pts with colours")
        << "pts" << QByteArray("2\n1 2 3 10 255 0 0\n1 2 4 20 0 255 0\n")
        << int(tzPointDisplay::INTENSITY) << QList<int> {10, 20} << QList<int> {};
    // Whole numbers that fit are kept as they are.
    QTest::newRow("named columns")
        << "xyz" << QByteArray("x y z intensity classification\n1 2 3 300 2\n1 2 4 1200 6\n")
        << both << QList<int> {300, 1200} << QList<int> {2, 6};
    QTest::newRow("ply, fractions of 1, prefixed names")
        << "ply"
        << QByteArray("ply\nformat ascii 1.0\nelement vertex 3\nproperty float x\n"
                      "property float y\nproperty float z\nproperty float scalar_intensity\n"
                      "property uchar scalar_classification\nend_header\n"
                      "0 0 0 0 2\n0 0 1 0.5 6\n0 0 2 1 9\n")
        << both << QList<int> {0, 32768, 65535} << QList<int> {2, 6, 9};
    QTest::newRow("xyz without attributes")
        << "xyz" << QByteArray("1 2 3\n1 2 4\n") << 0 << QList<int> {} << QList<int> {};
}

void TestCloudFile::attributesOfTextAndPly()
{
    QFETCH(QString, format);
    QFETCH(QByteArray, bytes);
    QFETCH(QList<int>, intensities);
    QFETCH(QList<int>, classes);
    QString error;
    std::unique_ptr<tzPointCloud> cloud(tzCloudFile::loadFromMemory(bytes, format, "test", error));
    QVERIFY2(cloud, qPrintable(error));
    QTEST(int(cloud->attributeKinds()), "kinds");
    for (int i = 0; i < intensities.size(); ++i)
        QCOMPARE(int(cloud->getPointAttributes(unsigned(i)).intensity), intensities[i]);
    for (int i = 0; i < classes.size(); ++i)
        QCOMPARE(int(cloud->getPointAttributes(unsigned(i)).classification), classes[i]);
}

void TestCloudFile::brokenFiles_data()
{
    QTest::addColumn<QString>("format");
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("message");
    const char *xyzProps = "property float x\nproperty float y\nproperty float z\n";
    QTest::newRow("ply: not ply") << "ply" << QByteArray("hello\n") << "not a PLY file";
    QTest::newRow("ply: middle endian") << "ply" << plyHeader("binary_middle_endian", 1, xyzProps)
                                        << "unrecognized PLY format 'binary_middle_endian'";
    QTest::newRow("ply: no end_header")
        << "ply" << QByteArray("ply\nformat ascii 1.0\nelement vertex 1\n") << "no 'end_header'";
    QTest::newRow("ply: no z") << "ply"
                               << plyHeader("ascii", 1, "property float x\nproperty float y\n")
            + "1 2\n"
                               << "lacks x, y or z";
    QTest::newRow("ply: bad type")
        << "ply" << plyHeader("ascii", 1, "property quad x\n") << "unrecognized PLY property";
    QTest::newRow("ply: truncated binary")
        << "ply" << plyHeader("binary_little_endian", 3, xyzProps) + QByteArray(20, '\0')
        << "truncated: 3 vertices announced, data for 1";
    QTest::newRow("ply: ascii too few values")
        << "ply" << plyHeader("ascii", 2, xyzProps) + "1 2 3\n4 5\n"
        << "vertex 1: expected 3 numbers";
    QTest::newRow("ply: list in vertices")
        << "ply"
        << plyHeader("binary_little_endian", 1,
                     "property float x\nproperty float y\nproperty float z\n"
                     "property list uchar int idx\n")
        << "list properties";
    QTest::newRow("las: no signature") << "las" << QByteArray(300, 'x') << "no 'LASF' signature";
    QTest::newRow("las: short header")
        << "las" << QByteArray("LASF") + QByteArray(50, '\0') << "header is truncated";
    {
        QByteArray b = makeLas(2, 0, {{1, 2, 3}});
        b[104] = char(0x80);
        QTest::newRow("las: compressed without its VLR")
            << "las" << b << "compressed but there is no laszip VLR";
    }
    {
        QByteArray b = makeLas(2, 0, {{1, 2, 3}});
        b[104] = 11;
        QTest::newRow("las: format 11") << "las" << b << "point data format 11 is not supported";
    }
    QTest::newRow("las: truncated points")
        << "las" << makeLas(2, 1, {{1, 2, 3}, {4, 5, 6}}).chopped(10)
        << "truncated: 2 points announced, data for 1";
    QTest::newRow("las: zero scale")
        << "las" << makeLas(2, 0, {{1, 2, 3}}, {}, 0.0) << "invalid scale";
    QTest::newRow("las: version 2.0") << "las" << [] {
        QByteArray b = makeLas(2, 0, {{1, 2, 3}});
        b[24] = 2;
        return b;
    }() << "LAS version 2.2 is not supported";
    QTest::newRow("xyz: letters in data")
        << "xyz" << QByteArray("1 2 3\n4 five 6\n") << "line 2: expected 3 numbers";
    QTest::newRow("xyz: empty") << "xyz" << QByteArray("") << "no point";
    QTest::newRow("pts: a count and nothing else") << "pts" << QByteArray("12\n") << "no point";
    QTest::newRow("xyz: no finite point")
        << "xyz" << QByteArray("nan 1 2\n") << "no point with finite coordinates";
    QTest::newRow("csv: words after the data started")
        << "csv" << QByteArray("1,2,3\nx,y,z\n") << "line 2: expected 3 numbers, got 'x,y,z'";
    const QByteArray pcdHead(
        "FIELDS x y z\nSIZE 4 4 4\nTYPE F F F\nCOUNT 1 1 1\nWIDTH 3\nHEIGHT 1\nPOINTS 3\n");
    QTest::newRow("pcd: compressed")
        << "pcd" << pcdHead + "DATA binary_compressed\n" + QByteArray(40, '\0')
        << "binary_compressed";
    QTest::newRow("pcd: truncated binary")
        << "pcd" << pcdHead + "DATA binary\n" + QByteArray(20, '\0')
        << "3 points of 12 bytes announced, the data holds 20 bytes";
    QTest::newRow("pcd: no data line") << "pcd" << pcdHead << "no DATA line";
    QTest::newRow("pcd: no z") << "pcd"
                               << QByteArray(
                                      "FIELDS x y\nSIZE 4 4\nTYPE F F\nPOINTS 1\nDATA ascii\n1 2\n")
                               << "without x, y and z";
    QTest::newRow("pcd: sizes do not match")
        << "pcd" << QByteArray("FIELDS x y z\nSIZE 4 4\nTYPE F F F\nPOINTS 1\nDATA ascii\n")
        << "do not match";
    QTest::newRow("pcd: fewer points than announced") << "pcd" << pcdHead + "DATA ascii\n1 2 3\n"
                                                      << "3 points announced, 1 found";
}

void TestCloudFile::brokenFiles()
{
    QFETCH(QString, format);
    QFETCH(QByteArray, bytes);
    QFETCH(QString, message);
    QString error;
    std::unique_ptr<tzPointCloud> cloud(
        tzCloudFile::loadFromMemory(bytes, format, "broken." + format, error));
    QVERIFY(!cloud);
    QVERIFY2(error.startsWith("'broken." + format + "': "), qPrintable(error));
    QVERIFY2(error.contains(message), qPrintable(error));
}

void TestCloudFile::largeCoordinatesGetAShift()
{
    QString error;
    std::unique_ptr<tzPointCloud> cloud(tzCloudFile::loadFromMemory(
        "650123.4561 6860456.7892 101.2503\n650124.0004 6860457.0001 101.0\n", "xyz", "grid.xyz",
        error));
    QVERIFY(cloud);
    QCOMPARE(cloud->getGlobalShift(), TZVector3d(-650100, -6860500, 0));
    // Local floats keep the millimetre.
    const TZVector3 *p = cloud->getPoint(0);
    QVERIFY(std::abs(p->x - 23.4561f) < 1e-4f);
    QVERIFY(std::abs(p->y + 43.2108f) < 1e-4f);
    const TZVector3d back = cloud->toGlobal3d(*cloud->getPoint(1));
    QVERIFY(std::abs(back.x - 650124.0004) < 5e-4);
}

void TestCloudFile::shiftCanBeChangedOrRefused()
{
    tzCloudFile::LoadOptions options;
    options.confirmShift = [](TZVector3d &shift, bool) {
        shift = {-650000, -6860000, 0};
        return true;
    };
    QString error;
    std::unique_ptr<tzPointCloud> cloud(
        tzCloudFile::loadFromMemory("650001 6860002 3\n", "xyz", "a.xyz", error, options));
    QVERIFY(cloud);
    QCOMPARE(*cloud->getPoint(0), TZVector3(1, 2, 3));
    options.confirmShift = [](TZVector3d &, bool) { return false; };
    cloud.reset(tzCloudFile::loadFromMemory("650001 6860002 3\n", "xyz", "a.xyz", error, options));
    QVERIFY(!cloud);
    QCOMPARE(error, QStringLiteral("'a.xyz': loading cancelled"));
}

void TestCloudFile::loadByExtensionNamesTheFile()
{
    QTemporaryDir dir;
    const QString path = dir.filePath("site - Cloud.xyz");
    QFile f(path);
    QVERIFY(f.open(QIODevice::WriteOnly));
    f.write("1 2 3\n");
    f.close();
    QString error;
    std::unique_ptr<tzPointCloud> cloud(tzCloudFile::load(path, error));
    QVERIFY2(cloud, qPrintable(error));
    QCOMPARE(cloud->getName(), QStringLiteral("site - Cloud"));
    QVERIFY(!tzCloudFile::load(dir.filePath("missing.ply"), error));
    QVERIFY2(error.startsWith("'" + dir.filePath("missing.ply") + "': cannot open"),
             qPrintable(error));
    QVERIFY(!tzCloudFile::load(dir.filePath("cloud.e58"), error));
    QVERIFY(error.contains("unknown cloud file extension '.e58'"));
    // What the open dialog offers is what opens (in any case), and scenes are not clouds.
    const QString filter = tzCloudFile::openFilter();
    const QString clouds = filter.section(QLatin1Char('('), 1, 1).section(QLatin1Char(')'), 0, 0);
    QVERIFY2(clouds.contains("*.laz") && clouds.contains("*.xyzn") && !clouds.contains("*.tzs"),
             qPrintable(filter));
    for (QString pattern : clouds.split(QLatin1Char(' '))) {
        const QString path = dir.filePath("missing" + pattern.mid(1).toUpper());
        QVERIFY(!tzCloudFile::load(path, error));
        QVERIFY2(error.contains("cannot open"), qPrintable(error));
    }
    QVERIFY(tzCloudFile::isScene(dir.filePath("survey.TZS")));
    QVERIFY(!tzCloudFile::isScene(dir.filePath("survey.laz")));
}

void TestCloudFile::cancelLeavesNoCloud()
{
    QByteArray bytes;
    for (int i = 0; i < 3000000; ++i)
        bytes.append("1 2 3\n");
    tzCloudFile::LoadOptions options;
    int calls = 0;
    options.progress = [&calls](int) { return ++calls < 2; };
    QString error;
    std::unique_ptr<tzPointCloud> cloud(
        tzCloudFile::loadFromMemory(bytes, "xyz", "big.xyz", error, options));
    QVERIFY(!cloud);
    QCOMPARE(calls, 2);
    QVERIFY(error.contains("cancelled"));
}

void TestCloudFile::filesWrittenByAnotherProgram_data()
{
    // Written by another program's writers (tests/data/peer/make_peer_files.py); points.json
    // holds what they were given.
    QTest::addColumn<QString>("file");
    QTest::addColumn<bool>("colors");
    QTest::newRow("pts") << "cloud.pts" << true;
    QTest::newRow("xyzrgb") << "cloud.xyzrgb" << true;
    QTest::newRow("xyz") << "cloud.xyz" << false;
    QTest::newRow("pcd ascii") << "cloud_ascii.pcd" << true;
    QTest::newRow("pcd binary") << "cloud_binary.pcd" << true;
    QTest::newRow("ply binary") << "cloud_binary.ply" << true;
}

void TestCloudFile::filesWrittenByAnotherProgram()
{
    QFETCH(QString, file);
    QFETCH(bool, colors);
    const QString folder = QStringLiteral(TESSARO_TEST_DATA "/peer/");
    QFile expectedFile(folder + QStringLiteral("points.json"));
    QVERIFY(expectedFile.open(QIODevice::ReadOnly));
    const QJsonObject expected = QJsonDocument::fromJson(expectedFile.readAll()).object();
    const QJsonArray points = expected.value(QStringLiteral("points")).toArray();
    const QJsonArray rgb = expected.value(QStringLiteral("colors")).toArray();
    QString error;
    std::unique_ptr<tzPointCloud> cloud(tzCloudFile::load(folder + file, error));
    QVERIFY2(cloud, qPrintable(error));
    QCOMPARE(int(cloud->size()), points.size());
    QCOMPARE(cloud->hasColors(), colors);
    // The values were chosen so that floats hold them exactly: the coordinates come back exact.
    for (unsigned i = 0; i < cloud->size(); ++i) {
        const TZVector3d global = cloud->toGlobal3d(*cloud->getPoint(i));
        const QJsonArray p = points[int(i)].toArray();
        for (int d = 0; d < 3; ++d)
            QCOMPARE(global[d], p[d].toDouble());
        if (colors) {
            const QJsonArray c = rgb[int(i)].toArray();
            const tzRgb got = cloud->getPointColor(i);
            QCOMPARE(int(got.r), c[0].toInt());
            QCOMPARE(int(got.g), c[1].toInt());
            QCOMPARE(int(got.b), c[2].toInt());
        }
    }
}

void TestCloudFile::headersAreDescribedWithoutThePoints_data()
{
    QTest::addColumn<QString>("file");
    for (const char *name : {"las/simple.las", "las/simple.laz", "las/autzen.las",
                             "las/test1_4.las", "las/1_4_w_evlr.las", "las/1_4_w_evlr.laz",
                             "las/extra.laz", "las/simple1_3.las", "las/simple1_4.las"})
        QTest::newRow(name) << QString::fromLatin1(name);
}

void TestCloudFile::headersAreDescribedWithoutThePoints()
{
    // What --info says of other programs' files, against the bytes of their own headers.
    QFETCH(QString, file);
    const QString path = QStringLiteral(TESSARO_TEST_DATA "/") + file;
    QFile raw(path);
    QVERIFY(raw.open(QIODevice::ReadOnly));
    const QByteArray h = raw.read(375);
    const auto at = [&h](auto zero, int offset) {
        decltype(zero) v;
        std::memcpy(&v, h.constData() + offset, sizeof v);
        return v;
    };
    QJsonObject info;
    QString error;
    QVERIFY2(tzCloudFile::describe(path, info, error), qPrintable(error));
    const bool laz = (uchar(h[104]) & 0x80) != 0;
    QCOMPARE(info.value("format").toString(), QLatin1String(laz ? "LAZ" : "LAS"));
    QCOMPARE(info.value("version").toString(),
             QStringLiteral("%1.%2").arg(int(h[24])).arg(int(h[25])));
    QCOMPARE(info.value("pointFormat").toInt(), int(uchar(h[104]) & 0x3f));
    QCOMPARE(info.value("recordLength").toInt(), int(at(quint16(), 105)));
    const quint64 count
        = h[25] == 4 && at(quint32(), 107) == 0 ? at(quint64(), 247) : at(quint32(), 107);
    QCOMPARE(info.value("points").toDouble(), double(count));
    for (int d = 0; d < 3; ++d) {
        QCOMPARE(info.value("scale").toArray()[d].toDouble(), at(double(), 131 + 8 * d));
        QCOMPARE(info.value("offset").toArray()[d].toDouble(), at(double(), 155 + 8 * d));
        const QJsonObject bounds = info.value("bounds").toObject();
        QCOMPARE(bounds.value("max").toArray()[d].toDouble(), at(double(), 179 + 16 * d));
        QCOMPARE(bounds.value("min").toArray()[d].toDouble(), at(double(), 187 + 16 * d));
    }
    QCOMPARE(info.value("software").toString(),
             QString::fromLatin1(h.mid(58, 32)).remove(QChar(0)).trimmed());
    QCOMPARE(info.value("vlrs").toArray().size(), int(at(quint32(), 100)));
    if (h[25] == 4)
        QCOMPARE(info.value("evlrs").toArray().size(), int(at(quint32(), 243)));
    if (laz) {
        const QJsonObject compression = info.value("laz").toObject();
        QVERIFY(compression.value("chunks").toInt() >= 1);
        bool described = false;
        for (const QJsonValue &vlr : info.value("vlrs").toArray())
            described
                |= vlr.toObject().value("userId").toString() == QLatin1String("laszip encoded");
        QVERIFY(described);
    }
    // The text gives the same facts, one a line.
    const QString text = tzCloudFile::describeAsText(info);
    QVERIFY(text.contains(QStringLiteral("\npoints: %1\n").arg(count)));
}

QTEST_GUILESS_MAIN(TestCloudFile)
#include "tst_cloudfile.moc"
