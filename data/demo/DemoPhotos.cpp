#include "DemoPhotos.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace demo {

namespace {

Vec cross(const Vec &a, const Vec &b)
{
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}

Vec unit(const Vec &v)
{
    const double n = std::sqrt(v.x * v.x + v.y * v.y + v.z * v.z);
    return {v.x / n, v.y / n, v.z / n};
}

double dot(const Vec &a, const Vec &b)
{
    return a.x * b.x + a.y * b.y + a.z * b.z;
}

QRgb mix(QRgb a, QRgb b, double t)
{
    return qRgb(int(qRed(a) + (qRed(b) - qRed(a)) * t),
                int(qGreen(a) + (qGreen(b) - qGreen(a)) * t),
                int(qBlue(a) + (qBlue(b) - qBlue(a)) * t));
}

const QRgb ZENITH = qRgb(118, 164, 222);
const QRgb HORIZON = qRgb(214, 224, 232);
const QRgb FAR_GROUND = qRgb(150, 158, 130);

} // namespace

Camera Camera::looking(const QString &name, Vec position, double heading, double tilt)
{
    Camera c;
    c.name = name;
    c.position = position;
    c.forward = unit(
        {std::sin(heading) * std::cos(tilt), std::cos(heading) * std::cos(tilt), -std::sin(tilt)});
    c.right = unit(cross(c.forward, {0, 0, 1}));
    c.up = cross(c.right, c.forward);
    return c;
}

void Camera::angles(double &roll, double &pitch, double &yaw) const
{
    // Row 0 of R is (right.x, up.x, -forward.x), row 1 (right.y, up.y, -forward.y), ...
    const double r00 = right.x, r01 = up.x, r02 = -forward.x;
    const double r12 = -forward.y, r22 = -forward.z;
    pitch = std::asin(std::clamp(r02, -1.0, 1.0));
    yaw = std::atan2(-r01, r00);
    roll = std::atan2(-r12, r22);
}

std::vector<Camera> demoStations(const Scene &scene)
{
    std::vector<Camera> cameras;
    const double side = scene.side();
    const double eye = 1.8;
    // Along the road, looking up and down it, slightly down.
    const double along[] = {0.1, 0.35, 0.6, 0.85};
    int index = 1;
    for (double fx : along) {
        const double x = fx * side;
        const double y = scene.roadY(x) - 0.5 * scene.roadHalfWidth();
        const double z = scene.ground(x, scene.roadY(x)) + eye;
        // Heading of the road (east-going), or the other way every second station.
        double heading = 0.5 * M_PI - scene.roadAngle(x);
        if (index % 2 == 0)
            heading += M_PI;
        cameras.push_back(Camera::looking(QStringLiteral("IMG_%1").arg(index++, 4, 10, QChar('0')),
                                          {x, y, z}, heading, 0.12));
    }
    // From a mast south of the middle of the site, over the road to the buildings.
    const double x = 0.5 * side, y = 0.04 * side;
    cameras.push_back(Camera::looking(QStringLiteral("IMG_%1").arg(index++, 4, 10, QChar('0')),
                                      {x, y, scene.ground(x, y) + std::max(6.0, 0.12 * side)}, 0.0,
                                      0.5));
    return cameras;
}

QImage render(const Camera &camera, const std::vector<Point> &points, double spacing)
{
    const int W = camera.width, H = camera.height;
    const double f = camera.f;
    QImage image(W, H, QImage::Format_RGB32);
    // The sky by its height over the horizon, and far ground below it.
    for (int v = 0; v < H; ++v) {
        QRgb *row = reinterpret_cast<QRgb *>(image.scanLine(v));
        for (int u = 0; u < W; ++u) {
            const double a = (u + 0.5 - 0.5 * W) / f, b = (0.5 * H - v - 0.5) / f;
            const Vec ray = unit({camera.forward.x + a * camera.right.x + b * camera.up.x,
                                  camera.forward.y + a * camera.right.y + b * camera.up.y,
                                  camera.forward.z + a * camera.right.z + b * camera.up.z});
            row[u] = ray.z < 0 ? FAR_GROUND : mix(HORIZON, ZENITH, std::min(1.0, 2.5 * ray.z));
        }
    }
    std::vector<float> depth(size_t(W) * H, std::numeric_limits<float>::max());
    const double nearest = 0.3;
    for (const Point &p : points) {
        const Vec d {p.x - camera.position.x, p.y - camera.position.y, p.z - camera.position.z};
        const double z = dot(d, camera.forward);
        if (z < nearest)
            continue;
        const double cu = 0.5 * W + f * dot(d, camera.right) / z;
        const double cv = 0.5 * H - f * dot(d, camera.up) / z;
        // The disc covers the ground a point stands for; a little haze far away.
        const double radius = std::clamp(0.6 * f * spacing / z, 0.5, 40.0);
        if (cu + radius < 0 || cv + radius < 0 || cu - radius >= W || cv - radius >= H)
            continue;
        const QRgb colour = mix(qRgb(p.r, p.g, p.b), HORIZON, std::min(0.35, z / 500.0));
        const int u0 = std::max(0, int(cu - radius)), u1 = std::min(W - 1, int(cu + radius));
        const int v0 = std::max(0, int(cv - radius)), v1 = std::min(H - 1, int(cv + radius));
        for (int v = v0; v <= v1; ++v) {
            QRgb *row = reinterpret_cast<QRgb *>(image.scanLine(v));
            float *depths = depth.data() + size_t(v) * W;
            for (int u = u0; u <= u1; ++u) {
                if (float(z) < depths[u]) {
                    depths[u] = float(z);
                    row[u] = colour;
                }
            }
        }
    }
    return image;
}

QByteArray photoList(const std::vector<Camera> &cameras)
{
    QByteArray json = "{\"images\": [\n";
    for (size_t i = 0; i < cameras.size(); ++i) {
        const Camera &c = cameras[i];
        double roll = 0, pitch = 0, yaw = 0;
        c.angles(roll, pitch, yaw);
        json
            += QString::asprintf(
                   "  {\"camname\": \"%s\", \"camX\": %.3f, \"camY\": %.3f, \"camZ\": %.3f, "
                   "\"roll\": %.9f, \"pitch\": %.9f, \"yaw\": %.9f, \"Vx\": %.9f, \"Vy\": %.9f, "
                   "\"Vz\": %.9f, \"f\": %.1f, \"cx\": %.1f, \"cy\": %.1f}%s\n",
                   qPrintable(c.name), ORIGIN_X + c.position.x, ORIGIN_Y + c.position.y,
                   ORIGIN_Z + c.position.z, roll, pitch, yaw, c.forward.x, c.forward.y, c.forward.z,
                   c.f, 0.5 * c.width, 0.5 * c.height, i + 1 < cameras.size() ? "," : "")
                   .toUtf8();
    }
    json += "]}\n";
    return json;
}

} // namespace demo
