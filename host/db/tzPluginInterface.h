#pragma once

#include "qtz_db_global.h"

#include <QIcon>
#include <QList>
#include <QPair>
#include <QString>
#include <QtPlugin>

class tzExternalFactory;
class tzCommandLineInterface;

enum TZ_PLUGIN_TYPE { TZ_STD_PLUGIN = 1, TZ_IO_FILTER_PLUGIN = 2 };

//! Root of every plug-in of the viewer. The virtual operations keep this order: plug-ins built
//! against it rely on it.
class QTZ_DB_LIB_API tzPluginInterface
{
public:
    //! A contact: name and e-mail address.
    using Contact = QPair<QString, QString>;
    using ContactList = QList<Contact>;
    //! A reference: text and URL.
    using Reference = QPair<QString, QString>;
    using ReferenceList = QList<Reference>;

    virtual ~tzPluginInterface() = default;
    virtual TZ_PLUGIN_TYPE getType() const = 0;
    virtual bool isCore() const = 0;
    virtual QString getName() const = 0;
    virtual QString getDescription() const = 0;
    virtual QIcon getIcon() const = 0;
    virtual ReferenceList getReferences() const = 0;
    virtual ContactList getAuthors() const = 0;
    virtual ContactList getMaintainers() const = 0;
    //! Called when the plug-in is loaded; false refuses the load.
    virtual bool start() = 0;
    //! Called before the plug-in is unloaded.
    virtual void stop() = 0;
    //! Makes the plug-in's custom objects, or null.
    virtual tzExternalFactory *customObjectsFactory() const = 0;
    //! Registers command-line commands.
    virtual void addCommands(tzCommandLineInterface *cmd) = 0;
};

Q_DECLARE_INTERFACE(tzPluginInterface, "orv.rd.Tessaro.tzPluginInterface/3.2")
