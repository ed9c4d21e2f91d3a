// E57 files: their structure on files written by other programs (tests/data/e57/: the pages and
// their checksums, the XML section, the scans' and images' descriptions, the points' section
// headers), then as the viewer reads them: each scan a cloud placed by its pose, invalid points
// left out, intensities and colours scaled by their limits, pinhole pictures as photo lists, the
// conversions, and damaged files refused with their problem named.

#include "tzCloudFile.h"
#include "tzE57File.h"
#include "tzPointCloud.h"

#include <QBuffer>
#include <QFile>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

#include <array>
#include <cmath>
#include <memory>

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

QString writeTo(const QTemporaryDir &dir, const QString &name, const QByteArray &bytes)
{
    QFile file(dir.filePath(name));
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size() ? file.fileName()
                                                                                : QString();
}

//! The clouds of a group read from a file (or the cloud itself), with the notes said.
struct Read
{
    std::unique_ptr<tzHObject> object;
    std::vector<tzPointCloud *> clouds;
    QStringList notes;
    QString error;

    explicit Read(const QString &path)
    {
        tzCloudFile::LoadOptions options;
        options.note = [this](const QString &text) { notes << text; };
        object.reset(tzCloudFile::loadObjects(path, error, options));
        for (unsigned i = 0; object && i < object->getChildrenNumber(); ++i)
            clouds.push_back(dynamic_cast<tzPointCloud *>(object->getChild(i)));
    }
    //! A point's coordinates in the file (global).
    static TZVector3d global(const tzPointCloud *cloud, unsigned i)
    {
        const TZVector3 &p = cloud->point(i);
        return TZVector3d(p.x, p.y, p.z) - cloud->getGlobalShift();
    }
};

//! The rotation by angle about the vertical, as the quaternion of a pose.
std::array<double, 4> aboutZ(double angle)
{
    return {std::cos(angle / 2), 0, 0, std::sin(angle / 2)};
}

//! Page checksums made again after bytes of a file were changed.
void rechecksum(QByteArray &bytes)
{
    for (int at = 0; at + 1024 <= bytes.size(); at += 1024) {
        auto *p = reinterpret_cast<uchar *>(bytes.data()) + at;
        const quint32 crc = tzE57::crc32c(p, 1020);
        p[1020] = uchar(crc >> 24);
        p[1021] = uchar(crc >> 16);
        p[1022] = uchar(crc >> 8);
        p[1023] = uchar(crc);
    }
}

// Writes scans and opens what was written (the bytes must outlive the file).
bool writeAndOpen(const std::vector<tzE57::ScanToWrite> &scans, QByteArray &bytes,
                  tzE57::File &file, std::string &error)
{
    return tzE57::writeFile(scans, bytes, error)
        && file.open(reinterpret_cast<const uchar *>(bytes.constData()), size_t(bytes.size()),
                     error);
}

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
    void recordsAreSoughtAnywhere();
    void damagedFilesAreRefused_data();
    void damagedFilesAreRefused();
    void samplesOpenAsTheViewerShowsThem_data();
    void samplesOpenAsTheViewerShowsThem();
    void scansArePlacedByTheirPoses();
    void damagedRecordsAreRefused();
    void picturesBecomePhotoLists();
    void conversionsMergeOrSplitTheScans();
    void scaledLimitsScansWithoutColourAndEmptyScans();
    void describedFromItsXmlAlone();

private:
    QTemporaryDir m_cache;
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
    tzE57::File file;
    QVERIFY2(writeAndOpen(scans, bytes, file, error), error.c_str());
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

void TestE57::recordsAreSoughtAnywhere()
{
    // Fields of 2 bits (the invalid state), 16, 8 and 32 bits in streams spread over many
    // packets: a record sought anywhere reads as the same record read in order.
    std::vector<tzE57::ScanToWrite> scans(1);
    constexpr int N = 60000;
    for (int i = 0; i < N; ++i) {
        scans[0].xyz.insert(scans[0].xyz.end(), {i * 0.013, -i * 0.007, 100.0 + i % 17});
        scans[0].invalid.push_back(quint8(i % 3 == 2 ? 2 : (i % 5 == 1 ? 1 : 0)));
        scans[0].intensities.push_back(quint16(i * 13));
        scans[0].colours.push_back({quint8(i), quint8(i / 3), quint8(255 - i % 256)});
    }
    QByteArray bytes;
    std::string error;
    tzE57::File file;
    QVERIFY2(writeAndOpen(scans, bytes, file, error), error.c_str());
    const tzE57::Scan &scan = file.scans()[0];
    const size_t fields = scan.fields.size();
    std::vector<double> inOrder(size_t(N) * fields);
    {
        tzE57::Records records;
        QVERIFY2(records.open(file, scan, error), error.c_str());
        for (int i = 0; i < N; ++i)
            QVERIFY(records.next(inOrder.data() + size_t(i) * fields));
    }
    tzE57::Records records;
    QVERIFY2(records.open(file, scan, error), error.c_str());
    std::vector<std::vector<double>> values(fields, std::vector<double>(500));
    std::vector<double *> columns;
    for (auto &v : values)
        columns.push_back(v.data());
    // Forward, backward, one record, the last ones, and every bit offset of the 2-bit field.
    for (const int first : {31007, 5, 0, 59500, 17, 40001, 1, 2, 3, 4, 6, 7, 29999}) {
        const size_t n = size_t(std::min(500, N - first));
        QVERIFY2(records.seek(quint64(first), error), error.c_str());
        QCOMPARE(records.left(), quint64(N - first));
        QVERIFY2(records.read(n, columns.data(), error), error.c_str());
        for (size_t i = 0; i < n; ++i) {
            for (size_t k = 0; k < fields; ++k) {
                if (values[k][i] != inOrder[(size_t(first) + i) * fields + k])
                    QFAIL(qPrintable(
                        QStringLiteral("record %1, field %2").arg(first + int(i)).arg(k)));
            }
        }
    }
    QVERIFY(!records.seek(quint64(N) + 1, error));
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

void TestE57::samplesOpenAsTheViewerShowsThem_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<int>("points"); // -1: refused
    QTest::addColumn<QString>("said"); // the error, or a note
    QTest::newRow("scaled integers") << "bunnyInt32.e57" << 30571 << "";
    QTest::newRow("floats and colours") << "ColouredCubeFloat.e57" << 7680 << "";
    QTest::newRow("degenerate pinhole images")
        << "PinholeImageWithDistortionParameters.e57" << -1 << "the file holds no scans";
    QTest::newRow("empty") << "empty.e57" << -1 << "no points to show: the file holds no scans";
    QTest::newRow("a scan of no points") << "ZeroPoints.e57" << -1 << "hold no valid point";
    QTest::newRow("no section") << "ZeroPointsInvalid.e57" << -1 << "hold no valid point";
    QTest::newRow("bad section header")
        << "InvalidCVHeader.e57" << -1 << "scan 1: the points' section header at byte 48";
    QTest::newRow("bad checksum") << "bad-crc.e57" << -1 << "does not match its checksum";
}

void TestE57::samplesOpenAsTheViewerShowsThem()
{
    QFETCH(QString, file);
    QFETCH(int, points);
    QFETCH(QString, said);
    const QString path = QStringLiteral(TESSARO_TEST_DATA "/e57/") + file;
    Read read(path);
    if (points < 0) {
        QVERIFY(!read.object);
        QVERIFY2(read.error.startsWith("'" + path + "': ") && read.error.contains(said),
                 qPrintable(read.error));
        return;
    }
    QVERIFY2(read.object, qPrintable(read.error));
    QCOMPARE(read.object->getName(), QFileInfo(file).completeBaseName());
    QCOMPARE(int(read.clouds.size()), 1);
    QCOMPARE(int(read.clouds[0]->size()), points);
    // The cube's colours, scaled by the file's limits (0 to 255), are its own: not one grey.
    if (file.startsWith("Coloured")) {
        QVERIFY(read.clouds[0]->hasColors());
        QSet<int> reds;
        for (unsigned i = 0; i < read.clouds[0]->size(); ++i)
            reds.insert(read.clouds[0]->getPointColor(i).r);
        QVERIFY(reds.size() > 1);
    }
    // Merged into one cloud, the same points.
    QString error;
    std::unique_ptr<tzPointCloud> merged(tzCloudFile::load(path, error));
    QVERIFY2(merged, qPrintable(error));
    QCOMPARE(int(merged->size()), points);
}

void TestE57::scansArePlacedByTheirPoses()
{
    QStandardPaths::setTestModeEnabled(true);
    // Station A: cartesian, turned a quarter turn, in a national grid, every fifth point
    // invalid, intensities and colours. Station B: spherical coordinates, moved only.
    std::vector<tzE57::ScanToWrite> scans(2);
    scans[0].name = QStringLiteral("A");
    scans[0].pose.rotation = aboutZ(M_PI / 2);
    scans[0].pose.translation = {651200.25, 6861400.5, 112};
    for (int i = 0; i < 5000; ++i) {
        scans[0].xyz.insert(scans[0].xyz.end(), {1.0 + i * 0.002, -2.0, 0.5});
        scans[0].invalid.push_back(i % 5 == 4 ? 2 : 0);
        scans[0].intensities.push_back(quint16(i * 13));
        scans[0].colours.push_back({quint8(i), 7, 200});
    }
    scans[1].name = QStringLiteral("B");
    scans[1].spherical = true;
    scans[1].pose.translation = {651210, 6861390, 111};
    for (int i = 0; i < 3000; ++i)
        scans[1].xyz.insert(scans[1].xyz.end(), {10.0, i * 0.001, 0.25});
    QByteArray bytes;
    std::string problem;
    QVERIFY2(tzE57::writeFile(scans, bytes, problem), problem.c_str());
    QTemporaryDir dir;
    Read read(writeTo(dir, QStringLiteral("stations.e57"), bytes));
    QVERIFY2(read.object, qPrintable(read.error));
    QCOMPARE(read.object->getName(), QStringLiteral("stations"));
    QCOMPARE(int(read.clouds.size()), 2);
    const tzPointCloud *a = read.clouds[0], *b = read.clouds[1];
    QCOMPARE(a->getName(), QStringLiteral("A"));
    QCOMPARE(int(a->size()), 4000); // the invalid fifth left out
    QCOMPARE(int(b->size()), 3000);
    // One shift for both, small local floats.
    QCOMPARE(a->getGlobalShift(), b->getGlobalShift());
    QVERIFY(std::abs(a->point(0).x) < 1000 && std::abs(b->point(0).y) < 1000);
    // A's point (1, -2, 0.5) turned a quarter turn (x -> y, y -> -x) and moved.
    const TZVector3d first = Read::global(a, 0);
    QVERIFY2((first - TZVector3d(651202.25, 6861401.5, 112.5)).norm() < 0.002,
             qPrintable(QStringLiteral("%1 %2 %3")
                            .arg(first.x, 0, 'f', 3)
                            .arg(first.y, 0, 'f', 3)
                            .arg(first.z, 0, 'f', 3)));
    // The fifth record was invalid: the fifth point kept is the sixth written.
    const TZVector3d fifth = Read::global(a, 4);
    QVERIFY(std::abs(fifth.y - (6861401.5 + 5 * 0.002)) < 0.002);
    // B's point at range 10, azimuth i/1000, elevation 0.25.
    const double az = 0.7, flat = 10 * std::cos(0.25);
    const TZVector3d spherical = Read::global(b, 700);
    QVERIFY((spherical
             - TZVector3d(651210 + flat * std::cos(az), 6861390 + flat * std::sin(az),
                          111 + 10 * std::sin(0.25)))
                .norm()
            < 0.002);
    // Intensities over their 16-bit limits kept as they are, colours as they were.
    QVERIFY(a->hasAttribute(tzPointDisplay::INTENSITY));
    QCOMPARE(int(a->getPointAttributes(1).intensity), 13);
    QCOMPARE(int(a->getPointAttributes(4).intensity), 5 * 13);
    QCOMPARE(int(a->getPointColor(4).r), 5);
    QCOMPARE(int(a->getPointColor(4).b), 200);
    QVERIFY(!b->hasColors() && !b->hasAttribute(tzPointDisplay::INTENSITY));
    QVERIFY(read.notes.isEmpty());
}

void TestE57::damagedRecordsAreRefused()
{
    // A scan whose XML declares more records than its section holds, and one whose packets
    // are cut short: refused, with the scan and the problem named.
    std::vector<tzE57::ScanToWrite> scans(1);
    scans[0].name = QStringLiteral("cut");
    for (int i = 0; i < 5000; ++i)
        scans[0].xyz.insert(scans[0].xyz.end(), {i * 0.01, 0.0, 1.0});
    QByteArray bytes;
    std::string problem;
    QVERIFY2(tzE57::writeFile(scans, bytes, problem), problem.c_str());
    QTemporaryDir dir;
    QByteArray more = bytes;
    const int count = more.indexOf("recordCount=\"5000\"");
    QVERIFY(count > 0);
    more.replace(count, 18, "recordCount=\"9000\"");
    rechecksum(more);
    Read tooMany(writeTo(dir, QStringLiteral("more.e57"), more));
    QVERIFY(!tooMany.object);
    QVERIFY2(tooMany.error.contains("scan 'cut': the points' section holds at most"),
             qPrintable(tooMany.error));
    // The first packet's first stream made longer than the packet.
    QByteArray longer = bytes;
    const int packet = 48 + 32; // after the file's header and the section's
    longer[packet + 6] = char(0xff);
    longer[packet + 7] = char(0xff);
    rechecksum(longer);
    Read damaged(writeTo(dir, QStringLiteral("damaged.e57"), longer));
    QVERIFY(!damaged.object);
    QVERIFY2(damaged.error.contains("holds less than its streams' lengths"),
             qPrintable(damaged.error));
}

void TestE57::picturesBecomePhotoLists()
{
    QStandardPaths::setTestModeEnabled(true);
    // A scan and three pinhole pictures: one looking north, level, from 1.5 above the station;
    // one turned and tilted; one without a pose (skipped, said).
    std::vector<tzE57::ScanToWrite> scans(1);
    scans[0].name = QStringLiteral("S");
    scans[0].guid = QStringLiteral("{scan-1}");
    scans[0].pose.translation = {651200, 6861400, 112};
    for (int i = 0; i < 100; ++i)
        scans[0].xyz.insert(scans[0].xyz.end(), {i * 0.1, 5.0, 0.0});
    QImage picture(64, 48, QImage::Format_RGB32);
    picture.fill(Qt::blue);
    QByteArray png;
    QBuffer buffer(&png);
    buffer.open(QIODevice::WriteOnly);
    QVERIFY(picture.save(&buffer, "PNG"));
    std::vector<tzE57::ImageToWrite> images(3);
    for (tzE57::ImageToWrite &image : images) {
        image.scanGuid = scans[0].guid;
        image.picture = png;
        image.png = true;
        image.width = 64;
        image.height = 48;
        image.pixelWidth = image.pixelHeight = 1e-5;
        image.focalLength = 50 * 1e-5; // 50 pixels
        image.principalX = 32;
        image.principalY = 24;
        image.pose.translation = {651200, 6861400, 113.5};
    }
    // Camera frame: x right, y down, z ahead. North-looking: x east, y down, z north.
    images[0].name = QStringLiteral("north/level");
    images[0].pose.rotation = {std::sqrt(0.5), -std::sqrt(0.5), 0, 0};
    images[1].name = QStringLiteral("turned");
    images[1].pose.rotation = {0.6, -0.5, 0.3, 0.5477225575051661};
    images[2].name = QStringLiteral("no pose");
    images[2].hasPose = false;
    QByteArray bytes;
    std::string problem;
    QVERIFY2(tzE57::writeFile(scans, bytes, problem, images), problem.c_str());
    QTemporaryDir dir;
    Read read(writeTo(dir, QStringLiteral("photos.e57"), bytes));
    QVERIFY2(read.object, qPrintable(read.error));
    QCOMPARE(read.notes.size(), 1);
    QVERIFY2(read.notes[0].contains("image 'no pose' skipped: its camera has no pose"),
             qPrintable(read.notes[0]));
    const QString listPath = read.clouds[0]
                                 ->getMetaData(QLatin1String(tzGenericPointCloud::PHOTO_LIST_KEY))
                                 .toString();
    QFile list(listPath);
    QVERIFY2(list.open(QIODevice::ReadOnly), qPrintable(listPath));
    const QJsonArray photos = QJsonDocument::fromJson(list.readAll())["images"].toArray();
    QCOMPARE(photos.size(), 2);
    // The pictures beside the list, under names a file can take.
    const QJsonObject north = photos[0].toObject();
    QCOMPARE(north["camname"].toString(), QStringLiteral("north_level"));
    QVERIFY(!QImage(QFileInfo(listPath).dir().filePath("north_level.png")).isNull());
    QCOMPARE(north["camZ"].toDouble(), 113.5);
    QCOMPARE(north["f"].toDouble(), 50.0);
    QCOMPARE(north["cx"].toDouble(), 32.0);
    // Level and north: V along +y, the picture's up along +z.
    QVERIFY(std::abs(north["Vy"].toDouble() - 1) < 1e-9);
    QVERIFY(std::abs(north["roll"].toDouble() - M_PI / 2) < 1e-9);
    QVERIFY(std::abs(north["pitch"].toDouble()) < 1e-9 && std::abs(north["yaw"].toDouble()) < 1e-9);
    // Any pose: Rx(roll) Ry(pitch) Rz(yaw) has the columns right, up and -forward of the
    // camera, as the viewer draws a photo.
    const QJsonObject turned = photos[1].toObject();
    const double a = turned["roll"].toDouble(), b = turned["pitch"].toDouble(),
                 c = turned["yaw"].toDouble();
    const double rx[9] = {1, 0, 0, 0, std::cos(a), -std::sin(a), 0, std::sin(a), std::cos(a)};
    const double ry[9] = {std::cos(b), 0, std::sin(b), 0, 1, 0, -std::sin(b), 0, std::cos(b)};
    const double rz[9] = {std::cos(c), -std::sin(c), 0, std::sin(c), std::cos(c), 0, 0, 0, 1};
    const auto times = [](const double *l, const double *r, double *out) {
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
                out[3 * i + j]
                    = l[3 * i] * r[j] + l[3 * i + 1] * r[3 + j] + l[3 * i + 2] * r[6 + j];
    };
    double ryz[9], r[9];
    times(ry, rz, ryz);
    times(rx, ryz, r);
    // The quaternion's matrix: its third column is the camera's z (forward), its second y
    // (down).
    const double w = 0.6, x = -0.5, y = 0.3, z = 0.5477225575051661;
    const double forward[3] = {2 * (x * z + w * y), 2 * (y * z - w * x), 1 - 2 * (x * x + y * y)};
    const double down[3] = {2 * (x * y - w * z), 1 - 2 * (x * x + z * z), 2 * (y * z + w * x)};
    for (int i = 0; i < 3; ++i) {
        QVERIFY(std::abs(r[3 * i + 2] + forward[i]) < 1e-9);
        QVERIFY(std::abs(r[3 * i + 1] + down[i]) < 1e-9);
    }
    QVERIFY(std::abs(turned["Vx"].toDouble() - forward[0]) < 1e-9);
}

void TestE57::conversionsMergeOrSplitTheScans()
{
    std::vector<tzE57::ScanToWrite> scans(2);
    scans[0].name = QStringLiteral("Station 1");
    scans[1].name = QStringLiteral("Station 2");
    for (int i = 0; i < 1000; ++i) {
        scans[0].xyz.insert(scans[0].xyz.end(), {i * 0.01, 0.0, 1.0});
        scans[1].xyz.insert(scans[1].xyz.end(), {0.0, i * 0.01, 2.0});
    }
    scans[1].pose.translation = {100, 200, 0};
    QByteArray bytes;
    std::string problem;
    QVERIFY2(tzE57::writeFile(scans, bytes, problem), problem.c_str());
    QTemporaryDir dir;
    const QString e57 = writeTo(dir, QStringLiteral("site.e57"), bytes);
    QString error;
    QVERIFY2(tzCloudFile::convert(e57, dir.filePath("site.las"), error), qPrintable(error));
    std::unique_ptr<tzPointCloud> merged(tzCloudFile::load(dir.filePath("site.las"), error));
    QVERIFY2(merged, qPrintable(error));
    QCOMPARE(int(merged->size()), 2000);
    QVERIFY((Read::global(merged.get(), 1999) - TZVector3d(100, 209.99, 2)).norm() < 0.002);
    QStringList written;
    QVERIFY2(tzCloudFile::convertScans(e57, dir.filePath("out.laz"), written, error),
             qPrintable(error));
    QCOMPARE(written,
             QStringList({dir.filePath("out-Station_1.laz"), dir.filePath("out-Station_2.laz")}));
    std::unique_ptr<tzPointCloud> second(tzCloudFile::load(written[1], error));
    QVERIFY2(second, qPrintable(error));
    QCOMPARE(int(second->size()), 1000);
    QVERIFY((Read::global(second.get(), 0) - TZVector3d(100, 200, 2)).norm() < 0.002);
    // A damaged input leaves nothing behind.
    QByteArray damaged = bytes;
    damaged[3000] = char(damaged[3000] ^ 0x55);
    const QString bad = writeTo(dir, QStringLiteral("bad.e57"), damaged);
    QVERIFY(!tzCloudFile::convertScans(bad, dir.filePath("bad.las"), written, error));
    QVERIFY2(error.contains("page 3 of") && error.contains("bad.e57"), qPrintable(error));
    QVERIFY(written.isEmpty() && !QFile::exists(dir.filePath("bad-Station_1.las")));
}

void TestE57::scaledLimitsScansWithoutColourAndEmptyScans()
{
    // An empty scan whose section says its data starts at 0 (as some writers leave it), a scan
    // in colour whose intensity limits are scaled integers (0 to 131070 x 0.5), and a scan
    // without colour.
    std::vector<tzE57::ScanToWrite> scans(3);
    scans[0].name = QStringLiteral("empty");
    scans[1].name = QStringLiteral("coloured");
    scans[1].intensityLimitScale = 0.5;
    scans[2].name = QStringLiteral("plain");
    for (int i = 0; i < 100; ++i) {
        scans[1].xyz.insert(scans[1].xyz.end(), {i * 0.01, 0.0, 1.0});
        scans[1].intensities.push_back(quint16(i * 13));
        scans[1].colours.push_back({quint8(i), 7, 200});
    }
    for (int i = 0; i < 50; ++i) {
        scans[2].xyz.insert(scans[2].xyz.end(), {i * 0.01, 1.0, 1.0});
        scans[2].intensities.push_back(quint16(i * 7));
    }
    QByteArray bytes;
    std::string problem;
    QVERIFY2(tzE57::writeFile(scans, bytes, problem), problem.c_str());
    const int dataOffset = 48 + 16; // the first scan's section follows the file's header
    bytes.replace(dataOffset, 8, QByteArray(8, '\0'));
    rechecksum(bytes);
    QTemporaryDir dir;
    const QString path = writeTo(dir, QStringLiteral("mixed.e57"), bytes);

    Read read(path);
    QVERIFY2(read.object, qPrintable(read.error));
    QCOMPARE(int(read.clouds.size()), 2);
    QCOMPARE(read.clouds[0]->getName(), QStringLiteral("coloured"));
    QVERIFY2(read.notes.join('|').contains(QStringLiteral("empty holds no valid point: left out")),
             qPrintable(read.notes.join('|')));
    // The limits' scale applied: the intensities are the ones written (not halved).
    QCOMPARE(int(read.clouds[0]->getPointAttributes(1).intensity), 13);
    QCOMPARE(int(read.clouds[0]->getPointAttributes(99).intensity), 99 * 13);

    // Merged, the colours stay; the scan without any is white, and the console says so.
    QStringList notes;
    tzCloudFile::LoadOptions options;
    options.note = [&notes](const QString &text) { notes << text; };
    QString error;
    std::unique_ptr<tzPointCloud> merged(tzCloudFile::load(path, error, options));
    QVERIFY2(merged, qPrintable(error));
    QCOMPARE(int(merged->size()), 150);
    QVERIFY(merged->hasColors());
    QCOMPARE(merged->getPointColor(1), (tzRgb {1, 7, 200}));
    QCOMPARE(merged->getPointColor(120), (tzRgb {255, 255, 255}));
    QVERIFY2(notes.join('|').contains(QStringLiteral("plain without colour: white")),
             qPrintable(notes.join('|')));
}

void TestE57::describedFromItsXmlAlone()
{
    // Other programs' files: their scans and pictures as their XML gives them.
    QJsonObject info;
    QString error;
    QVERIFY2(
        tzCloudFile::describe(QStringLiteral(TESSARO_TEST_DATA "/e57/bunnyInt32.e57"), info, error),
        qPrintable(error));
    QCOMPARE(info.value("format").toString(), QStringLiteral("E57"));
    const QJsonObject bunny = info.value("scans").toArray()[0].toObject();
    QCOMPARE(bunny.value("name").toString(), QStringLiteral("bunny"));
    QCOMPARE(bunny.value("points").toInt(), 30571);
    QCOMPARE(info.value("points").toInt(), 30571);
    QVERIFY(tzCloudFile::describe(
        QStringLiteral(TESSARO_TEST_DATA "/e57/PinholeImageWithDistortionParameters.e57"), info,
        error));
    QCOMPARE(info.value("images").toArray().size(), 3);
    QCOMPARE(info.value("images").toArray()[0].toObject().value("representation").toString(),
             QStringLiteral("pinholeRepresentation"));
    // Ours, with a picture's pose: a damaged page of points does not stop the description (no
    // point is read), while opening the file refuses it.
    std::vector<tzE57::ScanToWrite> scans(1);
    scans[0].name = QStringLiteral("station");
    scans[0].pose.translation = {651200, 6861400, 112};
    for (int i = 0; i < 4000; ++i)
        scans[0].xyz.insert(scans[0].xyz.end(), {i * 0.01, 0.0, 1.0});
    QByteArray bytes;
    std::string problem;
    QVERIFY2(tzE57::writeFile(scans, bytes, problem), problem.c_str());
    bytes[1500] = char(bytes[1500] ^ 0x55); // in the second page, among the points
    QTemporaryDir dir;
    const QString path = writeTo(dir, QStringLiteral("damaged.e57"), bytes);
    QVERIFY2(tzCloudFile::describe(path, info, error), qPrintable(error));
    const QJsonObject station = info.value("scans").toArray()[0].toObject();
    QCOMPARE(station.value("points").toInt(), 4000);
    QCOMPARE(station.value("pose").toObject().value("translation").toArray()[0].toDouble(),
             651200.0);
    QVERIFY(!Read(path).object);
}

QTEST_GUILESS_MAIN(TestE57)
#include "tst_e57.moc"
