// The link under load: a companion sends frames in chunks of random sizes while the GUI thread
// keeps sending cursor texts. Every frame must arrive once, whole and in order. Built with
// -DTESSARO_TSAN=ON this is the link's race check (scripts/test with TSAN=1).
//
//   LINK_STRESS_MB   megabytes of frames to send (default 4; 20 in the ThreadSanitizer run)

#include "tzCommunicationHandler.h"

#include <QSettings>
#include <QTemporaryDir>
#include <QtTest>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <random>
#include <thread>

namespace {

// The companion, on plain sockets in threads of its own: one writes the frames, one reads and
// drops what the plug-in sends (so that its sends never block on a full buffer).
class Companion
{
public:
    bool listen()
    {
        m_listener = ::socket(AF_INET, SOCK_STREAM, 0);
        const int on = 1;
        ::setsockopt(m_listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sockaddr_in address {};
        address.sin_family = AF_INET;
        address.sin_port = htons(6601);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return ::bind(m_listener, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0
            && ::listen(m_listener, 1) == 0;
    }
    void serve(QByteArray stream, unsigned seed)
    {
        m_writer = std::thread([this, stream = std::move(stream), seed] {
            m_client = ::accept(m_listener, nullptr, nullptr);
            m_reader = std::thread([this] {
                char sink[65536];
                while (::recv(m_client, sink, sizeof sink, 0) > 0)
                    m_received += 1;
            });
            std::mt19937 rng(seed);
            std::uniform_int_distribution<int> size(1, 20000);
            for (int at = 0; at < stream.size();) {
                const int n = std::min(size(rng), int(stream.size()) - at);
                const ssize_t sent
                    = ::send(m_client, stream.constData() + at, size_t(n), MSG_NOSIGNAL);
                if (sent <= 0)
                    break;
                at += int(sent);
            }
            m_done = true;
        });
    }
    ~Companion()
    {
        if (m_writer.joinable())
            m_writer.join();
        ::shutdown(m_client, SHUT_RDWR);
        if (m_reader.joinable())
            m_reader.join();
        ::close(m_client);
        ::close(m_listener);
    }
    bool done() const { return m_done; }
    int messagesRead() const { return m_received; }

private:
    int m_listener = -1;
    int m_client = -1;
    std::thread m_writer;
    std::thread m_reader;
    std::atomic<bool> m_done {false};
    std::atomic<int> m_received {0};
};

} // namespace

class TestLinkStress : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, m_settings.path());
    }
    void framesArriveOnceAndInOrderUnderLoad();

private:
    QTemporaryDir m_settings;
};

void TestLinkStress::framesArriveOnceAndInOrderUnderLoad()
{
    const int megabytes = qEnvironmentVariableIsSet("LINK_STRESS_MB")
        ? qEnvironmentVariableIntValue("LINK_STRESS_MB")
        : 4;
    // Frames of varied lengths, each carrying its number.
    QByteArray stream;
    int frames = 0;
    std::mt19937 rng(2026);
    std::uniform_int_distribution<int> padding(0, 400);
    while (stream.size() < megabytes * 1024 * 1024) {
        stream += "{\"type\": \"CVisee\", \"n\": " + QByteArray::number(frames++) + ", \"pad\": \""
            + QByteArray(padding(rng), 'x') + "\"}\x04";
    }

    Companion companion;
    QVERIFY(companion.listen());
    companion.serve(stream, 7);
    tzCommunicationHandler link;
    int next = 0;
    bool inOrder = true;
    link.setFrameObserver([&](const QString &frame) {
        const int at = frame.indexOf(QLatin1String("\"n\": "));
        const int n = frame.mid(at + 5, frame.indexOf(QLatin1Char(','), at) - at - 5).toInt();
        inOrder &= at > 0 && n == next && frame.endsWith(QLatin1String("\"}"));
        ++next;
    });
    QVERIFY(link.connectToServer());
    // The GUI thread writes on the same socket meanwhile, as mouse moves do.
    QTimer cursor;
    int cursorTexts = 0;
    connect(&cursor, &QTimer::timeout, [&] {
        link.sendMouseCursor({0, 0, 1}, {652345.0 + cursorTexts, 6862345.0, 120.0});
        ++cursorTexts;
    });
    cursor.start(1);
    QElapsedTimer clock;
    clock.start();
    QTRY_VERIFY_WITH_TIMEOUT(next >= frames || !inOrder, 300000);
    cursor.stop();
    QVERIFY2(inOrder, qPrintable(QStringLiteral("frame %1 out of order or damaged").arg(next)));
    QCOMPARE(next, frames);
    QVERIFY(companion.done());
    QVERIFY(cursorTexts > 0);
    qInfo("%d frames (%d MB) in %.2f s, %d cursor texts sent meanwhile", frames, megabytes,
          clock.elapsed() / 1000.0, cursorTexts);
    link.disconnectFromServer();
}

QTEST_MAIN(TestLinkStress)
#include "tst_linkstress.moc"
