#include "tzAboutDlg.h"

tzAboutDlg::tzAboutDlg(QWidget *parent)
    : tzOverlayDialog(parent, Qt::Dialog)
{
    setupUi(this);
}
