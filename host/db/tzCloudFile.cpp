#include "tzCloudFile.h"
#include "tzCloudFile_p.h"

#include "tzPointCloud.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

namespace tzCloudFile {

namespace {

using namespace detail;

// ---------------------------------------------------------------- PLY

enum class PlyType { Int8, UInt8, Int16, UInt16, Int32, UInt32, Float32, Float64, Invalid };

PlyType plyType(const QByteArray &name)
{
    static const struct
    {
        const char *name;
        PlyType type;
    } table[] = {{"char", PlyType::Int8},     {"int8", PlyType::Int8},      {"uchar", PlyType::UInt8},
                 {"uint8", PlyType::UInt8},   {"short", PlyType::Int16},    {"int16", PlyType::Int16},
                 {"ushort", PlyType::UInt16}, {"uint16", PlyType::UInt16},  {"int", PlyType::Int32},
                 {"int32", PlyType::Int32},   {"uint", PlyType::UInt32},    {"uint32", PlyType::UInt32},
                 {"float", PlyType::Float32}, {"float32", PlyType::Float32}, {"double", PlyType::Float64},
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
        return std::any_of(properties.begin(), properties.end(), [](const PlyProperty &p) { return p.isList; });
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

tzPointCloud *readPly(const Bytes &in, const QString &name, const LoadOptions &options)
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
    enum { Ascii, BinaryLE, BinaryBE } format = Ascii;
    bool formatSeen = false;
    std::vector<PlyElement> elements;
    for (;;) {
        nextLine(line);
        if (line == "end_header")
            break;
        const QList<QByteArray> words = line.simplified().split(' ');
        if (words.isEmpty() || words[0].isEmpty() || words[0] == "comment" || words[0] == "obj_info")
            continue;
        if (words[0] == "format") {
            if (words.size() < 2)
                failWith(QStringLiteral("malformed PLY format line '%1'").arg(QString::fromLatin1(line)));
            if (words[1] == "ascii")
                format = Ascii;
            else if (words[1] == "binary_little_endian")
                format = BinaryLE;
            else if (words[1] == "binary_big_endian")
                format = BinaryBE;
            else
                failWith(QStringLiteral("unrecognized PLY format '%1'").arg(QString::fromLatin1(words[1])));
            formatSeen = true;
        } else if (words[0] == "element") {
            bool ok = false;
            if (words.size() != 3)
                failWith(QStringLiteral("malformed PLY element line '%1'").arg(QString::fromLatin1(line)));
            const quint64 count = words[2].toULongLong(&ok);
            if (!ok)
                failWith(QStringLiteral("bad PLY element count '%1'").arg(QString::fromLatin1(words[2])));
            elements.push_back({words[1], count, {}});
        } else if (words[0] == "property") {
            if (elements.empty())
                failWith(QStringLiteral("PLY property before any element: '%1'").arg(QString::fromLatin1(line)));
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
                failWith(QStringLiteral("unrecognized PLY property '%1'").arg(QString::fromLatin1(line)));
            elements.back().properties.push_back(prop);
        } else {
            failWith(QStringLiteral("unexpected PLY header line '%1'").arg(QString::fromLatin1(line)));
        }
    }
    if (!formatSeen)
        failWith(QStringLiteral("the PLY header has no format line"));

    const auto vertexIt = std::find_if(elements.begin(), elements.end(),
                                       [](const PlyElement &e) { return e.name == "vertex"; });
    if (vertexIt == elements.end())
        failWith(QStringLiteral("the PLY file has no vertex element"));
    const PlyElement &vertex = *vertexIt;
    const int ix = vertex.find({"x"}), iy = vertex.find({"y"}), iz = vertex.find({"z"});
    if (ix < 0 || iy < 0 || iz < 0)
        failWith(QStringLiteral("the PLY vertex element lacks x, y or z"));
    const int ir = vertex.find({"red", "r", "diffuse_red"});
    const int ig = vertex.find({"green", "g", "diffuse_green"});
    const int ib = vertex.find({"blue", "b", "diffuse_blue"});
    const bool withColors = ir >= 0 && ig >= 0 && ib >= 0;
    if (vertex.count > 0xffffffffull)
        failWith(QStringLiteral("too many vertices (%1)").arg(vertex.count));

    CloudBuilder builder(options);
    const size_t n = size_t(vertex.count);

    if (format == Ascii) {
        // Lines of the elements before the vertices are skipped.
        for (auto it = elements.begin(); it != vertexIt; ++it) {
            for (quint64 i = 0; i < it->count; ++i) {
                const char *eol = static_cast<const char *>(std::memchr(p, '\n', size_t(end - p)));
                if (!eol)
                    failWith(QStringLiteral("the file ends inside element '%1'").arg(QString::fromLatin1(it->name)));
                p = eol + 1;
            }
        }
        if (vertex.hasList())
            failWith(QStringLiteral("list properties in the vertex element are not supported"));
        builder.reserve(n, withColors);
        std::vector<double> values(vertex.properties.size());
        for (size_t i = 0; i < n; ++i) {
            for (size_t k = 0; k < values.size(); ++k) {
                const char *q = parseNumber(p, end, values[k]);
                if (!q)
                    failWith(QStringLiteral("vertex %1: expected %2 numbers").arg(i).arg(values.size()));
                p = q;
            }
            const char *eol = static_cast<const char *>(std::memchr(p, '\n', size_t(end - p)));
            p = eol ? eol + 1 : end;
            builder.add(values[size_t(ix)], values[size_t(iy)], values[size_t(iz)]);
            if (withColors) {
                builder.addColor({plyColor(values[size_t(ir)], vertex.properties[size_t(ir)].type),
                                  plyColor(values[size_t(ig)], vertex.properties[size_t(ig)].type),
                                  plyColor(values[size_t(ib)], vertex.properties[size_t(ib)].type)});
            }
            if ((i & 0xfffff) == 0)
                builder.progress(i, n);
        }
        return builder.finish(name);
    }

    // Binary: fixed-size records; the elements before the vertices are skipped whole.
    const bool swap = (format == BinaryBE) == (Q_BYTE_ORDER == Q_LITTLE_ENDIAN);
    size_t offset = size_t(p - text);
    for (auto it = elements.begin(); it != vertexIt; ++it) {
        if (it->hasList())
            failWith(QStringLiteral("element '%1' before the vertices has list properties (not supported)")
                         .arg(QString::fromLatin1(it->name)));
        offset += size_t(it->count) * it->recordSize();
    }
    if (vertex.hasList())
        failWith(QStringLiteral("list properties in the vertex element are not supported"));
    const size_t stride = vertex.recordSize();
    const size_t needed = n * stride;
    if (offset > in.size || in.size - offset < needed)
        failWith(QStringLiteral("the file is truncated: %1 vertices announced, data for %2")
                     .arg(n)
                     .arg(offset > in.size ? 0 : (in.size - offset) / std::max<size_t>(stride, 1)));
    std::vector<size_t> offsets(vertex.properties.size());
    for (size_t k = 0, o = 0; k < offsets.size(); ++k) {
        offsets[k] = o;
        o += plySize(vertex.properties[k].type);
    }
    builder.reserve(n, withColors);
    const uchar *data = in.data + offset;
    const PlyType tx = vertex.properties[size_t(ix)].type, ty = vertex.properties[size_t(iy)].type,
                  tz = vertex.properties[size_t(iz)].type;
    const size_t ox = offsets[size_t(ix)], oy = offsets[size_t(iy)], oz = offsets[size_t(iz)];
    for (size_t i = 0; i < n; ++i) {
        const uchar *rec = data + i * stride;
        builder.add(plyValue(rec + ox, tx, swap), plyValue(rec + oy, ty, swap), plyValue(rec + oz, tz, swap));
        if (withColors) {
            tzRgb c;
            c.r = plyColor(plyValue(rec + offsets[size_t(ir)], vertex.properties[size_t(ir)].type, swap),
                           vertex.properties[size_t(ir)].type);
            c.g = plyColor(plyValue(rec + offsets[size_t(ig)], vertex.properties[size_t(ig)].type, swap),
                           vertex.properties[size_t(ig)].type);
            c.b = plyColor(plyValue(rec + offsets[size_t(ib)], vertex.properties[size_t(ib)].type, swap),
                           vertex.properties[size_t(ib)].type);
            builder.addColor(c);
        }
        if ((i & 0xfffff) == 0)
            builder.progress(i, n);
    }
    return builder.finish(name);
}

tzPointCloud *readAny(const Bytes &bytes, const QString &format, const QString &name, QString &errorText,
                      const LoadOptions &options)
{
    try {
        if (format == QLatin1String("ply"))
            return readPly(bytes, name, options);
        if (format == QLatin1String("las") || format == QLatin1String("laz"))
            return readLas(bytes, name, options);
        if (format == QLatin1String("pcd"))
            return readPcd(bytes, name, options);
        if (textKinds().contains(format))
            return readText(bytes, name, format, options);
        errorText = QStringLiteral("'%1': unknown cloud format '%2'").arg(name, format);
    } catch (const ReadFailure &failure) {
        errorText = QStringLiteral("'%1': %2").arg(name, failure.reason);
    } catch (const Cancelled &) {
        errorText = QStringLiteral("'%1': loading cancelled").arg(name);
    } catch (const std::bad_alloc &) {
        errorText = QStringLiteral("'%1': Not enough memory").arg(name);
    }
    return nullptr;
}

} // namespace

const QStringList &textKinds()
{
    static const QStringList kinds {QStringLiteral("xyz"),    QStringLiteral("txt"),
                                    QStringLiteral("asc"),    QStringLiteral("pts"),
                                    QStringLiteral("csv"),    QStringLiteral("xyzrgb"),
                                    QStringLiteral("xyzn")};
    return kinds;
}

bool needsShift(const TZVector3d &p)
{
    return std::abs(p.x) >= MAX_UNSHIFTED_COORDINATE || std::abs(p.y) >= MAX_UNSHIFTED_COORDINATE
        || std::abs(p.z) >= MAX_UNSHIFTED_COORDINATE;
}

TZVector3d suggestShift(const TZVector3d &p)
{
    TZVector3d shift;
    for (int d = 0; d < 3; ++d) {
        if (std::abs(p[d]) >= MAX_UNSHIFTED_COORDINATE)
            shift[d] = -std::round(p[d] / 100.0) * 100.0;
    }
    return shift;
}

tzPointCloud *loadFromMemory(const QByteArray &bytes, const QString &format, const QString &name,
                             QString &errorText, const LoadOptions &options)
{
    const Bytes view{reinterpret_cast<const uchar *>(bytes.constData()), size_t(bytes.size())};
    return readAny(view, format, name, errorText, options);
}

bool convert(const QString &inPath, const QString &outPath, QString &errorText, quint32 chunkSize,
             const LoadOptions &options)
{
    const QString inKind = QFileInfo(inPath).suffix().toLower();
    const QString outKind = QFileInfo(outPath).suffix().toLower();
    const auto lasKind = [](const QString &kind) {
        return kind == QLatin1String("las") || kind == QLatin1String("laz");
    };
    if (QFileInfo(inPath).absoluteFilePath() == QFileInfo(outPath).absoluteFilePath()) {
        errorText = QStringLiteral("'%1': the output would overwrite the input").arg(outPath);
        return false;
    }
    if (!writableKinds().contains(outKind)) {
        errorText = QStringLiteral("'%1': clouds are written as LAS, LAZ or PLY, not '.%2'")
                        .arg(outPath, outKind);
        return false;
    }
    if (!lasKind(inKind) || !lasKind(outKind)) {
        // Through the cloud: read, then written in its global coordinates.
        const std::unique_ptr<tzPointCloud> cloud(load(inPath, errorText, options));
        return cloud && save(*cloud, outPath, errorText, chunkSize, options);
    }
    QFile in(inPath);
    if (!in.open(QIODevice::ReadOnly)) {
        errorText = QStringLiteral("'%1': cannot open (%2)").arg(inPath, in.errorString());
        return false;
    }
    Bytes bytes;
    QByteArray copy;
    if (in.size() > 0) {
        bytes.data = in.map(0, in.size());
        bytes.size = size_t(in.size());
        if (!bytes.data) {
            copy = in.readAll();
            bytes.data = reinterpret_cast<const uchar *>(copy.constData());
            bytes.size = size_t(copy.size());
        }
    }
    return writeWhole(outPath, inPath, QStringLiteral("conversion"), [&](QIODevice &out) {
        convertLas(bytes, outKind == QLatin1String("laz"), chunkSize, out, options);
    }, errorText);
}

tzPointCloud *load(const QString &path, QString &errorText, const LoadOptions &options)
{
    const QFileInfo info(path);
    const QString suffix = info.suffix().toLower();
    QString format;
    if (suffix == QLatin1String("ply"))
        format = QStringLiteral("ply");
    else if (suffix == QLatin1String("las") || suffix == QLatin1String("laz"))
        format = suffix;
    else if (suffix == QLatin1String("pcd") || textKinds().contains(suffix))
        format = suffix;
    else {
        errorText = QStringLiteral("'%1': unknown cloud file extension '.%2'").arg(path, suffix);
        return nullptr;
    }
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        errorText = QStringLiteral("'%1': cannot open (%2)").arg(path, file.errorString());
        return nullptr;
    }
    // Mapped, the file is read at memory speed; an empty file cannot be mapped.
    Bytes bytes;
    QByteArray copy;
    if (file.size() > 0) {
        bytes.data = file.map(0, file.size());
        bytes.size = size_t(file.size());
        if (!bytes.data) {
            copy = file.readAll();
            bytes.data = reinterpret_cast<const uchar *>(copy.constData());
            bytes.size = size_t(copy.size());
        }
    }
    tzPointCloud *cloud = readAny(bytes, format, path, errorText, options);
    if (cloud)
        cloud->setName(info.completeBaseName());
    return cloud;
}

} // namespace tzCloudFile
