#pragma once

// Pixels of a real view: put the camera over a point, draw a frame, look at its colours.

#include "tzGLWindow.h"
#include "tzViewportParameters.h"

#include <QImage>
#include <QSignalSpy>

#include <cstdlib>

//! A top view (orthographic unless asked), 0.1 scene units per pixel, centred on (cx, cy).
inline void lookDown(tzGLWindow &view, double cx, double cy, bool perspective = false)
{
    tzViewportParameters p = view.getViewportParameters();
    p.perspectiveView = perspective;
    p.pixelSize = 0.1;
    p.zoom = 1;
    p.fov_deg = 30.f;
    p.pivotPoint = {cx, cy, 0};
    p.cameraCenter = {cx, cy, 50};
    view.setViewportParameters(p);
    view.setCustomView({0, 0, -1}, {0, 1, 0});
}

//! A frame drawn now, as the screen shows it.
inline QImage frame(tzGLWindow &view)
{
    view.update();
    QSignalSpy drawn(&view, &tzGLWindow::frameDrawn);
    drawn.wait(2000);
    return view.grabFramebuffer();
}

inline bool isColour(const QImage &image, int x, int y, QColor expected, int tolerance = 10)
{
    const QColor c = image.pixelColor(x, y);
    return std::abs(c.red() - expected.red()) <= tolerance
        && std::abs(c.green() - expected.green()) <= tolerance
        && std::abs(c.blue() - expected.blue()) <= tolerance;
}

inline int countColour(const QImage &image, QColor expected)
{
    int count = 0;
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x)
            count += isColour(image, x, y, expected) ? 1 : 0;
    }
    return count;
}
