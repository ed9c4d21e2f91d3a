#pragma once

// The surveyor's measures as a table: File > Export measures.

#include "tzCoordinateFrame.h"

#include <QString>

class tzApplicationInterface;
class tzHObject;

struct tzMeasureExport
{
    int sights = 0;
    int distances = 0;
    QString error; // empty when the file was written
};

//! Writes to path, as CSV in the C locale with a header row, every sight under root (ident,
//! number, x, y, z in the companion's coordinates) and every distance (start and end in the
//! companion's coordinates, length in metres, trend and plunge in degrees). The distances go
//! back to the companion's coordinates in frame, which first takes the scene's first cloud's
//! (the run's frame, as each frame of the companion does). The file is written whole or left as
//! it was.
tzMeasureExport exportMeasures(const tzHObject *root, const QString &path,
                               tzCoordinateFrame &frame);

//! File > Export measures: asks where (in the viewer's last folder, ".csv" added to a name
//! without a suffix) and writes the viewer's scene there, saying on the console what was
//! written, or on the console and in a message box why it could not be.
void exportMeasuresAs(tzApplicationInterface *app, tzCoordinateFrame &frame);
