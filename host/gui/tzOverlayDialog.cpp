#include "tzOverlayDialog.h"

#include "tzGLWindow.h"
#include "tzLog.h"

#include <QApplication>
#include <QKeyEvent>

tzOverlayDialog::tzOverlayDialog(QWidget *parent, Qt::WindowFlags flags)
    : QDialog(parent, flags)
{
}

tzOverlayDialog::~tzOverlayDialog()
{
    if (m_processing)
        stop(false);
    linkToView(nullptr);
}

bool tzOverlayDialog::linkToView(tzGLWindow *win)
{
    if (m_processing) {
        tzLog::Warning(QStringLiteral(
            "[tzOverlayDialog] Can't change associated window while running/displayed!"));
        return false;
    }
    if (win == m_associatedWin)
        return true;
    if (m_associatedWin) {
        for (QWidget *widget : QApplication::topLevelWidgets())
            widget->removeEventFilter(this);
        disconnect(m_associatedWin, nullptr, this, nullptr);
    }
    m_associatedWin = win;
    if (!win)
        return true;
    for (QWidget *widget : QApplication::topLevelWidgets())
        widget->installEventFilter(this);
    connect(win, &QObject::destroyed, this, &tzOverlayDialog::onLinkedWindowDeletion);
    return true;
}

bool tzOverlayDialog::start()
{
    if (m_processing)
        return false;
    m_processing = true;
    show();
    return true;
}

void tzOverlayDialog::stop(bool accepted)
{
    m_processing = false;
    hide();
    linkToView(nullptr);
    emit processFinished(accepted);
}

void tzOverlayDialog::reject()
{
    QDialog::reject();
    stop(false);
}

void tzOverlayDialog::onLinkedWindowDeletion(QObject *object)
{
    Q_UNUSED(object)
    if (m_processing)
        stop(false);
    linkToView(nullptr);
}

bool tzOverlayDialog::eventFilter(QObject *obj, QEvent *e)
{
    if (e->type() == QEvent::KeyPress) {
        const int key = static_cast<QKeyEvent *>(e)->key();
        if (m_overriddenKeys.contains(key)) {
            emit shortcutTriggered(key);
            return true;
        }
    } else if (e->type() == QEvent::Show) {
        emit shown();
    }
    return QDialog::eventFilter(obj, e);
}
