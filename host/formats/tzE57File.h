#pragma once

// The E57 file's structure (ASTM E2807): the paged binary layout and the XML section that
// describes the scans and the images. Private to the formats.
//
// Layout: a 48-byte header ("ASTM-E57", version, the file's physical length, where the XML
// section starts and its logical length, the page size), then pages of 1,024 bytes, each 1,020
// bytes of data followed by the CRC-32C of those bytes (big-endian). Offsets in the XML and in
// the binary sections are physical (counting the checksums); lengths are logical.

#include <QString>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace tzE57 {

constexpr size_t PAGE_SIZE = 1024;
constexpr size_t PAGE_DATA = 1020;

//! The CRC-32C (Castagnoli) of bytes (the processor's instruction where it has one).
quint32 crc32c(const uchar *data, size_t size);

//! A node of the XML section: its element name, its E57 type ("Structure", "Vector",
//! "CompressedVector", "Integer", "ScaledInteger", "Float", "String", "Blob"), its other
//! attributes, its text and its children in order.
struct Node
{
    QString name;
    QString type;
    std::vector<std::pair<QString, QString>> attributes;
    QString text;
    std::vector<Node> children;

    //! The child of this name, or null.
    const Node *child(const QString &childName) const;
    QString attribute(const QString &key) const;
    //! The number an Integer, ScaledInteger (its scale and offset applied) or Float node holds
    //! (empty text: 0, as the format says).
    double number() const;
    //! A child's number, or fallback when there is no such child.
    double numberOf(const QString &childName, double fallback = 0) const;
};

//! One field of a compressed vector's records, as its prototype describes it.
struct Field
{
    enum Kind { Integer, ScaledInteger, Float };
    QString name;
    Kind kind = Integer;
    bool singlePrecision = false; // Float of 32 bits
    qint64 minimum = 0, maximum = 0; // Integer and ScaledInteger
    double scale = 1, offset = 0; // ScaledInteger
    //! Bits a value takes in the stream: 0 when minimum == maximum; floats 32 or 64.
    int bits() const;
};

//! A rigid-body transform: a rotation quaternion (w, x, y, z) and a translation.
struct Pose
{
    std::array<double, 4> rotation {1, 0, 0, 0};
    std::array<double, 3> translation {0, 0, 0};
};

//! A scan (data3D entry): its name, where its points are and how they are made.
struct Scan
{
    QString name;
    QString guid;
    quint64 recordCount = 0;
    quint64 fileOffset = 0; // physical offset of the compressed vector's section
    std::vector<Field> fields;
    Pose pose;
    //! The colour and intensity limits the file gives (the fields' own when it gives none).
    double colourMin[3] = {0, 0, 0}, colourMax[3] = {255, 255, 255};
    bool hasColourLimits = false;
    double intensityMin = 0, intensityMax = 0;
    bool hasIntensityLimits = false;

    const Field *field(const QString &fieldName) const;
};

//! An image (images2D entry) of the pinhole kind: what the photo stations need.
struct Image
{
    QString name;
    QString scanGuid; // the scan being acquired when the picture was taken (may be empty)
    QString representation; // "pinholeRepresentation", "sphericalRepresentation", ...
    int width = 0, height = 0;
    double focalLength = 0, pixelWidth = 0, pixelHeight = 0;
    double principalX = 0, principalY = 0;
    quint64 blobOffset = 0, blobLength = 0; // the picture's blob section, physical offset
    bool png = false; // the picture is a PNG (else a JPEG)
    bool hasPose = false;
    Pose pose;
};

//! The header of a compressed vector's binary section.
struct SectionHeader
{
    quint64 logicalLength = 0;
    quint64 dataOffset = 0; // physical offset of the first data packet
    quint64 indexOffset = 0;
};

//! An E57 file in memory: checked, its XML read into nodes and the scans and images found.
//! Every failure is a text naming the problem (the page, the element); the caller adds the
//! file's name.
class File
{
public:
    //! Reads the header, checks every page's checksum (on up to threads threads; only the XML
    //! section's pages unless everyPage) and reads the XML section.
    bool open(const uchar *data, size_t size, std::string &error, unsigned threads = 1,
              bool everyPage = true);

    const Node &root() const { return m_root; }
    const std::vector<Scan> &scans() const { return m_scans; }
    const std::vector<Image> &images() const { return m_images; }

    //! Copies length logical bytes from a physical offset (skipping the checksums); false when
    //! they run past the file.
    bool readLogical(quint64 physicalOffset, size_t length, uchar *out) const;
    //! The physical offset length logical bytes after a physical offset.
    static quint64 advance(quint64 physicalOffset, quint64 logicalBytes);
    //! The header of a compressed vector's section at a physical offset; withData: its data
    //! offset and length checked too (a section of no record may give any).
    bool sectionHeader(quint64 physicalOffset, SectionHeader &header, std::string &error,
                       bool withData = true) const;
    //! An image's picture (the bytes of its JPEG or PNG file).
    bool picture(const Image &image, std::vector<uchar> &bytes, std::string &error) const;

private:
    bool readXml(const QByteArray &xml, std::string &error);
    bool readScans(std::string &error);
    void readImages();

    const uchar *m_data = nullptr;
    size_t m_size = 0; // physical length
    Node m_root;
    std::vector<Scan> m_scans;
    std::vector<Image> m_images;
};

//! The records of a scan's compressed vector, read in blocks, field by field: each data packet
//! holds a byte stream per field (values bit-packed, low bit first), and each stream goes on
//! from packet to packet. The packets are read as the fields need them.
class Records
{
public:
    //! Reads the section's header; false with the problem when it is damaged, or when the
    //! section is too short for the records the XML declares.
    bool open(const File &file, const Scan &scan, std::string &error);
    quint64 count() const { return m_count; }
    quint64 left() const { return m_count - m_read; }
    //! The next n records (at most left()): for each field k of the prototype, its values go to
    //! columns[k] (n doubles, scaled integers scaled), or are passed over where columns[k] is
    //! null. False with the problem when the streams run short or a packet is damaged.
    bool read(size_t n, double *const *columns, std::string &error);
    //! The next record's values, one per field in the prototype's order; false after the last
    //! record or when the streams run short.
    bool next(double *values);
    //! Goes to a record (the next read starts there): every field's values have a fixed number
    //! of bits, so each stream's place is known; the packets' headers are read once to find
    //! where each stream's bytes lie. False with the problem when a packet is damaged.
    bool seek(quint64 record, std::string &error);

private:
    struct Stream
    {
        std::vector<uchar> bytes; // what is not read yet, 8 bytes of padding after
        quint64 bitPosition = 0; // in bytes' bits
        quint64 bitEnd = 0;
        quint64 skip = 0; // bytes of the next packets passed over (after a seek)
    };
    static constexpr size_t PADDING = 16;
    bool nextPacket(std::string &error);
    void take(size_t field, size_t n, double *out);

    const File *m_file = nullptr;
    std::vector<Field> m_fields;
    std::vector<Stream> m_streams;
    std::vector<uchar> m_packet;
    quint64 m_at = 0, m_end = 0; // physical offsets of the next packet and of the section's end
    quint64 m_start = 0; // physical offset of the first packet
    // Where each data packet lies, and each stream's bytes before it (packets times streams),
    // read at the first seek.
    std::vector<quint64> m_packets;
    std::vector<quint64> m_before;
    quint64 m_count = 0;
    quint64 m_read = 0;
};

//! A scan to write: its points in its own frame (x, y, z one after the other), optional
//! intensities and colours (one per point, or none), its pose and the step of its scaled
//! integer coordinates.
struct ScanToWrite
{
    QString name;
    QString guid;
    //! x, y, z; or, when spherical, range, azimuth and elevation (written as doubles).
    std::vector<double> xyz;
    bool spherical = false;
    //! The invalid state of each point (0 valid, 2 invalid), or none.
    std::vector<quint8> invalid;
    std::vector<quint16> intensities;
    std::vector<std::array<quint8, 3>> colours;
    Pose pose;
    double scale = 0.001;
    //! The intensity limits (0 to 65535) written as scaled integers of this scale, as some
    //! scanners write them (1: as integers).
    double intensityLimitScale = 1;
};

//! A pinhole picture to write: its JPEG or PNG bytes, its camera and pose.
struct ImageToWrite
{
    QString name;
    QString scanGuid;
    QByteArray picture;
    bool png = false;
    int width = 0, height = 0;
    double focalLength = 0, pixelWidth = 0, pixelHeight = 0;
    double principalX = 0, principalY = 0;
    bool hasPose = true;
    Pose pose;
};

//! An E57 file of these scans (scaled 32-bit integer coordinates, 16-bit intensities, 8-bit
//! colours, each scan's pose), pages and checksums included: the tests' and the benchmarks'
//! files. False when a coordinate does not fit the scaled integers.
bool writeFile(const std::vector<ScanToWrite> &scans, QByteArray &out, std::string &error,
               const std::vector<ImageToWrite> &images = {});

} // namespace tzE57
