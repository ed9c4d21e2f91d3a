// Octree build and neighbourhood queries on a 10 M point survey terrain, against nanoflann's
// KD-trees on the same points and queries in the same run. Prints the ratios ours / nanoflann.
//
//   bench_octree [--points=N] [google benchmark options]

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
#include <string>

namespace {

unsigned g_points = 10000000;
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

template<int DIM>
struct CloudAdaptor
{
    const TZLib::PointCloud &cloud;
    size_t kdtree_get_point_count() const { return cloud.size(); }
    float kdtree_get_pt(size_t i, size_t dim) const { return cloud.point(unsigned(i))[int(dim)]; }
    template<class BBOX>
    bool kdtree_get_bbox(BBOX &) const { return false; }
};
using Adaptor3 = CloudAdaptor<3>;
using Adaptor2 = CloudAdaptor<2>;
using KD3 = nanoflann::KDTreeSingleIndexAdaptor<nanoflann::L2_Simple_Adaptor<float, Adaptor3>, Adaptor3, 3, unsigned>;
using KD2 = nanoflann::KDTreeSingleIndexAdaptor<nanoflann::L2_Simple_Adaptor<float, Adaptor2>, Adaptor2, 2, unsigned>;

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
        g_ad3 = std::make_unique<Adaptor3>(Adaptor3{terrain().cloud});
        t = std::make_unique<KD3>(3, *g_ad3, nanoflann::KDTreeSingleIndexAdaptorParams(32));
        t->buildIndex();
    }
    return *t;
}
KD2 &kd2()
{
    static std::unique_ptr<KD2> t;
    if (!t) {
        g_ad2 = std::make_unique<Adaptor2>(Adaptor2{terrain().cloud});
        t = std::make_unique<KD2>(2, *g_ad2, nanoflann::KDTreeSingleIndexAdaptorParams(32));
        t->buildIndex();
    }
    return *t;
}

// Figures kept for the closing table: name -> value.
std::map<std::string, double> g_figures;

// Times each query separately and reports p50 / p99 in microseconds.
template<typename Fn>
void timeQueries(benchmark::State &state, const std::string &name, Fn &&fn)
{
    const auto &qs = queryPoints();
    std::vector<double> us(qs.size());
    size_t found = 0;
    for (auto _ : state) {
        for (size_t i = 0; i < qs.size(); ++i) {
            const auto t0 = std::chrono::steady_clock::now();
            found += fn(qs[i]);
            const auto t1 = std::chrono::steady_clock::now();
            us[i] = std::chrono::duration<double, std::micro>(t1 - t0).count();
        }
    }
    std::sort(us.begin(), us.end());
    const double p50 = us[us.size() / 2], p99 = us[us.size() * 99 / 100];
    state.counters["p50_us"] = p50;
    state.counters["p99_us"] = p99;
    state.counters["found_per_query"] = double(found) / double(qs.size() * state.iterations());
    g_figures[name + ".p50"] = p50;
    g_figures[name + ".p99"] = p99;
}

void BM_OctreeBuild(benchmark::State &state)
{
    auto &cloud = terrain().cloud;
    double best = 1e30;
    for (auto _ : state) {
        TZLib::Octree o(&cloud);
        const auto t0 = std::chrono::steady_clock::now();
        benchmark::DoNotOptimize(o.build());
        best = std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
        state.counters["bytes_per_point"] = double(o.memoryUsed()) / cloud.size();
        g_figures["octree.bytes_per_point"] = double(o.memoryUsed()) / cloud.size();
    }
    g_figures["build.octree"] = best;
}

template<typename Tree, int DIM>
void kdBuild(benchmark::State &state, const char *name)
{
    CloudAdaptor<DIM> ad{terrain().cloud};
    double best = 1e30;
    for (auto _ : state) {
        Tree t(DIM, ad, nanoflann::KDTreeSingleIndexAdaptorParams(32));
        const auto t0 = std::chrono::steady_clock::now();
        t.buildIndex();
        best = std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
    }
    g_figures[name] = best;
}
void BM_NanoflannBuild3D(benchmark::State &state) { kdBuild<KD3, 3>(state, "build.kd3"); }
void BM_NanoflannBuild2D(benchmark::State &state) { kdBuild<KD2, 2>(state, "build.kd2"); }

void octreeSphere(benchmark::State &state, float r, const char *name)
{
    auto &o = octree();
    const unsigned char level = o.findBestLevelForAGivenNeighbourhoodSizeExtraction(r);
    TZLib::Octree::NeighboursSet found;
    found.reserve(4096);
    timeQueries(state, name, [&](const TZVector3 &c) {
        found.clear();
        return size_t(o.getPointsInSphericalNeighbourhood(c, r, found, level));
    });
}
void kdSphere(benchmark::State &state, float r, const char *name)
{
    auto &t = kd3();
    std::vector<std::pair<unsigned, float>> matches;
    matches.reserve(4096);
    nanoflann::SearchParams params(32, 0.f, false);
    timeQueries(state, name, [&](const TZVector3 &c) {
        matches.clear();
        const float q[3] = {c.x, c.y, c.z};
        return t.radiusSearch(q, r * r, matches, params);
    });
}
void BM_OctreeSphere010(benchmark::State &s) { octreeSphere(s, 0.1f, "sphere0.1.octree"); }
void BM_NanoflannSphere010(benchmark::State &s) { kdSphere(s, 0.1f, "sphere0.1.kd3"); }
void BM_OctreeSphere050(benchmark::State &s) { octreeSphere(s, 0.5f, "sphere0.5.octree"); }
void BM_NanoflannSphere050(benchmark::State &s) { kdSphere(s, 0.5f, "sphere0.5.kd3"); }

// Lowest point in the downward cylinder r = 0.1, half-length 20, as the sight tool asks it.
void BM_OctreeLowestPoint(benchmark::State &state)
{
    auto &o = octree();
    TZLib::Octree::CylindricalNeighbourhood params;
    params.dir = {0, 0, -1};
    params.radius = 0.1f;
    params.maxHalfLength = 20.f;
    params.onlyPositiveDir = true;
    params.level = o.findBestLevelForAGivenNeighbourhoodSizeExtraction(0.1f);
    params.neighbours.reserve(4096);
    timeQueries(state, "cylinder.octree", [&](const TZVector3 &c) {
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
    });
}
void BM_NanoflannLowestPoint(benchmark::State &state)
{
    auto &t = kd2();
    auto &cloud = terrain().cloud;
    std::vector<std::pair<unsigned, float>> matches;
    matches.reserve(4096);
    nanoflann::SearchParams params(32, 0.f, false);
    timeQueries(state, "cylinder.kd2", [&](const TZVector3 &c) {
        matches.clear();
        const float q[2] = {c.x, c.y};
        t.radiusSearch(q, 0.1f * 0.1f, matches, params);
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
    const double kdBest = std::min(f("build.kd3"), f("build.kd2"));
    std::printf("\n%-34s %12s %12s %8s\n", "figure", "octree", "nanoflann", "ratio");
    std::printf("%-34s %10.3f s %10.3f s %8.2f\n", "build (vs fastest KD-tree)", f("build.octree"),
                kdBest, f("build.octree") / kdBest);
    const char *rows[][3] = {{"sphere r=0.1 p50", "sphere0.1.octree.p50", "sphere0.1.kd3.p50"},
                             {"sphere r=0.1 p99", "sphere0.1.octree.p99", "sphere0.1.kd3.p99"},
                             {"sphere r=0.5 p50", "sphere0.5.octree.p50", "sphere0.5.kd3.p50"},
                             {"sphere r=0.5 p99", "sphere0.5.octree.p99", "sphere0.5.kd3.p99"},
                             {"lowest point (cylinder) p50", "cylinder.octree.p50", "cylinder.kd2.p50"},
                             {"lowest point (cylinder) p99", "cylinder.octree.p99", "cylinder.kd2.p99"}};
    for (auto &r : rows)
        std::printf("%-34s %9.3f us %9.3f us %8.2f\n", r[0], f(r[1]), f(r[2]), f(r[1]) / f(r[2]));
    std::printf("%-34s %10.2f B\n", "octree memory per point", f("octree.bytes_per_point"));
}

} // namespace

BENCHMARK(BM_OctreeBuild)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_NanoflannBuild3D)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(BM_NanoflannBuild2D)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(BM_OctreeSphere010)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_NanoflannSphere010)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_OctreeSphere050)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_NanoflannSphere050)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_OctreeLowestPoint)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_NanoflannLowestPoint)->Unit(benchmark::kMillisecond)->Iterations(3);

int main(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "--points=", 9) == 0)
            g_points = unsigned(std::strtoul(argv[i] + 9, nullptr, 10));
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    printRatios();
    return 0;
}
