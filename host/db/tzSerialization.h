#pragma once

// Little-endian primitives of the binary scene files. Every call returns false on a short read
// or a failed write; callers turn that into the fixed error texts below.

#include "qtz_db_global.h"

#include <QIODevice>
#include <QString>
#include <QVariantMap>

namespace tzSerialization {

QTZ_DB_LIB_API extern const char *const WriteError; // "Write error (disk full or no access right?)"
QTZ_DB_LIB_API extern const char
    *const ReadError; // "Read error (corrupted file or no access right?)"
QTZ_DB_LIB_API extern const char *const MemoryError; // "Not enough memory"

//! Logs the text as an error and returns false, for one-line failure exits.
QTZ_DB_LIB_API bool fail(const char *text);

//! The data version of the scene file being written on this thread: objects leave out what a
//! file of an older version does not hold (tzSceneFile::write sets it).
QTZ_DB_LIB_API short writtenVersion();
QTZ_DB_LIB_API void setWrittenVersion(short version);

QTZ_DB_LIB_API bool writeBytes(QIODevice &out, const void *data, qint64 size);
QTZ_DB_LIB_API bool readBytes(QIODevice &in, void *data, qint64 size);

template<typename T> bool write(QIODevice &out, T value)
{
    static_assert(std::is_arithmetic<T>::value, "plain numbers only");
#if Q_BYTE_ORDER == Q_BIG_ENDIAN
#error "scene files are little-endian; add byte swapping for this platform"
#endif
    return writeBytes(out, &value, sizeof(T));
}
template<typename T> bool read(QIODevice &in, T &value)
{
    static_assert(std::is_arithmetic<T>::value, "plain numbers only");
    return readBytes(in, &value, sizeof(T));
}

//! Bytes preceded by their count (uint32); the read fails when the count passes the device's end.
QTZ_DB_LIB_API bool writeSized(QIODevice &out, const QByteArray &bytes);
QTZ_DB_LIB_API bool readSized(QIODevice &in, QByteArray &bytes);
//! A string as its UTF-8 byte count (uint32) followed by the bytes.
QTZ_DB_LIB_API bool writeString(QIODevice &out, const QString &text);
QTZ_DB_LIB_API bool readString(QIODevice &in, QString &text);
//! A metadata map: entry count (uint32), then per entry the key, a kind byte and the value
//! (bool, integers, float, double and text; other values are kept as their text).
QTZ_DB_LIB_API bool writeVariantMap(QIODevice &out, const QVariantMap &map);
QTZ_DB_LIB_API bool readVariantMap(QIODevice &in, QVariantMap &map);
//! Whether the device still holds at least size bytes (guards counts read from a file).
QTZ_DB_LIB_API bool hasRoomFor(const QIODevice &in, quint64 size);

} // namespace tzSerialization
