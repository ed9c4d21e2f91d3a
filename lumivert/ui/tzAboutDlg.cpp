#include "tzAboutDlg.h"

#include <QKeyEvent>

tzAboutDlg::tzAboutDlg(QWidget *parent)
    : tzOverlayDialog(parent, Qt::Dialog)
{
    setupUi(this);
}

void tzAboutDlg::keyPressEvent(QKeyEvent *event)
{
    if (event->key() == Qt::Key_Escape && event->modifiers() == Qt::NoModifier)
        event->accept();
    else
        tzOverlayDialog::keyPressEvent(event);
}
