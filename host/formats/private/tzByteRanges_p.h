#pragma once

// Where an indexed file's bytes come from, a range at a time: the disk (a mapping of the file),
// or a server that answers HTTP range requests. A COPC file is read this way: its head, its
// chunk table, then the hierarchy pages and the nodes the view asks for.

#include "tzCloudFormats_p.h"

#include <QString>

#include <cstdint>
#include <memory>
#include <vector>

namespace tzCloudFile::detail {

class ByteRanges
{
public:
    virtual ~ByteRanges() = default;
    //! The path or the URL, for messages.
    virtual const QString &name() const = 0;
    virtual std::uint64_t size() const = 0;
    //! Bytes [offset, offset + length): data points to them, in storage or in a mapping that
    //! lives as long as this. False, with error saying why, when they cannot be had. Called
    //! from any thread.
    virtual bool read(std::uint64_t offset, std::uint64_t length,
                      std::vector<std::uint8_t> &storage, const std::uint8_t *&data,
                      QString &error) const = 0;
    //! Starts reading a range that will be read soon (a read of it then waits for it); the
    //! opening of a file only, from the thread that opens it.
    virtual void prefetch(std::uint64_t offset, std::uint64_t length) const
    {
        (void)offset;
        (void)length;
    }
    //! Makes the reads in progress and to come fail at once (the file is being closed).
    virtual void cancel() const { }
    //! Whether reads are slow to start (a server far away) and are best made many at once.
    virtual bool remote() const { return false; }
};

//! A file of the disk.
std::unique_ptr<ByteRanges> openFileRanges(const QString &path, QString &error);

//! A file served over HTTP or HTTPS: the server must answer range requests. Ranges read are
//! kept in the disk cache (setRemoteCache).
std::unique_ptr<ByteRanges> openUrlRanges(const QString &url, QString &error);

} // namespace tzCloudFile::detail
