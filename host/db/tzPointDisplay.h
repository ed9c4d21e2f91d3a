#pragma once

// How a cloud's points are coloured: the attributes survey files carry besides position and
// colour, the colour modes that show them, and their palettes (the elevation ramp, the standard
// LAS classes).

#include "qtz_db_global.h"

#include <QColor>
#include <QString>

#include <array>

//! What a survey file tells of a point besides its position and colour: 4 bytes, kept only by
//! clouds whose file has at least one of them.
struct tzPointAttributes
{
    quint16 intensity = 0;
    quint8 classification = 0;
    //! Return number in the low 4 bits, number of returns in the high 4.
    quint8 returns = 0;

    quint8 returnNumber() const { return returns & 0x0f; }
    quint8 numberOfReturns() const { return returns >> 4; }
    bool operator==(const tzPointAttributes &o) const
    {
        return intensity == o.intensity && classification == o.classification
            && returns == o.returns;
    }
};
static_assert(sizeof(tzPointAttributes) == 4, "attributes cost 4 bytes a point");

namespace tzPointDisplay {

//! Which attributes a cloud's file had (bits of a mask).
enum Attribute : quint8 {
    INTENSITY = 1,
    CLASSIFICATION = 2,
    RETURNS = 4,
};

//! What a cloud's points are coloured by.
enum class ColourMode : quint8 {
    Rgb = 0,
    Intensity = 1,
    Elevation = 2,
    Classification = 3,
};
constexpr int COLOUR_MODES = 4;

//! The mode's word on the command line and in menus ("rgb", "intensity", ...).
QTZ_DB_LIB_API QString modeName(ColourMode mode);
//! The mode a word names (any case); false when it names none.
QTZ_DB_LIB_API bool modeFromName(const QString &name, ColourMode &mode);
//! The mode's title in menus ("RGB", "Intensity", ...).
QTZ_DB_LIB_API QString modeTitle(ColourMode mode);

//! The elevation ramp (perceptual, dark blue-violet to yellow) at t in [0, 1].
QTZ_DB_LIB_API QColor ramp(double t);
//! The ramp as 256 RGB triplets, for a texture.
QTZ_DB_LIB_API const std::array<quint8, 256 * 3> &rampTable();

//! The colour and name of a LAS class (the standard ones by the LAS 1.4 table, the others by a
//! colour of their own, named by their number).
QTZ_DB_LIB_API QColor classColour(int classification);
QTZ_DB_LIB_API QString className(int classification);

} // namespace tzPointDisplay
