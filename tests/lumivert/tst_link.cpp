// The link with the companion: the outbound texts to the byte, frames cut from a real socket,
// connect failures, a companion that closes and comes back, and the stand-in end to end.

#include "MensurixSim.h"
#include "Messages.h"
#include "tzCommunicationHandler.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QSettings>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtTest>

#include <clocale>
#include <cstdio>
#include <ctime>
#include <memory>
#include <mutex>

namespace {

// The companion's side of the link, in the test.
struct Companion
{
    QTcpServer server;
    QPointer<QTcpSocket> client;

    bool listen() { return server.listen(QHostAddress::LocalHost, 6601); }
    bool accept()
    {
        // With the event loop running: the link's attempts to connect again are its timers.
        if (!QTest::qWaitFor([this] { return server.hasPendingConnections(); }, 5000))
            return false;
        client = server.nextPendingConnection();
        return client;
    }
    // Written and given time to arrive alone, so that it is one read on the other side.
    void send(const QByteArray &bytes)
    {
        client->write(bytes);
        client->waitForBytesWritten(1000);
        QTest::qWait(60);
    }
    // At least size bytes, or what came within a few seconds.
    QByteArray receive(int size)
    {
        QByteArray bytes;
        for (int i = 0; i < 100 && bytes.size() < size; ++i) {
            if (client->bytesAvailable() || client->waitForReadyRead(50))
                bytes += client->readAll();
        }
        return bytes;
    }
    QByteArray receiveLine()
    {
        QByteArray line;
        for (int i = 0; i < 100 && !line.endsWith('\n'); ++i) {
            if (client->bytesAvailable() || client->waitForReadyRead(50))
                line += client->readAll();
        }
        return line;
    }
};

double cpuSeconds()
{
    return double(std::clock()) / CLOCKS_PER_SEC;
}

} // namespace

class TestLink : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void outboundTexts_data();
    void outboundTexts();
    void textsIgnoreTheUsersLocale();
    void framesAreCutAtEachEndOfTransmission();
    void connectWithNothingListening();
    void portSettingOnlyFillsTheField();
    void textsMadeWithoutALinkWaitForIt();
    void companionClosingThenComingBack();
    void lostLinkIsSaidAndTriedAgainWithTheTextsInOrder();
    void atMostTheNewestUnsentTextsWait();
    void aClosedLinkNeverReadsALaterSocket();
    void destroyingWhileConnectedDoesNotHang();
    void standInEndToEnd();

private:
    QTemporaryDir m_settings;
};

void TestLink::initTestCase()
{
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, m_settings.path());
    QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, m_settings.path());
}

void TestLink::init()
{
    QSettings(QSettings::NativeFormat, QSettings::UserScope, QStringLiteral("LumiVert"),
              QStringLiteral("LinkServer"))
        .clear();
}

void TestLink::outboundTexts_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QByteArray>("expected");
    QTest::newRow("new point") << tzCommunicationHandler::coordinatesText(1.5, 2, -3, 6601)
                               << QByteArray("{ \"coordonnees\": { \"xp\": \"1.5000\", \"yp\": "
                                             "\"2.0000\", \"zp\": \"-3.0000\"  \"Port=\" \"6601\" "
                                             "} }\n");
    QTest::newRow("large and negative, no exponent")
        << tzCommunicationHandler::coordinatesText(123456.78912, -6862345.123456, 1e9, 0)
        << QByteArray("{ \"coordonnees\": { \"xp\": \"123456.7891\", \"yp\": \"-6862345.1235\", "
                      "\"zp\": \"1000000000.0000\"  \"Port=\" \"0\" } }\n");
    // The new position comes first in the call, and goes to the "to" fields.
    QTest::newRow("point move")
        << tzCommunicationHandler::pointMoveText(10, 20, 30, 1, 2, 3, 7000)
        << QByteArray("{ \"pointMove\": { \"xfrom\": \"1.0000\", \"yfrom\": \"2.0000\", \"zfrom\": "
                      "\"3.0000\" \"xto\": \"10.0000\", \"yto\": \"20.0000\", \"zto\": \"30.0000\" "
                      "\"Port=\" \"7000\" } }\n");
    QTest::newRow("mouse cursor")
        << tzCommunicationHandler::mouseCursorText({0, 0, 1}, {652345.25, 6862345.5, 123.125}, 6601)
        << QByteArray("{ \"mouseCursor\": { \"xp\": \"652345.2500\", \"yp\": \"6862345.5000\","
                      "\"zp\": \"123.1250\",\"xUp\": \"0.0000\",\"yUp\": \"0.0000\",\"zUp\": "
                      "\"1.0000\" \"Port=\" \"6601\"} }\n");
}

void TestLink::outboundTexts()
{
    QFETCH(QByteArray, text);
    QFETCH(QByteArray, expected);
    QCOMPARE(text, expected);
    // The stand-in's own reading of the templates agrees.
    QCOMPARE(MensurixSim::templateFor(text, nullptr, nullptr), expected);
}

void TestLink::textsIgnoreTheUsersLocale()
{
    const QLocale previous;
    QLocale::setDefault(QLocale(QLocale::German, QLocale::Germany));
    const char *cLocale = std::setlocale(LC_ALL, nullptr);
    const std::string saved = cLocale ? cLocale : "C";
    // The build tree's own German locale (LOCPATH): a decimal comma for printf too.
    const bool german = std::setlocale(LC_ALL, "de_DE.UTF-8") != nullptr;
    char probe[16];
    std::snprintf(probe, sizeof probe, "%.1f", 1.5);
    const QByteArray text = tzCommunicationHandler::coordinatesText(1.5, -2.25, 1234567.5, 6601);
    std::setlocale(LC_ALL, saved.c_str());
    QLocale::setDefault(previous);
    QVERIFY2(german && QByteArray(probe) == "1,5",
             "no German locale: the build compiles one into build/locale (localedef, package "
             "'locales')");
    QVERIFY2(text.contains("\"xp\": \"1.5000\", \"yp\": \"-2.2500\", \"zp\": \"1234567.5000\""),
             text.constData());
}

void TestLink::framesAreCutAtEachEndOfTransmission()
{
    Companion companion;
    QVERIFY(companion.listen());
    tzCommunicationHandler link;
    QStringList frames;
    link.setFrameObserver([&frames](const QString &frame) { frames << frame; });
    QVERIFY(link.connectToServer());
    QVERIFY(companion.accept());

    companion.send("AB"); // a frame split across reads...
    QCOMPARE(frames, QStringList());
    companion.send("C\x04"
                   "D"); // ...is dispatched once its end arrives; "D" waits
    QTRY_COMPARE(frames, QStringList {"ABC"});
    companion.send(QByteArray("E\x04\x04"
                              "F\x04"
                              "G",
                              7)); // three frames, one of them empty
    QTRY_COMPARE(frames, (QStringList {"ABC", "DE", "", "F"}));
    companion.send(QByteArray("H\0IJ\x04", 5)); // a zero byte ends the chunk: "IJ\x04" is lost
    companion.send("\x04");
    QTRY_COMPARE(frames.size(), 5);
    QCOMPARE(frames.last(), QStringLiteral("GH"));
    link.disconnectFromServer();
}

void TestLink::connectWithNothingListening()
{
    Messages log;
    tzCommunicationHandler link;
    QVERIFY(!link.connectToServer());
    QVERIFY(log.has(QStringLiteral("\nInitialising Winsock...")));
    QVERIFY(log.has(QStringLiteral("Socket created.")));
    QVERIFY2(log.has(QStringLiteral("Could not connect : %1").arg(ECONNREFUSED)),
             qPrintable(log.lines().join(QLatin1Char('|'))));
    link.disconnectFromServer();
}

void TestLink::portSettingOnlyFillsTheField()
{
    QSettings(QSettings::NativeFormat, QSettings::UserScope, QStringLiteral("LumiVert"),
              QStringLiteral("LinkServer"))
        .setValue(QStringLiteral("portTCP"), 7000);
    Companion companion; // on 6601 all the same
    QVERIFY(companion.listen());
    tzCommunicationHandler link;
    QCOMPARE(link.portValue(), 0);
    QVERIFY(link.connectToServer());
    QVERIFY(companion.accept());
    QCOMPARE(link.portValue(), 7000);
    link.sendCoordinates(1, 2, 3);
    QCOMPARE(companion.receiveLine(), tzCommunicationHandler::coordinatesText(1, 2, 3, 7000));
    link.sendPointMove(4, 5, 6, 1, 2, 3);
    QCOMPARE(companion.receiveLine(),
             tzCommunicationHandler::pointMoveText(4, 5, 6, 1, 2, 3, 7000));
    link.disconnectFromServer();
}

void TestLink::textsMadeWithoutALinkWaitForIt()
{
    tzCommunicationHandler link;
    link.sendMouseCursor({0, 0, 1}, {1, 2, 3});
    link.sendCoordinates(4, 5, 6);
    QCOMPARE(link.unsentCount(), 2);
    Companion companion;
    QVERIFY(companion.listen());
    QSignalSpy restored(&link, &tzCommunicationHandler::linkRestored);
    QVERIFY(link.connectToServer());
    QVERIFY(companion.accept());
    link.sendCoordinates(7, 8, 9); // after the ones waiting
    const QByteArray expected = tzCommunicationHandler::mouseCursorText({0, 0, 1}, {1, 2, 3}, 0)
        + tzCommunicationHandler::coordinatesText(4, 5, 6, 0)
        + tzCommunicationHandler::coordinatesText(7, 8, 9, 0);
    QCOMPARE(companion.receive(expected.size()), expected);
    QCOMPARE(link.unsentCount(), 0);
    QCOMPARE(restored.size(), 1);
    QCOMPARE(restored[0][0].toInt(), 2);
    link.disconnectFromServer();
}

void TestLink::companionClosingThenComingBack()
{
    Messages log;
    auto companion = std::make_unique<Companion>();
    QVERIFY(companion->listen());
    tzCommunicationHandler link;
    QStringList frames;
    link.setFrameObserver([&frames](const QString &frame) { frames << frame; });
    QVERIFY(link.connectToServer());
    QVERIFY(companion->accept());
    companion->send("one\x04");
    QTRY_COMPARE(frames, QStringList {"one"});
    companion.reset(); // the companion goes away: the reader reads nothing, without spinning
    const double before = cpuSeconds();
    QTest::qWait(500);
    QVERIFY2(cpuSeconds() - before < 0.25,
             qPrintable(QStringLiteral("%1 s of CPU in 0.5 s").arg(cpuSeconds() - before)));

    // The run is closed and started again, with the companion back.
    link.disconnectFromServer();
    // The reader loop has ended before the socket went back to the system.
    QVERIFY(log.lines().filter(QRegularExpression(QStringLiteral("^recvfrom : \\d+$"))).size()
            == 1);
    companion = std::make_unique<Companion>();
    QVERIFY(companion->listen());
    QVERIFY(link.connectToServer());
    QVERIFY(companion->accept());
    companion->send("two\x04");
    QTRY_COMPARE(frames, (QStringList {"one", "two"}));
    link.sendCoordinates(7, 8, 9);
    QCOMPARE(companion->receiveLine(), tzCommunicationHandler::coordinatesText(7, 8, 9, 0));
    link.disconnectFromServer();
}

void TestLink::lostLinkIsSaidAndTriedAgainWithTheTextsInOrder()
{
    auto companion = std::make_unique<Companion>();
    QVERIFY(companion->listen());
    tzCommunicationHandler link;
    QSignalSpy lost(&link, &tzCommunicationHandler::linkLost);
    QSignalSpy restored(&link, &tzCommunicationHandler::linkRestored);
    QVERIFY(link.connectToServer());
    link.setReconnecting(true);
    QVERIFY(companion->accept());
    link.sendCoordinates(1, 1, 1);
    QCOMPARE(companion->receiveLine(), tzCommunicationHandler::coordinatesText(1, 1, 1, 0));

    companion.reset(); // the companion goes away
    QTRY_COMPARE(lost.size(), 1);
    QVERIFY(!link.isConnected());
    // Made while it is away: kept, in order, and the loss is said once.
    link.sendCoordinates(2, 2, 2);
    link.sendPointMove(3, 3, 3, 2, 2, 2);
    link.sendMouseCursor({0, 0, 1}, {4, 4, 4});
    QCOMPARE(link.unsentCount(), 3);
    // A failed attempt, with nothing listening, changes nothing of that.
    const int attempts = link.attemptCount();
    QTRY_VERIFY_WITH_TIMEOUT(link.attemptCount() > attempts, 5000);
    QCOMPARE(link.unsentCount(), 3);
    QCOMPARE(lost.size(), 1);
    QCOMPARE(restored.size(), 0);

    companion = std::make_unique<Companion>();
    QVERIFY(companion->listen());
    QElapsedTimer back;
    back.start();
    QVERIFY(companion->accept());
    const QByteArray expected = tzCommunicationHandler::coordinatesText(2, 2, 2, 0)
        + tzCommunicationHandler::pointMoveText(3, 3, 3, 2, 2, 2, 0)
        + tzCommunicationHandler::mouseCursorText({0, 0, 1}, {4, 4, 4}, 0);
    QCOMPARE(companion->receive(expected.size()), expected);
    QVERIFY2(back.elapsed() < 3000, qPrintable(QString::number(back.elapsed())));
    QTRY_COMPARE(restored.size(), 1);
    QCOMPARE(restored[0][0].toInt(), 3);
    QCOMPARE(restored[0][1].toInt(), 0);
    QVERIFY(link.isConnected());
    // Frames come in on the new connection.
    QStringList frames;
    link.setFrameObserver([&frames](const QString &frame) { frames << frame; });
    companion->send("again\x04");
    QTRY_COMPARE(frames, QStringList {"again"});

    // Closing the run stops the attempts: nothing connects to a companion that comes back.
    link.disconnectFromServer();
    QVERIFY(!link.attemptScheduled());
    companion = std::make_unique<Companion>();
    QVERIFY(companion->listen());
    // What would have come in the attempts' interval: nothing.
    QCoreApplication::processEvents();
    QVERIFY(!link.attemptScheduled());
    QVERIFY(!companion->server.hasPendingConnections());
}

void TestLink::atMostTheNewestUnsentTextsWait()
{
    tzCommunicationHandler link;
    const int extra = 5;
    for (int i = 0; i < tzCommunicationHandler::MAX_UNSENT + extra; ++i)
        link.sendCoordinates(i, 0, 0);
    QCOMPARE(link.unsentCount(), tzCommunicationHandler::MAX_UNSENT);
    Companion companion;
    QVERIFY(companion.listen());
    QSignalSpy restored(&link, &tzCommunicationHandler::linkRestored);
    QVERIFY(link.connectToServer());
    QVERIFY(companion.accept());
    QCOMPARE(restored.size(), 1);
    QCOMPARE(restored[0][0].toInt(), tzCommunicationHandler::MAX_UNSENT);
    QCOMPARE(restored[0][1].toInt(), extra);
    // The oldest ones went: the first to arrive is the first kept.
    QCOMPARE(companion.receiveLine().left(60),
             tzCommunicationHandler::coordinatesText(extra, 0, 0, 0).left(60));
    link.disconnectFromServer();
}

void TestLink::aClosedLinkNeverReadsALaterSocket()
{
    auto companion = std::make_unique<Companion>();
    QVERIFY(companion->listen());
    tzCommunicationHandler link;
    QVERIFY(link.connectToServer());
    QVERIFY(companion->accept());
    QSignalSpy lost(&link, &tzCommunicationHandler::linkLost);
    companion.reset(); // the reader now reads nothing and waits between its reads
    QTRY_COMPARE(lost.size(), 1);
    QTcpServer server;
    QVERIFY(server.listen(QHostAddress::LocalHost));
    link.disconnectFromServer();
    // The next socket made takes the handle just given back: the link must not read it.
    QTcpSocket client;
    client.connectToHost(QHostAddress::LocalHost, server.serverPort());
    QVERIFY(client.waitForConnected(2000));
    QVERIFY(server.waitForNewConnection(2000));
    QTcpSocket *peer = server.nextPendingConnection();
    // In pieces over a while: a reader still on the handle would take some of them.
    const QByteArray bytes(5000, 'x');
    for (int at = 0; at < bytes.size(); at += 500) {
        peer->write(bytes.mid(at, 500));
        peer->waitForBytesWritten(100);
        QThread::msleep(3);
    }
    QByteArray received;
    QTRY_VERIFY((received += client.readAll()).size() >= bytes.size());
    QCOMPARE(received, bytes);
}

void TestLink::destroyingWhileConnectedDoesNotHang()
{
    Companion companion;
    QVERIFY(companion.listen());
    auto link = std::make_unique<tzCommunicationHandler>();
    QVERIFY(link->connectToServer());
    QVERIFY(companion.accept());
    // Two chunks the GUI thread never takes: the reader waits for the inbox with the second.
    companion.client->write("first\x04");
    companion.client->waitForBytesWritten(1000);
    QThread::msleep(100);
    companion.client->write("second\x04");
    companion.client->waitForBytesWritten(1000);
    QThread::msleep(100);
    QElapsedTimer clock;
    clock.start();
    link.reset();
    QVERIFY2(clock.elapsed() < 1000, qPrintable(QString::number(clock.elapsed())));
}

void TestLink::standInEndToEnd()
{
    QTemporaryDir dir;
    const QString script = dir.filePath(QStringLiteral("script.jsonl"));
    const QString logPath = dir.filePath(QStringLiteral("sim.log"));
    {
        QFile file(script);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("# frames for the test\n"
                   "{\"type\": \"delete\", \"ident\": \"a\"}\n"
                   "!split 3\n"
                   "{\"type\": \"mesure\", \"x\": 1.5}\n"
                   "!split 0\n"
                   "!raw pending\n");
    }
    QProcess sim;
    sim.setProgram(QStringLiteral(MENSURIX_SIM));
    sim.setArguments({QStringLiteral("--script"), script, QStringLiteral("--log"), logPath,
                      QStringLiteral("--no-input")});
    sim.start();
    QVERIFY(sim.waitForStarted());
    QTRY_VERIFY(QFile::exists(logPath) && QFile(logPath).size() > 0); // listening

    tzCommunicationHandler link;
    QStringList frames;
    link.setFrameObserver([&frames](const QString &frame) { frames << frame; });
    QVERIFY(link.connectToServer());
    QTRY_COMPARE(frames,
                 (QStringList {"{\"type\": \"delete\", \"ident\": \"a\"}",
                               "{\"type\": \"mesure\", \"x\": 1.5}"}));
    link.sendCoordinates(652345.125, 6862345.5, 123.25);
    link.sendPointMove(1, 2, 3, 4, 5, 6);
    // The sight placed comes back numbered, as the companion numbers it; the move from a place
    // where it has no sight of its own is not answered, a move of its sight is.
    const QString numbered = QStringLiteral(
        "{\"type\": \"CVisee\", \"ident\": 1, \"number\": \"1001\", \"Rcolor\": 255, "
        "\"Gcolor\": 255, \"Bcolor\": 0, \"coord\": {\"X\": %1}}");
    QTRY_COMPARE(frames.size(), 3);
    // (after the script's raw "pending", which had no end of frame)
    QCOMPARE(
        frames[2],
        QStringLiteral("pending")
            + numbered.arg(QStringLiteral("652345.1250, \"Y\": 6862345.5000, \"Z\": 123.2500")));
    link.sendPointMove(652346, 6862346.25, 124, 652345.125, 6862345.5, 123.25);
    QTRY_COMPARE(frames.size(), 4);
    QCOMPARE(frames[3],
             numbered.arg(QStringLiteral("652346.0000, \"Y\": 6862346.2500, \"Z\": 124.0000")));
    const auto logText = [&logPath] {
        QFile file(logPath);
        return file.open(QIODevice::ReadOnly) ? QString::fromLocal8Bit(file.readAll()) : QString();
    };
    QTRY_VERIFY(logText().count(QStringLiteral("template: exact")) == 3);
    QVERIFY(logText().contains(
        QStringLiteral("<- coordonnees x=652345.1250 y=6862345.5000 z=123.2500 port=0")));
    QVERIFY(logText().contains(QStringLiteral(
        "<- pointMove from (4.0000, 5.0000, 6.0000) to (1.0000, 2.0000, 3.0000) port=0")));
    link.disconnectFromServer();
    sim.kill();
    sim.waitForFinished();

    // The stand-in says so when a text is not the template to the byte.
    QByteArray wrong = tzCommunicationHandler::coordinatesText(1, 2, 3, 0);
    wrong.replace("\"  \"Port=\"", "\", \"Port=\"");
    QVERIFY(MensurixSim::templateFor(wrong, nullptr, nullptr) != wrong);
}

QTEST_MAIN(TestLink)
#include "tst_link.moc"
