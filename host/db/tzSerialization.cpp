#include "tzSerialization.h"

#include "tzLog.h"

#include <climits>
#include <limits>

namespace tzSerialization {

const char *const WriteError = "Write error (disk full or no access right?)";
const char *const ReadError = "Read error (corrupted file or no access right?)";
const char *const MemoryError = "Not enough memory";

bool fail(const char *text)
{
    tzLog::Error(QString::fromLatin1(text));
    return false;
}

namespace {
thread_local short t_writtenVersion = SHRT_MAX;
}

short writtenVersion()
{
    return t_writtenVersion;
}

void setWrittenVersion(short version)
{
    t_writtenVersion = version;
}

bool writeBytes(QIODevice &out, const void *data, qint64 size)
{
    return out.write(static_cast<const char *>(data), size) == size;
}

bool readBytes(QIODevice &in, void *data, qint64 size)
{
    return in.read(static_cast<char *>(data), size) == size;
}

bool hasRoomFor(const QIODevice &in, quint64 size)
{
    if (in.isSequential())
        return true;
    const qint64 left = in.size() - in.pos();
    return left >= 0 && quint64(left) >= size;
}

bool writeString(QIODevice &out, const QString &text)
{
    return writeSized(out, text.toUtf8());
}

bool writeSized(QIODevice &out, const QByteArray &bytes)
{
    return write<quint32>(out, quint32(bytes.size()))
        && writeBytes(out, bytes.constData(), bytes.size());
}

bool readSized(QIODevice &in, QByteArray &bytes)
{
    quint32 size = 0;
    if (!read(in, size) || !hasRoomFor(in, size) || size > quint32(std::numeric_limits<int>::max()))
        return false;
    QByteArray result(int(size), Qt::Uninitialized);
    if (!readBytes(in, result.data(), size))
        return false;
    bytes = result;
    return true;
}

bool readString(QIODevice &in, QString &text)
{
    QByteArray utf8;
    if (!readSized(in, utf8))
        return false;
    text = QString::fromUtf8(utf8);
    return true;
}

namespace {
// Value kinds of metadata entries in files. Other kinds are written as their text.
enum MetaKind : quint8 {
    MetaBool = 1,
    MetaInt = 2,
    MetaUInt = 3,
    MetaLongLong = 4,
    MetaDouble = 5,
    MetaString = 6,
    MetaFloat = 7
};
} // namespace

bool writeVariantMap(QIODevice &out, const QVariantMap &map)
{
    if (!write<quint32>(out, quint32(map.size())))
        return false;
    for (auto it = map.constBegin(); it != map.constEnd(); ++it) {
        if (!writeString(out, it.key()))
            return false;
        const QVariant &v = it.value();
        bool ok = false;
        switch (int(v.type())) {
        case QMetaType::Bool:
            ok = write<quint8>(out, MetaBool) && write<quint8>(out, v.toBool());
            break;
        case QMetaType::Int:
            ok = write<quint8>(out, MetaInt) && write<qint32>(out, v.toInt());
            break;
        case QMetaType::UInt:
            ok = write<quint8>(out, MetaUInt) && write<quint32>(out, v.toUInt());
            break;
        case QMetaType::LongLong:
            ok = write<quint8>(out, MetaLongLong) && write<qint64>(out, v.toLongLong());
            break;
        case QMetaType::Double:
            ok = write<quint8>(out, MetaDouble) && write<double>(out, v.toDouble());
            break;
        case QMetaType::Float:
            ok = write<quint8>(out, MetaFloat) && write<float>(out, v.toFloat());
            break;
        default:
            ok = write<quint8>(out, MetaString) && writeString(out, v.toString());
            break;
        }
        if (!ok)
            return false;
    }
    return true;
}

bool readVariantMap(QIODevice &in, QVariantMap &map)
{
    quint32 count = 0;
    // An entry takes at least a key length and a kind.
    if (!read(in, count) || !hasRoomFor(in, quint64(count) * 5))
        return false;
    QVariantMap result;
    for (quint32 i = 0; i < count; ++i) {
        QString key;
        quint8 kind = 0;
        if (!readString(in, key) || !read(in, kind))
            return false;
        QVariant value;
        bool ok = false;
        switch (kind) {
        case MetaBool: {
            quint8 b = 0;
            ok = read(in, b);
            value = bool(b);
            break;
        }
        case MetaInt: {
            qint32 n = 0;
            ok = read(in, n);
            value = n;
            break;
        }
        case MetaUInt: {
            quint32 n = 0;
            ok = read(in, n);
            value = n;
            break;
        }
        case MetaLongLong: {
            qint64 n = 0;
            ok = read(in, n);
            value = qlonglong(n);
            break;
        }
        case MetaDouble: {
            double d = 0;
            ok = read(in, d);
            value = d;
            break;
        }
        case MetaFloat: {
            float f = 0;
            ok = read(in, f);
            value = f;
            break;
        }
        case MetaString: {
            QString text;
            ok = readString(in, text);
            value = text;
            break;
        }
        default:
            return false;
        }
        if (!ok)
            return false;
        result.insert(key, value);
    }
    map = result;
    return true;
}

} // namespace tzSerialization
