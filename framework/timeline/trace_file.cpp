#include "timeline/trace_file.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace timeline {

namespace {

constexpr std::string_view head = "[\n";
constexpr std::string_view tail = "\n]\n";

std::string notWritten(const std::string& path, const char* why) {
    return "cannot write the time line '" + path + "': " + why +
           "; name a regular file in a folder that exists, has room and may be written";
}

} // namespace

std::string TraceFile::open(const std::string& path) {
    m_path = path;
    m_file = ScopedFd(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0666));
    struct stat info {};
    if (m_file && fstat(m_file.get(), &info) == 0 && S_ISREG(info.st_mode))
        return {};
    const std::string why =
        notWritten(path, m_file ? "it is no file to which can be added" : std::strerror(errno));
    m_file = ScopedFd();
    return why;
}

/// Who is stopped or killed with the lock does not hold up others for longer than that.
bool TraceFile::lock() {
    constexpr timespec aMoment{0, 1000000};
    for (int tries = 0; tries < 1000; ++tries) {
        if (flock(m_file.get(), LOCK_EX | LOCK_NB) == 0)
            return true;
        if (errno != EWOULDBLOCK && errno != EINTR)
            return false;
        nanosleep(&aMoment, nullptr);
    }
    return false;
}

TraceFile::Added TraceFile::add(const std::string& rows, off_t limit) {
    if (!lock())
        return fail("somebody else holds its lock");
    const Added added = addLocked(rows, limit);
    flock(m_file.get(), LOCK_UN);
    return added;
}

TraceFile::Added TraceFile::addLocked(const std::string& rows, off_t limit) {
    struct stat info {};
    if (fstat(m_file.get(), &info) != 0)
        return fail(std::strerror(errno));
    const auto tailSize = static_cast<off_t>(tail.size());
    const bool isNew = info.st_size == 0;
    char end[tail.size()] = {};
    if (!isNew && (info.st_size < tailSize ||
                   pread(m_file.get(), end, sizeof end, info.st_size - tailSize) != tailSize ||
                   std::string_view(end, sizeof end) != tail))
        return fail("it is there and no time line, or a damaged one: delete it");
    if (info.st_size + static_cast<off_t>(rows.size()) > limit)
        return Added::Full;
    const std::string text = std::string(isNew ? head : ",\n").append(rows).append(tail);
    const off_t place = isNew ? 0 : info.st_size - tailSize;
    errno = ENOSPC;
    if (pwrite(m_file.get(), text.data(), text.size(), place) == static_cast<ssize_t>(text.size()))
        return Added::All;
    const int error = errno;
    // What went in of it is taken out again: the file stays as it was.
    if (ftruncate(m_file.get(), info.st_size) == 0 && !isNew)
        static_cast<void>(pwrite(m_file.get(), tail.data(), tail.size(), place) == tailSize);
    return fail(std::strerror(error));
}

TraceFile::Added TraceFile::fail(const char* what) {
    m_failure = notWritten(m_path, what);
    return Added::Nothing;
}

} // namespace timeline
