#pragma once

#include "TZVector3.h"
#include "qtz_gui_global.h"
#include "tzViewportParameters.h"

#include <QMatrix4x4>

//! The camera of a 3D view: its viewport parameters and size turned into matrices, projections
//! and rays, and the moves of the mouse.
//!
//! Frames: world = the scene's local coordinates; eye = x right, y up, looking down -z, with
//! eye = R (P - C) for the rotation R of the parameters' view matrix and the camera centre C;
//! window = pixels, x right, y down, origin at the top-left corner (pixel centres at +0.5).
//! Depth is the distance in front of the eye along the view direction.
class QTZ_GUI_LIB_API tzCamera
{
public:
    tzViewportParameters params;
    int width = 1;
    int height = 1;

    //! The scene's bounds, which set the depth range.
    void setSceneBounds(const TZVector3d &min, const TZVector3d &max);
    bool hasSceneBounds() const { return m_hasBounds; }

    TZVector3d viewDir() const { return rowOfR(2) * -1.0; }
    TZVector3d upDir() const { return rowOfR(1); }
    TZVector3d rightDir() const { return rowOfR(0); }
    //! Focal length in pixels (perspective).
    double focal() const;
    //! World units per pixel at a depth (orthographic: the same everywhere).
    double pixelSizeAt(double depth) const;
    //! World units per pixel at the pivot.
    double pixelSize() const;
    void depthRange(double &zNear, double &zFar) const;

    QMatrix4x4 projection() const;
    QMatrix4x4 modelView() const;
    //! Window position and depth of a point; false when it is behind a perspective eye.
    bool project(const TZVector3d &P, double &x, double &y, double &depth) const;
    //! The ray through a window position: origin and unit direction. Orthographic rays start on
    //! the plane through the camera centre and may be followed both ways.
    void ray(double x, double y, TZVector3d &origin, TZVector3d &dir) const;
    //! The point at a window position and a depth-buffer value (0 near .. 1 far).
    TZVector3d unproject(double x, double y, double windowZ) const;

    //! Turns the camera by angle (radians) about an axis given in eye coordinates: about the
    //! pivot in an object-centred view, about the camera centre in a viewer-centred one.
    void rotate(const TZVector3d &eyeAxis, double angle);
    //! Moves the view by pixels (the scene follows the mouse).
    void pan(double dxPixels, double dyPixels);
    //! Zooms in by factor (> 1) or out (< 1).
    void zoom(double factor);
    //! Looks along forward with up as the screen's up (both in world coordinates).
    void setCustomView(const TZVector3d &forward, const TZVector3d &up);
    //! Shows the whole box, looking along the current direction.
    void fit(const TZVector3d &min, const TZVector3d &max);

private:
    TZVector3d rowOfR(int i) const
    {
        return {params.viewMat[i], params.viewMat[4 + i], params.viewMat[8 + i]};
    }
    TZVector3d toEye(const TZVector3d &v) const; // rotation only
    TZVector3d fromEye(const TZVector3d &v) const; // rotation only
    void setRows(const TZVector3d &r0, const TZVector3d &r1, const TZVector3d &r2);

    TZVector3d m_boundsMin;
    TZVector3d m_boundsMax;
    bool m_hasBounds = false;
};
