#pragma once

#include "qtz_db_global.h"

//! Base of the measurement objects (distances, labels); marks them for the host.
class QTZ_DB_LIB_API tzMeasurement
{
public:
    virtual ~tzMeasurement() = default;
};
