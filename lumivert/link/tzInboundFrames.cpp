// What the companion's frames do to the scene (the GUI thread, under the link's lock).

#include "tzApplicationInterface.h"
#include "tzCVisee.h"
#include "tzCViseeTool.h"
#include "tzCommunicationHandler.h"
#include "tzGLWindow.h"
#include "tzLumivert.h"
#include "tzXComposite.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QtDebug>

#include <cmath>
#include <memory>

namespace {

// Within this distance on each axis a new sight is the same as an existing one.
constexpr double SAME_SIGHT = 0.0001;

bool samePlace(const tzCVisee &a, const tzCVisee &b)
{
    const TZVector3d p = a.coordinates(), q = b.coordinates();
    return std::abs(p.x - q.x) < SAME_SIGHT && std::abs(p.y - q.y) < SAME_SIGHT
        && std::abs(p.z - q.z) < SAME_SIGHT;
}

} // namespace

void tzCommunicationHandler::dispatch(const QString &frame)
{
    if (m_frameObserver)
        m_frameObserver(frame);
    const QJsonDocument document = QJsonDocument::fromJson(frame.toUtf8());
    const QJsonObject object = document.object();
    if (document.isNull() || object.isEmpty())
        return;
    const QString type = object.value(QLatin1String("type")).toString();
    const QString command = object.value(QLatin1String("command")).toString();
    qDebug("type: %s %s", qPrintable(type), qPrintable(command));
    if (!m_app || !m_app->databaseRoot())
        return;

    if (command == QLatin1String("delete")) {
        deleteByIdent(object.value(QLatin1String("ident")).toInt());
    } else if (command == QLatin1String("mesure")) {
        setReferencePoint(type, object.value(QLatin1String("fromvisee")).toInt());
    } else {
        tzGlobalShift::captureFrom(m_app->databaseRoot());
        if (type == QLatin1String("CVisee"))
            createOrUpdateSight(object);
        else if (type == QLatin1String("XSymbole"))
            replaceComposite(std::make_unique<tzXSymbole>(), object, "pas de Symbole a delete");
        else if (type == QLatin1String("XAlignement"))
            replaceComposite(std::make_unique<tzXAlignement>(), object,
                             "pas d Alignement a delete");
    }
}

bool tzCommunicationHandler::deleteByIdent(int ident)
{
    tzHObject *root = m_app ? m_app->databaseRoot() : nullptr;
    if (!root)
        return false;
    const QString key = QStringLiteral("ident");
    for (unsigned i = 0; i < root->getChildrenNumber(); ++i) {
        const tzHObject *child = root->getChild(i);
        for (unsigned j = 0; j < child->getChildrenNumber(); ++j) {
            tzHObject *candidate = child->getChild(j);
            const QVariant value = candidate->getMetaData(key);
            if (value.isValid() && value.toInt() == ident) {
                m_app->removeFromDatabase(candidate, true);
                return true;
            }
        }
    }
    return false;
}

void tzCommunicationHandler::setReferencePoint(const QString &type, int fromVisee)
{
    tzCVisee probe;
    probe.setType(type);
    const tzHObject *group = probe.getOrCreateGroup(m_app);
    TZVector3 point(0, 0, 0);
    tzHObject::Container sights;
    if (group)
        group->filterChildren(sights, true, TZ_TYPES::LABEL_KIND);
    for (tzHObject *object : sights) {
        auto *sight = dynamic_cast<tzCVisee *>(object);
        if (sight && sight->ident() == fromVisee) {
            const TZVector3d p = sight->coordinates();
            point = TZVector3(float(p.x), float(p.y), float(p.z));
            break;
        }
    }
    if (m_plugin)
        m_plugin->sightTool()->setReferencePoint(point);
}

void tzCommunicationHandler::refreshViews()
{
    m_app->refreshAllViews();
    if (tzGLWindow *view = m_app->activeView())
        view->redraw();
}

void tzCommunicationHandler::createOrUpdateSight(const QJsonObject &frame)
{
    auto sight = std::make_unique<tzCVisee>(QStringLiteral("Visee"));
    tzHObject *group = sight->getOrCreateGroup(m_app);
    if (!group || !sight->readJson(frame))
        return;
    tzXentity *existing = sight->findSameIdent(group);
    if (!existing) {
        tzHObject::Container sights;
        group->filterChildren(sights, true, TZ_TYPES::LABEL_KIND);
        for (tzHObject *object : sights) {
            auto *other = dynamic_cast<tzCVisee *>(object);
            if (other && samePlace(*other, *sight)) {
                existing = other;
                break;
            }
        }
    }
    if (existing) {
        existing->readJson(frame);
        refreshViews();
        return;
    }
    tzCVisee *added = sight.release();
    group->addChild(added, DP_PARENT_OF_OTHER, -1);
    m_app->addToDatabase(added, false, true, false, true);
    refreshViews();
}

void tzCommunicationHandler::replaceComposite(std::unique_ptr<tzXComposite> composite,
                                              const QJsonObject &frame, const char *nothingDeleted)
{
    tzHObject *group = composite->getOrCreateGroup(m_app);
    if (!group || !composite->readJson(frame))
        return;
    composite->convertToView();
    if (!deleteByIdent(composite->ident()))
        qDebug("%s", nothingDeleted);
    // The group may have gone with the deleted object (an object of that ident holding it).
    group = composite->getOrCreateGroup(m_app);
    tzXComposite *added = composite.release();
    group->addChild(added, DP_PARENT_OF_OTHER, -1);
    m_app->addToDatabase(added, false, true, false, true);
    refreshViews();
}
