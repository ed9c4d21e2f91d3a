#pragma once

#include "TZVector3.h"
#include "qtz_gui_global.h"

#include <vector>

class tzCamera;
class tzGenericPointCloud;

//! Finds the cloud point under a pixel on the CPU, with the clouds' octrees: the front-most
//! point whose projection lies within a tolerance of the pixel, so never a point behind the
//! visible surface. Exact, and independent of what the GPU drew.
class QTZ_GUI_LIB_API tzPointPicker
{
public:
    struct Result
    {
        tzGenericPointCloud *cloud = nullptr;
        unsigned index = 0;
        TZVector3 P; // local coordinates of the cloud
        double distance = 0; // along the ray from its origin
    };

    //! Looks for the point under (x, y) (window pixels) among the clouds; builds an octree
    //! where one is missing. False when no point lies within tolerancePx of the pixel.
    static bool pick(const tzCamera &camera, const std::vector<tzGenericPointCloud *> &clouds,
                     double x, double y, double tolerancePx, Result &result);
};
