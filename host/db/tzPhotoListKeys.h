#pragma once

//! The keys of a photo list ({"images": [...]}), the file of a survey's photo stations: what
//! the readers of scanners' files write (an E57's pinhole pictures) and the plug-in reads, in
//! one place. The surveying application's own lists use the same spelling, capitals included.
namespace tzPhotoListKeys {

constexpr const char *IMAGES = "images"; // the array of photos
constexpr const char *CAMERA_NAME = "camname"; // the picture's file name, beside the list
constexpr const char *CAMERA_X = "camX"; // the camera's position (the cloud's coordinates)
constexpr const char *CAMERA_Y = "camY";
constexpr const char *CAMERA_Z = "camZ";
constexpr const char *ROLL = "roll"; // radians: Rx(roll) Ry(pitch) Rz(yaw) turns the picture's
constexpr const char *PITCH = "pitch"; // frame (x right, y up, looking along -z) onto the
constexpr const char *YAW = "yaw"; // world's
constexpr const char *VIEW_X = "Vx"; // the viewing direction
constexpr const char *VIEW_Y = "Vy";
constexpr const char *VIEW_Z = "Vz";
constexpr const char *FOCAL = "f"; // the focal length in pixels
constexpr const char *CENTRE_X = "cx"; // the principal point, in pixels
constexpr const char *CENTRE_Y = "cy";

} // namespace tzPhotoListKeys
