#pragma once

#include "TZVector3.h"

class tzHObject;

//! The scale and shift that turn the companion's coordinates into the scene's:
//! scene = companion x scale + shift. A run owns one, shared by its sight tool (which takes the
//! picked cloud's at each pick) and its link (which takes the scene's first cloud's before each
//! frame that creates or updates an object); the sights it makes draw with it. Until a cloud
//! gives one, the identity.
struct tzCoordinateFrame
{
    double scale = 1.0;
    TZVector3d shift;
    //! Takes the first point cloud's scale and shift (clouds looked for under root, depth
    //! first); without a cloud the values stay. Returns whether a cloud was found.
    bool captureFrom(const tzHObject *root);
};
