// A small standard plug-in for the viewer's tests: one action, enabled while something is
// selected, that shows an overlay dialog in the top-right corner of the active view. It reports
// what it is told in the console, where the tests read it.

#include "tzApplicationInterface.h"
#include "tzOverlayDialog.h"
#include "tzStdPluginInterface.h"

#include <QAction>
#include <QLabel>
#include <QMainWindow>
#include <QObject>
#include <QVBoxLayout>
#include <QtPlugin>

class tzTestPlugin : public QObject, public tzStdPluginInterface
{
    Q_OBJECT
    Q_INTERFACES(tzStdPluginInterface)
    Q_PLUGIN_METADATA(IID "tessaro.tests.tzTestPlugin")

public:
    QString getName() const override { return QStringLiteral("Test plug-in"); }

    QList<QAction *> listActions() override
    {
        if (!m_action) {
            m_action = new QAction(QStringLiteral("Test action"), this);
            m_action->setObjectName(QStringLiteral("testAction"));
            m_action->setEnabled(false);
            connect(m_action, &QAction::triggered, this, &tzTestPlugin::run);
        }
        return {m_action};
    }

    void selectionChanged(const tzHObject::Container &selected) override
    {
        if (m_action)
            m_action->setEnabled(!selected.empty());
        printToConsole(QStringLiteral("[TestPlugin] selection: %1").arg(selected.size()));
    }

    void stop() override
    {
        if (m_dialog && m_app)
            m_app->detachOverlayDialog(m_dialog);
        delete m_dialog;
        m_dialog = nullptr;
        printToConsole(QStringLiteral("[TestPlugin] stopped"));
    }

private:
    void run()
    {
        if (!m_app)
            return;
        if (!m_dialog) {
            m_dialog = new tzOverlayDialog(m_app->mainWindow());
            m_dialog->setObjectName(QStringLiteral("testOverlay"));
            auto *layout = new QVBoxLayout(m_dialog);
            layout->addWidget(new QLabel(QStringLiteral("overlay")));
            m_dialog->setFixedSize(120, 40);
        }
        m_dialog->linkToView(m_app->activeView());
        m_app->attachOverlayDialog(m_dialog, Qt::TopRightCorner);
        m_dialog->start();
        printToConsole(QStringLiteral("[TestPlugin] started"));
    }

    QAction *m_action = nullptr;
    tzOverlayDialog *m_dialog = nullptr;
};

#include "tzTestPlugin.moc"
