#pragma once

#include "tzGenericPrimitive.h"

//! A sphere centred on the origin of its transformation.
class QTZ_DB_LIB_API tzSphere : public tzGenericPrimitive
{
public:
    explicit tzSphere(float radius = 1.f, const QString &name = QStringLiteral("Sphere"),
                      unsigned precision = 24);

    quint32 getClassID() const override { return TZ_TYPES::SPHERE; }
    float getRadius() const { return m_radius; }
    void setRadius(float radius);

protected:
    void buildUp() override;
    bool toFile_MeOnly(QIODevice &out) const override;
    bool fromFile_MeOnly(QIODevice &in, short dataVersion, LoadedIDMap &oldToNew) override;

    float m_radius;
};
