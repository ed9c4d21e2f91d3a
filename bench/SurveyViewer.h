#pragma once

// The viewer's main window as the benchmarks that drive the plug-in use it: a survey terrain in
// national-grid coordinates on screen, the debug lines silenced (they would time the terminal).

#include "Terrain.h"
#include "tzGLWindow.h"
#include "tzMainWindow.h"
#include "tzPointCloud.h"

#include <QSignalSpy>

#include <cstdio>

namespace bench {

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
