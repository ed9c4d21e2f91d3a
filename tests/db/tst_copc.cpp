// Indexing clouds into COPC: every point of every input comes out once, with its LAS fields,
// in a node whose cube holds it, under a hierarchy walked from the root; an independent COPC
// reader finds the same nodes with the same points; a failure or a cancel leaves nothing.

#include "tzCloudFile.h"
#include "tzCopc.h"
#include "tzPointCloud.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <cmath>
#include <cstring>
#include <random>
#include <set>
#include <tuple>

namespace {

template<typename T> void store(QByteArray &b, int offset, T value)
{
    b.replace(offset, int(sizeof value), reinterpret_cast<const char *>(&value), int(sizeof value));
}

// What a point is to a surveyor, whatever the point format it is stored in: coordinates in
// millimetres, the LAS fields, the scan angle in hundredths of a degree.
struct Fields
{
    qint64 x, y, z;
    int intensity, returnNumber, returns, classification, flags, angle, user, source;
    qint64 gpsMicro;
    int red, green, blue, nir;
    QByteArray extra;

    auto tied() const
    {
        return std::tie(x, y, z, intensity, returnNumber, returns, classification, flags, angle,
                        user, source, gpsMicro, red, green, blue, nir, extra);
    }
    bool operator<(const Fields &o) const { return tied() < o.tied(); }
    bool operator==(const Fields &o) const { return tied() == o.tied(); }
};

// A LAS file of a survey's ground and trees, points of the given format (legacy 0 to 3 in LAS
// 1.2, 6 to 8 in LAS 1.4), with extra bytes (a described uint32) when asked. Its fields as
// they should come out are added to expected.
QByteArray surveyLas(int format, int count, quint32 seed, double offsetX, int extra,
                     std::vector<Fields> &expected)
{
    static const int CORE[] = {20, 28, 26, 34, 57, 63, 30, 36, 38};
    const bool modern = format >= 6;
    const int length = CORE[format] + extra;
    const int headerSize = modern ? 375 : 227;
    QByteArray vlrs;
    if (extra > 0) {
        QByteArray vlr(54 + 192, '\0');
        vlr.replace(2, 9, "LASF_Spec");
        store<quint16>(vlr, 18, 4);
        store<quint16>(vlr, 20, 192);
        vlr[54 + 2] = 6; // uint32
        vlr.replace(54 + 4, 6, "height");
        vlrs = vlr;
    }
    QByteArray h(headerSize, '\0');
    h.replace(0, 4, "LASF");
    h[24] = 1;
    h[25] = char(modern ? 4 : 2);
    store<quint16>(h, 94, quint16(headerSize));
    store<quint32>(h, 96, quint32(headerSize + vlrs.size()));
    store<quint32>(h, 100, extra > 0 ? 1u : 0u);
    h[104] = char(format);
    store<quint16>(h, 105, quint16(length));
    if (!modern)
        store<quint32>(h, 107, quint32(count));
    const double scale = 0.01, offset[3] = {offsetX, 6860000.0, 0.0};
    for (int a = 0; a < 3; ++a) {
        store<double>(h, 131 + 8 * a, scale);
        store<double>(h, 155 + 8 * a, offset[a]);
    }
    if (modern)
        store<quint64>(h, 247, quint64(count));
    std::mt19937 random(seed);
    const auto upTo = [&random](int n) { return int(random() % quint32(n)); };
    std::vector<uchar> records(size_t(count) * size_t(length));
    double min[3] = {1e300, 1e300, 1e300}, max[3] = {-1e300, -1e300, -1e300};
    for (int i = 0; i < count; ++i) {
        uchar *r = records.data() + size_t(i) * size_t(length);
        // Ground over 400 x 250 m, a tree now and then; some points on one spot.
        const qint32 x = i % 97 == 0 ? 12345 : upTo(40000);
        const qint32 y = i % 97 == 0 ? 6789 : upTo(25000);
        const double ground = 10000 + 500 * std::sin(x / 3000.0);
        const qint32 z = qint32(ground + (i % 5 == 0 ? upTo(2000) : upTo(20)));
        const qint32 xyz[3] = {x, y, z};
        std::memcpy(r, xyz, 12);
        Fields f {};
        f.x = std::llround((x * scale + offset[0]) * 1000);
        f.y = std::llround((y * scale + offset[1]) * 1000);
        f.z = std::llround((z * scale + offset[2]) * 1000);
        for (int a = 0; a < 3; ++a) {
            min[a] = std::min(min[a], xyz[a] * scale + offset[a]);
            max[a] = std::max(max[a], xyz[a] * scale + offset[a]);
        }
        f.intensity = upTo(65536);
        std::memcpy(r + 12, &f.intensity, 2);
        f.returns = 1 + upTo(modern ? 15 : 7);
        f.returnNumber = 1 + upTo(f.returns);
        f.user = upTo(256);
        f.source = upTo(65536);
        const double t = 300000.0 + i * 0.25;
        f.gpsMicro = std::llround(t * 1e6);
        const bool direction = upTo(2), edge = upTo(2);
        if (modern) {
            r[14] = uchar(f.returnNumber | f.returns << 4);
            f.flags = upTo(16);
            r[15] = uchar(f.flags | (direction ? 0x40 : 0) | (edge ? 0x80 : 0));
            f.classification = upTo(256);
            r[16] = uchar(f.classification);
            r[17] = uchar(f.user);
            const qint16 angle = qint16(upTo(30001) - 15000);
            std::memcpy(r + 18, &angle, 2);
            f.angle = int(std::lround(angle * 0.006 * 100));
            std::memcpy(r + 20, &f.source, 2);
            std::memcpy(r + 22, &t, 8);
        } else {
            r[14] = uchar(f.returnNumber | f.returns << 3 | (direction ? 0x40 : 0)
                          | (edge ? 0x80 : 0));
            f.classification = upTo(32);
            const int legacyFlags = upTo(8); // synthetic, key-point, withheld
            r[15] = uchar(f.classification | legacyFlags << 5);
            f.flags = legacyFlags;
            const qint8 angle = qint8(upTo(181) - 90);
            r[16] = uchar(angle);
            f.angle = angle * 100;
            r[17] = uchar(f.user);
            std::memcpy(r + 18, &f.source, 2);
            if (format == 1 || format == 3)
                std::memcpy(r + 20, &t, 8);
            else
                f.gpsMicro = 0;
        }
        f.flags |= (direction ? 0x40 : 0) | (edge ? 0x80 : 0);
        const int rgbAt = format == 2 ? 20 : format == 3 ? 28 : format >= 7 ? 30 : -1;
        if (rgbAt >= 0) {
            const quint16 rgb[4] = {quint16(upTo(65536)), quint16(upTo(65536)),
                                    quint16(upTo(65536)), quint16(upTo(65536))};
            std::memcpy(r + rgbAt, rgb, format == 8 ? 8 : 6);
            f.red = rgb[0];
            f.green = rgb[1];
            f.blue = rgb[2];
            f.nir = format == 8 ? rgb[3] : 0;
        } else {
            f.red = f.green = f.blue = -1; // no colour: depends on the output
        }
        for (int b = 0; b < extra; ++b)
            r[CORE[format] + b] = uchar(upTo(256));
        f.extra = QByteArray(reinterpret_cast<const char *>(r) + CORE[format], extra);
        expected.push_back(f);
    }
    for (int a = 0; a < 3; ++a) {
        store<double>(h, 179 + 16 * a, max[a]);
        store<double>(h, 187 + 16 * a, min[a]);
    }
    return h + vlrs
        + QByteArray(reinterpret_cast<const char *>(records.data()), int(records.size()));
}

bool write(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

// The fields of a COPC record (point formats 6 to 8).
Fields fieldsOf(const tzCopc::File &copc, const uchar *r, int extra)
{
    const tzCopc::Point p = copc.pointOf(r);
    Fields f {};
    f.x = std::llround(p.x * 1000);
    f.y = std::llround(p.y * 1000);
    f.z = std::llround(p.z * 1000);
    f.intensity = p.intensity;
    f.returnNumber = p.returns & 15;
    f.returns = p.returns >> 4;
    f.classification = p.classification;
    f.flags = r[15] & 0xcf; // the channel aside
    qint16 angle;
    std::memcpy(&angle, r + 18, 2);
    f.angle = int(std::lround(angle * 0.006 * 100));
    f.user = r[17];
    quint16 source;
    std::memcpy(&source, r + 20, 2);
    f.source = source;
    f.gpsMicro = std::llround(p.gpsTime * 1e6);
    f.red = p.red;
    f.green = p.green;
    f.blue = p.blue;
    quint16 nir = 0;
    if (copc.pointFormat() == 8)
        std::memcpy(&nir, r + 36, 2);
    f.nir = nir;
    f.extra = QByteArray(reinterpret_cast<const char *>(r) + copc.recordLength() - extra, extra);
    return f;
}

// The octree as text, node by node in key order, as the peer script writes it.
QString dump(const tzCopc::File &copc, const std::vector<tzCopc::Entry> &nodes)
{
    std::vector<tzCopc::Entry> sorted = nodes;
    std::sort(sorted.begin(), sorted.end(),
              [](const tzCopc::Entry &a, const tzCopc::Entry &b) { return a.key < b.key; });
    const tzCopc::Info &info = copc.info();
    QStringList lines;
    QStringList cube;
    for (int a = 0; a < 3; ++a)
        cube << QString::number(info.center[a] - info.halfSize, 'f', 6);
    for (int a = 0; a < 3; ++a)
        cube << QString::number(info.center[a] + info.halfSize, 'f', 6);
    lines << QStringLiteral("cube %1 spacing %2")
                 .arg(cube.join(QLatin1Char(' ')))
                 .arg(info.spacing, 0, 'f', 6);
    std::vector<uint8_t> records;
    QString error;
    for (const tzCopc::Entry &node : sorted) {
        lines << QStringLiteral("node %1-%2-%3-%4 %5")
                     .arg(node.key.depth)
                     .arg(node.key.x)
                     .arg(node.key.y)
                     .arg(node.key.z)
                     .arg(node.pointCount);
        if (!copc.readRecords(node, records, error))
            return error;
        for (size_t i = 0; i < records.size(); i += size_t(copc.recordLength())) {
            const uchar *r = records.data() + i;
            const tzCopc::Point p = copc.pointOf(r);
            qint32 xyz[3];
            std::memcpy(xyz, r, 12);
            quint16 nir = 0;
            if (copc.pointFormat() == 8)
                std::memcpy(&nir, r + 36, 2);
            lines << QStringLiteral("%1 %2 %3 %4 %5 %6 %7 %8 %9 %10 %11 %12")
                         .arg(xyz[0])
                         .arg(xyz[1])
                         .arg(xyz[2])
                         .arg(p.intensity)
                         .arg(p.returns & 15)
                         .arg(p.returns >> 4)
                         .arg(p.classification)
                         .arg(p.gpsTime, 0, 'f', 6)
                         .arg(p.red)
                         .arg(p.green)
                         .arg(p.blue)
                         .arg(nir);
        }
    }
    return lines.join(QLatin1Char('\n')) + QLatin1Char('\n');
}

} // namespace

class TestCopc : public QObject
{
    Q_OBJECT

private slots:
    void indexHoldsEveryPointOnceInItsNode_data();
    void indexHoldsEveryPointOnceInItsNode();
    void peerReaderFindsOurNodes();
    void failuresAndCancelLeaveNothing();
    void commandLine();
    void cloudOfAnotherFormatJoins();
};

void TestCopc::indexHoldsEveryPointOnceInItsNode_data()
{
    QTest::addColumn<QList<int>>("formats"); // of each input (LAZ when negative)
    QTest::addColumn<int>("points"); // of each input
    QTest::addColumn<int>("extra");
    QTest::addColumn<int>("leafPoints");
    QTest::addColumn<int>("budgetMB");
    QTest::addColumn<int>("outFormat");
    QTest::addColumn<bool>("staleBox"); // the headers' boxes hold a corner of the points
    QTest::newRow("legacy format 1, one node")
        << QList<int> {1} << 3000 << 0 << 100000 << 1536 << 6 << false;
    QTest::newRow("LAZ format 3 with plain format 0, another offset")
        << QList<int> {-3, 0} << 20000 << 0 << 2000 << 1536 << 7 << false;
    QTest::newRow("format 8 with extra bytes, deep, buckets on disk")
        << QList<int> {8} << 150000 << 4 << 300 << 1 << 8 << false;
    QTest::newRow("two LAZ of format 7, buckets split on disk")
        << QList<int> {-7, -7} << 120000 << 0 << 5000 << 1 << 7 << false;
    QTest::newRow("stale header boxes, buckets on disk")
        << QList<int> {-7, 2} << 60000 << 0 << 2000 << 1 << 7 << true;
}

void TestCopc::indexHoldsEveryPointOnceInItsNode()
{
    QFETCH(QList<int>, formats);
    QFETCH(int, points);
    QFETCH(int, extra);
    QFETCH(int, leafPoints);
    QFETCH(int, budgetMB);
    QFETCH(int, outFormat);
    QFETCH(bool, staleBox);
    QTemporaryDir dir;
    std::vector<Fields> expected;
    QStringList inputs;
    for (int i = 0; i < formats.size(); ++i) {
        const int format = std::abs(formats[i]);
        const QString las = dir.filePath(QStringLiteral("in%1.las").arg(i));
        QByteArray bytes
            = surveyLas(format, points, quint32(7 + i), 650000.0 + 37.5 * i, extra, expected);
        if (staleBox) {
            // A box of 10 m at the points' low corner.
            for (int a = 0; a < 3; ++a) {
                double low;
                std::memcpy(&low, bytes.constData() + 187 + 16 * a, 8);
                store<double>(bytes, 179 + 16 * a, low + 10.0);
            }
        }
        QVERIFY(write(las, bytes));
        if (formats[i] < 0) {
            const QString laz = dir.filePath(QStringLiteral("in%1.laz").arg(i));
            QString error;
            QVERIFY2(tzCloudFile::convert(las, laz, error, 1000), qPrintable(error));
            QFile::remove(las);
            inputs << laz;
        } else {
            inputs << las;
        }
    }
    // Points without colours are white among coloured ones.
    for (Fields &f : expected) {
        if (f.red < 0)
            f.red = f.green = f.blue = outFormat >= 7 ? 65535 : 0;
    }
    const QString out = dir.filePath(QStringLiteral("out.copc.laz"));
    tzCopc::IndexOptions options;
    options.leafPoints = size_t(leafPoints);
    options.memoryBudget = quint64(budgetMB) << 20;
    int lastPercent = -1;
    bool monotonic = true;
    options.progress = [&](int percent, const QString &) {
        monotonic = monotonic && percent >= lastPercent;
        lastPercent = percent;
        return true;
    };
    QString error;
    QVERIFY2(tzCopc::index(inputs, out, error, options), qPrintable(error));
    QVERIFY(monotonic || staleBox); // measured, then read again
    QCOMPARE(lastPercent, 100);
    QCOMPARE(QDir(dir.path())
                 .entryList(QStringList {QStringLiteral(".index-*")}, QDir::Dirs | QDir::Hidden),
             QStringList());

    tzCopc::File copc;
    QVERIFY2(copc.open(out, error), qPrintable(error));
    QCOMPARE(copc.pointFormat(), outFormat);
    QCOMPARE(copc.pointCount(), quint64(expected.size()));
    std::vector<tzCopc::Entry> nodes;
    QVERIFY2(copc.readHierarchy(nodes, error), qPrintable(error));
    std::set<tzCopc::Key> keys;
    for (const tzCopc::Entry &node : nodes)
        QVERIFY(keys.insert(node.key).second);
    std::vector<Fields> found;
    std::vector<uint8_t> records;
    const tzCopc::Info &info = copc.info();
    int deepest = 0;
    for (const tzCopc::Entry &node : nodes) {
        deepest = std::max(deepest, node.key.depth);
        // Readers walk down from the root: every node's parent is there.
        if (node.key.depth > 0)
            QVERIFY(keys.count(node.key.parent()));
        QVERIFY2(copc.readRecords(node, records, error), qPrintable(error));
        QCOMPARE(records.size(), size_t(node.pointCount) * size_t(copc.recordLength()));
        double min[3], max[3];
        info.bounds(node.key, min, max);
        for (size_t i = 0; i < records.size(); i += size_t(copc.recordLength())) {
            const tzCopc::Point p = copc.pointOf(records.data() + i);
            const double at[3] = {p.x, p.y, p.z};
            for (int a = 0; a < 3; ++a) {
                if (at[a] < min[a] - 1e-6 || at[a] > max[a] + 1e-6)
                    QFAIL(qPrintable(QStringLiteral("a point outside node %1-%2-%3-%4")
                                         .arg(node.key.depth)
                                         .arg(node.key.x)
                                         .arg(node.key.y)
                                         .arg(node.key.z)));
            }
            found.push_back(fieldsOf(copc, records.data() + i, extra));
        }
    }
    if (leafPoints < 1000)
        QVERIFY2(deepest > 4, "a deep tree (its hierarchy in several pages)");
    std::sort(found.begin(), found.end());
    std::sort(expected.begin(), expected.end());
    QCOMPARE(found.size(), expected.size());
    for (size_t i = 0; i < found.size(); ++i) {
        if (!(found[i] == expected[i]))
            QFAIL(qPrintable(QStringLiteral("point %1 of %2 differs").arg(i).arg(found.size())));
    }
}

void TestCopc::peerReaderFindsOurNodes()
{
    if (!QFile::exists(QStringLiteral(COPC_PEER_DIR "/node_modules/copc/package.json")))
        QSKIP("the npm package copc is not installed (scripts/setup --peer could not reach the "
              "npm registry)");
    QTemporaryDir dir;
    std::vector<Fields> expected;
    const QString plain = dir.filePath(QStringLiteral("plain.las"));
    const QString colours = dir.filePath(QStringLiteral("colours.las"));
    QVERIFY(write(plain, surveyLas(1, 30000, 3, 650000.0, 0, expected)));
    QVERIFY(write(colours, surveyLas(8, 30000, 4, 650100.0, 0, expected)));
    const QString out = dir.filePath(QStringLiteral("peer.copc.laz"));
    tzCopc::IndexOptions options;
    options.leafPoints = 400; // deep enough for pages below the root's
    options.memoryBudget = 1 << 20;
    QString error;
    QVERIFY2(tzCopc::index({plain, colours}, out, error, options), qPrintable(error));
    tzCopc::File copc;
    QVERIFY2(copc.open(out, error), qPrintable(error));
    std::vector<tzCopc::Entry> nodes;
    QVERIFY2(copc.readHierarchy(nodes, error), qPrintable(error));
    const QString ours = dump(copc, nodes);

    const QString text = dir.filePath(QStringLiteral("peer.txt"));
    QProcess node;
    node.start(QStringLiteral("node"),
               {QStringLiteral(COPC_PEER_SCRIPT), QStringLiteral(COPC_PEER_DIR), out, text});
    QVERIFY(node.waitForFinished(120000));
    QVERIFY2(node.exitCode() == 0, node.readAllStandardError().constData());
    QFile peerFile(text);
    QVERIFY(peerFile.open(QIODevice::ReadOnly));
    const QString peer = QString::fromUtf8(peerFile.readAll());
    const QStringList ourLines = ours.split(QLatin1Char('\n'));
    const QStringList peerLines = peer.split(QLatin1Char('\n'));
    QCOMPARE(peerLines.size(), ourLines.size());
    for (int i = 0; i < ourLines.size(); ++i) {
        if (ourLines[i] != peerLines[i])
            QFAIL(qPrintable(QStringLiteral("line %1: ours '%2', the peer's '%3'")
                                 .arg(i + 1)
                                 .arg(ourLines[i], peerLines[i])));
    }
}

void TestCopc::failuresAndCancelLeaveNothing()
{
    QTemporaryDir dir;
    std::vector<Fields> expected;
    const QString las = dir.filePath(QStringLiteral("in.las"));
    QVERIFY(write(las, surveyLas(7, 50000, 5, 650000.0, 0, expected)));
    const QString out = dir.filePath(QStringLiteral("out.copc.laz"));
    QString error;
    QVERIFY(!tzCopc::index({las}, las, error));
    QVERIFY2(error.contains(QLatin1String("overwrite")), qPrintable(error));

    const QString missing = dir.filePath(QStringLiteral("missing.laz"));
    QVERIFY(!tzCopc::index({las, missing}, out, error));
    QVERIFY2(error.contains(missing), qPrintable(error));
    QVERIFY(!QFile::exists(out));

    QByteArray truncated = surveyLas(7, 1000, 5, 650000.0, 0, expected);
    truncated.chop(500);
    const QString cut = dir.filePath(QStringLiteral("cut.las"));
    QVERIFY(write(cut, truncated));
    QVERIFY(!tzCopc::index({las, cut}, out, error));
    QVERIFY2(error.contains(QLatin1String("cut.las")) && error.contains(QLatin1String("truncated")),
             qPrintable(error));
    QVERIFY(!QFile::exists(out));

    // Cancelled halfway, while buckets wait on disk: no output, no work folder.
    for (const int at : {20, 70}) {
        tzCopc::IndexOptions options;
        options.memoryBudget = 1 << 20;
        options.leafPoints = 1000;
        options.progress = [at](int percent, const QString &) { return percent < at; };
        QVERIFY(!tzCopc::index({las}, out, error, options));
        QVERIFY2(error.contains(QLatin1String("cancelled")), qPrintable(error));
        QVERIFY(!QFile::exists(out));
        QCOMPARE(QDir(dir.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
                 (QStringList {QStringLiteral("cut.las"), QStringLiteral("in.las")}));
    }
}

void TestCopc::commandLine()
{
    QTemporaryDir dir;
    std::vector<Fields> expected;
    const QString a = dir.filePath(QStringLiteral("a.las"));
    const QString b = dir.filePath(QStringLiteral("b.las"));
    QVERIFY(write(a, surveyLas(2, 5000, 1, 650000.0, 0, expected)));
    QVERIFY(write(b, surveyLas(0, 5000, 2, 650000.0, 0, expected)));
    const QString out = dir.filePath(QStringLiteral("site.copc.laz"));
    QProcess tessaro;
    tessaro.start(QStringLiteral(TESSARO_BIN), {QStringLiteral("--index"), a, b, out});
    QVERIFY(tessaro.waitForFinished(60000));
    const QString said = QString::fromUtf8(tessaro.readAllStandardError());
    QVERIFY2(tessaro.exitCode() == 0, qPrintable(said));
    QVERIFY2(said.contains(QLatin1String("100 %")), qPrintable(said));
    // What was not kept is said on the console.
    QVERIFY2(said.contains(QLatin1String("tessaro --index: '%1': without colours").arg(b)),
             qPrintable(said));
    tessaro.start(QStringLiteral(TESSARO_BIN), {QStringLiteral("--info"), out});
    QVERIFY(tessaro.waitForFinished(60000));
    const QString info = QString::fromUtf8(tessaro.readAllStandardOutput());
    QVERIFY2(info.contains(QLatin1String("format: COPC"))
                 && info.contains(QLatin1String("points: 10000")),
             qPrintable(info));
    // A cloud the viewer opens whole reads all the points.
    QString error;
    const std::unique_ptr<tzPointCloud> cloud(tzCloudFile::load(out, error));
    QVERIFY2(cloud, qPrintable(error));
    QCOMPARE(cloud->size(), 10000u);

    tessaro.start(QStringLiteral(TESSARO_BIN), {QStringLiteral("--index"), a});
    QVERIFY(tessaro.waitForFinished(60000));
    QCOMPARE(tessaro.exitCode(), 2);
    tessaro.start(
        QStringLiteral(TESSARO_BIN),
        {QStringLiteral("--index"), a, out, QStringLiteral("--memory"), QStringLiteral("lots")});
    QVERIFY(tessaro.waitForFinished(60000));
    QCOMPARE(tessaro.exitCode(), 2);
    QVERIFY(QString::fromUtf8(tessaro.readAllStandardError()).contains(QLatin1String("lots")));
}

void TestCopc::cloudOfAnotherFormatJoins()
{
    // A coloured PLY in the national grid beside a LAS without colours.
    QTemporaryDir dir;
    std::vector<TZVector3> points;
    std::vector<tzRgb> colours;
    for (int i = 0; i < 3000; ++i) {
        points.push_back({float(i % 60) * 0.25f, float(i / 60) * 0.25f, float(i % 7) * 0.1f});
        colours.push_back({quint8(i % 256), quint8(i / 60), 7});
    }
    tzPointCloud cloud;
    cloud.setPoints(std::move(points));
    cloud.setColors(std::move(colours));
    cloud.setGlobalShift({-650010.0, -6860010.0, 0.0});
    const QString ply = dir.filePath(QStringLiteral("tile.ply"));
    QString error;
    QVERIFY2(tzCloudFile::save(cloud, ply, error), qPrintable(error));
    std::vector<Fields> expected;
    const QString las = dir.filePath(QStringLiteral("plain.las"));
    QVERIFY(write(las, surveyLas(0, 2000, 3, 650000.0, 0, expected)));
    const QString out = dir.filePath(QStringLiteral("both.copc.laz"));
    QStringList stages;
    tzCopc::IndexOptions options;
    options.progress = [&](int, const QString &stage) {
        if (!stages.contains(stage))
            stages << stage;
        return true;
    };
    QVERIFY2(tzCopc::index({ply, las}, out, error, options), qPrintable(error));
    QVERIFY2(stages.first().startsWith(QLatin1String("Reading tile.ply")),
             qPrintable(stages.join(QLatin1String(", "))));
    tzCopc::File copc;
    QVERIFY2(copc.open(out, error), qPrintable(error));
    QCOMPARE(copc.pointFormat(), 7);
    QCOMPARE(copc.pointCount(), quint64(5000));
    std::vector<tzCopc::Entry> nodes;
    QVERIFY2(copc.readHierarchy(nodes, error), qPrintable(error));
    // Each of the PLY's points, at its millimetre, in its colour.
    std::set<std::tuple<qint64, qint64, qint64, int, int>> found;
    std::vector<tzCopc::Point> read;
    for (const tzCopc::Entry &node : nodes) {
        QVERIFY2(copc.readPoints(node, read, error), qPrintable(error));
        for (const tzCopc::Point &p : read) {
            found.insert({std::llround(p.x * 1000), std::llround(p.y * 1000),
                          std::llround(p.z * 1000), p.red, p.blue});
        }
    }
    for (unsigned i = 0; i < cloud.size(); ++i) {
        const TZVector3d g = cloud.toGlobal3d(*cloud.getPoint(i));
        const tzRgb &c = cloud.getPointColor(i);
        QVERIFY(found.count({std::llround(g.x * 1000), std::llround(g.y * 1000),
                             std::llround(g.z * 1000), c.r * 257, c.b * 257}));
    }
}

QTEST_GUILESS_MAIN(TestCopc)
#include "tst_copc.moc"
