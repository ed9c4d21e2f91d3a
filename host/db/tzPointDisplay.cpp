#include "tzPointDisplay.h"

#include <algorithm>
#include <cmath>

namespace tzPointDisplay {

namespace {

struct ModeWords
{
    ColourMode mode;
    const char *name;
    const char *title;
};
constexpr ModeWords MODES[COLOUR_MODES] = {
    {ColourMode::Rgb, "rgb", "RGB"},
    {ColourMode::Intensity, "intensity", "Intensity"},
    {ColourMode::Elevation, "elevation", "Elevation"},
    {ColourMode::Classification, "classification", "Classification"},
};

// Stops of the elevation ramp, evenly spaced: a perceptually uniform ramp whose lightness grows
// from one end to the other, so that it also reads in grey.
constexpr quint8 RAMP_STOPS[][3] = {
    {68, 1, 84},    {71, 45, 123}, {59, 82, 139},  {44, 114, 142}, {33, 145, 140},
    {40, 174, 128}, {94, 201, 98}, {173, 220, 48}, {253, 231, 37},
};
constexpr int RAMP_STOP_COUNT = int(sizeof(RAMP_STOPS) / sizeof(RAMP_STOPS[0]));

struct LasClass
{
    const char *name;
    quint8 r, g, b;
};
// The standard classes of LAS 1.4 (0-18).
constexpr LasClass STANDARD_CLASSES[] = {
    {"Never classified", 150, 150, 150},
    {"Unclassified", 200, 200, 200},
    {"Ground", 166, 110, 60},
    {"Low vegetation", 170, 225, 110},
    {"Medium vegetation", 80, 180, 60},
    {"High vegetation", 25, 110, 35},
    {"Building", 220, 60, 50},
    {"Low point (noise)", 255, 0, 255},
    {"Model key-point", 255, 205, 0},
    {"Water", 40, 110, 230},
    {"Rail", 125, 80, 145},
    {"Road surface", 95, 95, 100},
    {"Overlap", 245, 180, 200},
    {"Wire - guard", 255, 235, 120},
    {"Wire - conductor", 250, 190, 20},
    {"Transmission tower", 200, 115, 0},
    {"Wire - connector", 240, 150, 70},
    {"Bridge deck", 150, 150, 215},
    {"High noise", 255, 80, 165},
};
constexpr int STANDARD_CLASS_COUNT = int(sizeof(STANDARD_CLASSES) / sizeof(STANDARD_CLASSES[0]));

} // namespace

QString modeName(ColourMode mode)
{
    return QString::fromLatin1(MODES[int(mode)].name);
}

QString modeTitle(ColourMode mode)
{
    return QString::fromLatin1(MODES[int(mode)].title);
}

bool modeFromName(const QString &name, ColourMode &mode)
{
    for (const ModeWords &m : MODES) {
        if (name.compare(QLatin1String(m.name), Qt::CaseInsensitive) == 0) {
            mode = m.mode;
            return true;
        }
    }
    return false;
}

QColor ramp(double t)
{
    const auto &table = rampTable();
    const int i = std::clamp(int(std::lround(t * 255.0)), 0, 255);
    return QColor(table[size_t(3 * i)], table[size_t(3 * i + 1)], table[size_t(3 * i + 2)]);
}

const std::array<quint8, 256 * 3> &rampTable()
{
    static const std::array<quint8, 256 * 3> table = [] {
        std::array<quint8, 256 * 3> t {};
        for (int i = 0; i < 256; ++i) {
            const double at = i / 255.0 * (RAMP_STOP_COUNT - 1);
            const int lo = std::min(int(at), RAMP_STOP_COUNT - 2);
            const double f = at - lo;
            for (int c = 0; c < 3; ++c) {
                t[size_t(3 * i + c)]
                    = quint8(std::lround(RAMP_STOPS[lo][c] * (1 - f) + RAMP_STOPS[lo + 1][c] * f));
            }
        }
        return t;
    }();
    return table;
}

QColor classColour(int classification)
{
    if (classification >= 0 && classification < STANDARD_CLASS_COUNT) {
        const LasClass &c = STANDARD_CLASSES[classification];
        return QColor(c.r, c.g, c.b);
    }
    // Reserved and user classes: hues spread by the golden angle, so neighbours differ.
    const int hue = int(std::fmod(classification * 137.508, 360.0));
    return QColor::fromHsv(hue, 170, 230);
}

QString className(int classification)
{
    if (classification >= 0 && classification < STANDARD_CLASS_COUNT)
        return QString::fromLatin1(STANDARD_CLASSES[classification].name);
    return QStringLiteral("Class %1").arg(classification);
}

} // namespace tzPointDisplay
