#pragma once

#include "tzDefaultPluginInterface.h"
#include "tzHObject.h"

#include <QList>

class QAction;
class tzApplicationInterface;

//! A standard plug-in: actions offered in the viewer's tool bar and menu, told of selection
//! changes, and given the application interface.
class QTZ_DB_LIB_API tzStdPluginInterface : public tzDefaultPluginInterface
{
public:
    explicit tzStdPluginInterface(const QString &resourcePath = QString())
        : tzDefaultPluginInterface(resourcePath)
    {
    }

    TZ_PLUGIN_TYPE getType() const override { return TZ_STD_PLUGIN; }

    //! Stores the application (not owned); when set, the plug-in's objects take their unique
    //! IDs from the application's generator.
    virtual void setAppInterface(tzApplicationInterface *app);
    virtual tzApplicationInterface *appInterface() const { return m_app; }
    //! The plug-in's actions; the viewer adds them to its tool bar and menu.
    virtual QList<QAction *> listActions() = 0;
    //! The selection of the database tree changed.
    virtual void selectionChanged(const tzHObject::Container &selectedEntities)
    {
        Q_UNUSED(selectedEntities)
    }
    //! Writes to the application's console, when there is one.
    virtual void printToConsole(const QString &text, int level = 0);

protected:
    tzApplicationInterface *m_app = nullptr;
};

Q_DECLARE_INTERFACE(tzStdPluginInterface, "orv.rd.Tessaro.tzStdPluginInterface/1.4")
