// Byte ranges of a file of the disk, or of one served over HTTP.
//
// Requests over HTTP are made by one network thread of the process (its own event loop and
// connections, kept alive between requests); the thread that asks waits for the answer without
// running an event loop of its own, so that a read can be made from a worker, a loader or the
// GUI thread alike without anything else running in the middle of it. What was read is kept in
// a disk cache, one folder a URL, checked against the server's size and validator each time the
// file is opened.

#include "tzByteRanges_p.h"
#include "tzCopc.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPointer>
#include <QSaveFile>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QThread>
#include <QTimer>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <thread>

namespace tzCopc {

namespace {

std::mutex g_settingsMutex;
RemoteSettings g_settings;

} // namespace

void setRemoteSettings(const RemoteSettings &settings)
{
    std::lock_guard<std::mutex> lock(g_settingsMutex);
    g_settings = settings;
}

RemoteSettings remoteSettings()
{
    std::lock_guard<std::mutex> lock(g_settingsMutex);
    return g_settings;
}

bool isUrl(const QString &name)
{
    return name.startsWith(QLatin1String("http://"), Qt::CaseInsensitive)
        || name.startsWith(QLatin1String("https://"), Qt::CaseInsensitive);
}

} // namespace tzCopc

namespace tzCloudFile::detail {

namespace {

class FileRanges final : public ByteRanges
{
public:
    bool open(const QString &path, QString &error)
    {
        m_path = path;
        return m_file.open(path, error);
    }
    const QString &name() const override { return m_path; }
    std::uint64_t size() const override { return m_file.bytes().size; }
    bool read(std::uint64_t offset, std::uint64_t length, std::vector<std::uint8_t> &storage,
              const std::uint8_t *&data, QString &error) const override
    {
        (void)storage;
        const Bytes &in = m_file.bytes();
        if (offset > in.size || length > in.size - offset) {
            error = QStringLiteral("%1 bytes at byte %2 lie outside the file")
                        .arg(length)
                        .arg(offset);
            return false;
        }
        data = in.data + offset;
        return true;
    }

private:
    QString m_path;
    FileBytes m_file;
};

// ---------------------------------------------------------------------------------------------

//! What a request brought back.
struct Answer
{
    int status = 0; // HTTP status; 0: no answer
    QNetworkReply::NetworkError code = QNetworkReply::NoError;
    QString errorString;
    QByteArray body;
    QByteArray contentRange, validator;
    bool wholeFile = false; // a range was asked and the whole file was being sent
    bool timedOut = false;
};

//! One request in flight, shared by the thread that waits and the network thread.
struct Pending
{
    std::mutex mutex;
    std::condition_variable done;
    bool finished = false;
    Answer answer;
    QPointer<QNetworkReply> reply; // the network thread's
};

//! The process's network thread.
class Network
{
public:
    static Network &instance()
    {
        static Network *network = [] {
            auto *n = new Network;
            // Stopped with the application, before the objects of the thread go.
            qAddPostRoutine([] { delete network; });
            return n;
        }();
        return *network;
    }

    //! Asks for bytes [from, to] of url and waits for the answer, or until cancelled.
    Answer get(const QString &url, std::uint64_t from, std::uint64_t to, int timeoutSeconds,
               const std::atomic<bool> &cancelled)
    {
        auto pending = std::make_shared<Pending>();
        QMetaObject::invokeMethod(m_context, [this, pending, url, from, to, timeoutSeconds] {
            start(pending, url, from, to, timeoutSeconds);
        });
        std::unique_lock<std::mutex> lock(pending->mutex);
        while (!pending->finished) {
            if (cancelled) {
                lock.unlock();
                QMetaObject::invokeMethod(m_context, [pending] {
                    if (pending->reply)
                        pending->reply->abort();
                });
                lock.lock();
                pending->done.wait(lock, [&] { return pending->finished; });
                break;
            }
            pending->done.wait_for(lock, std::chrono::milliseconds(50));
        }
        return pending->answer;
    }

private:
    Network()
    {
        m_thread.setObjectName(QStringLiteral("network"));
        m_thread.start();
        m_context = new QObject;
        m_context->moveToThread(&m_thread);
        QMetaObject::invokeMethod(
            m_context, [this] { m_manager = new QNetworkAccessManager(m_context); },
            Qt::BlockingQueuedConnection);
    }
    ~Network()
    {
        QMetaObject::invokeMethod(
            m_context, [this] { delete m_context; }, Qt::BlockingQueuedConnection);
        m_thread.quit();
        m_thread.wait();
    }

    // On the network thread.
    void start(const std::shared_ptr<Pending> &pending, const QString &url, std::uint64_t from,
               std::uint64_t to, int timeoutSeconds)
    {
        QNetworkRequest request {QUrl(url)};
        request.setRawHeader("Range",
                             "bytes=" + QByteArray::number(quint64(from)) + '-'
                                 + QByteArray::number(quint64(to)));
        // The bytes of the file as they lie, not a compressed transfer of them.
        request.setRawHeader("Accept-Encoding", "identity");
        request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                             QNetworkRequest::NoLessSafeRedirectPolicy);
        request.setTransferTimeout(timeoutSeconds * 1000);
        if (url.startsWith(QLatin1String("https:"), Qt::CaseInsensitive))
            request.setSslConfiguration(sslConfiguration());
        QNetworkReply *reply = m_manager->get(request);
        pending->reply = reply;
        const std::uint64_t asked = to - from + 1;
        QObject::connect(reply, &QNetworkReply::metaDataChanged, reply, [pending, reply, asked] {
            // A server that ignores the range sends the whole file: it is not downloaded.
            const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
            const qint64 length = reply->header(QNetworkRequest::ContentLengthHeader).toLongLong();
            if (status == 200 && (length <= 0 || quint64(length) > asked)) {
                pending->answer.wholeFile = true;
                reply->abort();
            }
        });
        QObject::connect(reply, &QNetworkReply::finished, reply, [pending, reply] {
            Answer &a = pending->answer;
            a.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
            a.code = reply->error();
            a.errorString = reply->errorString();
            // Aborted by the transfer timeout (a cancel or a whole file is told apart by who
            // asked for it).
            a.timedOut = a.code == QNetworkReply::OperationCanceledError;
            a.contentRange = reply->rawHeader("Content-Range");
            a.validator = reply->rawHeader("ETag");
            if (a.validator.isEmpty())
                a.validator = reply->rawHeader("Last-Modified");
            if (a.code == QNetworkReply::NoError)
                a.body = reply->readAll();
            reply->deleteLater();
            std::lock_guard<std::mutex> lock(pending->mutex);
            pending->finished = true;
            pending->done.notify_all();
        });
    }

    // The system's authorities, and those of the setting's file (a firm's own) besides.
    QSslConfiguration sslConfiguration()
    {
        const QString file = tzCopc::remoteSettings().trustedAuthorities;
        if (file != m_authoritiesFile || !m_ssl) {
            m_authoritiesFile = file;
            // Connections made with the authorities before would be used again as they are.
            m_manager->clearConnectionCache();
            m_ssl = QSslConfiguration::defaultConfiguration();
            if (!file.isEmpty()) {
                QList<QSslCertificate> authorities = m_ssl->caCertificates();
                authorities += QSslCertificate::fromPath(file, QSsl::Pem);
                m_ssl->setCaCertificates(authorities);
            }
        }
        return *m_ssl;
    }

    QThread m_thread;
    QObject *m_context = nullptr;
    QNetworkAccessManager *m_manager = nullptr;
    QString m_authoritiesFile;
    std::optional<QSslConfiguration> m_ssl;
};

// ---------------------------------------------------------------------------------------------

//! The disk cache of the ranges read over HTTP: a folder a URL, a file a range.
class Cache
{
public:
    //! Uses the folder of url, emptied when what it holds was read from another version of
    //! the file (another size or validator).
    void open(const QString &root, std::uint64_t limit, const QString &url,
              const QByteArray &version)
    {
        m_root = root;
        m_limit = limit;
        if (root.isEmpty() || limit == 0)
            return;
        const QByteArray hash
            = QCryptographicHash::hash(url.toUtf8(), QCryptographicHash::Sha1).toHex();
        m_folder = QDir(root).filePath(QString::fromLatin1(hash));
        const QString stamp = QDir(m_folder).filePath(QStringLiteral("version"));
        QFile known(stamp);
        const QByteArray expected = url.toUtf8() + '\n' + version;
        if (!known.open(QIODevice::ReadOnly) || known.readAll() != expected) {
            QDir(m_folder).removeRecursively();
            QDir().mkpath(m_folder);
            QSaveFile write(stamp);
            if (!write.open(QIODevice::WriteOnly) || write.write(expected) != expected.size()
                || !write.commit())
                m_folder.clear(); // no cache, rather than one that cannot be trusted
        }
    }
    bool find(std::uint64_t offset, std::uint64_t length, std::vector<std::uint8_t> &out) const
    {
        if (m_folder.isEmpty())
            return false;
        QFile file(entry(offset, length));
        if (!file.open(QIODevice::ReadOnly) || quint64(file.size()) != length)
            return false;
        out.resize(size_t(length));
        if (file.read(reinterpret_cast<char *>(out.data()), qint64(length)) != qint64(length))
            return false;
        file.close();
        // Used: the last to go.
        if (file.open(QIODevice::Append))
            file.setFileTime(QDateTime::currentDateTimeUtc(), QFileDevice::FileModificationTime);
        return true;
    }
    void keep(std::uint64_t offset, const std::uint8_t *data, std::uint64_t length)
    {
        if (m_folder.isEmpty())
            return;
        QSaveFile file(entry(offset, length));
        if (!file.open(QIODevice::WriteOnly)
            || file.write(reinterpret_cast<const char *>(data), qint64(length)) != qint64(length)
            || !file.commit())
            return;
        trim(length);
    }

private:
    QString entry(std::uint64_t offset, std::uint64_t length) const
    {
        return QDir(m_folder).filePath(QStringLiteral("%1-%2").arg(offset).arg(length));
    }
    // Keeps the whole cache (every URL's) under its limit: the least recently used go first,
    // down to nine tenths of it.
    void trim(std::uint64_t added)
    {
        static std::mutex mutex;
        static std::uint64_t held = 0;
        static bool measured = false;
        std::lock_guard<std::mutex> lock(mutex);
        struct Kept
        {
            QString path;
            qint64 when, size;
        };
        std::vector<Kept> all;
        const auto list = [&] {
            all.clear();
            held = 0;
            QDirIterator it(m_root, QDir::Files, QDirIterator::Subdirectories);
            while (it.hasNext()) {
                it.next();
                const QFileInfo info = it.fileInfo();
                if (info.fileName() == QLatin1String("version"))
                    continue;
                all.push_back(
                    {info.filePath(), info.lastModified().toMSecsSinceEpoch(), info.size()});
                held += quint64(info.size());
            }
        };
        if (!measured) {
            list();
            measured = true;
        } else {
            held += added;
        }
        if (held <= m_limit)
            return;
        list();
        std::sort(all.begin(), all.end(),
                  [](const Kept &a, const Kept &b) { return a.when < b.when; });
        for (const Kept &k : all) {
            if (held <= m_limit / 10 * 9)
                break;
            if (QFile::remove(k.path))
                held -= quint64(k.size);
        }
    }

    QString m_root, m_folder;
    std::uint64_t m_limit = 0;
};

// ---------------------------------------------------------------------------------------------

class UrlRanges final : public ByteRanges
{
public:
    bool open(const QString &url, QString &error)
    {
        m_url = url;
        m_settings = tzCopc::remoteSettings();
        if (!QCoreApplication::instance()) {
            error = problem(QStringLiteral("files served over HTTP are read in the viewer only"));
            return false;
        }
        // The head of the file tells its size and its version.
        const std::uint64_t head = 65536;
        Answer answer;
        if (!fetch(0, head, true, answer, error)) {
            error = problem(error);
            return false;
        }
        const QByteArray total = answer.contentRange.mid(answer.contentRange.indexOf('/') + 1);
        bool ok = false;
        m_size = answer.status == 200 ? quint64(answer.body.size()) : total.toULongLong(&ok);
        if (answer.status == 206 && !ok) {
            error = problem(QStringLiteral("the server does not give the file's size (its answer "
                                           "says 'Content-Range: %1')")
                                .arg(QString::fromLatin1(answer.contentRange)));
            return false;
        }
        m_cache.open(m_settings.cacheFolder, m_settings.cacheBytes, url,
                     QByteArray::number(quint64(m_size)) + '\n' + answer.validator);
        const auto *bytes = reinterpret_cast<const std::uint8_t *>(answer.body.constData());
        m_cache.keep(0, bytes, std::uint64_t(answer.body.size()));
        m_head.assign(bytes, bytes + answer.body.size());
        return true;
    }
    const QString &name() const override { return m_url; }
    std::uint64_t size() const override { return m_size; }
    bool read(std::uint64_t offset, std::uint64_t length, std::vector<std::uint8_t> &storage,
              const std::uint8_t *&data, QString &error) const override
    {
        if (offset > m_size || length > m_size - offset) {
            error = QStringLiteral("%1 bytes at byte %2 lie outside the file")
                        .arg(length)
                        .arg(offset);
            return false;
        }
        if (offset + length <= m_head.size()) {
            data = m_head.data() + offset;
            return true;
        }
        if (length == 0) {
            data = storage.data();
            return true;
        }
        // A range being read (asked for beforehand, or by another thread meanwhile) is waited
        // for, and one read lately is at hand: neither is asked for twice.
        bool mine = false;
        const std::shared_ptr<Slot> slot = slotOf(offset, length, mine);
        if (mine)
            fill(*slot, offset, length);
        std::unique_lock<std::mutex> lock(slot->mutex);
        slot->done.wait(lock, [&] { return slot->finished; });
        if (!slot->error.isEmpty()) {
            error = slot->error;
            return false;
        }
        storage = slot->bytes;
        data = storage.data();
        return true;
    }
    void prefetch(std::uint64_t offset, std::uint64_t length) const override
    {
        if (offset > m_size || length > m_size - offset || length == 0
            || offset + length <= m_head.size())
            return;
        bool mine = false;
        const std::shared_ptr<Slot> slot = slotOf(offset, length, mine);
        if (mine)
            m_prefetching.emplace_back(
                [this, slot, offset, length] { fill(*slot, offset, length); });
    }
    void cancel() const override { m_cancelled = true; }
    bool remote() const override { return true; }
    ~UrlRanges() override
    {
        m_cancelled = true;
        for (std::thread &t : m_prefetching)
            t.join();
    }

private:
    QString problem(const QString &reason) const
    {
        return QStringLiteral("'%1': %2").arg(m_url, reason);
    }

    //! A range being read, or read lately.
    struct Slot
    {
        std::mutex mutex;
        std::condition_variable done;
        bool finished = false;
        std::vector<std::uint8_t> bytes;
        QString error;
    };
    // The slot of a range: mine when it is new, and the caller reads it.
    std::shared_ptr<Slot> slotOf(std::uint64_t offset, std::uint64_t length, bool &mine) const
    {
        std::lock_guard<std::mutex> lock(m_slotsMutex);
        std::shared_ptr<Slot> &slot = m_slots[{offset, length}];
        mine = !slot;
        if (mine) {
            slot = std::make_shared<Slot>();
            m_order.push_back({offset, length});
        }
        return slot;
    }
    // Reads a slot's range (from the disk cache or the server), then lets the oldest slots go
    // beyond a few megabytes; one that failed goes at once, to be asked for again.
    void fill(Slot &slot, std::uint64_t offset, std::uint64_t length) const
    {
        std::vector<std::uint8_t> bytes;
        QString error;
        if (!m_cache.find(offset, length, bytes)) {
            if (fetch(offset, length, false, bytes, error))
                m_cache.keep(offset, bytes.data(), length);
            else if (error.isEmpty())
                error = QStringLiteral("%1 bytes at byte %2 could not be read")
                            .arg(length)
                            .arg(offset);
        }
        {
            std::lock_guard<std::mutex> lock(slot.mutex);
            slot.bytes = std::move(bytes);
            slot.error = error;
            slot.finished = true;
        }
        slot.done.notify_all();
        std::lock_guard<std::mutex> lock(m_slotsMutex);
        if (!error.isEmpty())
            m_slots.erase({offset, length});
        m_recentBytes += error.isEmpty() ? length : 0;
        while (m_recentBytes > RECENT_BYTES && !m_order.empty()) {
            const auto key = m_order.front();
            m_order.pop_front();
            const auto it = m_slots.find(key);
            if (it == m_slots.end())
                continue;
            std::lock_guard<std::mutex> slotLock(it->second->mutex);
            if (!it->second->finished) {
                m_order.push_back(key); // still being read
                break;
            }
            m_recentBytes -= it->second->bytes.size();
            m_slots.erase(it);
        }
    }
    static constexpr std::uint64_t RECENT_BYTES = std::uint64_t(32) << 20;

    bool fetch(std::uint64_t offset, std::uint64_t length, bool atOpening,
               std::vector<std::uint8_t> &bytes, QString &error) const
    {
        Answer answer;
        if (!fetch(offset, length, atOpening, answer, error))
            return false;
        bytes.assign(answer.body.constBegin(), answer.body.constEnd());
        return true;
    }

    // One range, tried again after a failure of the network or of the server.
    bool fetch(std::uint64_t offset, std::uint64_t length, bool atOpening, Answer &answer,
               QString &error) const
    {
        const int attempts = std::max(1, m_settings.attempts);
        for (int attempt = 1;; ++attempt) {
            answer = Network::instance().get(m_url, offset, offset + length - 1,
                                             std::max(1, m_settings.timeoutSeconds), m_cancelled);
            bool again = false;
            if (judge(answer, offset, length, atOpening, again, error)) {
                error.clear(); // what an attempt before said
                return true;
            }
            if (!again || attempt >= attempts || m_cancelled) {
                if (attempt > 1)
                    error += QStringLiteral(" (tried %1 times)").arg(attempt);
                return false;
            }
            // A moment before the next attempt, longer each time.
            const auto until = std::chrono::steady_clock::now()
                + std::chrono::milliseconds(m_settings.retryPauseMs << (attempt - 1));
            while (std::chrono::steady_clock::now() < until && !m_cancelled)
                QThread::msleep(10);
        }
    }

    // Whether an answer holds the range; again when asking again may help.
    bool judge(const Answer &a, std::uint64_t offset, std::uint64_t length, bool atOpening,
               bool &again, QString &error) const
    {
        if (m_cancelled) {
            error = QStringLiteral("reading was cancelled");
            return false;
        }
        if (a.wholeFile) {
            error = QStringLiteral("the server does not answer range requests (it sends the "
                                   "whole file): a survey is streamed from a server that does");
            return false;
        }
        if (a.code == QNetworkReply::SslHandshakeFailedError) {
            // Not worth asking again: the certificate will not change.
            error = QStringLiteral("the secure connection failed (%1): the server's certificate "
                                   "is not one this machine trusts (its authority goes among "
                                   "the system's certificates, or in the file of the setting "
                                   "Streaming/trustedAuthorities)")
                        .arg(a.errorString);
            return false;
        }
        if (a.code != QNetworkReply::NoError && a.status == 0) {
            // No answer: the connection was refused or cut, or nothing came in time.
            again = true;
            error = a.timedOut
                ? QStringLiteral("the server sent nothing for %1 s").arg(m_settings.timeoutSeconds)
                : QStringLiteral("no answer from the server (%1)").arg(a.errorString);
            return false;
        }
        if (a.code != QNetworkReply::NoError && a.status == 206) {
            again = true;
            error = QStringLiteral("the connection was cut while the bytes came (%1)")
                        .arg(a.errorString);
            return false;
        }
        if (a.status == 200 && atOpening && offset == 0)
            return true; // a file smaller than the head asked for, sent whole
        if (a.status != 206) {
            again = a.status >= 500;
            if (a.status == 404)
                error = QStringLiteral("the server has no such file (HTTP 404)");
            else if (a.status == 401 || a.status == 403)
                error = QStringLiteral("the server refuses to send it (HTTP %1)").arg(a.status);
            else
                error = QStringLiteral("the server answers HTTP %1 (%2)")
                            .arg(a.status)
                            .arg(a.errorString);
            return false;
        }
        // "bytes first-last/size"
        const QByteArray range = a.contentRange.trimmed();
        const int dash = range.indexOf('-'), slash = range.indexOf('/');
        const quint64 first = range.mid(6, dash - 6).toULongLong();
        const quint64 expected
            = atOpening ? std::min<quint64>(length, range.mid(slash + 1).toULongLong()) : length;
        if (!range.startsWith("bytes ") || dash < 0 || slash < dash || first != offset
            || quint64(a.body.size()) != expected) {
            again = quint64(a.body.size()) < expected; // cut short
            error = QStringLiteral("the server sent %1 bytes ('Content-Range: %2') for %3 bytes "
                                   "at byte %4")
                        .arg(a.body.size())
                        .arg(QString::fromLatin1(range))
                        .arg(length)
                        .arg(offset);
            return false;
        }
        return true;
    }

    QString m_url;
    tzCopc::RemoteSettings m_settings;
    std::uint64_t m_size = 0;
    std::vector<std::uint8_t> m_head;
    mutable Cache m_cache;
    mutable std::atomic<bool> m_cancelled {false};
    mutable std::mutex m_slotsMutex;
    mutable std::map<std::pair<std::uint64_t, std::uint64_t>, std::shared_ptr<Slot>> m_slots;
    mutable std::deque<std::pair<std::uint64_t, std::uint64_t>> m_order; // oldest first
    mutable std::uint64_t m_recentBytes = 0;
    mutable std::vector<std::thread> m_prefetching; // asked for at the opening only
};

} // namespace

std::unique_ptr<ByteRanges> openFileRanges(const QString &path, QString &error)
{
    auto ranges = std::make_unique<FileRanges>();
    if (!ranges->open(path, error))
        return nullptr;
    return ranges;
}

std::unique_ptr<ByteRanges> openUrlRanges(const QString &url, QString &error)
{
    auto ranges = std::make_unique<UrlRanges>();
    if (!ranges->open(url, error))
        return nullptr;
    return ranges;
}

} // namespace tzCloudFile::detail
