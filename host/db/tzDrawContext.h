#pragma once

#include "TZVector3.h"
#include "qtz_db_global.h"

#include <QColor>
#include <QFont>
#include <QString>

class QOpenGLContext;
class QOpenGLFunctions_2_1;
class tzGenericGLDisplay;
class tzGenericPointCloud;
struct tzDrawContext;
struct tzViewportParameters;

//! Draws point clouds from buffers that the view keeps on the GPU (implemented by the view).
class QTZ_DB_LIB_API tzCloudRenderer
{
public:
    virtual ~tzCloudRenderer() = default;
    virtual void drawCloud(const tzGenericPointCloud &cloud, tzDrawContext &context) = 0;
};

//! Small spheres of one 3D pass (markers: a few pixels across, often thousands), which the view
//! draws all at once at the end of the pass instead of one object at a time (implemented by the
//! view).
class QTZ_DB_LIB_API tzSphereBatch
{
public:
    virtual ~tzSphereBatch() = default;
    //! A sphere flat in one colour; centre and radius in the pass's coordinates (the view's
    //! model-view, no transformation of the object's own).
    virtual void addSphere(const TZVector3 &centre, float radius, const QColor &colour) = 0;
};

//! Flags of a draw pass (tzDrawContext::drawingFlags).
enum tzDrawFlags : int {
    TZ_DRAW_2D = 1,
    TZ_DRAW_3D = 2,
    TZ_DRAW_FOREGROUND = 4,
    TZ_ENTITY_PICKING = 64,
    TZ_FAST_ENTITY_PICKING = 512,
};

//! Which objects a 3D pass draws: the view keeps the drawn clouds as a layer of their own and
//! draws the other objects over it.
enum tzDrawLayer : int {
    TZ_LAYER_ALL = 0,
    TZ_LAYER_CLOUDS = 1, // point clouds only
    TZ_LAYER_OTHERS = 2, // everything but point clouds
};

//! Everything a drawable needs during one pass of the view: which pass, the GL functions, the
//! view size and the display settings of labels and numbers.
struct tzDrawContext
{
    int drawingFlags = 0;
    int glW = 0; // view width in pixels
    int glH = 0; // view height in pixels
    tzGenericGLDisplay *display = nullptr;
    QOpenGLContext *qGLContext = nullptr;
    QOpenGLFunctions_2_1 *glFunctions = nullptr;
    tzCloudRenderer *cloudRenderer = nullptr;
    //! The camera of the view being drawn (null outside a view's pass).
    const tzViewportParameters *viewportParams = nullptr;
    //! World units per pixel at the pivot (orthographic: everywhere).
    double pixelSize = 1.0;
    float labelMarkerSize = 5.f; // pixels
    float labelMarkerTextShift = 0.f;
    QFont labelFont;
    int dispNumberPrecision = 6;
    QColor labelDefaultColor = QColor(255, 255, 0);
    QColor pointsDefaultColor = QColor(255, 255, 255);
    float renderZoom = 1.f;
    float pointSize = 1.f;
    //! While the camera moves, clouds draw at most about this many points each, evenly spread
    //! through the cloud, so that the view follows the mouse (0: every point).
    unsigned pointBudget = 0;
    bool perspective = false;
    int layer = TZ_LAYER_ALL;
    //! Where the pass's markers go, when the view can batch them (never in picking passes):
    //! null means each object draws its own.
    tzSphereBatch *spheres = nullptr;

    bool is2D() const { return drawingFlags & TZ_DRAW_2D; }
    bool is3D() const { return drawingFlags & TZ_DRAW_3D; }
    bool isPicking() const { return drawingFlags & TZ_ENTITY_PICKING; }
};

//! What a view offers to the objects it shows (implemented by the 3D view).
class QTZ_DB_LIB_API tzGenericGLDisplay
{
public:
    virtual ~tzGenericGLDisplay() = default;
    //! Requests a new frame; many requests before the next frame make one frame.
    virtual void redraw(bool only2D = false, bool resetLOD = true) = 0;
    //! Marks the 3D layer as out of date (the next frame redraws it).
    virtual void deprecate3DLayer() = 0;
    //! Draws text over the current frame. x, y: the anchor in pixels from the view's lower-left
    //! corner, y up (as a projection of a 3D point gives it); align: Qt::Alignment flags saying
    //! where the anchor lies on the text; bkgAlpha: opacity of a dark box behind it (0: none).
    virtual void displayText(const QString &text, int x, int y, int align, float bkgAlpha,
                             const QColor &color, const QFont *font)
        = 0;
};
