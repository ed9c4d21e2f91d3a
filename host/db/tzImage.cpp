#include "tzImage.h"

#include "tzSerialization.h"

#include <QBuffer>
#include <QFileInfo>
#include <QImageReader>

using namespace tzSerialization;

tzImage::tzImage(const QString &name)
    : tzHObject(name)
{
}

bool tzImage::load(const QString &filename, QString &errorText)
{
    QImageReader reader(filename);
    QImage image = reader.read();
    if (image.isNull()) {
        errorText
            = QStringLiteral("Failed to load image '%1': %2").arg(filename, reader.errorString());
        return false;
    }
    setData(image);
    setName(QFileInfo(filename).baseName());
    return true;
}

void tzImage::setData(const QImage &image)
{
    m_image = image;
}

bool tzImage::toFile_MeOnly(QIODevice &out) const
{
    if (!tzHObject::toFile_MeOnly(out))
        return false;
    QByteArray png;
    if (!m_image.isNull()) {
        QBuffer buffer(&png);
        buffer.open(QIODevice::WriteOnly);
        m_image.save(&buffer, "PNG");
    }
    const bool ok = write(out, m_texAlpha) && writeSized(out, png);
    return ok || fail(WriteError);
}

bool tzImage::fromFile_MeOnly(QIODevice &in, short dataVersion, LoadedIDMap &oldToNew)
{
    if (!tzHObject::fromFile_MeOnly(in, dataVersion, oldToNew))
        return false;
    QByteArray png;
    if (!read(in, m_texAlpha) || !readSized(in, png))
        return fail(ReadError);
    m_image = QImage();
    if (!png.isEmpty() && !m_image.loadFromData(png, "PNG"))
        return fail(ReadError);
    return true;
}
