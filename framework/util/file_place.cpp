#include "util/file_place.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>

namespace file_place {

namespace {

constexpr mode_t ownerOnly = 0600;
constexpr const char* suffix = ".part";

std::string withoutSlashesAtEnd(std::string path) {
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    return path;
}

/// As long as a name may be, and no half characters.
std::string partNameOf(const std::string& name) {
    size_t length =
        std::min<size_t>(name.size(), NAME_MAX - 1 - std::char_traits<char>::length(suffix));
    while (length > 0 && length < name.size() && (name[length] & 0xC0) == 0x80)
        --length;
    return "." + name.substr(0, length) + suffix;
}

bool isSameFile(const struct stat& one, const struct stat& other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

} // namespace

} // namespace file_place

FilePlace openFilePlace(const std::string& path) {
    const std::string whole = file_place::withoutSlashesAtEnd(path);
    const auto slash = whole.rfind('/');
    FilePlace place;
    place.name = slash == std::string::npos ? whole : whole.substr(slash + 1);
    if (place.name.empty() || place.name == "." || place.name == ".." ||
        whole.find('\0') != std::string::npos) {
        place.outcome = {Outcome::badRequest,
                         "'" + path + "' ends with no name of a file or folder: name it"};
        return place;
    }
    const std::string folder = slash == std::string::npos ? "." : whole.substr(0, slash + 1);
    place.folder.reset(::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!place.folder)
        place.outcome = refused("cannot go to " + folder, errno);
    return place;
}

bool writeAllAt(int file, const void* bytes, size_t size, off_t at) {
    const char* from = static_cast<const char*>(bytes);
    while (size > 0) {
        const ssize_t written = pwrite(file, from, size, at);
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            return false;
        from += written;
        size -= static_cast<size_t>(written);
        at += written;
    }
    return true;
}

PartFile::~PartFile() {
    if (m_stands)
        unlinkat(m_place.folder.get(), m_partName.c_str(), 0);
}

Outcome PartFile::open(const std::string& path) {
    m_path = path;
    m_place = openFilePlace(path);
    if (!m_place.outcome)
        return m_place.outcome;
    m_partName = file_place::partNameOf(m_place.name);
    Outcome made = create();
    if (made.code != Outcome::alreadyThere)
        return made;
    // Its lock is held until the new one is locked: whoever gets it afterwards finds another file.
    ScopedFd leftover;
    made = removeLeftover(leftover);
    return made ? create() : made;
}

/// Of a process that was killed.
Outcome PartFile::removeLeftover(ScopedFd& leftover) const {
    const int folder = m_place.folder.get();
    constexpr int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    leftover.reset(openat(folder, m_partName.c_str(), flags));
    struct stat locked {};
    struct stat named {};
    if (leftover &&
        (flock(leftover.get(), LOCK_EX | LOCK_NB) != 0 || fstat(leftover.get(), &locked) != 0 ||
         fstatat(folder, m_partName.c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0 ||
         !file_place::isSameFile(locked, named)))
        return busy();
    if (unlinkat(folder, m_partName.c_str(), 0) != 0 && errno != ENOENT)
        return refused("cannot remove " + m_partName + ", which stands where " + m_path +
                           " is to be written",
                       errno);
    return {};
}

Outcome PartFile::busy() const {
    return {Outcome::busy, m_path + " is being written by somebody else: wait for them"};
}

Outcome PartFile::create() {
    constexpr int flags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    m_file.reset(openat(m_place.folder.get(), m_partName.c_str(), flags, file_place::ownerOnly));
    if (!m_file)
        return refused("cannot make " + m_path, errno);
    m_stands = true;
    if (flock(m_file.get(), LOCK_EX | LOCK_NB) == 0)
        return {};
    if (errno != EWOULDBLOCK)
        return refused("cannot lock " + m_path, errno);
    m_stands = false; // whoever took it for a leftover removes it
    return busy();
}

Outcome PartFile::keep(Existing existing, Sync sync) {
    const int folder = m_place.folder.get();
    if (sync == Sync::Yes && fsync(m_file.get()) != 0)
        return refused("cannot write " + m_path, errno);
    const unsigned flags = existing == Existing::Kept ? RENAME_NOREPLACE : 0;
    if (renameat2(folder, m_partName.c_str(), folder, m_place.name.c_str(), flags) != 0)
        return refused("cannot put " + m_path + " in its place", errno);
    m_stands = false;
    if (sync == Sync::No)
        return {};
    const ScopedFd readable(openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!readable || fsync(readable.get()) != 0)
        return refused("cannot write the folder of " + m_path, errno);
    return {};
}
