#include "util/file_copy.h"

#include "util/cancellation_block.h"
#include "util/file_place.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <vector>

namespace file_copy {

namespace {

static_assert(sizeof(off_t) == 8, "files have more than 2 GiB on 32 bits, too");

constexpr size_t bufferSize = 1024 * 1024;
constexpr mode_t permissions = 0777;

/// Bytes from `begin` to before `end`.
struct Extent {
    off_t begin;
    off_t end;
};

/// The next bytes that are no hole; none up to the end.
std::optional<Extent> nextData(int file, off_t from, off_t size) {
    if (from >= size)
        return std::nullopt;
    const off_t begin = lseek(file, from, SEEK_DATA);
    if (begin < 0 && errno == ENXIO)
        return std::nullopt;
    if (begin < 0)
        return Extent{from, size}; // of a file system that knows no holes
    const off_t end = lseek(file, begin, SEEK_HOLE);
    return Extent{begin, end < 0 ? size : std::min(end, size)};
}

ssize_t readAt(int file, std::vector<char>& buffer, size_t size, off_t at) {
    ssize_t count = 0;
    do
        count = pread(file, buffer.data(), size, at);
    while (count < 0 && errno == EINTR);
    return count;
}

class Copy {
public:
    Copy(const std::string& from, const std::string& to, const CopyOptions& options)
        : m_from(from), m_to(to), m_options(options) {}

    Outcome run() {
        for (const auto step :
             {&Copy::openSource, &Copy::openCopy, &Copy::refuseInPlace, &Copy::refuseWithoutSpace,
              &Copy::setSize, &Copy::copyData, &Copy::setMode}) {
            if (Outcome outcome = (this->*step)(); !outcome)
                return outcome;
        }
        return m_copy.keep(PartFile::Existing::Replaced,
                           m_options.sync ? PartFile::Sync::Yes : PartFile::Sync::No);
    }

private:
    /// A device may not even be opened: some act on it.
    Outcome openSource() {
        if (stat(m_from.c_str(), &m_source) != 0)
            return refused("cannot copy " + m_from, errno);
        if (!S_ISREG(m_source.st_mode))
            return noFile(m_from);
        m_file.reset(open(m_from.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
        if (!m_file || fstat(m_file.get(), &m_source) != 0)
            return refused("cannot copy " + m_from, errno);
        return S_ISREG(m_source.st_mode) ? Outcome{} : noFile(m_from);
    }

    Outcome openCopy() { return m_copy.open(m_to); }

    /// What the copy would take the place of. A link goes itself, so long as it does not lead to
    /// the source.
    Outcome refuseInPlace() {
        const auto& place = m_copy.place();
        struct stat there {};
        if (fstatat(place.folder.get(), place.name.c_str(), &there, 0) == 0 &&
            there.st_dev == m_source.st_dev && there.st_ino == m_source.st_ino)
            return {Outcome::badRequest,
                    m_from + " and " + m_to + " are the same file: name another"};
        if (fstatat(place.folder.get(), place.name.c_str(), &there, AT_SYMLINK_NOFOLLOW) != 0)
            return {};
        return S_ISREG(there.st_mode) || S_ISLNK(there.st_mode) ? Outcome{} : noFile(m_to);
    }

    static Outcome noFile(const std::string& path) {
        return {Outcome::wrongKind, path + " is a folder, pipe or device: name a file"};
    }

    Outcome refuseWithoutSpace() {
        for (auto data = dataAfter(0); data; data = dataAfter(data->end))
            m_all += static_cast<uint64_t>(data->end - data->begin);
        struct statvfs drive {};
        if (fstatvfs(m_copy.descriptor(), &drive) != 0)
            return refused("cannot tell the space for " + m_to, errno);
        const uint64_t left = static_cast<uint64_t>(drive.f_bavail) * drive.f_frsize;
        const bool isLimited = drive.f_blocks > 0; // the memory of ramfs is not
        if (!isLimited || m_all <= left)
            return {};
        return {Outcome::noSpace, m_to + " takes " + std::to_string(m_all) +
                                      " bytes, and the drive has " + std::to_string(left) +
                                      " left: free space, or take another drive"};
    }

    /// First of all: a file system that takes no file of that size says so now.
    Outcome setSize() {
        if (ftruncate(m_copy.descriptor(), m_source.st_size) != 0)
            return refused("cannot write " + m_to, errno);
        return {};
    }

    std::optional<Extent> dataAfter(off_t at) const {
        return nextData(m_file.get(), at, m_source.st_size);
    }

    Outcome copyData() {
        if (!mayGoOn())
            return cancelled();
        if (m_source.st_size == 0) // of the system's own (/proc), which say no size
            return copyExtent({0, std::numeric_limits<off_t>::max()});
        for (auto data = dataAfter(0); data; data = dataAfter(data->end)) {
            if (Outcome outcome = copyExtent(*data); !outcome)
                return outcome;
        }
        return {};
    }

    Outcome copyExtent(Extent extent) {
        for (off_t at = extent.begin; at < extent.end;) {
            const auto wanted = static_cast<size_t>(
                std::min<off_t>(static_cast<off_t>(bufferSize), extent.end - at));
            const ssize_t count = readAt(m_file.get(), m_buffer, wanted, at);
            if (count < 0)
                return refused("cannot read " + m_from, errno);
            if (count == 0 && m_source.st_size == 0)
                return {};
            if (count == 0)
                return {Outcome::changed,
                        m_from + " became shorter while it was copied: copy it again"};
            if (!writeAllAt(m_copy.descriptor(), m_buffer.data(), static_cast<size_t>(count), at))
                return refused("cannot write " + m_to, errno);
            at += count;
            m_written += static_cast<uint64_t>(count);
            if (!mayGoOn())
                return cancelled();
        }
        return {};
    }

    bool mayGoOn() const { return !m_options.progress || m_options.progress(m_written, m_all); }

    Outcome cancelled() const {
        return {Outcome::cancelled,
                "the copy to " + m_to + " was cancelled: nothing is left of it"};
    }

    /// This process has just made the file: only a file system without permissions refuses.
    Outcome setMode() {
        if (fchmod(m_copy.descriptor(), m_source.st_mode & permissions) != 0 && errno != EPERM)
            return refused("cannot set the permissions of " + m_to, errno);
        return {};
    }

    const std::string& m_from;
    const std::string& m_to;
    const CopyOptions& m_options;
    struct stat m_source {};
    ScopedFd m_file;
    PartFile m_copy;
    std::vector<char> m_buffer = std::vector<char>(bufferSize);
    uint64_t m_all = 0;
    uint64_t m_written = 0;
};

} // namespace

} // namespace file_copy

Outcome copyFile(const std::string& from, const std::string& to, const CopyOptions& options) {
    const CancellationBlock block;
    return file_copy::Copy(from, to, options).run();
}
