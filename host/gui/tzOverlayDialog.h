#pragma once

#include "qtz_gui_global.h"

#include <QDialog>
#include <QList>

class tzGLWindow;

//! A dialog that floats over a 3D view while a tool runs (tool bars, option forms). The
//! application keeps it in a corner of the view. The virtual operations keep this order: plug-in
//! dialogs derived from it rely on it.
class QTZ_GUI_LIB_API tzOverlayDialog : public QDialog
{
    Q_OBJECT

public:
    explicit tzOverlayDialog(QWidget *parent = nullptr,
                             Qt::WindowFlags flags = Qt::FramelessWindowHint | Qt::Tool);
    ~tzOverlayDialog() override;

    //! Links the dialog to a view (not owned); refused while the dialog runs.
    virtual bool linkToView(tzGLWindow *win);
    //! Shows the dialog and starts its process; false when it already runs.
    virtual bool start();
    //! Ends the process: hides the dialog, unlinks it and emits processFinished.
    virtual void stop(bool accepted);

    tzGLWindow *associatedWindow() const { return m_associatedWin; }
    bool isProcessing() const { return m_processing; }
    //! Keys the dialog captures from the application while linked (emitted as shortcuts).
    void addOverriddenShortcut(Qt::Key key) { m_overriddenKeys.push_back(key); }

public slots:
    void reject() override;

protected slots:
    void onLinkedWindowDeletion(QObject *object = nullptr);

signals:
    void processFinished(bool accepted);
    void shortcutTriggered(int key);
    void shown();

protected:
    bool eventFilter(QObject *obj, QEvent *e) override;

    tzGLWindow *m_associatedWin = nullptr;
    bool m_processing = false;
    QList<int> m_overriddenKeys;
};
