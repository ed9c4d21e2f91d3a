#include "tzRunInput.h"

#include "qLumivertDlg.h"
#include "tzApplicationInterface.h"
#include "tzCViseeTool.h"
#include "tzLumivert.h"

#include <QKeyEvent>
#include <QMouseEvent>
#include <QTimer>

tzRunInput::tzRunInput(tzLumivert &run)
    : m_run(run)
{
}

void tzRunInput::forget()
{
    m_heldKeys.clear();
    m_ctrlChecked = false;
}

bool tzRunInput::filter(QObject *obj, QEvent *event)
{
    if (obj == m_run.m_dialog && event->type() != QEvent::KeyPress
        && event->type() != QEvent::KeyRelease)
        return false; // only the keys of the tool bar are the view's
    if (m_run.m_app)
        m_run.m_glWindow = m_run.m_app->activeView();
    switch (event->type()) {
    case QEvent::KeyPress: {
        auto *key = static_cast<QKeyEvent *>(event);
        if (!key->isAutoRepeat())
            m_heldKeys.insert(key->key());
        if (key->modifiers() == Qt::ControlModifier && m_run.m_listening) {
            qDebug(" CTRL press ");
            if (m_run.m_dialog) {
                if (key->key() == Qt::Key_Control
                    && !m_run.m_dialog->SimpleAjoutZButton->isChecked())
                    m_ctrlChecked = true;
                m_run.m_dialog->SimpleAjoutZButton->setChecked(true);
            }
        } else if (key->key() == Qt::Key_Z) {
            // Z held repeats its press: only the first arms the one lowest-point pick, or a
            // hold that outlasts its pick would arm the next plain one too.
            if (key->isAutoRepeat())
                break;
            qDebug(" Z press ");
            if (m_run.m_dialog) {
                m_run.m_dialog->pointPropertiesPointButton->setChecked(true);
                m_run.setTakeLowestPoint();
            }
            m_run.m_isZpress = true;
        } else {
            qDebug(" other press ");
            if (key->key() == Qt::Key_Escape)
                m_run.onEscape();
            // F1 is also the Help item's shortcut; a key the shortcut did not take (the viewer's
            // window not the active one) comes here.
            else if (key->key() == Qt::Key_F1)
                QTimer::singleShot(0, &m_run, &tzLumivert::showHelp);
        }
        break;
    }
    case QEvent::KeyRelease: {
        auto *key = static_cast<QKeyEvent *>(event);
        if (!key->isAutoRepeat())
            m_heldKeys.remove(key->key());
        if (key->key() == Qt::Key_Control)
            m_ctrlChecked = false;
        break;
    }
    case QEvent::ShortcutOverride: {
        // Ctrl held for one of the viewer's commands (Ctrl+S, Ctrl+O...) is not the surveyor
        // asking for the previous height: what its press checked is unchecked.
        auto *key = static_cast<QKeyEvent *>(event);
        if (m_ctrlChecked && m_run.m_dialog && key->key() != Qt::Key_Control
            && m_run.isViewerShortcut(QKeySequence(int(key->modifiers()) | key->key()))) {
            m_run.m_dialog->SimpleAjoutZButton->setChecked(false);
            m_ctrlChecked = false;
        }
        break;
    }
    case QEvent::FocusOut:
    case QEvent::WindowDeactivate:
        // A key released while the viewer does not have the keyboard never reaches us.
        m_heldKeys.clear();
        m_ctrlChecked = false;
        break;
    case QEvent::MouseMove:
        if (m_run.m_activeTool == m_run.m_viseeTool)
            m_run.m_viseeTool->onMouseMove(static_cast<QMouseEvent *>(event), m_run.m_glWindow);
        break;
    case QEvent::MouseButtonDblClick:
        if (static_cast<QMouseEvent *>(event)->button() == Qt::RightButton) {
            m_run.resetModes();
            m_run.redraw();
            m_run.releaseHub();
        }
        break;
    default:
        break;
    }
    return false; // never consumed
}
