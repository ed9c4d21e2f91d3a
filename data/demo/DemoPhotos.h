#pragma once

// Photos of the demo site taken from the scan itself: each camera station renders the points
// it sees, so that a photo entered in the viewer lines up with the cloud behind it.
//
// A camera looks along `forward` with `right` and `up` across its picture. The viewer draws a
// picture in its camera's z = -1 plane turned by roll about X, then pitch about Y, then yaw
// about Z (radians); its x and y axes are the picture's right and up, and the centre of the
// picture is on the axis. The list gives that pose and V = forward.

#include "DemoScene.h"

#include <QImage>
#include <QString>

#include <vector>

namespace demo {

struct Vec
{
    double x, y, z;
};

struct Camera
{
    QString name;
    Vec position; // local metres, as the scene's points
    Vec right, up, forward; // unit vectors
    int width = 1600, height = 1200;
    double f = 1000; // focal length, pixels

    //! Looking towards `heading` (radians clockwise from north) and `tilt` below the horizon.
    static Camera looking(const QString &name, Vec position, double heading, double tilt);
    //! The viewer's rotation angles of this pose: R = Rx(roll) Ry(pitch) Rz(yaw) has the
    //! columns right, up and -forward.
    void angles(double &roll, double &pitch, double &yaw) const;
};

//! A few stations along the road at a person's height and one from a mast over the site.
std::vector<Camera> demoStations(const Scene &scene);

//! What the camera sees of the points: each point a disc as large as the ground it stands for
//! at its distance, nearer points hiding farther ones, sky where there is nothing.
QImage render(const Camera &camera, const std::vector<Point> &points, double spacing);

//! The photo list of the stations, in the cloud's coordinates (the site's origin added).
QByteArray photoList(const std::vector<Camera> &cameras);

} // namespace demo
