// libFuzzer target for the readers of untrusted files: scene files and the three cloud formats.
// The first byte picks the reader; the rest is the file.

#include "tzCloudFile.h"
#include "tzHObject.h"
#include "tzLog.h"
#include "tzPointCloud.h"
#include "tzSceneFile.h"

#include <QBuffer>

#include <cstddef>
#include <cstdint>
#include <memory>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool quiet = [] {
        tzLog::SetHandler([](const QString &, int) {});
        return true;
    }();
    (void)quiet;
    if (size < 1)
        return 0;
    const QByteArray bytes(reinterpret_cast<const char *>(data + 1), int(size - 1));
    QString error;
    switch (data[0] % 6) {
    case 0: {
        QBuffer buffer;
        buffer.setData(bytes);
        buffer.open(QIODevice::ReadOnly);
        std::unique_ptr<tzHObject> root(tzSceneFile::read(buffer, error));
        break;
    }
    case 1:
        delete tzCloudFile::loadFromMemory(bytes, "ply", "fuzz.ply", error);
        break;
    case 2:
        delete tzCloudFile::loadFromMemory(bytes, "las", "fuzz.las", error);
        break;
    case 3:
        delete tzCloudFile::loadFromMemory(bytes, "pcd", "fuzz.pcd", error);
        break;
    case 4:
        delete tzCloudFile::loadFromMemory(bytes, "pts", "fuzz.pts", error);
        break;
    default:
        delete tzCloudFile::loadFromMemory(bytes, "csv", "fuzz.csv", error);
        break;
    }
    return 0;
}
