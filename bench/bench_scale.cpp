// Surveys of any size: indexing a survey into COPC against encoding the same survey as LAZ, and
// the first picture of a LAZ survey in the viewer against opening its LAS whole.
//
// Writes the benchmarks' survey terrain as an airborne survey's LAS (10 M points by default),
// then runs, as a user runs them, `tessaro --index survey.las survey.copc.laz --memory MB` and
// `tessaro --convert survey.las survey.laz`, alternately, twice each, the input warm in the
// file cache; each one's wall time, and its peak resident memory as the kernel counts it
// (VmHWM, read while it runs). The table gives the best of each: the index build over the LAZ
// encode, the index's rate in points a second (and a core), its peak memory over its budget.
//
// Then, in the viewer (a fresh window each time, on a display), the LAZ from its opening to the
// first frame that shows a picture of it (the coarse one drawn while the rest is read) against
// the LAS from its opening to the first frame that shows it whole, alternately, twice each.
//
//   bench_scale [--points=N] [--memory=MB] [--keep=DIR]

#include "LasFiles.h"
#include "SurveyViewer.h"
#include "Terrain.h"
#include "tzLoadPipeline.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QSurfaceFormat>
#include <QTemporaryDir>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

extern char **environ;

namespace {

struct Run
{
    bool ok = false;
    double seconds = 0;
    double peakMB = 0;
};

// Runs the command to its end; its wall time and peak resident memory.
Run runCommand(const std::vector<std::string> &command)
{
    std::vector<char *> argv;
    for (const std::string &a : command)
        argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    Run run;
    pid_t pid = 0;
    const auto t0 = std::chrono::steady_clock::now();
    if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
        posix_spawn_file_actions_destroy(&actions);
        return run;
    }
    // The child's own peak (VmHWM, of its program alone: the kernel's count at its end would
    // include this process's memory from before the program started), read until it ends.
    int status = 0;
    const QString statusFile = QStringLiteral("/proc/%1/status").arg(pid);
    double peakKB = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        QFile file(statusFile);
        if (file.open(QIODevice::ReadOnly)) {
            for (const QByteArray &line : file.readAll().split('\n')) {
                if (line.startsWith("VmHWM:"))
                    peakKB = std::max(peakKB, line.mid(6).trimmed().split(' ').first().toDouble());
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    posix_spawn_file_actions_destroy(&actions);
    run.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    run.peakMB = peakKB / 1024.0;
    return run;
}

void warm(const QString &path)
{
    QFile f(path);
    if (f.open(QIODevice::ReadOnly)) {
        while (!f.read(1 << 24).isEmpty()) { }
    }
}

// Opens a file in a fresh window, as a user does: the seconds to the first frame that shows a
// picture of it (firstPicture: the first one drawn while it is read, if any) or all of it.
double openToFrame(const QString &path, bool firstPicture)
{
    tzMainWindow window(bench::viewerOptions());
    bench::showWindow(window, "bench_scale");
    tzGLWindow *view = window.activeView();
    auto *loads = window.findChild<tzLoadPipeline *>();
    QSignalSpy opened(&window, &tzMainWindow::fileOpened);
    QElapsedTimer timer;
    double pictured = -1;
    bool previewDrawn = false;
    QObject::connect(loads, &tzLoadPipeline::previewShown, view,
                     [&](const QString &, unsigned) { previewDrawn = true; });
    QObject::connect(view, &tzGLWindow::frameDrawn, view, [&] {
        if (firstPicture && previewDrawn && pictured < 0)
            pictured = timer.elapsed() / 1000.0;
    });
    timer.start();
    window.openFiles({path});
    if (!opened.wait(600000) || window.databaseRoot()->getChildrenNumber() == 0) {
        std::fprintf(stderr, "bench_scale: '%s' did not open\n", qPrintable(path));
        std::abort();
    }
    if (pictured >= 0)
        return pictured;
    QSignalSpy drawn(view, &tzGLWindow::frameDrawn);
    view->redraw();
    drawn.wait(120000);
    return timer.elapsed() / 1000.0;
}

} // namespace

int main(int argc, char **argv)
{
    QSurfaceFormat::setDefaultFormat(tzGLWindow::defaultFormat());
    QApplication app(argc, argv);
    QApplication::setOrganizationName(QStringLiteral("TessaroBench"));
    QApplication::setApplicationName(QStringLiteral("bench_scale"));
    bench::silenceDebugLines();
    unsigned points = 10000000;
    unsigned memoryMB = 1536;
    QString keep;
    for (int i = 1; i < argc; ++i) {
        const QString arg = QString::fromLocal8Bit(argv[i]);
        if (arg.startsWith(QLatin1String("--points=")))
            points = arg.mid(9).toUInt();
        else if (arg.startsWith(QLatin1String("--memory=")))
            memoryMB = arg.mid(9).toUInt();
        else if (arg.startsWith(QLatin1String("--keep=")))
            keep = arg.mid(7);
    }
    QTemporaryDir temporary;
    const QString folder = keep.isEmpty() ? temporary.path() : keep;
    QDir().mkpath(folder);
    const QString las = QDir(folder).filePath(QStringLiteral("survey.las"));
    const QString copc = QDir(folder).filePath(QStringLiteral("survey.copc.laz"));
    const QString laz = QDir(folder).filePath(QStringLiteral("survey.laz"));
    {
        bench::Terrain terrain;
        bench::makeTerrain(terrain, points);
        if (!bench::writeSurveyLas(las, terrain.cloud)) {
            std::fprintf(stderr, "bench_scale: cannot write %s\n", qPrintable(las));
            return 1;
        }
    }
    warm(las);
    const std::string tessaro = QDir(QCoreApplication::applicationDirPath())
                                    .filePath(QStringLiteral("tessaro"))
                                    .toStdString();
    Run index, encode;
    index.seconds = encode.seconds = 1e30;
    for (int round = 0; round < 2; ++round) {
        const Run i = runCommand({tessaro, "--index", las.toStdString(), copc.toStdString(),
                                  "--memory", std::to_string(memoryMB)});
        const Run e = runCommand({tessaro, "--convert", las.toStdString(), laz.toStdString()});
        if (!i.ok || !e.ok) {
            std::fprintf(stderr, "bench_scale: %s failed\n", i.ok ? "--convert" : "--index");
            return 1;
        }
        std::printf("round %d: index %.3f s (%.0f MB peak), laz encode %.3f s (%.0f MB peak)\n",
                    round + 1, i.seconds, i.peakMB, e.seconds, e.peakMB);
        if (i.seconds < index.seconds)
            index = i;
        if (e.seconds < encode.seconds)
            encode = e;
    }
    // The viewer: the LAZ's first picture against the LAS whole.
    double lazPicture = 1e30, lasOpen = 1e30;
    for (int round = 0; round < 2; ++round) {
        const double z = openToFrame(laz, true);
        const double s = openToFrame(las, false);
        std::printf("round %d: LAZ first picture %.3f s, LAS open %.3f s\n", round + 1, z, s);
        lazPicture = std::min(lazPicture, z);
        lasOpen = std::min(lasOpen, s);
    }
    const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
    std::printf("\n%-52s %14s %14s %8s\n", "figure", "ours", "other", "ratio");
    std::printf(
        "%-52s %12.3f s %12.3f s %8.2f\n",
        qPrintable(
            QStringLiteral("index build vs laz encode, %1 M points").arg(points / 1e6, 0, 'f', 2)),
        index.seconds, encode.seconds, index.seconds / encode.seconds);
    std::printf("%-52s %10.0f MB %10.0f MB %8.2f\n", "index peak memory vs its budget",
                index.peakMB, double(memoryMB), index.peakMB / memoryMB);
    std::printf("%-52s %12.3f s %12.3f s %8.2f\n", "laz first frame vs las open", lazPicture,
                lasOpen, lazPicture / lasOpen);
    std::printf("index rate: %.2f M points/s on %u cores (%.2f M points/s a core)\n",
                points / index.seconds / 1e6, cores, points / index.seconds / 1e6 / cores);
    std::printf("sizes: COPC %.1f MB, LAZ %.1f MB, LAS %.1f MB\n",
                QFileInfo(copc).size() / 1048576.0, QFileInfo(laz).size() / 1048576.0,
                QFileInfo(las).size() / 1048576.0);
    return 0;
}
