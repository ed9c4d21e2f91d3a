#include "tzPointPicker.h"

#include "tzCamera.h"
#include "tzPointCloud.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

// Clips the line origin + t dir to the box [min, max]; false when it misses.
bool clipToBox(const TZVector3d &origin, const TZVector3d &dir, const TZVector3d &min,
               const TZVector3d &max, double &t0, double &t1)
{
    for (int d = 0; d < 3; ++d) {
        if (dir[d] == 0) {
            if (origin[d] < min[d] || origin[d] > max[d])
                return false;
            continue;
        }
        double a = (min[d] - origin[d]) / dir[d];
        double b = (max[d] - origin[d]) / dir[d];
        if (a > b)
            std::swap(a, b);
        t0 = std::max(t0, a);
        t1 = std::min(t1, b);
    }
    return t0 <= t1;
}

} // namespace

bool tzPointPicker::pick(const tzCamera &camera, const std::vector<tzGenericPointCloud *> &clouds,
                         double x, double y, double tolerancePx, Result &result)
{
    TZVector3d origin, dir;
    camera.ray(x, y, origin, dir);
    const bool perspective = camera.params.perspectiveView;
    const double tol2 = tolerancePx * tolerancePx;
    // How far from the ray a point may lie at ray distance t and still be within the tolerance.
    // A point at depth d that projects tol pixels from the pixel lies tol d / f from the ray's
    // point at that depth, so at most that far from the ray, and d <= t; a tenth more covers the
    // rounding of the float cloud. The pixel test then decides.
    const double orthoReach = tolerancePx * camera.pixelSizeAt(0);
    const auto reachAt = [&](double t) {
        return perspective ? 1.1 * tolerancePx * t / camera.focal() : orthoReach;
    };

    bool found = false;
    for (tzGenericPointCloud *cloud : clouds) {
        if (!cloud || cloud->size() == 0)
            continue;
        const TZLib::Octree *octree = cloud->getOctree();
        if (!octree)
            octree = cloud->computeOctree();
        if (!octree)
            continue;
        // Points of hidden classes are not drawn: they are not picked either.
        const auto *shown = dynamic_cast<const tzPointCloud *>(cloud);
        const bool someHidden = shown && shown->hidesPoints();
        TZVector3d boxMin, boxMax; // the cloud's bounding box
        octree->getBoundingBox(boxMin, boxMax);
        // The box grown by the farthest reach that could matter: the reach at its farthest corner.
        double farthest = 0;
        for (int k = 0; k < 8; ++k) {
            const TZVector3d corner((k & 1) ? boxMax.x : boxMin.x, (k & 2) ? boxMax.y : boxMin.y,
                                    (k & 4) ? boxMax.z : boxMin.z);
            farthest = std::max(farthest, (corner - origin).norm());
        }
        const double far = reachAt(farthest);
        double t0 = perspective ? 0.0 : -std::numeric_limits<double>::max();
        double t1
            = found ? result.distance : std::numeric_limits<double>::max(); // only nearer wins
        const TZVector3d grow(far, far, far);
        if (!clipToBox(origin, dir, boxMin - grow, boxMax + grow, t0, t1))
            continue;

        // Front to back in short segments: the first segment that holds a point holds the
        // front-most one, and a segment stays a slim cylinder however oblique the ray.
        const double leafCell = octree->cellSize(octree->leafLevel());
        TZLib::Octree::CylindricalNeighbourhood query;
        for (double a = t0; a <= t1;) {
            const double segment = std::max(4 * leafCell, 4 * reachAt(a));
            const double b = std::min(t1, a + segment);
            const double reach = reachAt(b);
            const TZVector3d centre = origin + dir * (0.5 * (a + b));
            query.center = TZVector3(float(centre.x), float(centre.y), float(centre.z));
            query.dir = TZVector3(float(dir.x), float(dir.y), float(dir.z));
            query.radius = float(reach + leafCell * 1e-3);
            // The float centre may be off by a rounding step: widen the length accordingly.
            query.maxHalfLength = float(0.5 * (b - a) + leafCell * 1e-3);
            query.onlyPositiveDir = false;
            query.level = octree->findBestLevelForAGivenNeighbourhoodSizeExtraction(query.radius);
            octree->getPointsInCylindricalNeighbourhood(query);
            bool hit = false;
            for (const auto &n : query.neighbours) {
                if (someHidden && !shown->isPointShown(n.pointIndex))
                    continue;
                const TZVector3d p(n.point->x, n.point->y, n.point->z);
                const double t = (p - origin).dot(dir);
                double px, py, depth;
                if (!camera.project(p, px, py, depth) || (perspective && depth <= 0))
                    continue;
                if ((px - x) * (px - x) + (py - y) * (py - y) > tol2)
                    continue;
                if (!found || t < result.distance
                    || (t == result.distance && cloud == result.cloud
                        && n.pointIndex < result.index)) {
                    result.cloud = cloud;
                    result.index = n.pointIndex;
                    result.P = *n.point;
                    result.distance = t;
                    found = true;
                    hit = true;
                }
            }
            if (hit || b >= t1)
                break;
            a = b;
        }
    }
    return found;
}
