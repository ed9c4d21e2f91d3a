// libFuzzer target for the readers of untrusted files: scene files, the cloud formats, E57 files
// as the viewer reads them and the E57 file's structure and records.
// The first byte picks the reader; the rest is the file.

#include "tzCloudFile.h"
#include "tzE57File.h"
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
    switch (data[0] % 8) {
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
    case 5:
        delete tzCloudFile::loadFromMemory(bytes, "csv", "fuzz.csv", error);
        break;
    case 6: {
        // The whole reader: the scans decoded, placed and merged.
        delete tzCloudFile::loadFromMemory(bytes, "e57", "fuzz.e57", error);
        break;
    }
    default: {
        tzE57::File file;
        std::string problem;
        if (!file.open(data + 1, size - 1, problem))
            break;
        double values[64];
        for (const tzE57::Scan &scan : file.scans()) {
            tzE57::Records records;
            if (scan.fields.size() > 64 || !records.open(file, scan, problem))
                continue;
            while (records.next(values)) { }
        }
        break;
    }
    }
    return 0;
}
