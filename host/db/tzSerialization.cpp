#include "tzSerialization.h"

#include "tzLog.h"

#include <QBuffer>
#include <QDataStream>

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
    const QByteArray utf8 = text.toUtf8();
    return write<quint32>(out, quint32(utf8.size())) && writeBytes(out, utf8.constData(), utf8.size());
}

bool readString(QIODevice &in, QString &text)
{
    quint32 size = 0;
    if (!read(in, size) || !hasRoomFor(in, size))
        return false;
    QByteArray utf8(int(size), Qt::Uninitialized);
    if (!readBytes(in, utf8.data(), size))
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
    return write<quint32>(out, quint32(image.size())) && writeBytes(out, image.constData(), image.size());
}

bool readVariantMap(QIODevice &in, QVariantMap &map)
{
    quint32 size = 0;
    if (!read(in, size) || !hasRoomFor(in, size))
        return false;
    QByteArray image(int(size), Qt::Uninitialized);
    if (!readBytes(in, image.data(), size))
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
