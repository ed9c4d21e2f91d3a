#pragma once

// Linear octree over a point cloud.
//
// Conventions:
// - The octree covers a cube whose lower corner is the cloud's bounding-box minimum and whose
//   edge is the largest extent of that box (slightly enlarged so that the maximum falls inside).
//   Level 0 is the whole cube, a cell of level L has edge cubeSize / 2^L.
// - Cells are numbered by Morton code: bit 0 of each bit triple is x, bit 1 is y, bit 2 is z,
//   so child k of a cell holds the points with (x, y, z) halves (k & 1, k >> 1 & 1, k >> 2 & 1).
// - The cloud's points are never moved. The octree keeps a permutation of the point indices sorted
//   by coarse cell, then leaf cell, then index; the sorted table of non-empty leaf cells; and a
//   dense directory of the cells of one coarse level that meet the cloud's bounding box (at most
//   one entry per 4 points). A survey is flat, so bounding the directory by the box rather than
//   the cube lets its cells be much finer; z varies fastest in the directory, so that a vertical
//   column (the lowest point below a pick) reads one run of it. The leaf level is the deepest
//   that keeps the whole within 8 bytes per point.
// - Queries return exactly the points that a brute-force scan with the same test returns: cells
//   only prune, and every point kept has passed the exact test, computed in double precision.
//   The level passed to a query is where the descent stops and points are scanned; it changes the
//   speed, never the result. Results come in the octree's own order, which is stable.
// - The cloud must not change while the octree is used; its owner drops the octree when it does.

#include "BulkAllocator.h"
#include "PointCloudTpl.h"
#include "TZVector3.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace TZLib {

class Octree
{
public:
    //! A point found by a query: its address in the cloud, its index, and its squared distance
    //! (to the centre for a sphere, to the axis for a cylinder).
    struct PointDescriptor
    {
        const TZVector3 *point = nullptr;
        unsigned pointIndex = 0;
        double squareDistd = 0.0;
    };
    using NeighboursSet = std::vector<PointDescriptor>;

    //! A cylinder query. Points with an axial coordinate t = (P - center) . dir in
    //! [-maxHalfLength, maxHalfLength] (or [0, maxHalfLength] with onlyPositiveDir) and a distance
    //! to the axis of at most radius are returned in neighbours. dir must be a unit vector.
    struct CylindricalNeighbourhood
    {
        TZVector3 center;
        TZVector3 dir {0, 0, 1};
        PointCoordinateType radius = 0;
        PointCoordinateType maxHalfLength = 0;
        bool onlyPositiveDir = false;
        unsigned char level = 0;
        NeighboursSet neighbours;
    };

    //! Receives the progress of a build, 0 to 100.
    using ProgressCallback = std::function<void(int percent)>;

    static constexpr unsigned char MAX_LEVEL = 20;

    explicit Octree(const PointCloud *cloud);
    virtual ~Octree();
    Octree(const Octree &) = delete;
    Octree &operator=(const Octree &) = delete;

    //! Builds the octree over the cloud's current points; returns the number of points indexed,
    //! or -1 when memory runs out (the octree is then empty). Large clouds are built on up to
    //! maxThreads threads (0: one per core); the result is the same whatever the number.
    int build(const ProgressCallback &progress = {}, unsigned maxThreads = 0);
    void clear();

    const PointCloud *associatedCloud() const { return m_cloud; }
    virtual unsigned pointCount() const { return static_cast<unsigned>(m_perm.size()); }
    //! The deepest level that holds separate cells (the leaves).
    unsigned char leafLevel() const
    {
        return static_cast<unsigned char>(m_coarseLevel + m_leafRel);
    }
    double cubeSize() const { return m_cubeSize; }
    //! Lower corner of the cube (the cloud's bounding-box minimum).
    TZVector3d cubeMin() const { return {m_min[0], m_min[1], m_min[2]}; }
    //! The bounding box of the points indexed (empty octree: a zero box).
    void getBoundingBox(TZVector3d &min, TZVector3d &max) const
    {
        min = {m_min[0], m_min[1], m_min[2]};
        max = {m_max[0], m_max[1], m_max[2]};
    }
    double cellSize(unsigned char level) const;
    //! Bytes held by the octree itself (not counting the cloud's points).
    std::size_t memoryUsed() const;

    //! The level whose cells suit a neighbourhood of the given radius.
    unsigned char
    findBestLevelForAGivenNeighbourhoodSizeExtraction(PointCoordinateType radius) const;

    //! Points within radius of centre (inclusive), appended to neighbours; returns how many.
    int getPointsInSphericalNeighbourhood(const TZVector3 &centre, PointCoordinateType radius,
                                          NeighboursSet &neighbours, unsigned char level) const;
    //! Points in the cylinder of params, written to params.neighbours (cleared first).
    std::size_t getPointsInCylindricalNeighbourhood(CylindricalNeighbourhood &params) const;

    //! A query's exact test, for octrees whose points are held elsewhere (a cloud read part by
    //! part): whether a box may hold a point that passes, and which points of a run pass.
    class Query
    {
    public:
        virtual ~Query() = default;
        virtual bool meets(const double (&min)[3], const double (&max)[3]) const = 0;
        //! Appends the points of [points, points + count) that pass, numbered from firstIndex.
        virtual void scan(const TZVector3 *points, unsigned count, unsigned firstIndex,
                          NeighboursSet &out) const = 0;
        //! The same for points in another order: points[k] is numbered firstIndex + place[k].
        virtual void scan(const TZVector3 *points, const std::uint32_t *place, unsigned count,
                          unsigned firstIndex, NeighboursSet &out) const = 0;
        //! The box that holds the shape.
        virtual void bounds(double (&min)[3], double (&max)[3]) const = 0;
    };

protected:
    //! Octrees whose points are held elsewhere answer the queries here (true); the others
    //! search their own cells.
    virtual bool answerElsewhere(const Query &query, NeighboursSet &out) const
    {
        (void)query;
        (void)out;
        return false;
    }

    double m_min[3] = {0, 0, 0};
    double m_max[3] = {0, 0, 0}; // the cloud's bounding box is [m_min, m_max]
    double m_cubeSize = 0;
    unsigned m_coarseLevel = 0; // level of the dense directory
    unsigned m_leafRel = 0; // leaf level, counted from the coarse level (0..SUFFIX_LEVELS)

private:
    struct Box
    {
        double min[3];
        double max[3];
    };
    template<typename Shape>
    void query(const Shape &shape, unsigned char level, NeighboursSet &out) const;
    template<typename Shape>
    void descend(const Shape &shape, unsigned rel, unsigned stopRel, const uint32_t cell[3],
                 uint32_t lo, uint32_t hi, NeighboursSet &out) const;
    template<typename Shape>
    void descendInto(const Shape &shape, unsigned rel, unsigned stopRel, const uint32_t cell[3],
                     uint32_t lo, uint32_t hi, NeighboursSet &out) const;
    template<typename Shape>
    void scanLeaves(const Shape &shape, const uint32_t cell[3], uint32_t lo, uint32_t hi,
                    NeighboursSet &out) const;
    template<typename Shape>
    void scanPoints(const Shape &shape, uint32_t lo, uint32_t hi, NeighboursSet &out) const;
    Box cellBox(unsigned level, const uint32_t cell[3]) const;
    uint32_t coarseIndex(uint32_t x, uint32_t y, uint32_t z) const
    {
        return z + m_grid[2] * (x + m_grid[0] * y);
    }

    const PointCloud *m_cloud = nullptr;
    std::vector<uint32_t, BulkAllocator<uint32_t>>
        m_perm; // point indices sorted by leaf cell, then index
    struct Leaf
    {
        uint32_t code; // Morton code below its coarse cell; sorted within the cell
        uint32_t start; // first entry in m_perm
    };
    std::vector<Leaf, BulkAllocator<Leaf>>
        m_leaves; // one more at the end, whose start is the point count
    uint32_t m_grid[3] = {0, 0, 0}; // coarse cells along each axis
    std::vector<uint32_t, BulkAllocator<uint32_t>>
        m_directory; // first leaf of each coarse cell; one more at the end
};

} // namespace TZLib
