// tessaro: the point-cloud viewer.
//
//   tessaro [--auto-shift] [--oblique] [--action <name>] [--screenshot <png>]
//           [--colour rgb|intensity|elevation|classification] [--point-size N]
//           [--shading edl|none] [files...]
//   tessaro --convert IN OUT [--chunk-size N] [--split]   (by extension; no window; --split:
//                                                          one OUT per scan of an E57)
//   tessaro --info [--json] FILE...                       (each file's header; no point read)
//   tessaro --index IN... OUT.copc.laz [--memory MB]      (an octree index of the inputs; no
//                                                          window)
//   tessaro --help                                        (every option, one line each)
//
// Opens the clouds (PLY, LAS, LAZ, E57, PCD, text) and scenes (.tzs) given, and loads the plug-ins
// found in plugins/ beside the executable (lib/tessaro/plugins/ once installed) and in the folders
// of TESSARO_PLUGIN_PATH.

#include "tzCloudFile.h"
#include "tzCopc.h"
#include "tzGLWindow.h"
#include "tzMainWindow.h"
#include "tzPointCloud.h"

#include <QAction>
#include <QApplication>
#include <QCommandLineParser>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPixmap>
#include <QScreen>
#include <QSurfaceFormat>
#include <QTimer>
#include <QToolBar>

#include <cstdio>
#include <cstring>
#include <memory>

namespace {

// Every option of both uses (the viewer, and --convert without a window), described once, so
// that --help lists them all and each use reads its own by name.
void describeOptions(QCommandLineParser &parser)
{
    parser.setApplicationDescription(
        QStringLiteral("Tessaro point-cloud viewer: opens the clouds (PLY, LAS, LAZ, E57, PCD, "
                       "text) and scenes (.tzs) given.\nWith --convert IN OUT, converts a cloud "
                       "file to another format (by OUT's extension) without a window."));
    parser.addHelpOption();
    const auto add = [&parser](const char *name, const char *text, const char *value = nullptr,
                               const char *byDefault = nullptr) {
        QCommandLineOption option(QLatin1String(name), QString::fromUtf8(text));
        if (value)
            option.setValueName(QLatin1String(value));
        if (byDefault)
            option.setDefaultValue(QLatin1String(byDefault));
        parser.addOption(option);
    };
    add("auto-shift", "Take the suggested global shift of large coordinates without asking.");
    add("oblique", "Show the clouds in an oblique view once open.");
    add("action", "Once the files are open, run the plug-in action of this name.", "name");
    add("screenshot", "Once the files are open and shown, save the window to <png> and quit.",
        "png");
    add("colour", "Show every cloud opened by rgb, intensity, elevation or classification.",
        "mode");
    add("point-size", "Draw the points of every cloud opened N pixels wide (1 to 10).", "N");
    add("shading",
        "Eye-dome shading: edl or none (by default on while a cloud is shown without colours).",
        "edl|none");
    add("convert", "Convert IN to OUT (LAS, LAZ, PLY by OUT's extension), no window.");
    add("chunk-size", "With --convert: points per chunk of a LAZ output.", "N", "50000");
    add("split", "With --convert: one OUT per scan of an E57 file (OUT-<scan>.<ext>).");
    add("info",
        "Say what each file's header holds (format, points, bounds, VLRs, compression, "
        "octree, scans) without reading its points, no window.");
    add("json", "With --info: as one JSON array.");
    add("index",
        "Index the clouds IN... (any format) into one COPC file OUT (its octree and points, in "
        "bounded memory, on every core), no window.");
    add("memory", "With --index: the memory the points may take, in MB.", "MB", "1536");
    parser.addPositionalArgument(QStringLiteral("files"),
                                 QStringLiteral("Clouds and scenes to open; with --convert, IN "
                                                "and OUT; with --info, the files to describe; "
                                                "with --index, IN... and OUT."),
                                 QStringLiteral("[files...]"));
}

// tessaro --info [--json] FILE...: each file's header, no point read. 1 when one could not be
// described (the others are).
int describeFiles(const QStringList &files, bool json)
{
    if (files.isEmpty()) {
        std::fprintf(stderr, "tessaro --info: give the files to describe\n");
        return 2;
    }
    QJsonArray all;
    int failed = 0;
    for (const QString &path : files) {
        QJsonObject info;
        QString error;
        if (!tzCloudFile::describe(path, info, error)) {
            std::fprintf(stderr, "tessaro --info: %s\n", qPrintable(error));
            ++failed;
            continue;
        }
        if (json)
            all.append(info);
        else
            std::printf("%s%s", all.isEmpty() && path == files.first() ? "" : "\n",
                        qPrintable(tzCloudFile::describeAsText(info)));
    }
    if (json)
        std::printf("%s", QJsonDocument(all).toJson().constData());
    return failed ? 1 : 0;
}

// tessaro --index IN... OUT [--memory MB]: the progress on the console, a line at each tenth.
int indexFiles(const QStringList &files, const QString &memory)
{
    if (files.size() < 2) {
        std::fprintf(stderr,
                     "tessaro --index: give the clouds to index and the COPC file to "
                     "write\n");
        return 2;
    }
    bool ok = false;
    const qulonglong megabytes = memory.toULongLong(&ok);
    if (!ok || megabytes < 64) {
        std::fprintf(stderr, "tessaro --index: '%s' is not a memory size (MB, at least 64)\n",
                     qPrintable(memory));
        return 2;
    }
    tzCopc::IndexOptions options;
    options.memoryBudget = std::uint64_t(megabytes) << 20;
    int told = -1;
    QString toldStage;
    const QString out = files.last();
    options.progress = [&](int percent, const QString &stage) {
        if (percent / 10 != told / 10 || stage != toldStage) {
            std::fprintf(stderr, "tessaro --index: %s %s... %d %%\n", qPrintable(stage),
                         qPrintable(QFileInfo(out).fileName()), percent);
            told = percent;
            toldStage = stage;
        }
        return true;
    };
    options.note = [](const QString &text) {
        std::fprintf(stderr, "tessaro --index: %s\n", qPrintable(text));
    };
    QString error;
    if (!tzCopc::index(files.mid(0, files.size() - 1), out, error, options)) {
        std::fprintf(stderr, "tessaro --index: %s\n", qPrintable(error));
        return 1;
    }
    return 0;
}

// tessaro --convert IN OUT [--chunk-size N] [--split], tessaro --info, tessaro --help: no
// window, no display needed.
int convertFiles(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    describeOptions(parser);
    const QString chunkSize = QStringLiteral("chunk-size");
    const QString split = QStringLiteral("split");
    parser.process(app);
    const QStringList files = parser.positionalArguments();
    if (parser.isSet(QStringLiteral("info")))
        return describeFiles(files, parser.isSet(QStringLiteral("json")));
    if (parser.isSet(QStringLiteral("index")))
        return indexFiles(files, parser.value(QStringLiteral("memory")));
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
    // Conversions and the help need no display.
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--convert") == 0 || std::strcmp(argv[i], "--info") == 0
            || std::strcmp(argv[i], "--index") == 0 || std::strcmp(argv[i], "--help") == 0
            || std::strcmp(argv[i], "-h") == 0 || std::strcmp(argv[i], "-?") == 0)
            return convertFiles(argc, argv);
    }

    // The GL format must be the default before any widget exists.
    QSurfaceFormat::setDefaultFormat(tzGLWindow::defaultFormat());
    QApplication::setAttribute(Qt::AA_ShareOpenGLContexts);
    QApplication app(argc, argv);
    QApplication::setOrganizationName(QStringLiteral("Tessaro"));
    QApplication::setApplicationName(QStringLiteral("Tessaro"));

    QCommandLineParser parser;
    describeOptions(parser);
    const QString autoShift = QStringLiteral("auto-shift"), oblique = QStringLiteral("oblique");
    const QString action = QStringLiteral("action"), screenshot = QStringLiteral("screenshot");
    const QString colour = QStringLiteral("colour"), pointSize = QStringLiteral("point-size");
    const QString shading = QStringLiteral("shading");
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
