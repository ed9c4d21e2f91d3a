#pragma once

// The demo survey's site: rolling ground crossed by a road, a few buildings with pitched roofs,
// trees and bushes of several heights. Coordinates are local metres (0 to side() on x and y);
// ORIGIN puts the site in a national grid.

#include <cstdint>
#include <random>
#include <vector>

namespace demo {

constexpr double ORIGIN_X = 651200.0;
constexpr double ORIGIN_Y = 6861400.0;
constexpr double ORIGIN_Z = 112.0;

//! Classes of the LAS standard the site's points are given.
enum Class : uint8_t {
    GROUND = 2,
    LOW_VEGETATION = 3,
    MEDIUM_VEGETATION = 4,
    HIGH_VEGETATION = 5,
    BUILDING = 6,
    ROAD = 11,
};

struct Point
{
    float x, y, z;
    uint8_t r, g, b;
    uint8_t classification = GROUND;
    uint16_t intensity = 0; // the return's strength, by the surface's material
};

struct Building
{
    double x0, y0, x1, y1; // footprint
    double base; // floor level: the ground's height at the footprint's lowest point
    double eaves; // wall height above the floor
    double ridge; // roof height above the eaves, ridge along x
};

struct Plant
{
    double x, y;
    double crownZ; // height of the crown's centre above the ground
    double radius; // crown radius (horizontal)
    double tall; // crown half height
    bool tree; // a trunk under the crown
    uint8_t r, g, b;
};

class Scene
{
public:
    //! A site for about `points` points at 40 points per square metre of ground.
    Scene(unsigned long points, unsigned seed);

    double side() const { return m_side; }
    double spacing() const { return m_spacing; }
    double ground(double x, double y) const;
    //! The road's centre line at x, its heading there (radians from the x axis), its half width.
    double roadY(double x) const;
    double roadAngle(double x) const;
    double roadHalfWidth() const { return m_roadHalfWidth; }
    //! Distance from (x, y) to the road's centre line (approximate, good near the road).
    double roadDistance(double x, double y) const;
    const std::vector<Building> &buildings() const { return m_buildings; }
    const std::vector<Plant> &plants() const { return m_plants; }
    //! The roof's height at (x, y) over a building's footprint.
    double roofZ(const Building &b, double x, double y) const;
    const Building *buildingAt(double x, double y, double margin = 0) const;

    //! The scan: exactly the number of points the site was made for, rows of ground (roofs
    //! over the buildings), then walls, then vegetation.
    std::vector<Point> scan() const;

private:
    void placeBuildings();
    void placePlants();
    void scanGround(std::vector<Point> &points) const;
    void scanWalls(std::vector<Point> &points, unsigned long count) const;
    void scanPlants(std::vector<Point> &points, unsigned long count) const;

    unsigned long m_points;
    unsigned m_seed;
    unsigned long m_perRow;
    double m_spacing;
    double m_side;
    double m_roadHalfWidth;
    std::vector<Building> m_buildings;
    std::vector<Plant> m_plants;
};

} // namespace demo
