#pragma once

#include "TZVector3.h"

#include <QHash>
#include <QVector>

class tzCVisee;
class tzHObject;
class tzXentity;

//! What the inbound frames look up at every frame, kept between frames so that a frame costs
//! the same in a group of ten sights or of ten thousand: the entity of an ident among a group's
//! children, the sight within 0.0001 of a point among the group's sights (the first in the
//! group's depth-first order, as a walk would find it), and the first object of an ident two
//! levels below the scene root.
//!
//! The answers are those of the plain walks. The index is built by one walk when first asked
//! and again whenever anything else changed the scene's structure (tzHObject's structure
//! generation moved); the dispatcher reports its own changes and stamps them.
class tzSceneIndex
{
public:
    //! The first direct child of group that is an entity with ident.
    tzXentity *sameIdent(tzHObject *group, int ident);
    //! The first sight under group (depth first) whose coordinates each differ from p by less
    //! than tolerance.
    tzCVisee *samePlace(tzHObject *group, const TZVector3d &p, double tolerance);
    //! The first object two levels below root whose "ident" metadata is ident.
    tzHObject *levelTwo(tzHObject *root, int ident);

    //! A sight appended as the last child of group.
    void sightAdded(tzHObject *group, tzCVisee *sight);
    //! A sight kept its ident but moved from the given coordinates.
    void sightMoved(tzCVisee *sight, const TZVector3d &from);
    //! An object appended as the last child of a group (findable two levels down if that group
    //! is a child of root).
    void objectAdded(tzHObject *root, tzHObject *object, int ident);
    //! About to remove object (found two levels below root with ident).
    void objectRemoving(tzHObject *object, int ident);
    //! Anything else: everything is walked again at the next question.
    void invalidate();
    //! The scene as it is now is the one the index describes (after the dispatcher's changes).
    void stamp();

private:
    struct Cell
    {
        qint64 x, y, z;
        bool operator==(const Cell &o) const { return x == o.x && y == o.y && z == o.z; }
    };
    friend uint qHash(const Cell &c, uint seed)
    {
        return qHash(c.x ^ (c.y * 31) ^ (c.z * 131), seed);
    }
    struct Placed
    {
        quint64 order;
        tzCVisee *sight;
    };
    static Cell cellOf(const TZVector3d &p);
    bool current() const;
    void buildGroup(tzHObject *group);
    void buildLevelTwo(tzHObject *root);
    void place(tzCVisee *sight, quint64 order);
    void unplace(tzCVisee *sight, const TZVector3d &at);

    quint64 m_generation = ~quint64(0);
    // Sights of one group.
    tzHObject *m_group = nullptr;
    bool m_groupValid = false;
    QHash<int, tzXentity *> m_firstByIdent;
    QHash<Cell, QVector<Placed>> m_cells;
    quint64 m_nextOrder = 0;
    // Two levels below the root.
    tzHObject *m_root = nullptr;
    bool m_levelTwoValid = false;
    QHash<int, tzHObject *> m_levelTwo;
    QHash<int, int> m_levelTwoCount;
};
