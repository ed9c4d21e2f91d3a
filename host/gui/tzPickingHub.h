#pragma once

#include "TZVector3.h"
#include "qtz_gui_global.h"

#include <QObject>

#include <set>

class QMdiSubWindow;
class tzGLWindow;
class tzHObject;
class tzPickingListener;

//! Hands the points picked in the active 3D view to the tools listening for them. The
//! application owns the one hub; tools reach it through the application interface.
//! GUI thread only; delivery is synchronous within the view's signal.
class QTZ_GUI_LIB_API tzPickingHub : public QObject
{
    Q_OBJECT

public:
    //! The view's mode when nobody listens.
    static constexpr int DEFAULT_PICKING_MODE = 8;

    explicit tzPickingHub(bool autoStartPicking = true, QObject *parent = nullptr);

    //! Registers a listener (not owned). Fails, with a warning in the log and nothing changed,
    //! when an exclusive listener holds the hub, when exclusivity is asked while others listen,
    //! or when another mode is asked while others listen.
    bool addListener(tzPickingListener *listener, bool exclusive = false, bool autoStart = true,
                     int mode = 6);
    //! Unregisters a listener; the last one leaving puts the view back in the default mode.
    //! autoStopIfLast has no effect (kept for the callers' sake).
    void removeListener(tzPickingListener *listener, bool autoStopIfLast = true);

    bool isLocked() const { return m_exclusive; }
    int pickingMode() const { return m_pickingMode; }
    std::size_t listenerCount() const { return m_listeners.size(); }
    tzGLWindow *activeWindow() const { return m_activeWindow; }

public slots:
    void onActiveWindowChanged(QMdiSubWindow *subWindow);
    void onActiveWindowDeleted(QObject *object);
    void processPickedItem(tzHObject *entity, unsigned itemIndex, int x, int y, const TZVector3 &P);

private:
    std::set<tzPickingListener *> m_listeners; // ordered by address; not owned
    int m_pickingMode = DEFAULT_PICKING_MODE;
    bool m_autoStartPicking = true;
    bool m_exclusive = false;
    tzGLWindow *m_activeWindow = nullptr;
};
