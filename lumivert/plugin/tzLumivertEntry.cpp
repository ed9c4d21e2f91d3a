// The library's plug-in entry: the metadata record that QPluginLoader reads without loading the
// library, and the function that makes the one tzLumivert instance.
//
// Written here rather than by moc from Q_PLUGIN_METADATA because moc leaves the "MetaData" key
// out when the plug-in's metadata is an empty object, and the viewer's loader expects the key,
// holding {}. The record is what moc would write, in the same CBOR form, with that key added:
// IID "tzcorp.tessaro.plugin.tzLumivert", className "tzLumivert", MetaData {}.

#include "tzLumivert.h"

#include <QtPlugin>

namespace {

// clang-format off
QT_PLUGIN_METADATA_SECTION
constexpr unsigned char qt_pluginMetaData[] = {
    'Q', 'T', 'M', 'E', 'T', 'A', 'D', 'A', 'T', 'A', ' ', '!',
    // metadata version, Qt version, architectural requirements
    0, QT_VERSION_MAJOR, QT_VERSION_MINOR, qPluginArchRequirements(),
    0xbf, // a map of indefinite length
    // 2 (IID): a text of 32 bytes
    0x02, 0x78, 0x20,
    't', 'z', 'c', 'o', 'r', 'p', '.', 't', 'e', 's', 's', 'a', 'r', 'o', '.', 'p',
    'l', 'u', 'g', 'i', 'n', '.', 't', 'z', 'L', 'u', 'm', 'i', 'v', 'e', 'r', 't',
    // 3 (className): a text of 10 bytes
    0x03, 0x6a, 't', 'z', 'L', 'u', 'm', 'i', 'v', 'e', 'r', 't',
    // 4 (MetaData): an empty map
    0x04, 0xa0,
    0xff, // end of the map
};
// clang-format on

} // namespace

// Exports qt_plugin_query_metadata (the record above) and qt_plugin_instance (one tzLumivert,
// held by a QPointer: a fresh one is made once the previous one has been deleted).
QT_MOC_EXPORT_PLUGIN(tzLumivert, tzLumivert)
