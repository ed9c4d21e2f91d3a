#include "DemoScene.h"

#include <algorithm>
#include <cmath>

namespace demo {

namespace {

constexpr double PI = 3.141592653589793;

uint8_t channel(double value)
{
    return uint8_t(std::clamp(value, 0.0, 255.0));
}

// A point of a surface of a class, its intensity that of the material (0-255 scale, as
// scanners' 16-bit values go: times 256).
Point point(double x, double y, double z, double r, double g, double b, Class classification,
            double intensity)
{
    return {
        float(x),   float(y),   float(z),       channel(r),
        channel(g), channel(b), classification, uint16_t(std::clamp(intensity, 0.0, 255.0) * 256)};
}

struct Palette
{
    double wall[3], roof[3];
};

const Palette PALETTES[] = {
    {{224, 212, 188}, {170, 74, 54}},
    {{206, 196, 180}, {112, 62, 52}},
    {{232, 224, 204}, {92, 94, 104}},
};

} // namespace

Scene::Scene(unsigned long points, unsigned seed)
    : m_points(points)
    , m_seed(seed)
    , m_perRow(std::max(2ul, (unsigned long)std::sqrt(0.75 * double(points))))
    , m_spacing(1.0 / std::sqrt(40.0))
    , m_side(double(m_perRow) * m_spacing)
    , m_roadHalfWidth(std::min(3.5, 0.08 * m_side))
{
    placeBuildings();
    placePlants();
}

double Scene::ground(double x, double y) const
{
    return 3.0 * std::sin(x * 0.02) + 2.0 * std::cos(y * 0.015) + 0.3 * std::sin(x * 0.3 + y * 0.2);
}

double Scene::roadY(double x) const
{
    return m_side * (0.45 + 0.1 * std::sin(2 * PI * 0.8 * x / m_side + 0.3));
}

double Scene::roadAngle(double x) const
{
    return std::atan(0.1 * 2 * PI * 0.8 * std::cos(2 * PI * 0.8 * x / m_side + 0.3));
}

double Scene::roadDistance(double x, double y) const
{
    return std::abs(y - roadY(x)) * std::cos(roadAngle(x));
}

double Scene::roofZ(const Building &b, double x, double y) const
{
    (void)x;
    const double half = 0.5 * (b.y1 - b.y0);
    const double fromRidge = std::abs(y - 0.5 * (b.y0 + b.y1));
    return b.base + b.eaves + b.ridge * std::max(0.0, 1.0 - fromRidge / half);
}

const Building *Scene::buildingAt(double x, double y, double margin) const
{
    for (const Building &b : m_buildings) {
        if (x >= b.x0 - margin && x <= b.x1 + margin && y >= b.y0 - margin && y <= b.y1 + margin)
            return &b;
    }
    return nullptr;
}

void Scene::placeBuildings()
{
    // Across the road from each other; smaller on a small site.
    struct Plan
    {
        double fx, fy, width, depth, eaves;
    };
    const Plan plans[] = {
        {0.14, 0.74, 16, 10, 6.0}, {0.44, 0.78, 24, 12, 8.5}, {0.76, 0.72, 11, 10, 4.5},
        {0.62, 0.12, 15, 9, 5.5},  {0.24, 0.10, 9, 12, 3.5},
    };
    const double scale = std::min(1.0, m_side / 150.0);
    for (const Plan &plan : plans) {
        Building b {};
        b.x0 = plan.fx * m_side;
        b.y0 = plan.fy * m_side;
        b.x1 = b.x0 + plan.width * scale;
        b.y1 = b.y0 + plan.depth * scale;
        if (b.x1 > m_side || b.y1 > m_side || b.x1 - b.x0 < 2)
            continue;
        bool onRoad = false;
        for (double x = b.x0; x <= b.x1; x += 0.5)
            onRoad = onRoad || roadDistance(x, b.y0) < m_roadHalfWidth + 2
                || roadDistance(x, b.y1) < m_roadHalfWidth + 2
                || (b.y0 < roadY(x) && roadY(x) < b.y1);
        if (onRoad)
            continue;
        b.base = std::min(
            {ground(b.x0, b.y0), ground(b.x1, b.y0), ground(b.x0, b.y1), ground(b.x1, b.y1)});
        b.eaves = plan.eaves * std::max(scale, 0.5);
        b.ridge = 0.35 * (b.y1 - b.y0);
        m_buildings.push_back(b);
    }
}

void Scene::placePlants()
{
    std::mt19937 rng(m_seed + 1);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    const double area = m_side * m_side;
    const int trees = std::max(3, int(area / 320));
    const int bushes = std::max(4, int(area / 200));
    for (int i = 0; i < trees + bushes; ++i) {
        const bool tree = i < trees;
        Plant p {};
        p.tree = tree;
        if (tree) {
            p.crownZ = 4.0 + 7.0 * u(rng);
            p.radius = p.crownZ * (0.24 + 0.12 * u(rng));
            p.tall = p.radius * (1.0 + 0.4 * u(rng));
            // Mostly greens, now and then a yellowing one: a person tells them apart.
            const bool yellow = u(rng) < 0.12;
            p.r = channel(yellow ? 150 + 30 * u(rng) : 30 + 30 * u(rng));
            p.g = channel(yellow ? 130 + 20 * u(rng) : 95 + 55 * u(rng));
            p.b = channel(yellow ? 35 : 25 + 20 * u(rng));
        } else {
            const double height = 0.6 + 1.4 * u(rng);
            p.crownZ = 0.5 * height;
            p.tall = 0.5 * height;
            p.radius = 0.5 + 0.8 * u(rng);
            p.r = channel(55 + 20 * u(rng));
            p.g = channel(92 + 25 * u(rng));
            p.b = channel(38 + 12 * u(rng));
        }
        for (int attempt = 0; attempt < 50; ++attempt) {
            p.x = m_side * u(rng);
            p.y = m_side * u(rng);
            if (roadDistance(p.x, p.y) > m_roadHalfWidth + 1.5 + p.radius
                && !buildingAt(p.x, p.y, p.radius + 1)) {
                m_plants.push_back(p);
                break;
            }
        }
    }
}

std::vector<Point> Scene::scan() const
{
    std::vector<Point> points;
    points.reserve(m_points);
    scanGround(points);
    const unsigned long rest = m_points > points.size() ? m_points - points.size() : 0;
    const unsigned long walls = m_buildings.empty() ? 0 : rest * 3 / 10;
    scanWalls(points, walls);
    scanPlants(points, m_points > points.size() ? m_points - points.size() : 0);
    points.resize(m_points);
    return points;
}

void Scene::scanGround(std::vector<Point> &points) const
{
    std::mt19937 rng(m_seed);
    std::uniform_real_distribution<double> jitter(-0.04, 0.04), u(0.0, 1.0);
    const unsigned long count = std::min(m_points, m_perRow * m_perRow);
    const double dash = 3.0;
    for (unsigned long i = 0; i < count; ++i) {
        const double x = double(i % m_perRow) * m_spacing + jitter(rng);
        const double y = double(i / m_perRow) * m_spacing + jitter(rng);
        const double grain = 20 * u(rng);
        if (const Building *b = buildingAt(x, y)) {
            const Palette &palette = PALETTES[size_t(b - m_buildings.data()) % 3];
            points.push_back(point(x, y, roofZ(*b, x, y), palette.roof[0] + grain,
                                   palette.roof[1] + grain, palette.roof[2] + grain, BUILDING,
                                   110 + 2 * grain));
            continue;
        }
        const double road = roadDistance(x, y);
        const double edge = m_roadHalfWidth;
        if (road < edge + 0.6) {
            // Level across the road, on the ground of its centre line.
            const double z = ground(x, roadY(x));
            const bool line = std::abs(road - (edge - 0.3)) < 0.08
                || (road < 0.07 && std::fmod(x, 2 * dash) < dash);
            if (road > edge)
                points.push_back(point(x, y, z, 150 + grain, 140 + grain, 118 + grain, GROUND,
                                       95 + grain)); // verge
            else if (line)
                points.push_back(point(x, y, z, 232, 232, 228, ROAD, 235)); // paint
            else
                points.push_back(
                    point(x, y, z, 66 + grain, 66 + grain, 72 + grain, ROAD, 40 + grain));
            continue;
        }
        const double z = ground(x, y);
        const double shade = 0.85 + 0.05 * z + 0.1 * std::sin(0.11 * x) * std::cos(0.13 * y);
        points.push_back(point(x, y, z, (92 + grain) * shade, (126 + grain) * shade,
                               (58 + grain * 0.5) * shade, GROUND, 150 + 2 * grain));
    }
}

void Scene::scanWalls(std::vector<Point> &points, unsigned long count) const
{
    if (m_buildings.empty() || count == 0)
        return;
    std::mt19937 rng(m_seed + 2);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    std::vector<double> weights;
    for (const Building &b : m_buildings)
        weights.push_back(2 * ((b.x1 - b.x0) + (b.y1 - b.y0)) * (b.eaves + 0.5 * b.ridge));
    std::discrete_distribution<size_t> which(weights.begin(), weights.end());
    for (unsigned long i = 0; i < count; ++i) {
        const size_t k = which(rng);
        const Building &b = m_buildings[k];
        const Palette &palette = PALETTES[k % 3];
        const double w = b.x1 - b.x0, d = b.y1 - b.y0;
        double t = u(rng) * 2 * (w + d);
        double x, y;
        if (t < w) {
            x = b.x0 + t, y = b.y0;
        } else if ((t -= w) < d) {
            x = b.x1, y = b.y0 + t;
        } else if ((t -= d) < w) {
            x = b.x1 - t, y = b.y1;
        } else {
            x = b.x0, y = b.y1 - (t - w);
        }
        // Gable ends rise to the roof; the long walls stop at the eaves.
        const double top = (x == b.x0 || x == b.x1) ? roofZ(b, x, y) : b.base + b.eaves;
        const double bottom = ground(x, y);
        const double z = bottom + (top - bottom) * u(rng);
        const double grain = 14 * u(rng);
        // A dark band of windows on each floor.
        const double level = std::fmod(z - b.base, 3.0);
        const double window = (level > 1.0 && level < 2.2 && std::fmod(t, 4.0) > 1.5) ? 0.45 : 1.0;
        points.push_back(
            point(x, y, z, (palette.wall[0] + grain) * window, (palette.wall[1] + grain) * window,
                  (palette.wall[2] + grain) * window, BUILDING, (90 + 3 * grain) * window));
    }
}

void Scene::scanPlants(std::vector<Point> &points, unsigned long count) const
{
    std::mt19937 rng(m_seed + 3);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    std::normal_distribution<double> n(0.0, 1.0);
    if (m_plants.empty()) {
        // No room for plants: the rest of the budget is more ground.
        for (unsigned long i = 0; i < count; ++i) {
            const double x = m_side * u(rng), y = m_side * u(rng);
            points.push_back(point(x, y, ground(x, y), 100, 130, 62, GROUND, 150));
        }
        return;
    }
    std::vector<double> weights;
    for (const Plant &p : m_plants)
        weights.push_back(p.radius * (p.radius + p.tall));
    std::discrete_distribution<size_t> which(weights.begin(), weights.end());
    for (unsigned long i = 0; i < count; ++i) {
        const Plant &p = m_plants[which(rng)];
        const double base = ground(p.x, p.y);
        const double bottom = p.crownZ - p.tall;
        if (p.tree && u(rng) < 0.07) {
            const double a = 2 * PI * u(rng), r = 0.12 + 0.03 * p.radius;
            const double z = base + bottom * u(rng);
            points.push_back(point(p.x + r * std::cos(a), p.y + r * std::sin(a), z, 92, 66, 44,
                                   HIGH_VEGETATION, 70));
            continue;
        }
        double dx = n(rng), dy = n(rng), dz = n(rng);
        const double norm = std::max(1e-9, std::sqrt(dx * dx + dy * dy + dz * dz));
        const double depth = 0.75 + 0.25 * u(rng); // leaves inside the crown too
        dx *= depth / norm, dy *= depth / norm, dz *= depth / norm;
        const double light = 0.8 + 0.3 * dz + 0.1 * u(rng); // lit from above
        // Classed by the height above the ground, as a classifier does.
        const double height = p.crownZ + p.tall * dz;
        const Class kind = height < 1.0 ? LOW_VEGETATION
            : height < 3.0              ? MEDIUM_VEGETATION
                                        : HIGH_VEGETATION;
        points.push_back(point(p.x + p.radius * dx, p.y + p.radius * dy, base + height, p.r * light,
                               p.g * light, p.b * light, kind, 60 + 50 * u(rng)));
    }
}

} // namespace demo
