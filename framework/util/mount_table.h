#ifndef UTIL_MOUNT_TABLE_H
#define UTIL_MOUNT_TABLE_H

#include <string>
#include <vector>

/// A mount of this process, as the system lists it.
struct MountEntry {
    std::string folder; ///< absolute
    std::string device; ///< such as /dev/sda1, or a name such as tmpfs
    std::string type;   ///< such as vfat
};

/// All of them, the latest last: of two on one folder the last is what is seen. Empty without
/// /proc. Reentrant.
std::vector<MountEntry> readMounts();

/// A text as the tables of /proc write it, with blanks and such as three octal digits: "a\040b".
std::string withoutOctalEscapes(const std::string& text);

#endif
