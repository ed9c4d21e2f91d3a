#pragma once

// Point cloud files: PLY (ASCII, binary little and big endian), LAS 1.0 to 1.4 (every point
// format) plain or compressed as LAZ, E57 (a scanner's scans and pictures), PCD and text clouds,
// each with optional RGB colours.
//
// Coordinates too large for floats (a national grid: X 650 000, Y 6 860 000) are shifted so that
// the cloud's local floats keep millimetre precision; the shift is kept on the cloud
// (local = global + shift). A file that cannot be read gives null and an error that names the file
// and the problem: never a half-filled cloud.

#include "TZVector3.h"
#include "qtz_formats_global.h"

#include <QString>
#include <QStringList>

#include <functional>
#include <optional>
#include <vector>

class QJsonObject;
class tzHObject;
class tzPointCloud;
struct tzRgb;

namespace tzCloudFile {

struct LoadOptions
{
    //! Asked when the file needs a global shift, with the suggested one (sceneShift: it is the
    //! scene's, below); it may change it and returns false to cancel the load. Without it the
    //! suggestion is taken (headless runs).
    std::function<bool(TZVector3d &shift, bool sceneShift)> confirmShift;
    //! The global shift of the scene the file joins (its first cloud's), if any. A file whose
    //! coordinates fit in it is suggested that shift rather than its own, so that the clouds of
    //! one site (tiles, a cloud and its copy) are drawn in one frame; a file too far away for it
    //! is suggested its own.
    std::optional<TZVector3d> sceneShift;
    //! Told the progress in percent; returns false to cancel the load.
    std::function<bool(int percent)> progress;
    //! Told, from the reading thread, what the reader passed over that the user should know
    //! (a scanner's spherical picture...). Without it the notes go to the log.
    std::function<void(const QString &text)> note;
    //! Told, from the reading thread, a coarse sample of the points read so far, spread over
    //! the whole extent (in the local coordinates of the shift given), while the rest is still
    //! being read: a first picture, then finer ones. Colours empty when the file has none.
    std::function<void(std::vector<TZVector3> &&points, std::vector<tzRgb> &&colours,
                       const TZVector3d &shift)>
        preview;
};

//! Readers give previews of files of at least so many points: after a 16th of them (at most
//! a million), then a quarter (at most four).
constexpr size_t PREVIEW_MIN_POINTS = 500000;

//! Beyond this absolute value a coordinate needs a shift (a float keeps 1 mm up to ~8 km).
constexpr double MAX_UNSHIFTED_COORDINATE = 1.0e4;

//! Whether a point needs a shift, and the shift suggested for it (whole hundreds of units).
QTZ_FORMATS_LIB_API bool needsShift(const TZVector3d &p);
QTZ_FORMATS_LIB_API TZVector3d suggestShift(const TZVector3d &p);
//! The shift of a file whose points start at reference: none when it needs none, else the
//! scene's when the points fit in it, else their own; options.confirmShift is asked and may
//! change it. False when it refuses (the load is cancelled).
QTZ_FORMATS_LIB_API bool decideShift(const TZVector3d &reference, const LoadOptions &options,
                                     TZVector3d &shift);

//! The extensions of the clouds in text files: xyz, txt, asc, pts, csv, xyzrgb, xyzn.
QTZ_FORMATS_LIB_API const QStringList &textKinds();
//! Whether the file is a saved scene (.tzs, read by tzSceneFile) rather than a cloud.
QTZ_FORMATS_LIB_API bool isScene(const QString &path);
//! The open dialog's filter: every cloud format read, each alone, then all files.
QTZ_FORMATS_LIB_API QString openFilter();
//! Reads the file by its extension (.ply, .las, .laz, .e57, .pcd, or one of the text kinds) as
//! one cloud (the scans of an E57 merged, in the file's coordinates).
QTZ_FORMATS_LIB_API tzPointCloud *load(const QString &path, QString &errorText,
                                       const LoadOptions &options = {});
//! What a file's header says, without reading its points (a file of any size answers at once):
//! "file", "format" and, as the format gives them, "version", "pointFormat", "recordLength",
//! "points", "bounds" (min and max in the file's coordinates), "scale", "offset", "software",
//! "vlrs" and "evlrs" (user id, record id, description, length), "wkt" or "geoKeys", "laz"
//! (compressor, chunk size, chunks), "copc" (octree depth and nodes), "scans" and "images"
//! (E57), "properties" (PLY, PCD). False, with errorText naming the file and the problem, for
//! a file that cannot be read.
QTZ_FORMATS_LIB_API bool describe(const QString &path, QJsonObject &info, QString &errorText);
//! The description as lines of text, one fact a line.
QTZ_FORMATS_LIB_API QString describeAsText(const QJsonObject &info);
//! Reads the file as the viewer shows it: a cloud, or, for a file of scans (E57), a group
//! named after the file with a cloud per scan, all in one global shift, each scan placed by its
//! pose; the pictures of its pinhole cameras become a photo list of the scan's cloud
//! (tzGenericPointCloud::PHOTO_LIST_KEY), written in the user's cache folder.
QTZ_FORMATS_LIB_API tzHObject *loadObjects(const QString &path, QString &errorText,
                                           const LoadOptions &options = {});
//! Reads an E57 file's scans each as a cloud of its own (in the file's coordinates, one global
//! shift for all), for a conversion of one output per scan.
QTZ_FORMATS_LIB_API std::vector<tzPointCloud *> loadScans(const QString &path, QString &errorText,
                                                          const LoadOptions &options = {});
//! Reads a file's bytes of the given format ("ply", "las", "laz", "pcd", or a text kind such as
//! "xyz" or "pts"); name is used in messages.
QTZ_FORMATS_LIB_API tzPointCloud *loadFromMemory(const QByteArray &bytes, const QString &format,
                                                 const QString &name, QString &errorText,
                                                 const LoadOptions &options = {});

//! The extensions clouds are written as: las, laz, ply.
QTZ_FORMATS_LIB_API const QStringList &writableKinds();
//! Writes a cloud in its global coordinates, by the extension: LAS 1.2 or LAZ (point format 2
//! with colours, 0 without; millimetre records), or binary PLY (double coordinates). Nothing is
//! left at path when it fails; errorText names the file and the problem.
QTZ_FORMATS_LIB_API bool save(const tzPointCloud &cloud, const QString &path, QString &errorText,
                              quint32 chunkSize = 0, const LoadOptions &options = {});

//! Converts a file to another format by the output's extension. Between LAS and LAZ it does not
//! go through a cloud: the header, the VLRs and every point record come out as they went in
//! (the LAZ description added or taken away). Otherwise the cloud read is written as save()
//! does. LAZ is written in chunks of chunkSize points (0: 50,000). Nothing is left at outPath
//! when it fails; errorText names the file and the problem.
QTZ_FORMATS_LIB_API bool convert(const QString &inPath, const QString &outPath, QString &errorText,
                                 quint32 chunkSize = 0, const LoadOptions &options = {});

//! Converts each scan of an E57 file to a file of its own: OUT's name with "-" and the scan's
//! name before its extension (written lists them). Nothing is left when one fails.
QTZ_FORMATS_LIB_API bool convertScans(const QString &inPath, const QString &outPath,
                                      QStringList &written, QString &errorText,
                                      quint32 chunkSize = 0, const LoadOptions &options = {});

} // namespace tzCloudFile
