#ifndef UTIL_FILE_PLACE_H
#define UTIL_FILE_PLACE_H

#include "util/outcome.h"
#include "util/scoped_handles.h"

#include <sys/types.h>

/// A path, opened but for its last name. On the way to it links are followed as ever; what has that
/// name in the folder is never followed. Slashes at its end do not count.
struct FilePlace {
    ScopedFd folder;      ///< opened as a place only
    std::string name;     ///< neither empty nor "." nor ".."
    Outcome outcome = {}; ///< why there is none
};

/// Reentrant.
FilePlace openFilePlace(const std::string& path);

/// Writes all of it there, however often the system takes a part or is interrupted. False with
/// errno. Reentrant.
bool writeAllAt(int file, const void* bytes, size_t size, off_t at);

/// A new file, until it is complete: it stands beside its place under another name (".NAME.part"),
/// and takes the place with keep(), or goes. What a process that was killed has left under that
/// name goes with the next one; a second one at the same time is told that the first is busy.
/// Bound to one thread at a time.
class PartFile {
public:
    PartFile() = default;
    PartFile(const PartFile&) = delete;
    PartFile& operator=(const PartFile&) = delete;
    ~PartFile();

    /// An empty one, for reading and writing, with mode 0600.
    Outcome open(const std::string& path);
    int descriptor() const { return m_file.get(); }
    /// Its folder and the name that it is to get.
    const FilePlace& place() const { return m_place; }

    enum class Existing { Replaced, Kept };
    enum class Sync { No, Yes };
    /// Gives it its name. With Sync::Yes it is on the drive with its name when the call returns.
    Outcome keep(Existing existing, Sync sync);

private:
    Outcome removeLeftover(ScopedFd& leftover) const;
    Outcome busy() const;
    Outcome create();

    std::string m_path;
    FilePlace m_place;
    std::string m_partName;
    ScopedFd m_file;       ///< locked against others
    bool m_stands = false; ///< under its other name
};

#endif
