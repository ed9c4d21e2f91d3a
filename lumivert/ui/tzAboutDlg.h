#pragma once

#include "tzOverlayDialog.h"
#include "ui_AboutDlg.h"

//! The options form: the plug-in's version and maker, and the six numeric settings. The plug-in
//! object fills it, shows it and reads it back on OK.
class tzAboutDlg : public tzOverlayDialog, public Ui::AboutDlg
{
    Q_OBJECT

public:
    explicit tzAboutDlg(QWidget *parent = nullptr);

protected:
    //! Escape leaves the form open: it closes with its own button, which keeps what it shows.
    void keyPressEvent(QKeyEvent *event) override;
};
