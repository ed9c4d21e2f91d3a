#include "tzDefaultPluginInterface.h"

#include "tzLog.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonObject>

tzDefaultPluginInterface::tzDefaultPluginInterface(const QString &resourcePath)
{
    if (resourcePath.isNull())
        return;
    QFile file(resourcePath);
    if (!file.open(QIODevice::ReadOnly)) {
        tzLog::Error(QStringLiteral("Could not load plugin resources: %1").arg(resourcePath));
        return;
    }
    QJsonParseError error;
    m_document = QJsonDocument::fromJson(file.readAll(), &error);
    if (error.error != QJsonParseError::NoError)
        tzLog::Error(QStringLiteral("Could not parse plugin info: %1").arg(error.errorString()));
}

bool tzDefaultPluginInterface::isCore() const
{
    return m_document.object().value(QLatin1String("core")).toBool();
}

QString tzDefaultPluginInterface::getName() const
{
    return m_document.object().value(QLatin1String("name")).toString();
}

QString tzDefaultPluginInterface::getDescription() const
{
    return m_document.object().value(QLatin1String("description")).toString();
}

QIcon tzDefaultPluginInterface::getIcon() const
{
    const QString path = m_document.object().value(QLatin1String("icon")).toString();
    return path.isEmpty() ? QIcon() : QIcon(path);
}

tzPluginInterface::ReferenceList tzDefaultPluginInterface::getReferences() const
{
    ReferenceList list;
    const QJsonArray array = m_document.object().value(QLatin1String("references")).toArray();
    for (const QJsonValue &v : array) {
        const QJsonObject o = v.toObject();
        list.append(
            {o.value(QLatin1String("text")).toString(), o.value(QLatin1String("url")).toString()});
    }
    return list;
}

tzPluginInterface::ContactList tzDefaultPluginInterface::contacts(const char *key) const
{
    ContactList list;
    const QJsonArray array = m_document.object().value(QLatin1String(key)).toArray();
    for (const QJsonValue &v : array) {
        const QJsonObject o = v.toObject();
        list.append({o.value(QLatin1String("name")).toString(),
                     o.value(QLatin1String("email")).toString()});
    }
    return list;
}

tzPluginInterface::ContactList tzDefaultPluginInterface::getAuthors() const
{
    return contacts("authors");
}

tzPluginInterface::ContactList tzDefaultPluginInterface::getMaintainers() const
{
    return contacts("maintainers");
}
