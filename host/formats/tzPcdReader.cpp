// PCD files (versions 0.6 and 0.7): a text header of keywords (FIELDS, SIZE, TYPE, COUNT, WIDTH,
// HEIGHT, POINTS, DATA), then the points as text ("DATA ascii") or as packed little-endian
// records ("DATA binary"). The colour is the field "rgb" or "rgba": 0x00RRGGBB packed in 4 bytes,
// stored as an unsigned integer or as the bits of a float. Organised clouds mark missing points
// with NaN coordinates; those are skipped. Compressed data ("binary_compressed") is refused.

#include "tzCloudFormats_p.h"

#include <QByteArray>
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

} // namespace

tzPointCloud *readPcd(const Bytes &in, const QString &name, const QString &,
                      const LoadOptions &options)
{
    const char *const begin = reinterpret_cast<const char *>(in.data);
    const char *const end = begin + in.size;
    QList<Field> fields;
    QList<int> sizes;
    QByteArray types;
    QList<int> counts;
    qint64 points = -1;
    qint64 width = -1;
    qint64 height = 1;
    QByteArray data;
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
            points = values.value(0).toLongLong(&ok);
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
    if (data.isEmpty())
        failWith(QStringLiteral("not a PCD file: no DATA line in the header"));
    if (fields.isEmpty())
        failWith(QStringLiteral("PCD header without FIELDS"));
    if (points < 0)
        points = width >= 0 ? width * height : -1;
    if (points < 0 || points > 0xffffffffLL)
        failWith(QStringLiteral("PCD header without a valid POINTS (or WIDTH and HEIGHT)"));
    if (sizes.size() != fields.size() || types.size() != fields.size()
        || (!counts.isEmpty() && counts.size() != fields.size()))
        failWith(QStringLiteral("PCD header: FIELDS, SIZE, TYPE and COUNT do not match"));

    int record = 0;
    int column = 0;
    const Field *axis[3] = {nullptr, nullptr, nullptr};
    const Field *color = nullptr;
    for (int i = 0; i < fields.size(); ++i) {
        Field &f = fields[i];
        f.size = sizes[i];
        f.type = types[i];
        f.count = counts.isEmpty() ? 1 : counts[i];
        if (f.count < 1 || (f.size != 1 && f.size != 2 && f.size != 4 && f.size != 8)
            || (f.type != 'F' && f.type != 'U' && f.type != 'I') || (f.type == 'F' && f.size < 4))
            failWith(QStringLiteral("PCD field '%1' has an unsupported size or type")
                         .arg(QString::fromLatin1(f.name)));
        f.offset = record;
        f.column = column;
        record += f.size * f.count;
        column += f.count;
    }
    for (const Field &f : fields) {
        for (int d = 0; d < 3; ++d) {
            if (f.name == QByteArray(1, char('x' + d)))
                axis[d] = &f;
        }
        if ((f.name == "rgb" || f.name == "rgba") && f.size == 4)
            color = &f;
    }
    if (!axis[0] || !axis[1] || !axis[2])
        failWith(QStringLiteral("PCD file without x, y and z fields"));

    const size_t n = size_t(points);
    // A text point takes a few bytes at least: a false count reserves no more than the file holds.
    const size_t reserved = data == "binary" ? n : std::min(n, size_t(end - p) / 4 + 1);
    CloudBuilder builder(options);
    builder.reserve(reserved, false);
    std::vector<tzRgb> colors;
    if (color)
        colors.reserve(reserved);
    const auto add = [&](const double xyz[3], tzRgb rgb) {
        if (!std::isfinite(xyz[0]) || !std::isfinite(xyz[1]) || !std::isfinite(xyz[2]))
            return;
        builder.add(xyz[0], xyz[1], xyz[2]);
        if (color)
            colors.push_back(rgb);
    };

    if (data == "ascii") {
        std::vector<const char *> token(size_t(column) + 1);
        for (size_t i = 0; i < n; ++i) {
            const char *eol = p < end
                ? static_cast<const char *>(std::memchr(p, '\n', size_t(end - p)))
                : nullptr;
            const char *stop = eol ? eol : end;
            if (p >= end)
                failWith(QStringLiteral("%1 points announced, %2 found").arg(n).arg(i));
            int found = 0;
            for (const char *q = p; found < column;) {
                while (q < stop && (*q == ' ' || *q == '\t' || *q == '\r'))
                    ++q;
                if (q == stop)
                    break;
                token[size_t(found++)] = q;
                while (q < stop && *q != ' ' && *q != '\t' && *q != '\r')
                    ++q;
            }
            if (found < column)
                failWith(QStringLiteral("point %1: expected %2 values").arg(i + 1).arg(column));
            double xyz[3];
            for (int d = 0; d < 3; ++d) {
                if (!parseNumber(token[size_t(axis[d]->column)], stop, xyz[d]))
                    failWith(QStringLiteral("point %1: bad coordinate").arg(i + 1));
            }
            const tzRgb rgb = color
                ? unpack(packedColor(token[size_t(color->column)], stop, *color))
                : tzRgb {0, 0, 0};
            add(xyz, rgb);
            p = eol ? eol + 1 : end;
            if ((i & 0xffff) == 0)
                builder.progress(size_t(p - begin), in.size);
        }
    } else if (data == "binary") {
        const size_t available = size_t(end - p);
        if (record == 0 || available / size_t(record) < n)
            failWith(QStringLiteral("%1 points of %2 bytes announced, the data holds %3 bytes")
                         .arg(n)
                         .arg(record)
                         .arg(available));
        const uchar *rec = reinterpret_cast<const uchar *>(p);
        for (size_t i = 0; i < n; ++i, rec += record) {
            const double xyz[3] = {binaryValue(rec + axis[0]->offset, *axis[0]),
                                   binaryValue(rec + axis[1]->offset, *axis[1]),
                                   binaryValue(rec + axis[2]->offset, *axis[2])};
            add(xyz, color ? unpack(packedColor(rec + color->offset)) : tzRgb {0, 0, 0});
            if ((i & 0xfffff) == 0)
                builder.progress(i, n);
        }
    } else if (data == "binary_compressed") {
        failWith(QStringLiteral("compressed PCD data (binary_compressed) is not supported: save "
                                "the cloud as ascii or binary"));
    } else {
        failWith(QStringLiteral("unknown PCD data format '%1'").arg(QString::fromLatin1(data)));
    }
    if (builder.count() == 0)
        failWith(QStringLiteral("no point with finite coordinates in the file"));
    for (const tzRgb &c : colors)
        builder.addColor(c);
    return builder.finish(name);
}

} // namespace detail
} // namespace tzCloudFile
