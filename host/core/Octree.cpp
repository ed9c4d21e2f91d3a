#include "Octree.h"

#include <algorithm>
#include <cmath>
#include <new>
#include <thread>

namespace TZLib {

namespace {

// Levels of Morton code kept below the coarse level: 10 per axis, 30 bits in a 32-bit word.
constexpr unsigned SUFFIX_LEVELS = 10;
constexpr unsigned MAX_COARSE_LEVEL = 10;
// Below this many points the build runs on one thread (threads cost more than they save).
constexpr unsigned PARALLEL_THRESHOLD = 200000;
// A coarse cell with at most this many leaves is searched by one pass over its leaves.
constexpr uint32_t LINEAR_SCAN_LEAVES = 64;

inline uint32_t spreadBits3(uint32_t v)
{
    v &= 0x3ffu;
    v = (v | (v << 16)) & 0x030000ffu;
    v = (v | (v << 8)) & 0x0300f00fu;
    v = (v | (v << 4)) & 0x030c30c3u;
    v = (v | (v << 2)) & 0x09249249u;
    return v;
}

// The inverse of spreadBits3: every third bit, packed.
inline uint32_t compactBits3(uint32_t v)
{
    v &= 0x09249249u;
    v = (v | (v >> 2)) & 0x030c30c3u;
    v = (v | (v >> 4)) & 0x0300f00fu;
    v = (v | (v >> 8)) & 0x030000ffu;
    v = (v | (v >> 16)) & 0x000003ffu;
    return v;
}

inline uint32_t morton3(uint32_t x, uint32_t y, uint32_t z)
{
    return spreadBits3(x) | (spreadBits3(y) << 1) | (spreadBits3(z) << 2);
}

unsigned threadCount(unsigned n, unsigned maxThreads)
{
    if (n < PARALLEL_THRESHOLD)
        return 1;
    const unsigned hw = std::thread::hardware_concurrency();
    const unsigned all = std::min(hw == 0 ? 2u : hw, 8u);
    return std::max(1u, maxThreads == 0 ? all : std::min(maxThreads, all));
}

// Runs fn(t) for t in [0, threads) and waits; thread 0 is the caller.
template<typename Fn> void runParallel(unsigned threads, Fn &&fn)
{
    std::vector<std::thread> workers;
    workers.reserve(threads > 0 ? threads - 1 : 0);
    for (unsigned t = 1; t < threads; ++t)
        workers.emplace_back([&fn, t] { fn(t); });
    fn(0);
    for (std::thread &w : workers)
        w.join();
}

// Sorts the entries of one coarse cell by (code, index) and counts the cells that start at each
// level below it. Entries come in rising index order; large runs are split by octant, one level
// at a time, with a stable counting scatter (a few passes over data in the first-level cache,
// almost no unpredictable branches), and small runs are finished by insertion.
class CellSorter
{
public:
    //! cells[k] counts the cells of relative level k met so far (k = 0: the coarse cells).
    explicit CellSorter(uint64_t *cells)
        : m_cells(cells)
    {
    }

    void sort(uint32_t *codes, uint32_t *perm, uint32_t count)
    {
        ++m_cells[0];
        bool sorted = true;
        for (uint32_t k = 1; k < count && sorted; ++k)
            sorted = codes[k - 1] <= codes[k];
        if (sorted)
            countSorted(codes, count);
        else
            split(codes, perm, count, 0);
    }

private:
    static constexpr uint32_t SMALL_RUN = 24;

    // The codes of [codes, codes + count) share their first `depth` levels.
    void split(uint32_t *codes, uint32_t *perm, uint32_t count, unsigned depth)
    {
        if (count <= SMALL_RUN) {
            insertionSort(codes, perm, count);
            countSorted(codes, count);
            return;
        }
        if (depth == SUFFIX_LEVELS)
            return; // one deepest cell: the indices are in order already
        const unsigned shift = 3 * (SUFFIX_LEVELS - 1 - depth);
        uint32_t counts[8] = {0, 0, 0, 0, 0, 0, 0, 0};
        for (uint32_t k = 0; k < count; ++k)
            ++counts[(codes[k] >> shift) & 7u];
        unsigned children = 0;
        for (uint32_t c : counts)
            children += c != 0;
        m_cells[depth + 1] += children - 1;
        if (children > 1) {
            uint32_t at[8];
            uint32_t acc = 0;
            for (int c = 0; c < 8; ++c) {
                at[c] = acc;
                acc += counts[c];
            }
            if (m_codes.size() < count) {
                m_codes.resize(count);
                m_perm.resize(count);
            }
            for (uint32_t k = 0; k < count; ++k) {
                const uint32_t to = at[(codes[k] >> shift) & 7u]++;
                m_codes[to] = codes[k];
                m_perm[to] = perm[k];
            }
            std::copy(m_codes.begin(), m_codes.begin() + count, codes);
            std::copy(m_perm.begin(), m_perm.begin() + count, perm);
        }
        uint32_t first = 0;
        for (uint32_t c : counts) {
            if (c > 0)
                split(codes + first, perm + first, c, depth + 1);
            first += c;
        }
    }

    static void insertionSort(uint32_t *codes, uint32_t *perm, uint32_t count)
    {
        for (uint32_t k = 1; k < count; ++k) {
            const uint32_t code = codes[k];
            const uint32_t index = perm[k];
            uint32_t j = k;
            // Indices rise within a run, so equal codes keep their order.
            for (; j > 0 && codes[j - 1] > code; --j) {
                codes[j] = codes[j - 1];
                perm[j] = perm[j - 1];
            }
            codes[j] = code;
            perm[j] = index;
        }
    }

    // Counts the cells that start between neighbours of a sorted run.
    void countSorted(const uint32_t *codes, uint32_t count)
    {
        for (uint32_t k = 1; k < count; ++k) {
            const uint32_t diff = codes[k] ^ codes[k - 1];
            if (diff != 0) {
                const unsigned highBit = 31u - unsigned(__builtin_clz(diff));
                ++m_cells[SUFFIX_LEVELS - highBit / 3];
            }
        }
    }

    uint64_t *m_cells;
    std::vector<uint32_t> m_codes; // scatter space, reused from cell to cell
    std::vector<uint32_t> m_perm;
};

struct SphereShape
{
    // A small sphere fills most of its bounding box: no finer test of the leaves is worth it.
    static constexpr bool boxIsTight = true;
    double c[3];
    double r2;
    double bmin[3];
    double bmax[3];

    SphereShape(const TZVector3 &centre, PointCoordinateType radius)
    {
        const double r = radius;
        r2 = r * r;
        for (int d = 0; d < 3; ++d) {
            c[d] = centre[d];
            bmin[d] = c[d] - r;
            bmax[d] = c[d] + r;
        }
    }
    bool intersects(const double mn[3], const double mx[3]) const
    {
        double d2 = 0;
        for (int d = 0; d < 3; ++d) {
            const double e = c[d] < mn[d] ? mn[d] - c[d] : (c[d] > mx[d] ? c[d] - mx[d] : 0.0);
            d2 += e * e;
        }
        return d2 <= r2;
    }
    bool test(const TZVector3 &p, double &d2) const
    {
        const double dx = double(p.x) - c[0];
        const double dy = double(p.y) - c[1];
        const double dz = double(p.z) - c[2];
        d2 = dx * dx + dy * dy + dz * dz;
        return d2 <= r2;
    }
};

struct CylinderShape
{
    double c[3];
    double dir[3];
    double r2;
    double tmin;
    double tmax;
    double bmin[3];
    double bmax[3];
    bool boxIsTight; // along an axis the cylinder fills its bounding box

    explicit CylinderShape(const Octree::CylindricalNeighbourhood &p)
    {
        const double r = p.radius;
        r2 = r * r;
        tmax = p.maxHalfLength;
        tmin = p.onlyPositiveDir ? 0.0 : -tmax;
        for (int d = 0; d < 3; ++d) {
            c[d] = p.center[d];
            dir[d] = p.dir[d];
        }
        // Exact bounds of the two end discs, which bound the cylinder.
        for (int d = 0; d < 3; ++d) {
            const double a = c[d] + tmin * dir[d];
            const double b = c[d] + tmax * dir[d];
            const double e = r * std::sqrt(std::max(0.0, 1.0 - dir[d] * dir[d]));
            bmin[d] = std::min(a, b) - e;
            bmax[d] = std::max(a, b) + e;
        }
        const int zeros = (dir[0] == 0) + (dir[1] == 0) + (dir[2] == 0);
        boxIsTight = zeros >= 2;
    }
    bool intersects(const double mn[3], const double mx[3]) const
    {
        for (int d = 0; d < 3; ++d) {
            if (mx[d] < bmin[d] || mn[d] > bmax[d])
                return false;
        }
        if (boxIsTight)
            return true;
        // The box's bounding sphere against the axis segment: an oblique cylinder (a picking
        // ray) has a bounding box far larger than itself.
        double v[3];
        double halfDiagonal2 = 0;
        double t = 0;
        for (int d = 0; d < 3; ++d) {
            const double half = 0.5 * (mx[d] - mn[d]);
            halfDiagonal2 += half * half;
            v[d] = mn[d] + half - c[d];
            t += v[d] * dir[d];
        }
        t = std::min(tmax, std::max(tmin, t));
        double d2 = 0;
        for (int d = 0; d < 3; ++d) {
            const double w = v[d] - t * dir[d];
            d2 += w * w;
        }
        const double reach = std::sqrt(r2) + std::sqrt(halfDiagonal2);
        return d2 <= reach * reach;
    }
    bool test(const TZVector3 &p, double &d2) const
    {
        const double v0 = double(p.x) - c[0];
        const double v1 = double(p.y) - c[1];
        const double v2 = double(p.z) - c[2];
        const double t = v0 * dir[0] + v1 * dir[1] + v2 * dir[2];
        if (t < tmin || t > tmax)
            return false;
        const double w0 = v0 - t * dir[0];
        const double w1 = v1 - t * dir[1];
        const double w2 = v2 - t * dir[2];
        d2 = w0 * w0 + w1 * w1 + w2 * w2;
        return d2 <= r2;
    }
};

} // namespace

Octree::Octree(const PointCloud *cloud)
    : m_cloud(cloud)
{
}

void Octree::clear()
{
    // Swapped with empty arrays: assigning {} would empty them and keep their memory.
    decltype(m_perm)().swap(m_perm);
    decltype(m_leaves)().swap(m_leaves);
    decltype(m_directory)().swap(m_directory);
    m_grid[0] = m_grid[1] = m_grid[2] = 0;
    m_cubeSize = 0;
    for (int d = 0; d < 3; ++d)
        m_min[d] = m_max[d] = 0;
    m_coarseLevel = 0;
    m_leafRel = 0;
}

double Octree::cellSize(unsigned char level) const
{
    return std::ldexp(m_cubeSize, -static_cast<int>(level));
}

std::size_t Octree::memoryUsed() const
{
    return sizeof(*this) + sizeof(uint32_t) * (m_perm.capacity() + m_directory.capacity())
        + sizeof(Leaf) * m_leaves.capacity();
}

int Octree::build(const ProgressCallback &progress, unsigned maxThreads)
{
    clear();
    const auto report = [&progress](int percent) {
        if (progress)
            progress(percent);
    };
    if (!m_cloud || m_cloud->size() == 0) {
        report(100);
        return 0;
    }
    const unsigned n = m_cloud->size();
    const TZVector3 *pts = m_cloud->data();
    const unsigned threads = threadCount(n, maxThreads);

    try {
        // Bounding box.
        std::vector<TZVector3> tmin(threads, pts[0]);
        std::vector<TZVector3> tmax(threads, pts[0]);
        runParallel(threads, [&](unsigned t) {
            const unsigned b = unsigned(uint64_t(n) * t / threads);
            const unsigned e = unsigned(uint64_t(n) * (t + 1) / threads);
            TZVector3 mn = pts[b];
            TZVector3 mx = pts[b];
            for (unsigned i = b; i < e; ++i) {
                const TZVector3 &p = pts[i];
                mn.x = std::min(mn.x, p.x);
                mn.y = std::min(mn.y, p.y);
                mn.z = std::min(mn.z, p.z);
                mx.x = std::max(mx.x, p.x);
                mx.y = std::max(mx.y, p.y);
                mx.z = std::max(mx.z, p.z);
            }
            tmin[t] = mn;
            tmax[t] = mx;
        });
        double extent = 0;
        double axisExtent[3];
        for (int d = 0; d < 3; ++d) {
            double mn = tmin[0][d];
            double mx = tmax[0][d];
            for (unsigned t = 1; t < threads; ++t) {
                mn = std::min(mn, double(tmin[t][d]));
                mx = std::max(mx, double(tmax[t][d]));
            }
            m_min[d] = mn;
            m_max[d] = mx;
            axisExtent[d] = mx - mn;
            extent = std::max(extent, mx - mn);
        }
        m_cubeSize = extent > 0 ? extent * (1.0 + 1e-6) : 1.0;

        // Coarse directory level: the deepest whose cells meeting the bounding box number at most
        // one per 4 points.
        const auto gridAt = [&](unsigned level, uint32_t grid[3]) {
            const double edge = std::ldexp(m_cubeSize, -static_cast<int>(level));
            uint64_t cells = 1;
            for (int d = 0; d < 3; ++d) {
                const double along = std::floor(axisExtent[d] / edge) + 1;
                grid[d] = uint32_t(std::min(along, std::ldexp(1.0, static_cast<int>(level))));
                cells *= grid[d];
            }
            return cells;
        };
        m_coarseLevel = 0;
        gridAt(0, m_grid);
        for (unsigned level = 1; level <= MAX_COARSE_LEVEL; ++level) {
            uint32_t grid[3];
            if (gridAt(level, grid) > std::max(1u, n / 4))
                break;
            m_coarseLevel = level;
            std::copy(grid, grid + 3, m_grid);
        }
        const unsigned deepest = m_coarseLevel + SUFFIX_LEVELS;
        const uint32_t buckets = m_grid[0] * m_grid[1] * m_grid[2];
        uint32_t maxCell[3];
        for (int d = 0; d < 3; ++d)
            maxCell[d] = (m_grid[d] << SUFFIX_LEVELS) - 1;
        const double scale = std::ldexp(1.0, static_cast<int>(deepest)) / m_cubeSize;
        report(10);

        // The deepest cell of a point, in integer coordinates along each axis.
        const auto quantise = [&](const TZVector3 &p, uint32_t q[3]) {
            for (int d = 0; d < 3; ++d) {
                const double v = (double(p[d]) - m_min[d]) * scale;
                q[d] = v <= 0 ? 0u : std::min(maxCell[d], static_cast<uint32_t>(v));
            }
        };
        const auto coarseOf = [this](const uint32_t q[3]) {
            return coarseIndex(q[0] >> SUFFIX_LEVELS, q[1] >> SUFFIX_LEVELS, q[2] >> SUFFIX_LEVELS);
        };
        const auto range = [n, threads](unsigned t, unsigned &b, unsigned &e) {
            b = unsigned(uint64_t(n) * t / threads);
            e = unsigned(uint64_t(n) * (t + 1) / threads);
        };

        // Pass 1: points counted per coarse cell and thread. Nothing is stored per point: the
        // cells are computed again in pass 2, which costs less than filling and reading back a
        // fresh array of keys.
        std::vector<std::vector<uint32_t>> hist(threads, std::vector<uint32_t>(buckets, 0));
        runParallel(threads, [&](unsigned t) {
            unsigned b, e;
            range(t, b, e);
            uint32_t *h = hist[t].data();
            for (unsigned i = b; i < e; ++i) {
                uint32_t q[3];
                quantise(pts[i], q);
                ++h[coarseOf(q)];
            }
        });
        report(25);

        // Pass 2: stable scatter by coarse cell, each thread after the previous ones: the point
        // indices go where they stay (the permutation), their Morton codes below the coarse cell
        // beside them.
        std::vector<uint32_t> bucketStart(buckets + 1, 0);
        {
            uint32_t acc = 0;
            for (uint32_t b = 0; b < buckets; ++b) {
                bucketStart[b] = acc;
                for (unsigned t = 0; t < threads; ++t) {
                    const uint32_t count = hist[t][b];
                    hist[t][b] = acc;
                    acc += count;
                }
            }
            bucketStart[buckets] = acc;
        }
        m_perm.resize(n);
        std::vector<uint32_t, BulkAllocator<uint32_t>> suffix(n);
        runParallel(threads, [&](unsigned t) {
            unsigned b, e;
            range(t, b, e);
            uint32_t *offset = hist[t].data();
            uint32_t *perm = m_perm.data();
            uint32_t *codes = suffix.data();
            for (unsigned i = b; i < e; ++i) {
                uint32_t q[3];
                quantise(pts[i], q);
                const uint32_t at = offset[coarseOf(q)]++;
                perm[at] = i;
                codes[at] = morton3(q[0], q[1], q[2]);
            }
        });
        decltype(hist)().swap(hist); // its memory back, not only emptied
        report(50);

        // Pass 3: each coarse cell sorted by (code, index); threads take runs of cells of equal
        // weight, and count the cells that start at each level below the coarse one.
        std::vector<uint32_t> split(threads + 1, buckets);
        split[0] = 0;
        for (unsigned t = 1; t < threads; ++t) {
            const uint32_t target = uint32_t(uint64_t(n) * t / threads);
            split[t] = uint32_t(std::upper_bound(bucketStart.begin(), bucketStart.end() - 1, target)
                                - bucketStart.begin());
            split[t] = std::max(split[t], split[t - 1]);
        }
        std::vector<std::vector<uint64_t>> newCells(threads,
                                                    std::vector<uint64_t>(SUFFIX_LEVELS + 1, 0));
        runParallel(threads, [&](unsigned t) {
            CellSorter sorter(newCells[t].data());
            for (uint32_t b = split[t]; b < split[t + 1]; ++b) {
                const uint32_t first = bucketStart[b];
                const uint32_t last = bucketStart[b + 1];
                if (first != last)
                    sorter.sort(suffix.data() + first, m_perm.data() + first, last - first);
            }
        });
        report(80);

        // Leaf level: the deepest whose cell count keeps the whole within 8 bytes per point
        // (4 for the permutation, 8 per leaf, 4 per directory entry).
        const double maxLeaves = (4.0 * n - 4.0 * (buckets + 2)) / 8.0;
        uint64_t cellsAtLevel = 0;
        m_leafRel = 0;
        for (unsigned k = 0; k <= SUFFIX_LEVELS; ++k) {
            for (unsigned t = 0; t < threads; ++t)
                cellsAtLevel += newCells[t][k];
            if (k == 0 || double(cellsAtLevel) <= maxLeaves)
                m_leafRel = k;
            else
                break;
        }

        // Pass 4: leaf table and directory, each thread over its own cells; where its leaves
        // start is known from the counts of pass 3.
        const unsigned leafShift = 3 * (SUFFIX_LEVELS - m_leafRel);
        std::vector<uint32_t> leafStart(threads + 1, 0);
        for (unsigned t = 0; t < threads; ++t) {
            uint64_t leaves = 0;
            for (unsigned k = 0; k <= m_leafRel; ++k)
                leaves += newCells[t][k];
            leafStart[t + 1] = leafStart[t] + uint32_t(leaves);
        }
        m_leaves.resize(leafStart[threads] + 1);
        m_directory.resize(buckets + 1);
        runParallel(threads, [&](unsigned t) {
            Leaf *leaves = m_leaves.data();
            uint32_t at = leafStart[t];
            for (uint32_t b = split[t]; b < split[t + 1]; ++b) {
                m_directory[b] = at;
                const uint32_t first = bucketStart[b];
                const uint32_t last = bucketStart[b + 1];
                uint32_t previous = 0;
                for (uint32_t i = first; i < last; ++i) {
                    const uint32_t code = suffix[i] >> leafShift;
                    if (i == first || code != previous) {
                        leaves[at++] = {code, i};
                        previous = code;
                    }
                }
            }
        });
        m_directory[buckets] = leafStart[threads];
        m_leaves[leafStart[threads]] = {0, n};
    } catch (const std::bad_alloc &) {
        clear();
        return -1;
    }
    report(100);
    return static_cast<int>(n);
}

unsigned char
Octree::findBestLevelForAGivenNeighbourhoodSizeExtraction(PointCoordinateType radius) const
{
    const unsigned char leaf = leafLevel();
    if (m_cubeSize <= 0 || !(radius > 0))
        return leaf;
    // The deepest level whose cells are at least twice the radius: a neighbourhood then spans at
    // most two cells per axis.
    unsigned char level = 0;
    while (level < leaf && cellSize(static_cast<unsigned char>(level + 1)) >= 2.0 * radius)
        ++level;
    return level;
}

Octree::Box Octree::cellBox(unsigned level, const uint32_t cell[3]) const
{
    const double edge = std::ldexp(m_cubeSize, -static_cast<int>(level));
    // Points were put in cells with floating-point arithmetic: widen each box by one deepest cell
    // so that pruning never drops a point lying on a cell boundary.
    const double margin = std::ldexp(m_cubeSize, -static_cast<int>(m_coarseLevel + SUFFIX_LEVELS));
    Box box;
    for (int d = 0; d < 3; ++d) {
        box.min[d] = m_min[d] + cell[d] * edge - margin;
        box.max[d] = m_min[d] + (cell[d] + 1) * edge + margin;
    }
    return box;
}

template<typename Shape>
void Octree::descend(const Shape &shape, unsigned rel, unsigned stopRel, const uint32_t cell[3],
                     uint32_t lo, uint32_t hi, NeighboursSet &out) const
{
    const Box box = cellBox(m_coarseLevel + rel, cell);
    if (!shape.intersects(box.min, box.max))
        return;
    if (rel == 0 && m_leafRel > 0 && hi - lo <= LINEAR_SCAN_LEAVES)
        scanLeaves(shape, cell, lo, hi, out);
    else
        descendInto(shape, rel, stopRel, cell, lo, hi, out);
}

template<typename Shape>
void Octree::scanPoints(const Shape &shape, uint32_t lo, uint32_t hi, NeighboursSet &out) const
{
    const TZVector3 *pts = m_cloud->data();
    const uint32_t end = m_leaves[hi].start;
    for (uint32_t j = m_leaves[lo].start; j < end; ++j) {
        const uint32_t index = m_perm[j];
        double d2;
        if (shape.test(pts[index], d2))
            out.push_back({pts + index, index, d2});
    }
}

template<typename Shape>
void Octree::scanLeaves(const Shape &shape, const uint32_t cell[3], uint32_t lo, uint32_t hi,
                        NeighboursSet &out) const
{
    // The leaves of a coarse cell that meet the shape's bounding box, found by one pass over its
    // few leaves instead of a descent (no chain of dependent searches). Along one axis, the bits
    // of a Morton code that belong to that axis order the cells like the axis coordinate, so the
    // box test runs on the codes without decoding them.
    const unsigned level = m_coarseLevel + m_leafRel;
    const double edge = cellSize(static_cast<unsigned char>(level));
    const double margin = std::ldexp(m_cubeSize, -static_cast<int>(m_coarseLevel + SUFFIX_LEVELS));
    const uint32_t cellsPerAxis = uint32_t(1) << m_leafRel;
    uint32_t low[3];
    uint32_t high[3];
    uint32_t mask[3];
    for (int d = 0; d < 3; ++d) {
        const double origin
            = m_min[d] + cell[d] * cellSize(static_cast<unsigned char>(m_coarseLevel));
        const double a = std::floor((shape.bmin[d] - margin - origin) / edge);
        const double b = std::floor((shape.bmax[d] + margin - origin) / edge);
        const uint32_t first = a <= 0 ? 0u : (a >= cellsPerAxis ? cellsPerAxis - 1 : uint32_t(a));
        const uint32_t last = b <= 0 ? 0u : (b >= cellsPerAxis ? cellsPerAxis - 1 : uint32_t(b));
        low[d] = spreadBits3(first) << d;
        high[d] = spreadBits3(last) << d;
        mask[d] = spreadBits3(cellsPerAxis - 1) << d;
    }
    const Leaf *leaves = m_leaves.data();
    for (uint32_t i = lo; i < hi; ++i) {
        const uint32_t code = leaves[i].code;
        bool inside = true;
        for (int d = 0; d < 3; ++d) {
            const uint32_t v = code & mask[d];
            inside &= v >= low[d] && v <= high[d];
        }
        if (!inside)
            continue;
        // The leaf's own box against the shape: an oblique cylinder's bounding box holds many
        // leaves that the cylinder itself misses.
        if (!shape.boxIsTight) {
            const uint32_t leafCell[3] = {(cell[0] << m_leafRel) | compactBits3(code),
                                          (cell[1] << m_leafRel) | compactBits3(code >> 1),
                                          (cell[2] << m_leafRel) | compactBits3(code >> 2)};
            const Box box = cellBox(level, leafCell);
            if (!shape.intersects(box.min, box.max))
                continue;
        }
        scanPoints(shape, i, i + 1, out);
    }
}

template<typename Shape>
void Octree::descendInto(const Shape &shape, unsigned rel, unsigned stopRel, const uint32_t cell[3],
                         uint32_t lo, uint32_t hi, NeighboursSet &out) const
{
    if (rel >= stopRel) {
        scanPoints(shape, lo, hi, out);
        return;
    }
    // The leaves of this cell are sorted, so its eight children are consecutive runs; only the
    // runs of the children that meet the shape are looked up.
    const unsigned shift = 3 * (m_leafRel - rel - 1);
    const Leaf *leaves = m_leaves.data();
    const unsigned childLevel = m_coarseLevel + rel + 1;
    uint32_t first = lo;
    for (uint32_t child = 0; child < 8 && first < hi; ++child) {
        const uint32_t sub[3] = {2 * cell[0] + (child & 1u), 2 * cell[1] + ((child >> 1) & 1u),
                                 2 * cell[2] + ((child >> 2) & 1u)};
        const Box childBox = cellBox(childLevel, sub);
        if (!shape.intersects(childBox.min, childBox.max))
            continue;
        const auto before
            = [shift, child](const Leaf &l) { return ((l.code >> shift) & 7u) < child; };
        const auto upTo
            = [shift, child](const Leaf &l) { return ((l.code >> shift) & 7u) <= child; };
        first = uint32_t(std::partition_point(leaves + first, leaves + hi, before) - leaves);
        const uint32_t last
            = uint32_t(std::partition_point(leaves + first, leaves + hi, upTo) - leaves);
        if (last > first)
            descendInto(shape, rel + 1, stopRel, sub, first, last, out);
        first = last;
    }
}

template<typename Shape>
void Octree::query(const Shape &shape, unsigned char level, NeighboursSet &out) const
{
    if (m_perm.empty())
        return;
    const double edge = std::ldexp(m_cubeSize, -static_cast<int>(m_coarseLevel));
    const double margin = std::ldexp(m_cubeSize, -static_cast<int>(m_coarseLevel + SUFFIX_LEVELS));
    uint32_t lo[3];
    uint32_t hi[3];
    for (int d = 0; d < 3; ++d) {
        const double a = std::floor((shape.bmin[d] - margin - m_min[d]) / edge);
        const double b = std::floor((shape.bmax[d] + margin - m_min[d]) / edge);
        if (!(b >= 0) || !(a < m_grid[d]))
            return; // outside the grid, or NaN bounds
        lo[d] = a <= 0 ? 0u : uint32_t(a);
        hi[d] = b >= m_grid[d] - 1 ? m_grid[d] - 1 : uint32_t(b);
    }
    const unsigned stopRel
        = level <= m_coarseLevel ? 0u : std::min<unsigned>(level - m_coarseLevel, m_leafRel);
    // Fetch the directory entries of all the coarse cells first: they are independent loads that
    // the processor overlaps, where fetching them one by one in the descent would wait for each.
    constexpr unsigned MAX_BATCH = 64;
    uint32_t batch[MAX_BATCH][5];
    unsigned count = 0;
    const auto flush = [&] {
        for (unsigned i = 0; i < count; ++i) {
            if (batch[i][3] < batch[i][4])
                descend(shape, 0, stopRel, batch[i], batch[i][3], batch[i][4], out);
        }
        count = 0;
    };
    for (uint32_t y = lo[1]; y <= hi[1]; ++y) {
        for (uint32_t x = lo[0]; x <= hi[0]; ++x) {
            for (uint32_t z = lo[2]; z <= hi[2]; ++z) {
                const uint32_t b = coarseIndex(x, y, z);
                uint32_t *entry = batch[count++];
                entry[0] = x;
                entry[1] = y;
                entry[2] = z;
                entry[3] = m_directory[b];
                entry[4] = m_directory[b + 1];
                if (count == MAX_BATCH)
                    flush();
            }
        }
    }
    flush();
}

namespace {

// A shape's test, for octrees that answer over points held elsewhere.
template<typename Shape> class QueryOf final : public Octree::Query
{
public:
    explicit QueryOf(const Shape &shape)
        : m_shape(shape)
    {
    }
    bool meets(const double (&min)[3], const double (&max)[3]) const override
    {
        for (int d = 0; d < 3; ++d) {
            if (max[d] < m_shape.bmin[d] || min[d] > m_shape.bmax[d])
                return false;
        }
        return m_shape.intersects(min, max);
    }
    void scan(const TZVector3 *points, unsigned count, unsigned firstIndex,
              Octree::NeighboursSet &out) const override
    {
        for (unsigned i = 0; i < count; ++i) {
            double d2;
            if (m_shape.test(points[i], d2))
                out.push_back({points + i, firstIndex + i, d2});
        }
    }
    void scan(const TZVector3 *points, const std::uint32_t *place, unsigned count,
              unsigned firstIndex, Octree::NeighboursSet &out) const override
    {
        for (unsigned k = 0; k < count; ++k) {
            double d2;
            if (m_shape.test(points[k], d2))
                out.push_back({points + k, firstIndex + place[k], d2});
        }
    }
    void bounds(double (&min)[3], double (&max)[3]) const override
    {
        for (int d = 0; d < 3; ++d) {
            min[d] = m_shape.bmin[d];
            max[d] = m_shape.bmax[d];
        }
    }

private:
    const Shape &m_shape;
};

} // namespace

Octree::~Octree() = default;

int Octree::getPointsInSphericalNeighbourhood(const TZVector3 &centre, PointCoordinateType radius,
                                              NeighboursSet &neighbours, unsigned char level) const
{
    const std::size_t before = neighbours.size();
    if (radius >= 0) {
        const SphereShape shape(centre, radius);
        if (!answerElsewhere(QueryOf<SphereShape>(shape), neighbours))
            query(shape, level, neighbours);
    }
    return static_cast<int>(neighbours.size() - before);
}

std::size_t Octree::getPointsInCylindricalNeighbourhood(CylindricalNeighbourhood &params) const
{
    params.neighbours.clear();
    if (params.radius >= 0 && params.maxHalfLength >= 0) {
        const CylinderShape shape(params);
        if (!answerElsewhere(QueryOf<CylinderShape>(shape), params.neighbours))
            query(shape, params.level, params.neighbours);
    }
    return params.neighbours.size();
}

} // namespace TZLib
