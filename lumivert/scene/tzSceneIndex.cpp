#include "tzSceneIndex.h"

#include "tzCVisee.h"
#include "tzHObject.h"

#include <cmath>

namespace {

// Cells twice the tolerance wide: two points within the tolerance lie in the same or
// neighbouring cells whatever the rounding of the division.
constexpr double CELL = 0.0002;
constexpr double LIMIT = 9.0e18;

qint64 cellIndex(double v)
{
    const double c = std::floor(v / CELL);
    if (!(c > -LIMIT)) // NaN included
        return qint64(-LIMIT);
    return c < LIMIT ? qint64(c) : qint64(LIMIT);
}

void collectSights(tzHObject *object, QVector<tzCVisee *> &sights)
{
    for (unsigned i = 0; i < object->getChildrenNumber(); ++i) {
        tzHObject *child = object->getChild(i);
        if (child->isKindOf(TZ_TYPES::LABEL_KIND)) {
            if (auto *sight = dynamic_cast<tzCVisee *>(child))
                sights.append(sight);
        }
        collectSights(child, sights);
    }
}

} // namespace

tzSceneIndex::Cell tzSceneIndex::cellOf(const TZVector3d &p)
{
    return {cellIndex(p.x), cellIndex(p.y), cellIndex(p.z)};
}

bool tzSceneIndex::current() const
{
    return m_generation == tzHObject::StructureGeneration();
}

void tzSceneIndex::invalidate()
{
    m_groupValid = false;
    m_levelTwoValid = false;
}

void tzSceneIndex::stamp()
{
    m_generation = tzHObject::StructureGeneration();
}

void tzSceneIndex::buildGroup(tzHObject *group)
{
    if (!current())
        m_levelTwoValid = false;
    m_group = group;
    m_firstByIdent.clear();
    m_cells.clear();
    m_nextOrder = 0;
    // insert() replaces: walk backwards so that the first child wins.
    for (unsigned i = group->getChildrenNumber(); i-- > 0;) {
        if (tzXentity *entity = tzXentity::fromNode(group->getChild(i)))
            m_firstByIdent.insert(entity->ident(), entity);
    }
    QVector<tzCVisee *> sights;
    collectSights(group, sights);
    for (tzCVisee *sight : qAsConst(sights))
        place(sight, m_nextOrder++);
    m_groupValid = true;
    stamp();
}

void tzSceneIndex::buildLevelTwo(tzHObject *root)
{
    if (!current())
        m_groupValid = false;
    m_root = root;
    m_levelTwo.clear();
    m_levelTwoCount.clear();
    const QString key = QStringLiteral("ident");
    for (unsigned i = 0; i < root->getChildrenNumber(); ++i) {
        const tzHObject *child = root->getChild(i);
        for (unsigned j = 0; j < child->getChildrenNumber(); ++j) {
            tzHObject *object = child->getChild(j);
            const QVariant value = object->getMetaData(key);
            if (!value.isValid())
                continue;
            const int ident = value.toInt();
            if (++m_levelTwoCount[ident] == 1)
                m_levelTwo.insert(ident, object);
        }
    }
    m_levelTwoValid = true;
    stamp();
}

tzXentity *tzSceneIndex::sameIdent(tzHObject *group, int ident)
{
    if (!group)
        return nullptr;
    if (!m_groupValid || m_group != group || !current())
        buildGroup(group);
    return m_firstByIdent.value(ident, nullptr);
}

tzCVisee *tzSceneIndex::samePlace(tzHObject *group, const TZVector3d &p, double tolerance)
{
    if (!group)
        return nullptr;
    if (!m_groupValid || m_group != group || !current())
        buildGroup(group);
    const Cell c = cellOf(p);
    const Placed *best = nullptr;
    for (qint64 dx = -1; dx <= 1; ++dx) {
        for (qint64 dy = -1; dy <= 1; ++dy) {
            for (qint64 dz = -1; dz <= 1; ++dz) {
                const auto it = m_cells.constFind(Cell {c.x + dx, c.y + dy, c.z + dz});
                if (it == m_cells.constEnd())
                    continue;
                for (const Placed &placed : *it) {
                    const TZVector3d q = placed.sight->coordinates();
                    if (std::abs(q.x - p.x) < tolerance && std::abs(q.y - p.y) < tolerance
                        && std::abs(q.z - p.z) < tolerance && (!best || placed.order < best->order))
                        best = &placed;
                }
            }
        }
    }
    return best ? best->sight : nullptr;
}

tzHObject *tzSceneIndex::levelTwo(tzHObject *root, int ident)
{
    if (!root)
        return nullptr;
    if (!m_levelTwoValid || m_root != root || !current())
        buildLevelTwo(root);
    return m_levelTwo.value(ident, nullptr);
}

void tzSceneIndex::place(tzCVisee *sight, quint64 order)
{
    m_cells[cellOf(sight->coordinates())].append(Placed {order, sight});
}

void tzSceneIndex::unplace(tzCVisee *sight, const TZVector3d &at)
{
    const auto it = m_cells.find(cellOf(at));
    if (it == m_cells.end())
        return;
    for (int i = 0; i < it->size(); ++i) {
        if (it->at(i).sight == sight) {
            const quint64 order = it->at(i).order;
            it->remove(i);
            if (it->isEmpty())
                m_cells.erase(it);
            place(sight, order);
            return;
        }
    }
}

void tzSceneIndex::sightAdded(tzHObject *group, tzCVisee *sight)
{
    if (!m_groupValid || m_group != group)
        return;
    if (!m_firstByIdent.contains(sight->ident()))
        m_firstByIdent.insert(sight->ident(), sight);
    place(sight, m_nextOrder++);
}

void tzSceneIndex::sightMoved(tzCVisee *sight, const TZVector3d &from)
{
    if (m_groupValid)
        unplace(sight, from); // re-placed at its new coordinates with the same order
}

void tzSceneIndex::objectAdded(tzHObject *root, tzHObject *object, int ident)
{
    if (!m_levelTwoValid || m_root != root)
        return;
    const tzHObject *parent = object->getParent();
    if (!parent || parent->getParent() != root)
        return;
    // Last in its group, but a later group may hold the same ident: let a walk decide.
    if (m_levelTwoCount.value(ident) > 0) {
        m_levelTwoValid = false;
        return;
    }
    m_levelTwo.insert(ident, object);
    m_levelTwoCount.insert(ident, 1);
}

void tzSceneIndex::objectRemoving(tzHObject *object, int ident)
{
    if (m_groupValid && m_group && (m_group->isAncestorOf(object) || object->isAncestorOf(m_group)))
        m_groupValid = false;
    if (!m_levelTwoValid)
        return;
    if (object->getChildrenNumber() > 0 || --m_levelTwoCount[ident] > 0) {
        m_levelTwoValid = false;
        return;
    }
    m_levelTwoCount.remove(ident);
    m_levelTwo.remove(ident);
}
