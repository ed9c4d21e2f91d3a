#pragma once

#include "TZVector3.h"
#include "qtz_db_global.h"

//! An object that can be dragged in the view. Each call returns whether the object moved.
class QTZ_DB_LIB_API tzInteractor
{
public:
    virtual ~tzInteractor() = default;
    //! The mouse moved by (dx, dy) pixels from (x, y) while dragging the object.
    virtual bool move2D(int x, int y, int dx, int dy, int screenWidth, int screenHeight)
    {
        Q_UNUSED(x)
        Q_UNUSED(y)
        Q_UNUSED(dx)
        Q_UNUSED(dy)
        Q_UNUSED(screenWidth)
        Q_UNUSED(screenHeight)
        return false;
    }
    //! The object was dragged by u in 3D.
    virtual bool move3D(const TZVector3 &u)
    {
        Q_UNUSED(u)
        return false;
    }
};
