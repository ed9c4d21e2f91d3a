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

    //! The companion's point in the scene: p x scale + shift.
    TZVector3d toScene(const TZVector3d &companion) const
    {
        return {companion.x * scale + shift.x, companion.y * scale + shift.y,
                companion.z * scale + shift.z};
    }
    //! The scene's point for the companion: (p - shift) / scale, the inverse of toScene. The
    //! sights placed, moved and reported, and the measures exported, go this way.
    TZVector3d toCompanion(const TZVector3d &scene) const
    {
        return {(scene.x - shift.x) / scale, (scene.y - shift.y) / scale,
                (scene.z - shift.z) / scale};
    }
    //! The companion's shapes (lines, outlines, circles) go back divided first, then shifted:
    //! p / scale - shift, which is not toScene's inverse unless the scale is 1. The design keeps
    //! it so: do not make it the inverse.
    TZVector3d shapeToCompanion(const TZVector3d &scene) const
    {
        return {scene.x / scale - shift.x, scene.y / scale - shift.y, scene.z / scale - shift.z};
    }
    //! A sight of the companion's goes back with x and y as toCompanion, and its height from the
    //! new x, (x' - shift.z) / scale, as the companion's side computes it. The design keeps
    //! it so: do not "fix" it into the height's own conversion.
    TZVector3d sightToCompanion(const TZVector3d &scene) const
    {
        const double x = (scene.x - shift.x) / scale;
        return {x, (scene.y - shift.y) / scale, (x - shift.z) / scale};
    }
    //! Takes the first point cloud's scale and shift (clouds looked for under root, depth
    //! first); without a cloud the values stay. Returns whether a cloud was found.
    bool captureFrom(const tzHObject *root);
};
