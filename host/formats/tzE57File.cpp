#include "tzE57File.h"

#include <QXmlStreamReader>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <thread>

#if defined(__x86_64__) && defined(__GNUC__)
#include <nmmintrin.h>
#define TZ_E57_CRC_INSTRUCTION 1
#endif

namespace tzE57 {

namespace {

template<typename T> T littleEndian(const uchar *p)
{
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

std::string text(const QString &s)
{
    return s.toStdString();
}

const std::array<quint32, 256> &crcTable()
{
    static const std::array<quint32, 256> table = [] {
        std::array<quint32, 256> t {};
        for (quint32 i = 0; i < 256; ++i) {
            quint32 c = i;
            for (int k = 0; k < 8; ++k)
                c = (c & 1) ? (c >> 1) ^ 0x82F63B78u : c >> 1;
            t[i] = c;
        }
        return t;
    }();
    return table;
}

// The number of a node's text, or of an attribute.
double toNumber(const QString &s, double fallback)
{
    if (s.trimmed().isEmpty())
        return fallback;
    bool ok = false;
    const double v = s.trimmed().toDouble(&ok);
    return ok ? v : fallback;
}

Pose poseOf(const Node &node)
{
    Pose pose;
    if (const Node *rotation = node.child(QStringLiteral("rotation"))) {
        pose.rotation
            = {rotation->numberOf(QStringLiteral("w"), 1), rotation->numberOf(QStringLiteral("x")),
               rotation->numberOf(QStringLiteral("y")), rotation->numberOf(QStringLiteral("z"))};
    }
    if (const Node *translation = node.child(QStringLiteral("translation"))) {
        pose.translation = {translation->numberOf(QStringLiteral("x")),
                            translation->numberOf(QStringLiteral("y")),
                            translation->numberOf(QStringLiteral("z"))};
    }
    return pose;
}

quint32 crcByTable(const uchar *data, size_t size, quint32 crc)
{
    const auto &table = crcTable();
    for (size_t i = 0; i < size; ++i)
        crc = table[(crc ^ data[i]) & 0xff] ^ (crc >> 8);
    return crc;
}

#ifdef TZ_E57_CRC_INSTRUCTION
// Eight bytes a step with the processor's CRC-32C instruction (SSE 4.2): the checksums of a
// large file then cost less than reading it.
__attribute__((target("sse4.2"))) quint32 crcByInstruction(const uchar *data, size_t size,
                                                           quint32 crc)
{
    quint64 c = crc;
    for (; size >= 8; size -= 8, data += 8) {
        quint64 word;
        std::memcpy(&word, data, 8);
        c = _mm_crc32_u64(c, word);
    }
    crc = quint32(c);
    for (; size > 0; --size)
        crc = _mm_crc32_u8(crc, *data++);
    return crc;
}
#endif

} // namespace

quint32 crc32c(const uchar *data, size_t size)
{
#ifdef TZ_E57_CRC_INSTRUCTION
    static const bool instruction = __builtin_cpu_supports("sse4.2");
    if (instruction)
        return crcByInstruction(data, size, 0xffffffffu) ^ 0xffffffffu;
#endif
    return crcByTable(data, size, 0xffffffffu) ^ 0xffffffffu;
}

// ---------------------------------------------------------------- nodes

const Node *Node::child(const QString &childName) const
{
    for (const Node &c : children) {
        if (c.name == childName)
            return &c;
    }
    return nullptr;
}

QString Node::attribute(const QString &key) const
{
    for (const auto &kv : attributes) {
        if (kv.first == key)
            return kv.second;
    }
    return {};
}

double Node::number() const
{
    const double raw = toNumber(text, 0);
    if (type != QLatin1String("ScaledInteger"))
        return raw;
    // A scaled integer holds raw x scale + offset (1 and 0 unless given).
    return raw * toNumber(attribute(QStringLiteral("scale")), 1.0)
        + toNumber(attribute(QStringLiteral("offset")), 0.0);
}

double Node::numberOf(const QString &childName, double fallback) const
{
    const Node *c = child(childName);
    return c ? c->number() : fallback;
}

int Field::bits() const
{
    if (kind == Float)
        return singlePrecision ? 32 : 64;
    const quint64 range = quint64(maximum) - quint64(minimum);
    int bits = 0;
    while (bits < 64 && (range >> bits) != 0)
        ++bits;
    return bits;
}

const Field *Scan::field(const QString &fieldName) const
{
    for (const Field &f : fields) {
        if (f.name == fieldName)
            return &f;
    }
    return nullptr;
}

// ---------------------------------------------------------------- file

quint64 File::advance(quint64 physicalOffset, quint64 logicalBytes)
{
    const quint64 page = physicalOffset / PAGE_SIZE, within = physicalOffset % PAGE_SIZE;
    const quint64 logical = page * PAGE_DATA + within + logicalBytes;
    return logical / PAGE_DATA * PAGE_SIZE + logical % PAGE_DATA;
}

bool File::readLogical(quint64 physicalOffset, size_t length, uchar *out) const
{
    quint64 at = physicalOffset;
    while (length > 0) {
        const quint64 within = at % PAGE_SIZE;
        if (within >= PAGE_DATA || at >= m_size)
            return false;
        const size_t n = size_t(std::min<quint64>(length, PAGE_DATA - within));
        if (at + n > m_size)
            return false;
        std::memcpy(out, m_data + at, n);
        out += n;
        length -= n;
        at += n;
        if (at % PAGE_SIZE == PAGE_DATA)
            at += PAGE_SIZE - PAGE_DATA; // over the checksum
    }
    return true;
}

bool File::open(const uchar *data, size_t size, std::string &error, unsigned threads,
                bool everyPage)
{
    m_data = data;
    m_size = size;
    if (size < 48 || std::memcmp(data, "ASTM-E57", 8) != 0) {
        error = "not an E57 file (no 'ASTM-E57' signature)";
        return false;
    }
    const quint32 major = littleEndian<quint32>(data + 8);
    const quint64 physicalLength = littleEndian<quint64>(data + 16);
    const quint64 xmlOffset = littleEndian<quint64>(data + 24);
    const quint64 xmlLength = littleEndian<quint64>(data + 32);
    const quint64 pageSize = littleEndian<quint64>(data + 40);
    if (major != 1) {
        error = "E57 version " + std::to_string(major) + " is not supported (1 is)";
        return false;
    }
    if (pageSize != PAGE_SIZE) {
        error = "pages of " + std::to_string(pageSize) + " bytes are not supported (1024 are)";
        return false;
    }
    if (physicalLength > size || physicalLength % PAGE_SIZE != 0) {
        error = "the file is truncated: the header gives " + std::to_string(physicalLength)
            + " bytes, the file has " + std::to_string(size);
        return false;
    }
    m_size = size_t(physicalLength);
    // The pages in runs, one run a thread; the first damaged page is the one named.
    const size_t pages = m_size / PAGE_SIZE;
    threads = unsigned(std::clamp<size_t>(pages / 4096, 1, std::max(1u, threads)));
    std::atomic<size_t> firstBad {pages};
    // Without every page: those of the XML section only (what is read here).
    const size_t firstChecked = everyPage ? 0 : std::min<size_t>(pages, xmlOffset / PAGE_SIZE);
    const size_t lastChecked = everyPage
        ? pages
        : std::min<size_t>(
            pages, advance(xmlOffset, std::min<quint64>(xmlLength, m_size)) / PAGE_SIZE + 1);
    const auto check = [&](size_t from, size_t to) {
        from = std::max(from, firstChecked);
        to = std::min(to, lastChecked);
        for (size_t page = from; page < to && page < firstBad; ++page) {
            const uchar *p = data + page * PAGE_SIZE;
            const quint32 stored = quint32(p[PAGE_DATA]) << 24 | quint32(p[PAGE_DATA + 1]) << 16
                | quint32(p[PAGE_DATA + 2]) << 8 | quint32(p[PAGE_DATA + 3]);
            if (crc32c(p, PAGE_DATA) != stored) {
                size_t seen = firstBad;
                while (page < seen && !firstBad.compare_exchange_weak(seen, page)) { }
                return;
            }
        }
    };
    std::vector<std::thread> workers;
    for (unsigned t = 1; t < threads; ++t)
        workers.emplace_back(check, pages * t / threads, pages * (t + 1) / threads);
    check(0, pages / threads);
    for (std::thread &worker : workers)
        worker.join();
#ifdef FUZZING_BUILD_MODE_UNSAFE_FOR_PRODUCTION
    // The fuzzer's mutations would hardly ever get past the checksums.
    firstBad = pages;
#endif
    if (firstBad < pages) {
        const size_t page = firstBad;
        error = "page " + std::to_string(page + 1) + " of " + std::to_string(pages) + " (at byte "
            + std::to_string(page * PAGE_SIZE)
            + ") does not match its checksum: the file is damaged";
        return false;
    }
    if (xmlLength == 0 || xmlLength > m_size) {
        error = "the XML section's length " + std::to_string(xmlLength) + " is impossible";
        return false;
    }
    QByteArray xml(int(xmlLength), Qt::Uninitialized);
    if (!readLogical(xmlOffset, size_t(xmlLength), reinterpret_cast<uchar *>(xml.data()))) {
        error = "the XML section runs past the end of the file";
        return false;
    }
    if (!readXml(xml, error) || !readScans(error))
        return false;
    readImages();
    return true;
}

bool File::readXml(const QByteArray &xml, std::string &error)
{
    QXmlStreamReader reader(xml);
    std::vector<Node *> open;
    bool rootSeen = false;
    while (!reader.atEnd()) {
        const QXmlStreamReader::TokenType token = reader.readNext();
        if (token == QXmlStreamReader::StartElement) {
            Node *node = nullptr;
            if (open.empty()) {
                if (rootSeen)
                    break;
                rootSeen = true;
                node = &m_root;
            } else {
                open.back()->children.emplace_back();
                node = &open.back()->children.back();
            }
            node->name = reader.name().toString();
            for (const QXmlStreamAttribute &a : reader.attributes()) {
                if (a.name() == QLatin1String("type"))
                    node->type = a.value().toString();
                else
                    node->attributes.emplace_back(a.name().toString(), a.value().toString());
            }
            open.push_back(node);
        } else if (token == QXmlStreamReader::Characters && !open.empty()) {
            open.back()->text += reader.text();
        } else if (token == QXmlStreamReader::EndElement && !open.empty()) {
            open.pop_back();
        }
    }
    if (reader.hasError()) {
        error = "the XML section is not well formed: " + text(reader.errorString()) + " (line "
            + std::to_string(reader.lineNumber()) + ")";
        return false;
    }
    if (m_root.name != QLatin1String("e57Root")) {
        error = "the XML section has no e57Root element";
        return false;
    }
    return true;
}

bool File::readScans(std::string &error)
{
    const Node *data3D = m_root.child(QStringLiteral("data3D"));
    if (!data3D)
        return true;
    for (const Node &entry : data3D->children) {
        Scan scan;
        scan.name = entry.child(QStringLiteral("name")) ? entry.child(QStringLiteral("name"))->text
                                                        : QString();
        if (const Node *guid = entry.child(QStringLiteral("guid")))
            scan.guid = guid->text;
        const QString label = scan.name.isEmpty()
            ? QStringLiteral("scan %1").arg(m_scans.size() + 1)
            : QStringLiteral("scan '%1'").arg(scan.name);
        const Node *points = entry.child(QStringLiteral("points"));
        if (!points || points->type != QLatin1String("CompressedVector")) {
            error = text(label) + " has no compressed vector of points";
            return false;
        }
        scan.recordCount = quint64(toNumber(points->attribute(QStringLiteral("recordCount")), 0));
        scan.fileOffset = quint64(toNumber(points->attribute(QStringLiteral("fileOffset")), 0));
        const Node *prototype = points->child(QStringLiteral("prototype"));
        if (!prototype) {
            error = text(label) + " has no prototype of its points";
            return false;
        }
        for (const Node &f : prototype->children) {
            Field field;
            field.name = f.name;
            if (f.type == QLatin1String("Integer")) {
                field.kind = Field::Integer;
            } else if (f.type == QLatin1String("ScaledInteger")) {
                field.kind = Field::ScaledInteger;
                field.scale = toNumber(f.attribute(QStringLiteral("scale")), 1);
                field.offset = toNumber(f.attribute(QStringLiteral("offset")), 0);
            } else if (f.type == QLatin1String("Float")) {
                field.kind = Field::Float;
                field.singlePrecision
                    = f.attribute(QStringLiteral("precision")) == QLatin1String("single");
            } else {
                error = text(label) + ": field '" + text(f.name) + "' of type '" + text(f.type)
                    + "' is not supported";
                return false;
            }
            if (field.kind != Field::Float) {
                // The format's defaults: the whole range of 64-bit integers.
                field.minimum = qint64(toNumber(f.attribute(QStringLiteral("minimum")), -9.2e18));
                field.maximum = qint64(toNumber(f.attribute(QStringLiteral("maximum")), 9.2e18));
                if (field.maximum < field.minimum) {
                    error = text(label) + ": field '" + text(f.name)
                        + "' has its maximum below its minimum";
                    return false;
                }
            }
            scan.fields.push_back(field);
        }
        if (const Node *pose = entry.child(QStringLiteral("pose")))
            scan.pose = poseOf(*pose);
        if (const Node *limits = entry.child(QStringLiteral("colorLimits"))) {
            scan.hasColourLimits = true;
            const char *names[3] = {"Red", "Green", "Blue"};
            for (int c = 0; c < 3; ++c) {
                scan.colourMin[c] = limits->numberOf(
                    QStringLiteral("color%1Minimum").arg(QLatin1String(names[c])));
                scan.colourMax[c] = limits->numberOf(
                    QStringLiteral("color%1Maximum").arg(QLatin1String(names[c])), 255);
            }
        }
        if (const Node *limits = entry.child(QStringLiteral("intensityLimits"))) {
            scan.hasIntensityLimits = true;
            scan.intensityMin = limits->numberOf(QStringLiteral("intensityMinimum"));
            scan.intensityMax = limits->numberOf(QStringLiteral("intensityMaximum"), 1);
        }
        m_scans.push_back(std::move(scan));
    }
    return true;
}

void File::readImages()
{
    const Node *images = m_root.child(QStringLiteral("images2D"));
    if (!images)
        return;
    for (const Node &entry : images->children) {
        Image image;
        if (const Node *name = entry.child(QStringLiteral("name")))
            image.name = name->text;
        if (const Node *guid = entry.child(QStringLiteral("associatedData3DGuid")))
            image.scanGuid = guid->text;
        if (const Node *pose = entry.child(QStringLiteral("pose"))) {
            image.hasPose = true;
            image.pose = poseOf(*pose);
        }
        for (const char *kind : {"pinholeRepresentation", "sphericalRepresentation",
                                 "cylindricalRepresentation", "visualReferenceRepresentation"}) {
            const Node *r = entry.child(QLatin1String(kind));
            if (!r)
                continue;
            image.representation = QLatin1String(kind);
            image.width = int(r->numberOf(QStringLiteral("imageWidth")));
            image.height = int(r->numberOf(QStringLiteral("imageHeight")));
            image.focalLength = r->numberOf(QStringLiteral("focalLength"));
            image.pixelWidth = r->numberOf(QStringLiteral("pixelWidth"));
            image.pixelHeight = r->numberOf(QStringLiteral("pixelHeight"));
            image.principalX = r->numberOf(QStringLiteral("principalPointX"));
            image.principalY = r->numberOf(QStringLiteral("principalPointY"));
            for (const char *blob : {"jpegImage", "pngImage"}) {
                if (const Node *b = r->child(QLatin1String(blob))) {
                    image.blobOffset
                        = quint64(toNumber(b->attribute(QStringLiteral("fileOffset")), 0));
                    image.blobLength = quint64(toNumber(b->attribute(QStringLiteral("length")), 0));
                    image.png = std::strcmp(blob, "pngImage") == 0;
                    break;
                }
            }
            break;
        }
        m_images.push_back(std::move(image));
    }
}

bool File::sectionHeader(quint64 physicalOffset, SectionHeader &header, std::string &error,
                         bool withData) const
{
    uchar bytes[32];
    if (physicalOffset == 0 || !readLogical(physicalOffset, sizeof bytes, bytes)) {
        error = "the points' section at byte " + std::to_string(physicalOffset)
            + " is outside the file";
        return false;
    }
    header.logicalLength = littleEndian<quint64>(bytes + 8);
    header.dataOffset = littleEndian<quint64>(bytes + 16);
    header.indexOffset = littleEndian<quint64>(bytes + 24);
    // Section 1 is a compressed vector's; its data starts after the header, within the file.
    // (Where it holds no record, writers leave any data offset: only its kind is checked.)
    const bool dataValid = header.logicalLength >= 32 && header.dataOffset > physicalOffset
        && header.dataOffset < m_size && advance(physicalOffset, header.logicalLength) <= m_size;
    if (bytes[0] != 1 || (withData && !dataValid)) {
        error = "the points' section header at byte " + std::to_string(physicalOffset)
            + " is invalid";
        return false;
    }
    return true;
}

bool File::picture(const Image &image, std::vector<uchar> &bytes, std::string &error) const
{
    // A blob section: its id (0), 7 bytes kept, its logical length; then the bytes.
    uchar head[16];
    if (image.blobOffset == 0 || !readLogical(image.blobOffset, sizeof head, head) || head[0] != 0
        || littleEndian<quint64>(head + 8) < 16 + image.blobLength) {
        error = "the picture's section at byte " + std::to_string(image.blobOffset) + " is invalid";
        return false;
    }
    if (image.blobLength == 0 || image.blobLength > m_size) {
        error = "the picture's length " + std::to_string(image.blobLength) + " is impossible";
        return false;
    }
    bytes.resize(size_t(image.blobLength));
    if (!readLogical(advance(image.blobOffset, 16), bytes.size(), bytes.data())) {
        error = "the picture runs past the end of the file";
        return false;
    }
    return true;
}

// ---------------------------------------------------------------- records

bool Records::open(const File &file, const Scan &scan, std::string &error)
{
    m_file = &file;
    m_fields = scan.fields;
    m_streams.assign(m_fields.size(), Stream {});
    for (Stream &stream : m_streams)
        stream.bytes.assign(PADDING, 0);
    m_count = scan.recordCount;
    m_read = 0;
    m_at = m_end = 0;
    // A scan of no points may have no section (offset 0, as older writers left it); one that
    // has a section must have a section of its kind, whatever data offset it gives.
    if (m_count == 0 && scan.fileOffset == 0)
        return true;
    SectionHeader section;
    if (!file.sectionHeader(scan.fileOffset, section, error, m_count > 0))
        return false;
    if (m_count == 0)
        return true;
    // The packets follow one another from the data offset to the end of the section, which
    // must hold the records declared (this also bounds what a damaged count makes a reader
    // allocate).
    m_at = m_start = section.dataOffset;
    m_end = File::advance(scan.fileOffset, section.logicalLength);
    quint64 bitsPerRecord = 0;
    for (const Field &field : m_fields)
        bitsPerRecord += quint64(field.bits());
    if (bitsPerRecord == 0) {
        error = "the points' fields take no bits: nothing to read";
        return false;
    }
    if (section.logicalLength * 8 / bitsPerRecord < m_count) {
        error = "the points' section holds at most "
            + std::to_string(section.logicalLength * 8 / bitsPerRecord)
            + " records, the XML declares " + std::to_string(m_count);
        return false;
    }
    return true;
}

bool Records::nextPacket(std::string &error)
{
    while (m_at < m_end) {
        uchar head[6];
        if (!m_file->readLogical(m_at, sizeof head, head)) {
            error = "a packet at byte " + std::to_string(m_at) + " runs past the end of the file";
            return false;
        }
        const int type = head[0];
        const size_t length = size_t(littleEndian<quint16>(head + 2)) + 1;
        if (type == 0 || type == 2) { // index and empty packets
            m_at = File::advance(m_at, length);
            continue;
        }
        const size_t streams = littleEndian<quint16>(head + 4);
        if (type != 1 || streams != m_streams.size() || length < 6 + 2 * streams) {
            error = "the data packet at byte " + std::to_string(m_at) + " is invalid (type "
                + std::to_string(type) + ", " + std::to_string(streams) + " streams for "
                + std::to_string(m_streams.size()) + " fields)";
            return false;
        }
        m_packet.resize(length);
        if (!m_file->readLogical(m_at, length, m_packet.data())) {
            error = "the data packet at byte " + std::to_string(m_at)
                + " runs past the end of the file";
            return false;
        }
        size_t offset = 6 + 2 * streams;
        for (size_t k = 0; k < streams; ++k) {
            const size_t n = littleEndian<quint16>(m_packet.data() + 6 + 2 * k);
            if (offset + n > length) {
                error = "the data packet at byte " + std::to_string(m_at)
                    + " holds less than its streams' lengths";
                return false;
            }
            // What was read goes; the new bytes join what was not, before the padding (after a
            // seek, without the bytes before the record sought).
            Stream &stream = m_streams[k];
            const size_t passed = size_t(std::min<quint64>(stream.skip, n));
            stream.skip -= passed;
            const size_t added = n - passed;
            const size_t gone = size_t(stream.bitPosition / 8);
            const size_t kept = size_t(stream.bitEnd / 8) - gone;
            std::memmove(stream.bytes.data(), stream.bytes.data() + gone, kept);
            stream.bytes.resize(kept + added + PADDING);
            std::memcpy(stream.bytes.data() + kept, m_packet.data() + offset + passed, added);
            std::memset(stream.bytes.data() + kept + added, 0, PADDING);
            stream.bitPosition -= quint64(gone) * 8;
            stream.bitEnd = quint64(kept + added) * 8;
            offset += n;
        }
        m_at = File::advance(m_at, length);
        return true;
    }
    error = "the points' streams end after " + std::to_string(m_read) + " of "
        + std::to_string(m_count) + " records";
    return false;
}

namespace {

// The n values of bits bits each from a bit position on (low bit first), each turned into a
// double by convert(raw). The bytes have at least 9 bytes of padding after the last value.
template<typename Convert>
void unpack(const uchar *bytes, quint64 position, int bits, size_t n, double *out, Convert convert)
{
    const quint64 mask = bits >= 64 ? ~quint64(0) : (quint64(1) << bits) - 1;
    if (bits % 8 == 0 && position % 8 == 0) {
        // Whole bytes: one load each, no shifting.
        const uchar *p = bytes + position / 8;
        const size_t step = size_t(bits) / 8;
        for (size_t i = 0; i < n; ++i, p += step) {
            quint64 word;
            std::memcpy(&word, p, 8);
            out[i] = convert(word & mask);
        }
        return;
    }
    for (size_t i = 0; i < n; ++i, position += quint64(bits)) {
        const uchar *p = bytes + position / 8;
        const int shift = int(position % 8);
        quint64 word;
        std::memcpy(&word, p, 8);
        quint64 raw = word >> shift;
        if (shift + bits > 64)
            raw |= quint64(p[8]) << (64 - shift);
        out[i] = convert(raw & mask);
    }
}

} // namespace

void Records::take(size_t field, size_t n, double *out)
{
    const Field &f = m_fields[field];
    Stream &stream = m_streams[field];
    const int bits = f.bits();
    if (out) {
        const uchar *bytes = stream.bytes.data();
        const quint64 at = stream.bitPosition;
        const quint64 minimum = quint64(f.minimum);
        switch (f.kind) {
        case Field::Float:
            if (f.singlePrecision) {
                unpack(bytes, at, bits, n, out, [](quint64 raw) {
                    float v;
                    const quint32 u = quint32(raw);
                    std::memcpy(&v, &u, 4);
                    return double(v);
                });
            } else {
                unpack(bytes, at, bits, n, out, [](quint64 raw) {
                    double v;
                    std::memcpy(&v, &raw, 8);
                    return v;
                });
            }
            break;
        case Field::Integer:
            unpack(bytes, at, bits, n, out,
                   [minimum](quint64 raw) { return double(qint64(raw + minimum)); });
            break;
        case Field::ScaledInteger: {
            const double scale = f.scale, offset = f.offset;
            unpack(bytes, at, bits, n, out,
                   [=](quint64 raw) { return double(qint64(raw + minimum)) * scale + offset; });
            break;
        }
        }
    }
    stream.bitPosition += quint64(bits) * n;
}

bool Records::read(size_t n, double *const *columns, std::string &error)
{
    if (n > left()) {
        error = "more records asked for than the scan holds";
        return false;
    }
    for (size_t k = 0; k < m_fields.size(); ++k) {
        const quint64 needed = quint64(m_fields[k].bits()) * n;
        // (Just after a seek, the position may lie past the bytes read so far.)
        while (m_streams[k].bitEnd < m_streams[k].bitPosition + needed) {
            if (!nextPacket(error))
                return false;
        }
        take(k, n, columns[k]);
    }
    m_read += n;
    return true;
}

bool Records::seek(quint64 record, std::string &error)
{
    if (record > m_count) {
        error = "record " + std::to_string(record) + " sought in a scan of "
            + std::to_string(m_count);
        return false;
    }
    const size_t streams = m_streams.size();
    if (m_packets.empty()) {
        std::vector<quint64> before(streams, 0);
        std::vector<uchar> head(6 + 2 * streams);
        for (quint64 at = m_start; at < m_end;) {
            if (!m_file->readLogical(at, 6, head.data())) {
                error = "a packet at byte " + std::to_string(at) + " runs past the end of the file";
                return false;
            }
            const int type = head[0];
            const size_t length = size_t(littleEndian<quint16>(head.data() + 2)) + 1;
            if (type == 1) {
                if (littleEndian<quint16>(head.data() + 4) != streams || length < head.size()
                    || !m_file->readLogical(at, head.size(), head.data())) {
                    error = "the data packet at byte " + std::to_string(at) + " is invalid";
                    return false;
                }
                m_packets.push_back(at);
                m_before.insert(m_before.end(), before.begin(), before.end());
                for (size_t k = 0; k < streams; ++k)
                    before[k] += littleEndian<quint16>(head.data() + 6 + 2 * k);
            }
            at = File::advance(at, length);
        }
        if (m_packets.empty()) {
            error = "the points' section holds no data packet";
            return false;
        }
    }
    // Each stream's byte, the last packet that starts at or before it, and the first of those.
    std::vector<quint64> bytes(streams);
    size_t first = m_packets.size() - 1;
    for (size_t k = 0; k < streams; ++k) {
        const quint64 bit = record * quint64(m_fields[k].bits());
        bytes[k] = bit / 8;
        size_t lo = 0, hi = m_packets.size(); // the packet is in [lo, hi)
        while (hi - lo > 1) {
            const size_t mid = (lo + hi) / 2;
            if (m_before[mid * streams + k] <= bytes[k])
                lo = mid;
            else
                hi = mid;
        }
        first = std::min(first, lo);
    }
    m_at = m_packets[first];
    for (size_t k = 0; k < streams; ++k) {
        Stream &stream = m_streams[k];
        stream.bytes.assign(PADDING, 0);
        stream.bitEnd = 0;
        stream.bitPosition = (record * quint64(m_fields[k].bits())) % 8;
        stream.skip = bytes[k] - m_before[first * streams + k];
    }
    m_read = record;
    return true;
}

bool Records::next(double *values)
{
    if (m_read >= m_count)
        return false;
    std::vector<double *> columns(m_fields.size());
    for (size_t k = 0; k < columns.size(); ++k)
        columns[k] = values + k;
    std::string error;
    return read(1, columns.data(), error);
}

// ---------------------------------------------------------------- writing

namespace {

template<typename T> void append(std::vector<uchar> &out, T value)
{
    const size_t at = out.size();
    out.resize(at + sizeof value);
    std::memcpy(out.data() + at, &value, sizeof value);
}

quint64 physicalOf(quint64 logical)
{
    return logical / PAGE_DATA * PAGE_SIZE + logical % PAGE_DATA;
}

QString xmlNumber(double v)
{
    return QString::number(v, 'g', 17);
}

QString poseXml(const Pose &pose)
{
    return QStringLiteral("<pose type=\"Structure\"><rotation type=\"Structure\">"
                          "<w type=\"Float\">%1</w><x type=\"Float\">%2</x>"
                          "<y type=\"Float\">%3</y><z type=\"Float\">%4</z></rotation>"
                          "<translation type=\"Structure\"><x type=\"Float\">%5</x>"
                          "<y type=\"Float\">%6</y><z type=\"Float\">%7</z></translation></pose>")
        .arg(xmlNumber(pose.rotation[0]), xmlNumber(pose.rotation[1]), xmlNumber(pose.rotation[2]),
             xmlNumber(pose.rotation[3]), xmlNumber(pose.translation[0]),
             xmlNumber(pose.translation[1]), xmlNumber(pose.translation[2]));
}

} // namespace

bool writeFile(const std::vector<ScanToWrite> &scans, QByteArray &out, std::string &error,
               const std::vector<ImageToWrite> &images)
{
    // The logical bytes first (header, each scan's section, the pictures, the XML), then the
    // pages.
    std::vector<uchar> logical(48, 0);
    QString data3D;
    for (const ScanToWrite &scan : scans) {
        const size_t n = scan.xyz.size() / 3;
        const bool intensity = !scan.intensities.empty(), colour = !scan.colours.empty();
        const bool invalid = !scan.invalid.empty();
        if ((intensity && scan.intensities.size() != n) || (colour && scan.colours.size() != n)
            || (invalid && scan.invalid.size() != n)) {
            error = "a scan's intensities, colours or states do not match its points";
            return false;
        }
        const size_t fields = 3 + (invalid ? 1 : 0) + (intensity ? 1 : 0) + (colour ? 3 : 0);
        const quint64 section = logical.size();
        logical.resize(logical.size() + 32, 0);
        // Packets of whole records, each stream's buffer whole bytes; the invalid states take
        // 2 bits, four to a byte (the packets' records are a multiple of 4).
        constexpr size_t PER_PACKET = 2048;
        for (size_t first = 0; first < n; first += PER_PACKET) {
            const size_t count = std::min(PER_PACKET, n - first);
            std::vector<std::vector<uchar>> streams(fields);
            for (size_t i = first; i < first + count; ++i) {
                for (int d = 0; d < 3; ++d) {
                    const double value = scan.xyz[3 * i + size_t(d)];
                    if (scan.spherical) {
                        append(streams[size_t(d)], value);
                        continue;
                    }
                    const double v = std::round(value / scan.scale);
                    if (!(std::abs(v) < 2147483647.0)) {
                        error = "a coordinate does not fit the scaled integers";
                        return false;
                    }
                    append(streams[size_t(d)], quint32(qint64(v) + 2147483648LL));
                }
                size_t k = 3;
                if (invalid) {
                    if ((i - first) % 4 == 0)
                        streams[k].push_back(0);
                    streams[k].back() |= uchar((scan.invalid[i] & 3) << (2 * ((i - first) % 4)));
                    ++k;
                }
                if (intensity)
                    append(streams[k++], scan.intensities[i]);
                if (colour) {
                    for (int c = 0; c < 3; ++c)
                        streams[k++].push_back(scan.colours[i][size_t(c)]);
                }
            }
            size_t length = 6 + 2 * fields;
            for (const auto &stream : streams)
                length += stream.size();
            const size_t padded = (length + 3) / 4 * 4;
            logical.push_back(1); // data packet
            logical.push_back(0);
            append(logical, quint16(padded - 1));
            append(logical, quint16(fields));
            for (const auto &stream : streams)
                append(logical, quint16(stream.size()));
            for (const auto &stream : streams)
                logical.insert(logical.end(), stream.begin(), stream.end());
            logical.resize(logical.size() + (padded - length), 0);
        }
        // The section's header: its id, its logical length, where its data starts.
        logical[section] = 1;
        const quint64 sectionLength = logical.size() - section;
        const quint64 dataOffset = physicalOf(section + 32);
        std::memcpy(logical.data() + section + 8, &sectionLength, 8);
        std::memcpy(logical.data() + section + 16, &dataOffset, 8);
        QString prototype;
        const char *cartesian[3] = {"cartesianX", "cartesianY", "cartesianZ"};
        const char *spherical[3] = {"sphericalRange", "sphericalAzimuth", "sphericalElevation"};
        for (const char *axis : scan.spherical ? spherical : cartesian) {
            prototype += scan.spherical
                ? QStringLiteral("<%1 type=\"Float\"/>").arg(QLatin1String(axis))
                : QStringLiteral("<%1 type=\"ScaledInteger\" minimum=\"-2147483648\" "
                                 "maximum=\"2147483647\" scale=\"%2\"/>")
                      .arg(QLatin1String(axis), xmlNumber(scan.scale));
        }
        if (invalid) {
            prototype += QStringLiteral("<%1InvalidState type=\"Integer\" minimum=\"0\" "
                                        "maximum=\"2\"/>")
                             .arg(QLatin1String(scan.spherical ? "spherical" : "cartesian"));
        }
        QString limits;
        if (intensity) {
            prototype
                += QStringLiteral("<intensity type=\"Integer\" minimum=\"0\" maximum=\"65535\"/>");
            const double s = scan.intensityLimitScale;
            const QString kind = s == 1
                ? QStringLiteral("type=\"Integer\"")
                : QStringLiteral("type=\"ScaledInteger\" scale=\"%1\"").arg(xmlNumber(s));
            limits += QStringLiteral("<intensityLimits type=\"Structure\"><intensityMinimum "
                                     "%1>0</intensityMinimum><intensityMaximum %1>%2"
                                     "</intensityMaximum></intensityLimits>")
                          .arg(kind)
                          .arg(qint64(std::llround(65535 / s)));
        }
        if (colour) {
            limits += QStringLiteral("<colorLimits type=\"Structure\">");
            for (const char *c : {"Red", "Green", "Blue"}) {
                prototype
                    += QStringLiteral("<color%1 type=\"Integer\" minimum=\"0\" maximum=\"255\"/>")
                           .arg(QLatin1String(c));
                limits += QStringLiteral("<color%1Minimum type=\"Integer\">0</color%1Minimum>"
                                         "<color%1Maximum type=\"Integer\">255</color%1Maximum>")
                              .arg(QLatin1String(c));
            }
            limits += QStringLiteral("</colorLimits>");
        }
        data3D
            += QStringLiteral("<vectorChild type=\"Structure\"><name type=\"String\"><![CDATA[%1]]>"
                              "</name>%7%2%3<points type=\"CompressedVector\" fileOffset=\"%4\" "
                              "recordCount=\"%5\"><prototype type=\"Structure\">%6</prototype>"
                              "<codecs type=\"Vector\"/></points></vectorChild>")
                   .arg(scan.name, poseXml(scan.pose), limits)
                   .arg(physicalOf(section))
                   .arg(n)
                   .arg(prototype)
                   .arg(scan.guid.isEmpty() ? QString()
                                            : QStringLiteral("<guid type=\"String\"><![CDATA[%1]]>"
                                                             "</guid>")
                                                  .arg(scan.guid));
    }
    QString images2D;
    for (const ImageToWrite &image : images) {
        // A blob section: its id (0), its logical length, then the picture's bytes.
        const quint64 section = logical.size();
        logical.resize(logical.size() + 16, 0);
        const quint64 sectionLength = 16 + quint64(image.picture.size());
        std::memcpy(logical.data() + section + 8, &sectionLength, 8);
        logical.insert(logical.end(), image.picture.begin(), image.picture.end());
        logical.resize((logical.size() + 3) / 4 * 4, 0);
        const QString number = QStringLiteral("<%1 type=\"Float\">%2</%1>");
        images2D += QStringLiteral("<vectorChild type=\"Structure\"><name type=\"String\">"
                                   "<![CDATA[%1]]></name>")
                        .arg(image.name);
        if (!image.scanGuid.isEmpty()) {
            images2D += QStringLiteral("<associatedData3DGuid type=\"String\"><![CDATA[%1]]>"
                                       "</associatedData3DGuid>")
                            .arg(image.scanGuid);
        }
        if (image.hasPose)
            images2D += poseXml(image.pose);
        images2D += QStringLiteral("<pinholeRepresentation type=\"Structure\"><%1 type=\"Blob\" "
                                   "fileOffset=\"%2\" length=\"%3\"/>"
                                   "<imageWidth type=\"Integer\">%4</imageWidth>"
                                   "<imageHeight type=\"Integer\">%5</imageHeight>")
                        .arg(QLatin1String(image.png ? "pngImage" : "jpegImage"))
                        .arg(physicalOf(section))
                        .arg(image.picture.size())
                        .arg(image.width)
                        .arg(image.height)
            + number.arg(QStringLiteral("focalLength"), xmlNumber(image.focalLength))
            + number.arg(QStringLiteral("pixelWidth"), xmlNumber(image.pixelWidth))
            + number.arg(QStringLiteral("pixelHeight"), xmlNumber(image.pixelHeight))
            + number.arg(QStringLiteral("principalPointX"), xmlNumber(image.principalX))
            + number.arg(QStringLiteral("principalPointY"), xmlNumber(image.principalY))
            + QStringLiteral("</pinholeRepresentation></vectorChild>");
    }
    const QByteArray xml
        = (QStringLiteral("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<e57Root type=\"Structure\" "
                          "xmlns=\"http://www.astm.org/COMMIT/E57/2010-e57-v1.0\"><formatName "
                          "type=\"String\"><![CDATA[ASTM E57 3D Imaging Data File]]></formatName>"
                          "<versionMajor type=\"Integer\">1</versionMajor><data3D type=\"Vector\" "
                          "allowHeterogeneousChildren=\"1\">%1</data3D><images2D type=\"Vector\" "
                          "allowHeterogeneousChildren=\"1\">%2</images2D></e57Root>\n")
               .arg(data3D, images2D))
              .toUtf8();
    const quint64 xmlLogical = logical.size();
    logical.insert(logical.end(), xml.begin(), xml.end());
    const quint64 pages = (logical.size() + PAGE_DATA - 1) / PAGE_DATA;
    logical.resize(size_t(pages * PAGE_DATA), 0);
    // The header.
    std::memcpy(logical.data(), "ASTM-E57", 8);
    const quint32 major = 1, minor = 0;
    const quint64 physicalLength = pages * PAGE_SIZE, xmlOffset = physicalOf(xmlLogical),
                  xmlLength = quint64(xml.size()), pageSize = PAGE_SIZE;
    std::memcpy(logical.data() + 8, &major, 4);
    std::memcpy(logical.data() + 12, &minor, 4);
    std::memcpy(logical.data() + 16, &physicalLength, 8);
    std::memcpy(logical.data() + 24, &xmlOffset, 8);
    std::memcpy(logical.data() + 32, &xmlLength, 8);
    std::memcpy(logical.data() + 40, &pageSize, 8);
    // The pages, each with its checksum (big-endian).
    out.resize(int(physicalLength));
    for (quint64 page = 0; page < pages; ++page) {
        uchar *p = reinterpret_cast<uchar *>(out.data()) + page * PAGE_SIZE;
        std::memcpy(p, logical.data() + page * PAGE_DATA, PAGE_DATA);
        const quint32 crc = crc32c(p, PAGE_DATA);
        p[PAGE_DATA] = uchar(crc >> 24);
        p[PAGE_DATA + 1] = uchar(crc >> 16);
        p[PAGE_DATA + 2] = uchar(crc >> 8);
        p[PAGE_DATA + 3] = uchar(crc);
    }
    return true;
}

} // namespace tzE57
