#include "tzCommunicationHandler.h"

#include "tzSettings.h"

#include <QtDebug>

#include <chrono>
#include <cstring>
#include <thread>
#include <utility>

namespace {

// One more byte than the largest read: the text read is always terminated.
constexpr int READ_SIZE = 10000;
// How long the reader waits before trying again: the GUI thread has not taken the previous
// chunk yet, or the companion has closed the connection (recv gives 0 until the socket is
// closed; waiting keeps a closed link from spinning a core).
constexpr std::chrono::milliseconds RETRY_DELAY(10);

} // namespace

void Reader::doWork(tzCommunicationHandler *handler)
{
    // This loop reads the connection that was open when it was started, and ends as soon as
    // that connection is no longer the handler's (disconnected, replaced, or the handler
    // going): never a later socket that happens to get the same handle.
    const tzSocket::Handle socket = handler->m_socket.load();
    const auto current
        = [handler, socket] { return handler->m_socket.load() == socket && !handler->m_closing; };
    // The companion closing the connection, or a receive failing, is said once to the GUI
    // thread, and at once to the senders (a text written to a closed peer would be lost).
    bool lostSaid = false;
    const auto sayLost = [&] {
        if (lostSaid || !current())
            return;
        lostSaid = true;
        handler->m_linkUp = false;
        emit connectionLost(qint64(socket));
    };
    char buffer[READ_SIZE + 1];
    std::memset(buffer, 0, sizeof buffer);
    int received = current() ? tzSocket::recv(socket, buffer, READ_SIZE) : -1;
    while (received != -1 && current()) {
        if (received > 0) {
            // Up to the first zero byte: the rest of such a chunk is lost.
            QString text = QString::fromLatin1(buffer);
            while (!text.isEmpty() && current()) {
                std::unique_lock<std::mutex> lock(handler->m_inboxMutex);
                if (handler->m_inbox.isEmpty()) {
                    handler->m_inbox = std::exchange(text, QString());
                    emit resultReady(QString());
                } else {
                    lock.unlock();
                    std::this_thread::sleep_for(RETRY_DELAY);
                }
            }
        } else {
            sayLost();
            std::this_thread::sleep_for(RETRY_DELAY);
        }
        std::memset(buffer, 0, sizeof buffer);
        received = current() ? tzSocket::recv(socket, buffer, READ_SIZE) : -1;
    }
    const int error = tzSocket::lastError();
    if (received == -1)
        sayLost();
    qDebug("recvfrom : %d", error);
    std::lock_guard<std::mutex> lock(handler->m_readerMutex);
    handler->m_readerRunning = false;
    handler->m_readerDone.notify_all();
}

tzCommunicationHandler::tzCommunicationHandler()
{
    auto *reader = new Reader;
    reader->moveToThread(&m_workerThread);
    connect(&m_workerThread, &QThread::finished, reader, &QObject::deleteLater);
    connect(this, &tzCommunicationHandler::operate, reader, &Reader::doWork);
    connect(reader, &Reader::resultReady, this, &tzCommunicationHandler::handleResults);
    connect(reader, &Reader::connectionLost, this, &tzCommunicationHandler::onConnectionLost);
    m_workerThread.start(QThread::InheritPriority);
    m_reconnectTimer.setInterval(RECONNECT_INTERVAL_MS);
    connect(&m_reconnectTimer, &QTimer::timeout, this, [this] {
        m_retrying = true;
        connectToServer();
        m_retrying = false;
    });
}

tzCommunicationHandler::~tzCommunicationHandler()
{
    // The reader loop may be blocked in recv, or waiting for the inbox that nobody will empty
    // any more: end the connection (which releases both) before waiting for the thread.
    m_closing = true;
    endConnection();
    m_workerThread.quit();
    m_workerThread.wait();
    tzSocket::cleanup();
}

void tzCommunicationHandler::endConnection()
{
    const tzSocket::Handle socket = m_socket.exchange(tzSocket::INVALID);
    if (socket == tzSocket::INVALID)
        return;
    // Wake the reader, let its loop end, and only then give the handle back to the system.
    tzSocket::shutdown(socket);
    {
        std::unique_lock<std::mutex> lock(m_readerMutex);
        m_readerDone.wait_for(lock, std::chrono::seconds(2), [this] { return !m_readerRunning; });
    }
    tzSocket::close(socket);
}

bool tzCommunicationHandler::connectToServer()
{
    // The attempts of the reconnection say only their outcome: a line every two seconds would
    // bury everything else.
    const bool quiet = m_retrying;
    ++m_attempts;
    const auto refused = [this] {
        m_linkUp = false;
        if (m_reconnecting && !m_reconnectTimer.isActive())
            m_reconnectTimer.start();
        return false;
    };
    m_portValue = tzLumivertSettings::portValue();
    if (!quiet)
        qDebug("\nInitialising Winsock...");
    if (!tzSocket::startup()) {
        qDebug("Failed. Error Code : %d", tzSocket::lastError());
        return refused();
    }
    if (!quiet)
        qDebug("Initialised.");
    endConnection(); // a previous socket (a failed connect leaves one) is not kept
    const tzSocket::Handle socket = tzSocket::create();
    m_socket = socket;
    if (socket == tzSocket::INVALID) {
        qDebug("Could not create socket : %d", tzSocket::lastError());
        tzSocket::cleanup();
        return refused();
    }
    if (!quiet)
        qDebug("Socket created.");
    if (!tzSocket::connectTo(socket, m_serverAddress.toLocal8Bit().constData(),
                             quint16(m_serverPort))) {
        if (!quiet)
            qDebug("Could not connect : %d", tzSocket::lastError());
        return refused();
    }
    qDebug("Connected.");
    m_reconnectTimer.stop();
    // A frame cut short by the connection that went is not the start of the next one's.
    m_pending.clear();
    m_linkUp = true;
    {
        std::lock_guard<std::mutex> lock(m_readerMutex);
        m_readerRunning = true;
    }
    emit operate(this);
    const bool wasDown = m_lostSaid || quiet || !m_unsent.empty();
    const int dropped = m_dropped;
    const int sentLate = sendUnsent();
    m_lostSaid = false;
    m_dropped = 0;
    if (wasDown && m_linkUp)
        emit linkRestored(sentLate, dropped);
    return m_linkUp;
}

void tzCommunicationHandler::disconnectFromServer()
{
    qDebug("disconnected...");
    setReconnecting(false);
    m_linkUp = false;
    m_lostSaid = false;
    endConnection();
    tzSocket::cleanup();
}

void tzCommunicationHandler::setReconnecting(bool on)
{
    m_reconnecting = on;
    if (!on)
        m_reconnectTimer.stop();
    else if (!m_linkUp && !m_reconnectTimer.isActive())
        m_reconnectTimer.start();
}

void tzCommunicationHandler::reconnectNow()
{
    if (m_linkUp)
        return;
    m_retrying = true;
    connectToServer();
    m_retrying = false;
}

void tzCommunicationHandler::onConnectionLost(qint64 socket)
{
    // Said by a reader whose connection has since been replaced: nothing to do.
    if (tzSocket::Handle(socket) != m_socket.load())
        return;
    markLost();
}

void tzCommunicationHandler::markLost()
{
    m_linkUp = false;
    if (!m_lostSaid) {
        m_lostSaid = true;
        emit linkLost();
    }
    if (m_reconnecting && !m_reconnectTimer.isActive())
        m_reconnectTimer.start();
}

void tzCommunicationHandler::handleResults(const QString &result)
{
    Q_UNUSED(result)
    std::lock_guard<std::mutex> lock(m_inboxMutex);
    if (m_inbox.isEmpty())
        return;
    feed(m_inbox);
    m_inbox.clear();
}

void tzCommunicationHandler::feed(const QString &chunk)
{
    m_pending += chunk;
    int start = 0;
    for (int end = m_pending.indexOf(QChar(4)); end >= 0;
         end = m_pending.indexOf(QChar(4), start)) {
        const QString frame = m_pending.mid(start, end - start);
        start = end + 1;
        if (m_frameObserver)
            m_frameObserver(frame);
        if (m_frameReceiver)
            m_frameReceiver(frame);
    }
    m_pending.remove(0, start);
}

// ------------------------------------------------------------------------------ outbound

QByteArray tzCommunicationHandler::coordinatesText(double x, double y, double z, int port)
{
    // The companion's template, double space and all. QString::asprintf writes numbers in the
    // C locale whatever the user's: a point, never a comma, and no exponent with %f.
    return QString::asprintf("{ \"coordonnees\": { \"xp\": \"%.4lf\", \"yp\": \"%.4lf\", "
                             "\"zp\": \"%.4lf\"  \"Port=\" \"%d\" } }\n",
                             x, y, z, port)
        .toLocal8Bit();
}

QByteArray tzCommunicationHandler::pointMoveText(double x, double y, double z, double oldX,
                                                 double oldY, double oldZ, int port)
{
    return QString::asprintf("{ \"pointMove\": { \"xfrom\": \"%.4lf\", \"yfrom\": \"%.4lf\", "
                             "\"zfrom\": \"%.4lf\" \"xto\": \"%.4lf\", \"yto\": \"%.4lf\", "
                             "\"zto\": \"%.4lf\" \"Port=\" \"%d\" } }\n",
                             oldX, oldY, oldZ, x, y, z, port)
        .toLocal8Bit();
}

QByteArray tzCommunicationHandler::mouseCursorText(const TZVector3d &up, const TZVector3d &point,
                                                   int port)
{
    return QString::asprintf("{ \"mouseCursor\": { \"xp\": \"%.4lf\", \"yp\": \"%.4lf\","
                             "\"zp\": \"%.4lf\",\"xUp\": \"%.4lf\",\"yUp\": \"%.4lf\","
                             "\"zUp\": \"%.4lf\" \"Port=\" \"%d\"} }\n",
                             point.x, point.y, point.z, up.x, up.y, up.z, port)
        .toLocal8Bit();
}

void tzCommunicationHandler::send(const QByteArray &text)
{
    // Behind texts still waiting, a new one waits too: the companion gets them in order.
    if (!m_linkUp || !m_unsent.empty() || !write(text))
        keep(text);
}

bool tzCommunicationHandler::write(const QByteArray &text)
{
    // Up to the first zero byte, in one call; a partial send is not completed.
    const int length = int(qstrnlen(text.constData(), uint(text.size())));
    if (tzSocket::send(m_socket.load(), text.constData(), length) >= 0)
        return true;
    qDebug("send() failed with error code : %d", tzSocket::lastError());
    markLost();
    return false;
}

void tzCommunicationHandler::keep(const QByteArray &text)
{
    m_unsent.push_back(text);
    if (int(m_unsent.size()) > MAX_UNSENT) {
        m_unsent.pop_front();
        ++m_dropped;
    }
}

int tzCommunicationHandler::sendUnsent()
{
    int sent = 0;
    while (!m_unsent.empty() && m_linkUp) {
        if (!write(m_unsent.front()))
            break;
        m_unsent.pop_front();
        ++sent;
    }
    return sent;
}

void tzCommunicationHandler::sendCoordinates(double x, double y, double z)
{
    send(coordinatesText(x, y, z, m_portValue));
}

void tzCommunicationHandler::sendPointMove(double x, double y, double z, double oldX, double oldY,
                                           double oldZ)
{
    send(pointMoveText(x, y, z, oldX, oldY, oldZ, m_portValue));
}

void tzCommunicationHandler::sendMouseCursor(const TZVector3d &up, const TZVector3d &point)
{
    send(mouseCursorText(up, point, m_portValue));
}
