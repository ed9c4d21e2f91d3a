#include "qLumivertDlg.h"

#include <QKeyEvent>

qLumivertDlg::qLumivertDlg(QWidget *parent)
    : tzOverlayDialog(parent, Qt::Tool | Qt::FramelessWindowHint)
{
    setupUi(this);
    // The form's places were drawn for a narrower font: the option shows its whole text.
    SimpleAjoutZButton->resize(
        SimpleAjoutZButton->sizeHint().expandedTo(SimpleAjoutZButton->size()));
    setAttribute(Qt::WA_MouseTracking, true);
}

void qLumivertDlg::keyPressEvent(QKeyEvent *event)
{
    if (event->key() == Qt::Key_Escape && event->modifiers() == Qt::NoModifier)
        event->accept();
    else
        tzOverlayDialog::keyPressEvent(event);
}
