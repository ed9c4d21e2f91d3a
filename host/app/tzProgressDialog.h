#pragma once

#include <QDialog>
#include <QTimer>

class QLabel;
class QProgressBar;

//! The progress of a long load, shown in a corner of the main window once the load has lasted a
//! moment; the window stays usable meanwhile.
//!
//! Updating it never runs an event loop (QProgressDialog::setValue does, when modal): the work
//! it reports runs on another thread, and a nested loop here would deliver that work's result in
//! the middle of a progress update and tear down what the caller still uses.
class tzProgressDialog : public QDialog
{
    Q_OBJECT

public:
    //! Shown delayMs after construction, unless finished or held by then.
    tzProgressDialog(const QString &text, int delayMs, QWidget *parent = nullptr);

    void setProgress(int percent, const QString &text);
    int value() const;
    QString labelText() const;
    //! Steps aside (hidden, and not shown by its delay) while another dialog asks the user
    //! something about the same work; release() brings it back where it was due.
    void hold();
    void release();

    //! What Cancel, Escape and closing the dialog do: says it stops, and emits canceled.
    void reject() override;

signals:
    //! The user asked to stop.
    void canceled();

private:
    void showIfDue();

    QLabel *m_label = nullptr;
    QProgressBar *m_bar = nullptr;
    QTimer m_delay;
    bool m_due = false; // the delay has passed
    int m_holds = 0;
};
