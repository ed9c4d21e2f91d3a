#pragma once

#include "tzGenericPrimitive.h"

//! A truncated cone along the Z axis of its transformation, from -height/2 (bottom) to +height/2.
class QTZ_DB_LIB_API tzCone : public tzGenericPrimitive
{
public:
    tzCone(float bottomRadius = 1.f, float topRadius = 0.f, float height = 1.f,
           const QString &name = QStringLiteral("Cone"), unsigned precision = 24);

    quint32 getClassID() const override { return TZ_TYPES::CONE; }
    float getBottomRadius() const { return m_bottomRadius; }
    float getTopRadius() const { return m_topRadius; }
    float getHeight() const { return m_height; }
    void setDimensions(float bottomRadius, float topRadius, float height);

protected:
    void buildUp() override;
    bool toFile_MeOnly(QIODevice &out) const override;
    bool fromFile_MeOnly(QIODevice &in, short dataVersion, LoadedIDMap &oldToNew) override;

    float m_bottomRadius;
    float m_topRadius;
    float m_height;
};

//! A cylinder: a cone with equal radii.
class QTZ_DB_LIB_API tzCylinder : public tzCone
{
public:
    explicit tzCylinder(float radius = 1.f, float height = 1.f,
                        const QString &name = QStringLiteral("Cylinder"), unsigned precision = 24)
        : tzCone(radius, radius, height, name, precision)
    {
    }
    quint32 getClassID() const override { return TZ_TYPES::CYLINDER; }
    float getRadius() const { return m_bottomRadius; }
};
