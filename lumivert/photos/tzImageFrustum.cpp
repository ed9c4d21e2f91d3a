#include "tzImageFrustum.h"

#include "tzApplicationInterface.h"
#include "tzDrawContext.h"
#include "tzGLWindow.h"
#include "tzPhotoListKeys.h"
#include "tzPointCloud.h"
#include "tzSettings.h"
#include "tzSphere.h"
#include "tzXentity.h"

#include <QDir>
#include <QFileInfo>
#include <QImageReader>
#include <QMainWindow>
#include <QMessageBox>
#include <QOpenGLContext>
#include <QOpenGLFunctions_2_1>
#include <QOpenGLTexture>
#include <QPointer>
#include <QTimer>

#include <cmath>
#include <memory>

namespace {

constexpr double DEGREES = 180.0 / 3.141592653589793;

tzImageFrustum *g_lookedThrough = nullptr;

// The station marker of every frustum, made at the first draw with the size set then.
tzSphere &stationMarker()
{
    static const std::unique_ptr<tzSphere> marker = std::make_unique<tzSphere>(
        tzLumivertSettings::stationSize(), QStringLiteral("PointMarker"), 12);
    return *marker;
}

double number(const QJsonObject &photo, const char *key)
{
    const QJsonValue value = photo.value(QLatin1String(key));
    return value.isDouble() ? value.toDouble() : 0.0;
}

} // namespace

tzImageFrustum::tzImageFrustum(tzApplicationInterface *app, std::function<bool()> directionShown,
                               const QString &name)
    : m_app(app)
    , m_directionShown(std::move(directionShown))
{
    Q_UNUSED(name)
    setEnabled(true);
    setVisible(false);
    setAlpha(0.5f); // the cloud shows through the picture
}

tzImageFrustum::~tzImageFrustum()
{
    if (g_lookedThrough == this)
        leaveLookedThrough();
    releasePicture();
}

bool tzImageFrustum::readPhoto(const QJsonObject &photo)
{
    using namespace tzPhotoListKeys;
    const QJsonValue name = photo.value(QLatin1String(CAMERA_NAME));
    m_cameraName = name.isString() ? name.toString() : QString();
    m_camX = number(photo, CAMERA_X);
    m_camY = number(photo, CAMERA_Y);
    m_camZ = number(photo, CAMERA_Z);
    m_roll = number(photo, ROLL);
    m_pitch = number(photo, PITCH);
    m_yaw = number(photo, YAW);
    m_Vx = number(photo, VIEW_X);
    m_Vy = number(photo, VIEW_Y);
    m_Vz = number(photo, VIEW_Z);
    m_cx = number(photo, CENTRE_X);
    m_cy = number(photo, CENTRE_Y);
    m_f = number(photo, FOCAL);
    QVariantMap data;
    data.insert(QStringLiteral("tzLumivertType"), QStringLiteral("imageFrustum"));
    data.insert(QStringLiteral("camera"), m_cameraName);
    data.insert(QStringLiteral("Coord x"), m_camX);
    data.insert(QStringLiteral("Coord y"), m_camY);
    data.insert(QStringLiteral("Coord z"), m_camZ);
    setMetaData(data, true);
    return true;
}

void tzImageFrustum::setPhotoFolder(const QString &folder)
{
    const QDir dir(folder);
    QString path = dir.filePath(m_cameraName);
    if (m_cameraName.isEmpty() || !QFileInfo(path).isFile()) {
        path = dir.filePath(m_cameraName + QStringLiteral(".jpg"));
        for (const char *suffix : {".jpg", ".jpeg", ".png", ".tif", ".JPG", ".JPEG", ".PNG"}) {
            const QString candidate = dir.filePath(m_cameraName + QLatin1String(suffix));
            if (QFileInfo(candidate).isFile()) {
                path = candidate;
                break;
            }
        }
    }
    m_imagePath = path;
}

TZVector3d tzImageFrustum::localCameraPosition() const
{
    const auto *cloud = dynamic_cast<const tzGenericPointCloud *>(getParent());
    const double k = cloud ? cloud->getGlobalScale() : 1.0;
    const TZVector3d S = cloud ? cloud->getGlobalShift() : TZVector3d();
    return {k * m_camX + S.x, k * m_camY + S.y, k * m_camZ + S.z};
}

TZVector3d tzImageFrustum::poseAxis(const TZVector3d &axis) const
{
    // The picture is drawn turned by Rx(roll) Ry(pitch) Rz(yaw), applied in that order of calls:
    // a direction of the picture's own frame reaches the world as Rx (Ry (Rz axis)).
    const auto turn = [](const TZVector3d &v, double angle, int about) {
        const double c = std::cos(angle), s = std::sin(angle);
        switch (about) {
        case 0:
            return TZVector3d(v.x, c * v.y - s * v.z, s * v.y + c * v.z);
        case 1:
            return TZVector3d(c * v.x + s * v.z, v.y, -s * v.x + c * v.z);
        default:
            return TZVector3d(c * v.x - s * v.y, s * v.x + c * v.y, v.z);
        }
    };
    return turn(turn(turn(axis, m_yaw, 2), m_pitch, 1), m_roll, 0);
}

void tzImageFrustum::viewAlongPhoto(const TZVector3d &viewUp, TZVector3d &forward,
                                    TZVector3d &up) const
{
    // Forward is the photo's direction V (its pose's own when V is missing); up is the picture's
    // up made square to it, so that the picture stands upright on the screen whatever view the
    // surveyor came from.
    const TZVector3d V(m_Vx, m_Vy, m_Vz);
    forward = V.norm() > 1e-12 ? V : poseAxis({0, 0, -1});
    const TZVector3d f = forward / forward.norm();
    const TZVector3d pictureUp = poseAxis({0, 1, 0});
    up = pictureUp - f * pictureUp.dot(f);
    if (up.norm() > 1e-6)
        return;
    // A direction along the picture's up axis: the view's own up, made square to it.
    up = f.cross(viewUp).cross(f);
}

tzImageFrustum *tzImageFrustum::lookedThrough()
{
    return g_lookedThrough;
}

void tzImageFrustum::leaveLookedThrough()
{
    g_lookedThrough = nullptr;
    tzXentity::pictureShown = false;
}

void tzImageFrustum::setSelected(bool state)
{
    tzImage::setSelected(state);
    if (!state) {
        m_loadFailed = false;
        releasePicture();
        // The picture is no longer drawn; the view stays at the station until the camera moves.
        if (g_lookedThrough == this)
            tzXentity::pictureShown = false;
        return;
    }
    tzGLWindow *view = m_app ? m_app->activeView() : nullptr;
    if (!view)
        return;
    // Into the station's viewpoint without telling the camera's listeners (leaving a photo
    // listens to them).
    const bool blocked = view->blockSignals(true);
    view->setViewpointMode(true);
    TZVector3d forward, up;
    viewAlongPhoto(view->getCurrentUpDir(), forward, up);
    view->setCameraPos(localCameraPosition());
    view->setCustomView(forward, up);
    view->setViewpointMode(true);
    view->blockSignals(blocked);
    view->redraw();
}

bool tzImageFrustum::loadPicture()
{
    // A view shows the picture on a couple of thousand pixels at most: a larger one is read at
    // half or a quarter of its size, which its decoder does at a fraction of the cost. The
    // picture keeps its own size for where it is drawn.
    QImageReader reader(m_imagePath);
    const QSize full = reader.size();
    if (full.isValid() && (full.width() > MAX_PICTURE_SIDE || full.height() > MAX_PICTURE_SIDE))
        reader.setScaledSize(full.scaled(MAX_PICTURE_SIDE, MAX_PICTURE_SIDE, Qt::KeepAspectRatio));
    const QImage image = reader.read();
    if (image.isNull())
        return false;
    m_pictureSize = full.isValid() ? full : image.size();
    setData(image);
    setName(QFileInfo(m_imagePath).baseName());
    // The tree shows the picture's name (after the frame being drawn).
    if (QMainWindow *window = m_app ? m_app->mainWindow() : nullptr) {
        tzApplicationInterface *app = m_app;
        QTimer::singleShot(0, window, [app] { app->refreshAllViews(true); });
    }
    return true;
}

void tzImageFrustum::releasePicture()
{
    QObject::disconnect(m_contextGoing);
    if (!m_texture)
        return;
    // Freed in its own context: the view's, made current for it when another one is.
    QOpenGLContext *current = QOpenGLContext::currentContext();
    tzGLWindow *view = m_app ? m_app->activeView() : nullptr;
    if (current == m_textureContext) {
        m_texture->destroy();
    } else if (view && view->context() == m_textureContext) {
        view->makeCurrent();
        m_texture->destroy();
        view->doneCurrent();
        if (current && current->surface())
            current->makeCurrent(current->surface());
    }
    m_texture.reset();
    m_textureContext = nullptr;
}

void tzImageFrustum::drawMeOnly(tzDrawContext &context)
{
    QOpenGLFunctions_2_1 *gl = context.glFunctions;
    if (!gl || !context.qGLContext || !context.is3D())
        return;
    const bool picking = context.isPicking();
    if (picking && (context.drawingFlags & TZ_FAST_ENTITY_PICKING))
        return;
    if (picking)
        gl->glPushName(getUniqueID());
    const TZVector3d local = localCameraPosition();
    const TZVector3 P(float(local.x), float(local.y), float(local.z));
    // Not the marker of the station the view looks from: it would fill the view.
    const tzViewportParameters *params = context.viewportParams;
    const bool atStation = isSelected() && params && params->perspectiveView
        && (params->cameraCenter - local).norm() < 1e-4;
    tzSphere &marker = stationMarker();
    const QColor colour = isSelected() ? QColor(Qt::red) : QColor(Qt::green);
    if (!atStation && context.spheres && !picking) {
        // Thousands of stations: one batch with the view's other markers.
        context.spheres->addSphere(P, marker.getRadius() * context.renderZoom, colour);
    } else if (!atStation) {
        marker.setTempColor(colour);
        tzDrawContext plain = context;
        plain.drawingFlags &= ~(TZ_ENTITY_PICKING | TZ_FAST_ENTITY_PICKING);
        plain.spheres = nullptr;
        gl->glMatrixMode(GL_MODELVIEW);
        gl->glPushMatrix();
        gl->glTranslatef(P.x, P.y, P.z);
        gl->glScalef(context.renderZoom, context.renderZoom, context.renderZoom);
        marker.draw(plain);
        gl->glPopMatrix();
    }
    if (m_directionShown && m_directionShown() && !picking) {
        gl->glPushAttrib(GL_COLOR_BUFFER_BIT | GL_CURRENT_BIT);
        gl->glEnable(GL_BLEND);
        gl->glColor3ub(0, 255, 0);
        gl->glBegin(GL_LINES);
        gl->glVertex3f(P.x, P.y, P.z);
        gl->glVertex3d(local.x + 10 * m_Vx, local.y + 10 * m_Vy, local.z + 10 * m_Vz);
        gl->glEnd();
        gl->glPopAttrib();
    }
    if (picking) {
        gl->glPopName();
        return;
    }
    if (isSelected())
        drawPicture(context);
}

void tzImageFrustum::drawPicture(tzDrawContext &context)
{
    if (!isLoaded()) {
        if (m_loadFailed)
            return; // said once for this selection (see below)
        if (!loadPicture()) {
            // The box asks the surveyor to acknowledge; it opens outside the drawing, once for
            // this selection, and the photo is left when it closes: a box at every frame would
            // come back as soon as it closed.
            m_loadFailed = true;
            QPointer<tzGLWindow> view = m_app ? m_app->activeView() : nullptr;
            QTimer::singleShot(0, [view] {
                QMessageBox box(QMessageBox::Warning, QString(),
                                QStringLiteral("Erreur de chargement de l'image"));
                box.exec();
                if (view) {
                    view->setViewpointMode(false);
                    view->redraw();
                }
            });
            return;
        }
    }
    QOpenGLFunctions_2_1 *gl = context.glFunctions;
    if (!m_texture || m_textureContext != context.qGLContext) {
        releasePicture();
        // Row 0 of the picture is its top: texture coordinate 0, drawn at the top.
        m_texture = std::make_unique<QOpenGLTexture>(data(), QOpenGLTexture::DontGenerateMipMaps);
        m_texture->setMinificationFilter(QOpenGLTexture::Linear);
        m_texture->setMagnificationFilter(QOpenGLTexture::Linear);
        m_textureContext = context.qGLContext;
        m_contextGoing
            = QObject::connect(m_textureContext, &QOpenGLContext::aboutToBeDestroyed, [this] {
                  m_texture->destroy(); // current while it goes
                  m_texture.reset();
                  m_textureContext = nullptr;
              });
    }
    const float f = float(m_f);
    const float hw = float(m_pictureSize.width()) / f * 0.5f;
    const float hh = float(m_pictureSize.height()) / f * 0.5f;
    const TZVector3d local = localCameraPosition();
    gl->glPushAttrib(GL_COLOR_BUFFER_BIT | GL_CURRENT_BIT);
    gl->glEnable(GL_BLEND);
    gl->glBlendFunc(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA);
    gl->glPushAttrib(GL_ENABLE_BIT);
    gl->glEnable(GL_TEXTURE_2D);
    gl->glMatrixMode(GL_MODELVIEW);
    gl->glPushMatrix();
    m_texture->bind();
    gl->glTranslated(local.x, local.y, local.z);
    gl->glRotated(m_roll * DEGREES, 1, 0, 0);
    gl->glRotated(m_pitch * DEGREES, 0, 1, 0);
    gl->glRotated(m_yaw * DEGREES, 0, 0, 1);
    gl->glColor4f(1.f, 1.f, 1.f, getAlpha());
    gl->glBegin(GL_QUADS);
    gl->glTexCoord2f(0, 1);
    gl->glVertex3f(-hw, -hh, -1);
    gl->glTexCoord2f(1, 1);
    gl->glVertex3f(hw, -hh, -1);
    gl->glTexCoord2f(1, 0);
    gl->glVertex3f(hw, hh, -1);
    gl->glTexCoord2f(0, 0);
    gl->glVertex3f(-hw, hh, -1);
    gl->glEnd();
    m_texture->release();
    gl->glPopMatrix();
    gl->glPopAttrib();
    gl->glPopAttrib();
    g_lookedThrough = this;
    if (!tzXentity::pictureShown) {
        // The symbols drawn before the picture in this frame were depth tested against it:
        // the next frame draws them over it.
        tzXentity::pictureShown = true;
        if (tzGLWindow *view = m_app ? m_app->activeView() : nullptr)
            QTimer::singleShot(0, view, [view] { view->redraw(); });
    }
}
