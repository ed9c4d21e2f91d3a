// PCD files (versions 0.6 and 0.7): a text header of keywords (FIELDS, SIZE, TYPE, COUNT, WIDTH,
// HEIGHT, POINTS, DATA), then the points as text ("DATA ascii") or as packed little-endian
// records ("DATA binary"). The colour is the field "rgb" or "rgba": 0x00RRGGBB packed in 4 bytes,
// stored as an unsigned integer or as the bits of a float. Organised clouds mark missing points
// with NaN coordinates; those are skipped. Compressed data ("binary_compressed") is refused.

#include "tzCloudFormats_p.h"

#include <QByteArray>
#include <QJsonArray>
#include <QList>

#include <cstring>

namespace tzCloudFile {
namespace detail {

namespace {

struct Field
{
    QByteArray name;
    int size = 4;
    char type = 'F'; // F float, U unsigned, I signed
    int count = 1;
    int offset = 0; // in a binary record
    int column = 0; // first token in a text line
};

double binaryValue(const uchar *p, const Field &f)
{
    switch (f.type) {
    case 'F':
        if (f.size == 4) {
            float v;
            std::memcpy(&v, p, 4);
            return v;
        }
        if (f.size == 8) {
            double v;
            std::memcpy(&v, p, 8);
            return v;
        }
        break;
    case 'U':
    case 'I': {
        quint64 raw = 0;
        std::memcpy(&raw, p, size_t(f.size)); // little endian, as PCD writers store it
        if (f.type == 'I' && f.size < 8 && (raw >> (8 * f.size - 1)) & 1)
            return double(qint64(raw | (~quint64(0) << (8 * f.size))));
        return double(raw);
    }
    default:
        break;
    }
    return 0;
}

// The packed colour of a field, from its bytes.
quint32 packedColor(const uchar *p)
{
    quint32 v;
    std::memcpy(&v, p, 4);
    return v;
}

// The packed colour written as text: an integer, or a float whose bits hold the colour.
quint32 packedColor(const char *begin, const char *end, const Field &f)
{
    double v = 0;
    if (!parseNumber(begin, end, v))
        return 0;
    if (f.type == 'F') {
        const float asFloat = float(v);
        quint32 bits;
        std::memcpy(&bits, &asFloat, 4);
        return bits;
    }
    return quint32(qint64(v));
}

tzRgb unpack(quint32 v)
{
    return {quint8(v >> 16), quint8(v >> 8), quint8(v)};
}

//! What a PCD header says: the fields and their places, the point count, the encoding and
//! where the points start.
struct PcdHeader
{
    QList<Field> fields;
    qint64 points = -1;
    QByteArray data; // ascii, binary, ...
    size_t bodyOffset = 0;
    int record = 0; // bytes of a binary record
    int columns = 0; // values of a text line
    int axis[3] = {-1, -1, -1}; // fields of x, y, z
    int color = -1; // field of rgb or rgba

    const Field &axisField(int d) const { return fields[axis[d]]; }
    const Field *colorField() const { return color >= 0 ? &fields[color] : nullptr; }
};

PcdHeader parsePcdHeader(const Bytes &in)
{
    const char *const begin = reinterpret_cast<const char *>(in.data);
    const char *const end = begin + in.size;
    PcdHeader header;
    QList<Field> &fields = header.fields;
    QList<int> sizes;
    QByteArray types;
    QList<int> counts;
    qint64 width = -1;
    qint64 height = 1;
    QByteArray &data = header.data;
    const char *p = begin;
    int lineNumber = 0;
    while (p < end && data.isEmpty()) {
        ++lineNumber;
        const char *eol = static_cast<const char *>(std::memchr(p, '\n', size_t(end - p)));
        const QByteArray line = QByteArray(p, int((eol ? eol : end) - p)).trimmed();
        p = eol ? eol + 1 : end;
        if (line.isEmpty() || line.startsWith('#'))
            continue;
        const QList<QByteArray> words = line.simplified().split(' ');
        const QByteArray key = words[0].toUpper();
        const QList<QByteArray> values = words.mid(1);
        bool ok = true;
        if (key == "VERSION" || key == "VIEWPOINT") {
            // the version changes nothing read here; the viewpoint is the sensor's pose
        } else if (key == "FIELDS" || key == "COLUMNS") {
            for (const QByteArray &v : values) {
                Field f;
                f.name = v.toLower();
                fields << f;
            }
        } else if (key == "SIZE") {
            for (const QByteArray &v : values)
                sizes << v.toInt(&ok);
        } else if (key == "TYPE") {
            for (const QByteArray &v : values)
                types += v.isEmpty() ? '?' : char(v.toUpper()[0]);
        } else if (key == "COUNT") {
            for (const QByteArray &v : values)
                counts << v.toInt(&ok);
        } else if (key == "WIDTH") {
            width = values.value(0).toLongLong(&ok);
        } else if (key == "HEIGHT") {
            height = values.value(0).toLongLong(&ok);
        } else if (key == "POINTS") {
            header.points = values.value(0).toLongLong(&ok);
        } else if (key == "DATA") {
            data = values.value(0).toLower();
            ok = !data.isEmpty();
        } else {
            failWith(QStringLiteral("line %1: unknown PCD header keyword '%2'")
                         .arg(lineNumber)
                         .arg(QString::fromLatin1(words[0])));
        }
        if (!ok)
            failWith(QStringLiteral("line %1: bad PCD header line '%2'")
                         .arg(lineNumber)
                         .arg(QString::fromLatin1(line.left(80))));
    }
    header.bodyOffset = size_t(p - begin);
    if (data.isEmpty())
        failWith(QStringLiteral("not a PCD file: no DATA line in the header"));
    if (fields.isEmpty())
        failWith(QStringLiteral("PCD header without FIELDS"));
    if (header.points < 0)
        header.points = width >= 0 ? width * height : -1;
    if (header.points < 0 || header.points > 0xffffffffLL)
        failWith(QStringLiteral("PCD header without a valid POINTS (or WIDTH and HEIGHT)"));
    if (sizes.size() != fields.size() || types.size() != fields.size()
        || (!counts.isEmpty() && counts.size() != fields.size()))
        failWith(QStringLiteral("PCD header: FIELDS, SIZE, TYPE and COUNT do not match"));

    for (int i = 0; i < fields.size(); ++i) {
        Field &f = fields[i];
        f.size = sizes[i];
        f.type = types[i];
        f.count = counts.isEmpty() ? 1 : counts[i];
        if (f.count < 1 || (f.size != 1 && f.size != 2 && f.size != 4 && f.size != 8)
            || (f.type != 'F' && f.type != 'U' && f.type != 'I') || (f.type == 'F' && f.size < 4))
            failWith(QStringLiteral("PCD field '%1' has an unsupported size or type")
                         .arg(QString::fromLatin1(f.name)));
        f.offset = header.record;
        f.column = header.columns;
        header.record += f.size * f.count;
        header.columns += f.count;
        for (int d = 0; d < 3; ++d) {
            if (f.name == QByteArray(1, char('x' + d)))
                header.axis[d] = i;
        }
        if ((f.name == "rgb" || f.name == "rgba") && f.size == 4)
            header.color = i;
    }
    if (header.axis[0] < 0 || header.axis[1] < 0 || header.axis[2] < 0)
        failWith(QStringLiteral("PCD file without x, y and z fields"));
    return header;
}

//! Where the points go: organised clouds mark missing points with NaN coordinates, skipped.
using AddPoint = std::function<void(const double xyz[3], tzRgb rgb)>;

// One point a line, its values separated by blanks.
void readPcdAscii(const Bytes &in, const PcdHeader &header, const AddPoint &add,
                  CloudBuilder &builder)
{
    const char *const end = reinterpret_cast<const char *>(in.data) + in.size;
    const char *p = reinterpret_cast<const char *>(in.data) + header.bodyOffset;
    const size_t n = size_t(header.points);
    const Field *color = header.colorField();
    std::vector<const char *> token(size_t(header.columns) + 1);
    for (size_t i = 0; i < n; ++i) {
        const char *eol
            = p < end ? static_cast<const char *>(std::memchr(p, '\n', size_t(end - p))) : nullptr;
        const char *stop = eol ? eol : end;
        if (p >= end)
            failWith(QStringLiteral("%1 points announced, %2 found").arg(n).arg(i));
        int found = 0;
        for (const char *q = p; found < header.columns;) {
            while (q < stop && (*q == ' ' || *q == '\t' || *q == '\r'))
                ++q;
            if (q == stop)
                break;
            token[size_t(found++)] = q;
            while (q < stop && *q != ' ' && *q != '\t' && *q != '\r')
                ++q;
        }
        if (found < header.columns)
            failWith(QStringLiteral("point %1: expected %2 values").arg(i + 1).arg(header.columns));
        double xyz[3];
        for (int d = 0; d < 3; ++d) {
            if (!parseNumber(token[size_t(header.axisField(d).column)], stop, xyz[d]))
                failWith(QStringLiteral("point %1: bad coordinate").arg(i + 1));
        }
        add(xyz,
            color ? unpack(packedColor(token[size_t(color->column)], stop, *color))
                  : tzRgb {0, 0, 0});
        p = eol ? eol + 1 : end;
        if ((i & 0xffff) == 0)
            builder.progress(size_t(p - reinterpret_cast<const char *>(in.data)), in.size);
    }
}

// Packed little-endian records.
void readPcdBinary(const Bytes &in, const PcdHeader &header, const AddPoint &add,
                   CloudBuilder &builder)
{
    const size_t n = size_t(header.points);
    const size_t available = in.size - header.bodyOffset;
    if (header.record == 0 || available / size_t(header.record) < n)
        failWith(QStringLiteral("%1 points of %2 bytes announced, the data holds %3 bytes")
                     .arg(n)
                     .arg(header.record)
                     .arg(available));
    const Field *color = header.colorField();
    const uchar *rec = in.data + header.bodyOffset;
    if (n >= PREVIEW_MIN_POINTS && builder.options().preview) {
        // Blocks spread over the file first, for a first picture; then every record in order.
        // (The shift is decided on the first point, as the reading would.)
        const auto point = [&](size_t i) {
            const uchar *r = rec + i * size_t(header.record);
            TZVector3d p;
            for (int d = 0; d < 3; ++d)
                p[d] = binaryValue(r + header.axisField(d).offset, header.axisField(d));
            return p;
        };
        const TZVector3d first = point(0);
        if (std::isfinite(first.x) && std::isfinite(first.y) && std::isfinite(first.z)) {
            builder.decideShift(first);
            previewEvenBlocks(
                builder.options(), n, builder.shift(), point, color != nullptr, [&](size_t i) {
                    return unpack(packedColor(rec + i * size_t(header.record) + color->offset));
                });
        }
    }
    for (size_t i = 0; i < n; ++i, rec += header.record) {
        double xyz[3];
        for (int d = 0; d < 3; ++d)
            xyz[d] = binaryValue(rec + header.axisField(d).offset, header.axisField(d));
        add(xyz, color ? unpack(packedColor(rec + color->offset)) : tzRgb {0, 0, 0});
        if ((i & 0xfffff) == 0)
            builder.progress(i, n);
    }
}

} // namespace

QJsonObject describePcd(const Bytes &in)
{
    const PcdHeader header = parsePcdHeader(in);
    QStringList fields;
    for (const Field &field : header.fields)
        fields << QString::fromLatin1(field.name);
    return QJsonObject {{QStringLiteral("format"), QStringLiteral("PCD")},
                        {QStringLiteral("encoding"), QString::fromLatin1(header.data)},
                        {QStringLiteral("points"), double(header.points)},
                        {QStringLiteral("properties"), QJsonArray::fromStringList(fields)}};
}

tzPointCloud *readPcd(const Bytes &in, const QString &name, const QString &,
                      const LoadOptions &options)
{
    const PcdHeader header = parsePcdHeader(in);
    if (header.data == "binary_compressed")
        failWith(QStringLiteral("compressed PCD data (binary_compressed) is not supported: save "
                                "the cloud as ascii or binary"));
    if (header.data != "ascii" && header.data != "binary")
        failWith(
            QStringLiteral("unknown PCD data format '%1'").arg(QString::fromLatin1(header.data)));
    const size_t n = size_t(header.points);
    // A text point takes a few bytes at least: a false count reserves no more than the file holds.
    const size_t reserved
        = header.data == "binary" ? n : std::min(n, (in.size - header.bodyOffset) / 4 + 1);
    CloudBuilder builder(options);
    builder.reserve(reserved, false);
    std::vector<tzRgb> colors;
    const bool withColors = header.color >= 0;
    if (withColors)
        colors.reserve(reserved);
    const AddPoint add = [&](const double xyz[3], tzRgb rgb) {
        if (!std::isfinite(xyz[0]) || !std::isfinite(xyz[1]) || !std::isfinite(xyz[2]))
            return;
        builder.add(xyz[0], xyz[1], xyz[2]);
        if (withColors)
            colors.push_back(rgb);
    };
    if (header.data == "ascii")
        readPcdAscii(in, header, add, builder);
    else
        readPcdBinary(in, header, add, builder);
    if (builder.count() == 0)
        failWith(QStringLiteral("no point with finite coordinates in the file"));
    for (const tzRgb &c : colors)
        builder.addColor(c);
    return builder.finish(name);
}

} // namespace detail
} // namespace tzCloudFile
