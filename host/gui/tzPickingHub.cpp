#include "tzPickingHub.h"

#include "tzGLWindow.h"
#include "tzLog.h"
#include "tzPickingListener.h"

#include <QMdiSubWindow>

#include <new>

tzPickingHub::tzPickingHub(bool autoStartPicking, QObject *parent)
    : QObject(parent)
    , m_autoStartPicking(autoStartPicking)
{
}

bool tzPickingHub::addListener(tzPickingListener *listener, bool exclusive, bool autoStart,
                               int mode)
{
    if (!listener)
        return false;
    if (!m_listeners.empty()) {
        const bool onlyThisOne = m_listeners.size() == 1 && *m_listeners.begin() == listener;
        if (m_exclusive) {
            if (!onlyThisOne) {
                tzLog::Warning(
                    QStringLiteral("[tzPickingHub::addListener] Exclusive listener already "
                                   "registered: stop the other tool relying on point "
                                   "picking first"));
                return false;
            }
        } else if (exclusive) {
            if (!onlyThisOne) {
                tzLog::Warning(
                    QStringLiteral("[tzPickingHub::addListener] Attempt to register an "
                                   "exclusive listener while other listeners are already "
                                   "registered"));
                return false;
            }
        } else if (mode != m_pickingMode && !onlyThisOne) {
            tzLog::Warning(QStringLiteral("[tzPickingHub::addListener] Other listeners are already "
                                          "registered with a different picking mode"));
            return false;
        }
    }
    try {
        m_listeners.insert(listener);
    } catch (const std::bad_alloc &) {
        tzLog::Warning(QStringLiteral("[tzPickingHub::addListener] Not enough memory"));
        return false;
    }
    m_exclusive = exclusive;
    m_pickingMode = mode;
    if (autoStart && m_activeWindow)
        m_activeWindow->setPickingMode(mode);
    return true;
}

void tzPickingHub::removeListener(tzPickingListener *listener, bool autoStopIfLast)
{
    Q_UNUSED(autoStopIfLast)
    m_listeners.erase(listener);
    if (m_listeners.empty()) {
        m_exclusive = false;
        if (m_activeWindow)
            m_activeWindow->setPickingMode(DEFAULT_PICKING_MODE);
    }
}

void tzPickingHub::onActiveWindowChanged(QMdiSubWindow *subWindow)
{
    tzGLWindow *view = subWindow ? qobject_cast<tzGLWindow *>(subWindow->widget()) : nullptr;
    if (view == m_activeWindow)
        return;
    if (m_activeWindow) {
        m_activeWindow->setPickingMode(DEFAULT_PICKING_MODE);
        disconnect(m_activeWindow, nullptr, this, nullptr);
        m_activeWindow = nullptr;
    }
    if (view) {
        connect(view, &tzGLWindow::itemPicked, this, &tzPickingHub::processPickedItem,
                Qt::UniqueConnection);
        connect(view, &QObject::destroyed, this, &tzPickingHub::onActiveWindowDeleted);
        m_activeWindow = view;
        if (m_autoStartPicking && !m_listeners.empty())
            view->setPickingMode(m_pickingMode);
    }
}

void tzPickingHub::onActiveWindowDeleted(QObject *object)
{
    Q_UNUSED(object)
    m_activeWindow = nullptr;
}

void tzPickingHub::processPickedItem(tzHObject *entity, unsigned itemIndex, int x, int y,
                                     const TZVector3 &P)
{
    if (m_listeners.empty())
        return;
    tzPickingListener::PickedItem item;
    item.clickPoint = QPoint(x, y);
    item.entity = entity;
    item.itemIndex = itemIndex;
    item.P3D = P;
    // A copy, so that a listener may register or leave from within its handler.
    const std::set<tzPickingListener *> listeners = m_listeners;
    for (tzPickingListener *listener : listeners)
        listener->onItemPicked(item);
}
