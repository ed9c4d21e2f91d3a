#pragma once

#include "TZVector3.h"
#include "qtz_gui_global.h"

#include <QPoint>

class tzHObject;

//! Whoever wants the points picked in the active 3D view (registered with the picking hub).
class QTZ_GUI_LIB_API tzPickingListener
{
public:
    //! One pick, as the hub delivers it.
    struct PickedItem
    {
        QPoint clickPoint; // screen position, in the view's pixels
        tzHObject *entity = nullptr; // the picked object
        quint32 itemIndex = 0; // point (or triangle) index in the entity
        TZVector3 P3D; // the picked position, in the entity's (local) coordinates
    };

    virtual ~tzPickingListener() = default;
    virtual void onItemPicked(const PickedItem &pi) = 0;
};
