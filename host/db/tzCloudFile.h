#pragma once

// Point cloud files: PLY (ASCII, binary little and big endian), LAS 1.0 to 1.4 (every point
// format) plain or compressed as LAZ, PCD and text clouds, each with optional RGB colours.
//
// Coordinates too large for floats (a national grid: X 650 000, Y 6 860 000) are shifted so that
// the cloud's local floats keep millimetre precision; the shift is kept on the cloud
// (local = global + shift). A file that cannot be read gives null and an error that names the file
// and the problem: never a half-filled cloud.

#include "TZVector3.h"
#include "qtz_db_global.h"

#include <QString>
#include <QStringList>

#include <functional>

class tzPointCloud;

namespace tzCloudFile {

struct LoadOptions
{
    //! Asked when the file needs a global shift, with the suggested one; it may change it and
    //! returns false to cancel the load. Without it the suggestion is taken (headless runs).
    std::function<bool(TZVector3d &shift)> confirmShift;
    //! Told the progress in percent; returns false to cancel the load.
    std::function<bool(int percent)> progress;
};

//! Beyond this absolute value a coordinate needs a shift (a float keeps 1 mm up to ~8 km).
constexpr double MAX_UNSHIFTED_COORDINATE = 1.0e4;

//! Whether a point needs a shift, and the shift suggested for it (whole hundreds of units).
QTZ_DB_LIB_API bool needsShift(const TZVector3d &p);
QTZ_DB_LIB_API TZVector3d suggestShift(const TZVector3d &p);

//! The extensions of the clouds in text files: xyz, txt, asc, pts, csv, xyzrgb, xyzn.
QTZ_DB_LIB_API const QStringList &textKinds();
//! Whether the file is a saved scene (.tzs, read by tzSceneFile) rather than a cloud.
QTZ_DB_LIB_API bool isScene(const QString &path);
//! The open dialog's filter: every cloud format read, each alone, then all files.
QTZ_DB_LIB_API QString openFilter();
//! Reads the file by its extension (.ply, .las, .laz, .pcd, or one of the text kinds).
QTZ_DB_LIB_API tzPointCloud *load(const QString &path, QString &errorText,
                                  const LoadOptions &options = {});
//! Reads a file's bytes of the given format ("ply", "las", "laz", "pcd", or a text kind such as
//! "xyz" or "pts"); name is used in messages.
QTZ_DB_LIB_API tzPointCloud *loadFromMemory(const QByteArray &bytes, const QString &format,
                                            const QString &name, QString &errorText,
                                            const LoadOptions &options = {});

//! The extensions clouds are written as: las, laz, ply.
QTZ_DB_LIB_API const QStringList &writableKinds();
//! Writes a cloud in its global coordinates, by the extension: LAS 1.2 or LAZ (point format 2
//! with colours, 0 without; millimetre records), or binary PLY (double coordinates). Nothing is
//! left at path when it fails; errorText names the file and the problem.
QTZ_DB_LIB_API bool save(const tzPointCloud &cloud, const QString &path, QString &errorText,
                         quint32 chunkSize = 0, const LoadOptions &options = {});

//! Converts a file to another format by the output's extension. Between LAS and LAZ it does not
//! go through a cloud: the header, the VLRs and every point record come out as they went in
//! (the LAZ description added or taken away). Otherwise the cloud read is written as save()
//! does. LAZ is written in chunks of chunkSize points (0: 50,000). Nothing is left at outPath
//! when it fails; errorText names the file and the problem.
QTZ_DB_LIB_API bool convert(const QString &inPath, const QString &outPath, QString &errorText,
                            quint32 chunkSize = 0, const LoadOptions &options = {});

} // namespace tzCloudFile
