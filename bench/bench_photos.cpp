// Photos on a survey terrain (10 M points by default):
//  1. loading a photo list of 2,000 stations at the start of a run, against reading and parsing
//     the same file alone (QJsonDocument, no scene) in the same run;
//  2. full frames with the 2,000 stations shown, against the same view with them hidden;
//  3. entering a photo of 4000 x 3000 pixels: from the selection to the frame that shows it,
//     the picture read from its file, then a frame over the picture kept.
// Frames are timed from the request to the frame on screen; medians.
//
//   bench_photos [--points=N] [--photos=N]

#include "SurveyViewer.h"
#include "tzImageFrustum.h"
#include "tzLumivert.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <random>

namespace {

using Clock = std::chrono::steady_clock;
const TZVector3d ORIGIN(650000.0, 6860000.0, 100.0);

double frameMs(tzGLWindow *view, bool deprecate)
{
    if (deprecate)
        view->deprecate3DLayer();
    QSignalSpy swapped(view, &QOpenGLWidget::frameSwapped);
    const auto t0 = Clock::now();
    view->update();
    swapped.wait(120000);
    return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

double medianFrame(tzGLWindow *view, int count, bool deprecate)
{
    std::vector<double> ms;
    for (int i = 0; i < count; ++i)
        ms.push_back(frameMs(view, deprecate));
    return median(ms);
}

} // namespace

int main(int argc, char **argv)
{
    const unsigned points = bench::numberOption(argc, argv, "points", 10000000);
    const unsigned photos = bench::numberOption(argc, argv, "photos", 2000);
    QSurfaceFormat::setDefaultFormat(tzGLWindow::defaultFormat());
    QApplication app(argc, argv);
    QTemporaryDir settingsDir, survey;
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, settingsDir.path());
    QApplication::setOrganizationName(QStringLiteral("TessaroBench"));
    QApplication::setApplicationName(QStringLiteral("bench_photos"));
    QSettings().setValue(QStringLiteral("LoadFile/currentPath"), survey.path());
    QSettings(QSettings::NativeFormat, QSettings::UserScope, QStringLiteral("LumiVert"),
              QStringLiteral("LinkServer"))
        .setValue(QStringLiteral("sizeSpheres"), 0.5);
    bench::silenceDebugLines();

    tzMainWindow window(bench::viewerOptions());
    bench::showWindow(window, "bench_photos");
    tzPointCloud *cloud = bench::showTerrain(window, points, ORIGIN);
    tzGLWindow *view = window.activeView();

    // The list: stations over the survey, 2 m up, looking north and a little down; one picture.
    TZVector3 min, max;
    cloud->getBoundingBox(min, max);
    QDir(survey.path()).mkdir(QStringLiteral("terrain.img"));
    const QString listPath = survey.filePath(QStringLiteral("terrain.img/images.json"));
    {
        std::mt19937 rng(5);
        std::uniform_real_distribution<double> x(min.x, max.x), y(min.y, max.y);
        QJsonArray images;
        for (unsigned i = 0; i < photos; ++i) {
            QJsonObject photo;
            photo.insert(QStringLiteral("camname"),
                         QStringLiteral("IMG_%1").arg(i, 5, 10, QLatin1Char('0')));
            photo.insert(QStringLiteral("camX"), x(rng) + ORIGIN.x);
            photo.insert(QStringLiteral("camY"), y(rng) + ORIGIN.y);
            photo.insert(QStringLiteral("camZ"), ORIGIN.z + 2.0);
            photo.insert(QStringLiteral("Vx"), 0.0);
            photo.insert(QStringLiteral("Vy"), 0.94);
            photo.insert(QStringLiteral("Vz"), -0.34);
            photo.insert(QStringLiteral("f"), 2000.0);
            images.append(photo);
        }
        QFile file(listPath);
        file.open(QIODevice::WriteOnly);
        file.write(QJsonDocument(QJsonObject {{QStringLiteral("images"), images}}).toJson());
        QImage picture(4000, 3000, QImage::Format_RGB32);
        for (int row = 0; row < picture.height(); ++row) {
            auto *line = reinterpret_cast<QRgb *>(picture.scanLine(row));
            for (int col = 0; col < picture.width(); ++col)
                line[col] = qRgb(col % 256, row % 256, (col + row) % 256);
        }
        picture.save(survey.filePath(QStringLiteral("terrain.img/IMG_00000.jpg")), "JPEG", 90);
    }

    tzLumivert plugin;
    plugin.setAppInterface(&window);
    // The baseline: the file read and parsed, nothing made.
    std::vector<double> parseMs, loadMs;
    for (int run = 0; run < 3; ++run) {
        auto t0 = Clock::now();
        QFile file(listPath);
        file.open(QIODevice::ReadOnly);
        const QJsonDocument document = QJsonDocument::fromJson(file.readAll());
        const int parsed = document.object().value(QStringLiteral("images")).toArray().size();
        parseMs.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
        if (parsed != int(photos))
            std::fprintf(stderr, "bench_photos: parsed %d photos of %u\n", parsed, photos);
        // Ours: a fresh scene's list each time (the stations of the run before are removed).
        for (unsigned i = cloud->getChildrenNumber(); i-- > 0;)
            window.removeFromDatabase(cloud->getChild(i), true);
        t0 = Clock::now();
        plugin.loadPhotoLists();
        loadMs.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
    }
    if (cloud->getChildrenNumber() != photos)
        std::fprintf(stderr, "bench_photos: %u stations made of %u\n", cloud->getChildrenNumber(),
                     photos);

    view->zoomGlobal();
    frameMs(view, true);
    // Shown and hidden in turn, so that a drift of the machine weighs on both alike.
    std::vector<double> shownMs, hiddenMs;
    for (int i = 0; i < 7; ++i) {
        plugin.setPhotoFrustumsVisible(true);
        shownMs.push_back(frameMs(view, true));
        plugin.setPhotoFrustumsVisible(false);
        hiddenMs.push_back(frameMs(view, true));
    }
    plugin.setPhotoFrustumsVisible(true);
    const double shown = median(shownMs), hidden = median(hiddenMs);

    // Entering the photo: selection to the frame on screen (the picture read and made a texture
    // at that frame), then frames over it.
    auto *photo = dynamic_cast<tzImageFrustum *>(cloud->getChild(0));
    std::vector<double> enterMs;
    double keptMs = 0;
    for (int run = 0; run < 3 && photo; ++run) {
        photo->setSelected(false);
        photo->setData(QImage()); // read again from the file, as at a new selection of a run
        frameMs(view, false);
        QSignalSpy swapped(view, &QOpenGLWidget::frameSwapped);
        const auto t0 = Clock::now();
        photo->setSelected(true);
        view->update();
        swapped.wait(120000);
        enterMs.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
        keptMs = medianFrame(view, 5, false);
    }

    std::printf("\nbench_photos: %u terrain points, %u photo stations, view %dx%d\n", cloud->size(),
                photos, view->width(), view->height());
    std::printf("%-44s %9.1f ms   (read and parse alone %.1f ms; target < 1000 ms)\n",
                "photo list loaded (median of 3)", median(loadMs), median(parseMs));
    std::printf("%-44s %9.1f ms   stations hidden %.1f ms   ratio %.2f (target <= 1.2)\n",
                "full frame, stations shown (median of 7)", shown, hidden, shown / hidden);
    std::printf("%-44s %9.1f ms   (target < 300 ms); frame over it %.1f ms\n",
                "entering a 4000 x 3000 photo (median of 3)", median(enterMs), keptMs);
    return 0;
}
