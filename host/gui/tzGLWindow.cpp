#include "tzGLWindow.h"

#include "tzCloudBuffers.h"
#include "tzEyeDome.h"
#include "tzInteractor.h"
#include "tzLegend.h"
#include "tzPointCloud.h"
#include "tzPointPicker.h"
#include "tzSphereSprites.h"

#include <QDataStream>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QOpenGLContext>
#include <QOpenGLFramebufferObject>
#include <QOpenGLFunctions_2_1>
#include <QPainter>
#include <QResizeEvent>
#include <QWheelEvent>

#include <algorithm>
#include <cmath>

namespace {

// A press and release closer than this (pixels) is a click, not a drag.
constexpr int CLICK_SLOP_PX = 3;
constexpr double ROTATION_PER_PIXEL = 0.005; // radians

void collectClouds(const tzHObject *object, std::vector<tzGenericPointCloud *> &out)
{
    if (!object || !object->isVisible() || !object->isEnabled())
        return;
    if (object->isKindOf(TZ_TYPES::POINT_CLOUD))
        out.push_back(static_cast<tzGenericPointCloud *>(const_cast<tzHObject *>(object)));
    for (unsigned i = 0; i < object->getChildrenNumber(); ++i)
        collectClouds(object->getChild(i), out);
}

} // namespace

tzGLWindow::tzGLWindow(QWidget *parent)
    : QOpenGLWidget(parent)
    , m_viewDB(QStringLiteral("view database"))
    , m_selection(
          m_camera,
          [this](int flags) {
              tzDrawContext context = makeContext(flags);
              drawScene(context);
          },
          2 * PICKING_TOLERANCE_PX + 1)
{
    qRegisterMetaType<tzHObject *>();
    qRegisterMetaType<TZVector3>();
    qRegisterMetaType<TZVector3d>();
    setFormat(defaultFormat());
    setMouseTracking(true);
    setFocusPolicy(Qt::StrongFocus);
    setMinimumSize(64, 64);
    m_clock.start();
    m_restTimer.setSingleShot(true);
    m_restTimer.setInterval(200);
    connect(&m_restTimer, &QTimer::timeout, this, &tzGLWindow::endInteraction);
    m_messageTimer.setSingleShot(true);
    connect(&m_messageTimer, &QTimer::timeout, this, [this] { update(); });
    m_paceTimer.setSingleShot(true);
    connect(&m_paceTimer, &QTimer::timeout, this, [this] { update(); });
}

tzGLWindow::~tzGLWindow()
{
    // The context outlives this part of the object (QOpenGLWidget destroys it): release now and
    // stop listening, or its last signal would reach a half-destroyed view.
    disconnect(m_contextGoing);
    releaseGL();
}

QSurfaceFormat tzGLWindow::defaultFormat()
{
    QSurfaceFormat format;
    format.setRenderableType(QSurfaceFormat::OpenGL);
    format.setVersion(2, 1);
    format.setProfile(QSurfaceFormat::CompatibilityProfile);
    format.setDepthBufferSize(24);
    format.setSwapInterval(0);
    return format;
}

void tzGLWindow::releaseGL()
{
    if (!m_buffers)
        return;
    if (context() && isValid()) {
        makeCurrent();
        m_buffers->release();
        if (m_sprites)
            m_sprites->release();
        m_eyeDome->release();
        m_cloudLayer.reset();
        doneCurrent();
    }
    m_buffers.reset();
    m_sprites.reset();
    m_eyeDome.reset();
    m_cloudLayer.reset(); // its context is gone: its GL objects went with it
}

bool tzGLWindow::prepareCloud(const tzGenericPointCloud &cloud, unsigned &done, unsigned count)
{
    if (!m_buffers || !context() || !isValid()) {
        done = cloud.size();
        return true;
    }
    makeCurrent();
    const unsigned before = done;
    const bool complete = m_buffers->prepare(cloud, done, count);
    doneCurrent();
    if (!complete && done == before) {
        // The GL refused: the first frame will try again, as for any cloud.
        forgetPreparedCloud(cloud.getUniqueID());
        done = cloud.size();
        return true;
    }
    return complete;
}

void tzGLWindow::forgetPreparedCloud(unsigned cloudID)
{
    if (!m_buffers || !context() || !isValid())
        return;
    makeCurrent();
    m_buffers->forget(cloudID);
    doneCurrent();
}

void tzGLWindow::setSceneDB(tzHObject *root)
{
    m_sceneRoot = root;
    m_cameraSet = false;
    update();
}

void tzGLWindow::addToViewDatabase(tzHObject *object, bool noDependency)
{
    if (!object)
        return;
    m_viewDB.addChild(object, noDependency ? DP_NONE : DP_PARENT_OF_OTHER);
    object->setDisplay(this);
}

void tzGLWindow::removeFromViewDatabase(tzHObject *object)
{
    if (m_viewDB.getChildIndex(object) >= 0)
        m_viewDB.detachChild(object);
}

void tzGLWindow::setPreview(tzGenericPointCloud *cloud)
{
    if (m_preview) {
        removeFromViewDatabase(m_preview);
        forgetPreparedCloud(m_preview->getUniqueID());
        m_bounds.erase(m_preview->getUniqueID());
    }
    m_preview = cloud;
    if (cloud)
        addToViewDatabase(cloud);
    redraw();
}

void tzGLWindow::redraw(bool only2D, bool resetLOD)
{
    Q_UNUSED(only2D)
    if (resetLOD && m_interacting && m_pressButton == Qt::NoButton)
        endInteraction();
    // Qt merges the requests made before the next frame into one. Requests that come in a
    // stream (objects arriving from another program, say) are also paced: a frame starts at
    // least twice its predecessor's time after it, so that drawing never takes more than about
    // half of the GUI thread away from what feeds it.
    // What the next frame costs: the last one's time, less its drawing of the clouds' layer
    // when the layer stays valid (a preview after the camera stopped is not paced by the full
    // frame before it).
    if (m_paceTimer.isActive())
        return;
    const qint64 cost = m_layerDeprecated ? m_lastFrameNs : m_lastFrameNs - m_lastLayerNs;
    const qint64 wait
        = m_lastFrameStartNs + std::max(MIN_FRAME_SPACING_NS, 2 * cost) - m_clock.nsecsElapsed();
    if (wait <= 0)
        update();
    else
        m_paceTimer.start(int((wait + 999999) / 1000000));
}

void tzGLWindow::beginInteraction()
{
    m_interacting = true;
    m_restTimer.stop();
}

void tzGLWindow::endInteraction()
{
    m_restTimer.stop();
    if (!m_interacting)
        return;
    m_interacting = false;
    update();
}

void tzGLWindow::displayText(const QString &text, int x, int y, int align, float bkgAlpha,
                             const QColor &color, const QFont *font)
{
    m_overlay.addText(text, x, y, align, bkgAlpha, color, font ? *font : this->font());
}

void tzGLWindow::showViewMessage(const QString &message, MessagePosition position, bool append,
                                 int delaySec, int type)
{
    m_overlay.showMessage(message, position, append, delaySec, type);
    update();
}

void tzGLWindow::setViewportParameters(const tzViewportParameters &params)
{
    const TZVector3d before = m_camera.params.cameraCenter;
    m_camera.params = params;
    m_cameraSet = true;
    if (before != params.cameraCenter)
        emit cameraPosChanged(params.cameraCenter);
    update();
}

void tzGLWindow::setPerspectiveState(bool perspective, bool objectCentered)
{
    tzViewportParameters &p = m_camera.params;
    if (perspective != p.perspectiveView) {
        // Keep the scale at the pivot: the same pixel size on both sides of the switch.
        const double ps = m_camera.pixelSize();
        p.perspectiveView = perspective;
        if (perspective) {
            const double distance = ps * m_camera.focal();
            p.cameraCenter = p.pivotPoint - m_camera.viewDir() * distance;
        } else {
            p.pixelSize = ps * p.zoom;
        }
        emit cameraPosChanged(p.cameraCenter);
    }
    p.objectCenteredView = objectCentered;
    update();
}

void tzGLWindow::setFov(float degrees)
{
    if (degrees > 0 && degrees < 180)
        m_camera.params.fov_deg = degrees;
    update();
}

void tzGLWindow::setPivotPoint(const TZVector3d &P)
{
    m_camera.params.pivotPoint = P;
    update();
}

void tzGLWindow::setCameraPos(const TZVector3d &P)
{
    m_camera.params.cameraCenter = P;
    m_cameraSet = true;
    emit cameraPosChanged(P);
    update();
}

void tzGLWindow::setViewpointMode(bool on)
{
    if (on) {
        if (!m_viewpointMode)
            m_beforeViewpoint = m_camera.params;
        m_viewpointMode = true;
        m_camera.params.perspectiveView = true;
        m_camera.params.objectCenteredView = false;
        m_camera.params.fov_deg = 90.f;
    } else if (m_viewpointMode) {
        m_viewpointMode = false;
        const TZVector3d before = m_camera.params.cameraCenter;
        m_camera.params = m_beforeViewpoint;
        if (before != m_camera.params.cameraCenter)
            emit cameraPosChanged(m_camera.params.cameraCenter);
    }
    m_cameraSet = true;
    update();
}

void tzGLWindow::setCustomView(const TZVector3d &forward, const TZVector3d &up)
{
    m_camera.setCustomView(forward, up);
    m_cameraSet = true;
    update();
}

void tzGLWindow::setZNearCoef(double coef)
{
    if (coef > 0 && coef < 1)
        m_camera.params.zNearCoef = coef;
    update();
}

void tzGLWindow::setPointSize(float size)
{
    m_pointSize = std::max(0.f, std::min(size, 16.f));
    update();
}

std::vector<tzGenericPointCloud *> tzGLWindow::visibleClouds() const
{
    std::vector<tzGenericPointCloud *> clouds;
    collectClouds(m_sceneRoot, clouds);
    collectClouds(&m_viewDB, clouds);
    return clouds;
}

bool tzGLWindow::cloudBounds(const tzGenericPointCloud *cloud, TZVector3d &min, TZVector3d &max)
{
    // Scanning a large cloud takes milliseconds: once per content version is enough.
    BoundsCache &cached = m_bounds[cloud->getUniqueID()];
    if (cached.version != cloud->contentVersion() || !cached.valid) {
        cached.version = cloud->contentVersion();
        cached.valid = false;
        const TZLib::Octree *octree = cloud->getOctree();
        TZVector3 a, b;
        if (octree && octree->pointCount() == cloud->size() && cloud->size() > 0) {
            octree->getBoundingBox(cached.min, cached.max);
            cached.valid = true;
        } else if (cloud->getBoundingBox(a, b)) {
            cached.min = TZVector3d(a.x, a.y, a.z);
            cached.max = TZVector3d(b.x, b.y, b.z);
            cached.valid = true;
        }
    }
    min = cached.min;
    max = cached.max;
    return cached.valid;
}

bool tzGLWindow::updateSceneBounds(TZVector3d &min, TZVector3d &max)
{
    bool any = false;
    for (tzGenericPointCloud *cloud : visibleClouds()) {
        TZVector3d lo, hi;
        if (!cloudBounds(cloud, lo, hi))
            continue;
        if (!any) {
            min = lo;
            max = hi;
            any = true;
        }
        for (int d = 0; d < 3; ++d) {
            min[d] = std::min(min[d], lo[d]);
            max[d] = std::max(max[d], hi[d]);
        }
    }
    if (any)
        m_camera.setSceneBounds(min, max);
    return any;
}

void tzGLWindow::zoomGlobal()
{
    TZVector3d mn, mx;
    if (!updateSceneBounds(mn, mx))
        return;
    m_camera.fit(mn, mx);
    m_cameraSet = true;
    emit cameraPosChanged(m_camera.params.cameraCenter);
    update();
}

void tzGLWindow::setTopView()
{
    m_camera.setCustomView({0, 0, -1}, {0, 1, 0});
    zoomGlobal();
}

void tzGLWindow::setObliqueView()
{
    m_camera.setCustomView({0.55, 0.65, -0.52}, {0, 0, 1});
    zoomGlobal();
}

tzDrawContext tzGLWindow::makeContext(int flags)
{
    tzDrawContext context;
    context.drawingFlags = flags;
    context.glW = m_camera.width;
    context.glH = m_camera.height;
    context.display = this;
    context.qGLContext = QOpenGLWidget::context();
    context.glFunctions = m_gl;
    context.cloudRenderer = m_buffers.get();
    context.viewportParams = &m_camera.params;
    context.pixelSize = m_camera.pixelSize();
    context.labelFont = font();
    context.pointSize = std::max(1.f, m_pointSize);
    context.pointBudget = m_interacting ? m_interactionBudget : 0;
    context.perspective = m_camera.params.perspectiveView;
    return context;
}

void tzGLWindow::initializeGL()
{
    m_gl = QOpenGLWidget::context()->versionFunctions<QOpenGLFunctions_2_1>();
    if (m_gl)
        m_gl->initializeOpenGLFunctions();
    m_buffers = std::make_unique<tzCloudBuffers>();
    m_eyeDome = std::make_unique<tzEyeDome>();
    m_sprites = std::make_unique<tzSphereSprites>();
    if (!m_sprites->initialize())
        m_sprites.reset();
    // The buffers belong to this context: free them while it still exists.
    m_contextGoing = connect(QOpenGLWidget::context(), &QOpenGLContext::aboutToBeDestroyed, this,
                             &tzGLWindow::releaseGL, Qt::DirectConnection);
}

void tzGLWindow::resizeGL(int w, int h)
{
    m_camera.width = std::max(1, w);
    m_camera.height = std::max(1, h);
}

void tzGLWindow::resizeEvent(QResizeEvent *event)
{
    m_camera.width = std::max(1, event->size().width());
    m_camera.height = std::max(1, event->size().height());
    QOpenGLWidget::resizeEvent(event);
}

void tzGLWindow::drawScene(tzDrawContext &context)
{
    if (m_sceneRoot)
        m_sceneRoot->draw(context);
    m_viewDB.draw(context);
}

void tzGLWindow::paintGL()
{
    m_camera.width = std::max(1, width());
    m_camera.height = std::max(1, height());
    if (!m_gl)
        return;
    if (!m_cameraSet && !visibleClouds().empty())
        zoomGlobal();
    TZVector3d sceneMin, sceneMax;
    updateSceneBounds(sceneMin, sceneMax);

    QOpenGLFunctions_2_1 *gl = m_gl;
    m_lastFrameStartNs = m_clock.nsecsElapsed();
    m_overlay.clearTexts();
    // The 3D pass is a foreground pass: objects that draw markers and labels expect both bits.
    tzDrawContext context3D = makeContext(TZ_DRAW_3D | TZ_DRAW_FOREGROUND);
    context3D.spheres = m_sprites.get();
    const auto drawOthers = [this, gl](tzDrawContext &context) {
        drawScene(context);
        if (m_sprites)
            m_sprites->flush(gl, m_camera.height);
    };
    const auto loadCamera = [this, gl] {
        gl->glViewport(0, 0, m_camera.width, m_camera.height);
        gl->glMatrixMode(GL_PROJECTION);
        gl->glLoadMatrixf(m_camera.projection().constData());
        gl->glMatrixMode(GL_MODELVIEW);
        gl->glLoadMatrixf(m_camera.modelView().constData());
    };
    // The clouds are drawn into their own layer only when the camera or the clouds changed;
    // other frames copy it and draw the other objects over it (with its depth).
    const bool layered = QOpenGLFramebufferObject::hasOpenGLFramebufferObjects()
        && QOpenGLFramebufferObject::hasOpenGLFramebufferBlit()
        && QOpenGLWidget::format().samples() <= 1;
    const quint64 layerDraws = m_layerDraws;
    m_lastLayerNs = 0;
    if (layered && drawCloudLayer(context3D)) {
        QOpenGLFramebufferObject::blitFramebuffer(
            nullptr, QRect(0, 0, m_camera.width, m_camera.height), m_cloudLayer.get(),
            QRect(0, 0, m_camera.width, m_camera.height), GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT,
            GL_NEAREST);
        // (The copy waits for the layer's drawing: both are the layer's cost.)
        if (m_layerDraws != layerDraws) {
            m_lastLayerNs = m_clock.nsecsElapsed() - m_lastFrameStartNs;
            if (!m_interacting)
                m_buffers->adaptStillBudget(m_lastLayerNs);
        }
        context3D.layer = TZ_LAYER_OTHERS;
        gl->glEnable(GL_DEPTH_TEST);
        loadCamera();
        drawOthers(context3D);
    } else {
        gl->glViewport(0, 0, m_camera.width, m_camera.height);
        gl->glClearColor(0.10f, 0.12f, 0.16f, 1.f);
        gl->glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
        gl->glEnable(GL_DEPTH_TEST);
        loadCamera();
        m_buffers->beginFrame();
        drawOthers(context3D);
        m_buffers->endFrame();
    }

    // 2D foreground pass: origin at the centre of the view, y upwards, in pixels.
    gl->glDisable(GL_DEPTH_TEST);
    gl->glMatrixMode(GL_PROJECTION);
    gl->glLoadIdentity();
    gl->glOrtho(-0.5 * m_camera.width, 0.5 * m_camera.width, -0.5 * m_camera.height,
                0.5 * m_camera.height, -1, 1);
    gl->glMatrixMode(GL_MODELVIEW);
    gl->glLoadIdentity();
    tzDrawContext context2D = makeContext(TZ_DRAW_2D | TZ_DRAW_FOREGROUND);
    drawScene(context2D);

    drawOverlayTexts();
    if (const tzPointCloud *cloud = legendCloud()) {
        QPainter painter(this);
        tzLegend::draw(painter, *cloud, QRect(0, 0, m_camera.width, m_camera.height));
    }
    m_lastFrameNs = m_clock.nsecsElapsed() - m_lastFrameStartNs;
    ++m_frames;
    emit frameDrawn();
}

void tzGLWindow::setShading(Shading shading)
{
    m_shading = shading;
    redraw();
}

bool tzGLWindow::eyeDomeShown() const
{
    if (m_shading != Shading::Automatic)
        return m_shading == Shading::EyeDome;
    for (const tzGenericPointCloud *cloud : visibleClouds()) {
        const auto *shown = dynamic_cast<const tzPointCloud *>(cloud);
        if (shown && !shown->colorsShown() && !shown->plainColour())
            return true;
    }
    return false;
}

const tzPointCloud *tzGLWindow::legendCloud() const
{
    std::vector<const tzPointCloud *> clouds;
    for (const tzGenericPointCloud *cloud : visibleClouds()) {
        if (const auto *shown = dynamic_cast<const tzPointCloud *>(cloud))
            clouds.push_back(shown);
    }
    return tzLegend::cloudToExplain(clouds);
}

QByteArray tzGLWindow::cloudLayerKey(const tzDrawContext &context) const
{
    // Everything the drawn clouds depend on.
    QByteArray key;
    QDataStream out(&key, QIODevice::WriteOnly);
    out << m_camera.width << m_camera.height << m_camera.projection() << m_camera.modelView()
        << context.pointSize << context.pointBudget << context.pointsDefaultColor;
    for (const tzGenericPointCloud *cloud : visibleClouds()) {
        out << eyeDomeShown();
        out << cloud->getUniqueID() << cloud->contentVersion() << cloud->size()
            << cloud->getPointSize() << cloud->isTempColorEnabled() << cloud->getTempColor();
        if (const auto *shown = dynamic_cast<const tzPointCloud *>(cloud))
            out << shown->displayVersion();
    }
    return key;
}

bool tzGLWindow::drawCloudLayer(tzDrawContext &context)
{
    const QSize size(m_camera.width, m_camera.height);
    if (!m_cloudLayer || m_cloudLayer->size() != size) {
        m_cloudLayer = std::make_unique<QOpenGLFramebufferObject>(
            size, QOpenGLFramebufferObject::CombinedDepthStencil);
        m_layerDeprecated = true;
    }
    if (!m_cloudLayer->isValid()) {
        // No layer on this driver (or not at this size): the frame draws everything itself.
        m_cloudLayer.reset();
        return false;
    }
    const QByteArray key = cloudLayerKey(context);
    if (!m_layerDeprecated && key == m_layerKey)
        return true;
    QOpenGLFunctions_2_1 *gl = m_gl;
    // Shaded, the clouds are drawn into the shading's target first, and the shaded picture
    // (with the same depths) goes to the layer.
    const bool shaded
        = eyeDomeShown() && m_eyeDome && m_eyeDome->bindTarget(m_camera.width, m_camera.height);
    if (!shaded)
        m_cloudLayer->bind();
    gl->glViewport(0, 0, m_camera.width, m_camera.height);
    gl->glClearColor(0.10f, 0.12f, 0.16f, 1.f);
    gl->glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
    gl->glEnable(GL_DEPTH_TEST);
    gl->glMatrixMode(GL_PROJECTION);
    gl->glLoadMatrixf(m_camera.projection().constData());
    gl->glMatrixMode(GL_MODELVIEW);
    gl->glLoadMatrixf(m_camera.modelView().constData());
    tzDrawContext clouds = context;
    clouds.layer = TZ_LAYER_CLOUDS;
    clouds.spheres = nullptr;
    m_buffers->beginFrame();
    drawScene(clouds);
    m_buffers->endFrame();
    if (shaded) {
        m_cloudLayer->bind();
        double zNear = 0, zFar = 1;
        m_camera.depthRange(zNear, zFar);
        m_eyeDome->shade(float(zNear), float(zFar), m_camera.params.perspectiveView);
    }
    m_cloudLayer->release();
    m_layerKey = key;
    m_layerDeprecated = false;
    ++m_layerDraws;
    return true;
}

void tzGLWindow::drawOverlayTexts()
{
    if (!m_overlay.pending())
        return;
    QFont messageFont = font();
    messageFont.setPointSize(messageFont.pointSize() + 1);
    QPainter painter(this);
    const qint64 next
        = m_overlay.paint(painter, QSize(m_camera.width, m_camera.height), messageFont);
    painter.end();
    if (next >= 0)
        m_messageTimer.start(int(std::min<qint64>(next, 1 << 30)));
}

bool tzGLWindow::pickPoint(int x, int y, tzGenericPointCloud *&cloud, unsigned &index, TZVector3 &P,
                           double tolerancePx)
{
    m_camera.width = std::max(1, width());
    m_camera.height = std::max(1, height());
    tzPointPicker::Result result;
    std::vector<tzGenericPointCloud *> clouds = visibleClouds();
    clouds.erase(std::remove(clouds.begin(), clouds.end(), m_preview), clouds.end());
    if (!tzPointPicker::pick(m_camera, clouds, x + 0.5, y + 0.5, tolerancePx, result))
        return false;
    cloud = result.cloud;
    index = result.index;
    P = result.P;
    return true;
}

bool tzGLWindow::getClick3DPos(int x, int y, TZVector3d &P)
{
    tzGenericPointCloud *cloud = nullptr;
    unsigned index = 0;
    TZVector3 p;
    if (!pickPoint(x, y, cloud, index, p))
        return false;
    P = TZVector3d(p.x, p.y, p.z);
    return true;
}

tzHObject *tzGLWindow::findObject(unsigned id)
{
    tzHObject *entity = m_sceneRoot ? m_sceneRoot->find(id) : nullptr;
    return entity ? entity : m_viewDB.find(id);
}

tzHObject *tzGLWindow::pickForeground(int x, int y)
{
    if (!m_gl || !isValid())
        return nullptr;
    makeCurrent();
    tzSelectionPicker::Hit hit;
    const bool found = m_selection.foreground(m_gl, x, y, hit);
    doneCurrent();
    return found ? findObject(hit.name) : nullptr;
}

tzHObject *tzGLWindow::pickEntity(int x, int y, TZVector3 *P, bool *foreground)
{
    if (!m_gl || !isValid())
        return nullptr;
    makeCurrent();
    // The 2D foreground (labels) lies over everything: a hit there wins.
    tzSelectionPicker::Hit hit;
    const bool in2D = m_selection.foreground(m_gl, x, y, hit);
    const bool in3D = !in2D && pickScene(x, y, hit);
    doneCurrent();
    if (foreground)
        *foreground = in2D;
    if (!in2D && !in3D)
        return nullptr;
    tzHObject *entity = findObject(hit.name);
    if (entity && P) {
        TZVector3d p;
        if (in3D)
            p = m_camera.unproject(x + 0.5, y + 0.5, hit.depth);
        else if (!getClick3DPos(x, y, p)) // a label: the point under it, if any
            p = TZVector3d();
        *P = TZVector3(float(p.x), float(p.y), float(p.z));
    }
    return entity;
}

bool tzGLWindow::pickScene(int x, int y, tzSelectionPicker::Hit &hit)
{
    // Lines laid on the ground are hit only where they pass within LINE_PICKING_TOLERANCE_PX of
    // the click's pixel centre, the rest within PICKING_TOLERANCE_PX about the click's pixel:
    // one pass for each, the nearer hit of the two.
    const auto onLinesOnly = [this](unsigned name) {
        const tzHObject *object = findObject(name);
        return object && object->isPickedOnlyOnItsLines();
    };
    tzSelectionPicker::Hit wide, narrow;
    const bool wideFound
        = m_selection.scene(m_gl, x, y, wide, 2 * PICKING_TOLERANCE_PX + 1,
                            [&onLinesOnly](unsigned name) { return !onLinesOnly(name); });
    const bool narrowFound
        = m_selection.scene(m_gl, x, y, narrow, 2 * LINE_PICKING_TOLERANCE_PX, onLinesOnly);
    if (!wideFound && !narrowFound)
        return false;
    hit = !narrowFound || (wideFound && wide.depth <= narrow.depth) ? wide : narrow;
    return true;
}

void tzGLWindow::onClick(const QPoint &pos)
{
    if (m_pickingMode == NO_PICKING)
        return;
    tzGenericPointCloud *cloud = nullptr;
    unsigned index = 0;
    TZVector3 P;
    const bool onPoint = pickPoint(pos.x(), pos.y(), cloud, index, P);
    const bool wantsEntities = m_pickingMode == DEFAULT_PICKING || m_pickingMode == ENTITY_PICKING
        || m_pickingMode == FAST_PICKING || m_pickingMode == LABEL_PICKING
        || m_pickingMode == POINT_OR_TRIANGLE_OR_LABEL_PICKING;
    TZVector3 entityP;
    bool foreground = false;
    tzHObject *entity
        = wantsEntities ? pickEntity(pos.x(), pos.y(), &entityP, &foreground) : nullptr;
    if (entity && onPoint && !foreground) {
        // The nearer of the two wins.
        double ex, ey, entityDepth, px, py, pointDepth;
        m_camera.project(TZVector3d(entityP.x, entityP.y, entityP.z), ex, ey, entityDepth);
        m_camera.project(TZVector3d(P.x, P.y, P.z), px, py, pointDepth);
        if (pointDepth < entityDepth)
            entity = nullptr;
    }
    if (m_pickingMode == DEFAULT_PICKING) {
        emit entitySelectionChanged(entity ? entity : cloud);
        return;
    }
    if (entity)
        emit itemPicked(entity, 0, pos.x(), pos.y(), entityP);
    else if (onPoint && m_pickingMode != ENTITY_PICKING && m_pickingMode != LABEL_PICKING)
        emit itemPicked(cloud, index, pos.x(), pos.y(), P);
}

void tzGLWindow::mousePressEvent(QMouseEvent *event)
{
    m_pressPos = m_lastPos = event->pos();
    m_pressButton = event->button();
    m_dragged = false;
    m_draggedBox = 0;
    if (event->button() == Qt::LeftButton) {
        tzHObject *box = pickForeground(event->x(), event->y());
        if (dynamic_cast<tzInteractor *>(box)) {
            m_draggedBox = box->getUniqueID();
            m_boxPos = event->pos();
            event->accept();
            return;
        }
    }
    if (event->button() == Qt::LeftButton && !m_camera.params.perspectiveView) {
        // Rotations turn about the point under the cursor when there is one.
        TZVector3d P;
        if (m_camera.params.objectCenteredView && getClick3DPos(event->x(), event->y(), P))
            m_camera.params.pivotPoint = P;
    }
    event->accept();
}

void tzGLWindow::keyPressEvent(QKeyEvent *event)
{
    event->accept();
}

void tzGLWindow::keyReleaseEvent(QKeyEvent *event)
{
    event->accept();
}

void tzGLWindow::mouseMoveEvent(QMouseEvent *event)
{
    const QPoint delta = event->pos() - m_lastPos;
    m_lastPos = event->pos();
    emit mouseMoved(event->x(), event->y(), event->buttons());
    if (event->buttons() == Qt::NoButton)
        return;
    if ((event->pos() - m_pressPos).manhattanLength() > CLICK_SLOP_PX)
        m_dragged = true;
    if (!m_dragged)
        return;
    if (m_draggedBox) {
        // The box follows the mouse; the camera stays.
        auto *box = dynamic_cast<tzInteractor *>(findObject(m_draggedBox));
        const QPoint moved = event->pos() - m_boxPos;
        m_boxPos = event->pos();
        if (box && box->move2D(event->x(), event->y(), moved.x(), moved.y(), width(), height()))
            update();
        return;
    }
    beginInteraction();
    if (event->buttons() & Qt::LeftButton) {
        const double length = std::hypot(double(delta.x()), double(delta.y()));
        if (length > 0)
            m_camera.rotate(TZVector3d(delta.y(), delta.x(), 0), length * ROTATION_PER_PIXEL);
    } else if (event->buttons() & (Qt::RightButton | Qt::MiddleButton)) {
        m_camera.pan(delta.x(), delta.y());
    }
    emit cameraPosChanged(m_camera.params.cameraCenter);
    update();
}

void tzGLWindow::mouseReleaseEvent(QMouseEvent *event)
{
    if (event->button() == Qt::LeftButton && m_pressButton == Qt::LeftButton && !m_dragged)
        onClick(event->pos());
    m_pressButton = Qt::NoButton;
    if (m_dragged && !m_draggedBox)
        m_restTimer.start();
    m_dragged = false;
    m_draggedBox = 0;
}

void tzGLWindow::wheelEvent(QWheelEvent *event)
{
    const double steps = event->angleDelta().y() / 120.0;
    if (steps == 0)
        return;
    beginInteraction();
    m_restTimer.start();
    m_camera.zoom(std::pow(1.2, steps));
    if (m_camera.params.perspectiveView)
        emit cameraPosChanged(m_camera.params.cameraCenter);
    update();
    event->accept();
}
