#pragma once

// A cloud too large to hold whole, read from an indexed file part by part: the file is an
// octree whose nodes each hold an even sample of what lies under them (their children hold the
// rest), so that the top nodes give the whole survey coarsely and the nodes down a branch give
// one place in full. The view asks for the nodes it needs (selectNodes); they are decoded on
// worker threads and kept within a memory budget, the least recently used going first. Queries
// of the octree (picks, the lowest point below a pick) read the deepest nodes they meet, so that
// their answers are the points of the file, as if it had been read whole.
//
// A point's index is its place in the file (node after node, in the order of their data), so
// that it does not change as nodes come and go.

#include "qtz_db_global.h"
#include "tzPointCloud.h"

#include <QString>

#include <array>
#include <cmath>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

//! Where a streamed cloud's nodes come from (an indexed file). Every member may be called from
//! any thread.
class QTZ_DB_LIB_API tzCloudSource
{
public:
    //! A node of the octree (its depth, and its place among the 2^depth cubes of that depth
    //! along each axis), or the page of the hierarchy that lists it and what lies under it.
    struct Node
    {
        //! The tile of a set of tiles (each its own octree) the node belongs to; -1: the set's
        //! root, whose children are the tiles' roots. A tile read whole is levels of samples
        //! of its points, each under the one above, at depth 0 and then x, y and z -1.
        std::int32_t tile = 0;
        std::int32_t depth = 0, x = 0, y = 0, z = 0;
        //! -1: a page not read yet (readPage gives its entries, this node's own among them).
        std::int32_t pointCount = 0;
        //! The index of the node's first point in the whole file.
        std::uint64_t firstPoint = 0;
        //! Where the node (or the page) lies, in the source's own terms.
        std::uint64_t offset = 0, byteSize = 0;

        bool isPage() const { return pointCount < 0; }
    };
    //! A node's points, in the cloud's local coordinates.
    struct Points
    {
        std::vector<TZVector3> points;
        std::vector<tzRgb> colours; // empty when the file has none
        std::vector<tzPointAttributes> attributes;
    };

    virtual ~tzCloudSource() = default;
    virtual QString path() const = 0;
    virtual std::uint64_t pointCount() const = 0;
    //! The octree's cube (global coordinates) and the spacing of the root's points.
    virtual void cube(double (&centre)[3], double &halfSize, double &spacing) const = 0;
    //! The box of the points (global coordinates).
    virtual void pointBounds(double (&min)[3], double (&max)[3]) const = 0;
    virtual bool hasColours() const = 0;
    //! The attributes the points carry (tzPointDisplay::Attribute bits).
    virtual quint8 attributeKinds() const = 0;
    //! The box of a node (global coordinates): by default its cube in the octree of cube().
    virtual void nodeBox(const Node &node, double (&min)[3], double (&max)[3]) const
    {
        double centre[3], halfSize, spacing;
        cube(centre, halfSize, spacing);
        const double side = 2 * halfSize / double(std::int64_t(1) << node.depth);
        const std::int32_t at[3] = {node.x, node.y, node.z};
        for (int d = 0; d < 3; ++d) {
            min[d] = centre[d] - halfSize + side * at[d];
            max[d] = min[d] + side;
        }
    }
    //! The spacing of a node's points: by default the root's, halved at each depth.
    virtual double nodeSpacing(const Node &node) const
    {
        double centre[3], halfSize, spacing;
        cube(centre, halfSize, spacing);
        return std::ldexp(spacing, -node.depth);
    }
    //! The page of the root.
    virtual Node rootPage() const = 0;
    virtual bool readPage(const Node &page, std::vector<Node> &entries, QString &error) const = 0;
    //! Decodes a node's points, local = (global + shift) * scale.
    virtual bool readNode(const Node &node, const TZVector3d &shift, double scale, Points &out,
                          QString &error) const = 0;
    //! Reads at once that the source takes best (a server far away), 0: one a core.
    virtual int parallelReads() const { return 0; }
    //! What failed to be read is asked for again after this many milliseconds (a server may
    //! be back by then); -1: never (a file that cannot be read stays so).
    virtual int retryFailuresAfterMs() const { return -1; }
    //! Makes the reads in progress and to come fail at once: the cloud is going.
    virtual void cancel() const { }
};

class QTZ_DB_LIB_API tzStreamedCloud : public tzPointCloud
{
public:
    //! The memory budget of a new streamed cloud, in bytes (the setting's value).
    static std::uint64_t defaultMemoryBudget();
    static void setDefaultMemoryBudget(std::uint64_t bytes);
    //! Refine while a node's point spacing is over this many pixels on the screen. A node keeps
    //! the point nearest the middle of each cell of a grid, not the middle itself: below a pixel
    //! the points of a flat survey still leave holes between them.
    static constexpr double REFINE_PIXELS = 0.7;

    //! Opens the sources of the streamed clouds of scene files (set by the formats' library).
    using SourceOpener
        = std::function<std::unique_ptr<tzCloudSource>(const QString &path, QString &error)>;
    static void setSourceOpener(SourceOpener opener);

    //! A cloud of a source; without one (a scene file's, before it is read) it is empty.
    explicit tzStreamedCloud(std::unique_ptr<tzCloudSource> source = nullptr,
                             const QString &name = QString());
    ~tzStreamedCloud() override;

    quint32 getSerializedClassID() const override { return TZ_TYPES::STREAMED_CLOUD; }

    //! Reads the root page (the shift and scale must be set first); false, with the error
    //! naming the file and the problem, when it cannot be read.
    bool open(QString &error);
    //! The path of the file the points are read from.
    const QString &path() const { return m_path; }

    unsigned size() const override;
    //! The point at an index; its node is read first when it is not held (the caller waits).
    //! The point stays valid until the event loop runs again.
    const TZVector3 *getPoint(unsigned i) const override;
    TZVector3 *getPoint(unsigned i) override;
    bool getBoundingBox(TZVector3 &bbMin, TZVector3 &bbMax) const override;
    bool hasColors() const override;
    //! A point's colour (white when the file has none); its node is read first when needed.
    const tzRgb &getPointColor(unsigned index) const override;
    TZLib::Octree *computeOctree(const TZLib::Octree::ProgressCallback &progress = {}) override;
    bool isPointShown(unsigned index) const override;

    // Memory.

    //! The memory this cloud's nodes may take: its own budget when one was set, else its share
    //! of the default budget (the setting is for all the streamed clouds open together).
    std::uint64_t memoryBudget() const;
    void setMemoryBudget(std::uint64_t bytes);
    //! The bytes held by the nodes read.
    std::uint64_t memoryHeld() const;
    //! The nodes held, and known (read or not).
    std::size_t nodesHeld() const;
    std::size_t nodesKnown() const;

    // What the view draws.

    //! A node's points as the view draws them.
    struct Piece
    {
        const TZVector3 *points = nullptr;
        const tzRgb *colours = nullptr; // null without colours
        const tzPointAttributes *attributes = nullptr;
        unsigned count = 0;
        std::uint64_t serial = 0; // different for each node read (the GPU buffers' key)
    };
    //! What a view needs.
    struct View
    {
        std::array<float, 16> modelViewProjection {}; // column-major, local coordinates
        int width = 1, height = 1; // pixels
        std::uint64_t pointBudget = 0; // the most points drawn
    };
    //! The nodes held that the view should draw (coarse to fine), and the requests for those
    //! it needs that are not held (read on the worker threads; the view is redrawn when they
    //! come). complete: whether every node the view needs was there.
    std::vector<Piece> selectNodes(const View &view, bool *complete = nullptr) const;
    //! Waits until no node is being read or waits to be (tests).
    void waitForReads();
    //! Takes in what the worker threads have read (done by the event loop; tests call it).
    void integrateArrivals();

protected:
    //! The points, and the outline of each tile of a set of tiles (from its header: at once).
    void drawMeOnly(tzDrawContext &context) override;
    void onPointsChanged() override;
    void updateStatistics() const override;
    bool toFile_MeOnly(QIODevice &out) const override;
    bool fromFile_MeOnly(QIODevice &in, short dataVersion, LoadedIDMap &oldToNew) override;

private:
    struct Impl;
    //! Starts reading the source (d is null without one).
    void attach(std::unique_ptr<tzCloudSource> source);

    QString m_path;
    std::unique_ptr<tzCloudSource> m_source;
    std::unique_ptr<Impl> d;
    std::uint64_t m_budget = 0; // 0: a share of the default
    bool m_opened = false;
    friend class tzStreamedOctree;
};
