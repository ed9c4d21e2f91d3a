// Clouds in text files, as survey and point-cloud tools write them:
//
//   x y z                       .xyz, .txt, .asc, .csv
//   x y z intensity             .pts without colours
//   x y z r g b                 .xyz, .xyzrgb (colours as 0-255 integers or 0-1 fractions)
//   x y z intensity r g b       .pts (after a first line holding the point count)
//   x y z nx ny nz              .xyzn
//
// Intensity and classification are kept where the layout or the header names them
// ("intensity", "i", "reflectance"; "classification", "class").
//
// Numbers are separated by blanks, tabs, commas or semicolons; a file whose numbers are separated
// by semicolons and written with decimal commas ("652345,12;6862345,33;123,4") is read as such.
// Lines starting with '#' or "//" are comments, except a first line that names the columns
// ("//X Y Z R G B", "x,y,z,red,green,blue", "Easting;Northing;Elevation"): the names then say
// which column is which. Points with a coordinate that is not a finite number are skipped.

#include "tzCloudFormats_p.h"

#include <QRegularExpression>
#include <QStringList>

#include <cstring>

namespace tzCloudFile {
namespace detail {

namespace {

// Which column holds what; -1 where the file has no such column.
struct Columns
{
    int xyz[3] = {0, 1, 2};
    int rgb[3] = {-1, -1, -1};
    int intensity = -1, classification = -1;
    bool fractions = false; // the header says the colours are 0-1 fractions
    bool named = false; // taken from a header line
    int needed() const
    {
        int n = 0;
        for (int d = 0; d < 3; ++d)
            n = std::max({n, xyz[d] + 1, rgb[d] + 1});
        return std::max({n, intensity + 1, classification + 1});
    }
};

struct Line
{
    const char *begin;
    const char *end;
};

QString quoted(const Line &line)
{
    const int length = int(std::min<ptrdiff_t>(line.end - line.begin, 80));
    return QString::fromUtf8(line.begin, length).trimmed();
}

bool isSeparator(char c, bool decimalComma)
{
    return c == ' ' || c == '\t' || c == ';' || c == '\r' || (c == ',' && !decimalComma);
}

// The tokens of a line (at most max), as [begin, end) pairs.
int tokens(const Line &line, bool decimalComma, Line *out, int max)
{
    int count = 0;
    const char *p = line.begin;
    while (p < line.end && count < max) {
        while (p < line.end && isSeparator(*p, decimalComma))
            ++p;
        if (p == line.end)
            break;
        const char *start = p;
        while (p < line.end && !isSeparator(*p, decimalComma))
            ++p;
        out[count++] = {start, p};
    }
    return count;
}

// A whole token read as a number; false when it is not one.
bool number(Line token, bool decimalComma, double &value)
{
    // Spreadsheet exports quote their fields: "652345.12"
    if (token.end - token.begin >= 2 && token.begin[0] == '"' && token.end[-1] == '"') {
        ++token.begin;
        --token.end;
    }
    const char *p = token.begin;
    if (p < token.end && *p == '+')
        ++p;
    if (decimalComma) {
        char copy[64];
        const size_t n = size_t(token.end - p);
        if (n == 0 || n >= sizeof copy)
            return false;
        std::memcpy(copy, p, n);
        std::replace(copy, copy + n, ',', '.');
        const auto result = std::from_chars(copy, copy + n, value);
        return result.ec == std::errc() && result.ptr == copy + n;
    }
    const auto result = std::from_chars(p, token.end, value);
    return result.ec == std::errc() && result.ptr == token.end && p < token.end;
}

// Reads a header line of column names into columns; false when it does not name x, y and z.
bool readNames(const Line &line, Columns &columns)
{
    QString text = QString::fromUtf8(line.begin, int(line.end - line.begin)).trimmed();
    while (text.startsWith(QLatin1Char('/')) || text.startsWith(QLatin1Char('#')))
        text.remove(0, 1);
    const QStringList names
        = text.split(QRegularExpression(QStringLiteral("[\\s,;]+")), Qt::SkipEmptyParts);
    Columns found;
    for (int d = 0; d < 3; ++d)
        found.xyz[d] = found.rgb[d] = -1;
    int fractions = 0;
    for (int i = 0; i < names.size(); ++i) {
        QString name = names[i].toLower();
        name.remove(QLatin1Char('"'));
        name.remove(QLatin1Char('\''));
        if (name.startsWith(QLatin1String("scalar_")))
            name = name.mid(7);
        const auto is = [&name](std::initializer_list<const char *> words) {
            for (const char *w : words) {
                if (name == QLatin1String(w))
                    return true;
            }
            return false;
        };
        if (is({"x", "easting", "east", "e"}))
            found.xyz[0] = i;
        else if (is({"y", "northing", "north", "n"}))
            found.xyz[1] = i;
        else if (is({"z", "elevation", "height", "altitude", "alt", "h"}))
            found.xyz[2] = i;
        else if (is({"r", "red", "rf"}))
            found.rgb[0] = i, fractions += name == QLatin1String("rf");
        else if (is({"g", "green", "gf"}))
            found.rgb[1] = i, fractions += name == QLatin1String("gf");
        else if (is({"b", "blue", "bf"}))
            found.rgb[2] = i, fractions += name == QLatin1String("bf");
        else if (is({"intensity", "i", "int", "reflectance"}))
            found.intensity = i;
        else if (is({"classification", "class"}))
            found.classification = i;
    }
    if (found.xyz[0] < 0 || found.xyz[1] < 0 || found.xyz[2] < 0)
        return false;
    if (found.rgb[0] < 0 || found.rgb[1] < 0 || found.rgb[2] < 0)
        found.rgb[0] = found.rgb[1] = found.rgb[2] = -1;
    found.fractions = fractions == 3;
    found.named = true;
    columns = found;
    return true;
}

// The columns of a file without names, from the count on its first data line and its kind.
Columns columnsByCount(int count, const QString &kind)
{
    Columns columns;
    if (kind == QLatin1String("xyzn"))
        return columns; // normals, no colours
    if (count == 4 && kind == QLatin1String("pts")) {
        columns.intensity = 3;
    } else if (count == 7) {
        columns.intensity = 3;
        columns.rgb[0] = 4; // x y z intensity r g b
        columns.rgb[1] = 5;
        columns.rgb[2] = 6;
    } else if (count == 6 || count >= 8) {
        columns.rgb[0] = 3;
        columns.rgb[1] = 4;
        columns.rgb[2] = 5;
    }
    return columns;
}

} // namespace

tzPointCloud *readText(const Bytes &in, const QString &name, const QString &kind,
                       const LoadOptions &options)
{
    const char *const begin = reinterpret_cast<const char *>(in.data);
    const char *const end = begin + in.size;
    CloudBuilder builder(options);
    // About 30 bytes a line: reserve once, without holding far more than needed.
    size_t expected = in.size / 24 + 1;
    Columns columns;
    bool layoutKnown = false;
    bool decimalComma = false;
    bool withColors = false;
    std::vector<float> colors; // as written; scaled once the whole file is seen
    float largestColor = 0;
    bool fractionalColor = false;
    size_t lineNumber = 0;
    size_t skipped = 0;
    constexpr int MAX_TOKENS = 64;
    Line token[MAX_TOKENS];
    // A first picture of a large file, once its layout and its shift are known: the lines of
    // 64 evenly spaced stretches of a 1024th of the file each (lines that are not points
    // passed over), read before the whole.
    const auto preview = [&](const char *from) {
        if (!options.preview || in.size < PREVIEW_MIN_POINTS * 24)
            return;
        const size_t stretch = size_t(end - from) / 1024;
        std::vector<TZVector3> points;
        std::vector<tzRgb> shownColours;
        const TZVector3d &shift = builder.shift();
        Line field[MAX_TOKENS];
        for (size_t b = 0; b < 64; ++b) {
            const char *q = from + b * size_t(end - from) / 64;
            const char *stop = std::min(end, q + stretch);
            if (b > 0) {
                q = static_cast<const char *>(std::memchr(q, '\n', size_t(end - q)));
                q = q ? q + 1 : end;
            }
            while (q < stop) {
                const char *eol = static_cast<const char *>(std::memchr(q, '\n', size_t(end - q)));
                const Line line {q, eol ? eol : end};
                q = eol ? eol + 1 : end;
                const int needed = columns.needed();
                if (tokens(line, decimalComma, field, std::min(needed, MAX_TOKENS)) < needed)
                    continue;
                double xyz[3], rgb[3] = {255, 255, 255};
                bool ok = true;
                for (int d = 0; d < 3 && ok; ++d)
                    ok = number(field[columns.xyz[d]], decimalComma, xyz[d])
                        && std::isfinite(xyz[d]);
                for (int d = 0; d < 3 && ok && withColors; ++d)
                    ok = number(field[columns.rgb[d]], decimalComma, rgb[d]);
                if (!ok)
                    continue;
                points.push_back(
                    {float(xyz[0] + shift.x), float(xyz[1] + shift.y), float(xyz[2] + shift.z)});
                if (withColors) {
                    // Fractions as the whole file would say, from this line alone.
                    const bool small = std::max({rgb[0], rgb[1], rgb[2]}) <= 1.0;
                    const bool fractional = rgb[0] != std::floor(rgb[0])
                        || rgb[1] != std::floor(rgb[1]) || rgb[2] != std::floor(rgb[2]);
                    const bool fractions = columns.fractions
                        || (small && (fractional || kind == QLatin1String("xyzrgb")));
                    shownColours.push_back({clampColor(rgb[0] * (fractions ? 255 : 1)),
                                            clampColor(rgb[1] * (fractions ? 255 : 1)),
                                            clampColor(rgb[2] * (fractions ? 255 : 1))});
                }
            }
        }
        options.preview(std::move(points), std::move(shownColours), shift);
    };
    bool previewed = false;

    for (const char *p = begin; p < end;) {
        ++lineNumber;
        const char *eol = static_cast<const char *>(std::memchr(p, '\n', size_t(end - p)));
        const Line line {p, eol ? eol : end};
        p = eol ? eol + 1 : end;
        const char *q = skipBlanks(line.begin, line.end);
        if (q == line.end)
            continue;
        const bool comment = *q == '#' || (line.end - q >= 2 && q[0] == '/' && q[1] == '/');

        if (!layoutKnown) {
            // Before the first point: a count line, a line of column names, comments.
            if (comment) {
                readNames(line, columns);
                continue;
            }
            const int n = tokens(line, false, token, MAX_TOKENS);
            double value;
            if (n == 1 && number(token[0], false, value) && value >= 0
                && value == std::floor(value)) {
                // The count line of a .pts. Trusted only as far as the file can hold that many
                // points (a few bytes each): a false count must not reserve gigabytes.
                expected = std::min(size_t(std::min(value, 4e9)) + 1, in.size / 6 + 1);
                continue;
            }
            if (!number(token[0], false, value) || (n > 1 && !number(token[1], false, value))) {
                if (!readNames(line, columns) && lineNumber > 1)
                    failWith(QStringLiteral("line %1: expected numbers, got '%2'")
                                 .arg(lineNumber)
                                 .arg(quoted(line)));
                continue;
            }
            decimalComma = std::find(line.begin, line.end, ';') != line.end
                && std::find(line.begin, line.end, ',') != line.end;
            const int count = tokens(line, decimalComma, token, MAX_TOKENS);
            if (!columns.named)
                columns = columnsByCount(count, kind);
            if (count < columns.needed())
                failWith(QStringLiteral("line %1: expected at least %2 numbers, got '%3'")
                             .arg(lineNumber)
                             .arg(columns.needed())
                             .arg(quoted(line)));
            withColors = columns.rgb[0] >= 0;
            builder.keepAttributes(
                quint8((columns.intensity >= 0 ? tzPointDisplay::INTENSITY : 0)
                       | (columns.classification >= 0 ? tzPointDisplay::CLASSIFICATION : 0)));
            builder.reserve(expected, false, columns.intensity >= 0 || columns.classification >= 0);
            if (withColors)
                colors.reserve(3 * expected);
            layoutKnown = true;
        } else if (comment) {
            continue;
        }

        const int needed = columns.needed();
        const int count = tokens(line, decimalComma, token, std::min(needed, MAX_TOKENS));
        double xyz[3];
        bool ok = count >= needed;
        for (int d = 0; d < 3 && ok; ++d)
            ok = number(token[columns.xyz[d]], decimalComma, xyz[d]);
        double rgb[3] = {0, 0, 0};
        for (int d = 0; d < 3 && ok && withColors; ++d)
            ok = number(token[columns.rgb[d]], decimalComma, rgb[d]);
        double intensity = 0, classification = 0;
        if (ok && columns.intensity >= 0)
            ok = number(token[columns.intensity], decimalComma, intensity);
        if (ok && columns.classification >= 0)
            ok = number(token[columns.classification], decimalComma, classification);
        if (!ok)
            failWith(QStringLiteral("line %1: expected %2 numbers, got '%3'")
                         .arg(lineNumber)
                         .arg(needed)
                         .arg(quoted(line)));
        if (!std::isfinite(xyz[0]) || !std::isfinite(xyz[1]) || !std::isfinite(xyz[2])) {
            ++skipped;
            continue;
        }
        builder.add(xyz[0], xyz[1], xyz[2]);
        if (!previewed) {
            previewed = true;
            preview(line.begin);
        }
        if (columns.intensity >= 0 || columns.classification >= 0)
            builder.addAttributes(intensity, classification, 0, 0);
        for (int d = 0; d < 3 && withColors; ++d) {
            const float c = std::isfinite(rgb[d]) ? float(rgb[d]) : 0.f;
            colors.push_back(c);
            largestColor = std::max(largestColor, c);
            fractionalColor |= c != std::floor(c);
        }
        if ((lineNumber & 0xffff) == 0)
            builder.progress(size_t(p - begin), in.size);
    }
    if (builder.count() == 0)
        failWith(skipped ? QStringLiteral("no point with finite coordinates in the file")
                         : QStringLiteral("no point in the file"));
    if (withColors) {
        // 0-1 fractions when the header says so, or when no colour exceeds 1 and some are
        // fractional (or the kind is one whose colours are fractions).
        const bool fractions = columns.fractions
            || (largestColor <= 1.f && (fractionalColor || kind == QLatin1String("xyzrgb")));
        const float scale = fractions ? 255.f : 1.f;
        for (size_t i = 0; i < colors.size(); i += 3) {
            builder.addColor({clampColor(colors[i] * scale), clampColor(colors[i + 1] * scale),
                              clampColor(colors[i + 2] * scale)});
        }
    }
    return builder.finish(name);
}

} // namespace detail
} // namespace tzCloudFile
