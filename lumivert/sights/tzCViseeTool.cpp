#include "tzCViseeTool.h"

#include "Octree.h"
#include "tzApplicationInterface.h"
#include "tzCVisee.h"
#include "tzCommunicationHandler.h"
#include "tzDrawContext.h"
#include "tzGLWindow.h"
#include "tzLog.h"
#include "tzMouseCircle.h"
#include "tzPointCloud.h"
#include "tzPolyline.h"

#include <QApplication>
#include <QDateTime>
#include <QMouseEvent>
#include <QtDebug>

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

// The cylinder of the lowest-point search goes this far below its centre.
constexpr float LOWEST_POINT_DEPTH = 20.f;

TZVector3 narrowed(const TZVector3d &p)
{
    return TZVector3(float(p.x), float(p.y), float(p.z));
}

qint64 nowMs()
{
    return QDateTime::currentMSecsSinceEpoch();
}

} // namespace

tzCViseeTool::tzCViseeTool(tzSightToolHost *host)
    : m_host(host)
    , m_workingSight(newWorkingSight())
    , m_lastReportMs(std::numeric_limits<qint64>::min() / 2)
{
    m_tipVertices = new tzPointCloud(QStringLiteral("Tip vertices"));
    m_tipVertices->reserve(2);
    m_tipVertices->addPoint({0, 0, 0});
    m_tipVertices->addPoint({1, 1, 1});
    m_tipVertices->setEnabled(false);
    m_rubberBand = new tzPolyline(m_tipVertices);
    m_rubberBand->setForeground(true);
    m_rubberBand->setTempColor(Qt::green);
    m_rubberBand->set2DMode(false);
    m_rubberBand->reserve(2);
    m_rubberBand->addPointIndex(0, 2);
    m_rubberBand->setClosed(false);
    m_rubberBand->setWidth(2.f);
    m_rubberBand->addChild(m_tipVertices, DP_PARENT_OF_OTHER);
    m_rubberBand->setEnabled(false);
    m_rubberBand->setPickable(false);
}

tzCViseeTool::~tzCViseeTool()
{
    if (m_shownIn) {
        m_shownIn->removeFromViewDatabase(m_workingSight);
        m_shownIn->removeFromViewDatabase(m_rubberBand);
    }
    delete m_mouseCircle;
    delete m_workingSight;
    delete m_rubberBand;
}

tzGLWindow *tzCViseeTool::view() const
{
    return m_app ? m_app->activeView() : nullptr;
}

void tzCViseeTool::toolActivated()
{
    tzGLWindow *window = view();
    delete m_mouseCircle;
    m_mouseCircle = window ? new tzMouseCircle(window, QStringLiteral("MouseCircle")) : nullptr;
    if (m_mouseCircle)
        m_mouseCircle->setVisible(true);
    m_workingSight->clear();
    m_workingSight->setVisible(true);
    // The preview (working sight and rubber band) lives in the view's own list while the tool
    // is on.
    if (window && m_shownIn != window) {
        if (m_shownIn) {
            m_shownIn->removeFromViewDatabase(m_workingSight);
            m_shownIn->removeFromViewDatabase(m_rubberBand);
        }
        window->addToViewDatabase(m_workingSight, true);
        window->addToViewDatabase(m_rubberBand, true);
        m_shownIn = window;
    }
}

void tzCViseeTool::toolDeactivated()
{
    if (m_mouseCircle) {
        m_mouseCircle->setVisible(false);
        delete m_mouseCircle;
        m_mouseCircle = nullptr;
    }
    m_workingSight->clear();
    m_rubberBand->setEnabled(false);
    if (m_shownIn) {
        m_shownIn->removeFromViewDatabase(m_workingSight);
        m_shownIn->removeFromViewDatabase(m_rubberBand);
        m_shownIn->redraw();
        m_shownIn = nullptr;
    }
}

tzHObject *tzCViseeTool::sightContainer(tzApplicationInterface *app) const
{
    return measurementGroup(app, true);
}

std::vector<tzCVisee *> tzCViseeTool::sights() const
{
    std::vector<tzCVisee *> found;
    tzHObject *group = measurementGroup(m_app, false);
    if (!group)
        return found;
    tzHObject::Container all;
    group->filterChildren(all, true, TZ_TYPES::LABEL_KIND);
    for (tzHObject *object : all) {
        if (auto *sight = dynamic_cast<tzCVisee *>(object))
            found.push_back(sight);
    }
    return found;
}

float tzCViseeTool::searchRadius() const
{
    const float ratio = m_mouseCircle ? m_mouseCircle->pixelsPerUnit() : 0.f;
    return ratio > 0.f ? tzMouseCircle::drawnRadius() / ratio : 0.f;
}

bool tzCViseeTool::findLowestPoint(const TZVector3 &C, TZVector3 &lowest, int &index) const
{
    const TZLib::Octree *octree = m_cloud ? m_cloud->getOctree() : nullptr;
    if (!octree)
        return false;
    TZLib::Octree::CylindricalNeighbourhood cylinder;
    cylinder.center = C;
    cylinder.dir = TZVector3(0, 0, -1);
    cylinder.radius = float(m_host->accuaryLowestPoint());
    cylinder.maxHalfLength = LOWEST_POINT_DEPTH;
    cylinder.onlyPositiveDir = true;
    // The level suits the circle's radius, not the cylinder's: kept.
    cylinder.level = octree->findBestLevelForAGivenNeighbourhoodSizeExtraction(searchRadius());
    if (octree->getPointsInCylindricalNeighbourhood(cylinder) == 0)
        return false;
    const TZLib::Octree::PointDescriptor *best = &cylinder.neighbours.front();
    for (const TZLib::Octree::PointDescriptor &p : cylinder.neighbours) {
        if (p.point->z < best->point->z)
            best = &p;
    }
    lowest = *best->point;
    index = int(best->pointIndex);
    return true;
}

bool tzCViseeTool::searchAround(const TZVector3 &M, float r, int &nearestIndex, TZVector3 &lowest,
                                int &lowestIndex) const
{
    const TZLib::Octree *octree = m_cloud->getOctree();
    // Thousands of points in a zoomed-out view: their room is kept from one move to the next.
    TZLib::Octree::NeighboursSet &neighbours = m_neighbours;
    neighbours.clear();
    octree->getPointsInSphericalNeighbourhood(
        M, r, neighbours, octree->findBestLevelForAGivenNeighbourhoodSizeExtraction(r));
    double best = std::numeric_limits<double>::max();
    for (const TZLib::Octree::PointDescriptor &p : neighbours) {
        if (p.squareDistd < best) {
            best = p.squareDistd;
            nearestIndex = int(p.pointIndex);
        }
    }
    findLowestPoint(M, lowest, lowestIndex);
    return !neighbours.empty();
}

tzCVisee *tzCViseeTool::newWorkingSight() const
{
    auto *sight = new tzCVisee(QStringLiteral("Visee"));
    sight->setSelected(true);
    sight->setPickable(false);
    sight->setFrame(m_frame);
    return sight;
}

void tzCViseeTool::setFrame(std::shared_ptr<tzCoordinateFrame> frame)
{
    m_frame = std::move(frame);
    m_workingSight->setFrame(m_frame);
}

TZVector3d tzCViseeTool::toLocal(const tzCVisee &sight) const
{
    return m_frame->toScene(sight.coordinates());
}

void tzCViseeTool::refreshKeepingName(tzCVisee &sight)
{
    // The refresh names a sight after its number; a sight the companion has not numbered yet
    // keeps the name it was given when placed.
    const QString name = sight.tzObject::getName(); // as stored, placeholders and all
    sight.refreshNameAndMetaData();
    if (sight.number().isEmpty())
        sight.setName(name);
}

void tzCViseeTool::setWorkingSightCoordinates(const TZVector3 &P)
{
    m_workingSight->setCoordinates(m_frame->toCompanion({P.x, P.y, P.z}));
    m_workingSight->refreshNameAndMetaData();
}

void tzCViseeTool::pointPicked(tzHObject *insertionParent, unsigned pointIndex, tzPointCloud *cloud,
                               const TZVector3 &P)
{
    Q_UNUSED(insertionParent)
    if (!cloud)
        return;
    m_cloud = cloud;
    if (!cloud->getOctree())
        cloud->computeOctree();
    m_frame->scale = cloud->getGlobalScale();
    m_frame->shift = cloud->getGlobalShift();
    // The height picked (H below) in the companion's coordinates.
    const auto height = [this](float h) { return m_frame->toCompanion({0, 0, h}).z; };

    const bool lowestWanted = (m_host && m_host->isKeyHeld(Qt::Key_Z)) || m_mode == LOWEST_POINT;
    TZVector3 L = P;
    int lowestIndex = -1;
    if (lowestWanted)
        findLowestPoint(P, L, lowestIndex);

    TZVector3 coordinates = P;
    if (lowestWanted)
        coordinates.z = L.z;
    setWorkingSightCoordinates(coordinates);
    if (m_mode != LOWEST_POINT && m_mode != SIMPLE_POINT)
        return;

    const float H = lowestWanted ? L.z : P.z;
    const bool changeHeight = m_host && m_host->previousHeightWanted();
    tzCommunicationHandler *link = m_host ? m_host->link() : nullptr;
    const auto sendMove = [link](const TZVector3d &from, const TZVector3d &to) {
        if (link)
            link->sendPointMove(to.x, to.y, to.z, from.x, from.y, from.z);
    };

    // A sight selected by the last pick may have been deleted since (by the companion).
    if (m_movingSight) {
        const std::vector<tzCVisee *> all = sights();
        if (std::find(all.begin(), all.end(), m_movingSight) == all.end())
            m_movingSight = nullptr;
    }

    if (!m_nearFlag && !m_movingSight) {
        if (!changeHeight) {
            const TZVector3d c = m_workingSight->coordinates();
            if (link)
                link->sendCoordinates(c.x, c.y, c.z);
            m_lastPoint = P;
            placeWorkingSight(cloud, pointIndex, nullptr, nullptr);
            fixWorkingSight();
        } else {
            const std::vector<tzCVisee *> all = sights();
            if (all.empty()) {
                QApplication::beep();
                return;
            }
            tzCVisee *last = all.back();
            const TZVector3d from = last->coordinates();
            last->setCoordinates({from.x, from.y, height(H)});
            refreshKeepingName(*last);
            sendMove(from, last->coordinates());
            m_lastPoint = narrowed(last->coordinates());
            m_host->previousHeightDone();
        }
    } else if (!m_nearFlag) {
        tzCVisee *sight = m_movingSight;
        const TZVector3d from = sight->coordinates();
        if (!changeHeight) {
            sight->setCoordinates(m_frame->toCompanion({P.x, P.y, H}));
            refreshKeepingName(*sight);
            sendMove(from, sight->coordinates());
            m_lastPoint = narrowed(toLocal(*sight));
        } else {
            sight->setCoordinates({from.x, from.y, height(H)});
            refreshKeepingName(*sight);
            sendMove(from, sight->coordinates());
            m_lastPoint = narrowed(sight->coordinates());
            m_host->previousHeightDone();
        }
        m_movingSight = nullptr;
    } else {
        if (m_app)
            m_app->refreshAllViews();
        double best = 10000.0;
        for (tzCVisee *sight : sights()) {
            const TZVector3d d = toLocal(*sight) - TZVector3d(P.x, P.y, P.z);
            const double distance = std::sqrt(d.x * d.x + d.y * d.y + d.z * d.z);
            if (distance < best) {
                best = distance;
                m_movingSight = sight;
            }
        }
        if (m_movingSight)
            m_lastPoint = narrowed(toLocal(*m_movingSight));
    }
    if (tzGLWindow *window = view())
        window->redraw();
}

void tzCViseeTool::cancel()
{
    if (!m_movingSight)
        return;
    m_movingSight = nullptr;
    m_rubberBand->setEnabled(false);
    if (tzGLWindow *window = view())
        window->redraw();
}

void tzCViseeTool::pointPicked(tzHObject *insertionParent, unsigned itemIndex, tzHObject *entity,
                               const TZVector3 &P)
{
    Q_UNUSED(insertionParent)
    Q_UNUSED(itemIndex)
    Q_UNUSED(P)
    auto *picked = dynamic_cast<tzCVisee *>(entity);
    if (!picked || (m_mode != LOWEST_POINT && m_mode != SIMPLE_POINT))
        return;
    const std::vector<tzCVisee *> all = sights();
    if (std::find(all.begin(), all.end(), picked) == all.end())
        return;
    m_movingSight = picked;
    m_lastPoint = narrowed(toLocal(*picked));
    if (tzGLWindow *window = view())
        window->redraw();
}

void tzCViseeTool::placeWorkingSight(tzPointCloud *cloud, unsigned index, const QPoint *screen,
                                     const TZVector3 *Q)
{
    m_workingSight->clear();
    m_workingSight->attachPoint(cloud, index);
    m_workingSight->setVisible(true);
    m_workingSight->setShownIn2D(true);
    m_workingSight->showPointLegends(m_workingSight->size() == 2);
    if (Q)
        setWorkingSightCoordinates(*Q);
    tzGLWindow *window = view();
    if (m_workingSight->size() == 1 && window && screen && window->width() > 0
        && window->height() > 0) {
        m_workingSight->setScreenPos(float(screen->x() + 20) / float(window->width()),
                                     float(screen->y() + 20) / float(window->height()));
    }
    // Every placement, the preview's included, goes to the console as the viewer's labels do.
    tzLog::Print(QStringLiteral("[Picked] ") + m_workingSight->getName());
    for (const QString &line : m_workingSight->bodyLines(tzDrawContext().dispNumberPrecision))
        tzLog::Print(QStringLiteral("[Picked]\t- ") + line);
}

void tzCViseeTool::fixWorkingSight()
{
    tzHObject *group = sightContainer(m_app);
    m_workingSight->setShownIn2D(m_host ? m_host->displayIn2D() : false);
    if (m_shownIn)
        m_shownIn->removeFromViewDatabase(m_workingSight);
    m_workingSight->setSelected(false);
    m_workingSight->setPickable(true);
    if (group) {
        group->addChild(m_workingSight, DP_PARENT_OF_OTHER);
        if (m_app)
            m_app->addToDatabase(m_workingSight, false, false, false, false);
    } else {
        delete m_workingSight;
    }
    m_workingSight = newWorkingSight();
    if (m_shownIn) {
        m_shownIn->addToViewDatabase(m_workingSight, true);
        m_shownIn->redraw();
    }
    if (m_app)
        m_app->refreshAllViews();
}

void tzCViseeTool::showRubberBand(const TZVector3 &to)
{
    if (m_tipVertices->size() != 2)
        return;
    m_tipVertices->reset();
    m_tipVertices->addPoint(m_lastPoint);
    m_tipVertices->addPoint(to);
    m_rubberBand->setEnabled(true);
}

void tzCViseeTool::showPreview(tzGLWindow *window, const TZVector3 &cursor, bool circleShown)
{
    showRubberBand(cursor);
    if (m_mouseCircle)
        m_mouseCircle->setVisible(circleShown);
    if (m_app)
        m_app->refreshAllViews();
    window->redraw();
}

void tzCViseeTool::onMouseMove(QMouseEvent *event, tzGLWindow *window)
{
    m_nearFlag = false;
    m_rubberBand->setEnabled(false);
    if (m_mouseCircle)
        m_mouseCircle->setVisible(false);
    TZVector3d under;
    if (!window || !event || !window->getClick3DPos(event->x(), event->y(), under))
        return;
    const TZVector3 M(float(under.x), float(under.y), float(under.z));
    TZVector3 found = M, lowest = M;
    int foundIndex = -1, lowestIndex = -1;
    if (m_mode != OFF && m_cloud && m_cloud->getOctree()) {
        if (!searchAround(M, searchRadius(), foundIndex, lowest, lowestIndex))
            QApplication::beep();
    }

    double best = 10000.0;
    for (tzCVisee *sight : sights()) {
        const TZVector3d p = toLocal(*sight);
        const double d = std::hypot(p.x - found.x, p.y - found.y);
        if (d < m_host->accuaryMovePoint() && d < best) {
            best = d;
            m_nearFlag = true;
        }
    }

    const QPoint at = event->pos();
    if (m_mode == LOWEST_POINT) {
        qDebug("POINT LE PLUS BAS %lf ,%lf ,%lf  Point d'origine %lf ,%lf ,%lf", double(lowest.x),
               double(lowest.y), double(lowest.z), double(found.x), double(found.y),
               double(found.z));
        // Index 0 reads as no result (kept); -1 passes and the sight refuses it.
        if (lowestIndex != 0)
            placeWorkingSight(m_cloud, unsigned(lowestIndex), &at, &lowest);
        showPreview(window, M, false);
    } else if (m_mode == SIMPLE_POINT) {
        if (std::abs(M.z - lowest.z) > m_host->accuaryLowestPoint() && M.z != 0.f
            && lowestIndex >= 0)
            placeWorkingSight(m_cloud, unsigned(lowestIndex), &at, &lowest);
        else if (foundIndex >= 0)
            placeWorkingSight(m_cloud, unsigned(foundIndex), &at, &M);
        showPreview(window, M, true);
        qDebug(
            "POINT SOURIS %lf ,%lf ,%lf  Point trouvee %lf ,%lf ,%lf  Point PlusBas %lf ,%lf ,%lf",
            double(M.x), double(M.y), double(M.z), double(found.x), double(found.y),
            double(found.z), double(lowest.x), double(lowest.y), double(lowest.z));
    }
    // The point narrowed to floats, as the preview uses it, is the one reported.
    reportCursor(window, TZVector3d(double(M.x), double(M.y), double(M.z)));
}

void tzCViseeTool::reportCursor(tzGLWindow *window, const TZVector3d &M)
{
    const qint64 now = nowMs();
    if (m_lastReportMs + CURSOR_REPORT_SPACING_MS >= now)
        return;
    m_lastReportMs = now;
    qDebug(" --> 3D (%.2lf ; %.2lf ; %.2lf)", M.x, M.y, M.z);
    if (tzCommunicationHandler *link = m_host ? m_host->link() : nullptr)
        link->sendMouseCursor(window->getCurrentUpDir(), m_frame->toCompanion(M));
}
