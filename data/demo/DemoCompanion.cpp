#include "DemoCompanion.h"

#include <QByteArrayList>
#include <QString>

#include <cmath>
#include <vector>

namespace demo {

namespace {

struct Xyz
{
    double x, y, z;
};

QByteArray vertex(const Xyz &p)
{
    return QString::asprintf("{\"X\": %.3f, \"Y\": %.3f, \"Z\": %.3f}", ORIGIN_X + p.x,
                             ORIGIN_Y + p.y, ORIGIN_Z + p.z)
        .toUtf8();
}

QByteArray colour(int r, int g, int b)
{
    return QString::asprintf("\"Rcolor\": %d, \"Gcolor\": %d, \"Bcolor\": %d", r, g, b).toUtf8();
}

QByteArray shape(const char *type, const QByteArray &rgb, const std::vector<Xyz> &points)
{
    QByteArray out = QByteArray("{\"type\": \"") + type + "\", " + rgb + ", \"vertex\": [";
    for (size_t i = 0; i < points.size(); ++i)
        out += (i ? ", " : "") + vertex(points[i]);
    return out + "]}";
}

QByteArray circle(const QByteArray &rgb, const Xyz &centre, double radius)
{
    return "{\"type\": \"XCircle\", " + rgb + ", \"center\": " + vertex(centre)
        + QString::asprintf(", \"radius\": %.3f}", radius).toUtf8();
}

QByteArray sight(int ident, int number, const Xyz &p)
{
    return QString::asprintf("{\"type\": \"CVisee\", \"ident\": %d, \"number\": \"%d\", ", ident,
                             number)
               .toUtf8()
        + colour(255, 220, 0) + ", \"coord\": " + vertex(p) + "}\n";
}

QByteArray symbol(int ident, const QList<QByteArray> &entities)
{
    return QString::asprintf("{\"type\": \"XSymbole\", \"ident\": %d, \"entities\": [{\"type\": "
                             "\"XInsert\", \"entities\": [",
                             ident)
               .toUtf8()
        + entities.join(", ") + "]}]}\n";
}

} // namespace

QByteArray companionScript(const Scene &scene)
{
    QByteArray script = "# The companion's objects on the demo survey (mensurix-sim --script).\n"
                        "# Sights at the corners of the first building's eaves.\n";
    int ident = 1;
    if (!scene.buildings().empty()) {
        const Building &b = scene.buildings().front();
        const double z = b.base + b.eaves;
        for (const Xyz &corner : {Xyz {b.x0, b.y0, z}, Xyz {b.x1, b.y0, z}, Xyz {b.x1, b.y1, z}}) {
            script += sight(ident, 1000 + ident, corner);
            ++ident;
        }
    }
    // A manhole on the road a third of the way along: its cover and a cross.
    const double mx = scene.side() / 3, my = scene.roadY(mx);
    const double mz = scene.ground(mx, my);
    const QByteArray white = colour(255, 255, 255), red = colour(255, 40, 40);
    script += "# A manhole on the road, the outline of a building, a tree's crown.\n";
    script += symbol(
        100,
        {circle(red, {mx, my, mz}, 0.6),
         shape("XLine", red,
               {{mx - 0.9, my, mz}, {mx + 0.9, my, mz}, {mx, my - 0.9, mz}, {mx, my + 0.9, mz}})});
    int next = 101;
    for (const Building &b : scene.buildings()) {
        const double z = b.base;
        script += symbol(next++,
                         {shape("XPolyline", colour(0, 200, 255),
                                {{b.x0, b.y0, z},
                                 {b.x1, b.y0, z},
                                 {b.x1, b.y1, z},
                                 {b.x0, b.y1, z},
                                 {b.x0, b.y0, z}})});
    }
    int trees = 0;
    for (const Plant &p : scene.plants()) {
        if (!p.tree)
            continue;
        if (trees++ == 3)
            break;
        const double z = scene.ground(p.x, p.y);
        const double r = p.radius;
        script += symbol(next++,
                         {circle(colour(60, 255, 60), {p.x, p.y, z}, r),
                          shape("XArc", colour(255, 160, 0),
                                {{p.x - r, p.y, z},
                                 {p.x - r * std::sqrt(0.5), p.y + r * std::sqrt(0.5), z},
                                 {p.x, p.y + r, z}})});
    }
    // The road's centre line and its edges, as lines every few metres (an XPolyline is drawn
    // closed: the centre line as one would run back across the site from its end to its start).
    script += "# The alignment of the road.\n";
    std::vector<Xyz> centre;
    QList<QByteArray> entities;
    const int steps = std::max(4, int(scene.side() / 4));
    for (int i = 0; i <= steps; ++i) {
        const double x = scene.side() * i / steps;
        centre.push_back({x, scene.roadY(x), scene.ground(x, scene.roadY(x))});
    }
    for (size_t i = 0; i + 1 < centre.size(); ++i)
        entities << shape("XLine", colour(255, 255, 0), {centre[i], centre[i + 1]});
    for (const double side : {-1.0, 1.0}) {
        for (size_t i = 0; i + 1 < centre.size(); ++i) {
            const double offset = side * scene.roadHalfWidth();
            const double a0 = scene.roadAngle(centre[i].x), a1 = scene.roadAngle(centre[i + 1].x);
            entities << shape("XLine", white,
                              {{centre[i].x - offset * std::sin(a0),
                                centre[i].y + offset * std::cos(a0), centre[i].z},
                               {centre[i + 1].x - offset * std::sin(a1),
                                centre[i + 1].y + offset * std::cos(a1), centre[i + 1].z}});
        }
    }
    script += "{\"type\": \"XAlignement\", \"ident\": 200, \"entities\": [" + entities.join(", ")
        + "]}\n";
    script += "# The stand-in stays connected for the session.\n!wait 86400000\n";
    return script;
}

} // namespace demo
