#pragma once

// Binary scene files: the magic "TZSF", the data version (uint16, little-endian), then the root
// object's record and, recursively, those of the children it owns (tzHObject::toFile).

#include "qtz_db_global.h"
#include "tzHObject.h"

#include <QString>

#include <functional>

namespace tzSceneFile {

constexpr short CURRENT_DATA_VERSION = 22;
constexpr short OLDEST_DATA_VERSION = 20;

//! Writes the scene under root to a temporary file and renames it over path: a failed save
//! leaves any previous file as it was. On failure errorText names the file and the problem.
QTZ_DB_LIB_API bool save(const tzHObject *root, const QString &path, QString &errorText,
                         short dataVersion = CURRENT_DATA_VERSION);

//! Reads a scene into a new tree, or returns null with errorText set: nothing of a broken file
//! reaches the caller.
QTZ_DB_LIB_API tzHObject *load(const QString &path, QString &errorText);
//! The same, telling progress in percent of the file read; progress returning false stops the
//! read (the load then fails, and nothing is returned).
QTZ_DB_LIB_API tzHObject *load(const QString &path, QString &errorText,
                               const std::function<bool(int percent)> &progress);

//! The same on an open device (the fuzzer and the tests feed bytes directly).
QTZ_DB_LIB_API bool write(const tzHObject *root, QIODevice &out,
                          short dataVersion = CURRENT_DATA_VERSION);
QTZ_DB_LIB_API tzHObject *read(QIODevice &in, QString &errorText);

} // namespace tzSceneFile
