// Writes the demo survey cloud: rolling ground with vegetation and a few buildings, as a
// scanner stores it (rows), in a national grid (X about 650 000, Y about 6 860 000), coloured,
// as a binary little-endian PLY with double coordinates.
//
//   make_demo_survey <out.ply> [points (default 2000000)] [seed]

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr double ORIGIN_X = 651200.0;
constexpr double ORIGIN_Y = 6861400.0;
constexpr double ORIGIN_Z = 112.0;

struct Building
{
    double x0, y0, x1, y1, height;
};

double groundHeight(double x, double y)
{
    return 3.0 * std::sin(x * 0.02) + 2.0 * std::cos(y * 0.015) + 0.3 * std::sin(x * 0.3 + y * 0.2);
}

#pragma pack(push, 1)
struct Record
{
    double x, y, z;
    uint8_t r, g, b;
};
#pragma pack(pop)
static_assert(sizeof(Record) == 27, "packed PLY record");

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s <out.ply> [points] [seed]\n", argv[0]);
        return 2;
    }
    const std::string out = argv[1];
    const unsigned long count = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 2000000ul;
    const unsigned seed = argc > 3 ? unsigned(std::strtoul(argv[3], nullptr, 10)) : 20261121u;
    if (count == 0) {
        std::fprintf(stderr, "make_demo_survey: the point count must be positive\n");
        return 2;
    }

    const double spacing = 1.0 / std::sqrt(40.0); // 40 points per square metre
    const unsigned long perRow = (unsigned long)std::sqrt(double(count));
    const double side = perRow * spacing;
    const std::vector<Building> buildings = {
        {0.20 * side, 0.30 * side, 0.20 * side + 14, 0.30 * side + 9, 7.5},
        {0.55 * side, 0.60 * side, 0.55 * side + 22, 0.60 * side + 12, 10.0},
        {0.70 * side, 0.25 * side, 0.70 * side + 9, 0.25 * side + 9, 5.0},
    };

    std::FILE *file = std::fopen(out.c_str(), "wb");
    if (!file) {
        std::fprintf(stderr, "make_demo_survey: cannot write '%s': %s\n", out.c_str(),
                     std::strerror(errno));
        return 1;
    }
    std::fprintf(file,
                 "ply\nformat binary_little_endian 1.0\ncomment demo survey, national grid\n"
                 "element vertex %lu\nproperty double x\nproperty double y\nproperty double z\n"
                 "property uchar red\nproperty uchar green\nproperty uchar blue\nend_header\n",
                 count);

    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> jitter(-0.04, 0.04), u(0.0, 1.0), veg(0.05, 10.0);
    std::vector<Record> batch;
    batch.reserve(65536);
    for (unsigned long i = 0; i < count; ++i) {
        const double x = double(i % perRow) * spacing + jitter(rng);
        const double y = double(i / perRow) * spacing + jitter(rng);
        const double ground = groundHeight(x, y);
        Record rec {};
        rec.x = ORIGIN_X + x;
        rec.y = ORIGIN_Y + y;
        const Building *on = nullptr;
        for (const Building &b : buildings) {
            if (x >= b.x0 && x <= b.x1 && y >= b.y0 && y <= b.y1)
                on = &b;
        }
        if (on) {
            // Roof, or a wall point where the row crosses the building's edge.
            const bool wall = x - on->x0 < spacing || on->x1 - x < spacing || y - on->y0 < spacing
                || on->y1 - y < spacing;
            const double h = wall ? on->height * u(rng) : on->height;
            rec.z = ORIGIN_Z + ground + h;
            rec.r = wall ? 200 : 170;
            rec.g = wall ? 190 : 70;
            rec.b = wall ? 170 : 60;
        } else if (u(rng) < 0.2) {
            const double h = veg(rng);
            rec.z = ORIGIN_Z + ground + h;
            rec.r = uint8_t(40 + 20 * u(rng));
            rec.g = uint8_t(110 + 60 * u(rng) - 3 * h);
            rec.b = uint8_t(30 + 20 * u(rng));
        } else {
            rec.z = ORIGIN_Z + ground;
            const double shade = 0.5 + 0.08 * (ground + 5.0);
            rec.r = uint8_t(std::min(255.0, 150 * shade + 20 * u(rng)));
            rec.g = uint8_t(std::min(255.0, 130 * shade + 20 * u(rng)));
            rec.b = uint8_t(std::min(255.0, 100 * shade + 20 * u(rng)));
        }
        batch.push_back(rec);
        if (batch.size() == batch.capacity()) {
            if (std::fwrite(batch.data(), sizeof(Record), batch.size(), file) != batch.size())
                break;
            batch.clear();
        }
    }
    const bool ok = std::fwrite(batch.data(), sizeof(Record), batch.size(), file) == batch.size()
        && std::fflush(file) == 0;
    if (std::fclose(file) != 0 || !ok) {
        std::fprintf(stderr, "make_demo_survey: write error on '%s' (disk full?)\n", out.c_str());
        std::remove(out.c_str());
        return 1;
    }
    std::printf("%s: %lu points, %.0f m x %.0f m\n", out.c_str(), count, side, side);
    return 0;
}
