#include "tzProgressDialog.h"

#include <QDialogButtonBox>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QVBoxLayout>

#include <algorithm>

tzProgressDialog::tzProgressDialog(const QString &text, int delayMs, QWidget *parent)
    : QDialog(parent)
{
    // The window stays in the user's hands while a file opens (its first pictures are drawn
    // meanwhile): the progress neither blocks it nor takes its keys.
    setWindowModality(Qt::NonModal);
    setAttribute(Qt::WA_ShowWithoutActivating);
    setWindowTitle(tr("Opening"));
    m_label = new QLabel(text, this);
    m_bar = new QProgressBar(this);
    m_bar->setRange(0, 100);
    m_bar->setValue(0);
    auto *buttons = new QDialogButtonBox(QDialogButtonBox::Cancel, this);
    connect(buttons, &QDialogButtonBox::rejected, this, &tzProgressDialog::reject);
    auto *layout = new QVBoxLayout(this);
    layout->addWidget(m_label);
    layout->addWidget(m_bar);
    layout->addWidget(buttons);
    setMinimumWidth(360);

    m_delay.setSingleShot(true);
    connect(&m_delay, &QTimer::timeout, this, [this] {
        m_due = true;
        showIfDue();
    });
    m_delay.start(std::max(0, delayMs));
}

void tzProgressDialog::setProgress(int percent, const QString &text)
{
    m_bar->setValue(percent);
    if (!text.isEmpty())
        m_label->setText(text);
}

int tzProgressDialog::value() const
{
    return m_bar->value();
}

QString tzProgressDialog::labelText() const
{
    return m_label->text();
}

void tzProgressDialog::hold()
{
    ++m_holds;
    hide();
}

void tzProgressDialog::release()
{
    if (m_holds > 0)
        --m_holds;
    showIfDue();
}

void tzProgressDialog::showIfDue()
{
    if (!m_due || m_holds > 0 || isVisible())
        return;
    // In the bottom corner of the window, off the middle of the view where the picture is.
    if (const QWidget *window = parentWidget() ? parentWidget()->window() : nullptr) {
        adjustSize();
        const QRect area = window->geometry();
        move(area.right() - width() - 32, area.bottom() - height() - 64);
    }
    show();
}

void tzProgressDialog::reject()
{
    // Stays up until the work has stopped; its owner closes it then.
    m_label->setText(tr("Cancelling..."));
    emit canceled();
}
