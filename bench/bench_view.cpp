// The 3D view on the 10 M point survey terrain, on a real OpenGL context (run it on a display,
// or under tests/xvfb-run.sh):
//  - opening the file in the viewer until its first frame is shown;
//  - picking: the 3D point under a pixel, p50 / p99 over 10,000 pixels, in a top view and in an
//    oblique perspective view;
//  - the frame time of drawing the cloud, against a bare glDrawArrays of the same points from a
//    buffer in the same context (the limit), as a ratio;
//  - the survey attributes (intensity, classes): switching the colour mode until the new colours
//    are on screen against a full frame, a frame with eye-dome shading against the same frame
//    without, and the memory a point's attributes take once read from a LAS file (the same
//    terrain read from a LAS without them, the baseline).
//
//   bench_view [--points=N] [--keep]     (--keep leaves the generated file in the temp folder)

#include "LasFiles.h"
#include "SurveyViewer.h"
#include "tzCloudFile.h"
#include "tzGLWindow.h"
#include "tzMainWindow.h"
#include "tzPointCloud.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QOpenGLBuffer>
#include <QOpenGLFunctions_2_1>
#include <QSignalSpy>

#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <random>

namespace {

using Clock = std::chrono::steady_clock;

// Writes the terrain as a binary PLY in a national grid (double coordinates) with colours.
bool writeSurvey(const bench::Terrain &t, const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    const QByteArray header = "ply\nformat binary_little_endian 1.0\nelement vertex "
        + QByteArray::number(t.cloud.size())
        + "\nproperty double x\nproperty double y\nproperty double z\n"
          "property uchar red\nproperty uchar green\nproperty uchar blue\nend_header\n";
    file.write(header);
    std::vector<char> block;
    block.reserve(27 * 65536);
    for (unsigned i = 0; i < t.cloud.size(); ++i) {
        const TZVector3 &p = t.cloud.point(i);
        const double xyz[3] = {650000.0 + p.x, 6860000.0 + p.y, 100.0 + p.z};
        const unsigned char rgb[3] = {uint8_t(100 + (i % 50)), uint8_t(140 + (i % 70)), 60};
        block.insert(block.end(), reinterpret_cast<const char *>(xyz),
                     reinterpret_cast<const char *>(xyz) + 24);
        block.insert(block.end(), reinterpret_cast<const char *>(rgb),
                     reinterpret_cast<const char *>(rgb) + 3);
        if (block.size() >= 27 * 65536) {
            file.write(block.data(), qint64(block.size()));
            block.clear();
        }
    }
    file.write(block.data(), qint64(block.size()));
    return file.flush();
}

// The memory allocated by this process (in use, mapped apart or not), in bytes.
double allocatedBytes()
{
    const struct mallinfo2 info = mallinfo2();
    return double(info.uordblks) + double(info.hblkhd);
}

// The memory a cloud read from the file holds, per point (read twice, the smaller).
double bytesPerPointRead(const QString &path)
{
    double best = 1e30;
    for (int round = 0; round < 2; ++round) {
        const double before = allocatedBytes();
        QString error;
        std::unique_ptr<tzPointCloud> cloud(tzCloudFile::load(path, error));
        if (!cloud) {
            std::fprintf(stderr, "bench_view: %s\n", qPrintable(error));
            return 0;
        }
        best = std::min(best, (allocatedBytes() - before) / cloud->size());
    }
    return best;
}

struct Percentiles
{
    double p50 = 0, p99 = 0;
    double hitRatio = 0;
};

Percentiles timePicking(tzGLWindow &view, unsigned count)
{
    std::mt19937 rng(99);
    std::uniform_int_distribution<int> px(0, view.width() - 1), py(0, view.height() - 1);
    std::vector<double> us;
    us.reserve(count);
    unsigned hits = 0;
    for (unsigned i = 0; i < count; ++i) {
        const int x = px(rng), y = py(rng);
        TZVector3d P;
        const auto t0 = Clock::now();
        hits += view.getClick3DPos(x, y, P) ? 1 : 0;
        us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
    }
    std::sort(us.begin(), us.end());
    return {us[us.size() / 2], us[us.size() * 99 / 100], double(hits) / count};
}

// A view whose frame can be drawn and timed directly, with a bare draw of the same points beside.
class BenchView : public tzGLWindow
{
public:
    //! Each frame draws the clouds again, unless keepLayer (only the objects over them change).
    double timeFrames(int frames, bool moving = false, bool keepLayer = false)
    {
        if (moving)
            beginInteraction();
        makeCurrent();
        paintGL(); // uploads the buffers
        functions()->glFinish();
        const auto t0 = Clock::now();
        for (int i = 0; i < frames; ++i) {
            if (!keepLayer)
                deprecate3DLayer();
            paintGL();
        }
        functions()->glFinish();
        const double ms
            = std::chrono::duration<double, std::milli>(Clock::now() - t0).count() / frames;
        doneCurrent();
        if (moving)
            endInteraction();
        return ms;
    }

    //! From a change of the cloud's colour mode to the frame that shows it.
    double timeSwitch(tzPointCloud &cloud, tzPointDisplay::ColourMode mode)
    {
        makeCurrent();
        functions()->glFinish();
        const auto t0 = Clock::now();
        cloud.setColourMode(mode);
        paintGL();
        functions()->glFinish();
        const double ms = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
        doneCurrent();
        return ms;
    }

    double timeBareFrames(const tzPointCloud &cloud, int frames)
    {
        makeCurrent();
        QOpenGLFunctions_2_1 *gl = functions();
        QOpenGLBuffer points(QOpenGLBuffer::VertexBuffer), colors(QOpenGLBuffer::VertexBuffer);
        points.create();
        points.bind();
        points.allocate(cloud.data(), int(sizeof(TZVector3) * cloud.size()));
        colors.create();
        colors.bind();
        colors.allocate(cloud.colorData(), int(sizeof(tzRgb) * cloud.size()));
        const auto frame = [&] {
            gl->glViewport(0, 0, width(), height());
            gl->glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
            gl->glEnable(GL_DEPTH_TEST);
            gl->glMatrixMode(GL_PROJECTION);
            gl->glLoadMatrixf(camera().projection().constData());
            gl->glMatrixMode(GL_MODELVIEW);
            gl->glLoadMatrixf(camera().modelView().constData());
            gl->glPointSize(getPointSize());
            gl->glEnableClientState(GL_VERTEX_ARRAY);
            gl->glEnableClientState(GL_COLOR_ARRAY);
            points.bind();
            gl->glVertexPointer(3, GL_FLOAT, 0, nullptr);
            colors.bind();
            gl->glColorPointer(3, GL_UNSIGNED_BYTE, 0, nullptr);
            gl->glDrawArrays(GL_POINTS, 0, GLsizei(cloud.size()));
            gl->glDisableClientState(GL_COLOR_ARRAY);
            gl->glDisableClientState(GL_VERTEX_ARRAY);
        };
        frame();
        gl->glFinish();
        const auto t0 = Clock::now();
        for (int i = 0; i < frames; ++i)
            frame();
        gl->glFinish();
        const double ms
            = std::chrono::duration<double, std::milli>(Clock::now() - t0).count() / frames;
        points.destroy();
        colors.destroy();
        doneCurrent();
        return ms;
    }
};

} // namespace

int main(int argc, char **argv)
{
    unsigned points = 10000000;
    bool keep = false;
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "--points=", 9) == 0)
            points = unsigned(std::strtoul(argv[i] + 9, nullptr, 10));
        else if (std::strcmp(argv[i], "--keep") == 0)
            keep = true;
    }
    QSurfaceFormat::setDefaultFormat(tzGLWindow::defaultFormat());
    QApplication app(argc, argv);
    QApplication::setOrganizationName(QStringLiteral("TessaroBench"));
    QApplication::setApplicationName(QStringLiteral("bench_view"));

    const QString path
        = QDir::temp().filePath(QStringLiteral("tessaro_bench_view_%1.ply").arg(points));
    if (!QFileInfo::exists(path)) {
        bench::Terrain terrain;
        bench::makeTerrain(terrain, points);
        if (!writeSurvey(terrain, path)) {
            std::fprintf(stderr, "bench_view: cannot write '%s'\n", qPrintable(path));
            return 1;
        }
    }
    const double fileMB = QFileInfo(path).size() / 1e6;

    // Open in the viewer, as a user does, until the first frame with the cloud is drawn.
    tzMainWindow window(bench::viewerOptions());
    window.resize(1280, 800);
    window.show();
    QSignalSpy opened(&window, &tzMainWindow::fileOpened);
    QElapsedTimer openTimer;
    openTimer.start();
    window.openFiles({path});
    if (!opened.wait(120000) || window.databaseRoot()->getChildrenNumber() == 0) {
        std::fprintf(stderr, "bench_view: '%s' did not open\n", qPrintable(path));
        return 1;
    }
    tzGLWindow *view = window.activeView();
    QSignalSpy drawn(view, &tzGLWindow::frameDrawn);
    view->redraw();
    drawn.wait(60000);
    const double openSeconds = openTimer.elapsed() / 1000.0;

    // Picking, top view (as opened) then an oblique perspective view.
    const Percentiles top = timePicking(*view, 10000);
    view->setPerspectiveState(true, true);
    view->getViewportParameters();
    {
        const tzViewportParameters p = view->getViewportParameters();
        const TZVector3d pivot = p.pivotPoint;
        const TZVector3d from
            = pivot + TZVector3d(-0.4, -0.6, 0.35) * ((p.cameraCenter - pivot).norm());
        view->setCameraPos(from);
        view->setCustomView(pivot - from, {0, 0, 1});
    }
    const Percentiles oblique = timePicking(*view, 10000);

    // Frame time against the bare draw, top view, 1280 x 800, point size 2.
    auto *cloud = dynamic_cast<tzPointCloud *>(window.databaseRoot()->getChild(0));
    BenchView benchView;
    benchView.resize(view->size());
    benchView.setSceneDB(window.databaseRoot());
    benchView.setPointSize(2);
    benchView.show();
    QSignalSpy benchDrawn(&benchView, &tzGLWindow::frameDrawn);
    benchDrawn.wait(60000);
    benchView.zoomGlobal();
    const int frames = 5;
    double ours = 1e30, bare = 1e30, moving = 1e30, kept = 1e30;
    for (int round = 0; round < 3; ++round) { // alternate, keep the best of each
        moving = std::min(moving, benchView.timeFrames(frames, true));
        ours = std::min(ours, benchView.timeFrames(frames));
        bare = std::min(bare, benchView.timeBareFrames(*cloud, frames));
        kept = std::min(kept, benchView.timeFrames(frames, false, true));
    }

    // The survey attributes: the same terrain from a LAS with an airborne survey's intensities,
    // returns and classes (a fifth of the points vegetation), opened in the viewer as a user
    // does, the PLY cloud hidden; and from a LAS without them (the memory's baseline).
    const QString plainLas = QDir::temp().filePath(QStringLiteral("tessaro_bench_view_plain.las"));
    const QString surveyLas
        = QDir::temp().filePath(QStringLiteral("tessaro_bench_view_survey.las"));
    {
        bench::Terrain terrain;
        bench::makeTerrain(terrain, points);
        if (!bench::writeLas(plainLas, terrain.cloud)
            || !bench::writeSurveyLas(surveyLas, terrain.cloud)) {
            std::fprintf(stderr, "bench_view: cannot write the LAS files\n");
            return 1;
        }
    }
    opened.clear();
    window.openFiles({surveyLas});
    if (!opened.wait(120000) || window.databaseRoot()->getChildrenNumber() != 2) {
        std::fprintf(stderr, "bench_view: '%s' did not open\n", qPrintable(surveyLas));
        return 1;
    }
    cloud->setVisible(false);
    cloud = dynamic_cast<tzPointCloud *>(window.databaseRoot()->getChild(1));
    using Mode = tzPointDisplay::ColourMode;
    cloud->setColourMode(Mode::Classification);
    benchView.setShading(tzGLWindow::Shading::None);
    benchView.timeFrames(1); // this view's buffers of the cloud, as the viewer's own has them
    // Each switch against a full frame of the mode it switches to (the shading as it comes: on
    // but for RGB), each the median of three rounds; the first switches upload what their mode
    // needs, and are shown apart.
    const Mode modes[] = {Mode::Rgb, Mode::Intensity, Mode::Elevation, Mode::Classification};
    const Mode sequence[] = {Mode::Elevation, Mode::Classification, Mode::Intensity, Mode::Rgb};
    std::vector<double> switchInto[tzPointDisplay::COLOUR_MODES],
        frameIn[tzPointDisplay::COLOUR_MODES];
    double classFrame = 1e30, shadedFrame = 1e30;
    for (int round = 0; round < 3; ++round) {
        benchView.setShading(tzGLWindow::Shading::Automatic);
        for (Mode mode : sequence)
            switchInto[int(mode)].push_back(benchView.timeSwitch(*cloud, mode));
        for (Mode mode : modes) {
            cloud->setColourMode(mode);
            frameIn[int(mode)].push_back(benchView.timeFrames(3));
        }
    }
    // Eye-dome shading: plain and shaded frames by class, alternating which comes first, the
    // best of five rounds each.
    cloud->setColourMode(Mode::Classification);
    for (int round = 0; round < 5; ++round) {
        for (int k = 0; k < 2; ++k) {
            const bool shaded = (round + k) % 2 == 1;
            benchView.setShading(shaded ? tzGLWindow::Shading::EyeDome : tzGLWindow::Shading::None);
            double &best = shaded ? shadedFrame : classFrame;
            best = std::min(best, benchView.timeFrames(3));
        }
    }
    const auto median = [](std::vector<double> v) {
        std::sort(v.begin(), v.end());
        return v[v.size() / 2];
    };
    int slowest = 0;
    for (int m = 1; m < tzPointDisplay::COLOUR_MODES; ++m) {
        if (median(switchInto[m]) / median(frameIn[m])
            > median(switchInto[slowest]) / median(frameIn[slowest]))
            slowest = m;
    }
    // Memory: the terrain read from the LAS with the survey's attributes and from the one
    // without (both of point format 3, colours in both).
    const double attributeBytes = bytesPerPointRead(surveyLas) - bytesPerPointRead(plainLas);
    QFile::remove(plainLas);
    QFile::remove(surveyLas);

    std::printf("\nbench_view: %u points, %.0f MB binary PLY, view %dx%d\n", cloud->size(), fileMB,
                view->width(), view->height());
    std::printf("%-40s %10.2f s   (target < 5 s)\n", "open file to first frame", openSeconds);
    std::printf(
        "%-40s %10.1f us p50 %8.1f us p99  (%.0f %% of pixels on a point; target p99 < 1000 us)\n",
        "picking, top view", top.p50, top.p99, 100 * top.hitRatio);
    std::printf("%-40s %10.1f us p50 %8.1f us p99  (%.0f %% of pixels on a point)\n",
                "picking, oblique perspective", oblique.p50, oblique.p99, 100 * oblique.hitRatio);
    std::printf("%-40s %10.1f ms ours %7.1f ms bare glDrawArrays   ratio %.2f (target <= 1.2)\n",
                "frame time", ours, bare, ours / bare);
    std::printf("%-40s %10.1f ms   (at most %u of the %u points)\n",
                "frame time while the camera moves", moving, benchView.interactionPointBudget(),
                cloud->size());
    std::printf("%-40s %10.2f ms   (the clouds' layer kept: only the objects over it drawn)\n",
                "frame time, camera and clouds unchanged", kept);
    // The table of the survey attributes' figures: ours, the other side, the figure last.
    std::printf("\n%-34s %12s %12s %8s\n", "figure", "ours", "other", "value");
    const double switchMs = median(switchInto[slowest]), frameMs = median(frameIn[slowest]);
    std::printf("%-34s %9.1f ms %9.1f ms %8.3f\n", "colour mode switch vs full frame", switchMs,
                frameMs, switchMs / frameMs);
    std::printf("%-34s %9.1f ms %9.1f ms %8.3f\n", "eye-dome frame vs plain frame", shadedFrame,
                classFrame, shadedFrame / classFrame);
    std::printf("%-34s %12s %12s %8.2f\n", "bytes per point, attributes", "with", "without",
                attributeBytes);
    std::printf("(the slowest switch is to %s; switch, first switch / frame of each mode:",
                qPrintable(tzPointDisplay::modeName(Mode(slowest))));
    for (Mode mode : modes) {
        std::printf(" %s %.0f, %.0f / %.0f ms", qPrintable(tzPointDisplay::modeName(mode)),
                    median(switchInto[int(mode)]), switchInto[int(mode)].front(),
                    median(frameIn[int(mode)]));
    }
    std::printf(")\n");
    if (!keep)
        QFile::remove(path);
    return 0;
}
