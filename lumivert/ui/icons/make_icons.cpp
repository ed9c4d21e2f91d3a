// Draws the plug-in's tool bar icons (32 x 31 pixels, transparent) into the folder given.
// Every shape has a dark outline round a light or coloured fill, so that the icons read on a
// light tool bar and on a dark 3D view alike.
//
//   make_icons <folder>        (the build target lumivert_icons runs it on this folder)

#include <QDir>
#include <QGuiApplication>
#include <QImage>
#include <QPainter>
#include <QPainterPath>

#include <cmath>
#include <cstdio>
#include <functional>

namespace {

constexpr int W = 32;
constexpr int H = 31;
const QColor INK(32, 32, 36);
const QColor GREEN(46, 160, 67);
const QColor RED(214, 48, 49);
const QColor BLUE(52, 120, 220);
const QColor SAND(230, 190, 90);

// A stroke drawn twice: a wide dark outline, then the colour inside it.
void outlined(QPainter &p, const QPainterPath &path, const QColor &colour, double width)
{
    p.strokePath(path, QPen(INK, width + 2.4, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    p.strokePath(path, QPen(colour, width, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
}

void filled(QPainter &p, const QPainterPath &path, const QColor &fill)
{
    p.setPen(QPen(INK, 1.4, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    p.setBrush(fill);
    p.drawPath(path);
}

QPainterPath line(QPointF a, QPointF b)
{
    QPainterPath path(a);
    path.lineTo(b);
    return path;
}

// The surveyor's target: two rings and a cross.
void target(QPainter &p, QPointF c, double r, const QColor &colour)
{
    QPainterPath rings;
    rings.addEllipse(c, r, r);
    rings.addEllipse(c, r * 0.45, r * 0.45);
    outlined(p, rings, colour, 1.6);
    QPainterPath cross = line({c.x() - r - 2, c.y()}, {c.x() + r + 2, c.y()});
    cross.addPath(line({c.x(), c.y() - r - 2}, {c.x(), c.y() + r + 2}));
    outlined(p, cross, colour, 1.2);
}

void camera(QPainter &p, const QColor &body)
{
    QPainterPath box;
    box.addRoundedRect(QRectF(4, 10, 22, 15), 3, 3);
    box.addRect(QRectF(9, 7, 8, 4));
    filled(p, box.simplified(), body);
    QPainterPath lens;
    lens.addEllipse(QPointF(15, 17.5), 4.6, 4.6);
    filled(p, lens, QColor(200, 225, 255));
}

void slash(QPainter &p)
{
    outlined(p, line({4, 27}, {28, 4}), RED, 2.6);
}

void viewCone(QPainter &p, const QColor &colour)
{
    QPainterPath cone(QPointF(25, 17.5));
    cone.lineTo(31, 9);
    cone.moveTo(25, 17.5);
    cone.lineTo(31, 26);
    outlined(p, cone, colour, 1.6);
}

bool save(const QString &folder, const char *name, const std::function<void(QPainter &)> &draw)
{
    QImage image(W, H, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing);
    draw(p);
    p.end();
    const QString path = QDir(folder).filePath(QString::fromLatin1(name) + QStringLiteral(".png"));
    if (!image.save(path)) {
        std::fprintf(stderr, "make_icons: cannot write '%s'\n", qPrintable(path));
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    if (argc < 2) {
        std::fprintf(stderr, "usage: make_icons <folder>\n");
        return 2;
    }
    const QString folder = QString::fromLocal8Bit(argv[1]);
    bool ok = true;

    // A sight on the point under the mouse.
    ok &= save(folder, "Cible", [](QPainter &p) { target(p, {16, 15.5}, 10, GREEN); });
    // A sight on the lowest point: a target above an arrow down to the ground.
    ok &= save(folder, "Zbas", [](QPainter &p) {
        target(p, {16, 9}, 6.5, GREEN);
        QPainterPath arrow = line({16, 17}, {16, 26});
        arrow.addPath(line({12, 22.5}, {16, 26.5}));
        arrow.addPath(line({20, 22.5}, {16, 26.5}));
        outlined(p, arrow, BLUE, 1.8);
        outlined(p, line({5, 29}, {27, 29}), SAND, 2.0);
    });
    // The distance between two points: two markers and a dimension line.
    ok &= save(folder, "smallPointDistance25", [](QPainter &p) {
        const QPointF a(6, 24), b(26, 8);
        // The dimension line, offset from the two points with its end ticks.
        const QPointF n(-0.62, -0.78); // unit normal of a-b, towards the top left
        const QPointF a2 = a + n * 5, b2 = b + n * 5;
        QPainterPath dim = line(a2, b2);
        dim.addPath(line(a + n * 2, a + n * 7.5));
        dim.addPath(line(b + n * 2, b + n * 7.5));
        outlined(p, dim, SAND, 1.4);
        for (QPointF c : {a, b}) {
            QPainterPath dot;
            dot.addEllipse(c, 3.8, 3.8);
            filled(p, dot, GREEN);
        }
    });
    // Photos shown (camera) or hidden (camera struck out).
    ok &= save(folder, "cameraOn", [](QPainter &p) { camera(p, QColor(235, 235, 235)); });
    ok &= save(folder, "cameraOff", [](QPainter &p) {
        camera(p, QColor(170, 170, 170));
        slash(p);
    });
    // Photo viewing directions shown or hidden: a camera with its view cone.
    ok &= save(folder, "cameraAngleOn", [](QPainter &p) {
        camera(p, QColor(235, 235, 235));
        viewCone(p, SAND);
    });
    ok &= save(folder, "cameraAngleOff", [](QPainter &p) {
        camera(p, QColor(170, 170, 170));
        viewCone(p, QColor(150, 150, 150));
        slash(p);
    });
    // Options: a gear.
    ok &= save(folder, "gearIcon", [](QPainter &p) {
        QPainterPath gear;
        const QPointF c(16, 15.5);
        for (int i = 0; i < 16; ++i) {
            const double a = i * 3.14159265358979 / 8;
            const double r = (i % 2 == 0) ? 12.5 : 9.5;
            const QPointF q(c.x() + r * std::cos(a), c.y() + r * std::sin(a));
            const QPointF q2(c.x() + r * std::cos(a + 0.39), c.y() + r * std::sin(a + 0.39));
            if (i == 0)
                gear.moveTo(q);
            else
                gear.lineTo(q);
            gear.lineTo(q2);
        }
        gear.closeSubpath();
        QPainterPath hole;
        hole.addEllipse(c, 4, 4);
        filled(p, gear.subtracted(hole), QColor(190, 196, 204));
    });
    // Close the run: a red cross.
    ok &= save(folder, "smallCancel25", [](QPainter &p) {
        QPainterPath cross = line({8, 7.5}, {24, 23.5});
        cross.addPath(line({24, 7.5}, {8, 23.5}));
        outlined(p, cross, RED, 3.2);
    });
    // The link with the companion: a closed green chain, or a broken grey one.
    const auto link = [](QPainter &p, const QColor &colour, bool broken) {
        QPainterPath left, right;
        left.addRoundedRect(QRectF(3, 10, 14, 11), 5.5, 5.5);
        right.addRoundedRect(QRectF(broken ? 17 : 15, 10, 14, 11), 5.5, 5.5);
        outlined(p, left, colour, 2.2);
        outlined(p, right, colour, 2.2);
        if (broken) {
            outlined(p, line({16, 4}, {14, 8}), RED, 1.6);
            outlined(p, line({16, 27}, {18, 23}), RED, 1.6);
        }
    };
    ok &= save(folder, "ConnecteOn", [&](QPainter &p) { link(p, GREEN, false); });
    ok &= save(folder, "ConnecteOff", [&](QPainter &p) { link(p, QColor(160, 160, 160), true); });
    // The plug-in: a green target over a pin of terrain.
    ok &= save(folder, "icon", [](QPainter &p) {
        QPainterPath ground(QPointF(2, 27));
        ground.cubicTo(10, 22, 18, 30, 30, 24);
        outlined(p, ground, SAND, 2.2);
        target(p, {16, 12}, 8.5, GREEN);
    });
    return ok ? 0 : 1;
}
