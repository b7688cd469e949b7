#ifndef UTIL_FILE_COPY_H
#define UTIL_FILE_COPY_H

#include "util/outcome.h"

#include <cstdint>
#include <functional>
#include <string>

/// How copyFile() copies.
struct CopyOptions {
    /// On the drive, with its name, when the call returns.
    bool sync = false;
    /// Told, on the calling thread, before the first byte and then about every MiB how many bytes
    /// are written out of how many; holes count as nothing. False ends the copy.
    std::function<bool(uint64_t written, uint64_t all)> progress = {};
};

/// Copies a regular file of any size: whole, in place of a file or link that is there, or not at
/// all. Holes stay holes and permissions stay, but the copy belongs to this process and has none of
/// the bits that lend rights (set-user-ID and such). A link as the source is followed. Refused
/// before anything is written: a pipe, device or folder at either end, a copy onto itself, and one
/// that the drive has no space for.
///
/// A file that is written meanwhile is copied as it is found, up to the size that it began with.
/// Reentrant; not a cancellation point; throws what `progress` throws.
Outcome copyFile(const std::string& from, const std::string& to, const CopyOptions& options = {});

#endif
