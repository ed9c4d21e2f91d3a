#include "tzSerialization.h"

#include "tzLog.h"

#include <QBuffer>
#include <QDataStream>

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
    return write<quint32>(out, quint32(bytes.size())) && writeBytes(out, bytes.constData(), bytes.size());
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

bool writeVariantMap(QIODevice &out, const QVariantMap &map)
{
    QByteArray image;
    {
        QDataStream stream(&image, QIODevice::WriteOnly);
        stream.setVersion(QDataStream::Qt_5_15);
        stream << map;
    }
    return writeSized(out, image);
}

bool readVariantMap(QIODevice &in, QVariantMap &map)
{
    QByteArray image;
    if (!readSized(in, image))
        return false;
    QDataStream stream(image);
    stream.setVersion(QDataStream::Qt_5_15);
    QVariantMap result;
    stream >> result;
    if (stream.status() != QDataStream::Ok || !stream.atEnd())
        return false;
    map = result;
    return true;
}

} // namespace tzSerialization
