#pragma once

// The viewer's main window with the built plug-in loaded (LUMIVERT_PLUGIN), as a user has it.

#include "tzConsole.h"
#include "tzGLWindow.h"
#include "tzMainWindow.h"
#include "tzOverlayDialog.h"
#include "tzPluginManager.h"
#include "tzPointCloud.h"
#include "tzStdPluginInterface.h"

#include <QAction>
#include <QFileInfo>
#include <QPluginLoader>
#include <QStatusBar>
#include <QToolBar>
#include <QToolButton>
#include <QtTest>

// A viewer with the plug-in loaded and a small cloud in its scene.
struct Viewer
{
    tzMainWindow window;
    QObject *plugin = nullptr;
    tzStdPluginInterface *std = nullptr;
    tzPointCloud *cloud = nullptr;

    Viewer()
        : window(options())
    {
        // The view keeps the size the tests' geometry was drawn for, status bar or not.
        window.resize(1000, 700 + window.statusBar()->sizeHint().height());
        window.show();
        // Mapped at its final size: what a test projects now is where its clicks land.
        if (!QTest::qWaitForWindowExposed(&window))
            qWarning("the viewer's window was not shown");
        window.loadPlugins({QFileInfo(QStringLiteral(LUMIVERT_PLUGIN)).absolutePath()});
        if (window.pluginManager()->plugins().size() == 1) {
            plugin = window.pluginManager()->plugins().first().loader->instance();
            std = window.pluginManager()->plugins().first().instance;
        }
        cloud = new tzPointCloud(QStringLiteral("Site - Cloud"));
        for (int i = -10; i <= 10; ++i) {
            for (int j = -10; j <= 10; ++j)
                cloud->addPoint({i * 0.1f, j * 0.1f, 0.f});
        }
        window.addToDatabase(cloud, true);
    }
    ~Viewer() { window.pluginManager()->unloadAll(); }

    static tzMainWindow::Options options()
    {
        tzMainWindow::Options o;
        o.autoShift = true;
        o.loadPlugins = false;
        return o;
    }
    QAction *action() const { return window.pluginToolBar()->actions().value(0); }
    template<typename T = QToolButton> T *button(const char *name) const
    {
        return window.findChild<T *>(QLatin1String(name));
    }
    tzOverlayDialog *toolBar() const
    {
        return window.findChild<tzOverlayDialog *>(QStringLiteral("LumivertDlg"));
    }
    tzOverlayDialog *optionsForm() const
    {
        return window.findChild<tzOverlayDialog *>(QStringLiteral("AboutDlg"));
    }
    QVariant state(const char *name) const { return plugin->property(name); }
    bool consoleHas(const QString &text) const
    {
        for (const QString &line : window.console()->lines()) {
            if (line.contains(text))
                return true;
        }
        return false;
    }
    //! Starts a run, and waits until the run's tool bar has taken its room in the window: what
    //! a test projects afterwards is where its clicks land.
    void start()
    {
        action()->setEnabled(true);
        action()->trigger();
        tzGLWindow *view = window.activeView();
        QSize size;
        for (int i = 0; i < 10 && view && size != view->size(); ++i) {
            size = view->size();
            view->update();
            QSignalSpy drawn(view, &tzGLWindow::frameDrawn);
            drawn.wait(2000);
        }
    }
    void click(const char *name) { QTest::mouseClick(button(name), Qt::LeftButton); }
    QStringList messages()
    {
        return window.activeView()->viewMessages(tzGLWindow::UPPER_CENTER_MESSAGE);
    }
};
