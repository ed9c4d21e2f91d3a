#include "MensurixSim.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSocketNotifier>
#include <QStandardPaths>
#include <QTextStream>
#include <QThread>

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace {

// The companion's three templates, written out here on their own: the stand-in checks the
// plug-in's texts, so it must not share the plug-in's code.
QByteArray format(const char *templ, const QList<double> &v)
{
    switch (v.size()) {
    case 4:
        return QString::asprintf(templ, v[0], v[1], v[2], int(v[3])).toLocal8Bit();
    case 7:
        return QString::asprintf(templ, v[0], v[1], v[2], v[3], v[4], v[5], int(v[6]))
            .toLocal8Bit();
    default:
        return QByteArray();
    }
}

QString escaped(const QByteArray &bytes)
{
    QString out;
    for (char c : bytes) {
        if (c == '\n')
            out += QStringLiteral("\\n");
        else if (c == '\\')
            out += QStringLiteral("\\\\");
        else if (uchar(c) < 32 || uchar(c) > 126)
            out += QStringLiteral("\\x%1").arg(uchar(c), 2, 16, QLatin1Char('0'));
        else
            out += QLatin1Char(c);
    }
    return out;
}

QByteArray unescaped(const QString &text)
{
    QByteArray out;
    const QByteArray in = text.toLocal8Bit();
    for (int i = 0; i < in.size(); ++i) {
        if (in[i] == '\\' && i + 1 < in.size()) {
            const char c = in[i + 1];
            if (c == 'n') {
                out += '\n';
                ++i;
                continue;
            }
            if (c == '\\') {
                out += '\\';
                ++i;
                continue;
            }
            if (c == 'x' && i + 3 < in.size()) {
                bool ok = false;
                const int v = in.mid(i + 2, 2).toInt(&ok, 16);
                if (ok) {
                    out += char(v);
                    i += 3;
                    continue;
                }
            }
        }
        out += in[i];
    }
    return out;
}

//! The companion's frame of a sight: its ident, its number and where it is.
QString sightFrame(int ident, const QString &number, double x, double y, double z)
{
    return QStringLiteral("{\"type\": \"CVisee\", \"ident\": %1, \"number\": \"%2\", "
                          "\"Rcolor\": 255, \"Gcolor\": 255, \"Bcolor\": 0, \"coord\": "
                          "{\"X\": %3, \"Y\": %4, \"Z\": %5}}")
        .arg(ident)
        .arg(number)
        .arg(QString::number(x, 'f', 4), QString::number(y, 'f', 4), QString::number(z, 'f', 4));
}

} // namespace

MensurixSim::MensurixSim(const Options &options, QObject *parent)
    : QObject(parent)
    , m_options(options)
{
    m_pause.setSingleShot(true);
    connect(&m_pause, &QTimer::timeout, this, &MensurixSim::nextScriptLine);
    connect(&m_server, &QTcpServer::newConnection, this, &MensurixSim::onNewConnection);
}

bool MensurixSim::start()
{
    if (!m_options.log.isEmpty()) {
        m_log.setFileName(m_options.log);
        if (!m_log.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Text)) {
            std::fprintf(stderr, "mensurix-sim: cannot write the log '%s': %s\n",
                         qPrintable(m_options.log), qPrintable(m_log.errorString()));
            return false;
        }
    }
    if (!m_options.script.isEmpty()) {
        QFile script(m_options.script);
        if (!script.open(QIODevice::ReadOnly | QIODevice::Text)) {
            std::fprintf(stderr, "mensurix-sim: cannot read the script '%s': %s\n",
                         qPrintable(m_options.script), qPrintable(script.errorString()));
            return false;
        }
        m_script = QString::fromUtf8(script.readAll()).split(QLatin1Char('\n'));
    }
    if (m_options.numberSights)
        startNumbering();
    if (!m_server.listen(QHostAddress::LocalHost, m_options.port)) {
        std::fprintf(stderr,
                     "mensurix-sim: cannot listen on 127.0.0.1:%u: %s (is the companion or "
                     "another stand-in running?)\n",
                     m_options.port, qPrintable(m_server.errorString()));
        return false;
    }
    print(QStringLiteral("listening on 127.0.0.1:%1").arg(m_options.port));
    if (m_options.readStdin) {
        auto *typed = new QSocketNotifier(fileno(stdin), QSocketNotifier::Read, this);
        connect(typed, &QSocketNotifier::activated, this, [this, typed] {
            char line[65536];
            if (!std::fgets(line, sizeof line, stdin)) {
                typed->setEnabled(false); // end of input: keep serving
                return;
            }
            runLine(QString::fromLocal8Bit(line).trimmed());
        });
    }
    return true;
}

void MensurixSim::print(const QString &text)
{
    const QByteArray line
        = (QStringLiteral("[mensurix-sim] ") + text + QLatin1Char('\n')).toLocal8Bit();
    std::fwrite(line.constData(), 1, size_t(line.size()), stdout);
    std::fflush(stdout);
    if (m_log.isOpen()) {
        m_log.write(line);
        m_log.flush();
    }
}

void MensurixSim::onNewConnection()
{
    while (QTcpSocket *socket = m_server.nextPendingConnection()) {
        if (m_client) {
            print(QStringLiteral("a new connection replaces the previous one"));
            m_client->disconnectFromHost();
        }
        m_client = socket;
        m_received.clear();
        print(QStringLiteral("client connected from port %1").arg(socket->peerPort()));
        connect(socket, &QTcpSocket::readyRead, this, &MensurixSim::onReadyRead);
        connect(socket, &QTcpSocket::disconnected, this, [this, socket] {
            print(QStringLiteral("client disconnected"));
            socket->deleteLater();
            if (m_options.quitAfterScript && m_scriptDone && socket == m_client)
                QCoreApplication::exit(0);
        });
        if (!m_scriptStarted && !m_script.isEmpty()) {
            m_scriptStarted = true;
            nextScriptLine();
        }
    }
}

void MensurixSim::onReadyRead()
{
    auto *socket = qobject_cast<QTcpSocket *>(sender());
    if (!socket)
        return;
    m_received += socket->readAll();
    for (int eol = m_received.indexOf('\n'); eol >= 0; eol = m_received.indexOf('\n')) {
        report(m_received.left(eol + 1));
        m_received.remove(0, eol + 1);
    }
}

QByteArray MensurixSim::templateFor(const QByteArray &message, QString *kind, QList<double> *values)
{
    static const QRegularExpression kindPattern(QStringLiteral("^\\{ \"(\\w+)\""));
    static const QRegularExpression numberPattern(QStringLiteral("\"(-?\\d+(?:\\.\\d+)?)\""));
    const QString text = QString::fromLocal8Bit(message);
    const QString found = kindPattern.match(text).captured(1);
    QList<double> v;
    for (auto it = numberPattern.globalMatch(text); it.hasNext();)
        v << it.next().captured(1).toDouble();
    if (kind)
        *kind = found;
    if (values)
        *values = v;
    if (found == QLatin1String("coordonnees") && v.size() == 4)
        return format("{ \"coordonnees\": { \"xp\": \"%.4lf\", \"yp\": \"%.4lf\", \"zp\": "
                      "\"%.4lf\"  \"Port=\" \"%d\" } }\n",
                      v);
    if (found == QLatin1String("pointMove") && v.size() == 7)
        return format("{ \"pointMove\": { \"xfrom\": \"%.4lf\", \"yfrom\": \"%.4lf\", \"zfrom\": "
                      "\"%.4lf\" \"xto\": \"%.4lf\", \"yto\": \"%.4lf\", \"zto\": \"%.4lf\" "
                      "\"Port=\" \"%d\" } }\n",
                      v);
    if (found == QLatin1String("mouseCursor") && v.size() == 7)
        return format("{ \"mouseCursor\": { \"xp\": \"%.4lf\", \"yp\": \"%.4lf\",\"zp\": "
                      "\"%.4lf\",\"xUp\": \"%.4lf\",\"yUp\": \"%.4lf\",\"zUp\": \"%.4lf\" "
                      "\"Port=\" \"%d\"} }\n",
                      v);
    return QByteArray();
}

void MensurixSim::report(const QByteArray &line)
{
    ++m_messages;
    QString kind;
    QList<double> v;
    const QByteArray expected = templateFor(line, &kind, &v);
    const auto n = [&v](int i) { return QString::number(v[i], 'f', 4); };
    QString decoded;
    if (kind == QLatin1String("coordonnees") && v.size() == 4)
        decoded = QStringLiteral("coordonnees x=%1 y=%2 z=%3 port=%4")
                      .arg(n(0), n(1), n(2))
                      .arg(int(v[3]));
    else if (kind == QLatin1String("pointMove") && v.size() == 7)
        decoded = QStringLiteral("pointMove from (%1, %2, %3) to (%4, %5, %6) port=%7")
                      .arg(n(0), n(1), n(2), n(3), n(4), n(5))
                      .arg(int(v[6]));
    else if (kind == QLatin1String("mouseCursor") && v.size() == 7)
        decoded = QStringLiteral("mouseCursor point (%1, %2, %3) up (%4, %5, %6) port=%7")
                      .arg(n(0), n(1), n(2), n(3), n(4), n(5))
                      .arg(int(v[6]));
    else
        decoded = QStringLiteral("unknown message '%1' with %2 numbers").arg(kind).arg(v.size());
    print(QStringLiteral("<- %1").arg(decoded));
    print(QStringLiteral("   raw: %1").arg(escaped(line)));
    if (kind == QLatin1String("coordonnees") && v.size() == 4 && m_options.numberSights)
        numberSight(v[0], v[1], v[2]);
    if (kind == QLatin1String("pointMove") && v.size() == 7 && m_options.numberSights)
        moveSight(v);
    if (expected.isEmpty()) {
        print(QStringLiteral("   NOT a message of the companion"));
    } else if (expected == line) {
        print(QStringLiteral("   template: exact"));
    } else {
        int at = 0;
        while (at < line.size() && at < expected.size() && line[at] == expected[at])
            ++at;
        print(QStringLiteral("   NOT the template to the byte: differs at byte %1; expected: %2")
                  .arg(at)
                  .arg(escaped(expected)));
    }
}

void MensurixSim::sendBytes(const QByteArray &bytes)
{
    if (!m_client || m_client->state() != QAbstractSocket::ConnectedState) {
        print(QStringLiteral("no client: nothing sent"));
        return;
    }
    if (m_split <= 0) {
        m_client->write(bytes);
        m_client->flush();
        return;
    }
    // Separate writes, flushed and a moment apart, so that they arrive as separate reads.
    for (int at = 0; at < bytes.size(); at += m_split) {
        m_client->write(bytes.mid(at, m_split));
        m_client->flush();
        m_client->waitForBytesWritten(1000);
        QThread::msleep(5);
    }
}

void MensurixSim::sendFrame(const QString &frame)
{
    ++m_framesSent;
    print(QStringLiteral("-> frame %1: %2").arg(m_framesSent).arg(frame.left(100)));
    noteSight(frame);
    sendBytes(frame.toUtf8() + '\x04');
}

void MensurixSim::noteSight(const QString &frame)
{
    const QJsonObject object = QJsonDocument::fromJson(frame.toUtf8()).object();
    if (object.value(QLatin1String("type")).toString() != QLatin1String("CVisee"))
        return;
    Sight sight;
    sight.ident = object.value(QLatin1String("ident")).toInt();
    sight.number = object.value(QLatin1String("number")).toVariant().toString();
    const QJsonObject coord = object.value(QLatin1String("coord")).toObject();
    sight.x = coord.value(QLatin1String("X")).toDouble();
    sight.y = coord.value(QLatin1String("Y")).toDouble();
    sight.z = coord.value(QLatin1String("Z")).toDouble();
    bool ok = false;
    const int number = sight.number.toInt(&ok);
    if (ok)
        m_lastNumber = std::max(m_lastNumber, number);
    m_lastIdent = std::max(m_lastIdent, sight.ident);
    for (Sight &known : m_sights) {
        if (known.ident == sight.ident) {
            known = sight;
            return;
        }
    }
    m_sights << sight;
}

void MensurixSim::moveSight(const QList<double> &v)
{
    // Its own sight at the place moved from (to the texts' four decimals) follows the move.
    for (const Sight &sight : m_sights) {
        if (std::abs(sight.x - v[0]) < 0.00005 + 1e-9 && std::abs(sight.y - v[1]) < 0.00005 + 1e-9
            && std::abs(sight.z - v[2]) < 0.00005 + 1e-9) {
            print(QStringLiteral("   sight %1 moved").arg(sight.number));
            sendFrame(sightFrame(sight.ident, sight.number, v[3], v[4], v[5]));
            return;
        }
    }
}

void MensurixSim::startNumbering()
{
    // Above every sight of the script, sent yet or not...
    for (const QString &line : qAsConst(m_script)) {
        const QJsonObject frame = QJsonDocument::fromJson(line.trimmed().toUtf8()).object();
        if (frame.value(QLatin1String("type")).toString() != QLatin1String("CVisee"))
            continue;
        m_lastNumber
            = std::max(m_lastNumber, frame.value(QLatin1String("number")).toVariant().toInt());
        m_lastIdent = std::max(m_lastIdent, frame.value(QLatin1String("ident")).toInt());
    }
    // ...and every one numbered by an earlier run of the same script: a restarted companion
    // still has its project, and must not give a sight on screen's number to a new one.
    const QString folder = QStandardPaths::writableLocation(QStandardPaths::CacheLocation);
    const QByteArray key
        = QCryptographicHash::hash(QFileInfo(m_options.script).absoluteFilePath().toUtf8(),
                                   QCryptographicHash::Sha1)
              .toHex()
              .left(16);
    m_numbersPath = QDir(folder).filePath(QStringLiteral("numbers-") + QLatin1String(key));
    QFile saved(m_numbersPath);
    if (saved.open(QIODevice::ReadOnly)) {
        const QList<QByteArray> values = saved.readAll().simplified().split(' ');
        if (values.size() == 2) {
            m_lastNumber = std::max(m_lastNumber, values[0].toInt());
            m_lastIdent = std::max(m_lastIdent, values[1].toInt());
        }
    }
    print(QStringLiteral("sights placed are numbered from %1 (ident %2; %3)")
              .arg(m_lastNumber + 1)
              .arg(m_lastIdent + 1)
              .arg(QDir::toNativeSeparators(m_numbersPath)));
}

void MensurixSim::numberSight(double x, double y, double z)
{
    print(QStringLiteral("   numbered sight %1").arg(m_lastNumber + 1));
    sendFrame(sightFrame(m_lastIdent + 1, QString::number(m_lastNumber + 1), x, y, z));
    QDir().mkpath(QFileInfo(m_numbersPath).absolutePath());
    QFile saved(m_numbersPath);
    if (saved.open(QIODevice::WriteOnly | QIODevice::Truncate))
        saved.write(QByteArray::number(m_lastNumber) + ' ' + QByteArray::number(m_lastIdent));
}

void MensurixSim::runLine(const QString &line)
{
    if (line.isEmpty() || line.startsWith(QLatin1Char('#')))
        return;
    if (line.startsWith(QLatin1Char('{'))) {
        sendFrame(line);
        return;
    }
    const QString command = line.section(QLatin1Char(' '), 0, 0);
    const QString argument = line.section(QLatin1Char(' '), 1);
    if (command == QLatin1String("!split")) {
        m_split = argument.toInt();
        print(QStringLiteral("frames now go in writes of %1 bytes").arg(m_split));
    } else if (command == QLatin1String("!raw")) {
        print(QStringLiteral("-> raw: %1").arg(argument));
        sendBytes(unescaped(argument));
    } else if (command == QLatin1String("!close")) {
        print(QStringLiteral("closing the connection"));
        if (m_client)
            m_client->disconnectFromHost();
    } else if (command == QLatin1String("!quit")) {
        print(QStringLiteral("quitting"));
        QCoreApplication::exit(0);
    } else if (command != QLatin1String("!wait")) {
        print(QStringLiteral("unknown line ignored: %1").arg(line));
    }
}

void MensurixSim::nextScriptLine()
{
    while (m_scriptLine < m_script.size()) {
        const QString line = m_script[m_scriptLine++].trimmed();
        if (line.startsWith(QLatin1String("!wait"))) {
            m_pause.start(line.section(QLatin1Char(' '), 1).toInt());
            return;
        }
        runLine(line);
    }
    if (!m_scriptDone) {
        m_scriptDone = true;
        print(QStringLiteral("script done: %1 frames sent").arg(m_framesSent));
    }
}
