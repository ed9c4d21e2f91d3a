#pragma once

#include "tzImage.h"
#include "tzInteractor.h"

#include <QJsonObject>
#include <QMetaObject>
#include <QSize>

#include <functional>
#include <memory>

class QOpenGLContext;
class QOpenGLTexture;
class tzApplicationInterface;

//! A photograph of the survey at its camera station: a sphere at the station (green, red when
//! selected), on request a line along the viewing direction, and once selected the picture,
//! half-transparent, one unit in front of the camera. Selecting it puts the view at the station,
//! looking through the picture at the cloud.
//!
//! The station is in the cloud's global coordinates; it is drawn where the parent cloud's shift
//! and scale put it. Frustums are made from the photo list beside their cloud at each run and
//! are not written to scene files.
class tzImageFrustum : public tzImage, public tzInteractor
{
public:
    //! The name is not applied (the object keeps the image's default name).
    //! directionShown tells whether the run shows the photos' viewing directions (none: never).
    tzImageFrustum(tzApplicationInterface *app, std::function<bool()> directionShown,
                   const QString &name);
    ~tzImageFrustum() override;

    //! Fills the fields from one element of a photo list: a missing key, or a value of another
    //! type (a number written as a string), reads as the default. Always true.
    bool readPhoto(const QJsonObject &photo);

    const QString &imagePath() const { return m_imagePath; }
    void setImagePath(const QString &path) { m_imagePath = path; }
    //! The picture of this photo in folder: camname itself when it names a file there, else
    //! camname with the first picture extension found (".jpg" when none is).
    void setPhotoFolder(const QString &folder);
    const QString &cameraName() const { return m_cameraName; }
    TZVector3d cameraPosition() const { return {m_camX, m_camY, m_camZ}; }
    TZVector3d viewDirection() const { return {m_Vx, m_Vy, m_Vz}; }
    double roll() const { return m_roll; }
    double pitch() const { return m_pitch; }
    double yaw() const { return m_yaw; }
    double focal() const { return m_f; }
    //! The station where it is drawn: scale x camera + shift of the parent cloud.
    TZVector3d localCameraPosition() const;

    //! A direction of the picture's frame (x right, y up, z backwards) in the world.
    TZVector3d poseAxis(const TZVector3d &axis) const;
    //! How the view looks through this photo: forward along its direction, up the picture's up
    //! (viewUp only where the pose gives no usable up).
    void viewAlongPhoto(const TZVector3d &viewUp, TZVector3d &forward, TZVector3d &up) const;
    //! Selected: the view moves to the station and looks along the photo's direction.
    void setSelected(bool state) override;

    //! The frustum whose picture was drawn last (the photo being looked through), or null.
    static tzImageFrustum *lookedThrough();
    static void leaveLookedThrough();

protected:
    void drawMeOnly(tzDrawContext &context) override;
    bool isSerializable() const override { return false; }

private:
    static constexpr int MAX_PICTURE_SIDE = 2048;
    //! Reads the picture (scaled down when large); false when it cannot be read.
    bool loadPicture();
    void drawPicture(tzDrawContext &context);
    void releasePicture();

    QString m_imagePath;
    QString m_cameraName;
    double m_camX = 0, m_camY = 0, m_camZ = 0;
    double m_roll = 0, m_pitch = 0, m_yaw = 0;
    double m_Vx = 0, m_Vy = 0, m_Vz = 0;
    double m_cx = 0, m_cy = 0, m_f = 0;
    tzApplicationInterface *m_app; // not owned
    std::function<bool()> m_directionShown;
    // The picture's texture, made once per selection in the context that draws it.
    std::unique_ptr<QOpenGLTexture> m_texture;
    QOpenGLContext *m_textureContext = nullptr;
    QMetaObject::Connection m_contextGoing;
    bool m_loadFailed = false;
    QSize m_pictureSize; // of the picture's file (the one read may be smaller)
};
