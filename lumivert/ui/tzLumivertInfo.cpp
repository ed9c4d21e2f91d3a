#include "tzLumivertInfo.h"

#include <QDialogButtonBox>
#include <QFile>
#include <QPushButton>
#include <QTextEdit>
#include <QTextStream>
#include <QVBoxLayout>

tzLumivertInfo::tzLumivertInfo(QWidget *parent)
    : QDialog(parent)
    , m_text(new QTextEdit(this))
{
    m_text->setReadOnly(true);
    auto *ok = new QPushButton(tr("Ok"));
    auto *buttons = new QDialogButtonBox(Qt::Horizontal);
    buttons->addButton(ok, QDialogButtonBox::AcceptRole);
    connect(buttons, SIGNAL(accepted()), this, SLOT(accept()));
    auto *layout = new QVBoxLayout;
    layout->addWidget(m_text);
    layout->addWidget(buttons);
    setLayout(layout);
    setFixedSize(800, 600);

    // The page keeps the resource path it was first shipped under.
    QFile page(QStringLiteral(":/TZ/plugin/qBearing/info.html"));
    if (page.open(QIODevice::ReadOnly)) {
        QTextStream stream(&page);
        m_text->setText(stream.readAll());
        page.close();
    } else {
        m_text->setText(QStringLiteral("Error loading documentation file...."));
    }
}
