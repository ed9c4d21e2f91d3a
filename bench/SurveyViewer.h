#pragma once

// The viewer's main window as the benchmarks that drive the plug-in use it: a survey terrain in
// national-grid coordinates on screen, the debug lines silenced (they would time the terminal).

#include "Terrain.h"
#include "tzGLWindow.h"
#include "tzMainWindow.h"
#include "tzPointCloud.h"

#include <QSignalSpy>
#include <QTest>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace bench {

//! The number given as --name=N on the command line, or fallback.
inline unsigned numberOption(int argc, char **argv, const char *name, unsigned fallback)
{
    const size_t length = std::strlen(name);
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "--", 2) == 0 && std::strncmp(argv[i] + 2, name, length) == 0
            && argv[i][2 + length] == '=')
            fallback = unsigned(std::strtoul(argv[i] + 3 + length, nullptr, 10));
    }
    return fallback;
}

inline void silenceDebugLines()
{
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &, const QString &text) {
        if (type != QtDebugMsg)
            std::fprintf(stderr, "%s\n", qPrintable(text));
    });
}

inline tzMainWindow::Options viewerOptions()
{
    tzMainWindow::Options options;
    options.autoShift = true;
    options.loadPlugins = false;
    return options;
}

//! The window on screen at the benchmarks' size, mapped: what is timed next is drawn.
inline void showWindow(tzMainWindow &window, const char *program)
{
    window.resize(1280, 800);
    window.show();
    if (!QTest::qWaitForWindowExposed(&window))
        std::fprintf(stderr, "%s: the window was not shown\n", program);
}

//! Adds a terrain of count points, shifted from origin, to the window's scene and waits for the
//! frame that shows it.
inline tzPointCloud *showTerrain(tzMainWindow &window, unsigned count, const TZVector3d &origin)
{
    auto *cloud = new tzPointCloud(QStringLiteral("terrain"));
    {
        Terrain terrain;
        makeTerrain(terrain, count);
        cloud->reserve(terrain.cloud.size());
        for (unsigned i = 0; i < terrain.cloud.size(); ++i)
            cloud->addPoint(terrain.cloud.point(i));
    }
    cloud->setGlobalShift(TZVector3d(-origin.x, -origin.y, -origin.z));
    window.addToDatabase(cloud, true);
    tzGLWindow *view = window.activeView();
    QSignalSpy drawn(view, &tzGLWindow::frameDrawn);
    view->redraw();
    drawn.wait(120000);
    return cloud;
}

} // namespace bench
