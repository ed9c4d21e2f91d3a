#pragma once

#include "qtz_db_global.h"
#include "tzHObject.h"

#include <QImage>

//! A picture in the scene, with the alpha it is drawn with.
class QTZ_DB_LIB_API tzImage : public tzHObject
{
public:
    explicit tzImage(const QString &name = QStringLiteral("Not loaded"));

    quint32 getClassID() const override { return TZ_TYPES::IMAGE; }

    //! Loads the picture file; on failure keeps the current picture and sets errorText to a
    //! message that names the file and the reason.
    bool load(const QString &filename, QString &errorText);
    void setData(const QImage &image);
    const QImage &data() const { return m_image; }
    bool isLoaded() const { return !m_image.isNull(); }
    unsigned getW() const { return unsigned(m_image.width()); }
    unsigned getH() const { return unsigned(m_image.height()); }
    float getAlpha() const { return m_texAlpha; }
    void setAlpha(float alpha) { m_texAlpha = alpha; }

protected:
    bool toFile_MeOnly(QIODevice &out) const override;
    bool fromFile_MeOnly(QIODevice &in, short dataVersion, LoadedIDMap &oldToNew) override;

    QImage m_image;
    float m_texAlpha = 1.f;
};
