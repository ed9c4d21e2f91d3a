#pragma once

#include "qtz_db_global.h"
#include "tzHObject.h"
#include "tzViewportParameters.h"

//! An object drawn in the 2D foreground of a view, with a saved camera.
class QTZ_DB_LIB_API tz2DViewportObject : public tzHObject
{
public:
    explicit tz2DViewportObject(const QString &name = QString())
        : tzHObject(name)
    {
    }
    quint32 getClassID() const override { return TZ_TYPES::VIEWPORT_2D_OBJECT; }

    const tzViewportParameters &getParameters() const { return m_params; }
    void setParameters(const tzViewportParameters &params) { m_params = params; }

protected:
    bool toFile_MeOnly(QIODevice &out) const override;
    bool fromFile_MeOnly(QIODevice &in, short dataVersion, LoadedIDMap &oldToNew) override;

    tzViewportParameters m_params;
};
