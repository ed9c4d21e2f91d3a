// PLY clouds: ASCII, binary little and big endian; the vertex element's x, y, z and colours
// (red/green/blue, r/g/b or diffuse_*, as bytes, 16-bit values or 0-1 fractions). Elements before
// the vertices are skipped; list properties in the vertices are refused.

#include "tzCloudFormats_p.h"

#include <QByteArray>
#include <QJsonArray>
#include <QList>

#include <cstring>

namespace tzCloudFile {
namespace detail {

namespace {

enum class PlyType { Int8, UInt8, Int16, UInt16, Int32, UInt32, Float32, Float64, Invalid };

PlyType plyType(const QByteArray &name)
{
    static const struct
    {
        const char *name;
        PlyType type;
    } table[] = {
        {"char", PlyType::Int8},      {"int8", PlyType::Int8},       {"uchar", PlyType::UInt8},
        {"uint8", PlyType::UInt8},    {"short", PlyType::Int16},     {"int16", PlyType::Int16},
        {"ushort", PlyType::UInt16},  {"uint16", PlyType::UInt16},   {"int", PlyType::Int32},
        {"int32", PlyType::Int32},    {"uint", PlyType::UInt32},     {"uint32", PlyType::UInt32},
        {"float", PlyType::Float32},  {"float32", PlyType::Float32}, {"double", PlyType::Float64},
        {"float64", PlyType::Float64}};
    for (const auto &entry : table) {
        if (name == entry.name)
            return entry.type;
    }
    return PlyType::Invalid;
}

size_t plySize(PlyType t)
{
    switch (t) {
    case PlyType::Int8:
    case PlyType::UInt8:
        return 1;
    case PlyType::Int16:
    case PlyType::UInt16:
        return 2;
    case PlyType::Int32:
    case PlyType::UInt32:
    case PlyType::Float32:
        return 4;
    case PlyType::Float64:
        return 8;
    case PlyType::Invalid:
        break;
    }
    return 0;
}

double plyValue(const uchar *p, PlyType t, bool swap)
{
    switch (t) {
    case PlyType::Int8:
        return double(loadAs<qint8>(p, false));
    case PlyType::UInt8:
        return double(*p);
    case PlyType::Int16:
        return double(loadAs<qint16>(p, swap));
    case PlyType::UInt16:
        return double(loadAs<quint16>(p, swap));
    case PlyType::Int32:
        return double(loadAs<qint32>(p, swap));
    case PlyType::UInt32:
        return double(loadAs<quint32>(p, swap));
    case PlyType::Float32:
        return double(loadAs<float>(p, swap));
    case PlyType::Float64:
        return loadAs<double>(p, swap);
    case PlyType::Invalid:
        break;
    }
    return 0;
}

quint8 plyColor(double v, PlyType t)
{
    if (t == PlyType::UInt8)
        return quint8(v);
    if (t == PlyType::Float32 || t == PlyType::Float64)
        return clampColor(v * 255.0);
    if (t == PlyType::UInt16)
        return quint8(quint16(v) >> 8);
    return clampColor(v);
}

struct PlyProperty
{
    QByteArray name;
    PlyType type = PlyType::Invalid;
    bool isList = false;
    size_t offset = 0;
};
struct PlyElement
{
    QByteArray name;
    quint64 count = 0;
    std::vector<PlyProperty> properties;
    size_t recordSize() const
    {
        size_t s = 0;
        for (const auto &p : properties)
            s += plySize(p.type);
        return s;
    }
    bool hasList() const
    {
        return std::any_of(properties.begin(), properties.end(),
                           [](const PlyProperty &p) { return p.isList; });
    }
    int find(std::initializer_list<const char *> names) const
    {
        for (const char *n : names) {
            for (size_t i = 0; i < properties.size(); ++i) {
                if (properties[i].name == n)
                    return int(i);
            }
        }
        return -1;
    }
};

//! What a PLY header says: the encoding, the elements in order, where the body starts, and
//! the vertex element's columns of interest.
struct PlyHeader
{
    enum Encoding { Ascii, BinaryLE, BinaryBE } encoding = Ascii;
    std::vector<PlyElement> elements;
    size_t bodyOffset = 0;
    size_t vertex = 0; // index in elements
    int x = -1, y = -1, z = -1, red = -1, green = -1, blue = -1;
    int intensity = -1, classification = -1, returnNumber = -1, numberOfReturns = -1;

    const PlyElement &vertices() const { return elements[vertex]; }
    bool withColors() const { return red >= 0 && green >= 0 && blue >= 0; }
    quint8 attributeKinds() const
    {
        return quint8((intensity >= 0 ? tzPointDisplay::INTENSITY : 0)
                      | (classification >= 0 ? tzPointDisplay::CLASSIFICATION : 0)
                      | (returnNumber >= 0 || numberOfReturns >= 0 ? tzPointDisplay::RETURNS : 0));
    }
    //! Adds the attributes of a vertex, value(column) giving its values.
    template<typename Value> void addAttributes(CloudBuilder &builder, const Value &value) const
    {
        const auto at = [&](int column) { return column >= 0 ? value(column) : 0.0; };
        builder.addAttributes(at(intensity), at(classification), at(returnNumber),
                              at(numberOfReturns));
    }
    PlyType typeOf(int column) const { return vertices().properties[size_t(column)].type; }
};

PlyHeader parsePlyHeader(const Bytes &in)
{
    const char *text = reinterpret_cast<const char *>(in.data);
    const char *end = text + in.size;
    const char *p = text;
    auto nextLine = [&](QByteArray &line) {
        if (p >= end)
            failWith(QStringLiteral("the PLY header has no 'end_header' line"));
        const char *eol = static_cast<const char *>(std::memchr(p, '\n', size_t(end - p)));
        const char *stop = eol ? eol : end;
        line = QByteArray(p, int(stop - p)).trimmed();
        p = eol ? eol + 1 : end;
    };
    QByteArray line;
    nextLine(line);
    if (line != "ply")
        failWith(QStringLiteral("not a PLY file (it does not start with 'ply')"));
    PlyHeader header;
    bool formatSeen = false;
    std::vector<PlyElement> &elements = header.elements;
    for (;;) {
        nextLine(line);
        if (line == "end_header")
            break;
        const QList<QByteArray> words = line.simplified().split(' ');
        if (words.isEmpty() || words[0].isEmpty() || words[0] == "comment"
            || words[0] == "obj_info")
            continue;
        if (words[0] == "format") {
            if (words.size() < 2)
                failWith(QStringLiteral("malformed PLY format line '%1'")
                             .arg(QString::fromLatin1(line)));
            if (words[1] == "ascii")
                header.encoding = PlyHeader::Ascii;
            else if (words[1] == "binary_little_endian")
                header.encoding = PlyHeader::BinaryLE;
            else if (words[1] == "binary_big_endian")
                header.encoding = PlyHeader::BinaryBE;
            else
                failWith(QStringLiteral("unrecognized PLY format '%1'")
                             .arg(QString::fromLatin1(words[1])));
            formatSeen = true;
        } else if (words[0] == "element") {
            bool ok = false;
            if (words.size() != 3)
                failWith(QStringLiteral("malformed PLY element line '%1'")
                             .arg(QString::fromLatin1(line)));
            const quint64 count = words[2].toULongLong(&ok);
            if (!ok)
                failWith(QStringLiteral("bad PLY element count '%1'")
                             .arg(QString::fromLatin1(words[2])));
            elements.push_back({words[1], count, {}});
        } else if (words[0] == "property") {
            if (elements.empty())
                failWith(QStringLiteral("PLY property before any element: '%1'")
                             .arg(QString::fromLatin1(line)));
            PlyProperty prop;
            if (words.size() == 5 && words[1] == "list") {
                prop.isList = true;
                prop.type = plyType(words[3]);
                prop.name = words[4];
                if (plyType(words[2]) == PlyType::Invalid)
                    prop.type = PlyType::Invalid;
            } else if (words.size() == 3) {
                prop.type = plyType(words[1]);
                prop.name = words[2];
            }
            if (prop.type == PlyType::Invalid)
                failWith(QStringLiteral("unrecognized PLY property '%1'")
                             .arg(QString::fromLatin1(line)));
            elements.back().properties.push_back(prop);
        } else {
            failWith(
                QStringLiteral("unexpected PLY header line '%1'").arg(QString::fromLatin1(line)));
        }
    }
    if (!formatSeen)
        failWith(QStringLiteral("the PLY header has no format line"));
    header.bodyOffset = size_t(p - text);

    const auto vertexIt = std::find_if(elements.begin(), elements.end(),
                                       [](const PlyElement &e) { return e.name == "vertex"; });
    if (vertexIt == elements.end())
        failWith(QStringLiteral("the PLY file has no vertex element"));
    header.vertex = size_t(vertexIt - elements.begin());
    const PlyElement &vertex = *vertexIt;
    header.x = vertex.find({"x"});
    header.y = vertex.find({"y"});
    header.z = vertex.find({"z"});
    if (header.x < 0 || header.y < 0 || header.z < 0)
        failWith(QStringLiteral("the PLY vertex element lacks x, y or z"));
    header.red = vertex.find({"red", "r", "diffuse_red"});
    header.green = vertex.find({"green", "g", "diffuse_green"});
    header.blue = vertex.find({"blue", "b", "diffuse_blue"});
    // The survey attributes, under their names or with the prefix some programs add.
    header.intensity = vertex.find({"intensity", "scalar_intensity"});
    header.classification = vertex.find({"classification", "scalar_classification"});
    header.returnNumber = vertex.find({"return_number", "scalar_return_number"});
    header.numberOfReturns = vertex.find({"number_of_returns", "scalar_number_of_returns"});
    if (vertex.count > 0xffffffffull)
        failWith(QStringLiteral("too many vertices (%1)").arg(vertex.count));
    if (vertex.hasList())
        failWith(QStringLiteral("list properties in the vertex element are not supported"));
    return header;
}

// Lines of numbers; the lines of the elements before the vertices are skipped.
void readPlyAscii(const Bytes &in, const PlyHeader &header, CloudBuilder &builder)
{
    const char *p = reinterpret_cast<const char *>(in.data) + header.bodyOffset;
    const char *end = reinterpret_cast<const char *>(in.data) + in.size;
    for (size_t e = 0; e < header.vertex; ++e) {
        for (quint64 i = 0; i < header.elements[e].count; ++i) {
            const char *eol = static_cast<const char *>(std::memchr(p, '\n', size_t(end - p)));
            if (!eol)
                failWith(QStringLiteral("the file ends inside element '%1'")
                             .arg(QString::fromLatin1(header.elements[e].name)));
            p = eol + 1;
        }
    }
    const PlyElement &vertex = header.vertices();
    const size_t n = size_t(vertex.count);
    builder.keepAttributes(header.attributeKinds());
    builder.reserve(n, header.withColors(), header.attributeKinds() != 0);
    std::vector<double> values(vertex.properties.size());
    for (size_t i = 0; i < n; ++i) {
        for (size_t k = 0; k < values.size(); ++k) {
            const char *q = parseNumber(p, end, values[k]);
            if (!q)
                failWith(
                    QStringLiteral("vertex %1: expected %2 numbers").arg(i).arg(values.size()));
            p = q;
        }
        const char *eol = static_cast<const char *>(std::memchr(p, '\n', size_t(end - p)));
        p = eol ? eol + 1 : end;
        builder.add(values[size_t(header.x)], values[size_t(header.y)], values[size_t(header.z)]);
        if (header.withColors()) {
            builder.addColor({plyColor(values[size_t(header.red)], header.typeOf(header.red)),
                              plyColor(values[size_t(header.green)], header.typeOf(header.green)),
                              plyColor(values[size_t(header.blue)], header.typeOf(header.blue))});
        }
        if (header.attributeKinds())
            header.addAttributes(builder, [&](int column) { return values[size_t(column)]; });
        if ((i & 0xfffff) == 0)
            builder.progress(i, n);
    }
}

// Fixed-size records; the elements before the vertices are skipped whole.
void readPlyBinary(const Bytes &in, const PlyHeader &header, CloudBuilder &builder)
{
    const bool swap = (header.encoding == PlyHeader::BinaryBE) == (Q_BYTE_ORDER == Q_LITTLE_ENDIAN);
    size_t offset = header.bodyOffset;
    for (size_t e = 0; e < header.vertex; ++e) {
        const PlyElement &element = header.elements[e];
        if (element.hasList())
            failWith(QStringLiteral(
                         "element '%1' before the vertices has list properties (not supported)")
                         .arg(QString::fromLatin1(element.name)));
        offset += size_t(element.count) * element.recordSize();
    }
    const PlyElement &vertex = header.vertices();
    const size_t n = size_t(vertex.count);
    const size_t stride = vertex.recordSize();
    if (offset > in.size || (in.size - offset) / std::max<size_t>(stride, 1) < n)
        failWith(QStringLiteral("the file is truncated: %1 vertices announced, data for %2")
                     .arg(n)
                     .arg(offset > in.size ? 0 : (in.size - offset) / std::max<size_t>(stride, 1)));
    std::vector<size_t> offsets(vertex.properties.size());
    for (size_t k = 0, o = 0; k < offsets.size(); ++k) {
        offsets[k] = o;
        o += plySize(vertex.properties[k].type);
    }
    builder.keepAttributes(header.attributeKinds());
    builder.reserve(n, header.withColors(), header.attributeKinds() != 0);
    const auto value = [&](const uchar *record, int column) {
        return plyValue(record + offsets[size_t(column)], header.typeOf(column), swap);
    };
    const auto colour = [&](const uchar *record, int column) {
        return plyColor(value(record, column), header.typeOf(column));
    };
    const uchar *data = in.data + offset;
    if (n >= PREVIEW_MIN_POINTS && builder.options().preview) {
        // Blocks spread over the file first, for a first picture; then every record in order.
        // (The shift is decided on the first point, as the reading would.)
        const auto point = [&](size_t i) {
            const uchar *rec = data + i * stride;
            return TZVector3d(value(rec, header.x), value(rec, header.y), value(rec, header.z));
        };
        const TZVector3d first = point(0);
        if (std::isfinite(first.x) && std::isfinite(first.y) && std::isfinite(first.z)) {
            builder.decideShift(first);
            previewEvenBlocks(builder.options(), n, builder.shift(), point, header.withColors(),
                              [&](size_t i) {
                                  const uchar *rec = data + i * stride;
                                  return tzRgb {colour(rec, header.red), colour(rec, header.green),
                                                colour(rec, header.blue)};
                              });
        }
    }
    for (size_t i = 0; i < n; ++i) {
        const uchar *rec = data + i * stride;
        builder.add(value(rec, header.x), value(rec, header.y), value(rec, header.z));
        if (header.withColors())
            builder.addColor(
                {colour(rec, header.red), colour(rec, header.green), colour(rec, header.blue)});
        if (header.attributeKinds())
            header.addAttributes(builder, [&](int column) { return value(rec, column); });
        if ((i & 0xfffff) == 0)
            builder.progress(i, n);
    }
}

} // namespace

QJsonObject describePly(const Bytes &in)
{
    const PlyHeader header = parsePlyHeader(in);
    static const char *const ENCODINGS[] = {"ascii", "binary little endian", "binary big endian"};
    QJsonArray elements;
    for (const PlyElement &element : header.elements) {
        QStringList properties;
        for (const PlyProperty &property : element.properties)
            properties << QString::fromLatin1(property.name);
        elements.append(
            QJsonObject {{QStringLiteral("name"), QString::fromLatin1(element.name)},
                         {QStringLiteral("count"), double(element.count)},
                         {QStringLiteral("properties"), QJsonArray::fromStringList(properties)}});
    }
    return QJsonObject {{QStringLiteral("format"), QStringLiteral("PLY")},
                        {QStringLiteral("encoding"), QLatin1String(ENCODINGS[header.encoding])},
                        {QStringLiteral("points"), double(header.vertices().count)},
                        {QStringLiteral("elements"), elements}};
}

tzPointCloud *readPly(const Bytes &in, const QString &name, const QString &,
                      const LoadOptions &options)
{
    const PlyHeader header = parsePlyHeader(in);
    CloudBuilder builder(options);
    if (header.encoding == PlyHeader::Ascii)
        readPlyAscii(in, header, builder);
    else
        readPlyBinary(in, header, builder);
    return builder.finish(name);
}

} // namespace detail
} // namespace tzCloudFile
