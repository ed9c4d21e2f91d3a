#pragma once

#include "tzPluginInterface.h"

#include <QJsonDocument>

//! A plug-in described by an info file (JSON): name, description, icon, whether it is core,
//! authors, maintainers and references are read from it. With a null path nothing is read and
//! every reader answers from an empty document.
class QTZ_DB_LIB_API tzDefaultPluginInterface : public tzPluginInterface
{
public:
    explicit tzDefaultPluginInterface(const QString &resourcePath = QString());

    bool isCore() const override;
    QString getName() const override;
    QString getDescription() const override;
    QIcon getIcon() const override;
    ReferenceList getReferences() const override;
    ContactList getAuthors() const override;
    ContactList getMaintainers() const override;
    bool start() override { return true; }
    void stop() override { }
    tzExternalFactory *customObjectsFactory() const override { return nullptr; }
    void addCommands(tzCommandLineInterface *) override { }

    const QJsonDocument &infoDocument() const { return m_document; }

private:
    ContactList contacts(const char *key) const;

    QJsonDocument m_document;
};
