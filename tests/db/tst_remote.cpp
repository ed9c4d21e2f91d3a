// A COPC file served over HTTP by a real server (a local one, answering byte ranges after a
// delay, and misbehaving on demand): the same nodes and the same picks as the file on the disk;
// the view's frame does not wait for the server; a second opening is read from the disk cache;
// a server that sends whole files, a file that is not COPC, a missing one and cut connections
// each give a message that names the URL and the problem, and what was shown stays.

#include "StreamedViews.h"
#include "tzCloudFile.h"
#include "tzCopc.h"
#include "tzLog.h"
#include "tzStreamedCloud.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <cmath>
#include <memory>
#include <random>
#include <tuple>

namespace {

using streamed::settle;
using streamed::survey;
using streamed::topView;

std::uint64_t shown(const std::vector<tzStreamedCloud::Piece> &pieces)
{
    std::uint64_t n = 0;
    for (const auto &p : pieces)
        n += p.count;
    return n;
}

//! Every node's records, by key.
std::map<tzCopc::Key, std::vector<std::uint8_t>> allRecords(const tzCopc::File &file,
                                                            QString &error)
{
    std::map<tzCopc::Key, std::vector<std::uint8_t>> out;
    std::vector<tzCopc::Entry> nodes;
    if (!file.readHierarchy(nodes, error))
        return {};
    for (const tzCopc::Entry &n : nodes) {
        if (!file.readRecords(n, out[n.key], error))
            return {};
    }
    return out;
}

} // namespace

class TestRemote : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QProcess m_server;
    QString m_base; // http://127.0.0.1:port/
    QString m_copc;
    QStringList m_warnings;

    // A line the server answers to a command (or its first line).
    QByteArray serverSays(const QByteArray &command = {})
    {
        if (!command.isEmpty())
            m_server.write(command + '\n');
        while (!m_server.canReadLine()) {
            if (!m_server.waitForReadyRead(10000))
                return {};
        }
        return m_server.readLine().trimmed();
    }
    quint64 requests() { return serverSays("requests").mid(9).toULongLong(); }
    void useCache(const QString &name)
    {
        tzCopc::RemoteSettings settings = tzCopc::remoteSettings();
        settings.cacheFolder = name.isEmpty() ? QString() : m_dir.filePath(name);
        tzCopc::setRemoteSettings(settings);
    }
    std::unique_ptr<tzStreamedCloud> openStreamed(const QString &name, QString &error)
    {
        return streamed::openStreamed(name, {-651000, -6861000, 0}, error);
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QString error;
        // A tree of a few levels.
        m_copc = streamed::indexSurvey(m_dir.path(), 120000, 3000, error);
        QVERIFY2(!m_copc.isEmpty(), qPrintable(error));
        m_server.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_server.start(QStringLiteral("python3"),
                       {QStringLiteral(RANGE_SERVER), m_dir.path(), QStringLiteral("--commands"),
                        QStringLiteral("--latency"), QStringLiteral("0.01")});
        QVERIFY(m_server.waitForStarted());
        const QByteArray port = serverSays();
        QVERIFY2(port.startsWith("PORT "), port.constData());
        m_base = QStringLiteral("http://127.0.0.1:%1/").arg(QString::fromLatin1(port.mid(5)));
        tzCopc::RemoteSettings settings;
        settings.timeoutSeconds = 2;
        settings.attempts = 3;
        settings.retryPauseMs = 20;
        settings.retryFailuresAfterMs = 1500;
        tzCopc::setRemoteSettings(settings);
        tzLog::SetHandler([this](const QString &text, int) { m_warnings << text; });
    }
    void cleanupTestCase()
    {
        m_server.closeWriteChannel();
        m_server.waitForFinished(3000);
    }

    // Every page and node read over HTTP is the file's, byte for byte; the streamed cloud's
    // picks are the same points; the first frame is drawn before the server has answered for
    // the nodes it asks for.
    void servedAsOnDisk()
    {
        useCache(QStringLiteral("cache-same"));
        const QString url = m_base + QStringLiteral("survey.copc.laz");
        tzCopc::File local, remote;
        QString error;
        QVERIFY2(local.open(m_copc, error), qPrintable(error));
        QVERIFY2(remote.open(url, error), qPrintable(error));
        QVERIFY(remote.isRemote() && !local.isRemote());
        QCOMPARE(remote.pointCount(), local.pointCount());
        const auto fromDisk = allRecords(local, error);
        QVERIFY2(!fromDisk.empty(), qPrintable(error));
        const auto served = allRecords(remote, error);
        QVERIFY2(served == fromDisk, qPrintable(error));
        QVERIFY(fromDisk.size() > 20);

        std::unique_ptr<tzStreamedCloud> here = openStreamed(m_copc, error);
        QVERIFY2(here, qPrintable(error));
        useCache({}); // every node from the server
        std::unique_ptr<tzStreamedCloud> there = openStreamed(url, error);
        QVERIFY2(there, qPrintable(error));
        const auto view = topView(-10, 310, -10, 210, 2000, 10000000);
        bool complete = true;
        const auto first = there->selectNodes(view, &complete);
        QVERIFY(!complete);
        QCOMPARE(there->nodesHeld(), size_t(1)); // the root, read at the opening
        QCOMPARE(shown(settle(*there, view)), shown(settle(*here, view)));
        std::mt19937 random(9);
        for (int q = 0; q < 20; ++q) {
            const TZVector3 at(float(300 * (random() % 1000) / 1000.0),
                               float(200 * (random() % 1000) / 1000.0), 120);
            TZLib::Octree::CylindricalNeighbourhood down;
            down.center = at;
            down.dir = TZVector3(0, 0, -1);
            down.radius = 0.3f;
            down.maxHalfLength = 50;
            down.onlyPositiveDir = true;
            TZLib::Octree::CylindricalNeighbourhood again = down;
            there->computeOctree()->getPointsInCylindricalNeighbourhood(down);
            here->computeOctree()->getPointsInCylindricalNeighbourhood(again);
            const auto key = [](const TZLib::Octree::NeighboursSet &set) {
                std::vector<std::tuple<unsigned, float, float, float>> out;
                for (const auto &p : set)
                    out.emplace_back(p.pointIndex, p.point->x, p.point->y, p.point->z);
                std::sort(out.begin(), out.end());
                return out;
            };
            QCOMPARE(key(down.neighbours), key(again.neighbours));
        }
        // A list of tiles on the server (here the survey twice) is one survey of both.
        const QString list = m_dir.filePath(QStringLiteral("served.txt"));
        {
            QFile file(list);
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write((url + QLatin1Char('\n') + url + QLatin1Char('\n')).toUtf8());
        }
        std::unique_ptr<tzStreamedCloud> twice = openStreamed(list, error);
        QVERIFY2(twice, qPrintable(error));
        QCOMPARE(twice->size(), 2 * here->size());
        QCOMPARE(shown(settle(*twice, view)), 2 * shown(settle(*here, view)));
        // Its points are not written from a part of them.
        const QString copy = m_dir.filePath(QStringLiteral("copy.las"));
        QVERIFY(!tzCloudFile::save(*there, copy, error));
        QVERIFY2(error.contains(QLatin1String("read from a server")), qPrintable(error));
        QVERIFY(!QFileInfo::exists(copy));
    }

    // A second opening asks the server for the file's head only: the rest is in the cache.
    // The cache stays within its size, the least recently used ranges going first.
    void secondOpeningReadsTheCache()
    {
        useCache(QStringLiteral("cache-again"));
        const QString url = m_base + QStringLiteral("survey.copc.laz");
        QString error;
        std::map<tzCopc::Key, std::vector<std::uint8_t>> first, second;
        const quint64 before = requests();
        {
            tzCopc::File remote;
            QVERIFY2(remote.open(url, error), qPrintable(error));
            first = allRecords(remote, error);
            QVERIFY2(!first.empty(), qPrintable(error));
        }
        const quint64 asked = requests() - before;
        QVERIFY(asked > first.size());
        {
            tzCopc::File remote;
            QVERIFY2(remote.open(url, error), qPrintable(error));
            second = allRecords(remote, error);
        }
        QCOMPARE(requests() - before - asked, quint64(1));
        QVERIFY(second == first);

        tzCopc::RemoteSettings settings = tzCopc::remoteSettings();
        settings.cacheFolder = m_dir.filePath(QStringLiteral("cache-small"));
        settings.cacheBytes = QFileInfo(m_copc).size() / 4;
        tzCopc::setRemoteSettings(settings);
        tzCopc::File remote;
        QVERIFY2(remote.open(url, error), qPrintable(error));
        QVERIFY(allRecords(remote, error) == first);
        qint64 held = 0;
        QDirIterator it(settings.cacheFolder, QDir::Files, QDirIterator::Subdirectories);
        while (it.hasNext()) {
            it.next();
            held += it.fileInfo().size();
        }
        QVERIFY(held > 0 && quint64(held) <= settings.cacheBytes);
    }

    // Over HTTPS, from a server whose certificate's authority is not the system's: refused
    // at once with the reason, then read as over HTTP once the setting's file trusts it.
    void servedOverHttps()
    {
        const QString cert = m_dir.filePath(QStringLiteral("cert.pem"));
        const QString key = m_dir.filePath(QStringLiteral("key.pem"));
        QProcess openssl;
        openssl.start(QStringLiteral("openssl"),
                      {QStringLiteral("req"), QStringLiteral("-x509"), QStringLiteral("-newkey"),
                       QStringLiteral("rsa:2048"), QStringLiteral("-nodes"),
                       QStringLiteral("-keyout"), key, QStringLiteral("-out"), cert,
                       QStringLiteral("-days"), QStringLiteral("2"), QStringLiteral("-subj"),
                       QStringLiteral("/CN=127.0.0.1"), QStringLiteral("-addext"),
                       QStringLiteral("subjectAltName=IP:127.0.0.1")});
        QVERIFY(openssl.waitForFinished(60000) && openssl.exitCode() == 0);
        QProcess server;
        server.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        server.start(QStringLiteral("python3"),
                     {QStringLiteral(RANGE_SERVER), m_dir.path(), QStringLiteral("--commands"),
                      QStringLiteral("--tls"), cert, key});
        QVERIFY(server.waitForStarted() && server.waitForReadyRead(10000));
        const QByteArray port = server.readLine().trimmed();
        QVERIFY2(port.startsWith("PORT "), port.constData());
        const QString url = QStringLiteral("https://127.0.0.1:%1/survey.copc.laz")
                                .arg(QString::fromLatin1(port.mid(5)));
        const tzCopc::RemoteSettings before = tzCopc::remoteSettings();
        QString error;
        QVERIFY(!tzCopc::openSource(url, error));
        QVERIFY2(error.contains(QLatin1String("not one this machine trusts"))
                     && !error.contains(QLatin1String("tried")),
                 qPrintable(error));
        tzCopc::RemoteSettings trusting = before;
        trusting.trustedAuthorities = cert;
        tzCopc::setRemoteSettings(trusting);
        tzCopc::File local, secure;
        const bool opened = secure.open(url, error);
        const bool same = opened && local.open(m_copc, error)
            && allRecords(secure, error) == allRecords(local, error);
        tzCopc::setRemoteSettings(before);
        QVERIFY2(opened && same, qPrintable(error));
        server.closeWriteChannel();
        server.waitForFinished(3000);
    }

    void failuresAreClear()
    {
        useCache({});
        QString error;
        // A file that is not there, one that is not COPC.
        QVERIFY(!tzCopc::openSource(m_base + QStringLiteral("missing.copc.laz"), error));
        QVERIFY2(error.contains(QLatin1String("missing.copc.laz")) && error.contains("404"),
                 qPrintable(error));
        QVERIFY(!tzCopc::openSource(m_base + QStringLiteral("survey.las"), error));
        QVERIFY2(error.contains(QLatin1String("not a COPC file")), qPrintable(error));
        // A server that sends whole files: nothing is downloaded whole, the message says why.
        QCOMPARE(serverSays("mode whole"), QByteArray("OK"));
        QVERIFY(!tzCopc::openSource(m_base + QStringLiteral("survey.copc.laz"), error));
        QVERIFY2(error.contains(QLatin1String("does not answer range requests")),
                 qPrintable(error));
        // Connections cut halfway through every other answer: the attempts again bring it all.
        QCOMPARE(serverSays("mode flaky"), QByteArray("OK"));
        tzCopc::File local, flaky;
        QVERIFY2(local.open(m_copc, error), qPrintable(error));
        QVERIFY2(flaky.open(m_base + QStringLiteral("survey.copc.laz"), error), qPrintable(error));
        QVERIFY2(allRecords(flaky, error) == allRecords(local, error), qPrintable(error));
        // Every connection cut once part of the survey is shown: the failure is told once, with
        // the URL and the attempts, and what was shown stays.
        QCOMPARE(serverSays("mode ranges"), QByteArray("OK"));
        std::unique_ptr<tzStreamedCloud> cloud
            = openStreamed(m_base + QStringLiteral("survey.copc.laz"), error);
        QVERIFY2(cloud, qPrintable(error));
        const auto corner = settle(*cloud, topView(40, 60, 30, 50, 2000, 10000000));
        const size_t held = cloud->nodesHeld();
        QCOMPARE(serverSays("mode drop"), QByteArray("OK"));
        m_warnings.clear();
        const auto whole = settle(*cloud, topView(-10, 310, -10, 210, 2000, 10000000));
        QCOMPARE(serverSays("mode ranges"), QByteArray("OK"));
        QCOMPARE(m_warnings.size(), 1);
        QVERIFY2(m_warnings[0].contains(QLatin1String("survey.copc.laz"))
                     && m_warnings[0].contains(QLatin1String("tried 3 times")),
                 qPrintable(m_warnings[0]));
        QVERIFY(shown(corner) > 0 && shown(whole) > 0);
        QCOMPARE(cloud->nodesHeld(), held);
        // The server back, what failed is asked for again a while later: the same picture as
        // from the disk.
        QTest::qWait(tzCopc::remoteSettings().retryFailuresAfterMs + 50);
        std::unique_ptr<tzStreamedCloud> here = openStreamed(m_copc, error);
        QCOMPARE(shown(settle(*cloud, topView(-10, 310, -10, 210, 2000, 10000000))),
                 shown(settle(*here, topView(-10, 310, -10, 210, 2000, 10000000))));
        // A server that stops answering: closing the cloud does not wait for it (nor for the
        // requests' patience).
        const tzCopc::RemoteSettings before = tzCopc::remoteSettings();
        tzCopc::RemoteSettings patient = before;
        patient.timeoutSeconds = 60;
        tzCopc::setRemoteSettings(patient);
        std::unique_ptr<tzStreamedCloud> stalled
            = openStreamed(m_base + QStringLiteral("survey.copc.laz"), error);
        tzCopc::setRemoteSettings(before);
        QVERIFY2(stalled, qPrintable(error));
        QCOMPARE(serverSays("mode stall"), QByteArray("OK"));
        stalled->selectNodes(topView(-10, 310, -10, 210, 2000, 10000000));
        QTest::qWait(200); // the reads are in flight
        QElapsedTimer closing;
        closing.start();
        stalled.reset();
        QVERIFY2(closing.elapsed() < 5000, qPrintable(QString::number(closing.elapsed())));
        QCOMPARE(serverSays("mode ranges"), QByteArray("OK"));
    }
};

QTEST_GUILESS_MAIN(TestRemote)
#include "tst_remote.moc"
