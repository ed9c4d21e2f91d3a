#include "tzHObject.h"

#include "tzDrawContext.h"
#include "tzLog.h"
#include "tzSerialization.h"

#include <QMap>

#include <algorithm>
#include <atomic>

using namespace tzSerialization;

namespace {
// The parent bit of DP_PARENT_OF_OTHER (24 = parent 16 | delete 8).
constexpr int PARENT_BIT = 16;

QHash<quint32, tzHObject::Factory> &builtInFactories()
{
    static QHash<quint32, tzHObject::Factory> f;
    return f;
}
QHash<QString, tzHObject::Factory> &customFactories()
{
    static QHash<QString, tzHObject::Factory> f;
    return f;
}
} // namespace

tzHObject::tzHObject(const QString &name)
    : tzObject(name)
{
}

namespace {
std::atomic<quint64> s_structureGeneration {0};
}

quint64 tzHObject::StructureGeneration()
{
    return s_structureGeneration.load(std::memory_order_relaxed);
}

tzHObject::~tzHObject()
{
    // An object that was never part of a tree changes no structure when it goes.
    if (m_parent || !m_children.empty())
        s_structureGeneration.fetch_add(1, std::memory_order_relaxed);
    m_isDeleting = true;

    // Owned children go first, in child order, so that deletion is deterministic.
    std::vector<tzHObject *> toDelete;
    for (tzHObject *child : Container(m_children)) {
        const int flags = getDependencyFlagsWith(child);
        m_dependencies.erase(child);
        child->m_dependencies.erase(this);
        if (child->m_parent == this)
            child->m_parent = nullptr;
        if (flags & DP_NOTIFY_OTHER_ON_DELETE)
            child->onDeletionOf(this);
        if (flags & DP_DELETE_OTHER)
            toDelete.push_back(child);
    }
    m_children.clear();

    // Then every other link, the parent's included (the child keeps a notifying link to it).
    while (!m_dependencies.empty()) {
        const auto it = m_dependencies.begin();
        tzHObject *other = it->first;
        const int flags = it->second;
        m_dependencies.erase(it);
        other->m_dependencies.erase(this);
        if (flags & DP_NOTIFY_OTHER_ON_DELETE)
            other->onDeletionOf(this);
        if ((flags & DP_DELETE_OTHER)
            && std::find(toDelete.begin(), toDelete.end(), other) == toDelete.end())
            toDelete.push_back(other);
    }
    if (m_parent)
        m_parent->onDeletionOf(this);

    for (tzHObject *object : toDelete)
        delete object;
}

int tzHObject::getChildIndex(const tzHObject *child) const
{
    const auto it = std::find(m_children.begin(), m_children.end(), child);
    return it == m_children.end() ? -1 : int(it - m_children.begin());
}

bool tzHObject::isAncestorOf(const tzHObject *other) const
{
    for (const tzHObject *o = other; o; o = o->m_parent) {
        if (o == this)
            return true;
    }
    return false;
}

bool tzHObject::addChild(tzHObject *child, int dependencyFlags, int insertIndex)
{
    if (!child || child->isAncestorOf(this) || getChildIndex(child) >= 0)
        return false;
    const bool parenting = dependencyFlags & PARENT_BIT;
    if (parenting && child->m_parent && child->m_parent != this) {
        tzLog::Warning(QStringLiteral("[tzHObject::addChild] Object '%1' already has a parent")
                           .arg(child->getName()));
        return false;
    }
    s_structureGeneration.fetch_add(1, std::memory_order_relaxed);
    if (insertIndex < 0 || insertIndex >= int(m_children.size()))
        m_children.push_back(child);
    else
        m_children.insert(m_children.begin() + insertIndex, child);
    addDependency(child, dependencyFlags, true);
    if (parenting) {
        child->m_parent = this;
        // So that a child deleted on its own leaves its parent's list.
        child->addDependency(this, DP_NOTIFY_OTHER_ON_DELETE, true);
    }
    return true;
}

void tzHObject::detachChild(tzHObject *child)
{
    const int index = getChildIndex(child);
    if (index < 0)
        return;
    s_structureGeneration.fetch_add(1, std::memory_order_relaxed);
    m_children.erase(m_children.begin() + index);
    if (child->m_parent == this)
        child->m_parent = nullptr;
    removeDependencyWith(child);
    child->removeDependencyWith(this);
}

void tzHObject::detachAllChildren()
{
    while (!m_children.empty())
        detachChild(m_children.back());
}

void tzHObject::removeChild(tzHObject *child)
{
    if (getChildIndex(child) < 0)
        return;
    const int flags = getDependencyFlagsWith(child);
    detachChild(child);
    if (flags & DP_DELETE_OTHER)
        delete child;
}

void tzHObject::removeChild(int index)
{
    if (index >= 0 && index < int(m_children.size()))
        removeChild(m_children[size_t(index)]);
}

tzHObject *tzHObject::find(unsigned uniqueID)
{
    if (getUniqueID() == uniqueID)
        return this;
    for (tzHObject *child : m_children) {
        if (tzHObject *found = child->find(uniqueID))
            return found;
    }
    return nullptr;
}

unsigned tzHObject::filterChildren(Container &filtered, bool recursive, quint32 filter,
                                   bool strict) const
{
    unsigned count = 0;
    for (tzHObject *child : m_children) {
        if (strict ? child->isA(filter) : child->isKindOf(filter)) {
            filtered.push_back(child);
            ++count;
        }
        if (recursive)
            count += child->filterChildren(filtered, true, filter, strict);
    }
    return count;
}

void tzHObject::addDependency(tzHObject *other, int flags, bool additive)
{
    if (!other || other == this)
        return;
    int &mine = m_dependencies[other];
    mine = additive ? (mine | flags) : flags;
    // other keeps a bare link back, so that it can tell this object when it goes.
    other->m_dependencies.emplace(this, DP_NONE);
}

int tzHObject::getDependencyFlagsWith(const tzHObject *other) const
{
    const auto it = m_dependencies.find(const_cast<tzHObject *>(other));
    return it == m_dependencies.end() ? DP_NONE : it->second;
}

void tzHObject::removeDependencyWith(tzHObject *other)
{
    m_dependencies.erase(other);
    // Drop other's bare link back too; a link of its own (with flags) stays.
    const auto back = other->m_dependencies.find(this);
    if (back != other->m_dependencies.end() && back->second == DP_NONE)
        other->m_dependencies.erase(back);
}

void tzHObject::removeDependencyFlag(tzHObject *other, int flags)
{
    const auto it = m_dependencies.find(other);
    if (it == m_dependencies.end())
        return;
    it->second &= ~flags;
    if (it->second == DP_NONE)
        removeDependencyWith(other);
}

void tzHObject::onDeletionOf(const tzHObject *object)
{
    tzHObject *dying = const_cast<tzHObject *>(object);
    m_dependencies.erase(dying);
    const int index = getChildIndex(object);
    if (index >= 0)
        m_children.erase(m_children.begin() + index);
    if (m_parent == object)
        m_parent = nullptr;
}

void tzHObject::draw(tzDrawContext &context)
{
    if (!isEnabled())
        return;
    const bool layerShown = context.layer == TZ_LAYER_ALL
        || (context.layer == TZ_LAYER_CLOUDS) == isKindOf(TZ_TYPES::POINT_CLOUD);
    if (isVisible() && layerShown && (isPickable() || !(context.drawingFlags & TZ_ENTITY_PICKING)))
        drawMeOnly(context);
    for (tzHObject *child : m_children)
        child->draw(context);
}

void tzHObject::prepareDisplayForRefresh_recursive()
{
    prepareDisplayForRefresh();
    for (tzHObject *child : m_children)
        child->prepareDisplayForRefresh_recursive();
}

void tzHObject::setDisplay_recursive(tzGenericGLDisplay *display)
{
    setDisplay(display);
    for (tzHObject *child : m_children)
        child->setDisplay_recursive(display);
}

// ---- scene files ----

void tzHObject::RegisterFactory(quint32 classID, Factory factory)
{
    builtInFactories().insert(classID, std::move(factory));
}

void tzHObject::RegisterFactory(const QString &name, Factory factory)
{
    customFactories().insert(name, std::move(factory));
}

tzHObject *tzHObject::New(quint32 classID, const QString &factoryName)
{
    if (!factoryName.isEmpty()) {
        const auto it = customFactories().constFind(factoryName);
        return it == customFactories().constEnd() ? nullptr : (*it)();
    }
    const auto it = builtInFactories().constFind(classID);
    return it == builtInFactories().constEnd() ? nullptr : (*it)();
}

bool tzHObject::toFile(QIODevice &out) const
{
    if (!write<quint32>(out, getSerializedClassID()))
        return fail(WriteError);
    if (isKindOf(TZ_TYPES::CUSTOM_H_OBJECT) && !writeString(out, getFactoryName()))
        return fail(WriteError);
    if (!toFile_MeOnly(out))
        return false;
    Container written;
    for (tzHObject *child : m_children) {
        if (child->m_parent == this && child->isSerializable())
            written.push_back(child);
    }
    if (!write<quint32>(out, quint32(written.size())))
        return fail(WriteError);
    for (const tzHObject *child : written) {
        if (!child->toFile(out))
            return false;
    }
    return true;
}

bool tzHObject::fromFile(QIODevice &in, short dataVersion, LoadedIDMap &oldToNew)
{
    if (!fromFile_MeOnly(in, dataVersion, oldToNew))
        return false;
    quint32 count = 0;
    // Each child record takes at least its class ID and child count.
    if (!read(in, count) || !hasRoomFor(in, quint64(count) * 8))
        return fail(ReadError);
    for (quint32 i = 0; i < count; ++i) {
        quint32 classID = 0;
        if (!read(in, classID))
            return fail(ReadError);
        QString factoryName;
        if ((classID & TZ_TYPES::CUSTOM_H_OBJECT) == TZ_TYPES::CUSTOM_H_OBJECT
            && !readString(in, factoryName))
            return fail(ReadError);
        tzHObject *child = New(classID, factoryName);
        if (!child) {
            tzLog::Error(QStringLiteral("Unknown object type %1 %2 in scene file")
                             .arg(classID)
                             .arg(factoryName));
            return fail(ReadError);
        }
        addChild(child);
        if (!child->fromFile(in, dataVersion, oldToNew))
            return false;
    }
    return true;
}

bool tzHObject::toFile_MeOnly(QIODevice &out) const
{
    const QRgb temp = m_tempColor.rgba();
    const bool ok = write<quint32>(out, getUniqueID()) && writeString(out, m_name)
        && write<quint8>(out, m_enabled) && writeVariantMap(out, m_metaData)
        && write<quint8>(out, m_visible) && write<quint8>(out, m_nameIn3DShown)
        && write<quint8>(out, m_tempColorShown) && write<quint32>(out, temp);
    return ok || fail(WriteError);
}

bool tzHObject::fromFile_MeOnly(QIODevice &in, short, LoadedIDMap &oldToNew)
{
    quint32 oldID = 0;
    quint8 enabled = 0, visible = 0, nameShown = 0, tempShown = 0;
    quint32 temp = 0;
    const bool ok = read(in, oldID) && readString(in, m_name) && read(in, enabled)
        && readVariantMap(in, m_metaData) && read(in, visible) && read(in, nameShown)
        && read(in, tempShown) && read(in, temp);
    if (!ok)
        return fail(ReadError);
    m_enabled = enabled;
    m_visible = visible;
    m_nameIn3DShown = nameShown;
    m_tempColorShown = tempShown;
    m_tempColor = QColor::fromRgba(temp);
    oldToNew.insert(oldID, this);
    return true;
}
