// What the companion's frames do to the scene (the GUI thread, under the link's lock).

#include "tzFrameDispatcher.h"

#include "tzApplicationInterface.h"
#include "tzCVisee.h"
#include "tzGLWindow.h"
#include "tzXComposite.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QtDebug>

#include <cmath>
#include <memory>

namespace {

// Within this distance on each axis a new sight is the same as an existing one.
constexpr double SAME_SIGHT = 0.0001;

} // namespace

void tzFrameDispatcher::dispatch(const QString &frame)
{
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
        m_frame->captureFrom(m_app->databaseRoot());
        if (type == QLatin1String("CVisee"))
            createOrUpdateSight(object);
        else if (type == QLatin1String("XSymbole"))
            replaceComposite(std::make_unique<tzXSymbole>(), object, "pas de Symbole a delete");
        else if (type == QLatin1String("XAlignement"))
            replaceComposite(std::make_unique<tzXAlignement>(), object,
                             "pas d Alignement a delete");
    }
}

bool tzFrameDispatcher::deleteByIdent(int ident)
{
    tzHObject *root = m_app ? m_app->databaseRoot() : nullptr;
    // The first object two levels below the root whose "ident" metadata is ident.
    tzHObject *found = root ? m_index.levelTwo(root, ident) : nullptr;
    if (!found)
        return false;
    m_index.objectRemoving(found, ident);
    m_app->removeFromDatabase(found, true);
    m_index.stamp();
    return true;
}

void tzFrameDispatcher::setReferencePoint(const QString &type, int fromVisee)
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
    if (m_referencePoint)
        m_referencePoint(point);
}

void tzFrameDispatcher::refreshViews()
{
    m_app->refreshAllViews();
    if (tzGLWindow *view = m_app->activeView())
        view->redraw();
}

void tzFrameDispatcher::createOrUpdateSight(const QJsonObject &frame)
{
    auto sight = std::make_unique<tzCVisee>(QStringLiteral("Visee"));
    sight->setFrame(m_frame);
    tzHObject *group = sight->getOrCreateGroup(m_app);
    if (!group || !sight->readJson(frame))
        return;
    // The same ident among the group's children, else a sight of the group at the same place.
    tzXentity *existing = m_index.sameIdent(group, sight->ident());
    if (!existing)
        existing = m_index.samePlace(group, sight->coordinates(), SAME_SIGHT);
    if (existing) {
        auto *existingSight = dynamic_cast<tzCVisee *>(existing);
        const int identBefore = existing->ident();
        const TZVector3d placeBefore = existingSight ? existingSight->coordinates() : TZVector3d();
        existing->readJson(frame);
        if (existingSight && existing->ident() == identBefore)
            m_index.sightMoved(existingSight, placeBefore);
        else
            m_index.invalidate();
        refreshViews();
        return;
    }
    tzCVisee *added = sight.release();
    group->addChild(added, DP_PARENT_OF_OTHER, -1);
    m_app->addToDatabase(added, false, true, false, true);
    m_index.sightAdded(group, added);
    m_index.objectAdded(m_app->databaseRoot(), added, added->ident());
    m_index.stamp();
    refreshViews();
}

void tzFrameDispatcher::replaceComposite(std::unique_ptr<tzXComposite> composite,
                                         const QJsonObject &frame, const char *nothingDeleted)
{
    // The group named by the frame's type, found or made before the frame is read (the read
    // appends the type to the composite's own, which starts empty).
    composite->setType(frame.value(QLatin1String("type")).toString());
    tzHObject *group = composite->getOrCreateGroup(m_app);
    composite->setType(QString());
    if (!group || !composite->readJson(frame))
        return;
    composite->convertToView(*m_frame);
    if (!deleteByIdent(composite->ident()))
        qDebug("%s", nothingDeleted);
    // The group may have gone with the deleted object (an object of that ident holding it).
    group = composite->getOrCreateGroup(m_app);
    tzXComposite *added = composite.release();
    group->addChild(added, DP_PARENT_OF_OTHER, -1);
    m_app->addToDatabase(added, false, true, false, true);
    m_index.objectAdded(m_app->databaseRoot(), added, added->ident());
    m_index.stamp();
    refreshViews();
}
