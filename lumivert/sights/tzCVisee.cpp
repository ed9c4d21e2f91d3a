#include "tzCVisee.h"

#include "tzDrawContext.h"
#include "tzPointCloud.h"
#include "tzSerialization.h"
#include "tzSettings.h"
#include "tzSphere.h"
#include "tzViewGeometry.h"
#include "tzViewportParameters.h"

#include <QFontMetrics>
#include <QHash>
#include <QJsonObject>
#include <QOpenGLContext>
#include <QOpenGLFunctions_2_1>
#include <QtDebug>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>

using namespace tzSerialization;

const char *const tzCVisee::FACTORY_NAME = "tzCVisee";

namespace {

const QString CVISEE = QStringLiteral("CVisee");
// A marker a few pixels wide needs few facets, and thousands of sights draw one each.
constexpr unsigned MARKER_PRECISION = 6;

// The marker of every sight, made at the first draw and kept for the life of the process.
tzSphere &pointMarker()
{
    static const std::unique_ptr<tzSphere> marker
        = std::make_unique<tzSphere>(1.f, QStringLiteral("PointMarker"), MARKER_PRECISION);
    return *marker;
}

// The marker drawn in one colour, compiled once per GL context: thousands of sights call it at
// every frame, which immediate-mode drawing of the sphere's facets could not afford.
GLuint markerList(QOpenGLFunctions_2_1 *gl, QOpenGLContext *context, const tzDrawContext &draw,
                  const QColor &colour)
{
    static QHash<QPair<QOpenGLContext *, QRgb>, GLuint> lists;
    const auto key = qMakePair(context, colour.rgb());
    const auto it = lists.constFind(key);
    if (it != lists.constEnd())
        return *it;
    const GLuint list = gl->glGenLists(1);
    if (list == 0)
        return 0;
    tzSphere &marker = pointMarker();
    marker.setTempColor(colour);
    tzDrawContext plain = draw;
    plain.drawingFlags &= ~(TZ_ENTITY_PICKING | TZ_FAST_ENTITY_PICKING);
    gl->glNewList(list, GL_COMPILE);
    marker.draw(plain);
    gl->glEndList();
    lists.insert(key, list);
    if (context) {
        QObject::connect(context, &QOpenGLContext::aboutToBeDestroyed, [context] {
            for (auto i = lists.begin(); i != lists.end();)
                i = i.key().first == context ? lists.erase(i) : std::next(i);
        });
    }
    return list;
}

} // namespace

tzCVisee::tzCVisee(const QString &name)
{
    Q_UNUSED(name)
    // A new sight has no points and is shown (clear() would hide it).
    m_points.clear();
    m_coordX = m_coordY = m_coordZ = 0.0;
    m_type = CVISEE;
    m_number.clear();
    setEnabled(true);
}

tzCVisee::~tzCVisee() = default;

bool tzCVisee::readJson(const QJsonObject &frame)
{
    qDebug("! tzCVisee !");
    tzXentity::readJson(frame);
    const QJsonValue number = frame.value(QLatin1String("number"));
    m_number = number.isDouble() ? number.toVariant().toString() : number.toString();
    const QJsonObject coord = frame.value(QLatin1String("coord")).toObject();
    m_coordX = jsonNumber(coord, "X");
    m_coordY = jsonNumber(coord, "Y");
    m_coordZ = jsonNumber(coord, "Z");
    qDebug("tram: type %s, ident %ld , R: %d, G: %d, B: %d , %lf, %lf, %lf ", qPrintable(m_type),
           long(m_ident), m_red, m_green, m_blue, m_coordX, m_coordY, m_coordZ);
    refreshNameAndMetaData();
    return true;
}

void tzCVisee::refreshNameAndMetaData()
{
    m_type = CVISEE;
    setName(m_number);
    QVariantMap data;
    data.insert(QStringLiteral("tzLumivertType"), m_type);
    data.insert(QStringLiteral("ident"), qint32(m_ident));
    data.insert(QStringLiteral("number"), m_number);
    data.insert(QStringLiteral("Coord x"), m_coordX);
    data.insert(QStringLiteral("Coord y"), m_coordY);
    data.insert(QStringLiteral("Coord z"), m_coordZ);
    setMetaData(data, true);
}

void tzCVisee::convertToView(const tzCoordinateFrame &frame)
{
    setCoordinates(frame.toScene(coordinates()));
}

void tzCVisee::convertFromView(const tzCoordinateFrame &frame)
{
    setCoordinates(frame.sightToCompanion(coordinates()));
}

bool tzCVisee::attachPoint(tzGenericPointCloud *cloud, unsigned index)
{
    if (!cloud || index >= cloud->size() || m_points.size() >= MAX_POINTS)
        return false;
    PickedPoint point;
    point.cloud = cloud;
    point.index = index;
    m_points.push_back(point);
    updateName();
    cloud->addDependency(this, DP_NOTIFY_OTHER_ON_DELETE, true);
    return true;
}

void tzCVisee::clear(bool ignoreDependencies)
{
    if (ignoreDependencies) {
        m_points.clear();
    } else {
        while (!m_points.empty()) {
            tzGenericPointCloud *cloud = m_points.back().cloud;
            m_points.pop_back();
            if (cloud)
                cloud->removeDependencyWith(this);
        }
    }
    m_lastScreenPos[0] = -1;
    m_labelRect = QRect(0, 0, 0, 0);
    setVisible(false);
}

QString tzCVisee::pointsName() const
{
    const auto at = [this](unsigned i) {
        const PickedPoint &p = m_points[i];
        return p.cloud ? QStringLiteral("@") + p.cloud->getName() : QString();
    };
    switch (m_points.size()) {
    case 0:
        return QStringLiteral("Label");
    case 1:
        return QStringLiteral("Point #%1").arg(m_points[0].index);
    case 2:
        if (m_points[0].cloud == m_points[1].cloud)
            return QStringLiteral("Vector #%1 - #%2").arg(m_points[0].index).arg(m_points[1].index);
        return QStringLiteral("Vector #%1%2 - #%3%4")
            .arg(m_points[0].index)
            .arg(at(0))
            .arg(m_points[1].index)
            .arg(at(1));
    default:
        if (m_points[0].cloud == m_points[1].cloud && m_points[1].cloud == m_points[2].cloud)
            return QStringLiteral("Triplet #%1 - #%2 - #%3")
                .arg(m_points[0].index)
                .arg(m_points[1].index)
                .arg(m_points[2].index);
        return QStringLiteral("Triplet #%1%2 - #%3%4 - #%5%6")
            .arg(m_points[0].index)
            .arg(at(0))
            .arg(m_points[1].index)
            .arg(at(1))
            .arg(m_points[2].index)
            .arg(at(2));
    }
}

void tzCVisee::updateName()
{
    setName(pointsName());
}

QString tzCVisee::getName() const
{
    QString name = m_name;
    const size_t count = m_points.size();
    if (count >= 1)
        name.replace(QLatin1String("pi0"), QString::number(m_points[0].index));
    if (count >= 2) {
        name.replace(QLatin1String("pi1"), QString::number(m_points[1].index));
        if (m_points[0].cloud)
            name.replace(QLatin1String("ci0"), QString::number(m_points[0].cloud->getUniqueID()));
        if (m_points[1].cloud)
            name.replace(QLatin1String("ci1"), QString::number(m_points[1].cloud->getUniqueID()));
    }
    if (count >= 3) {
        name.replace(QLatin1String("pi2"), QString::number(m_points[2].index));
        if (m_points[2].cloud)
            name.replace(QLatin1String("ci2"), QString::number(m_points[2].cloud->getUniqueID()));
    }
    return name;
}

TZVector3 tzCVisee::pointOf(unsigned i) const
{
    const PickedPoint &p = m_points[i];
    const TZVector3 *point = p.cloud ? p.cloud->getPoint(p.index) : nullptr;
    return point ? *point : TZVector3(0, 0, 0);
}

QStringList tzCVisee::bodyLines(int precision) const
{
    const auto n = [precision](double v) { return QString::number(v, 'f', precision); };
    QStringList lines;
    switch (m_points.size()) {
    case 1: {
        const PickedPoint &p = m_points[0];
        const TZVector3 P = pointOf(0);
        const double s = p.cloud->getGlobalScale();
        const TZVector3d t = p.cloud->getGlobalShift();
        const bool shifted = s != 1.0 || t.x != 0 || t.y != 0 || t.z != 0;
        lines << QStringLiteral("P#%0:").arg(p.index)
                + (shifted ? QStringLiteral(" [shifted]") : QString())
                + QStringLiteral(" (%1;%2;%3)").arg(n(P.x), n(P.y), n(P.z));
        if (shifted)
            lines << QStringLiteral("[original] (%1;%2;%3)")
                         .arg(n(P.x / s - t.x), n(P.y / s - t.y), n(P.z / s - t.z));
        if (const auto *cloud = dynamic_cast<const tzPointCloud *>(p.cloud)) {
            if (cloud->hasColors() && p.index < cloud->size()) {
                const tzRgb c = cloud->getPointColor(p.index);
                lines << QStringLiteral("Color: (%1;%2;%3)").arg(c.r).arg(c.g).arg(c.b);
            }
        }
        break;
    }
    case 2: {
        const TZVector3 d = pointOf(1) - pointOf(0);
        lines << QStringLiteral("%1 = %2").arg(QStringLiteral("Distance"), n(d.norm()));
        lines << QStringLiteral("X: %1\t").arg(n(d.x)) + QStringLiteral("Y: %1\t").arg(n(d.y))
                + QStringLiteral("Z: %1").arg(n(d.z));
        lines << QStringLiteral("XY: %1\t").arg(n(std::hypot(d.x, d.y)))
                + QStringLiteral("XZ: %1\t").arg(n(std::hypot(d.x, d.z)))
                + QStringLiteral("ZY: %1").arg(n(std::hypot(d.z, d.y)));
        break;
    }
    case 3: {
        const TZVector3 A = pointOf(0), B = pointOf(1), C = pointOf(2);
        const TZVector3 AB = B - A, BC = C - B, CA = A - C;
        const TZVector3 N = AB.cross(C - A);
        const auto angle = [](const TZVector3 &u, const TZVector3 &v) {
            const double c = double(u.dot(v)) / (double(u.norm()) * double(v.norm()));
            return std::acos(std::max(-1.0, std::min(1.0, c))) * 180.0 / M_PI;
        };
        lines << QStringLiteral("Area = %1").arg(n(0.5 * N.norm()));
        lines << QStringLiteral("Angles: A=%1 - B=%2 - C=%3 deg.")
                     .arg(n(angle(AB, C - A)), n(angle(BC, A - B)), n(angle(CA, B - C)));
        lines << QStringLiteral("Edges: AB=%1 - BC=%2 - CA=%3")
                     .arg(n(AB.norm()), n(BC.norm()), n(CA.norm()));
        const float length = N.norm();
        if (length > 0)
            lines << QStringLiteral("Normal: (%1;%2;%3)")
                         .arg(n(N.x / length), n(N.y / length), n(N.z / length));
        break;
    }
    default:
        break;
    }
    return lines;
}

void tzCVisee::forgetAllPoints()
{
    m_points.clear();
    m_lastScreenPos[0] = m_lastScreenPos[1] = -1;
    m_labelRect = QRect(0, 0, 0, 0);
    setVisible(false);
}

void tzCVisee::onDeletionOf(const tzHObject *object)
{
    tzCustomHObject::onDeletionOf(object);
    const auto gone = [object](const PickedPoint &p) {
        return static_cast<const tzHObject *>(p.cloud) == object;
    };
    const auto lost = std::count_if(m_points.begin(), m_points.end(), gone);
    if (lost == 0)
        return;
    if (size_t(lost) == m_points.size())
        forgetAllPoints();
    else
        m_points.erase(std::remove_if(m_points.begin(), m_points.end(), gone), m_points.end());
    updateName();
}

bool tzCVisee::move2D(int x, int y, int dx, int dy, int screenWidth, int screenHeight)
{
    Q_UNUSED(x)
    Q_UNUSED(y)
    m_screenPos[0] += float(dx) / float(screenWidth);
    m_screenPos[1] += float(dy) / float(screenHeight);
    return true;
}

void tzCVisee::drawEntity(QOpenGLFunctions_2_1 *gl)
{
    Q_UNUSED(gl) // a sight draws through drawMeOnly, which needs the whole context
}

void tzCVisee::drawMeOnly(tzDrawContext &context)
{
    QOpenGLFunctions_2_1 *gl = context.glFunctions;
    if (!gl || (context.drawingFlags & 0x804) != TZ_DRAW_FOREGROUND)
        return;
    if (!context.is3D()) {
        if (context.is2D())
            draw2D(context);
        return;
    }
    const bool picking = context.isPicking();
    if (m_shownIn2D && !m_points.empty() && !picking)
        projectPoints(gl);
    if (picking)
        gl->glPushName(getUniqueID());
    const QColor colour = isSelected() && !picking ? QColor(Qt::red) : context.labelDefaultColor;
    // The companion's coordinates brought into the cloud's frame.
    const TZVector3d p = m_frame->toScene(coordinates());
    const float scale = float(m_relMarkerScale * context.labelMarkerSize * pixelSizeAt(context, p));
    if (context.spheres && !picking) {
        context.spheres->addSphere(TZVector3(float(p.x), float(p.y), float(p.z)), scale, colour);
        return;
    }
    const GLuint list = markerList(gl, context.qGLContext, context, colour);
    gl->glMatrixMode(GL_MODELVIEW);
    gl->glPushMatrix();
    gl->glTranslatef(float(p.x), float(p.y), float(p.z));
    gl->glScalef(scale, scale, scale);
    // The marker is not in the scene: in a picking pass the sight's name stays innermost.
    if (list) {
        gl->glCallList(list);
    } else {
        tzDrawContext markerContext = context;
        markerContext.drawingFlags &= ~(TZ_ENTITY_PICKING | TZ_FAST_ENTITY_PICKING);
        pointMarker().setTempColor(colour);
        pointMarker().draw(markerContext);
    }
    gl->glPopMatrix();
    if (picking)
        gl->glPopName();
}

void tzCVisee::projectPoints(QOpenGLFunctions_2_1 *gl)
{
    const tzWindowProjection projection(gl);
    for (unsigned i = 0; i < m_points.size(); ++i) {
        PickedPoint &p = m_points[i];
        if (!projection.project(pointOf(i), p.pos2D[0], p.pos2D[1])) // behind the camera
            p.pos2D[0] = p.pos2D[1] = std::numeric_limits<double>::quiet_NaN();
    }
}

QVector<QStringList> tzCVisee::boxRows(int precision) const
{
    const auto n = [precision](double v) { return QString::number(v, 'f', precision); };
    QVector<QStringList> rows;
    switch (m_points.size()) {
    case 1: {
        // The height as the viewer gives it for a shifted cloud (z / S - Tz), with the decimals
        // the surveyor chose.
        const int decimals = tzLumivertSettings::heightDecimals();
        const bool simple = tzLumivertSettings::simplePointMode();
        const tzGenericPointCloud *cloud = m_points[0].cloud;
        const double z
            = cloud ? pointOf(0).z / cloud->getGlobalScale() - cloud->getGlobalShift().z : 0.0;
        rows << QStringList {simple ? QStringLiteral("Z_Ombre") : QStringLiteral("Z_Point"),
                             QString::number(z, 'f', decimals)};
        break;
    }
    case 2: {
        const TZVector3 d = pointOf(1) - pointOf(0);
        const QString delta = QString(QChar(0x0394));
        rows << QStringList {delta + QLatin1Char('X'), n(d.x), delta + QStringLiteral("XY"),
                             n(std::hypot(d.x, d.y))};
        rows << QStringList {delta + QLatin1Char('Y'), n(d.y), delta + QStringLiteral("XZ"),
                             n(std::hypot(d.x, d.z))};
        rows << QStringList {delta + QLatin1Char('Z'), n(d.z), delta + QStringLiteral("ZY"),
                             n(std::hypot(d.z, d.y))};
        break;
    }
    case 3: {
        const TZVector3 A = pointOf(0), B = pointOf(1), C = pointOf(2);
        const auto angle = [](const TZVector3 &u, const TZVector3 &v) {
            const double c = double(u.dot(v)) / (double(u.norm()) * double(v.norm()));
            return std::acos(std::max(-1.0, std::min(1.0, c))) * 180.0 / M_PI;
        };
        const double angles[3] = {angle(B - A, C - A), angle(C - B, A - B), angle(A - C, B - C)};
        for (unsigned i = 0; i < 3; ++i) {
            const QChar corner = QLatin1Char(char('A' + i));
            rows << QStringList {QStringLiteral("index.") + corner,
                                 QString::number(m_points[i].index),
                                 QStringLiteral("angle.") + corner, n(angles[i])};
        }
        break;
    }
    default:
        break;
    }
    return rows;
}

void tzCVisee::draw2D(tzDrawContext &context)
{
    if (!m_shownIn2D || m_points.empty() || context.glW <= 0 || context.glH <= 0)
        return;
    QOpenGLFunctions_2_1 *gl = context.glFunctions;
    const int W = context.glW, H = context.glH;
    // The 2D frame has its origin at the view's centre, y up; pos2D and texts use the lower-left
    // corner; the box is placed from the upper-left corner (y down).
    const double cx = W * 0.5, cy = H * 0.5;
    const bool picking = context.isPicking();
    const QColor colour = isSelected() && !picking ? QColor(Qt::red) : context.labelDefaultColor;

    const QFont &font = context.labelFont;
    QFont titleFont = font;
    titleFont.setBold(true);
    const QFontMetrics metrics(font), titleMetrics(titleFont);
    const int margin = 5, gap = 2 * margin, rowH = metrics.height();
    const QVector<QStringList> rows
        = m_fullBodyShown ? boxRows(context.dispNumberPrecision) : QVector<QStringList>();
    // The companion's number once it has one, else what the points are.
    const QString title = m_name.isEmpty() ? pointsName() : getName();
    int widths[4] = {0, 0, 0, 0};
    for (const QStringList &row : rows) {
        for (int c = 0; c < row.size() && c < 4; ++c)
            widths[c] = std::max(widths[c], metrics.horizontalAdvance(row[c]));
    }
    int tableW = 0;
    for (int c = 0; c < 4; ++c)
        tableW += widths[c] + (widths[c] > 0 && c > 0 ? gap : 0);
    const int boxW = 2 * margin + std::max(tableW, titleMetrics.horizontalAdvance(title));
    const int boxH
        = 2 * margin + titleMetrics.height() + (rows.isEmpty() ? 0 : margin + rows.size() * rowH);
    const int left = int(m_screenPos[0] * W), top = int(m_screenPos[1] * H);
    m_labelRect = QRect(left, top, boxW, boxH);
    m_lastScreenPos[0] = left;
    m_lastScreenPos[1] = top;
    const float x0 = float(left - cx), x1 = float(left + boxW - cx);
    const float y0 = float(cy - top), y1 = float(cy - top - boxH);

    if (picking) {
        // The box is what a click or a drag takes hold of.
        gl->glPushName(getUniqueID());
        gl->glRectf(x0, y1, x1, y0);
        gl->glPopName();
        return;
    }

    const auto visible = [](const PickedPoint &p) { return std::isfinite(p.pos2D[0]); };
    gl->glPushAttrib(GL_COLOR_BUFFER_BIT | GL_CURRENT_BIT | GL_LINE_BIT);
    gl->glEnable(GL_BLEND);
    gl->glBlendFunc(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA);
    gl->glLineWidth(1.f);
    gl->glColor3ub(GLubyte(colour.red()), GLubyte(colour.green()), GLubyte(colour.blue()));
    if (m_points.size() >= 2) {
        gl->glBegin(m_points.size() == 2 ? GL_LINES : GL_LINE_LOOP);
        for (const PickedPoint &p : m_points) {
            if (visible(p))
                gl->glVertex2d(p.pos2D[0] - cx, p.pos2D[1] - cy);
        }
        gl->glEnd();
    } else if (m_fullBodyShown && visible(m_points[0])) {
        // A leader from the box's nearest corner to the point.
        const double px = m_points[0].pos2D[0] - cx, py = m_points[0].pos2D[1] - cy;
        gl->glBegin(GL_LINES);
        gl->glVertex2d(px, py);
        gl->glVertex2d(std::abs(px - x0) < std::abs(px - x1) ? x0 : x1,
                       std::abs(py - y0) < std::abs(py - y1) ? y0 : y1);
        gl->glEnd();
    }
    if (m_fullBodyShown) {
        // A half-transparent dark box, outlined in the label's colour: legible on any cloud.
        gl->glColor4f(0.08f, 0.09f, 0.12f, 0.72f);
        gl->glRectf(x0, y1, x1, y0);
        gl->glColor3ub(GLubyte(colour.red()), GLubyte(colour.green()), GLubyte(colour.blue()));
        gl->glBegin(GL_LINE_LOOP);
        gl->glVertex2f(x0 + 0.5f, y0 - 0.5f);
        gl->glVertex2f(x1 - 0.5f, y0 - 0.5f);
        gl->glVertex2f(x1 - 0.5f, y1 + 0.5f);
        gl->glVertex2f(x0 + 0.5f, y1 + 0.5f);
        gl->glEnd();
    }
    gl->glPopAttrib();

    tzGenericGLDisplay *display = context.display;
    if (!display)
        return;
    if (m_pointLegendsShown) {
        for (unsigned i = 0; i < m_points.size(); ++i) {
            const PickedPoint &p = m_points[i];
            if (!visible(p))
                continue;
            const QString legend = m_points.size() == 1 ? title
                : m_points.size() == 2                  ? QStringLiteral("P#%0").arg(p.index)
                                                        : QString(QLatin1Char(char('A' + i)));
            const int shift = int(context.labelMarkerSize * m_relMarkerScale) + 2;
            display->displayText(legend, int(p.pos2D[0]) + shift, int(p.pos2D[1]) + shift,
                                 Qt::AlignLeft | Qt::AlignBottom, 0.55f, colour, &font);
        }
    }
    if (!m_fullBodyShown)
        return;
    // Texts: anchors from the lower-left corner, at the top of each cell.
    int y = top + margin;
    display->displayText(title, left + margin, H - y, Qt::AlignLeft | Qt::AlignTop, 0.f, colour,
                         &titleFont);
    y += titleMetrics.height() + margin;
    const QColor text(240, 240, 240);
    for (const QStringList &row : rows) {
        int x = left + margin;
        for (int c = 0; c < row.size() && c < 4; ++c) {
            if (c > 0)
                x += gap;
            // Labels left-aligned, numbers right-aligned in their column.
            if (c % 2 == 0)
                display->displayText(row[c], x, H - y, Qt::AlignLeft | Qt::AlignTop, 0.f,
                                     QColor(200, 205, 215), &font);
            else
                display->displayText(row[c], x + widths[c], H - y, Qt::AlignRight | Qt::AlignTop,
                                     0.f, text, &font);
            x += widths[c];
        }
        y += rowH;
    }
}

bool tzCVisee::toFile_MeOnly(QIODevice &out) const
{
    if (!tzCustomHObject::toFile_MeOnly(out))
        return false;
    bool ok = write<quint32>(out, quint32(m_points.size()));
    for (const PickedPoint &p : m_points)
        ok = ok && write<quint32>(out, p.index)
            && write<quint32>(out, p.cloud ? p.cloud->getUniqueID() : 0u);
    ok = ok && write(out, m_screenPos[0]) && write(out, m_screenPos[1])
        && write<quint8>(out, m_fullBodyShown) && write<quint8>(out, m_shownIn2D)
        && write<quint8>(out, m_pointLegendsShown);
    return ok || fail(WriteError);
}

bool tzCVisee::fromFile_MeOnly(QIODevice &in, short dataVersion, LoadedIDMap &oldToNew)
{
    if (!tzCustomHObject::fromFile_MeOnly(in, dataVersion, oldToNew))
        return false;
    quint32 count = 0;
    if (!read(in, count))
        return fail(ReadError);
    if (count > MAX_POINTS)
        return fail(MemoryError);
    m_points.clear();
    m_loadedCloudIDs.clear();
    for (quint32 i = 0; i < count; ++i) {
        quint32 index = 0, cloudID = 0;
        if (!read(in, index) || !read(in, cloudID))
            return fail(ReadError);
        PickedPoint p;
        p.index = index;
        m_points.push_back(p);
        m_loadedCloudIDs.push_back(cloudID);
    }
    quint8 fullBody = 1;
    if (!read(in, m_screenPos[0]) || !read(in, m_screenPos[1]) || !read(in, fullBody))
        return fail(ReadError);
    m_fullBodyShown = fullBody != 0;
    if (dataVersion >= 21) {
        quint8 shown = 1, legends = 0;
        if (!read(in, shown) || !read(in, legends))
            return fail(ReadError);
        m_shownIn2D = shown != 0;
        m_pointLegendsShown = legends != 0;
    }
    // What only the metadata keeps.
    m_ident = getMetaData(QStringLiteral("ident")).toInt();
    m_number = getMetaData(QStringLiteral("number")).toString();
    m_coordX = getMetaData(QStringLiteral("Coord x")).toDouble();
    m_coordY = getMetaData(QStringLiteral("Coord y")).toDouble();
    m_coordZ = getMetaData(QStringLiteral("Coord z")).toDouble();
    return true;
}

bool tzCVisee::resolveLoadedReferences(const LoadedIDMap &oldToNew)
{
    // A point whose cloud is not in the file is dropped: the sight keeps its other points.
    std::vector<PickedPoint> points;
    for (size_t i = 0; i < m_points.size() && i < m_loadedCloudIDs.size(); ++i) {
        auto *cloud = dynamic_cast<tzGenericPointCloud *>(oldToNew.value(m_loadedCloudIDs[i]));
        if (!cloud || m_points[i].index >= cloud->size()) {
            qWarning("[tzCVisee] '%s': point #%u refers to a cloud that is not in the file; "
                     "dropped",
                     qPrintable(getName()), m_points[i].index);
            continue;
        }
        PickedPoint p = m_points[i];
        p.cloud = cloud;
        points.push_back(p);
        cloud->addDependency(this, DP_NOTIFY_OTHER_ON_DELETE, true);
    }
    m_points = std::move(points);
    m_loadedCloudIDs.clear();
    // Drawn in the frame of the scene's first cloud (a scene opened on its own, no run).
    const tzHObject *top = this;
    while (top->getParent())
        top = top->getParent();
    auto frame = std::make_shared<tzCoordinateFrame>();
    frame->captureFrom(top);
    m_frame = std::move(frame);
    return true;
}
