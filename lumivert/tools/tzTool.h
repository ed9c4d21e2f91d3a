#pragma once

#include "TZVector3.h"
#include "tzHObject.h"

class tzApplicationInterface;
class tzGLWindow;
class tzPointCloud;

//! Base of the plug-in's interactive measuring modes. The main plug-in object activates one tool
//! at a time and forwards to it every point picked in the 3D view while a run is on. A tool
//! overrides what it needs; the base bodies do nothing. The virtual operations keep this order.
class tzTool
{
public:
    //! Stores the application (not owned) and its active 3D view at this moment.
    virtual void setupTool(tzApplicationInterface *app);
    virtual void toolActivated() { }
    virtual void toolDeactivated() { }
    //! A point of a cloud was picked: the group to insert into, the point's index in the cloud,
    //! the cloud and the point (cloud's local coordinates).
    virtual void pointPicked(tzHObject *insertionParent, unsigned pointIndex, tzPointCloud *cloud,
                             const TZVector3 &P)
    {
        Q_UNUSED(insertionParent)
        Q_UNUSED(pointIndex)
        Q_UNUSED(cloud)
        Q_UNUSED(P)
    }
    //! Any entity was picked (clouds included).
    virtual void pointPicked(tzHObject *insertionParent, unsigned itemIndex, tzHObject *entity,
                             const TZVector3 &P)
    {
        Q_UNUSED(insertionParent)
        Q_UNUSED(itemIndex)
        Q_UNUSED(entity)
        Q_UNUSED(P)
    }
    virtual void selectionChanged(const tzHObject::Container &selectedEntities)
    {
        Q_UNUSED(selectedEntities)
    }
    virtual void accept() { }
    virtual void cancel() { }
    //! Undoes the last step; false when there was nothing to undo.
    virtual bool undo() { return false; }
    //! A further notification without arguments (the dialog's undo reaches tools here).
    virtual void notify() { }
    virtual ~tzTool() = default;

protected:
    tzApplicationInterface *m_app = nullptr;
    tzGLWindow *m_window = nullptr;
};
