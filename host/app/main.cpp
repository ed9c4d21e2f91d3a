// tessaro: the point-cloud viewer.
//
//   tessaro [--auto-shift] [--oblique] [--action <name>] [--screenshot <png>]
//           [--colour rgb|intensity|elevation|classification] [--point-size N]
//           [--shading edl|none] [files...]
//   tessaro --convert IN OUT [--chunk-size N] [--split]   (by extension; no window; --split:
//                                                          one OUT per scan of an E57)
//
// Opens the clouds (PLY, LAS, LAZ, E57, PCD, text) and scenes (.tzs) given, and loads the plug-ins
// found in plugins/ beside the executable (lib/tessaro/plugins/ once installed) and in the folders
// of TESSARO_PLUGIN_PATH.

#include "tzCloudFile.h"
#include "tzGLWindow.h"
#include "tzMainWindow.h"
#include "tzPointCloud.h"

#include <QAction>
#include <QApplication>
#include <QCommandLineParser>
#include <QPixmap>
#include <QScreen>
#include <QSurfaceFormat>
#include <QTimer>
#include <QToolBar>

#include <cstdio>
#include <cstring>
#include <memory>

namespace {

// tessaro --convert IN OUT [--chunk-size N] [--split]: no window, no display needed.
int convertFiles(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Converts a point cloud file to another "
                                                    "format, by the output's extension."));
    parser.addHelpOption();
    QCommandLineOption convert(QStringLiteral("convert"), QStringLiteral("Convert IN to OUT."));
    parser.addOption(convert);
    QCommandLineOption chunkSize(QStringLiteral("chunk-size"),
                                 QStringLiteral("Points per chunk of a LAZ output (50000)."),
                                 QStringLiteral("n"), QStringLiteral("50000"));
    parser.addOption(chunkSize);
    QCommandLineOption split(QStringLiteral("split"),
                             QStringLiteral("One output per scan of an E57 file: OUT's name with "
                                            "\"-\" and the scan's name before its extension."));
    parser.addOption(split);
    parser.addPositionalArgument(QStringLiteral("in"), QStringLiteral("The file to convert."));
    parser.addPositionalArgument(QStringLiteral("out"), QStringLiteral("The file to write."));
    parser.process(app);
    const QStringList files = parser.positionalArguments();
    if (files.size() != 2) {
        std::fprintf(stderr, "tessaro --convert: give the file to convert and the file to write\n");
        return 2;
    }
    bool ok = false;
    const uint chunk = parser.value(chunkSize).toUInt(&ok);
    if (!ok || chunk == 0) {
        std::fprintf(stderr, "tessaro --convert: '%s' is not a chunk size (a number of points)\n",
                     qPrintable(parser.value(chunkSize)));
        return 2;
    }
    QString error;
    tzCloudFile::LoadOptions options;
    options.note = [](const QString &text) {
        std::fprintf(stderr, "tessaro --convert: %s\n", qPrintable(text));
    };
    if (parser.isSet(split)) {
        QStringList written;
        if (!tzCloudFile::convertScans(files[0], files[1], written, error, chunk, options)) {
            std::fprintf(stderr, "tessaro --convert: %s\n", qPrintable(error));
            return 1;
        }
        for (const QString &path : written)
            std::printf("%s\n", qPrintable(path));
        return 0;
    }
    if (!tzCloudFile::convert(files[0], files[1], error, chunk, options)) {
        std::fprintf(stderr, "tessaro --convert: %s\n", qPrintable(error));
        return 1;
    }
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--convert") == 0)
            return convertFiles(argc, argv);
    }

    // The GL format must be the default before any widget exists.
    QSurfaceFormat::setDefaultFormat(tzGLWindow::defaultFormat());
    QApplication::setAttribute(Qt::AA_ShareOpenGLContexts);
    QApplication app(argc, argv);
    QApplication::setOrganizationName(QStringLiteral("Tessaro"));
    QApplication::setApplicationName(QStringLiteral("Tessaro"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Tessaro point-cloud viewer"));
    parser.addHelpOption();
    QCommandLineOption autoShift(QStringLiteral("auto-shift"),
                                 QStringLiteral("Take the suggested global shift of large "
                                                "coordinates without asking."));
    parser.addOption(autoShift);
    QCommandLineOption screenshot(
        QStringLiteral("screenshot"),
        QStringLiteral("Once the files are open and shown, save a picture "
                       "of the window to <png> and quit."),
        QStringLiteral("png"));
    parser.addOption(screenshot);
    QCommandLineOption oblique(QStringLiteral("oblique"),
                               QStringLiteral("Show the clouds in an oblique view once open."));
    parser.addOption(oblique);
    QCommandLineOption action(QStringLiteral("action"),
                              QStringLiteral("Once the files are open, run the plug-in action of "
                                             "this name (as its button does)."),
                              QStringLiteral("name"));
    parser.addOption(action);
    QCommandLineOption colour(QStringLiteral("colour"),
                              QStringLiteral("Show every cloud opened by rgb, intensity, elevation "
                                             "or classification."),
                              QStringLiteral("mode"));
    parser.addOption(colour);
    QCommandLineOption pointSize(QStringLiteral("point-size"),
                                 QStringLiteral("Draw the points of every cloud opened N pixels "
                                                "wide (1 to 10)."),
                                 QStringLiteral("N"));
    parser.addOption(pointSize);
    QCommandLineOption shading(QStringLiteral("shading"),
                               QStringLiteral("Eye-dome shading of the clouds: edl or none (by "
                                              "default on while a cloud is shown without its "
                                              "colours)."),
                               QStringLiteral("edl|none"));
    parser.addOption(shading);
    parser.addPositionalArgument(QStringLiteral("files"), QStringLiteral("Point clouds to open."),
                                 QStringLiteral("[files...]"));
    parser.process(app);

    tzMainWindow::Options options;
    options.autoShift = parser.isSet(autoShift);
    const auto refuse = [](const QString &text) {
        std::fprintf(stderr, "tessaro: %s\n", qPrintable(text));
        return 2;
    };
    if (parser.isSet(colour)) {
        tzPointDisplay::ColourMode mode;
        if (!tzPointDisplay::modeFromName(parser.value(colour), mode))
            return refuse(QStringLiteral("--colour takes rgb, intensity, elevation or "
                                         "classification, not '%1'")
                              .arg(parser.value(colour)));
        options.colourMode = int(mode);
    }
    if (parser.isSet(pointSize)) {
        bool ok = false;
        options.pointSize = parser.value(pointSize).toInt(&ok);
        if (!ok || options.pointSize < 1 || options.pointSize > 10)
            return refuse(QStringLiteral("--point-size takes a number of pixels from 1 to 10, "
                                         "not '%1'")
                              .arg(parser.value(pointSize)));
    }
    const QString shadingName = parser.value(shading).toLower();
    if (parser.isSet(shading) && shadingName != QLatin1String("edl")
        && shadingName != QLatin1String("none"))
        return refuse(
            QStringLiteral("--shading takes edl or none, not '%1'").arg(parser.value(shading)));
    tzMainWindow window(options);
    if (parser.isSet(shading)) {
        window.activeView()->setShading(shadingName == QLatin1String("edl")
                                            ? tzGLWindow::Shading::EyeDome
                                            : tzGLWindow::Shading::None);
    }
    window.show();
    if (parser.isSet(oblique)) {
        QObject::connect(&window, &tzMainWindow::fileOpened, &window, [&window] {
            if (!window.isLoading())
                window.activeView()->setObliqueView();
        });
    }
    const QString actionName = parser.value(action);
    if (!actionName.isEmpty()) {
        const auto runAction = [&window, actionName] {
            for (QAction *a : window.pluginToolBar()->actions()) {
                if (a->text() == actionName) {
                    a->setEnabled(true);
                    a->trigger();
                    return;
                }
            }
            window.printToConsole(QStringLiteral("No plug-in action named '%1'").arg(actionName),
                                  2);
        };
        QObject::connect(&window, &tzMainWindow::fileOpened, &window, [&window, runAction] {
            if (!window.isLoading())
                runAction();
        });
        if (parser.positionalArguments().isEmpty())
            QTimer::singleShot(0, &window, runAction);
    }
    const QString shotPath = parser.value(screenshot);
    if (!shotPath.isEmpty()) {
        // After the last file, wait for a frame of the view, then take the picture.
        auto *view = window.activeView();
        auto takeShot = [&window, view, shotPath] {
            auto taken = std::make_shared<bool>(false);
            QObject::connect(view, &tzGLWindow::frameDrawn, &window, [&window, shotPath, taken] {
                if (*taken)
                    return;
                *taken = true;
                QTimer::singleShot(200, &window, [&window, shotPath] {
                    // The screen, not the window alone: overlay dialogs are windows of their own.
                    const QRect frame = window.frameGeometry();
                    const QPixmap shot = QGuiApplication::primaryScreen()->grabWindow(
                        0, frame.x(), frame.y(), frame.width(), frame.height());
                    const bool saved = shot.save(shotPath);
                    window.printToConsole(
                        saved ? QStringLiteral("Screenshot written to '%1'").arg(shotPath)
                              : QStringLiteral("Could not write the screenshot '%1'").arg(shotPath),
                        saved ? 0 : 2);
                    QCoreApplication::exit(saved ? 0 : 1);
                });
            });
            view->redraw();
        };
        QObject::connect(&window, &tzMainWindow::fileOpened, &window, [&window, takeShot] {
            if (!window.isLoading())
                takeShot();
        });
        if (parser.positionalArguments().isEmpty())
            QTimer::singleShot(0, &window, takeShot);
    }
    window.openFiles(parser.positionalArguments());
    return app.exec();
}
