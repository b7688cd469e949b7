#ifndef UTIL_SWAP_FILE_H
#define UTIL_SWAP_FILE_H

#include "util/outcome.h"

#include <cstdint>
#include <optional>
#include <string>

/// Files that the system may put memory into. All functions are reentrant and no cancellation
/// points. Only root may switch one on or off.

/// The smallest that is of use, in pages of memory.
constexpr uint64_t fewestSwapPages = 10;

/// Makes one that was not there, and that holds `bytes`, rounded down to pages, its first page
/// included: without holes, for this user alone (mode 0600), ready for enableSwapFile(). Whole and
/// on the drive, or nothing is left of it.
Outcome createSwapFile(const std::string& path, uint64_t bytes);

/// Of two the one with the higher priority, 0 to 32767, is used first; without one the system
/// gives each a lower one than the last. Refuses a file that others may read or write.
Outcome enableSwapFile(const std::string& path, std::optional<int> priority = std::nullopt);

/// Takes what is in it back into memory first, which may last.
Outcome disableSwapFile(const std::string& path);

/// Removes one, and disables it before if need be.
Outcome removeSwapFile(const std::string& path);

#endif
