#pragma once

#include "TZVector3.h"
#include "qtz_gui_global.h"
#include "tzCamera.h"
#include "tzDrawContext.h"
#include "tzHObject.h"
#include "tzMetaTypes.h"
#include "tzOverlayTexts.h"
#include "tzSelectionPicker.h"

#include <QElapsedTimer>
#include <QMetaType>
#include <QOpenGLWidget>
#include <QPoint>
#include <QTimer>

#include <memory>
#include <unordered_map>
#include <vector>

class QOpenGLFramebufferObject;
class QOpenGLFunctions_2_1;
class tzCloudBuffers;
class tzEyeDome;
class tzPointCloud;
class tzSphereSprites;
class tzGenericPointCloud;

//! The 3D view: draws a scene tree and the view's own display list on an OpenGL 2.1
//! compatibility context, moves the camera with the mouse, and finds what lies under a click.
//!
//! Cloud points are found on the CPU with the octree (tzPointPicker); other objects through a
//! selection pass in which their drawMeOnly pushes their unique ID as GL name
//! (tzSelectionPicker). The texts and messages over the picture are tzOverlayTexts', the
//! clouds' GPU buffers tzCloudBuffers'.
class QTZ_GUI_LIB_API tzGLWindow : public QOpenGLWidget, public tzGenericGLDisplay
{
    Q_OBJECT

public:
    enum PICKING_MODE {
        NO_PICKING = 0,
        ENTITY_PICKING = 1,
        FAST_PICKING = 2,
        POINT_PICKING = 3,
        TRIANGLE_PICKING = 4,
        POINT_OR_TRIANGLE_PICKING = 5,
        POINT_OR_TRIANGLE_OR_LABEL_PICKING = 6,
        LABEL_PICKING = 7,
        DEFAULT_PICKING = 8,
    };
    using MessagePosition = tzOverlayTexts::MessagePosition;
    static constexpr MessagePosition LOWER_LEFT_MESSAGE = tzOverlayTexts::LOWER_LEFT_MESSAGE;
    static constexpr MessagePosition UPPER_CENTER_MESSAGE = tzOverlayTexts::UPPER_CENTER_MESSAGE;
    static constexpr MessagePosition SCREEN_CENTER_MESSAGE = tzOverlayTexts::SCREEN_CENTER_MESSAGE;
    enum MessageType { CUSTOM_MESSAGE = 0, PLUGIN_MESSAGE = 1 };

    //! How close to a click (in pixels) a point must lie to be picked.
    static constexpr double PICKING_TOLERANCE_PX = 3.0;
    //! How close to a click a line laid on the ground must pass to be picked
    //! (tzDrawableObject::isPickedOnlyOnItsLines); farther, the ground under the click is.
    static constexpr double LINE_PICKING_TOLERANCE_PX = 2.0;

    explicit tzGLWindow(QWidget *parent = nullptr);
    ~tzGLWindow() override;

    //! The OpenGL 2.1 compatibility format; the application sets it as the default before any
    //! widget exists.
    static QSurfaceFormat defaultFormat();

    //! The scene drawn (not owned).
    void setSceneDB(tzHObject *root);
    tzHObject *getSceneDB() const { return m_sceneRoot; }
    //! The view's own display list. noDependency: the view neither owns nor watches the object,
    //! which must leave the list before it is deleted.
    void addToViewDatabase(tzHObject *object, bool noDependency = true);
    void removeFromViewDatabase(tzHObject *object);
    //! Draws a first picture of a cloud still being read (not owned; null: none), in place of
    //! the one before; it is never picked (picks wait for the real points).
    void setPreview(tzGenericPointCloud *cloud);
    tzGenericPointCloud *preview() const { return m_preview; }
    tzHObject *getViewDatabase() { return &m_viewDB; }

    // tzGenericGLDisplay
    void redraw(bool only2D = false, bool resetLOD = true) override;
    //! The drawn clouds are kept between frames while the camera and the clouds stay the same;
    //! this draws them again at the next frame (for a change the view cannot see).
    void deprecate3DLayer() override
    {
        m_layerDeprecated = true;
        update();
    }
    //! How many times the cloud layer was drawn (the other frames reused it).
    quint64 cloudLayerDraws() const { return m_layerDraws; }
    void displayText(const QString &text, int x, int y, int align, float bkgAlpha,
                     const QColor &color, const QFont *font) override;

    //! Shows a message in one of the view's areas for delaySec seconds. Without append the
    //! area's messages of the same type are replaced; an empty text just clears them.
    void showViewMessage(const QString &message, MessagePosition position, bool append = false,
                         int delaySec = 2, int type = CUSTOM_MESSAGE);
    QStringList viewMessages(MessagePosition position) const
    {
        return m_overlay.messages(position);
    }

    void setPickingMode(int mode) { m_pickingMode = mode; }
    int getPickingMode() const { return m_pickingMode; }

    // Camera
    const tzViewportParameters &getViewportParameters() const { return m_camera.params; }
    void setViewportParameters(const tzViewportParameters &params);
    const tzCamera &camera() const { return m_camera; }
    void setPerspectiveState(bool perspective, bool objectCentered);
    bool perspectiveView() const { return m_camera.params.perspectiveView; }
    void setFov(float degrees);
    void setPivotPoint(const TZVector3d &P);
    //! Moves the camera centre (emits cameraPosChanged).
    void setCameraPos(const TZVector3d &P);
    //! Looking from a station (a photograph's): a perspective centred on the viewer with a
    //! 90-degree field of view. Switching it on keeps the viewport parameters it had (once, while
    //! it stays on); switching it off gives them back.
    void setViewpointMode(bool on);
    bool isViewpointMode() const { return m_viewpointMode; }
    void setCustomView(const TZVector3d &forward, const TZVector3d &up);
    TZVector3d getCurrentUpDir() const { return m_camera.upDir(); }
    TZVector3d getCurrentViewDir() const { return m_camera.viewDir(); }
    //! World units per pixel at the pivot.
    double computeActualPixelSize() const { return m_camera.pixelSize(); }
    //! The near-plane parameter (fraction of the far distance).
    void setZNearCoef(double coef);
    //! Frames every visible cloud.
    void zoomGlobal();
    //! Looks straight down, north up, and frames everything.
    void setTopView();
    //! Looks north-east and down from the south-west, as a surveyor walking up to the site,
    //! and frames everything.
    void setObliqueView();
    //! Eye-dome shading of the clouds: automatic (on while a cloud is shown without its own
    //! colours), always or never.
    enum class Shading { Automatic, EyeDome, None };
    void setShading(Shading shading);
    Shading shading() const { return m_shading; }
    //! Whether the clouds are shaded now (the setting, and for the automatic one the clouds).
    bool eyeDomeShown() const;
    //! The cloud whose colours the legend explains (null: no legend).
    const tzPointCloud *legendCloud() const;

    //! The point size of clouds without one of their own; 0 is kept (and drawn as 1).
    void setPointSize(float size);
    float getPointSize() const { return m_pointSize; }
    //! How many points a cloud draws at most while the camera moves (0: all); every point is
    //! drawn again once the camera rests.
    void setInteractionPointBudget(unsigned points) { m_interactionBudget = points; }
    unsigned interactionPointBudget() const { return m_interactionBudget; }
    //! Whether the camera is being moved (frames are drawn light).
    bool isInteracting() const { return m_interacting; }

    //! The front-most cloud point within tolerance of a pixel (window coordinates).
    bool pickPoint(int x, int y, tzGenericPointCloud *&cloud, unsigned &index, TZVector3 &P,
                   double tolerancePx = PICKING_TOLERANCE_PX);
    //! The 3D point under a pixel (the front-most cloud point there), false when there is none.
    bool getClick3DPos(int x, int y, TZVector3d &P);
    //! The object drawn under a pixel by the entity-picking passes (not clouds), or null: first
    //! the 2D foreground (labels; foreground set), then the 3D scene. P: the picked position.
    tzHObject *pickEntity(int x, int y, TZVector3 *P = nullptr, bool *foreground = nullptr);
    //! The object of the 2D foreground (a label's box) under a pixel, or null.
    tzHObject *pickForeground(int x, int y);

    //! Puts the next part of a cloud about to join the scene on the GPU (at most count points
    //! from `done`, which then counts what is there), so that a large upload leaves the event
    //! loop free between its steps. True once all of it is there, or when the view has no GL
    //! yet (the first frame uploads it then).
    bool prepareCloud(const tzGenericPointCloud &cloud, unsigned &done, unsigned count);
    //! Drops what prepareCloud() uploaded for a cloud that will not join the scene.
    void forgetPreparedCloud(unsigned cloudID);

    //! Visible clouds of the scene and the view's list.
    std::vector<tzGenericPointCloud *> visibleClouds() const;
    QOpenGLFunctions_2_1 *functions() const { return m_gl; }
    //! Frames drawn so far.
    quint64 frameCount() const { return m_frames; }
    //! How long the view's own drawing of the last frame took on the GUI thread (ms): without
    //! the window's composition of it, nor the driver's work left after it returned.
    double lastFrameDrawMs() const { return m_lastFrameNs / 1e6; }

signals:
    //! A click in a picking mode found something: the entity, the point index, the click's
    //! pixel and the picked point (entity's local coordinates).
    void itemPicked(tzHObject *entity, unsigned itemIndex, int x, int y, const TZVector3 &P);
    //! A click in the default mode: the entity under it (null: none).
    void entitySelectionChanged(tzHObject *entity);
    void cameraPosChanged(const TZVector3d &centre);
    void mouseMoved(int x, int y, Qt::MouseButtons buttons);
    void frameDrawn();

protected:
    void initializeGL() override;
    void resizeGL(int w, int h) override;
    //! Keeps the camera's size with the widget's at once (not at the next frame): what is
    //! projected meanwhile lands where the next frame and the next click put it.
    void resizeEvent(QResizeEvent *event) override;
    void paintGL() override;
    void mousePressEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;
    void wheelEvent(QWheelEvent *event) override;
    //! Keys that reach the view end there: they would otherwise go on to the main window, and
    //! whoever watches both (a plug-in's event filter) would see every press twice.
    void keyPressEvent(QKeyEvent *event) override;
    void keyReleaseEvent(QKeyEvent *event) override;
    //! Marks the camera as moving (frames are drawn light); a full frame follows endInteraction,
    //! which a short rest of the mouse also brings.
    void beginInteraction();
    void endInteraction();

private:
    tzDrawContext makeContext(int flags);
    void drawScene(tzDrawContext &context);
    void drawOverlayTexts();
    void onClick(const QPoint &pos);
    //! An object of the scene or of the view's own list by its unique ID, or null.
    tzHObject *findObject(unsigned id);
    //! The 3D scene's object about a pixel, each within its own tolerance (context current).
    bool pickScene(int x, int y, tzSelectionPicker::Hit &hit);
    //! The bounds of the visible clouds (also given to the camera); false when there are none.
    bool updateSceneBounds(TZVector3d &min, TZVector3d &max);
    bool cloudBounds(const tzGenericPointCloud *cloud, TZVector3d &min, TZVector3d &max);
    void releaseGL();

    tzHObject *m_sceneRoot = nullptr;
    tzGenericPointCloud *m_preview = nullptr; // in the view database while shown
    tzHObject m_viewDB;
    tzCamera m_camera;
    bool m_cameraSet = false; // false until a camera is set or fitted
    QOpenGLFunctions_2_1 *m_gl = nullptr;
    std::unique_ptr<tzCloudBuffers> m_buffers;
    std::unique_ptr<tzSphereSprites> m_sprites; // null when this GL cannot batch markers
    std::unique_ptr<tzEyeDome> m_eyeDome;
    Shading m_shading = Shading::Automatic;
    // The cloud layer: colour and depth of the clouds alone, and what they were drawn with.
    std::unique_ptr<QOpenGLFramebufferObject> m_cloudLayer;
    QByteArray m_layerKey;
    bool m_layerDeprecated = true;
    quint64 m_layerDraws = 0;
    QByteArray cloudLayerKey(const tzDrawContext &context) const;
    //! Draws the clouds into the layer if it is out of date; false when no layer can be made.
    bool drawCloudLayer(tzDrawContext &context);
    QMetaObject::Connection m_contextGoing;
    int m_pickingMode = DEFAULT_PICKING;
    float m_pointSize = 1.f;
    tzOverlayTexts m_overlay;
    tzSelectionPicker m_selection;
    struct BoundsCache
    {
        quint64 version = 0;
        bool valid = false;
        TZVector3d min, max;
    };
    std::unordered_map<unsigned, BoundsCache> m_bounds; // by cloud unique ID
    QTimer m_messageTimer;
    QElapsedTimer m_clock;
    // Pacing of the frames asked for by redraw().
    static constexpr qint64 MIN_FRAME_SPACING_NS = 33000000;
    QTimer m_paceTimer;
    qint64 m_lastFrameStartNs = 0;
    qint64 m_lastFrameNs = 0;
    qint64 m_lastLayerNs = 0; // of the last frame, drawing the clouds' layer (0: kept)
    QPoint m_pressPos;
    //! The foreground object (a draggable box) the left button went down on: the drag moves
    //! it instead of the camera. 0: none.
    unsigned m_draggedBox = 0;
    bool m_viewpointMode = false;
    tzViewportParameters m_beforeViewpoint; // restored when the viewpoint mode ends
    QPoint m_boxPos; // where the mouse held the box last
    QPoint m_lastPos;
    Qt::MouseButton m_pressButton = Qt::NoButton;
    bool m_dragged = false;
    bool m_interacting = false;
    unsigned m_interactionBudget = 1000000;
    QTimer m_restTimer;
    quint64 m_frames = 0;
};
