#pragma once

#include <QSettings>

#include <memory>

//! Opens the plug-in's settings store: on Windows the registry key
//! HKEY_CURRENT_USER\SOFTWARE\LumiVert\LinkServer, elsewhere the native store of organisation
//! "LumiVert", application "LinkServer". Every reader and writer opens it anew, so that each sees
//! the others' changes at once.
std::unique_ptr<QSettings> openLumivertSettings();

//! The names of the stored values, in one place. They are the companion's:
//! "accuaryLowestPoint", "accuaryMovePoint" and "accuaryZLabel" are misspelt on purpose and must
//! stay so.
namespace tzSettingKeys {
constexpr const char *ACCUARY_LOWEST_POINT = "accuaryLowestPoint";
constexpr const char *ACCUARY_MOVE_POINT = "accuaryMovePoint";
constexpr const char *POINT_SIZE_CLOUD = "pointSizeCloud";
constexpr const char *DISPLAY_IN_2D = "displayIn2D";
constexpr const char *ACCUARY_Z_LABEL = "accuaryZLabel";
constexpr const char *SIZE_SPHERES = "sizeSpheres";
constexpr const char *PORT_TCP = "portTCP";
constexpr const char *SIMPLE_POINT = "SimplePoint";
} // namespace tzSettingKeys

//! The settings a run works with, typed: read from the store when the run starts, written back
//! by the options form. The values read anew elsewhere (the port at each connection, the height
//! decimals of a sight's box at each draw, the circle's radius, the size of the photo stations
//! at their first draw) have typed readers of their own below.
struct tzLumivertSettings
{
    double accuaryLowestPoint = 0.1;
    double accuaryMovePoint = 0.1;
    quint32 pointSizeCloud = 1;
    bool displayIn2D = false;
    int accuaryZLabel = 2;
    float sizeSpheres = 0.8f;

    //! Reads the store as a run starts. Each value is read with no default, and an "unset"
    //! reading writes the value held here back instead; the unset markers differ from value to
    //! value (0 for the distances and the sphere size, 1 for the point size, false for the 2D
    //! display, 2 for the decimals) and are kept exactly so: they are how the companion's side
    //! reads and writes the same store. A stored sphere size is never taken here.
    void readAtStart(QSettings &store);
    //! Writes every value (the options form's OK), with the types the store has always had.
    void write(QSettings &store) const;

    //! "portTCP", read at each connection (0 when unset).
    static int portValue();
    //! "accuaryZLabel", the height's decimals in a sight's box, read at each draw (0 to 12).
    static int heightDecimals();
    //! "SimplePoint", the mode of the last sights placed, read at each draw of a sight's box.
    static bool simplePointMode();
    //! "accuaryLowestPoint", read for the mouse circle's radius.
    static float lowestPointRadius();
    //! "sizeSpheres", read at the photo stations' first draw.
    static float stationSize();
};
