#pragma once

#include <QSet>

class QEvent;
class QObject;
class tzLumivert;

//! The keys and the mouse of a measuring run over the viewer (its view, its main window and the
//! run's tool bar): which keys are held, and what each press, release and mouse event asks of
//! the run, whose slots it calls. The run hands it the events its filter sees.
class tzRunInput
{
public:
    explicit tzRunInput(tzLumivert &run);

    //! Handles an event of a watched object; never consumes it (false).
    bool filter(QObject *obj, QEvent *event);
    //! Whether the key (a Qt::Key) is held over the viewer now.
    bool isKeyHeld(int key) const { return m_heldKeys.contains(key); }
    //! Forgets the keys held (the releases are no longer seen once the run stops watching).
    void forget();

private:
    tzLumivert &m_run;
    QSet<int> m_heldKeys;
    bool m_ctrlChecked = false; // the Ctrl key held now checked the previous-height indicator
};
