#pragma once

#include "tzHObject.h"

#include <QElapsedTimer>
#include <QHash>
#include <QSet>
#include <QTreeWidget>

class QTimer;

//! The database tree: every object of the scene with its name and a visibility check box.
//! Items keep unique IDs, never pointers, so that an object deleted behind the tree's back is
//! merely not found.
class tzDBTree : public QTreeWidget
{
    Q_OBJECT

public:
    explicit tzDBTree(tzHObject *root, QWidget *parent = nullptr);

    //! Rebuilds the items from the scene, keeping expansion and selection.
    void rebuild();
    //! Rebuilds soon: at the next turn of the event loop, or, right after a rebuild, a moment
    //! later (many requests make one rebuild, and a stream of additions to a large scene
    //! does not rebuild the tree at every turn).
    void scheduleRebuild();
    //! An object was added to the scene: its items join the tree within a moment (a stream of
    //! additions repaints the tree a few times a second, not at each one), or the tree is
    //! rebuilt soon when its parent has no item. expand: open the branches down to it.
    void objectAdded(tzHObject *object, bool expand);
    //! Names and check boxes follow the objects soon (a tree whose objects changed meanwhile is
    //! rebuilt), at most one refresh in each rebuild spacing.
    void scheduleRefresh();
    //! The selected objects, in tree order.
    tzHObject::Container selectedObjects() const;
    //! Selects exactly this object (null: clears the selection).
    void selectObject(tzHObject *object);
    //! The item of an object (a pending rebuild is done first), or null.
    QTreeWidgetItem *itemOf(const tzHObject *object);
    //! Opens the branches down to an object, now or after the pending rebuild.
    void expandTo(const tzHObject *object);

signals:
    void objectSelectionChanged();
    void visibilityChanged(tzHObject *object);
    //! A context menu was asked for on an object's item (global position).
    void contextMenuAsked(tzHObject *object, const QPoint &globalPos);

private:
    QTreeWidgetItem *addItem(tzHObject *object, QTreeWidgetItem *parentItem);
    void addItems(tzHObject *object, QTreeWidgetItem *parentItem);
    void refresh();
    //! Gives their items to the objects added since the last time.
    void addPending();
    tzHObject *objectOf(const QTreeWidgetItem *item) const;

    tzHObject *m_root;
    bool m_rebuilding = false;
    bool m_rebuildScheduled = false;
    QSet<unsigned> m_toExpand; // unique IDs, expanded at the next rebuild
    QTimer *m_rebuildTimer;
    QTimer *m_refreshTimer;
    QTimer *m_addTimer;
    QSet<unsigned> m_pendingAdds; // unique IDs of objects added since the last addPending()
    QHash<unsigned, QTreeWidgetItem *> m_items; // unique ID -> item, as the last rebuild made them
    QElapsedTimer m_sinceRebuild;
};
