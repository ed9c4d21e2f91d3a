// LAS and LAZ files written by another library: every point format opens with its points; each
// LAZ decodes to exactly the point records of its LAS twin and opens as the same cloud; a
// damaged one is refused with its problem named.

#include "tzCloudFile.h"
#include "tzLazCodec.h"
#include "tzPointCloud.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <cstring>
#include <memory>

namespace {

QString data(const char *name)
{
    return QStringLiteral(TESSARO_TEST_DATA "/las/") + QLatin1String(name);
}

QByteArray bytesOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

template<typename T> T at(const QByteArray &b, int offset)
{
    T v;
    std::memcpy(&v, b.constData() + offset, sizeof v);
    return v;
}

//! Writes a value into bytes at offset (within them).
template<typename T> void store(QByteArray &b, int offset, T value)
{
    b.replace(offset, int(sizeof value), reinterpret_cast<const char *>(&value), int(sizeof value));
}

// The point records of a LAS file, as they are stored.
QByteArray lasRecords(const QByteArray &las)
{
    const quint32 offset = at<quint32>(las, 96);
    const quint16 length = at<quint16>(las, 105);
    quint64 count = at<quint32>(las, 107);
    if (las[25] == 4 && count == 0)
        count = at<quint64>(las, 247);
    return las.mid(int(offset), int(count * length));
}

// The description of a LAZ file's laszip VLR.
bool describe(const QByteArray &laz, tzLaz::Description &description, std::string &error)
{
    int vlr = at<quint16>(laz, 94);
    for (quint32 i = 0; i < at<quint32>(laz, 100); ++i) {
        const quint16 length = at<quint16>(laz, vlr + 20);
        if (laz.mid(vlr + 2, 14) == "laszip encoded")
            return tzLaz::parseDescription(reinterpret_cast<const uchar *>(laz.constData()) + vlr
                                               + 54,
                                           length, description, error);
        vlr += 54 + length;
    }
    error = "no laszip VLR";
    return false;
}

// Every record of a LAZ file, chunk after chunk, through the codec's own entry points.
QByteArray lazRecords(const QByteArray &laz, QString &problem)
{
    tzLaz::Description description;
    std::string error;
    if (!describe(laz, description, error)) {
        problem = QString::fromStdString(error);
        return {};
    }
    const auto *file = reinterpret_cast<const uchar *>(laz.constData());
    quint64 count = at<quint32>(laz, 107);
    if (laz[25] == 4 && count == 0)
        count = at<quint64>(laz, 247);
    std::vector<tzLaz::Chunk> chunks;
    if (!tzLaz::readChunkTable(file, size_t(laz.size()), at<quint32>(laz, 96), count, description,
                               chunks, error)) {
        problem = QString::fromStdString(error);
        return {};
    }
    QByteArray records;
    tzLaz::ChunkDecoder decoder(description);
    for (const tzLaz::Chunk &chunk : chunks) {
        QByteArray out(int(chunk.points * description.recordLength()), '\0');
        size_t consumed = 0;
        if (!decoder.decode(file + chunk.offset, size_t(chunk.bytes), chunk.points,
                            reinterpret_cast<uchar *>(out.data()), consumed, error)) {
            problem = QString::fromStdString(error);
            return {};
        }
        if (consumed != chunk.bytes) {
            problem = QStringLiteral("a chunk of %1 bytes took %2").arg(chunk.bytes).arg(consumed);
            return {};
        }
        records += out;
    }
    return records;
}

// The first record that differs, for a message that says where.
QString firstDifference(const QByteArray &a, const QByteArray &b, int recordLength)
{
    if (a.size() != b.size())
        return QStringLiteral("%1 bytes against %2").arg(a.size()).arg(b.size());
    for (int i = 0; i < a.size(); ++i) {
        if (a[i] != b[i])
            return QStringLiteral("record %1, byte %2").arg(i / recordLength).arg(i % recordLength);
    }
    return QString();
}

std::unique_ptr<tzPointCloud> open(const QString &path, QString &error)
{
    return std::unique_ptr<tzPointCloud>(tzCloudFile::load(path, error));
}

QString writeBytes(const QTemporaryDir &dir, const char *name, const QByteArray &bytes)
{
    QFile file(dir.filePath(QLatin1String(name)));
    file.open(QIODevice::WriteOnly);
    file.write(bytes);
    return file.fileName();
}

} // namespace

class TestLaz : public QObject
{
    Q_OBJECT

private slots:
    void everyLasFileOpens_data();
    void everyLasFileOpens();
    void surveyAttributesAreKept_data();
    void surveyAttributesAreKept();
    void recordsAreTheLasTwins_data();
    void recordsAreTheLasTwins();
    void opensAsTheSameCloudAsItsTwin_data();
    void opensAsTheSameCloudAsItsTwin();
    void chunkTableMissingOrUnusable_data();
    void chunkTableMissingOrUnusable();
    void damagedChunkTableIsReadAround();
    void encodedRecordsDecodeToThemselves_data();
    void encodedRecordsDecodeToThemselves();
    void conversionKeepsEveryByte_data();
    void conversionKeepsEveryByte();
    void writtenChunksOfAnySizeReadBack_data();
    void writtenChunksOfAnySizeReadBack();
    void peerDecoderReadsWhatWeWrite_data();
    void peerDecoderReadsWhatWeWrite();
    void cloudWrittenInEachFormatReadsBack_data();
    void cloudWrittenInEachFormatReadsBack();
    void failedConversionLeavesNothing();
    void convertFromTheCommandLine();
    void pointsInOneStreamOpen();
    void octreeNodeChunksOpen();
    void damagedFilesAreRefused_data();
    void damagedFilesAreRefused();
    void previewsCoverTheExtentEarly_data();
    void previewsCoverTheExtentEarly();
};

void TestLaz::everyLasFileOpens_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<unsigned>("points");
    QTest::addColumn<bool>("colours");
    QTest::newRow("1.2, format 1, no RGB") << data("autzen.las") << 106u << false;
    QTest::newRow("1.2, format 3") << data("simple.las") << 1065u << true;
    QTest::newRow("1.3, format 4, waveform packets") << data("simple1_3.las") << 999u << false;
    QTest::newRow("1.4, format 6") << data("test1_4.las") << 1000u << false;
    QTest::newRow("1.4, format 6, extended VLRs, 64-bit count")
        << data("1_4_w_evlr.las") << 1000u << false;
    QTest::newRow("1.4, format 7, 16-bit RGB") << data("simple1_4.las") << 22600u << true;
    QTest::newRow("1.4, format 3, extra bytes") << data("extrabytes.las") << 1065u << true;
}

void TestLaz::everyLasFileOpens()
{
    QFETCH(QString, path);
    QFETCH(unsigned, points);
    QFETCH(bool, colours);
    QString error;
    const auto cloud = open(path, error);
    QVERIFY2(cloud, qPrintable(error));
    QCOMPARE(cloud->size(), points);
    QCOMPARE(cloud->hasColors(), colours);
    // The first record's coordinates, in the file's own frame.
    const QByteArray las = bytesOf(path);
    const QByteArray first = lasRecords(las).left(12);
    for (int d = 0; d < 3; ++d) {
        const double expected = at<qint32>(first, 4 * d) * at<double>(las, 131 + 8 * d)
            + at<double>(las, 155 + 8 * d);
        QVERIFY(std::abs((*cloud->getPoint(0))[d] - cloud->getGlobalShift()[d] - expected) < 1e-2);
    }
}

void TestLaz::recordsAreTheLasTwins_data()
{
    QTest::addColumn<QString>("laz");
    QTest::addColumn<QString>("las");
    QTest::newRow("format 3, RGB in 8 bits") << data("simple.laz") << data("simple.las");
    QTest::newRow("format 3 with 27 extra bytes") << data("extra.laz") << data("extrabytes.las");
    QTest::newRow("LAS 1.4 format 6, layered, extended VLRs")
        << data("1_4_w_evlr.laz") << data("1_4_w_evlr.las");
}

void TestLaz::recordsAreTheLasTwins()
{
    QFETCH(QString, laz);
    QFETCH(QString, las);
    const QByteArray lazBytes = bytesOf(laz), lasBytes = bytesOf(las);
    QVERIFY(!lazBytes.isEmpty() && !lasBytes.isEmpty());
    QString problem;
    const QByteArray decoded = lazRecords(lazBytes, problem);
    QVERIFY2(problem.isEmpty(), qPrintable(problem));
    const QByteArray expected = lasRecords(lasBytes);
    QVERIFY(!expected.isEmpty());
    const QString where = firstDifference(decoded, expected, at<quint16>(lasBytes, 105));
    QVERIFY2(where.isEmpty(), qPrintable(where));
}

void TestLaz::opensAsTheSameCloudAsItsTwin_data()
{
    recordsAreTheLasTwins_data();
}

void TestLaz::surveyAttributesAreKept_data()
{
    // The first point's attributes as the records hold them (read apart from the reader), and
    // the points of class 1 and 2.
    QTest::addColumn<QString>("path");
    QTest::addColumn<int>("kinds");
    QTest::addColumn<int>("intensity");
    QTest::addColumn<int>("returns");
    QTest::addColumn<int>("classification");
    QTest::addColumn<unsigned>("class1");
    QTest::addColumn<unsigned>("class2");
    const int both = tzPointDisplay::INTENSITY | tzPointDisplay::CLASSIFICATION;
    const int all = both | tzPointDisplay::RETURNS;
    // Formats 0-5: 3-bit return fields, the class in the low 5 bits of its byte.
    QTest::newRow("format 1") << data("autzen.las") << all << 65 << 0x11 << 1 << 82u << 24u;
    QTest::newRow("format 3") << data("simple.las") << all << 143 << 0x11 << 1 << 789u << 276u;
    QTest::newRow("format 3, LAZ") << data("simple.laz") << all << 143 << 0x11 << 1 << 789u << 276u;
    // Every return "1 of 1": the returns tell nothing and are not kept.
    QTest::newRow("format 4, single returns")
        << data("simple1_3.las") << both << 1 << 0x11 << 1 << 999u << 0u;
    // Formats 6-10: 4-bit return fields, a byte of class.
    QTest::newRow("format 6") << data("test1_4.las") << all << 41 << 0x11 << 2 << 0u << 1000u;
    QTest::newRow("format 6, LAZ")
        << data("1_4_w_evlr.laz") << all << 41 << 0x11 << 2 << 0u << 1000u;
    // Written with every attribute zero: nothing kept, nothing to show.
    QTest::newRow("format 7, fields left empty")
        << data("simple1_4.las") << 0 << 0 << 0 << 0 << 0u << 0u;
}

void TestLaz::surveyAttributesAreKept()
{
    QFETCH(QString, path);
    QFETCH(int, kinds);
    QString error;
    const auto cloud = open(path, error);
    QVERIFY2(cloud, qPrintable(error));
    QCOMPARE(int(cloud->attributeKinds()), kinds);
    QCOMPARE(cloud->canShow(tzPointDisplay::ColourMode::Classification), kinds != 0);
    if (!kinds)
        return;
    const tzPointAttributes &first = cloud->getPointAttributes(0);
    QTEST(int(first.intensity), "intensity");
    QTEST(int(first.returns), "returns");
    QTEST(int(first.classification), "classification");
    QTEST(cloud->classCounts()[1], "class1");
    QTEST(cloud->classCounts()[2], "class2");
    // Without colours, a survey opens by elevation.
    QCOMPARE(cloud->colourMode(),
             cloud->hasColors() ? tzPointDisplay::ColourMode::Rgb
                                : tzPointDisplay::ColourMode::Elevation);
}

void TestLaz::opensAsTheSameCloudAsItsTwin()
{
    QFETCH(QString, laz);
    QFETCH(QString, las);
    QString error;
    const auto fromLaz = open(laz, error);
    QVERIFY2(fromLaz, qPrintable(error));
    const auto fromLas = open(las, error);
    QVERIFY2(fromLas, qPrintable(error));
    QCOMPARE(fromLaz->size(), fromLas->size());
    QCOMPARE(fromLaz->getGlobalShift(), fromLas->getGlobalShift());
    QCOMPARE(fromLaz->hasColors(), fromLas->hasColors());
    for (unsigned i = 0; i < fromLas->size(); ++i) {
        QCOMPARE(*fromLaz->getPoint(i), *fromLas->getPoint(i));
        if (fromLas->hasColors())
            QVERIFY(fromLaz->getPointColor(i) == fromLas->getPointColor(i));
    }
    QCOMPARE(fromLaz->attributeKinds(), fromLas->attributeKinds());
    if (fromLas->attributeKinds()) {
        QVERIFY(std::equal(fromLas->attributeData(), fromLas->attributeData() + fromLas->size(),
                           fromLaz->attributeData()));
    }
}

void TestLaz::chunkTableMissingOrUnusable_data()
{
    QTest::addColumn<int>("tableOffset"); // written at the start of the point data
    QTest::newRow("never written (the compressor stopped)") << 0;
    QTest::newRow("past the end of the file") << 1;
    QTest::newRow("written at the end instead (-1)") << -1;
}

void TestLaz::chunkTableMissingOrUnusable()
{
    // Read in sequence instead: the same points.
    QFETCH(int, tableOffset);
    QByteArray laz = bytesOf(data("simple.laz"));
    const quint32 pointData = at<quint32>(laz, 96);
    const qint64 real = at<qint64>(laz, int(pointData));
    qint64 written
        = tableOffset == 0 ? qint64(pointData) : (tableOffset == 1 ? laz.size() + 100 : -1);
    std::memcpy(laz.data() + pointData, &written, 8);
    if (tableOffset == -1)
        laz.append(reinterpret_cast<const char *>(&real), 8);
    QTemporaryDir dir;
    QString error;
    const auto cloud = open(writeBytes(dir, "survey.laz", laz), error);
    QVERIFY2(cloud, qPrintable(error));
    const auto twin = open(data("simple.las"), error);
    QCOMPARE(cloud->size(), twin->size());
    QCOMPARE(*cloud->getPoint(cloud->size() - 1), *twin->getPoint(twin->size() - 1));
}

void TestLaz::damagedChunkTableIsReadAround()
{
    // Our LAZ of the peer's file in 11 chunks; each bit of its chunk table flipped in turn.
    // Entries that still look plausible but do not add up to the file are found out: the
    // chunks are then found one after the other, every record right. A chunk damaged as well
    // is named by its own index, whatever the table says.
    QTemporaryDir dir;
    QString error;
    const QString laz = dir.filePath(QStringLiteral("chunks.laz"));
    QVERIFY2(tzCloudFile::convert(data("simple.las"), laz, error, 100), qPrintable(error));
    const QByteArray good = bytesOf(laz);
    const QByteArray records = lasRecords(bytesOf(data("simple.las")));
    const qint64 table = at<qint64>(good, int(at<quint32>(good, 96)));
    const QString back = dir.filePath(QStringLiteral("back.las"));
    for (int at = int(table); at < good.size(); ++at) {
        for (const char bit : {'\x01', '\x10', '\x80'}) {
            QByteArray bad = good;
            bad[at] = char(bad[at] ^ bit);
            const QString path = writeBytes(dir, "flipped.laz", bad);
            QVERIFY2(tzCloudFile::convert(path, back, error),
                     qPrintable(QStringLiteral("byte %1: %2").arg(at).arg(error)));
            QVERIFY2(lasRecords(bytesOf(back)) == records, qPrintable(QString::number(at)));
            const auto cloud = open(path, error);
            QVERIFY2(cloud && cloud->size() == 1065, qPrintable(error));
        }
    }
    // Chunk 3 (points 200 to 299) overwritten, and a byte of the table flipped too.
    tzLaz::Description description;
    std::string problem;
    QVERIFY(describe(good, description, problem));
    std::vector<tzLaz::Chunk> chunks;
    QVERIFY(tzLaz::readChunkTable(reinterpret_cast<const uchar *>(good.constData()),
                                  size_t(good.size()), at<quint32>(good, 96), 1065, description,
                                  chunks, problem));
    QCOMPARE(chunks.size(), size_t(11));
    QByteArray bad = good;
    for (quint64 i = chunks[2].offset + 20; i < chunks[2].offset + 60; ++i)
        bad[int(i)] = char(0xff);
    for (const bool tableToo : {false, true}) {
        if (tableToo)
            bad[int(table) + 10] = char(bad[int(table) + 10] ^ 0x40);
        QVERIFY(!open(writeBytes(dir, "damaged.laz", bad), error));
        QVERIFY2(error.contains(QStringLiteral("chunk 3 ")), qPrintable(error));
    }
}

// Records of every kind the encoder sees in surveys: returns, flags, classes, scan angles that
// go both ways, interleaved GPS time sequences with jumps, grey and coloured RGB in 8 and 16 bits.
QByteArray syntheticRecords(int format, int count, int extraBytes)
{
    static const int OWN[] = {20, 28, 26, 34};
    const int length = OWN[format] + extraBytes;
    QByteArray records(count * length, '\0');
    quint32 seed = 12345;
    const auto next = [&seed] {
        seed = seed * 1664525u + 1013904223u;
        return seed >> 8;
    };
    double times[3] = {1.0e8, 2.5e5, 3.0e8};
    for (int i = 0; i < count; ++i) {
        uchar *r = reinterpret_cast<uchar *>(records.data()) + i * length;
        const qint32 xyz[3] = {qint32(651200000 + i * 37 + int(next() % 50)),
                               qint32(6861400000 - i * 11 + int(next() % 30)),
                               qint32(100000 + int(next() % 5000) - (i % 7 == 0 ? 200000 : 0))};
        std::memcpy(r, xyz, 12);
        const quint16 intensity = quint16(next() % 4 == 0 ? next() : 300 + i % 5);
        std::memcpy(r + 12, &intensity, 2);
        const int returns = 1 + int(next() % 4);
        r[14] = uchar((1 + int(next() % returns)) | (returns << 3) | ((i / 100) % 2) << 6
                      | (next() % 50 == 0 ? 0x80 : 0));
        r[15] = uchar(next() % 10 == 0 ? next() % 32 : 2);
        r[16] = uchar(qint8(int(next() % 61) - 30));
        r[17] = uchar(i % 300 == 0 ? next() : 0);
        const quint16 source = quint16(7 + (i / 500));
        std::memcpy(r + 18, &source, 2);
        int at = 20;
        if (format == 1 || format == 3) {
            const int sequence = (i / 13) % 3;
            times[sequence] += (next() % 20 == 0 ? 1.0e6 : 1.0e-5 * (1 + next() % 3));
            const double t = next() % 400 == 0 ? 5.0e9 * (next() % 7) : times[sequence];
            std::memcpy(r + at, &t, 8);
            at += 8;
        }
        if (format == 2 || format == 3) {
            const bool grey = next() % 5 == 0, wide = i > count / 2;
            quint16 rgb[3];
            for (int k = 0; k < 3; ++k)
                rgb[k] = quint16(wide ? (next() & 0xffff) : (next() % 256));
            if (grey)
                rgb[1] = rgb[2] = rgb[0];
            if (i % 3 == 1)
                std::memcpy(rgb, r - length + at, 6);
            std::memcpy(r + at, rgb, 6);
            at += 6;
        }
        for (int k = 0; k < extraBytes; ++k)
            r[at + k] = uchar(k == 0 ? i : (next() % 3 == 0 ? next() : k));
    }
    return records;
}

// LAS 1.4 records (formats 6 to 8): up to 15 returns, the scanner channel switching as
// multi-channel scanners do, with each channel's own time line, 16-bit colours and NIR.
QByteArray syntheticRecords14(int format, int count)
{
    const int length = format == 6 ? 30 : format == 7 ? 36 : 38;
    QByteArray records(count * length, '\0');
    quint32 seed = 777;
    const auto next = [&seed] {
        seed = seed * 1664525u + 1013904223u;
        return seed >> 8;
    };
    double times[4] = {2.0e8, 2.0e8 + 0.5, 3.0e8, 1.0e5};
    for (int i = 0; i < count; ++i) {
        uchar *r = reinterpret_cast<uchar *>(records.data()) + i * length;
        const int channel = (i / 40 + int(next() % 9 == 0)) % 4;
        const qint32 xyz[3] = {qint32(500000 + i * 13 + channel * 9000 + int(next() % 40)),
                               qint32(-200000 + i * 7 + int(next() % 25)),
                               qint32(3000 + int(next() % 900) - (i % 11 == 0 ? 60000 : 0))};
        std::memcpy(r, xyz, 12);
        const quint16 intensity = quint16(next() % 5 == 0 ? next() : 1200 + i % 9);
        std::memcpy(r + 12, &intensity, 2);
        const int returns = 1 + int(next() % 15);
        r[14] = uchar((1 + int(next() % returns)) | (returns << 4));
        r[15] = uchar(int(next() % 16 == 0 ? next() % 16 : 0) | channel << 4 | ((i / 70) % 2) << 6
                      | (next() % 60 == 0 ? 0x80 : 0));
        r[16] = uchar(next() % 8 == 0 ? next() % 256 : 2);
        r[17] = uchar(i % 250 == 0 ? next() : 0);
        const qint16 angle = qint16(int(next() % 30001) - 15000);
        std::memcpy(r + 18, &angle, 2);
        const quint16 source = quint16(3 + i / 700);
        std::memcpy(r + 20, &source, 2);
        times[channel] += next() % 30 == 0 ? 4.0e3 : 2.0e-6 * (1 + next() % 4);
        const double t = next() % 500 == 0 ? 1.0e9 : times[channel];
        std::memcpy(r + 22, &t, 8);
        if (format >= 7) {
            quint16 rgbn[4];
            for (quint16 &c : rgbn)
                c = quint16(i % 4 == 0 ? next() & 0xffff : 256 * (next() % 256));
            if (i % 5 == 2)
                rgbn[1] = rgbn[2] = rgbn[0];
            if (i % 3 == 1)
                std::memcpy(rgbn, r - length + 30, size_t(length - 30));
            std::memcpy(r + 30, rgbn, size_t(length - 30));
        }
    }
    return records;
}

// A scanner of four channels whose colours (and near infrared) differ by channel: the channel
// changes every few records, to one met before or not, each point of a colour about its
// channel's and extra bytes that follow the channel too.
QByteArray channelColourRecords(int format, int count, int extraBytes)
{
    const int length = (format == 7 ? 36 : 38) + extraBytes;
    static const quint16 BASE[4][4] = {{1000, 20000, 40000, 500},
                                       {60000, 3000, 100, 9000},
                                       {30000, 30000, 30000, 30000},
                                       {5, 65000, 7, 12345}};
    QByteArray records(count * length, '\0');
    quint32 seed = 4242;
    const auto next = [&seed] {
        seed = seed * 1664525u + 1013904223u;
        return seed >> 8;
    };
    int channel = 0;
    for (int i = 0; i < count; ++i) {
        uchar *r = reinterpret_cast<uchar *>(records.data()) + i * length;
        if (next() % 7 == 0)
            channel = int(next() % 4);
        const qint32 xyz[3]
            = {qint32(i * 10 + int(next() % 5)), qint32(i * 3), qint32(next() % 1000)};
        std::memcpy(r, xyz, 12);
        const quint16 intensity = quint16(next());
        std::memcpy(r + 12, &intensity, 2);
        r[14] = 1 | (1 << 4);
        r[15] = uchar(channel << 4);
        r[16] = 2;
        const double t = 1000.0 + i;
        std::memcpy(r + 22, &t, 8);
        for (int c = 0; c < (format == 7 ? 3 : 4); ++c) {
            const quint16 v = quint16(BASE[channel][c] + next() % 600 - 300);
            std::memcpy(r + 30 + 2 * c, &v, 2);
        }
        for (int b = 0; b < extraBytes; ++b)
            r[length - extraBytes + b] = uchar(i * 7 + channel * 50 + b);
    }
    return records;
}

// A LAS 1.4 file of these records (no VLR), for the converter and the peer decoder.
QByteArray las14(int format, int length, const QByteArray &records)
{
    const quint64 count = quint64(records.size() / length);
    QByteArray header(375, '\0');
    header.replace(0, 4, "LASF");
    header[24] = 1;
    header[25] = 4;
    store<quint16>(header, 94, 375);
    store<quint32>(header, 96, 375);
    header[104] = char(format);
    store<quint16>(header, 105, quint16(length));
    for (int axis = 0; axis < 3; ++axis)
        store<double>(header, 131 + 8 * axis, 0.01);
    store<double>(header, 179, double(count) * 0.1); // max x
    store<double>(header, 195, double(count) * 0.03); // max y
    store<double>(header, 211, 10.0); // max z
    store<quint64>(header, 247, count);
    store<quint64>(header, 255, count); // all first returns
    return header + records;
}

// The records with a wave packet after each point's own fields (formats 4, 5, 9 and 10): the
// descriptor changing now and then, the samples mostly right after the last ones, sometimes
// the same, a difference or a jump past 4 GB; the direction drifting. Alike: every packet the
// first one (the layered encoder leaves the unchanging layer out).
QByteArray withWavePackets(const QByteArray &records, int length, bool alike = false)
{
    const int count = records.size() / length;
    QByteArray out;
    quint64 offset = 60;
    quint32 size = 96;
    float direction[3] = {0.0001f, -0.0002f, -0.99f};
    for (int i = 0; i < count; ++i) {
        out += records.mid(i * length, length);
        uchar packet[29];
        packet[0] = uchar(1 + (i / 200) % 3);
        if (i % 17 == 5)
            offset += quint64(i) * 1000; // a difference
        else if (i % 101 == 7)
            offset = 5000000000ull + quint64(i); // past 4 GB
        else if (i % 9 != 3)
            offset += size; // right after
        size = i % 13 == 0 ? 192 : 96;
        const float returnPoint = 1000.0f + float(i % 40) * 12.5f;
        direction[0] += i % 5 == 0 ? 1e-6f : 0.0f;
        std::memcpy(packet + 1, &offset, 8);
        std::memcpy(packet + 9, &size, 4);
        std::memcpy(packet + 13, &returnPoint, 4);
        std::memcpy(packet + 17, direction, 12);
        if (alike && i > 0)
            out.append(out.mid(length, 29)); // the first record's packet
        else
            out.append(reinterpret_cast<const char *>(packet), 29);
    }
    return out;
}

void TestLaz::encodedRecordsDecodeToThemselves_data()
{
    QTest::addColumn<QByteArray>("records");
    QTest::addColumn<int>("format");
    QTest::addColumn<int>("length");
    QTest::addColumn<int>("chunkSize");
    const QByteArray simple = lasRecords(bytesOf(data("simple.las")));
    const QByteArray extra = lasRecords(bytesOf(data("extrabytes.las")));
    QTest::newRow("peer's format 3, chunks of 1") << simple << 3 << 34 << 1;
    QTest::newRow("peer's format 3, chunks of 50") << simple << 3 << 34 << 50;
    QTest::newRow("peer's format 3, one chunk") << simple << 3 << 34 << 50000;
    QTest::newRow("peer's extra bytes, chunks of 100") << extra << 3 << 61 << 100;
    static const int OWN[] = {20, 28, 26, 34};
    for (int format = 0; format <= 3; ++format) {
        QTest::addRow("format %d, chunks of 1000", format)
            << syntheticRecords(format, 5000, 0) << format << OWN[format] << 1000;
        QTest::addRow("format %d, 3 extra bytes, one chunk", format)
            << syntheticRecords(format, 3000, 3) << format << OWN[format] + 3 << 50000;
    }
    QTest::newRow("peer's format 6, chunks of 7")
        << lasRecords(bytesOf(data("test1_4.las"))) << 6 << 30 << 7;
    QTest::newRow("peer's format 7, one chunk")
        << lasRecords(bytesOf(data("simple1_4.las"))) << 7 << 36 << 50000;
    QTest::newRow("format 4, chunks of 500")
        << withWavePackets(syntheticRecords(1, 3000, 0), 28) << 4 << 57 << 500;
    QTest::newRow("format 5, one chunk")
        << withWavePackets(syntheticRecords(3, 3000, 0), 34) << 5 << 63 << 50000;
    QTest::newRow("format 9, chunks of 1000 (channels switching)")
        << withWavePackets(syntheticRecords14(6, 4000), 30) << 9 << 59 << 1000;
    QTest::newRow("format 10, chunks of 1")
        << withWavePackets(syntheticRecords14(8, 200), 38) << 10 << 67 << 1;
    QTest::newRow("format 10, wave packets alike in each chunk")
        << withWavePackets(syntheticRecords14(8, 2000), 38, true) << 10 << 67 << 1000;
    static const int OWN14[] = {30, 36, 38};
    for (int format = 6; format <= 8; ++format) {
        QTest::addRow("format %d, chunks of 1", format)
            << syntheticRecords14(format, 300) << format << OWN14[format - 6] << 1;
        QTest::addRow("format %d, chunks of 1000", format)
            << syntheticRecords14(format, 6000) << format << OWN14[format - 6] << 1000;
    }
}

void TestLaz::encodedRecordsDecodeToThemselves()
{
    QFETCH(QByteArray, records);
    QFETCH(int, format);
    QFETCH(int, length);
    QFETCH(int, chunkSize);
    const quint32 points = quint32(records.size() / length);
    tzLaz::Description description;
    std::string error;
    QVERIFY2(tzLaz::describeFormat(format, size_t(length), quint32(chunkSize), description, error),
             error.c_str());
    tzLaz::ChunkEncoder encoder(description);
    tzLaz::ChunkDecoder decoder(description);
    std::vector<uchar> bytes;
    QByteArray decoded(records.size(), '\0');
    for (quint32 first = 0; first < points; first += quint32(chunkSize)) {
        const quint32 n = std::min(points - first, quint32(chunkSize));
        bytes.clear();
        encoder.encode(reinterpret_cast<const uchar *>(records.constData()) + first * length, n,
                       bytes);
        size_t consumed = 0;
        QVERIFY2(decoder.decode(bytes.data(), bytes.size(), n,
                                reinterpret_cast<uchar *>(decoded.data()) + first * length,
                                consumed, error),
                 error.c_str());
        QCOMPARE(consumed, bytes.size()); // where the next chunk starts without a table
    }
    const QString where = firstDifference(decoded, records, length);
    QVERIFY2(where.isEmpty(), qPrintable(where));
}

void TestLaz::conversionKeepsEveryByte_data()
{
    QTest::addColumn<QString>("las");
    QTest::newRow("1.2, format 3") << data("simple.las");
    QTest::newRow("1.4, format 3, extra bytes") << data("extrabytes.las");
    QTest::newRow("1.2, format 1") << data("autzen.las");
    QTest::newRow("1.4, format 6") << data("test1_4.las");
    QTest::newRow("1.4, format 6, extended VLRs") << data("1_4_w_evlr.las");
    QTest::newRow("1.4, format 7") << data("simple1_4.las");
    QTest::newRow("1.3, format 4, waveform data after the points") << data("simple1_3.las");
}

void TestLaz::conversionKeepsEveryByte()
{
    // LAS to LAZ to LAS gives the very file back; the LAZ's points are coded as the peer's.
    QFETCH(QString, las);
    QTemporaryDir dir;
    const QString laz = dir.filePath(QStringLiteral("survey.laz"));
    const QString back = dir.filePath(QStringLiteral("survey.las"));
    QString error;
    QVERIFY2(tzCloudFile::convert(las, laz, error), qPrintable(error));
    QVERIFY2(tzCloudFile::convert(laz, back, error), qPrintable(error));
    QCOMPARE(bytesOf(back), bytesOf(las));
    // Opened, the LAZ is the LAS's cloud.
    const auto cloud = open(laz, error);
    QVERIFY2(cloud, qPrintable(error));
    const auto plain = open(las, error);
    QCOMPARE(cloud->size(), plain->size());
    for (unsigned i = 0; i < plain->size(); i += 13)
        QCOMPARE(*cloud->getPoint(i), *plain->getPoint(i));
    const QByteArray ours = bytesOf(laz);
    QVERIFY(ours.size() - int(at<quint32>(ours, 96)) < lasRecords(bytesOf(las)).size() * 2 / 3);
    // Where the peer library compressed the same file, our bytes are its bytes.
    const QString twin = las.left(las.size() - 4) + QLatin1String(".laz");
    if (QFile::exists(twin)) {
        const QByteArray peer = bytesOf(twin);
        QCOMPARE(ours.mid(int(at<quint32>(ours, 96)) + 8),
                 peer.mid(int(at<quint32>(peer, 96)) + 8));
    }
}

void TestLaz::writtenChunksOfAnySizeReadBack_data()
{
    QTest::addColumn<int>("chunkSize");
    QTest::newRow("1 point a chunk") << 1;
    QTest::newRow("100 points a chunk") << 100;
    QTest::newRow("the usual 50,000") << 50000;
    QTest::newRow("more than the cloud") << 1000000;
}

void TestLaz::writtenChunksOfAnySizeReadBack()
{
    QFETCH(int, chunkSize);
    QTemporaryDir dir;
    const QString laz = dir.filePath(QStringLiteral("survey.laz"));
    QString error;
    QVERIFY2(tzCloudFile::convert(data("simple.las"), laz, error, quint32(chunkSize)),
             qPrintable(error));
    QString problem;
    QCOMPARE(lazRecords(bytesOf(laz), problem), lasRecords(bytesOf(data("simple.las"))));
    QVERIFY2(problem.isEmpty(), qPrintable(problem));
    // Opened, its chunks decoded on every core, it is the LAS cloud.
    const auto cloud = open(laz, error);
    QVERIFY2(cloud, qPrintable(error));
    const auto twin = open(data("simple.las"), error);
    QCOMPARE(cloud->size(), twin->size());
    for (unsigned i = 0; i < twin->size(); ++i) {
        QCOMPARE(*cloud->getPoint(i), *twin->getPoint(i));
        QVERIFY(cloud->getPointColor(i) == twin->getPointColor(i));
    }
}

void TestLaz::peerDecoderReadsWhatWeWrite_data()
{
    QTest::addColumn<QByteArray>("las");
    QTest::addColumn<int>("chunkSize");
    QTest::newRow("format 3, chunks of 1") << bytesOf(data("simple.las")) << 1;
    QTest::newRow("format 3, chunks of 50,000") << bytesOf(data("simple.las")) << 50000;
    QTest::newRow("format 3, one chunk larger than the cloud")
        << bytesOf(data("simple.las")) << 1000000;
    QTest::newRow("extra bytes, chunks of 100") << bytesOf(data("extrabytes.las")) << 100;
    QTest::newRow("format 1") << bytesOf(data("autzen.las")) << 50000;
    QTest::newRow("format 6, chunks of 1") << bytesOf(data("test1_4.las")) << 1;
    QTest::newRow("format 6, chunks of 100") << bytesOf(data("test1_4.las")) << 100;
    QTest::newRow("format 7, 16-bit colours") << bytesOf(data("simple1_4.las")) << 50000;
    // The colour, infrared and extra bytes items follow the scanner channel as the point item
    // hands it on (only on a change): wrong there, every colour after the first change is.
    QTest::newRow("format 7, colours by scanner channel")
        << las14(7, 36, channelColourRecords(7, 5000, 0)) << 50000;
    QTest::newRow("format 7, channels and extra bytes, chunks of 700")
        << las14(7, 39, channelColourRecords(7, 5000, 3)) << 700;
    QTest::newRow("format 8, colours and infrared by scanner channel")
        << las14(8, 38, channelColourRecords(8, 5000, 0)) << 50000;
    QTest::newRow("format 8, channels and extra bytes, chunks of 50")
        << las14(8, 43, channelColourRecords(8, 3000, 5)) << 50;
}

void TestLaz::peerDecoderReadsWhatWeWrite()
{
    // laz-perf, the format's reference decoder compiled to WebAssembly, reads our LAZ to the
    // very records of the LAS it was made from.
    QFETCH(QByteArray, las);
    QFETCH(int, chunkSize);
    if (!QFile::exists(QStringLiteral(LAZ_PEER_DIR "/node_modules/laz-perf/package.json")))
        QSKIP("laz-perf is not installed (scripts/setup --peer could not reach the npm registry)");
    QTemporaryDir dir;
    const QString source = writeBytes(dir, "source.las", las);
    const QString laz = dir.filePath(QStringLiteral("ours.laz"));
    QString error;
    QVERIFY2(tzCloudFile::convert(source, laz, error, quint32(chunkSize)), qPrintable(error));
    QProcess node;
    const QString records = dir.filePath(QStringLiteral("peer.records"));
    node.start(QStringLiteral("node"),
               {QStringLiteral(LAZ_PEER_SCRIPT), QStringLiteral(LAZ_PEER_DIR), laz, records});
    QVERIFY(node.waitForFinished(60000));
    QVERIFY2(node.exitCode() == 0, node.readAllStandardError().constData());
    const QString where = firstDifference(bytesOf(records), lasRecords(las), at<quint16>(las, 105));
    QVERIFY2(where.isEmpty(), qPrintable(where));
}

void TestLaz::cloudWrittenInEachFormatReadsBack_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QString>("from");
    QTest::newRow("LAZ, colours") << "laz" << data("simple.las");
    QTest::newRow("LAS, 16-bit colours") << "las" << data("simple1_4.las");
    QTest::newRow("PLY, no colours") << "ply" << data("autzen.las");
    QTest::newRow("LAZ, no colours") << "laz" << data("1_4_w_evlr.las");
}

void TestLaz::cloudWrittenInEachFormatReadsBack()
{
    // In its global coordinates, to the millimetre, with its colours and its survey attributes;
    // and through --convert's path for a pair other than LAS and LAZ.
    QFETCH(QString, kind);
    QFETCH(QString, from);
    QString error;
    const auto cloud = open(from, error);
    QVERIFY2(cloud, qPrintable(error));
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("written.") + kind);
    QVERIFY2(tzCloudFile::save(*cloud, path, error, 100), qPrintable(error));
    const QString converted = dir.filePath(QStringLiteral("converted.ply"));
    QVERIFY2(tzCloudFile::convert(path, converted, error), qPrintable(error));
    for (const QString &file : {path, converted}) {
        const auto back = open(file, error);
        QVERIFY2(back, qPrintable(error));
        QCOMPARE(back->size(), cloud->size());
        QCOMPARE(back->hasColors(), cloud->hasColors());
        for (unsigned i = 0; i < cloud->size(); i += 7) {
            for (int d = 0; d < 3; ++d) {
                const double a = (*cloud->getPoint(i))[d] - cloud->getGlobalShift()[d];
                const double b = (*back->getPoint(i))[d] - back->getGlobalShift()[d];
                QVERIFY2(std::abs(a - b) < 2e-3,
                         qPrintable(QStringLiteral("point %1: %2 against %3")
                                        .arg(i)
                                        .arg(b, 0, 'f', 4)
                                        .arg(a, 0, 'f', 4)));
            }
            if (cloud->hasColors())
                QVERIFY(back->getPointColor(i) == cloud->getPointColor(i));
            if (cloud->attributeKinds())
                QVERIFY(back->getPointAttributes(i) == cloud->getPointAttributes(i));
        }
        QCOMPARE(back->attributeKinds(), cloud->attributeKinds());
    }
}

void TestLaz::failedConversionLeavesNothing()
{
    QTemporaryDir dir;
    QString error;
    // A LAS file cut short: found out after the header, with part of the output written.
    const QString cut = writeBytes(dir, "cut.las", bytesOf(data("simple.las")).left(20000));
    const QString out = dir.filePath(QStringLiteral("out.laz"));
    QVERIFY(!tzCloudFile::convert(cut, out, error));
    QVERIFY2(error.contains(QStringLiteral("truncated")), qPrintable(error));
    QVERIFY(!QFile::exists(out));
    // A damaged input: named, and no output.
    QByteArray damaged = bytesOf(data("simple.laz"));
    for (int i = 600; i < 2000; ++i)
        damaged[i] = char(0x55);
    const QString in = writeBytes(dir, "damaged.laz", damaged);
    QVERIFY(!tzCloudFile::convert(in, dir.filePath(QStringLiteral("out.las")), error));
    QVERIFY2(error.startsWith(QLatin1Char('\'') + in + QLatin1Char('\'')), qPrintable(error));
    QVERIFY(!QFile::exists(dir.filePath(QStringLiteral("out.las"))));
    QVERIFY(QDir(dir.path()).entryList(QDir::Files) == (QStringList {"cut.las", "damaged.laz"}));
}

void TestLaz::convertFromTheCommandLine()
{
    QTemporaryDir dir;
    QProcess tessaro;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.remove(QStringLiteral("DISPLAY")); // no window: none is needed
    tessaro.setProcessEnvironment(env);
    const QString out = dir.filePath(QStringLiteral("simple.laz"));
    tessaro.start(QStringLiteral(TESSARO_BIN),
                  {QStringLiteral("--convert"), data("simple.las"), out});
    QVERIFY(tessaro.waitForFinished(30000));
    QCOMPARE(tessaro.exitCode(), 0);
    QVERIFY(QFile::exists(out));
    tessaro.start(QStringLiteral(TESSARO_BIN),
                  {QStringLiteral("--convert"), dir.filePath(QStringLiteral("missing.las")), out});
    QVERIFY(tessaro.waitForFinished(30000));
    QVERIFY(tessaro.exitCode() != 0);
    QVERIFY(tessaro.readAllStandardError().contains("missing.las': cannot open"));
    // The help, without a display too, names every option of both uses.
    tessaro.start(QStringLiteral(TESSARO_BIN), {QStringLiteral("--help")});
    QVERIFY(tessaro.waitForFinished(30000));
    QCOMPARE(tessaro.exitCode(), 0);
    const QByteArray help = tessaro.readAllStandardOutput();
    for (const char *option :
         {"--auto-shift", "--oblique", "--action", "--screenshot", "--colour", "--point-size",
          "--shading", "--convert", "--chunk-size", "--split", "--info", "--json"})
        QVERIFY2(help.contains(option), option);
    // --info --json: an array of the files described; a file that cannot be read is said, the
    // others still described.
    tessaro.start(QStringLiteral(TESSARO_BIN),
                  {QStringLiteral("--info"), QStringLiteral("--json"), data("simple.laz"),
                   dir.filePath(QStringLiteral("missing.las")), data("autzen.las")});
    QVERIFY(tessaro.waitForFinished(30000));
    QCOMPARE(tessaro.exitCode(), 1);
    const QJsonArray described = QJsonDocument::fromJson(tessaro.readAllStandardOutput()).array();
    QCOMPARE(described.size(), 2);
    QCOMPARE(described[0].toObject().value("points").toInt(), 1065);
    QCOMPARE(described[1].toObject().value("format").toString(), QStringLiteral("LAS"));
    QVERIFY(tessaro.readAllStandardError().contains("missing.las': cannot open"));
}

void TestLaz::pointsInOneStreamOpen()
{
    // The first writers coded all the points as one stream after the VLRs, with no chunk table
    // (compressor 1): made here from a LAZ of one chunk.
    QTemporaryDir dir;
    const QString chunked = dir.filePath(QStringLiteral("chunked.laz"));
    QString error;
    QVERIFY2(tzCloudFile::convert(data("simple.las"), chunked, error, 1000000), qPrintable(error));
    QByteArray laz = bytesOf(chunked);
    const int pointData = int(at<quint32>(laz, 96));
    const qint64 table = at<qint64>(laz, pointData);
    laz = laz.left(int(table)).remove(pointData, 8);
    int vlr = at<quint16>(laz, 94);
    while (laz.mid(vlr + 2, 14) != "laszip encoded")
        vlr += 54 + at<quint16>(laz, vlr + 20);
    laz[vlr + 54] = 1;
    const QString stream = writeBytes(dir, "stream.laz", laz);
    const auto cloud = open(stream, error);
    QVERIFY2(cloud, qPrintable(error));
    const auto twin = open(data("simple.las"), error);
    QCOMPARE(cloud->size(), twin->size());
    for (unsigned i = 0; i < twin->size(); i += 97)
        QCOMPARE(*cloud->getPoint(i), *twin->getPoint(i));
    const QString back = dir.filePath(QStringLiteral("back.las"));
    QVERIFY2(tzCloudFile::convert(stream, back, error), qPrintable(error));
    QCOMPARE(lasRecords(bytesOf(back)), lasRecords(bytesOf(data("simple.las"))));
}

void TestLaz::octreeNodeChunksOpen()
{
    // A cloud optimised for streaming: LAZ 1.4 whose chunks are octree nodes of any size (the
    // chunk table gives each one's points), its description VLR first and its hierarchy in an
    // extended VLR after the points. Made here from the peer's format 7 file.
    const QByteArray las = bytesOf(data("simple1_4.las"));
    const QByteArray records = lasRecords(las);
    const int length = 36;
    const quint32 points = quint32(records.size() / length);
    tzLaz::Description description;
    std::string error;
    QVERIFY(tzLaz::describeFormat(7, length, tzLaz::Description::VARIABLE_CHUNK_SIZE, description,
                                  error));
    const std::vector<uchar> payload = tzLaz::descriptionBytes(description);
    const auto vlr = [](const char *user, quint16 id, const QByteArray &body) {
        QByteArray v(54, '\0');
        std::memcpy(v.data() + 2, user, std::strlen(user));
        std::memcpy(v.data() + 18, &id, 2);
        const quint16 size = quint16(body.size());
        std::memcpy(v.data() + 20, &size, 2);
        return v + body;
    };
    const int lasVlrs = int(at<quint32>(las, 96)) - 375;
    QByteArray out = las.left(375) + vlr("copc", 1, QByteArray(160, '\x01')) + las.mid(375, lasVlrs)
        + vlr("laszip encoded", tzLaz::Description::RECORD_ID,
              QByteArray(reinterpret_cast<const char *>(payload.data()), int(payload.size())));
    const quint32 dataOffset = quint32(out.size());
    store(out, 96, dataOffset);
    const quint32 vlrCount = at<quint32>(las, 100) + 2;
    store(out, 100, vlrCount);
    out[104] = char(7 | 0x80);
    out += QByteArray(8, '\0');
    tzLaz::ChunkEncoder encoder(description);
    std::vector<tzLaz::Chunk> chunks;
    const quint32 sizes[] = {1, 4000, 37, 9000, 2};
    for (quint32 first = 0, i = 0; first < points; ++i) {
        const quint32 n = i < 5 ? std::min(sizes[i], points - first) : points - first;
        std::vector<uchar> bytes;
        encoder.encode(reinterpret_cast<const uchar *>(records.constData()) + first * length, n,
                       bytes);
        chunks.push_back({quint64(out.size()), bytes.size(), n});
        out.append(reinterpret_cast<const char *>(bytes.data()), int(bytes.size()));
        first += n;
    }
    const qint64 tableOffset = out.size();
    store(out, int(dataOffset), tableOffset);
    std::vector<uchar> table;
    tzLaz::writeChunkTable(chunks, true, table);
    out.append(reinterpret_cast<const char *>(table.data()), int(table.size()));
    const quint64 evlrStart = quint64(out.size());
    store(out, 235, evlrStart);
    const quint32 evlrCount = 2;
    store(out, 243, evlrCount);
    const auto evlr = [](const char *user, quint16 id, const QByteArray &body) {
        QByteArray e(60, '\0');
        std::memcpy(e.data() + 2, user, std::strlen(user));
        store(e, 18, id);
        store(e, 20, quint64(body.size()));
        return e + body;
    };
    const QByteArray other = evlr("surveyor", 7, "kept as it is");
    // The hierarchy: a root page of two entries, the root node (its 4000-odd points in the
    // second chunk) and a page below of one node at depth 3.
    const auto entry = [](qint32 d, quint64 offset, qint32 bytes, qint32 points) {
        QByteArray e(32, '\0');
        store(e, 0, d);
        store(e, 16, offset);
        store(e, 24, bytes);
        store(e, 28, points);
        return e;
    };
    const quint64 rootPage = evlrStart + 60, childPage = rootPage + 64;
    const QByteArray hierarchy = entry(0, chunks[1].offset, qint32(chunks[1].bytes), 4000)
        + entry(1, childPage, 32, -1) + entry(3, chunks[2].offset, qint32(chunks[2].bytes), 37);
    out += evlr("copc", 1000, hierarchy) + other;
    store(out, 375 + 54 + 40, rootPage);
    store(out, 375 + 54 + 48, quint64(64));

    QTemporaryDir dir;
    const QString copc = writeBytes(dir, "survey.copc.laz", out);
    // Described without its points: the octree walked from its root page.
    QJsonObject info;
    QString described;
    QVERIFY2(tzCloudFile::describe(copc, info, described), qPrintable(described));
    QCOMPARE(info.value("format").toString(), QStringLiteral("COPC"));
    QCOMPARE(info.value("laz").toObject().value("chunkSize").toString(),
             QStringLiteral("variable"));
    QCOMPARE(info.value("laz").toObject().value("chunks").toInt(), 6);
    const QJsonObject octree = info.value("copc").toObject();
    QCOMPARE(octree.value("depth").toInt(), 4);
    QCOMPARE(octree.value("nodes").toInt(), 2);
    QCOMPARE(octree.value("hierarchyPages").toInt(), 2);
    QCOMPARE(octree.value("pointsInNodes").toInt(), 4037);
    QVERIFY(!octree.contains("problem"));
    QString problem;
    QCOMPARE(lazRecords(out, problem), records);
    QVERIFY2(problem.isEmpty(), qPrintable(problem));
    const auto cloud = open(copc, problem);
    QVERIFY2(cloud, qPrintable(problem));
    const auto twin = open(data("simple1_4.las"), problem);
    QCOMPARE(cloud->size(), twin->size());
    for (unsigned i = 0; i < twin->size(); i += 7) {
        QCOMPARE(*cloud->getPoint(i), *twin->getPoint(i));
        QVERIFY(cloud->getPointColor(i) == twin->getPointColor(i));
    }
    // Converted to LAS or LAZ: the records, the other VLRs and extended VLRs; not the octree's
    // description and hierarchy, which no longer match its chunks (an octree reader would
    // take the result for a broken one).
    for (const char *kind : {"las", "laz"}) {
        const QString back = dir.filePath(QStringLiteral("survey.") + QLatin1String(kind));
        QVERIFY2(tzCloudFile::convert(copc, back, problem), qPrintable(problem));
        const QByteArray converted = bytesOf(back);
        QCOMPARE(kind[2] == 's' ? lasRecords(converted) : lazRecords(converted, problem), records);
        QVERIFY(!converted.left(int(at<quint32>(converted, 96))).contains("copc"));
        QCOMPARE(at<quint32>(converted, 100), at<quint32>(las, 100) + (kind[2] == 'z' ? 1 : 0));
        QCOMPARE(at<quint32>(converted, 243), 1u);
        QCOMPARE(converted.mid(int(at<quint64>(converted, 235))), other);
    }
}

void TestLaz::damagedFilesAreRefused_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("problem");
    const QByteArray laz = bytesOf(data("simple.laz"));
    const quint32 pointData = at<quint32>(laz, 96);
    QTest::newRow("truncated in the header") << laz.left(100) << "the LAS header is truncated";
    QTest::newRow("truncated in the points") << laz.left(int(pointData) + 2000) << "chunk 1";
    QByteArray corrupt = laz;
    for (int i = int(pointData) + 400; i < int(pointData) + 1400; ++i)
        corrupt[i] = char(0xff);
    QTest::newRow("a chunk overwritten") << corrupt << "chunk 1";
    QByteArray unknown = laz;
    int vlr = at<quint16>(laz, 94);
    while (laz.mid(vlr + 2, 14) != "laszip encoded")
        vlr += 54 + at<quint16>(laz, vlr + 20);
    unknown[vlr + 54 + 34] = 42; // the first item's type
    QTest::newRow("an unknown item") << unknown << "LAZ item 'unknown' (type 42";
    QByteArray wrongLength = laz;
    wrongLength[105] = 40;
    QTest::newRow("records of another length")
        << wrongLength << "records of 34 bytes, the header says 40";
    // Found by the fuzzer: a layered chunk whose bytes empty the coder's interval.
    QTest::newRow("a layer no encoder wrote")
        << bytesOf(QStringLiteral(TESSARO_TEST_DATA "/fuzz/laz-empty-interval.laz"))
        << "its layers cannot be decoded";
}

void TestLaz::damagedFilesAreRefused()
{
    QFETCH(QByteArray, bytes);
    QFETCH(QString, problem);
    QTemporaryDir dir;
    const QString path = writeBytes(dir, "damaged.laz", bytes);
    QString error;
    QVERIFY(!open(path, error));
    QVERIFY2(error.startsWith(QLatin1Char('\'') + path + QLatin1Char('\'')), qPrintable(error));
    QVERIFY2(error.contains(problem), qPrintable(error));
}

void TestLaz::previewsCoverTheExtentEarly_data()
{
    QTest::addColumn<int>("chunkSize"); // 0: LAS
    QTest::newRow("LAS") << 0;
    QTest::newRow("LAZ, chunks of 5000") << 5000;
}

void TestLaz::previewsCoverTheExtentEarly()
{
    // A survey flown in rows, stored row after row: what is read first in file order is a strip.
    QFETCH(int, chunkSize);
    constexpr int ROW = 750, ROWS = 800, LENGTH = 36;
    QByteArray records(ROW * ROWS * LENGTH, '\0');
    for (int i = 0; i < ROW * ROWS; ++i) {
        char *r = records.data() + i * LENGTH;
        const qint32 xyz[3] = {(i % ROW) * 40, (i / ROW) * 40, (i * 7) % 300};
        std::memcpy(r, xyz, 12);
        r[14] = 0x11;
        const quint16 rgb[3] = {quint16(i % 256), quint16(i / ROW % 256), 90};
        std::memcpy(r + 30, rgb, 6);
    }
    QTemporaryDir dir;
    QString path = writeBytes(dir, "rows.las", las14(7, LENGTH, records));
    if (chunkSize > 0) {
        const QString laz = dir.filePath(QStringLiteral("rows.laz"));
        QString error;
        QVERIFY2(tzCloudFile::convert(path, laz, error, quint32(chunkSize)), qPrintable(error));
        path = laz;
    }
    struct Shown
    {
        size_t points;
        float span[2];
        bool everyPointColoured;
        std::vector<TZVector3> sample;
    };
    std::vector<Shown> previews;
    tzCloudFile::LoadOptions options;
    options.preview
        = [&](std::vector<TZVector3> &&points, std::vector<tzRgb> &&colours, const TZVector3d &) {
              Shown shown {points.size(), {0, 0}, colours.size() == points.size(), {}};
              for (int a = 0; a < 2; ++a) {
                  const auto [lo, hi] = std::minmax_element(
                      points.begin(), points.end(),
                      [a](const TZVector3 &p, const TZVector3 &q) { return p[a] < q[a]; });
                  shown.span[a] = (*hi)[a] - (*lo)[a];
              }
              for (size_t i = 0; i < points.size(); i += 997)
                  shown.sample.push_back(points[i]);
              previews.push_back(std::move(shown));
          };
    QString error;
    const std::unique_ptr<tzPointCloud> cloud(tzCloudFile::load(path, error, options));
    QVERIFY2(cloud, qPrintable(error));
    const std::unique_ptr<tzPointCloud> whole(tzCloudFile::load(path, error));
    QVERIFY2(whole, qPrintable(error));
    const unsigned n = cloud->size();
    // A 16th, then a quarter, each spread over the whole survey's extent.
    QCOMPARE(previews.size(), size_t(2));
    QVERIFY(previews[0].points >= n / 16 && previews[0].points < n / 4);
    QVERIFY(previews[1].points >= n / 4 && previews[1].points < n / 2);
    const float full[2] = {(ROW - 1) * 0.4f, (ROWS - 1) * 0.4f};
    for (const Shown &shown : previews) {
        QVERIFY(shown.everyPointColoured);
        for (int a = 0; a < 2; ++a)
            QVERIFY2(shown.span[a] > 0.8f * full[a], qPrintable(QString::number(shown.span[a])));
        // The points shown are points of the file, where they stay.
        for (const TZVector3 &p : shown.sample) {
            const int column = int(std::lround((p.x - cloud->getPoint(0)->x) / 0.4f));
            const int row = int(std::lround((p.y - cloud->getPoint(0)->y) / 0.4f));
            QVERIFY(column >= 0 && column < ROW && row >= 0 && row < ROWS);
            QCOMPARE(*cloud->getPoint(unsigned(row * ROW + column)), p);
        }
    }
    // The cloud read with previews is the cloud read without.
    QCOMPARE(whole->size(), n);
    for (unsigned i = 0; i < n; ++i) {
        if (!(*whole->getPoint(i) == *cloud->getPoint(i))
            || !(whole->getPointColor(i) == cloud->getPointColor(i)))
            QFAIL(qPrintable(QStringLiteral("point %1 differs").arg(i)));
    }
}

QTEST_MAIN(TestLaz)
#include "tst_laz.moc"
