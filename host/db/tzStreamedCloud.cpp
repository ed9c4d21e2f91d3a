#include "tzStreamedCloud.h"

#include "tzDrawContext.h"
#include "tzLog.h"
#include "tzSerialization.h"

#include <QCoreApplication>
#include <QObject>
#include <QOpenGLFunctions_2_1>
#include <QPointer>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <queue>
#include <thread>
#include <unordered_map>

namespace {

std::atomic<std::uint64_t> g_defaultBudget {std::uint64_t(4096) << 20};
std::atomic<int> g_openClouds {0}; // the streamed clouds open, sharing the default budget

tzStreamedCloud::SourceOpener &sourceOpener()
{
    static tzStreamedCloud::SourceOpener opener;
    return opener;
}

using Key = std::array<std::int32_t, 5>; // tile, depth, x, y, z

struct KeyHash
{
    size_t operator()(const Key &k) const
    {
        std::uint64_t h = std::uint64_t(std::uint32_t(k[0])) * 0x9E3779B97F4A7C15ull;
        for (size_t i = 1; i < k.size(); ++i)
            h = (h ^ std::uint64_t(std::uint32_t(k[i]))) * 0xBF58476D1CE4E5B9ull;
        return size_t(h ^ (h >> 31));
    }
};

Key keyOf(const tzCloudSource::Node &n)
{
    return {n.tile, n.depth, n.x, n.y, n.z};
}

// The bytes a node's points take in memory.
std::uint64_t bytesOf(const tzCloudSource::Points &p)
{
    return p.points.capacity() * sizeof(TZVector3) + p.colours.capacity() * sizeof(tzRgb)
        + p.attributes.capacity() * sizeof(tzPointAttributes) + 256;
}

} // namespace

//! The octree of a streamed cloud: its queries read the nodes they meet, down to the deepest.
class tzStreamedOctree : public TZLib::Octree
{
public:
    explicit tzStreamedOctree(const tzStreamedCloud &cloud);
    unsigned pointCount() const override { return m_cloud.size(); }
    //! The deepest level known grows as pages are read.
    void setDeepest(unsigned depth) { m_coarseLevel = depth; }

protected:
    bool answerElsewhere(const Query &query, NeighboursSet &out) const override;

private:
    const tzStreamedCloud &m_cloud;
};

struct tzStreamedCloud::Impl
{
    //! The points of a node by the columns of a grid over its ground, made for the queries
    //! the first time one reads the node.
    struct Grid
    {
        int cells = 0; // along x and y; 0: not made
        double min[2] = {0, 0};
        double perUnit = 0; // cells a unit
        std::vector<std::uint32_t> start; // each cell's first entry, and the end
        // The points cell after cell, and their places in the node: a column is scanned in
        // one run of memory.
        std::vector<TZVector3> points;
        std::vector<std::uint32_t> order;
    };
    struct Held
    {
        tzCloudSource::Points data;
        std::uint64_t serial = 0;
        std::uint64_t bytes = 0;
        Grid grid;
    };
    struct Node
    {
        tzCloudSource::Node entry;
        double min[3] = {0, 0, 0}, max[3] = {0, 0, 0}; // local, a little wider than the cube
        int children[8] = {-1, -1, -1, -1, -1, -1, -1, -1};
        // Children with boxes of their own: the roots of the tiles under the root of a set of
        // tiles, a level of a tile read whole under the one above it.
        std::vector<int> others;
        double spacing = 0; // of its points, local
        std::shared_ptr<Held> held;
        std::uint64_t lastUsed = 0;
        bool requested = false; // waiting for or being read by a worker
        bool failed = false; // could not be read: not asked for again (see failedRecently)
        std::chrono::steady_clock::time_point failedAt;
    };
    // A run of points a query scans: place null when they are in the node's order.
    struct Run
    {
        const TZVector3 *points;
        const std::uint32_t *place;
        unsigned count;
        unsigned first;
    };

    struct Arrival
    {
        int node = -1;
        bool page = false;
        std::vector<tzCloudSource::Node> entries; // a page's
        std::shared_ptr<Held> held; // a node's
        QString error;
    };

    tzStreamedCloud &cloud;
    const tzCloudSource &source;
    double centre[3] = {0, 0, 0};
    double halfSize = 0, spacing = 0;
    double margin = 0;

    // The GUI thread's.
    std::vector<Node> nodes;
    std::unordered_map<Key, int, KeyHash> byKey;
    std::vector<std::array<double, 6>> outlines; // of the tiles of a set: min, max
    std::map<std::uint64_t, int> byFirst; // nodes with points, by their first point
    std::uint64_t frame = 1;
    std::uint64_t heldBytes = 0;
    size_t heldNodes = 0;
    std::uint64_t serials = 0;
    unsigned deepest = 0;
    std::uint64_t sampleVersion = 0; // grows when a node of the statistics' sample comes
    bool errorShown = false;
    std::vector<int> scratch, found; // a query's, kept from one to the next
    std::vector<Run> runs; // the same

    // Shared with the workers.
    std::mutex mutex;
    std::condition_variable wake;
    std::condition_variable idle;
    std::deque<std::pair<int, tzCloudSource::Node>> queue; // most wanted first
    std::vector<Arrival> arrived;
    int busy = 0;
    bool stop = false;
    bool notifyPending = false;
    std::vector<std::thread> workers;
    QObject notifier; // lives in the GUI thread: arrivals are taken in there
    TZVector3d shift;
    double scale = 1;

    Impl(tzStreamedCloud &c, const tzCloudSource &s)
        : cloud(c)
        , source(s)
    {
        // Clouds are read on a loader's thread and shown on the GUI thread.
        if (QCoreApplication *app = QCoreApplication::instance())
            notifier.moveToThread(app->thread());
    }

    ~Impl()
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            stop = true;
            queue.clear();
        }
        source.cancel();
        wake.notify_all();
        for (std::thread &w : workers)
            w.join();
    }

    void startWorkers()
    {
        const unsigned hw = std::thread::hardware_concurrency();
        const int parallel = source.parallelReads();
        const unsigned count
            = parallel > 0 ? unsigned(parallel) : std::max(1u, std::min(hw == 0 ? 2u : hw, 8u));
        for (unsigned i = 0; i < count; ++i)
            workers.emplace_back([this] { work(); });
    }

    // Reads what the queue asks for, most wanted first.
    void work()
    {
        std::unique_lock<std::mutex> lock(mutex);
        for (;;) {
            wake.wait(lock, [this] { return stop || !queue.empty(); });
            if (stop)
                return;
            const auto [index, entry] = queue.front();
            queue.pop_front();
            ++busy;
            lock.unlock();
            Arrival a = read(index, entry);
            lock.lock();
            --busy;
            arrived.push_back(std::move(a));
            if (!notifyPending) {
                notifyPending = true;
                QMetaObject::invokeMethod(
                    &notifier, [this] { cloud.integrateArrivals(); }, Qt::QueuedConnection);
            }
            if (busy == 0 && queue.empty())
                idle.notify_all();
        }
    }

    Arrival read(int index, const tzCloudSource::Node &entry) const
    {
        Arrival a;
        a.node = index;
        a.page = entry.isPage();
        if (a.page) {
            source.readPage(entry, a.entries, a.error);
            return a;
        }
        auto held = std::make_shared<Held>();
        if (source.readNode(entry, shift, scale, held->data, a.error)) {
            held->bytes = bytesOf(held->data);
            a.held = std::move(held);
        }
        return a;
    }

    void localBox(const tzCloudSource::Node &e, double (&min)[3], double (&max)[3]) const
    {
        double lo[3], hi[3];
        source.nodeBox(e, lo, hi);
        for (int d = 0; d < 3; ++d) {
            min[d] = (lo[d] + shift[d]) * scale - margin;
            max[d] = (hi[d] + shift[d]) * scale + margin;
        }
    }

    // Adds or completes a node from a page's entry.
    void insert(const tzCloudSource::Node &e)
    {
        const auto key = keyOf(e);
        auto found = byKey.find(key);
        int index;
        if (found != byKey.end()) {
            index = found->second;
            Node &n = nodes[size_t(index)];
            if (!n.entry.isPage())
                return; // known already
            n.entry = e;
            // A tile's root is known better once its page is read (its octree's cube).
            localBox(e, n.min, n.max);
            n.spacing = source.nodeSpacing(e) * scale;
        } else {
            index = int(nodes.size());
            nodes.emplace_back();
            Node &n = nodes.back();
            n.entry = e;
            localBox(e, n.min, n.max);
            n.spacing = source.nodeSpacing(e) * scale;
            byKey.emplace(key, index);
            // Its parent and children among the nodes known: in its tile's octree, the root of
            // a tile under the root of the set, a level of a tile read whole under the one
            // above it.
            if (e.depth > 0 && e.x < 0) {
                const std::int32_t above = e.depth == 1 ? 0 : -1;
                const auto level = byKey.find({e.tile, e.depth - 1, above, above, above});
                if (level != byKey.end())
                    nodes[size_t(level->second)].others.push_back(index);
            } else if (e.depth > 0) {
                const auto parent = byKey.find({e.tile, e.depth - 1, e.x >> 1, e.y >> 1, e.z >> 1});
                if (parent != byKey.end())
                    nodes[size_t(parent->second)]
                        .children[(e.x & 1) | ((e.y & 1) << 1) | ((e.z & 1) << 2)]
                        = index;
            } else if (e.tile >= 0) {
                const auto set = byKey.find({-1, 0, 0, 0, 0});
                if (set != byKey.end()) {
                    nodes[size_t(set->second)].others.push_back(index);
                    // Its outline: the header's box (a COPC tile's root is its octree's cube
                    // once read).
                    const Node &tile = nodes[size_t(index)];
                    outlines.push_back({tile.min[0], tile.min[1], tile.min[2], tile.max[0],
                                        tile.max[1], tile.max[2]});
                }
            }
            for (int c = 0; c < 8; ++c) {
                const auto child = byKey.find({e.tile, e.depth + 1, 2 * e.x + (c & 1),
                                               2 * e.y + ((c >> 1) & 1), 2 * e.z + (c >> 2)});
                if (child != byKey.end())
                    nodes[size_t(index)].children[c] = child->second;
            }
        }
        if (!e.isPage() && e.pointCount > 0)
            byFirst.emplace(e.firstPoint, index);
        deepest = std::max(deepest, unsigned(e.depth));
    }

    void take(int index, std::shared_ptr<Held> held)
    {
        Node &n = nodes[size_t(index)];
        if (n.held || !held)
            return;
        held->serial = ++serials;
        heldBytes += held->bytes;
        ++heldNodes;
        n.held = std::move(held);
        n.lastUsed = frame;
        if (n.entry.depth <= 2)
            ++sampleVersion;
    }

    void report(const QString &error)
    {
        if (errorShown)
            return;
        errorShown = true;
        tzLog::Warning(error);
    }

    // Lets the least recently used nodes go until the budget is kept; nodes used in the current
    // frame stay.
    void evict()
    {
        const std::uint64_t budget = cloud.memoryBudget();
        if (heldBytes <= budget)
            return;
        std::vector<std::pair<std::uint64_t, int>> candidates;
        for (size_t i = 0; i < nodes.size(); ++i) {
            if (nodes[i].held && nodes[i].lastUsed < frame)
                candidates.push_back({nodes[i].lastUsed, int(i)});
        }
        std::sort(candidates.begin(), candidates.end(), [this](const auto &a, const auto &b) {
            // Older first; among nodes of one frame, the deeper first.
            if (a.first != b.first)
                return a.first < b.first;
            return nodes[size_t(a.second)].entry.depth > nodes[size_t(b.second)].entry.depth;
        });
        for (const auto &c : candidates) {
            if (heldBytes <= budget)
                break;
            Node &n = nodes[size_t(c.second)];
            heldBytes -= n.held->bytes;
            --heldNodes;
            n.held.reset();
        }
    }

    // Reads nodes (or pages) on this thread and the workers' cores, and waits for them.
    void readNow(const std::vector<int> &wanted)
    {
        std::vector<Arrival> results(wanted.size());
        std::atomic<size_t> next {0};
        const auto run = [&] {
            for (size_t i = next++; i < wanted.size(); i = next++)
                results[i] = read(wanted[i], nodes[size_t(wanted[i])].entry);
        };
        const unsigned hw = std::thread::hardware_concurrency();
        const int parallel = source.parallelReads();
        const size_t threads = std::min<size_t>(
            wanted.size(), parallel > 0 ? size_t(parallel) : size_t(std::max(1u, hw)));
        std::vector<std::thread> helpers;
        for (size_t t = 1; t < threads; ++t)
            helpers.emplace_back(run);
        run();
        for (std::thread &h : helpers)
            h.join();
        for (Arrival &a : results)
            integrate(a);
    }

    //! Whether a node is left alone for having failed: for good from a file, for a while from
    //! a server.
    bool failedRecently(const Node &n) const
    {
        const int retry = source.retryFailuresAfterMs();
        return n.failed
            && (retry < 0
                || std::chrono::steady_clock::now() - n.failedAt
                    < std::chrono::milliseconds(retry));
    }

    void integrate(Arrival &a)
    {
        Node &n = nodes[size_t(a.node)];
        n.requested = false;
        if (!a.error.isEmpty()) {
            // Shown once (once an outage, from a server); the node (or the part of the tree the
            // page lists) stays empty.
            report(a.error);
            n.failed = true;
            n.failedAt = std::chrono::steady_clock::now();
            if (n.entry.isPage() && source.retryFailuresAfterMs() < 0)
                n.entry.pointCount = 0;
            return;
        }
        if (n.failed) {
            n.failed = false;
            errorShown = false; // the server is back: the next outage is told again
        }
        if (a.page) {
            if (!n.entry.isPage())
                return;
            for (const tzCloudSource::Node &e : a.entries)
                insert(e);
            // A page that does not list its own node leaves it empty, not waiting.
            Node &again = nodes[size_t(a.node)];
            if (again.entry.isPage())
                again.entry.pointCount = 0;
        } else {
            take(a.node, std::move(a.held));
        }
    }

    // The nodes meeting a query, into found; pages read as needed (on this thread).
    void meeting(const TZLib::Octree::Query &query, std::vector<int> &found)
    {
        found.clear();
        std::vector<int> &pending = scratch;
        pending.assign(1, 0);
        while (!pending.empty()) {
            const int index = pending.back();
            pending.pop_back();
            if (!query.meets(nodes[size_t(index)].min, nodes[size_t(index)].max))
                continue;
            if (nodes[size_t(index)].entry.isPage()) {
                if (!failedRecently(nodes[size_t(index)]))
                    readNow({index});
                Node &read = nodes[size_t(index)];
                if (read.entry.isPage()) {
                    // A page that cannot be read: nothing below (this time, from a server).
                    if (source.retryFailuresAfterMs() >= 0)
                        continue;
                    read.entry.pointCount = 0;
                }
                pending.push_back(index);
                continue;
            }
            const Node &n = nodes[size_t(index)];
            if (n.entry.pointCount > 0)
                found.push_back(index);
            // The children's boxes are the halves of this one's: only the children that meet
            // the query are looked at (each one is elsewhere in memory).
            double mid[3];
            for (int a = 0; a < 3; ++a)
                mid[a] = 0.5 * (n.min[a] + n.max[a]);
            for (int t : n.others) {
                if (query.meets(nodes[size_t(t)].min, nodes[size_t(t)].max))
                    pending.push_back(t);
            }
            for (int c = 0; c < 8; ++c) {
                if (n.children[c] < 0)
                    continue;
                double lo[3], hi[3];
                for (int a = 0; a < 3; ++a) {
                    const bool upper = (c >> a) & 1;
                    lo[a] = upper ? mid[a] - margin : n.min[a];
                    hi[a] = upper ? n.max[a] : mid[a] + margin;
                }
                if (query.meets(lo, hi))
                    pending.push_back(n.children[c]);
            }
        }
    }

    // Makes sure the nodes are held (read on this thread and the workers' cores when not) and
    // keeps them for this frame.
    void hold(const std::vector<int> &wanted)
    {
        std::vector<int> missing;
        for (int index : wanted) {
            nodes[size_t(index)].lastUsed = frame;
            if (!nodes[size_t(index)].held && !failedRecently(nodes[size_t(index)]))
                missing.push_back(index);
        }
        if (!missing.empty())
            readNow(missing);
    }

    // Makes a node's grid of the points that can be numbered (count): about 4 points a column.
    void makeGrid(Node &n, unsigned count)
    {
        Grid &g = n.held->grid;
        const std::vector<TZVector3> &points = n.held->data.points;
        g.cells = int(std::max(1.0, std::min(256.0, std::sqrt(double(count) / 4.0))));
        g.min[0] = n.min[0];
        g.min[1] = n.min[1];
        g.perUnit = g.cells / std::max(n.max[0] - n.min[0], n.max[1] - n.min[1]);
        g.start.assign(size_t(g.cells) * size_t(g.cells) + 1, 0);
        std::vector<std::uint32_t> cellOf(count);
        for (unsigned i = 0; i < count; ++i) {
            const std::uint32_t c
                = cell(g, points[i].x, 0) + std::uint32_t(g.cells) * cell(g, points[i].y, 1);
            cellOf[i] = c;
            ++g.start[c + 1];
        }
        for (size_t c = 1; c < g.start.size(); ++c)
            g.start[c] += g.start[c - 1];
        std::vector<std::uint32_t> next(g.start.begin(), g.start.end() - 1);
        g.points.resize(count);
        g.order.resize(count);
        for (unsigned i = 0; i < count; ++i) {
            const std::uint32_t at = next[cellOf[i]]++;
            g.points[at] = points[i];
            g.order[at] = i;
        }
        const std::uint64_t bytes = (g.start.capacity() + g.order.capacity()) * 4
            + g.points.capacity() * sizeof(TZVector3);
        n.held->bytes += bytes;
        heldBytes += bytes;
    }
    static std::uint32_t cell(const Grid &g, double v, int axis)
    {
        const double at = std::floor((v - g.min[axis]) * g.perUnit);
        return at <= 0 ? 0u : (at >= g.cells - 1 ? std::uint32_t(g.cells - 1) : std::uint32_t(at));
    }

    // The runs of a held node's points that may pass a query, through its grid.
    void runsOf(Node &n, const TZLib::Octree::Query &query, std::vector<Run> &runs)
    {
        if (n.entry.firstPoint >= UINT_MAX)
            return;
        const std::vector<TZVector3> &points = n.held->data.points;
        // Indices past what can be numbered are left out.
        const unsigned count = unsigned(
            std::min<std::uint64_t>(points.size(), std::uint64_t(UINT_MAX) - n.entry.firstPoint));
        const unsigned first = unsigned(n.entry.firstPoint);
        if (count < 16) {
            runs.push_back({points.data(), nullptr, count, first});
            return;
        }
        if (n.held->grid.cells == 0)
            makeGrid(n, count);
        const Grid &g = n.held->grid;
        double lo[3], hi[3];
        query.bounds(lo, hi);
        const std::uint32_t x0 = cell(g, lo[0] - margin, 0), x1 = cell(g, hi[0] + margin, 0);
        const std::uint32_t y0 = cell(g, lo[1] - margin, 1), y1 = cell(g, hi[1] + margin, 1);
        const double side = 1 / g.perUnit;
        for (std::uint32_t y = y0; y <= y1; ++y) {
            // A row's columns that meet the query are one run of memory.
            std::uint32_t from = 0, to = 0;
            const auto close = [&] {
                if (to > from)
                    runs.push_back(
                        {g.points.data() + from, g.order.data() + from, to - from, first});
                from = to = 0;
            };
            for (std::uint32_t x = x0; x <= x1; ++x) {
                // The column's box, widened as the node's is: points were put in columns with
                // float arithmetic.
                const double min[3]
                    = {g.min[0] + x * side - margin, g.min[1] + y * side - margin, n.min[2]};
                const double max[3] = {g.min[0] + (x + 1) * side + margin,
                                       g.min[1] + (y + 1) * side + margin, n.max[2]};
                // The edge columns also hold what lies past the node's box.
                const bool edge = x == 0 || y == 0 || x + 1 == std::uint32_t(g.cells)
                    || y + 1 == std::uint32_t(g.cells);
                if (!edge && !query.meets(min, max)) {
                    close();
                    continue;
                }
                const std::uint32_t c = x + std::uint32_t(g.cells) * y;
                if (to != g.start[c])
                    close();
                if (to == from)
                    from = g.start[c];
                to = g.start[c + 1];
            }
            close();
        }
    }

    // Scans the runs; their first points are asked of memory before any is scanned, so that
    // the runs' cache misses overlap instead of following one another.
    static void scan(const std::vector<Run> &runs, const TZLib::Octree::Query &query,
                     TZLib::Octree::NeighboursSet &out)
    {
        for (const Run &r : runs)
            __builtin_prefetch(r.points);
        for (const Run &r : runs) {
            if (r.place)
                query.scan(r.points, r.place, r.count, r.first, out);
            else
                query.scan(r.points, r.count, r.first, out);
        }
    }

    int nodeOfPoint(std::uint64_t i) const
    {
        auto it = byFirst.upper_bound(i);
        if (it == byFirst.begin())
            return -1;
        --it;
        const Node &n = nodes[size_t(it->second)];
        return i < n.entry.firstPoint + std::uint64_t(n.entry.pointCount) ? it->second : -1;
    }

    // The node holding point i, read when it is not held yet, or -1 when no node holds it (its
    // page not read: every page down to it is read first).
    int holdPoint(std::uint64_t i)
    {
        if (i >= source.pointCount())
            return -1;
        int index = nodeOfPoint(i);
        if (index < 0) {
            // Read the pages not read yet, until one lists the node.
            for (size_t k = 0; index < 0 && k < nodes.size(); ++k) {
                if (nodes[k].entry.isPage()) {
                    readNow({int(k)});
                    index = nodeOfPoint(i);
                }
            }
            if (index < 0)
                return -1;
        }
        hold({index});
        return nodes[size_t(index)].held ? index : -1;
    }
};

// ----------------------------------------------------------------------------------------------

tzStreamedOctree::tzStreamedOctree(const tzStreamedCloud &cloud)
    : TZLib::Octree(&cloud)
    , m_cloud(cloud)
{
    TZVector3 a, b;
    cloud.getBoundingBox(a, b);
    for (int d = 0; d < 3; ++d) {
        m_min[d] = a[d];
        m_max[d] = b[d];
    }
    m_cubeSize = 2 * cloud.d->halfSize * cloud.getGlobalScale();
    m_coarseLevel = cloud.d->deepest;
    m_leafRel = 0;
}

bool tzStreamedOctree::answerElsewhere(const Query &query, NeighboursSet &out) const
{
    tzStreamedCloud::Impl &d = *m_cloud.d;
    std::vector<int> &found = d.found;
    d.meeting(query, found);
    const_cast<tzStreamedOctree *>(this)->setDeepest(d.deepest);
    d.hold(found);
    // In the order of the file, whatever the order the nodes were met in.
    std::sort(found.begin(), found.end(), [&d](int a, int b) {
        return d.nodes[size_t(a)].entry.firstPoint < d.nodes[size_t(b)].entry.firstPoint;
    });
    d.runs.clear();
    for (int index : found) {
        auto &n = d.nodes[size_t(index)];
        if (n.held)
            d.runsOf(n, query, d.runs);
    }
    d.scan(d.runs, query, out);
    return true;
}

// ----------------------------------------------------------------------------------------------

std::uint64_t tzStreamedCloud::defaultMemoryBudget()
{
    return g_defaultBudget;
}

void tzStreamedCloud::setDefaultMemoryBudget(std::uint64_t bytes)
{
    g_defaultBudget = std::max<std::uint64_t>(bytes, std::uint64_t(1) << 20);
}

void tzStreamedCloud::setSourceOpener(SourceOpener opener)
{
    sourceOpener() = std::move(opener);
}

tzStreamedCloud::tzStreamedCloud(std::unique_ptr<tzCloudSource> source, const QString &name)
    : tzPointCloud(name)
{
    attach(std::move(source));
}

tzStreamedCloud::~tzStreamedCloud()
{
    if (m_opened)
        --g_openClouds;
    d.reset(); // the workers stop before the source goes
}

void tzStreamedCloud::attach(std::unique_ptr<tzCloudSource> source)
{
    d.reset();
    m_source = std::move(source);
    if (!m_source)
        return;
    m_path = m_source->path();
    d = std::make_unique<Impl>(*this, *m_source);
    m_source->cube(d->centre, d->halfSize, d->spacing);
    m_attributeKinds = m_source->attributeKinds();
}

bool tzStreamedCloud::toFile_MeOnly(QIODevice &out) const
{
    // The cloud's settings, no points: the file keeps them.
    return tzPointCloud::toFile_MeOnly(out)
        && (tzSerialization::writeString(out, m_path)
            || tzSerialization::fail(tzSerialization::WriteError));
}

bool tzStreamedCloud::fromFile_MeOnly(QIODevice &in, short dataVersion, LoadedIDMap &oldToNew)
{
    if (!tzPointCloud::fromFile_MeOnly(in, dataVersion, oldToNew))
        return false;
    QString path;
    if (!tzSerialization::readString(in, path))
        return tzSerialization::fail(tzSerialization::ReadError);
    m_path = path;
    // A file that cannot be read leaves the cloud empty: the rest of the scene still loads.
    QString error;
    std::unique_ptr<tzCloudSource> source = sourceOpener() ? sourceOpener()(path, error) : nullptr;
    if (source) {
        attach(std::move(source));
        if (open(error))
            return true;
        attach(nullptr);
        m_path = path;
    }
    tzLog::Warning(
        QStringLiteral("The points of cloud '%1' are not shown: %2")
            .arg(getName(),
                 error.isEmpty() ? QStringLiteral("'%1' cannot be read").arg(path) : error));
    return true;
}

bool tzStreamedCloud::open(QString &error)
{
    if (!d) {
        error = QStringLiteral("'%1': no file to read the points from").arg(m_path);
        return false;
    }
    d->shift = m_globalShift;
    d->scale = m_globalScale;
    double lo[3], hi[3];
    m_source->pointBounds(lo, hi);
    double reach = d->halfSize;
    for (int a = 0; a < 3; ++a)
        reach = std::max({reach, std::abs((lo[a] + d->shift[a]) * d->scale),
                          std::abs((hi[a] + d->shift[a]) * d->scale)});
    // Points are floats: a node's box is widened by more than their rounding.
    d->margin = reach * 1e-6;
    tzCloudSource::Node root = m_source->rootPage();
    d->insert(root);
    std::vector<tzCloudSource::Node> entries;
    if (!m_source->readPage(root, entries, error))
        return false;
    for (const tzCloudSource::Node &e : entries)
        d->insert(e);
    if (d->nodes[0].entry.isPage()) {
        error = QStringLiteral("'%1': the hierarchy's first page does not list the root node")
                    .arg(m_source->path());
        return false;
    }
    d->startWorkers();
    if (!m_opened) {
        m_opened = true;
        ++g_openClouds;
    }
    // The root at once: the first picture, and the sample the colour ramps are measured on.
    d->hold({0});
    // An attribute the file left zero in that sample is taken as not kept (as the readers of
    // whole files do with one left zero everywhere).
    if (const auto &held = d->nodes[0].held) {
        quint8 seen = 0;
        for (const tzPointAttributes &a : held->data.attributes) {
            seen |= (a.intensity ? tzPointDisplay::INTENSITY : 0)
                | (a.classification ? tzPointDisplay::CLASSIFICATION : 0)
                | (a.returns ? tzPointDisplay::RETURNS : 0);
        }
        m_attributeKinds &= seen;
    }
    ++m_contentVersion;
    return true;
}

unsigned tzStreamedCloud::size() const
{
    if (!d)
        return 0;
    return unsigned(std::min<std::uint64_t>(m_source->pointCount(), UINT_MAX));
}

const TZVector3 *tzStreamedCloud::getPoint(unsigned i) const
{
    if (!d)
        return nullptr;
    const int index = d->holdPoint(i);
    if (index < 0)
        return nullptr;
    const Impl::Node &n = d->nodes[size_t(index)];
    return &n.held->data.points[size_t(i - n.entry.firstPoint)];
}

TZVector3 *tzStreamedCloud::getPoint(unsigned i)
{
    return const_cast<TZVector3 *>(static_cast<const tzStreamedCloud *>(this)->getPoint(i));
}

bool tzStreamedCloud::hasColors() const
{
    return m_source && m_source->hasColours();
}

const tzRgb &tzStreamedCloud::getPointColor(unsigned index) const
{
    static const tzRgb white;
    const int node = d ? d->holdPoint(index) : -1;
    if (node < 0)
        return white;
    const Impl::Node &n = d->nodes[size_t(node)];
    const auto &colours = n.held->data.colours;
    const size_t at = size_t(index - n.entry.firstPoint);
    return at < colours.size() ? colours[at] : white;
}

bool tzStreamedCloud::getBoundingBox(TZVector3 &bbMin, TZVector3 &bbMax) const
{
    if (!d)
        return false;
    double lo[3], hi[3];
    m_source->pointBounds(lo, hi);
    for (int a = 0; a < 3; ++a) {
        bbMin[a] = float((lo[a] + m_globalShift[a]) * m_globalScale);
        bbMax[a] = float((hi[a] + m_globalShift[a]) * m_globalScale);
    }
    return m_source->pointCount() > 0;
}

TZLib::Octree *tzStreamedCloud::computeOctree(const TZLib::Octree::ProgressCallback &progress)
{
    Q_UNUSED(progress)
    if (!d)
        return nullptr;
    if (!m_octree)
        m_octree = std::make_unique<tzStreamedOctree>(*this);
    return m_octree.get();
}

void tzStreamedCloud::onPointsChanged()
{
    // Nodes come and go, the points of the file stay: the octree is kept.
    ++m_contentVersion;
}

bool tzStreamedCloud::isPointShown(unsigned index) const
{
    if (!hidesPoints() || !d)
        return true;
    const int node = d->holdPoint(index);
    if (node < 0)
        return true;
    const Impl::Node &n = d->nodes[size_t(node)];
    const auto &attributes = n.held->data.attributes;
    const size_t at = size_t(index - n.entry.firstPoint);
    return at >= attributes.size() || isClassShown(attributes[at].classification);
}

void tzStreamedCloud::updateStatistics() const
{
    // From the top of the octree: an even sample of the whole survey.
    if (!d || m_statistics.version == d->sampleVersion)
        return;
    std::vector<TZVector3> points;
    std::vector<tzPointAttributes> attributes;
    for (const Impl::Node &n : d->nodes) {
        if (n.held && n.entry.depth <= 2) {
            const tzCloudSource::Points &p = n.held->data;
            points.insert(points.end(), p.points.begin(), p.points.end());
            attributes.insert(attributes.end(), p.attributes.begin(), p.attributes.end());
        }
    }
    attributes.resize(points.size());
    m_statistics = statisticsOf(points.data(), attributes.data(), points.size());
    // The classes' counts for the whole survey, from the sample.
    if (!points.empty()) {
        const double factor = double(m_source->pointCount()) / double(points.size());
        for (quint32 &count : m_statistics.classCounts)
            count = quint32(std::min(double(UINT_MAX), std::round(count * factor)));
    }
    m_statistics.version = d->sampleVersion;
}

void tzStreamedCloud::setMemoryBudget(std::uint64_t bytes)
{
    m_budget = std::max<std::uint64_t>(bytes, std::uint64_t(1) << 20);
    if (d)
        d->evict();
}

std::uint64_t tzStreamedCloud::memoryBudget() const
{
    if (m_budget > 0)
        return m_budget;
    return defaultMemoryBudget() / std::uint64_t(std::max(1, g_openClouds.load()));
}

std::uint64_t tzStreamedCloud::memoryHeld() const
{
    return d ? d->heldBytes : 0;
}

size_t tzStreamedCloud::nodesHeld() const
{
    return d ? d->heldNodes : 0;
}

size_t tzStreamedCloud::nodesKnown() const
{
    return d ? d->nodes.size() : 0;
}

std::vector<tzStreamedCloud::Piece> tzStreamedCloud::selectNodes(const View &view,
                                                                 bool *complete) const
{
    if (!d || d->nodes.empty()) {
        if (complete)
            *complete = true;
        return {};
    }
    Impl &s = *d;
    ++s.frame;
    const float *m = view.modelViewProjection.data();
    // The frustum's planes (a x + b y + c z + w >= 0 inside), from the matrix's rows.
    const auto row = [m](int i) {
        return std::array<double, 4> {m[i], m[4 + i], m[8 + i], m[12 + i]};
    };
    const auto r3 = row(3);
    std::array<std::array<double, 4>, 6> planes;
    for (int i = 0; i < 3; ++i) {
        const auto ri = row(i);
        for (int k = 0; k < 4; ++k) {
            planes[size_t(2 * i)][size_t(k)] = r3[size_t(k)] + ri[size_t(k)];
            planes[size_t(2 * i + 1)][size_t(k)] = r3[size_t(k)] - ri[size_t(k)];
        }
    }
    const auto visible = [&planes](const Impl::Node &n) {
        for (const auto &p : planes) {
            const double x = p[0] >= 0 ? n.max[0] : n.min[0];
            const double y = p[1] >= 0 ? n.max[1] : n.min[1];
            const double z = p[2] >= 0 ? n.max[2] : n.min[2];
            if (p[0] * x + p[1] * y + p[2] * z + p[3] < 0)
                return false;
        }
        return true;
    };
    const bool orthographic = r3[0] == 0 && r3[1] == 0 && r3[2] == 0;
    const double unitsToPixels = 0.5 * view.height
        * std::sqrt(double(m[1]) * m[1] + double(m[5]) * m[5] + double(m[9]) * m[9]);
    // The spacing of a node's points on the screen, where the node comes nearest the eye.
    const auto pixels = [&](const Impl::Node &n) {
        const double spacing = n.spacing;
        double w = 1;
        if (!orthographic) {
            double c[3], r2 = 0;
            for (int a = 0; a < 3; ++a) {
                c[a] = 0.5 * (n.min[a] + n.max[a]);
                r2 += 0.25 * (n.max[a] - n.min[a]) * (n.max[a] - n.min[a]);
            }
            w = r3[0] * c[0] + r3[1] * c[1] + r3[2] * c[2] + r3[3] - std::sqrt(r2);
            if (w <= 1e-9)
                return 1e30; // the eye is in or at the node
        }
        return spacing * unitsToPixels / w;
    };

    // Which first: the nodes whose points are larger on the screen, and, between equals (a
    // top view of tiles), the ones that cover more of the screen.
    const auto row0 = row(0), row1 = row(1);
    const auto priority = [&](const Impl::Node &n) {
        double lo[2] = {1e30, 1e30}, hi[2] = {-1e30, -1e30};
        for (int corner = 0; corner < 8; ++corner) {
            const double c[3] = {corner & 1 ? n.max[0] : n.min[0], corner & 2 ? n.max[1] : n.min[1],
                                 corner & 4 ? n.max[2] : n.min[2]};
            const double w = r3[0] * c[0] + r3[1] * c[1] + r3[2] * c[2] + r3[3];
            if (w <= 1e-9)
                return pixels(n) * 1.25; // around the eye: all the screen
            const double xy[2] = {(row0[0] * c[0] + row0[1] * c[1] + row0[2] * c[2] + row0[3]) / w,
                                  (row1[0] * c[0] + row1[1] * c[1] + row1[2] * c[2] + row1[3]) / w};
            for (int a = 0; a < 2; ++a) {
                lo[a] = std::min(lo[a], xy[a]);
                hi[a] = std::max(hi[a], xy[a]);
            }
        }
        double covered = 1;
        for (int a = 0; a < 2; ++a)
            covered *= std::max(0.0, std::min(hi[a], 1.0) - std::max(lo[a], -1.0)) / 2;
        return pixels(n) * (0.25 + covered);
    };

    std::vector<Piece> pieces;
    std::vector<std::pair<double, int>> wanted;
    bool whole = true;
    std::uint64_t drawn = 0;
    const std::uint64_t budget = view.pointBudget > 0 ? view.pointBudget : UINT64_MAX;
    std::priority_queue<std::pair<double, int>> open;
    open.push({1e30, 0});
    while (!open.empty()) {
        const int index = open.top().second;
        const double px = open.top().first;
        open.pop();
        Impl::Node &n = s.nodes[size_t(index)];
        if (!visible(n))
            continue;
        if (n.entry.isPage()) {
            if (!s.failedRecently(n)) {
                wanted.push_back({px, index});
                whole = false;
            }
            continue;
        }
        if (n.entry.pointCount > 0 && !s.failedRecently(n)) {
            if (drawn > 0 && drawn + std::uint64_t(n.entry.pointCount) > budget) {
                whole = false;
                continue;
            }
            if (!n.held) {
                wanted.push_back({px, index});
                whole = false;
                continue; // its children add to it: they wait for it
            }
            n.lastUsed = s.frame;
            const tzCloudSource::Points &p = n.held->data;
            pieces.push_back({p.points.data(), p.colours.empty() ? nullptr : p.colours.data(),
                              p.attributes.empty() ? nullptr : p.attributes.data(),
                              unsigned(p.points.size()), n.held->serial});
            drawn += p.points.size();
        }
        if (pixels(n) <= REFINE_PIXELS)
            continue;
        bool anyChild = !n.others.empty();
        for (int c : n.children)
            anyChild |= c >= 0;
        if (!anyChild)
            continue;
        if (drawn >= budget) {
            whole = false;
            continue;
        }
        for (int c : n.children) {
            if (c >= 0)
                open.push({priority(s.nodes[size_t(c)]), c});
        }
        for (int t : n.others)
            open.push({priority(s.nodes[size_t(t)]), t});
    }

    // The workers read what is missing, most wanted first; what the view no longer needs is
    // not read.
    std::sort(wanted.begin(), wanted.end(), std::greater<>());
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        for (const auto &q : s.queue)
            s.nodes[size_t(q.first)].requested = false;
        s.queue.clear();
        for (const auto &w : wanted) {
            Impl::Node &n = s.nodes[size_t(w.second)];
            if (n.requested)
                continue; // being read
            n.requested = true;
            s.queue.push_back({w.second, n.entry});
        }
    }
    s.wake.notify_all();
    s.evict();
    if (complete)
        *complete = whole;
    return pieces;
}

void tzStreamedCloud::drawMeOnly(tzDrawContext &context)
{
    tzPointCloud::drawMeOnly(context);
    QOpenGLFunctions_2_1 *gl = context.glFunctions;
    if (!d || d->outlines.empty() || !gl || !context.is3D() || context.isPicking())
        return;
    // The tiles' boxes, thin and grey: where the survey is before its points come.
    gl->glPushAttrib(GL_LINE_BIT | GL_ENABLE_BIT | GL_CURRENT_BIT);
    gl->glLineWidth(1);
    gl->glColor3ub(150, 150, 150);
    gl->glBegin(GL_LINES);
    for (const std::array<double, 6> &box : d->outlines) {
        const double min[3] = {box[0], box[1], box[2]}, max[3] = {box[3], box[4], box[5]};
        const double *b[2] = {min, max};
        for (int edge = 0; edge < 12; ++edge) {
            // Along axis a, at the corner given by the two other axes' ends.
            const int a = edge / 4, u = (a + 1) % 3, v = (a + 2) % 3;
            double from[3], to[3];
            from[u] = to[u] = b[edge & 1][u];
            from[v] = to[v] = b[(edge >> 1) & 1][v];
            from[a] = min[a];
            to[a] = max[a];
            gl->glVertex3d(from[0], from[1], from[2]);
            gl->glVertex3d(to[0], to[1], to[2]);
        }
    }
    gl->glEnd();
    gl->glPopAttrib();
}

void tzStreamedCloud::waitForReads()
{
    if (!d)
        return;
    std::unique_lock<std::mutex> lock(d->mutex);
    d->idle.wait(lock, [this] { return d->busy == 0 && d->queue.empty(); });
}

void tzStreamedCloud::integrateArrivals()
{
    if (!d)
        return;
    std::vector<Impl::Arrival> arrived;
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        arrived.swap(d->arrived);
        d->notifyPending = false;
    }
    if (arrived.empty())
        return;
    for (Impl::Arrival &a : arrived)
        d->integrate(a);
    if (m_octree)
        static_cast<tzStreamedOctree *>(m_octree.get())->setDeepest(d->deepest);
    d->evict();
    ++m_contentVersion;
    prepareDisplayForRefresh();
    if (tzGenericGLDisplay *display = getDisplay())
        display->redraw(false, false);
}
