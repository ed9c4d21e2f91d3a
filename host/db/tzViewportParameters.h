#pragma once

#include "TZVector3.h"

#include <array>

//! The camera of a 3D view, as saved and restored (e.g. to look through a photo and come back).
struct tzViewportParameters
{
    //! Rotation part of the view, column-major 4x4.
    std::array<double, 16> viewMat {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
    double pixelSize = 1.0; // scene units per pixel at zoom 1 (orthographic)
    double zoom = 1.0;
    bool perspectiveView = false;
    bool objectCenteredView = true;
    double zNearCoef = 0.005;
    double zNear = 0;
    double zFar = 0;
    TZVector3d pivotPoint;
    TZVector3d cameraCenter;
    float fov_deg = 50.f;
    float cameraAspectRatio = 1.f;
};
