// The companion's frames end to end, socket to scene, in the viewer with a survey terrain
// (10 M points by default) on screen:
//  1. N new "CVisee" frames, 2. N updates of the same idents, 3. M "XSymbole" frames of L lines.
// For each phase: frames per second (from the first byte sent to the last frame in the scene),
// the frames the view drew meanwhile, and the longest time the GUI event loop was blocked.
// Baseline in the same run: the same bytes read by a plain socket on the GUI thread, cut at
// 0x04 and parsed as JSON, with no scene (what reading and parsing alone cost).
//
//   bench_link [--points=N] [--sights=N] [--symbols=M] [--lines=L]

#include "SurveyViewer.h"
#include "tzCommunicationHandler.h"
#include "tzFrameDispatcher.h"
#include "tzGLWindow.h"
#include "tzLumivert.h"
#include "tzMainWindow.h"
#include "tzPointCloud.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QHostAddress>
#include <QJsonDocument>
#include <QSettings>
#include <QSignalSpy>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTimer>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <thread>

namespace {

constexpr quint16 PORT = 6601;
const TZVector3d ORIGIN(650000.0, 6860000.0, 100.0);

// The companion's side: listens, accepts, and writes a phase's bytes from its own thread.
class Sender
{
public:
    ~Sender()
    {
        join();
        for (int fd : {m_client, m_listen}) {
            if (fd >= 0)
                ::close(fd);
        }
    }
    bool listen()
    {
        m_listen = ::socket(AF_INET, SOCK_STREAM, 0);
        const int yes = 1;
        ::setsockopt(m_listen, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        sockaddr_in address {};
        address.sin_family = AF_INET;
        address.sin_port = htons(PORT);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return ::bind(m_listen, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0
            && ::listen(m_listen, 4) == 0;
    }
    //! The next connection (already made by the kernel when the client's connect returned).
    bool accept()
    {
        if (m_client >= 0)
            ::close(m_client);
        m_client = ::accept(m_listen, nullptr, nullptr);
        return m_client >= 0;
    }
    void sendAsync(const QByteArray &bytes)
    {
        join();
        m_thread = std::thread([this, bytes] {
            for (qint64 at = 0; at < bytes.size();) {
                const ssize_t n
                    = ::send(m_client, bytes.constData() + at,
                             size_t(std::min<qint64>(bytes.size() - at, 65536)), MSG_NOSIGNAL);
                if (n <= 0) {
                    std::fprintf(stderr, "bench_link: send failed after %lld bytes: %s\n",
                                 (long long)at, std::strerror(errno));
                    return;
                }
                at += n;
            }
        });
    }
    void join()
    {
        if (m_thread.joinable())
            m_thread.join();
    }

private:
    int m_listen = -1;
    int m_client = -1;
    std::thread m_thread;
};

QByteArray sightFrames(unsigned count, bool update)
{
    QByteArray bytes;
    for (unsigned i = 0; i < count; ++i) {
        const double x = ORIGIN.x + 5.0 + (i % 100) * 2.0 + (update ? 0.5 : 0.0);
        const double y = ORIGIN.y + 5.0 + (i / 100) * 2.0;
        bytes += QString::asprintf("{\"type\": \"CVisee\", \"ident\": %u, \"number\": \"%s%u\", "
                                   "\"Rcolor\": 255, \"Gcolor\": 255, \"Bcolor\": 0, "
                                   "\"coord\": {\"X\": %.4f, \"Y\": %.4f, \"Z\": %.4f}}",
                                   i + 1, update ? "U" : "N", i + 1, x, y, ORIGIN.z + 2.0)
                     .toUtf8();
        bytes += '\x04';
    }
    return bytes;
}

QByteArray symbolFrames(unsigned count, unsigned lines)
{
    QByteArray bytes;
    for (unsigned i = 0; i < count; ++i) {
        const double x = ORIGIN.x + 10.0 + (i % 50) * 4.0, y = ORIGIN.y + 10.0 + (i / 50) * 4.0;
        QByteArray children;
        for (unsigned l = 0; l < lines; ++l) {
            const double a = l * 6.283185307 / lines;
            children += QString::asprintf(
                            "%s{\"type\": \"XLine\", \"Rcolor\": 255, \"Gcolor\": 0, \"Bcolor\": "
                            "255, \"vertex\": [{\"X\": %.4f, \"Y\": %.4f, \"Z\": %.4f}, "
                            "{\"X\": %.4f, \"Y\": %.4f, \"Z\": %.4f}]}",
                            l ? ", " : "", x, y, ORIGIN.z + 2.0, x + std::cos(a), y + std::sin(a),
                            ORIGIN.z + 2.0)
                            .toUtf8();
        }
        bytes += "{\"type\": \"XSymbole\", \"ident\": " + QByteArray::number(100000 + i)
            + ", \"entities\": [{\"type\": \"XInsert\", \"entities\": [" + children + "]}]}";
        bytes += '\x04';
    }
    return bytes;
}

// The longest time between two turns of the GUI event loop, while it runs.
class BlockProbe : public QObject
{
public:
    BlockProbe()
    {
        m_timer.setInterval(1);
        connect(&m_timer, &QTimer::timeout, this, [this] {
            const qint64 now = m_clock.nsecsElapsed();
            m_longest = std::max(m_longest, now - m_last);
            m_last = now;
        });
    }
    void start()
    {
        m_clock.start();
        m_last = 0;
        m_longest = 0;
        m_timer.start();
    }
    double stopMs()
    {
        m_timer.stop();
        return m_longest / 1e6;
    }

private:
    QTimer m_timer;
    QElapsedTimer m_clock;
    qint64 m_last = 0;
    qint64 m_longest = 0;
};

struct PhaseResult
{
    double seconds = 0;
    quint64 drawn = 0;
    double blockedMs = 0;
    bool complete = false;
};

} // namespace

int main(int argc, char **argv)
{
    const unsigned points = bench::numberOption(argc, argv, "points", 10000000);
    const unsigned sights = bench::numberOption(argc, argv, "sights", 10000);
    const unsigned symbols = bench::numberOption(argc, argv, "symbols", 2000);
    const unsigned lines = bench::numberOption(argc, argv, "lines", 20);
    QSurfaceFormat::setDefaultFormat(tzGLWindow::defaultFormat());
    QApplication app(argc, argv);
    QTemporaryDir settings;
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, settings.path());
    QApplication::setOrganizationName(QStringLiteral("TessaroBench"));
    QApplication::setApplicationName(QStringLiteral("bench_link"));
    bench::silenceDebugLines();
    tzMainWindow window(bench::viewerOptions());
    bench::showWindow(window, "bench_link");
    bench::showTerrain(window, points, ORIGIN);
    tzGLWindow *view = window.activeView();

    Sender sender;
    if (!sender.listen()) {
        std::fprintf(stderr, "bench_link: port %u is busy\n", PORT);
        return 1;
    }
    tzLumivert plugin;
    plugin.setAppInterface(&window);
    tzCommunicationHandler *link = plugin.link();
    plugin.frames()->setAppInterface(&window); // as a run does when it starts
    unsigned received = 0, expected = 0;
    QEventLoop wait;
    link->setFrameObserver([&](const QString &) {
        if (++received == expected)
            wait.quit();
    });
    if (!link->connectToServer() || !sender.accept()) {
        std::fprintf(stderr, "bench_link: the link did not connect\n");
        return 1;
    }

    BlockProbe probe;
    const auto run = [&](const QByteArray &bytes, unsigned count) {
        PhaseResult r;
        received = 0;
        expected = count;
        const quint64 framesBefore = view->frameCount();
        QTimer timeout;
        timeout.setSingleShot(true);
        QObject::connect(&timeout, &QTimer::timeout, &wait, &QEventLoop::quit);
        timeout.start(600000);
        probe.start();
        QElapsedTimer clock;
        clock.start();
        sender.sendAsync(bytes);
        wait.exec();
        r.seconds = clock.nsecsElapsed() / 1e9;
        r.blockedMs = probe.stopMs();
        r.complete = received == count;
        sender.join();
        // The frame that shows the last objects.
        QSignalSpy drawn(view, &tzGLWindow::frameDrawn);
        view->redraw();
        drawn.wait(60000);
        r.drawn = view->frameCount() - framesBefore;
        return r;
    };

    // Baseline: a plain socket on the GUI thread, cutting and parsing only.
    const auto baseline = [&](const QByteArray &bytes, unsigned count) {
        QTcpSocket socket;
        socket.connectToHost(QHostAddress::LocalHost, PORT);
        socket.waitForConnected(5000);
        sender.accept();
        unsigned parsed = 0;
        QByteArray pending;
        QObject::connect(&socket, &QTcpSocket::readyRead, [&] {
            pending += socket.readAll();
            int start = 0;
            for (int end = pending.indexOf('\x04'); end >= 0;
                 end = pending.indexOf('\x04', start)) {
                const QJsonDocument doc = QJsonDocument::fromJson(pending.mid(start, end - start));
                parsed += doc.isObject() ? 1 : 0;
                start = end + 1;
            }
            pending.remove(0, start);
            if (parsed == count)
                wait.quit();
        });
        QTimer timeout;
        timeout.setSingleShot(true);
        QObject::connect(&timeout, &QTimer::timeout, &wait, &QEventLoop::quit);
        timeout.start(120000);
        QElapsedTimer clock;
        clock.start();
        sender.sendAsync(bytes);
        wait.exec();
        const double seconds = clock.nsecsElapsed() / 1e9;
        sender.join();
        if (parsed != count)
            std::fprintf(stderr, "bench_link: baseline parsed %u of %u frames\n", parsed, count);
        return parsed == count ? seconds : -1.0;
    };

    const QByteArray phases[3]
        = {sightFrames(sights, false), sightFrames(sights, true), symbolFrames(symbols, lines)};
    const unsigned counts[3] = {sights, sights, symbols};
    const char *names[3] = {"new sights", "sight updates", "symbols"};
    PhaseResult results[3];
    for (int p = 0; p < 3; ++p)
        results[p] = run(phases[p], counts[p]);
    link->disconnectFromServer();
    double base[3];
    for (int p = 0; p < 3; ++p)
        base[p] = baseline(phases[p], counts[p]);

    std::printf("bench_link: %u terrain points, %u sights, %u symbols of %u lines\n", points,
                sights, symbols, lines);
    std::printf("%-14s %8s %10s %12s %8s %12s %14s %8s\n", "phase", "frames", "MB", "frames/s",
                "drawn", "blocked ms", "base frames/s", "ratio");
    bool ok = true;
    for (int p = 0; p < 3; ++p) {
        const PhaseResult &r = results[p];
        const double fps = counts[p] / r.seconds, baseFps = counts[p] / base[p];
        std::printf("%-14s %8u %10.2f %12.0f %8llu %12.1f %14.0f %8.2f%s\n", names[p], counts[p],
                    phases[p].size() / 1e6, fps, (unsigned long long)r.drawn, r.blockedMs, baseFps,
                    fps / baseFps, r.complete ? "" : "  INCOMPLETE");
        ok = ok && r.complete && base[p] > 0;
    }
    tzHObject *root = window.databaseRoot();
    tzHObject::Container objects;
    root->filterChildren(objects, true);
    std::printf("scene objects: %zu\n", objects.size());
    return ok ? 0 : 1;
}
