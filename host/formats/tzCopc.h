#pragma once

// COPC: a LAZ 1.4 file (point formats 6 to 8) whose chunks are the nodes of an octree. The
// first VLR ("copc", 1) gives the octree's cube and the hierarchy's root page; the pages (an
// extended VLR "copc", 1000) list each node's key, where its chunk lies and how many points
// it holds, or where the page of a deeper part of the tree is. A node holds an even sample of
// what lies under it, its children the rest: reading the top nodes gives the whole survey
// coarsely, reading down gives it all.
//
// tzCopc::File reads such a file a node at a time, from any thread; tzCopc::index writes one
// from clouds of any format and size, in bounded memory.

#include "qtz_formats_global.h"

#include <QString>
#include <QStringList>

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

class tzCloudSource;
namespace tzLaz {
struct Chunk;
}

namespace tzCopc {

//! A node of the octree: its depth (0: the root cube) and its place among the 2^depth cubes
//! of that depth along each axis.
struct Key
{
    std::int32_t depth = 0, x = 0, y = 0, z = 0;

    bool operator==(const Key &o) const
    {
        return depth == o.depth && x == o.x && y == o.y && z == o.z;
    }
    bool operator!=(const Key &o) const { return !(*this == o); }
    bool operator<(const Key &o) const
    {
        return std::array<std::int32_t, 4> {depth, x, y, z}
        < std::array<std::int32_t, 4> {o.depth, o.x, o.y, o.z};
    }
    //! Child 0 to 7 (bit 0: x, bit 1: y, bit 2: z).
    Key child(int i) const
    {
        return {depth + 1, 2 * x + (i & 1), 2 * y + ((i >> 1) & 1), 2 * z + ((i >> 2) & 1)};
    }
    Key parent() const { return {depth - 1, x >> 1, y >> 1, z >> 1}; }
    //! Whether this node is o or lies under it.
    bool isUnder(const Key &o) const
    {
        if (depth < o.depth)
            return false;
        const int up = depth - o.depth;
        return (x >> up) == o.x && (y >> up) == o.y && (z >> up) == o.z;
    }
};

//! An entry of a hierarchy page: a node and its chunk, or (pointCount -1) the page below it.
struct Entry
{
    Key key;
    std::uint64_t offset = 0;
    std::int32_t byteSize = 0;
    std::int32_t pointCount = 0;

    bool isPage() const { return pointCount == -1; }
};

//! The octree's description (the "copc" info VLR).
struct Info
{
    double center[3] = {};
    double halfSize = 0;
    double spacing = 0; // between points of the root node
    std::uint64_t rootPageOffset = 0, rootPageSize = 0;
    double gpsTimeMin = 0, gpsTimeMax = 0;

    //! The cube of a node, in the file's coordinates.
    void bounds(const Key &key, double (&min)[3], double (&max)[3]) const;
};

//! A point of a node, decoded: its coordinates (the file's, scale and offset applied) and the
//! fields surveyors read.
struct Point
{
    double x = 0, y = 0, z = 0;
    std::uint16_t intensity = 0;
    std::uint8_t returns = 0; // number in the low 4 bits, of how many in the high 4
    std::uint8_t classification = 0;
    std::uint16_t red = 0, green = 0, blue = 0;
    double gpsTime = 0;
};

//! A COPC file open for reading nodes. Every const member may be called from any thread.
class QTZ_FORMATS_LIB_API File
{
public:
    File();
    ~File();
    File(const File &) = delete;
    File &operator=(const File &) = delete;

    //! Opens the file (a path, or a URL served with range requests) and reads its header, its
    //! VLRs and its info; false, with errorText naming the file and the problem, when it is not
    //! a COPC file that can be read.
    bool open(const QString &path, QString &errorText);
    const QString &path() const;
    const Info &info() const;
    int pointFormat() const;
    int recordLength() const;
    std::uint64_t pointCount() const;
    const double (&scale() const)[3];
    const double (&offset() const)[3];
    //! The header's box of the points, in the file's coordinates.
    void pointBounds(double (&min)[3], double (&max)[3]) const;

    //! The entries of one hierarchy page; false, with errorText, when it cannot be read.
    bool readPage(std::uint64_t offset, std::uint64_t size, std::vector<Entry> &entries,
                  QString &errorText) const;
    //! Every node of the octree (the pages walked from the root; page entries left out).
    bool readHierarchy(std::vector<Entry> &nodes, QString &errorText) const;
    //! Decodes a node's records (recordLength() bytes each) into records.
    bool readRecords(const Entry &node, std::vector<std::uint8_t> &records,
                     QString &errorText) const;
    //! Decodes a node's points.
    bool readPoints(const Entry &node, std::vector<Point> &points, QString &errorText) const;
    //! The index in the file of the first point of the node whose chunk starts at offset (the
    //! points counted chunk after chunk); false when no chunk starts there.
    bool firstPointAt(std::uint64_t offset, std::uint64_t &first) const;
    //! A record's point (records of this file's format).
    Point pointOf(const std::uint8_t *record) const;
    //! Makes the reads in progress and to come fail at once.
    void cancel() const;
    //! Whether the file is read from a server (reads are slow to start: many at once).
    bool isRemote() const;

private:
    bool readChunkTable(std::vector<tzLaz::Chunk> &chunks) const;

    struct Impl;
    std::unique_ptr<Impl> d;
};

//! How files served over HTTP are read.
struct RemoteSettings
{
    //! Where the ranges read are kept (empty: nowhere), and how many bytes at most: the least
    //! recently used go first.
    QString cacheFolder;
    std::uint64_t cacheBytes = std::uint64_t(2048) << 20;
    //! A request that receives nothing for this long fails, and is tried this many times in all.
    int timeoutSeconds = 20;
    int attempts = 3;
    //! The pause before the second attempt, doubled before each one after.
    int retryPauseMs = 250;
    //! Requests in flight at once for one file.
    int parallel = 6;
    //! What could not be read is asked for again after this long (the server may be back).
    int retryFailuresAfterMs = 20000;
    //! A PEM file of certificate authorities trusted besides the system's (a firm's own).
    QString trustedAuthorities;
};
QTZ_FORMATS_LIB_API void setRemoteSettings(const RemoteSettings &settings);
QTZ_FORMATS_LIB_API RemoteSettings remoteSettings();

//! Whether a name is an HTTP or HTTPS URL rather than a path.
QTZ_FORMATS_LIB_API bool isUrl(const QString &name);

//! Opens a COPC file, of the disk or served over HTTP or HTTPS (the server must answer range
//! requests), or a survey's tiles (isTileSet), as the source of a streamed cloud
//! (tzStreamedCloud); null, with errorText naming the file and the problem, when it cannot be
//! read.
QTZ_FORMATS_LIB_API std::unique_ptr<tzCloudSource> openSource(const QString &path,
                                                              QString &errorText);
//! Whether a path names a survey's tiles: a folder (its LAS, LAZ and COPC files), or a text
//! file (.txt, .lst, .list) that lists such files, a path or a URL a line.
QTZ_FORMATS_LIB_API bool isTileSet(const QString &path);
//! Where the viewer indexes a file too large to read whole: NAME.EXT.copc.laz beside it, or
//! in the user's cache when its folder cannot be written.
QTZ_FORMATS_LIB_API QString indexPathFor(const QString &path);
//! Whether index is a COPC file made from path since path last changed.
QTZ_FORMATS_LIB_API bool isIndexOf(const QString &index, const QString &path);
//! The files of a survey's tiles (a folder's, by name; a list's, in its order).
QTZ_FORMATS_LIB_API QStringList tilesOf(const QString &path);
//! Opens a survey's tiles as the source of one streamed cloud (openSource does so for the
//! paths isTileSet takes).
QTZ_FORMATS_LIB_API std::unique_ptr<tzCloudSource> openTileSet(const QString &path,
                                                               QString &errorText);
//! Whether a file is a COPC file (a LAZ whose first VLR is the COPC info).
QTZ_FORMATS_LIB_API bool isCopc(const QString &path);

//! How an index is built.
struct IndexOptions
{
    //! Told the progress (0..100) and what is being done; returns false to cancel.
    std::function<bool(int percent, const QString &stage)> progress;
    //! Told what the user should know (fields that could not be kept...).
    std::function<void(const QString &text)> note;
    //! The memory the build may take for its points (the input's own reading aside); beyond it
    //! the points wait on disk, sorted by the part of the survey they lie in.
    std::uint64_t memoryBudget = std::uint64_t(1536) << 20;
    //! Threads that encode the nodes (0: one per core).
    int threads = 0;
    //! Where the points waiting on disk go (empty: beside the output).
    QString workFolder;
    //! A node of at most this many points keeps them all (no children).
    std::size_t leafPoints = 100000;
};

//! Indexes clouds (LAS, LAZ, and any other format the viewer opens; a survey's tiles, see
//! isTileSet) into one COPC file at outPath: one point format wide enough for all (6, 7 with
//! colours, 8 with near infrared),
//! LAS fields kept (extra bytes when every input has the same), the finest scale of the
//! inputs. Nothing is left at outPath when it fails; errorText names the file and the problem.
QTZ_FORMATS_LIB_API bool index(const QStringList &inputs, const QString &outPath,
                               QString &errorText, const IndexOptions &options = {});

} // namespace tzCopc
