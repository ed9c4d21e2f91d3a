#include "qLumivertDlg.h"

qLumivertDlg::qLumivertDlg(QWidget *parent)
    : tzOverlayDialog(parent, Qt::Tool | Qt::FramelessWindowHint)
{
    setupUi(this);
    setAttribute(Qt::WA_MouseTracking, true);
}
