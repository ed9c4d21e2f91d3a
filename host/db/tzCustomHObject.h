#pragma once

#include "qtz_db_global.h"
#include "tzHObject.h"

//! Base of the objects that plug-ins put in the scene. To be saved in scene files a custom
//! object names its factory (getFactoryName) and the plug-in registers that factory with
//! tzHObject::RegisterFactory; objects without one are left out of the files.
class QTZ_DB_LIB_API tzCustomHObject : public tzHObject
{
public:
    explicit tzCustomHObject(const QString &name = QString())
        : tzHObject(name)
    {
    }
    quint32 getClassID() const override { return TZ_TYPES::CUSTOM_H_OBJECT; }

protected:
    bool isSerializable() const override { return !getFactoryName().isEmpty(); }
};
