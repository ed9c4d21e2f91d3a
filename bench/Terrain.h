#pragma once

// The synthetic survey terrain shared by the benchmarks: ground rows as a scanner writes them,
// about 40 points per square metre, a fifth of the points lifted as vegetation up to 10 m.

#include "PointCloudTpl.h"

#include <cmath>
#include <random>
#include <vector>

namespace bench {

struct Terrain
{
    TZLib::PointCloud cloud;
    std::vector<unsigned> groundIndices;
};

inline float groundHeight(float x, float y)
{
    return 3.f * std::sin(x * 0.02f) + 2.f * std::cos(y * 0.015f)
        + 0.3f * std::sin(x * 0.3f + y * 0.2f);
}

inline void makeTerrain(Terrain &t, unsigned count, unsigned seed = 20261121)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> jitter(-0.04f, 0.04f), u(0.f, 1.f), veg(0.05f, 10.f);
    const float spacing = 1.f / std::sqrt(40.f);
    const unsigned perRow = unsigned(std::sqrt(double(count)));
    t.cloud.reset();
    t.cloud.reserve(count);
    t.groundIndices.clear();
    for (unsigned i = 0; i < count; ++i) {
        const float x = float(i % perRow) * spacing + jitter(rng);
        const float y = float(i / perRow) * spacing + jitter(rng);
        float z = groundHeight(x, y);
        if (u(rng) < 0.2f)
            z += veg(rng);
        else
            t.groundIndices.push_back(i);
        t.cloud.addPoint({x, y, z});
    }
}

} // namespace bench
