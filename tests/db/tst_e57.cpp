// The E57 file's structure, on files written by other programs (tests/data/e57/): the pages and
// their checksums, the XML section, the scans' and images' descriptions, the points' section
// headers.

#include "tzE57File.h"

#include <QFile>
#include <QtTest>

namespace {

QByteArray bytesOf(const QString &name)
{
    QFile file(QStringLiteral(TESSARO_TEST_DATA "/e57/") + name);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

struct Opened
{
    QByteArray bytes;
    tzE57::File file;
    std::string error;
    bool ok = false;

    explicit Opened(const QString &name)
        : bytes(bytesOf(name))
    {
        ok = file.open(reinterpret_cast<const uchar *>(bytes.constData()), size_t(bytes.size()),
                       error);
    }
};

} // namespace

class TestE57 : public QObject
{
    Q_OBJECT

private slots:
    void checksumsAndOffsets();
    void filesWrittenByOthers_data();
    void filesWrittenByOthers();
    void scanDescriptions();
    void recordsLieWithinTheDeclaredBounds();
    void writtenScansReadBack();
    void damagedFilesAreRefused_data();
    void damagedFilesAreRefused();
};

void TestE57::checksumsAndOffsets()
{
    // The standard check value of CRC-32C.
    const QByteArray digits("123456789");
    QCOMPARE(tzE57::crc32c(reinterpret_cast<const uchar *>(digits.constData()), 9), 0xE3069283u);
    // Physical offsets step over the 4 bytes of checksum at the end of each page.
    QCOMPARE(tzE57::File::advance(48, 972), quint64(1024));
    QCOMPARE(tzE57::File::advance(1019, 1), quint64(1024));
    QCOMPARE(tzE57::File::advance(1000, 1040), quint64(2048));
    QCOMPARE(tzE57::File::advance(1024, 1020 * 3 + 5), quint64(4096 + 5));
}

void TestE57::filesWrittenByOthers_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<int>("scans");
    QTest::addColumn<int>("images");
    QTest::newRow("scaled integers") << "bunnyInt32.e57" << 1 << 0;
    QTest::newRow("floats and colours") << "ColouredCubeFloat.e57" << 1 << 0;
    QTest::newRow("pinhole images, no scan")
        << "PinholeImageWithDistortionParameters.e57" << 0 << 3;
    QTest::newRow("empty") << "empty.e57" << 0 << 0;
    QTest::newRow("a scan of no points") << "ZeroPoints.e57" << 1 << 0;
}

void TestE57::filesWrittenByOthers()
{
    QFETCH(QString, file);
    Opened e57(file);
    QVERIFY2(e57.ok, e57.error.c_str());
    QTEST(int(e57.file.scans().size()), "scans");
    QTEST(int(e57.file.images().size()), "images");
    for (const tzE57::Image &image : e57.file.images())
        QCOMPARE(image.representation, QStringLiteral("pinholeRepresentation"));
}

void TestE57::scanDescriptions()
{
    // What the XML of each file declares (read apart with a text editor).
    Opened bunny(QStringLiteral("bunnyInt32.e57"));
    QVERIFY2(bunny.ok, bunny.error.c_str());
    const tzE57::Scan &scan = bunny.file.scans().front();
    QCOMPARE(scan.name, QStringLiteral("bunny"));
    QCOMPARE(scan.recordCount, quint64(30571));
    QCOMPARE(int(scan.fields.size()), 4);
    const tzE57::Field *x = scan.field(QStringLiteral("cartesianX"));
    QVERIFY(x && x->kind == tzE57::Field::ScaledInteger);
    QCOMPARE(x->bits(), 32);
    QVERIFY(std::abs(x->scale - 1e-6) < 1e-18);
    QCOMPARE(scan.field(QStringLiteral("cartesianInvalidState"))->bits(), 1);
    tzE57::SectionHeader header;
    std::string error;
    QVERIFY2(bunny.file.sectionHeader(scan.fileOffset, header, error), error.c_str());
    QVERIFY(header.dataOffset > scan.fileOffset);
    // An identity pose where the file gives none.
    QCOMPARE(scan.pose.rotation[0], 1.0);
    QCOMPARE(scan.pose.translation[2], 0.0);

    Opened cube(QStringLiteral("ColouredCubeFloat.e57"));
    QVERIFY2(cube.ok, cube.error.c_str());
    const tzE57::Scan &coloured = cube.file.scans().front();
    QCOMPARE(coloured.recordCount, quint64(7680));
    const tzE57::Field *y = coloured.field(QStringLiteral("cartesianY"));
    QVERIFY(y && y->kind == tzE57::Field::Float && y->singlePrecision);
    QCOMPARE(y->bits(), 32);
    QCOMPARE(coloured.field(QStringLiteral("colorRed"))->bits(), 8);
    QCOMPARE(coloured.colourMax[2], 255.0);
}

void TestE57::recordsLieWithinTheDeclaredBounds()
{
    // The bunny: every record decodes, each coordinate within the bounds its writer put in the
    // XML; the first point as the stream holds it (read apart: raw 2147413018 over a minimum
    // of -2^31, times 1e-6).
    Opened bunny(QStringLiteral("bunnyInt32.e57"));
    QVERIFY2(bunny.ok, bunny.error.c_str());
    const tzE57::Scan &scan = bunny.file.scans().front();
    tzE57::Records records;
    std::string error;
    QVERIFY2(records.open(bunny.file, scan, error), error.c_str());
    const tzE57::Node *bounds = bunny.file.root()
                                    .child(QStringLiteral("data3D"))
                                    ->children.front()
                                    .child(QStringLiteral("cartesianBounds"));
    QVERIFY(bounds);
    const char *axes[3] = {"x", "y", "z"};
    double values[4];
    quint64 count = 0;
    while (records.next(values)) {
        if (count == 0)
            QVERIFY(std::abs(values[0] - (-0.070630)) < 1e-9);
        for (int d = 0; d < 3; ++d) {
            const double low
                = bounds->numberOf(QStringLiteral("%1Minimum").arg(QLatin1String(axes[d])));
            const double high
                = bounds->numberOf(QStringLiteral("%1Maximum").arg(QLatin1String(axes[d])));
            QVERIFY2(values[d] >= low - 1e-9 && values[d] <= high + 1e-9,
                     qPrintable(QStringLiteral("record %1: %2").arg(count).arg(values[d])));
        }
        QVERIFY(values[3] == 0 || values[3] == 1);
        ++count;
    }
    QCOMPARE(count, scan.recordCount);

    // The cube: single floats within its half-unit box, 8-bit colours, not all one colour.
    Opened cube(QStringLiteral("ColouredCubeFloat.e57"));
    QVERIFY2(cube.ok, cube.error.c_str());
    QVERIFY2(records.open(cube.file, cube.file.scans().front(), error), error.c_str());
    double cubeValues[6];
    count = 0;
    QSet<int> reds;
    while (records.next(cubeValues)) {
        for (int d = 0; d < 3; ++d)
            QVERIFY(std::abs(cubeValues[d]) <= 0.5);
        for (int c = 3; c < 6; ++c)
            QVERIFY(cubeValues[c] >= 0 && cubeValues[c] <= 255
                    && cubeValues[c] == std::floor(cubeValues[c]));
        reds.insert(int(cubeValues[3]));
        ++count;
    }
    QCOMPARE(count, quint64(7680));
    QVERIFY(reds.size() > 1);
}

void TestE57::writtenScansReadBack()
{
    // Two scans over several packets and pages, one with intensities and colours, each with a
    // pose, and an empty one.
    std::vector<tzE57::ScanToWrite> scans(3);
    scans[0].name = QStringLiteral("station 1");
    scans[1].name = QStringLiteral("station 2");
    scans[2].name = QStringLiteral("nothing");
    for (int i = 0; i < 5000; ++i) {
        scans[0].xyz.insert(scans[0].xyz.end(), {i * 0.013, -i * 0.007, 100.0 + i % 17});
        scans[0].intensities.push_back(quint16(i * 13));
        scans[0].colours.push_back({quint8(i), quint8(i / 3), quint8(255 - i % 256)});
    }
    for (int i = 0; i < 2100; ++i)
        scans[1].xyz.insert(scans[1].xyz.end(), {-i * 0.5, i * 0.25, -3.0});
    scans[1].pose.rotation = {0.7071067811865476, 0, 0, 0.7071067811865476};
    scans[1].pose.translation = {651200.5, 6861400.25, 112};
    QByteArray bytes;
    std::string error;
    QVERIFY2(tzE57::writeFile(scans, bytes, error), error.c_str());
    tzE57::File file;
    QVERIFY2(
        file.open(reinterpret_cast<const uchar *>(bytes.constData()), size_t(bytes.size()), error),
        error.c_str());
    QCOMPARE(int(file.scans().size()), 3);
    QCOMPARE(file.scans()[1].name, QStringLiteral("station 2"));
    QCOMPARE(file.scans()[1].pose.translation[1], 6861400.25);
    QCOMPARE(file.scans()[1].pose.rotation[3], 0.7071067811865476);
    QCOMPARE(file.scans()[2].recordCount, quint64(0));
    for (size_t s = 0; s < scans.size(); ++s) {
        tzE57::Records records;
        QVERIFY2(records.open(file, file.scans()[s], error), error.c_str());
        double values[7];
        size_t i = 0;
        while (records.next(values)) {
            for (int d = 0; d < 3; ++d)
                QVERIFY(std::abs(values[d] - scans[s].xyz[3 * i + size_t(d)]) <= 0.0005);
            if (!scans[s].intensities.empty()) {
                QCOMPARE(values[3], double(scans[s].intensities[i]));
                for (int c = 0; c < 3; ++c)
                    QCOMPARE(values[4 + c], double(scans[s].colours[i][size_t(c)]));
            }
            ++i;
        }
        QCOMPARE(i, scans[s].xyz.size() / 3);
    }
}

void TestE57::damagedFilesAreRefused_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QString>("problem");
    QTest::newRow("bad checksum") << "bad-crc.e57"
                                  << "page 1 of 1 (at byte 0) does not match its checksum";
    QTest::newRow("compressed vector's header") << "InvalidCVHeader.e57"
                                                << "section header at byte";
    QTest::newRow("section at offset 0") << "ZeroPointsInvalid.e57"
                                         << "outside the file";
}

void TestE57::damagedFilesAreRefused()
{
    QFETCH(QString, file);
    QFETCH(QString, problem);
    Opened e57(file);
    std::string error = e57.error;
    if (e57.ok) {
        // The structure holds; the points' section is what is wrong.
        QCOMPARE(int(e57.file.scans().size()), 1);
        tzE57::SectionHeader header;
        QVERIFY(!e57.file.sectionHeader(e57.file.scans().front().fileOffset, header, error));
    }
    QVERIFY2(QString::fromStdString(error).contains(problem), error.c_str());
    // Cut short, a good file is refused at its header.
    Opened bunny(QStringLiteral("bunnyInt32.e57"));
    tzE57::File cut;
    std::string cutError;
    QVERIFY(!cut.open(reinterpret_cast<const uchar *>(bunny.bytes.constData()), 5000, cutError));
    QVERIFY(QString::fromStdString(cutError).contains("truncated"));
}

QTEST_GUILESS_MAIN(TestE57)
#include "tst_e57.moc"
