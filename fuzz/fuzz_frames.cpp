// libFuzzer target for what the companion sends: arbitrary bytes cut into chunks as the reader
// would receive them, assembled into frames and dispatched into a scene that holds a cloud.
// Each byte 0xFF of the input ends a chunk (and is not part of it).

#include "tzCViseeTool.h"
#include "tzCommunicationHandler.h"
#include "tzFrameDispatcher.h"
#include "tzLog.h"
#include "tzLumivert.h"
#include "tzPointCloud.h"
#include "tzSceneApp.h"

#include <QCoreApplication>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace {

void quiet(QtMsgType, const QMessageLogContext &, const QString &) { }

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static int argc = 1;
    static char name[] = "fuzz_frames";
    static char *argv[] = {name, nullptr};
    static QCoreApplication app(argc, argv);
    static tzLumivert plugin;
    static const bool once = [] {
        qInstallMessageHandler(&quiet);
        tzLog::SetHandler([](const QString &, int) {});
        return true;
    }();
    (void)once;

    tzSceneApp scene;
    auto *cloud = new tzPointCloud(QStringLiteral("cloud"));
    cloud->addPoint({0, 0, 0});
    cloud->setGlobalShift(TZVector3d(-1000, -2000, 0));
    scene.databaseRoot()->addChild(cloud);
    tzCommunicationHandler link;
    tzFrameDispatcher frames;
    frames.setAppInterface(&scene);
    frames.setReferencePointReceiver(
        [](const TZVector3 &point) { plugin.sightTool()->setReferencePoint(point); });
    link.setFrameReceiver([&frames](const QString &frame) { frames.dispatch(frame); });

    const char *bytes = reinterpret_cast<const char *>(data);
    size_t start = 0;
    for (size_t i = 0; i <= size; ++i) {
        if (i == size || data[i] == 0xFF) {
            // As the reader takes a chunk: up to its first zero byte, as Latin-1.
            const QByteArray chunk(bytes + start, int(i - start));
            link.feed(QString::fromLatin1(chunk.constData(),
                                          int(qstrnlen(chunk.constData(), uint(chunk.size())))));
            start = i + 1;
        }
    }
    return 0;
}
