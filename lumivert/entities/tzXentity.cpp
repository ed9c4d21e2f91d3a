#include "tzXentity.h"

#include "tzApplicationInterface.h"
#include "tzHObject.h"
#include "tzPointCloud.h"

bool tzXentity::pictureShown = false;

bool tzXentity::readJson(const QJsonObject &frame)
{
    m_type.append(frame.value(QLatin1String("type")).toString());
    m_ident = frame.value(QLatin1String("ident")).toInt();
    m_red = frame.value(QLatin1String("Rcolor")).toInt();
    m_green = frame.value(QLatin1String("Gcolor")).toInt();
    m_blue = frame.value(QLatin1String("Bcolor")).toInt();
    return true;
}

tzHObject *findGroupTwoLevels(const tzHObject *root, const QString &name)
{
    if (!root)
        return nullptr;
    for (unsigned i = 0; i < root->getChildrenNumber(); ++i) {
        tzHObject *child = root->getChild(i);
        if (child->getName() == name)
            return child;
        for (unsigned j = 0; j < child->getChildrenNumber(); ++j) {
            if (child->getChild(j)->getName() == name)
                return child->getChild(j);
        }
    }
    return nullptr;
}

tzHObject *measurementGroup(tzApplicationInterface *app, bool create)
{
    tzHObject *root = app ? app->databaseRoot() : nullptr;
    if (!root)
        return nullptr;
    const QString name = QStringLiteral("mesures");
    if (tzHObject *group = findGroupTwoLevels(root, name))
        return group;
    if (!create)
        return nullptr;
    auto *group = new tzHObject(name);
    root->addChild(group, DP_PARENT_OF_OTHER, -1);
    app->addToDatabase(group);
    return group;
}

tzHObject *tzXentity::findGroup(tzApplicationInterface *app) const
{
    return findGroupTwoLevels(app ? app->databaseRoot() : nullptr, m_type);
}

tzHObject *tzXentity::getOrCreateGroup(tzApplicationInterface *app) const
{
    if (tzHObject *group = findGroup(app))
        return group;
    if (!app)
        return nullptr;
    auto *group = new tzHObject(m_type);
    app->addToDatabase(group, false, true, false, false);
    return group;
}

tzXentity *tzXentity::findSameIdent(const tzHObject *group) const
{
    if (!group)
        return nullptr;
    for (unsigned i = 0; i < group->getChildrenNumber(); ++i) {
        tzXentity *entity = fromNode(group->getChild(i));
        if (entity && entity->m_ident == m_ident)
            return entity;
    }
    return nullptr;
}

tzXentity *tzXentity::fromNode(tzHObject *node)
{
    // Only custom objects can be the companion's: the cheap test first.
    if (!node || !node->isKindOf(TZ_TYPES::CUSTOM_H_OBJECT))
        return nullptr;
    return dynamic_cast<tzXentity *>(node);
}
