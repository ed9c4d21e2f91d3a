#pragma once

#include "tzOverlayDialog.h"
#include "ui_LumivertDlg.h"

//! The tool bar that floats in a corner of the 3D view during a measuring run: the mode buttons,
//! the Ctrl indicator and the state of the link with the companion. It holds no logic: the
//! plug-in object reaches its members directly and connects them.
class qLumivertDlg : public tzOverlayDialog, public Ui::LumivertDlg
{
    Q_OBJECT

public:
    explicit qLumivertDlg(QWidget *parent = nullptr);

protected:
    //! Escape never hides the run's tool bar (a dialog's Escape rejects it): the plug-in's key
    //! filter gives Escape its meaning for the run.
    void keyPressEvent(QKeyEvent *event) override;
};
