#include "tzDBTree.h"

#include <QHeaderView>
#include <QSet>
#include <QTimer>

#include <algorithm>

namespace {
constexpr int ID_ROLE = Qt::UserRole + 1;
// Rebuilds follow each other at least this far apart (milliseconds).
constexpr int REBUILD_SPACING = 300;
}

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
    rebuild();
}

tzHObject *tzDBTree::objectOf(const QTreeWidgetItem *item) const
{
    return item && m_root ? m_root->find(item->data(0, ID_ROLE).toUInt()) : nullptr;
}

void tzDBTree::addItems(tzHObject *object, QTreeWidgetItem *parentItem)
{
    for (unsigned i = 0; i < object->getChildrenNumber(); ++i) {
        tzHObject *child = object->getChild(i);
        if (!child)
            continue;
        auto *item = new QTreeWidgetItem(parentItem);
        item->setText(0,
                      child->getName().isEmpty() ? QStringLiteral("(no name)") : child->getName());
        item->setData(0, ID_ROLE, child->getUniqueID());
        item->setFlags(Qt::ItemIsEnabled | Qt::ItemIsSelectable | Qt::ItemIsUserCheckable);
        item->setCheckState(0, child->isVisible() ? Qt::Checked : Qt::Unchecked);
        addItems(child, item);
    }
}

void tzDBTree::rebuild()
{
    m_rebuildTimer->stop();
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
    if (m_root) {
        auto *top = new QTreeWidgetItem(this);
        top->setText(0, m_root->getName());
        top->setData(0, ID_ROLE, m_root->getUniqueID());
        top->setFlags(Qt::ItemIsEnabled);
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
    for (QTreeWidgetItemIterator it(this); *it; ++it) {
        if ((*it)->data(0, ID_ROLE).toUInt() == object->getUniqueID())
            return *it;
    }
    return nullptr;
}

void tzDBTree::expandTo(const tzHObject *object)
{
    if (!object)
        return;
    if (m_rebuildScheduled) {
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
