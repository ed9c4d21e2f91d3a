#pragma once

#include "qtz_db_global.h"
#include "tzDrawableObject.h"
#include "tzObject.h"

#include <QHash>
#include <QIODevice>

#include <functional>
#include <map>
#include <vector>

//! A node of the scene graph: children, dependencies between objects, drawing and scene files.
//!
//! Ownership and lifetime go through dependency flags (tzTypes.h). addChild(child, 24) makes this
//! object the child's parent and owner. An object that is deleted notifies every object it holds
//! with DP_NOTIFY_OTHER_ON_DELETE (onDeletionOf), deletes every one it holds with DP_DELETE_OTHER,
//! and is forgotten by every object that held it.
class QTZ_DB_LIB_API tzHObject : public tzObject, public tzDrawableObject
{
public:
    using Container = std::vector<tzHObject *>;
    //! Old unique ID (as stored in a file) -> object made from it, while loading a scene.
    using LoadedIDMap = QHash<unsigned, tzHObject *>;

    explicit tzHObject(const QString &name = QString());
    ~tzHObject() override;

    quint32 getClassID() const override { return TZ_TYPES::HIERARCHY_OBJECT; }

    tzHObject *getParent() const { return m_parent; }
    unsigned getChildrenNumber() const { return unsigned(m_children.size()); }
    tzHObject *getChild(unsigned index) const
    {
        return index < m_children.size() ? m_children[index] : nullptr;
    }
    int getChildIndex(const tzHObject *child) const;
    //! Adds a child at insertIndex (-1: at the end); the flags are this object's dependency on it.
    //! False (and nothing changed) for a null child, this object itself, or a child that already
    //! has another parent while the flags make this its parent.
    bool addChild(tzHObject *child, int dependencyFlags = DP_PARENT_OF_OTHER, int insertIndex = -1);
    //! Takes the child out of this object and deletes it when this object owns it.
    void removeChild(tzHObject *child);
    void removeChild(int index);
    //! Takes the child out of this object without deleting it.
    void detachChild(tzHObject *child);
    void detachAllChildren();
    //! A number that changes whenever any object of the process gains or loses a child or is
    //! deleted: code that keeps pointers into the scene between events checks it to know
    //! that they still hold.
    static quint64 StructureGeneration();
    //! Whether other is this object or one of its descendants.
    bool isAncestorOf(const tzHObject *other) const;

    //! The object with this unique ID among this object and its descendants, or null.
    tzHObject *find(unsigned uniqueID);
    //! Appends the children of the given type (exact class ID when strict, else kind-of), depth
    //! first, in child order; returns how many were appended.
    unsigned filterChildren(Container &filtered, bool recursive = false,
                            quint32 filter = TZ_TYPES::OBJECT, bool strict = false) const;

    //! Records what this object does with other: the flags are or-ed with the present ones when
    //! additive, else they replace them. other learns that it is referenced.
    void addDependency(tzHObject *other, int flags, bool additive = true);
    int getDependencyFlagsWith(const tzHObject *other) const;
    void removeDependencyWith(tzHObject *other);
    void removeDependencyFlag(tzHObject *other, int flags);
    //! Told by an object that is being deleted and that this object depended on. The base drops
    //! every link with it (and the child entry if it was a child). Runs inside the deleted
    //! object's destructor: use only its address and its tzHObject part.
    virtual void onDeletionOf(const tzHObject *object);

    //! Draws this object (drawMeOnly) when enabled and visible, then its children.
    void draw(tzDrawContext &context) override;
    void prepareDisplayForRefresh_recursive();
    void setDisplay_recursive(tzGenericGLDisplay *display);

    //! Writes the object and its children: class ID, factory name for custom objects, own
    //! record, then the children it owns.
    bool toFile(QIODevice &out) const;
    //! Reads what toFile wrote, after the class ID and factory name (read by the loader).
    bool fromFile(QIODevice &in, short dataVersion, LoadedIDMap &oldToNew);
    //! Relinks references stored as old unique IDs once the whole scene is read.
    virtual bool resolveLoadedReferences(const LoadedIDMap &) { return true; }

    //! Whether scene files keep this object (and what it owns).
    bool isSavedInScene() const { return isSerializable(); }
    //! Name of the factory that rebuilds this object from a scene file; empty for built-in types.
    virtual QString getFactoryName() const { return QString(); }
    //! The class a scene file records (the class ID unless the object is kept differently).
    virtual quint32 getSerializedClassID() const { return getClassID(); }
    using Factory = std::function<tzHObject *()>;
    //! Registers how to make objects of a class ID (built-in types) or a factory name (custom).
    static void RegisterFactory(quint32 classID, Factory factory);
    static void RegisterFactory(const QString &name, Factory factory);
    static tzHObject *New(quint32 classID, const QString &factoryName);

protected:
    //! Draws this object alone.
    virtual void drawMeOnly(tzDrawContext &) { }
    virtual bool toFile_MeOnly(QIODevice &out) const;
    virtual bool fromFile_MeOnly(QIODevice &in, short dataVersion, LoadedIDMap &oldToNew);
    //! Whether children are written to scene files (helper objects such as vertex clouds may
    //! be kept out).
    virtual bool isSerializable() const { return true; }

    tzHObject *m_parent = nullptr;
    Container m_children;
    std::map<tzHObject *, int> m_dependencies;
    bool m_isDeleting = false;
};
