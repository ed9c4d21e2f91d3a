// Octree build and neighbourhood queries on a 10 M point survey terrain, against nanoflann's
// KD-trees on the same points and queries in the same run. Prints the ratios ours / nanoflann.
//
// Builds are timed as a user pays them: once the cloud is in memory, a fresh process makes the
// index from nothing (nanoflann builds in its constructor; the octree is constructed and built),
// so every build runs in a child process forked for it, and the best of a few is kept.
//
//   bench_octree [--points=N] [--build-sizes=N,N,...] [--build-runs=N] [benchmark options]

#include "Octree.h"
#include "Terrain.h"

#include <benchmark/benchmark.h>
#include <nanoflann.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

unsigned g_points = 10000000;
std::vector<unsigned> g_buildSizes; // empty: the size of the query terrain only
int g_buildRuns = 3;
constexpr unsigned QUERIES = 10000;

bench::Terrain &terrain()
{
    static bench::Terrain t;
    if (t.cloud.size() != g_points)
        bench::makeTerrain(t, g_points);
    return t;
}

std::vector<TZVector3> &queryPoints()
{
    static std::vector<TZVector3> q;
    if (q.empty()) {
        auto &t = terrain();
        std::mt19937 rng(77);
        std::uniform_int_distribution<size_t> pick(0, t.groundIndices.size() - 1);
        for (unsigned i = 0; i < QUERIES; ++i)
            q.push_back(t.cloud.point(t.groundIndices[pick(rng)]));
    }
    return q;
}

template<int DIM> struct CloudAdaptor
{
    const TZLib::PointCloud &cloud;
    size_t kdtree_get_point_count() const { return cloud.size(); }
    float kdtree_get_pt(size_t i, size_t dim) const { return cloud.point(unsigned(i))[int(dim)]; }
    template<class BBOX> bool kdtree_get_bbox(BBOX &) const { return false; }
};
using Adaptor3 = CloudAdaptor<3>;
using Adaptor2 = CloudAdaptor<2>;
using KD3 = nanoflann::KDTreeSingleIndexAdaptor<nanoflann::L2_Simple_Adaptor<float, Adaptor3>,
                                                Adaptor3, 3, unsigned>;
using KD2 = nanoflann::KDTreeSingleIndexAdaptor<nanoflann::L2_Simple_Adaptor<float, Adaptor2>,
                                                Adaptor2, 2, unsigned>;

TZLib::Octree &octree()
{
    static std::unique_ptr<TZLib::Octree> o;
    if (!o) {
        o = std::make_unique<TZLib::Octree>(&terrain().cloud);
        o->build();
    }
    return *o;
}
std::unique_ptr<Adaptor3> g_ad3;
std::unique_ptr<Adaptor2> g_ad2;
KD3 &kd3()
{
    static std::unique_ptr<KD3> t;
    if (!t) {
        g_ad3 = std::make_unique<Adaptor3>(Adaptor3 {terrain().cloud});
        t = std::make_unique<KD3>(3, *g_ad3, nanoflann::KDTreeSingleIndexAdaptorParams(32));
        t->buildIndex();
    }
    return *t;
}
KD2 &kd2()
{
    static std::unique_ptr<KD2> t;
    if (!t) {
        g_ad2 = std::make_unique<Adaptor2>(Adaptor2 {terrain().cloud});
        t = std::make_unique<KD2>(2, *g_ad2, nanoflann::KDTreeSingleIndexAdaptorParams(32));
        t->buildIndex();
    }
    return *t;
}

// Figures kept for the closing table: name -> value.
std::map<std::string, double> g_figures;

// Times each query separately, ours and nanoflann's in alternating passes over all the queries so
// that both see the same machine (the caches are shared with other work), and reports p50 / p99
// over every pass in microseconds.
template<typename Ours, typename Theirs>
void timeQueryPair(benchmark::State &state, const std::string &name, Ours &&ours, Theirs &&theirs)
{
    const auto &qs = queryPoints();
    std::vector<double> us[2];
    size_t found[2] = {0, 0};
    const auto pass = [&](int which, auto &&fn) {
        for (const TZVector3 &q : qs) {
            const auto t0 = std::chrono::steady_clock::now();
            found[which] += fn(q);
            const auto t1 = std::chrono::steady_clock::now();
            us[which].push_back(std::chrono::duration<double, std::micro>(t1 - t0).count());
        }
    };
    bool oursFirst = true;
    for (auto _ : state) {
        if (oursFirst) {
            pass(0, ours);
            pass(1, theirs);
        } else {
            pass(1, theirs);
            pass(0, ours);
        }
        oursFirst = !oursFirst;
    }
    const char *who[2] = {".octree", ".nanoflann"};
    for (int w = 0; w < 2; ++w) {
        std::sort(us[w].begin(), us[w].end());
        const double p50 = us[w][us[w].size() / 2], p99 = us[w][us[w].size() * 99 / 100];
        state.counters[std::string(who[w] + 1) + "_p50_us"] = p50;
        state.counters[std::string(who[w] + 1) + "_p99_us"] = p99;
        g_figures[name + who[w] + ".p50"] = p50;
        g_figures[name + who[w] + ".p99"] = p99;
    }
    if (found[0] != found[1])
        state.SkipWithError("the octree and nanoflann found different numbers of points");
    state.counters["found_per_query"] = double(found[0]) / double(us[0].size());
}

// Seconds taken by build() in a child process forked for it: fresh memory, fresh allocator.
template<typename Build> double coldSeconds(Build &&build)
{
    int fds[2];
    if (pipe(fds) != 0)
        throw std::runtime_error("pipe failed");
    const pid_t child = fork();
    if (child < 0)
        throw std::runtime_error("fork failed");
    if (child == 0) {
        close(fds[0]);
        const auto t0 = std::chrono::steady_clock::now();
        build();
        const double seconds
            = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        _exit(write(fds[1], &seconds, sizeof seconds) == sizeof seconds ? 0 : 1);
    }
    close(fds[1]);
    double seconds = -1;
    const bool ok = read(fds[0], &seconds, sizeof seconds) == sizeof seconds;
    close(fds[0]);
    int status = 0;
    waitpid(child, &status, 0);
    if (!ok || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
        throw std::runtime_error("a build died in its child process");
    return seconds;
}

// The cold builds of one terrain size: the octree on one thread and on every core, nanoflann's
// 2D and 3D KD-trees (leaves of 32, its one thread). Ours and theirs alternate, best of runs.
void buildTable(unsigned points)
{
    bench::Terrain t;
    bench::makeTerrain(t, points);
    const TZLib::PointCloud &cloud = t.cloud;
    const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
    double best[4] = {1e30, 1e30, 1e30, 1e30};
    double bytesPerPoint = 0;
    for (int run = 0; run < g_buildRuns; ++run) {
        best[0] = std::min(best[0], coldSeconds([&] {
                               TZLib::Octree o(&cloud);
                               benchmark::DoNotOptimize(o.build({}, 1));
                           }));
        best[2] = std::min(best[2], coldSeconds([&] {
                               Adaptor2 ad {cloud};
                               KD2 tree(2, ad, nanoflann::KDTreeSingleIndexAdaptorParams(32));
                               benchmark::DoNotOptimize(tree.root_node);
                           }));
        best[1] = std::min(best[1], coldSeconds([&] {
                               TZLib::Octree o(&cloud);
                               benchmark::DoNotOptimize(o.build({}, 0));
                           }));
        best[3] = std::min(best[3], coldSeconds([&] {
                               Adaptor3 ad {cloud};
                               KD3 tree(3, ad, nanoflann::KDTreeSingleIndexAdaptorParams(32));
                               benchmark::DoNotOptimize(tree.root_node);
                           }));
    }
    {
        TZLib::Octree o(&cloud);
        o.build();
        bytesPerPoint = double(o.memoryUsed()) / points;
    }
    std::printf("%-12u %9.3f s %9.3f s (%u) %9.3f s %9.3f s %8.2f %8.2f %8.2f B\n", points, best[0],
                best[1], cores, best[2], best[3], best[0] / best[2], best[1] / best[2],
                bytesPerPoint);
    std::fflush(stdout);
    if (points == g_points) {
        g_figures["build.octree.1"] = best[0];
        g_figures["build.octree.all"] = best[1];
        g_figures["build.kd2"] = best[2];
        g_figures["build.kd3"] = best[3];
        g_figures["octree.bytes_per_point"] = bytesPerPoint;
    }
}

void buildTables()
{
    if (g_buildSizes.empty())
        g_buildSizes.push_back(g_points);
    std::printf("Cold builds, each in a fresh process, best of %d\n", g_buildRuns);
    std::printf("%-12s %11s %15s %11s %11s %8s %8s %10s\n", "points", "octree 1T", "octree all",
                "kd2 cold", "kd3 cold", "1T/kd2", "all/kd2", "memory");
    for (unsigned points : g_buildSizes)
        buildTable(points);
    std::printf("\n");
}

void sphere(benchmark::State &state, float r, const char *name)
{
    auto &o = octree();
    auto &t = kd3();
    const unsigned char level = o.findBestLevelForAGivenNeighbourhoodSizeExtraction(r);
    TZLib::Octree::NeighboursSet found;
    found.reserve(4096);
    std::vector<std::pair<unsigned, float>> matches;
    matches.reserve(4096);
    nanoflann::SearchParams params(32, 0.f, false);
    timeQueryPair(
        state, name,
        [&](const TZVector3 &c) {
            found.clear();
            return size_t(o.getPointsInSphericalNeighbourhood(c, r, found, level));
        },
        [&](const TZVector3 &c) {
            matches.clear();
            const float q[3] = {c.x, c.y, c.z};
            return t.radiusSearch(q, r * r, matches, params);
        });
}
void BM_Sphere010(benchmark::State &s)
{
    sphere(s, 0.1f, "sphere0.1");
}
void BM_Sphere050(benchmark::State &s)
{
    sphere(s, 0.5f, "sphere0.5");
}

// Lowest point in the downward cylinder r = 0.1, half-length 20, as the sight tool asks it; the
// KD-tree side is a 2D radius search followed by the z filter.
void BM_LowestPoint(benchmark::State &state)
{
    auto &o = octree();
    auto &t = kd2();
    auto &cloud = terrain().cloud;
    TZLib::Octree::CylindricalNeighbourhood params;
    params.dir = {0, 0, -1};
    params.radius = 0.1f;
    params.maxHalfLength = 20.f;
    params.onlyPositiveDir = true;
    params.level = o.findBestLevelForAGivenNeighbourhoodSizeExtraction(0.1f);
    params.neighbours.reserve(4096);
    std::vector<std::pair<unsigned, float>> matches;
    matches.reserve(4096);
    nanoflann::SearchParams kdParams(32, 0.f, false);
    timeQueryPair(
        state, "cylinder",
        [&](const TZVector3 &c) {
            params.center = c;
            o.getPointsInCylindricalNeighbourhood(params);
            unsigned best = ~0u;
            float z = 1e30f;
            for (const auto &n : params.neighbours) {
                if (n.point->z < z) {
                    z = n.point->z;
                    best = n.pointIndex;
                }
            }
            return size_t(best != ~0u);
        },
        [&](const TZVector3 &c) {
            matches.clear();
            const float q[2] = {c.x, c.y};
            t.radiusSearch(q, 0.1f * 0.1f, matches, kdParams);
            unsigned best = ~0u;
            float z = 1e30f;
            for (const auto &m : matches) {
                const float pz = cloud.point(m.first).z;
                if (pz <= c.z && pz >= c.z - 20.f && pz < z) {
                    z = pz;
                    best = m.first;
                }
            }
            return size_t(best != ~0u);
        });
}

void printRatios()
{
    auto f = [](const char *k) { return g_figures.count(k) ? g_figures[k] : 0.0; };
    std::printf("\n%-34s %12s %12s %8s\n", "figure", "octree", "nanoflann", "ratio");
    std::printf("%-34s %10.3f s %10.3f s %8.2f\n", "cold build, 1 thread (vs 2D)",
                f("build.octree.1"), f("build.kd2"), f("build.octree.1") / f("build.kd2"));
    std::printf("%-34s %10.3f s %10.3f s %8.2f\n", "cold build, all cores (vs 2D)",
                f("build.octree.all"), f("build.kd2"), f("build.octree.all") / f("build.kd2"));
    const char *rows[][3]
        = {{"sphere r=0.1 p50", "sphere0.1.octree.p50", "sphere0.1.nanoflann.p50"},
           {"sphere r=0.1 p99", "sphere0.1.octree.p99", "sphere0.1.nanoflann.p99"},
           {"sphere r=0.5 p50", "sphere0.5.octree.p50", "sphere0.5.nanoflann.p50"},
           {"sphere r=0.5 p99", "sphere0.5.octree.p99", "sphere0.5.nanoflann.p99"},
           {"lowest point (cylinder) p50", "cylinder.octree.p50", "cylinder.nanoflann.p50"},
           {"lowest point (cylinder) p99", "cylinder.octree.p99", "cylinder.nanoflann.p99"}};
    for (auto &r : rows)
        std::printf("%-34s %9.3f us %9.3f us %8.2f\n", r[0], f(r[1]), f(r[2]), f(r[1]) / f(r[2]));
    std::printf("%-34s %10.2f B\n", "octree memory per point", f("octree.bytes_per_point"));
}

} // namespace

BENCHMARK(BM_Sphere010)->Unit(benchmark::kMillisecond)->Iterations(8);
BENCHMARK(BM_Sphere050)->Unit(benchmark::kMillisecond)->Iterations(4);
BENCHMARK(BM_LowestPoint)->Unit(benchmark::kMillisecond)->Iterations(8);

int main(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "--points=", 9) == 0)
            g_points = unsigned(std::strtoul(argv[i] + 9, nullptr, 10));
        if (std::strncmp(argv[i], "--build-runs=", 13) == 0)
            g_buildRuns = std::max(1, std::atoi(argv[i] + 13));
        if (std::strncmp(argv[i], "--build-sizes=", 14) == 0) {
            std::stringstream sizes(argv[i] + 14);
            for (std::string size; std::getline(sizes, size, ',');)
                g_buildSizes.push_back(unsigned(std::strtoul(size.c_str(), nullptr, 10)));
        }
    }
    benchmark::Initialize(&argc, argv);
    // Queries first: the cold builds leave the kernel busy with the memory they freed (reclaim,
    // huge-page collapsing), which would show in the query latencies of both sides.
    benchmark::RunSpecifiedBenchmarks();
    buildTables();
    printRatios();
    return 0;
}
