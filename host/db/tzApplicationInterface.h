#pragma once

#include "qtz_db_global.h"
#include "tzHObject.h"
#include "tzObject.h"

#include <QString>
#include <Qt>

class QMainWindow;
class tzGLWindow;
class tzOverlayDialog;
class tzPickingHub;

//! What the viewer offers to its plug-ins (implemented by the application).
class QTZ_DB_LIB_API tzApplicationInterface
{
public:
    enum ConsoleMessageLevel {
        STD_CONSOLE_MESSAGE = 0,
        WRN_CONSOLE_MESSAGE = 1,
        ERR_CONSOLE_MESSAGE = 2
    };

    virtual ~tzApplicationInterface() = default;

    //! The 3D view that has the focus, or null.
    virtual tzGLWindow *activeView() = 0;
    virtual QMainWindow *mainWindow() = 0;
    //! The root of the scene (never null while the application runs).
    virtual tzHObject *databaseRoot() = 0;
    //! The one picking hub of the application, or null.
    virtual tzPickingHub *pickingHub() = 0;
    virtual const tzHObject::Container &selectedObjects() const = 0;

    //! Shows an overlay dialog in a corner of the active view, kept there on resize.
    virtual void attachOverlayDialog(tzOverlayDialog *dialog, Qt::Corner corner) = 0;
    virtual void detachOverlayDialog(tzOverlayDialog *dialog) = 0;

    //! Writes a line to the console (level 2: error).
    virtual void printToConsole(const QString &text, int level = STD_CONSOLE_MESSAGE) = 0;

    //! Adds an object to the scene: its view, the tree, and a redraw.
    virtual void addToDatabase(tzHObject *object, bool updateZoom = false,
                               bool autoExpandDBTree = true, bool checkDimensions = false,
                               bool autoRedraw = true)
        = 0;
    //! Takes an object out of the scene, deleting it when autoDelete is set.
    virtual void removeFromDatabase(tzHObject *object, bool autoDelete = true) = 0;
    virtual void refreshAllViews(bool only2D = false) = 0;

    virtual tzUniqueIDGenerator::Shared getUniqueIDGenerator() = 0;
};
