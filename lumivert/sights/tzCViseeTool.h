#pragma once

#include "Octree.h"
#include "tzSightToolHost.h"
#include "tzTool.h"
#include "tzXentity.h"

#include <QPoint>

#include <memory>

class QMouseEvent;
class tzCVisee;
class tzMouseCircle;
class tzPointCloud;
class tzPolyline;

//! The tool through which the surveyor places and moves sights with the mouse.
//!
//! While it is active a working sight follows the cursor as a preview; a pick fixes it into the
//! sights' group, tells the companion ("coordonnees") and starts a new working sight. A pick near
//! an existing sight selects it and the next pick moves it ("pointMove"). In lowest-point mode
//! (or with Z held at the pick) a sight keeps the picked x and y and takes the height of the
//! lowest cloud point in a vertical cylinder below the pick: the ground under vegetation.
class tzCViseeTool : public tzTool
{
public:
    enum Mode { OFF = 0, LOWEST_POINT = 1, SIMPLE_POINT = 2 };
    //! Cursor reports to the companion are at least this far apart (milliseconds).
    static constexpr qint64 CURSOR_REPORT_SPACING_MS = 500;

    //! host: the run that drives the tool (its settings, keys, switch and link), or null.
    explicit tzCViseeTool(tzSightToolHost *host);
    ~tzCViseeTool() override;

    //! The frame between the companion's coordinates and the scene's, which the tool takes from
    //! the picked cloud at each pick and the sights it makes are drawn in (the run shares it
    //! with its link).
    void setFrame(std::shared_ptr<tzCoordinateFrame> frame);
    const tzCoordinateFrame &frame() const { return *m_frame; }

    void toolActivated() override;
    void toolDeactivated() override;
    using tzTool::pointPicked;
    void pointPicked(tzHObject *insertionParent, unsigned pointIndex, tzPointCloud *cloud,
                     const TZVector3 &P) override;
    //! A click on a sight's marker (the view picks the marker before the point below it)
    //! selects that sight: the next pick moves it, as after a pick near it.
    void pointPicked(tzHObject *insertionParent, unsigned itemIndex, tzHObject *entity,
                     const TZVector3 &P) override;

    tzSightToolHost *host() const { return m_host; }
    int mode() const { return m_mode; }
    void setMode(int mode) { m_mode = mode; }
    //! Sights placed next go on the lowest point below the pick.
    void setLowestPointSearch() { m_mode = LOWEST_POINT; }
    //! The group of the sights placed by the tool, "mesures" (made when missing), null
    //! without app.
    tzHObject *sightContainer(tzApplicationInterface *app) const;
    //! The point the companion measures from ("mesure" frames): the coordinates of the sight it
    //! names, or the origin when it names none.
    const TZVector3 &referencePoint() const { return m_referencePoint; }
    void setReferencePoint(const TZVector3 &point) { m_referencePoint = point; }
    //! A mouse move over the view while this tool is active: the preview follows the cursor,
    //! and the cursor's position goes to the companion at most every half second.
    void onMouseMove(QMouseEvent *event, tzGLWindow *view);

    //! The lowest point of cloud in the vertical cylinder of radius "accuaryLowestPoint" that
    //! goes 20 units down from C; on equal heights the first met stays. False when the cylinder
    //! is empty (lowest and index are then left as they were).
    bool findLowestPoint(const TZVector3 &C, TZVector3 &lowest, int &index) const;

    tzCVisee *workingSight() const { return m_workingSight; }
    //! The sight selected by a pick near it, which the next pick moves (null: none).
    tzCVisee *movingSight() const { return m_movingSight; }
    //! Drops what a click started and the next one would finish: the sight being moved.
    void cancel() override;
    //! Whether the cursor was near an existing sight at the last mouse move.
    bool isNearSight() const { return m_nearFlag; }
    tzMouseCircle *mouseCircle() const { return m_mouseCircle; }
    tzPolyline *rubberBand() const { return m_rubberBand; }
    const TZVector3 &lastPoint() const { return m_lastPoint; }

protected:
    //! The searches of a mouse move around M (the cloud's frame): the nearest point of the
    //! sphere of radius r (index, -1 for none) and the lowest point of the cylinder below M
    //! (lowest and lowestIndex left as they are when it is empty). False when the sphere holds
    //! no point. Virtual so that another index can answer the same questions.
    virtual bool searchAround(const TZVector3 &M, float r, int &nearestIndex, TZVector3 &lowest,
                              int &lowestIndex) const;
    //! The cloud of the last pick, searched on mouse moves (null before any pick).
    tzPointCloud *searchedCloud() const { return m_cloud; }

private:
    //! The mouse circle's radius in the cloud's units.
    float searchRadius() const;
    //! The sights of the group, in the group's order.
    std::vector<tzCVisee *> sights() const;
    void placeWorkingSight(tzPointCloud *cloud, unsigned index, const QPoint *screen,
                           const TZVector3 *Q);
    void fixWorkingSight();
    //! Refreshes a moved sight's name and metadata; one without a number keeps its name.
    static void refreshKeepingName(tzCVisee &sight);
    void setWorkingSightCoordinates(const TZVector3 &P);
    //! The sight's coordinates in the cloud's frame (S x coord + T).
    TZVector3d toLocal(const tzCVisee &sight) const;
    tzCVisee *newWorkingSight() const;
    void reportCursor(tzGLWindow *view, const TZVector3d &M);
    void showRubberBand(const TZVector3 &to);
    //! The rubber band to the cursor, the circle shown or not, and a new frame.
    void showPreview(tzGLWindow *window, const TZVector3 &cursor, bool circleShown);
    tzGLWindow *view() const;

    tzSightToolHost *m_host; // not owned
    std::shared_ptr<tzCoordinateFrame> m_frame = std::make_shared<tzCoordinateFrame>();
    tzMouseCircle *m_mouseCircle = nullptr;
    int m_mode = OFF;
    TZVector3 m_lastPoint;
    tzCVisee *m_workingSight;
    tzPolyline *m_rubberBand;
    tzPointCloud *m_tipVertices; // child of the rubber band
    tzPointCloud *m_cloud = nullptr; // the cloud of the last pick, not owned
    tzGLWindow *m_shownIn = nullptr; // the view whose display list holds the preview
    bool m_nearFlag = false;
    tzCVisee *m_movingSight = nullptr; // checked against the group before use
    qint64 m_lastReportMs;
    TZVector3 m_referencePoint;
    mutable TZLib::Octree::NeighboursSet m_neighbours; // the sphere's points at the last move
};
