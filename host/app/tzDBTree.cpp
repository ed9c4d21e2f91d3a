#include "tzDBTree.h"

#include <QHeaderView>
#include <QSet>
#include <QTimer>

#include <algorithm>
#include <functional>

namespace {
constexpr int ID_ROLE = Qt::UserRole + 1;
// Rebuilds follow each other at least this far apart (milliseconds).
constexpr int REBUILD_SPACING = 300;
// Added objects wait at most this long for their items (milliseconds).
constexpr int ADD_DELAY = 200;
} // namespace

tzDBTree::tzDBTree(tzHObject *root, QWidget *parent)
    : QTreeWidget(parent)
    , m_root(root)
{
    setObjectName(QStringLiteral("dbTree"));
    setHeaderHidden(true);
    setSelectionMode(QAbstractItemView::ExtendedSelection);
    // Rows of one height: the view does not measure each of thousands of items.
    setUniformRowHeights(true);
    m_rebuildTimer = new QTimer(this);
    m_rebuildTimer->setSingleShot(true);
    connect(m_rebuildTimer, &QTimer::timeout, this, &tzDBTree::rebuild);
    m_refreshTimer = new QTimer(this);
    m_refreshTimer->setSingleShot(true);
    connect(m_refreshTimer, &QTimer::timeout, this, &tzDBTree::refresh);
    m_addTimer = new QTimer(this);
    m_addTimer->setSingleShot(true);
    m_addTimer->setInterval(ADD_DELAY);
    connect(m_addTimer, &QTimer::timeout, this, &tzDBTree::addPending);
    connect(this, &QTreeWidget::itemSelectionChanged, this, [this] {
        if (!m_rebuilding)
            emit objectSelectionChanged();
    });
    connect(this, &QTreeWidget::itemChanged, this, [this](QTreeWidgetItem *item, int) {
        if (m_rebuilding)
            return;
        if (tzHObject *object = objectOf(item)) {
            const bool visible = item->checkState(0) == Qt::Checked;
            if (object->isVisible() != visible) {
                object->setVisible(visible);
                emit visibilityChanged(object);
            }
        }
    });
    setContextMenuPolicy(Qt::CustomContextMenu);
    connect(this, &QWidget::customContextMenuRequested, this, [this](const QPoint &pos) {
        if (tzHObject *object = objectOf(itemAt(pos)))
            emit contextMenuAsked(object, viewport()->mapToGlobal(pos));
    });
    rebuild();
}

tzHObject *tzDBTree::objectOf(const QTreeWidgetItem *item) const
{
    return item && m_root ? m_root->find(item->data(0, ID_ROLE).toUInt()) : nullptr;
}

namespace {

QString displayName(const tzHObject *object)
{
    return object->getName().isEmpty() ? QStringLiteral("(no name)") : object->getName();
}

} // namespace

QTreeWidgetItem *tzDBTree::addItem(tzHObject *object, QTreeWidgetItem *parentItem)
{
    auto *item = new QTreeWidgetItem(parentItem);
    item->setText(0, displayName(object));
    item->setData(0, ID_ROLE, object->getUniqueID());
    item->setFlags(Qt::ItemIsEnabled | Qt::ItemIsSelectable | Qt::ItemIsUserCheckable);
    item->setCheckState(0, object->isVisible() ? Qt::Checked : Qt::Unchecked);
    m_items.insert(object->getUniqueID(), item);
    addItems(object, item);
    return item;
}

void tzDBTree::addItems(tzHObject *object, QTreeWidgetItem *parentItem)
{
    for (unsigned i = 0; i < object->getChildrenNumber(); ++i) {
        if (tzHObject *child = object->getChild(i))
            addItem(child, parentItem);
    }
}

void tzDBTree::objectAdded(tzHObject *object, bool expand)
{
    if (!object)
        return;
    if (expand)
        m_toExpand.insert(object->getUniqueID());
    if (m_rebuildScheduled)
        return;
    const bool parentKnown = object->getParent()
        && (m_items.contains(object->getParent()->getUniqueID())
            || m_pendingAdds.contains(object->getParent()->getUniqueID()));
    if (!parentKnown || m_items.contains(object->getUniqueID())) {
        scheduleRebuild();
        return;
    }
    m_pendingAdds.insert(object->getUniqueID());
    if (!m_addTimer->isActive())
        m_addTimer->start();
}

void tzDBTree::addPending()
{
    m_addTimer->stop();
    if (m_pendingAdds.isEmpty() || !m_root)
        return;
    // One walk of the scene, parents before children and siblings in order: each object's
    // item goes where the object stands among its siblings. Objects gone meanwhile are not
    // met; an added group brings the items of its children.
    bool lost = false;
    m_rebuilding = true;
    const std::function<void(tzHObject *, QTreeWidgetItem *)> walk
        = [&](tzHObject *parent, QTreeWidgetItem *parentItem) {
              for (unsigned i = 0; i < parent->getChildrenNumber() && !lost; ++i) {
                  tzHObject *child = parent->getChild(i);
                  if (!child)
                      continue;
                  QTreeWidgetItem *item = m_items.value(child->getUniqueID());
                  if (!item && m_pendingAdds.contains(child->getUniqueID())) {
                      if (!parentItem) {
                          lost = true;
                          return;
                      }
                      item = addItem(child, nullptr);
                      if (int(i) < parentItem->childCount())
                          parentItem->insertChild(int(i), item);
                      else
                          parentItem->addChild(item);
                  }
                  if (child->getChildrenNumber() > 0)
                      walk(child, item);
              }
          };
    walk(m_root, m_items.value(m_root->getUniqueID()));
    m_pendingAdds.clear();
    if (!lost) {
        for (const unsigned id : qAsConst(m_toExpand)) {
            QTreeWidgetItem *item = m_items.value(id);
            for (QTreeWidgetItem *up = item ? item->parent() : nullptr; up; up = up->parent())
                up->setExpanded(true);
        }
        m_toExpand.clear();
    }
    m_rebuilding = false;
    if (lost)
        scheduleRebuild();
}

void tzDBTree::scheduleRefresh()
{
    if (m_rebuildScheduled || m_refreshTimer->isActive())
        return;
    const qint64 since = m_sinceRebuild.isValid() ? m_sinceRebuild.elapsed() : REBUILD_SPACING;
    m_refreshTimer->start(int(std::max<qint64>(0, REBUILD_SPACING - since)));
}

void tzDBTree::refresh()
{
    if (m_rebuildScheduled || !m_root)
        return;
    addPending();
    if (m_rebuildScheduled)
        return;
    // Names and check boxes follow the objects; a tree whose objects changed is rebuilt.
    tzHObject::Container objects;
    m_root->filterChildren(objects, true);
    if (int(objects.size()) + 1 != m_items.size()) { // the root has an item too
        rebuild();
        return;
    }
    m_rebuilding = true;
    bool stale = false;
    for (const tzHObject *object : objects) {
        QTreeWidgetItem *item = m_items.value(object->getUniqueID());
        if (!item) {
            stale = true;
            break;
        }
        const QString name = displayName(object);
        if (item->text(0) != name)
            item->setText(0, name);
        const Qt::CheckState state = object->isVisible() ? Qt::Checked : Qt::Unchecked;
        if (item->checkState(0) != state)
            item->setCheckState(0, state);
    }
    m_rebuilding = false;
    m_sinceRebuild.start();
    if (stale)
        rebuild();
}

void tzDBTree::rebuild()
{
    m_rebuildTimer->stop();
    m_addTimer->stop();
    m_pendingAdds.clear(); // the rebuild makes their items
    m_rebuildScheduled = false;
    m_rebuilding = true;
    QSet<unsigned> expanded, selected;
    for (QTreeWidgetItemIterator it(this); *it; ++it) {
        const unsigned id = (*it)->data(0, ID_ROLE).toUInt();
        if ((*it)->isExpanded())
            expanded.insert(id);
        if ((*it)->isSelected())
            selected.insert(id);
    }
    const QSet<unsigned> selectedBefore = selected;
    clear();
    m_items.clear();
    if (m_root) {
        auto *top = new QTreeWidgetItem(this);
        top->setText(0, m_root->getName());
        top->setData(0, ID_ROLE, m_root->getUniqueID());
        top->setFlags(Qt::ItemIsEnabled);
        m_items.insert(m_root->getUniqueID(), top);
        addItems(m_root, top);
        top->setExpanded(true);
    }
    QSet<unsigned> selectedAfter;
    for (QTreeWidgetItemIterator it(this); *it; ++it) {
        const unsigned id = (*it)->data(0, ID_ROLE).toUInt();
        if (expanded.contains(id))
            (*it)->setExpanded(true);
        if (m_toExpand.contains(id)) {
            for (QTreeWidgetItem *item = *it; item; item = item->parent())
                item->setExpanded(true);
        }
        if (selected.contains(id)) {
            (*it)->setSelected(true);
            selectedAfter.insert(id);
        }
    }
    m_toExpand.clear();
    m_rebuilding = false;
    m_sinceRebuild.start();
    // An object that left the scene also leaves the selection.
    if (selectedAfter != selectedBefore)
        emit objectSelectionChanged();
}

void tzDBTree::scheduleRebuild()
{
    if (m_rebuildScheduled)
        return;
    m_rebuildScheduled = true;
    const qint64 since = m_sinceRebuild.isValid() ? m_sinceRebuild.elapsed() : REBUILD_SPACING;
    m_rebuildTimer->start(int(std::max<qint64>(0, REBUILD_SPACING - since)));
}

tzHObject::Container tzDBTree::selectedObjects() const
{
    tzHObject::Container objects;
    for (QTreeWidgetItemIterator it(const_cast<tzDBTree *>(this),
                                    QTreeWidgetItemIterator::Selected);
         *it; ++it) {
        if (tzHObject *object = objectOf(*it))
            objects.push_back(object);
    }
    return objects;
}

QTreeWidgetItem *tzDBTree::itemOf(const tzHObject *object)
{
    if (!object)
        return nullptr;
    if (m_rebuildScheduled)
        rebuild();
    else
        addPending();
    return m_items.value(object->getUniqueID());
}

void tzDBTree::expandTo(const tzHObject *object)
{
    if (!object)
        return;
    if (m_rebuildScheduled || m_pendingAdds.contains(object->getUniqueID())) {
        m_toExpand.insert(object->getUniqueID());
        return;
    }
    for (QTreeWidgetItem *item = itemOf(object); item; item = item->parent())
        item->setExpanded(true);
}

void tzDBTree::selectObject(tzHObject *object)
{
    QTreeWidgetItem *item = itemOf(object);
    m_rebuilding = true;
    clearSelection();
    if (item) {
        item->setSelected(true);
        expandTo(object);
        scrollToItem(item);
    }
    m_rebuilding = false;
    emit objectSelectionChanged();
}
