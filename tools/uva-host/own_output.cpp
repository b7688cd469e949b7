#include "own_output.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace uvahost {

std::string OwnOutput::send(Others where) {
    std::fflush(stdout);
    constexpr int behindStandard = STDERR_FILENO + 1;
    ScopedFd own(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, behindStandard));
    const ScopedFd others(where == Others::ToErrors
                              ? fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, behindStandard)
                              : open("/dev/null", O_WRONLY | O_CLOEXEC));
    if (own && others && dup2(others.get(), STDOUT_FILENO) >= 0)
        m_own.reset(fdopen(own.release(), "w"));
    return m_own ? std::string()
                 : std::string("cannot part the library's lines from the program's: ") +
                       std::strerror(errno) + "; close descriptors that the program inherits";
}

std::string OwnOutput::pathOf(const std::string& path) const {
    for (const char* name : {"/dev/stdout", "/dev/fd/1", "/proc/self/fd/1"})
        if (path == name)
            return "/proc/self/fd/" + std::to_string(fileno(stream()));
    return path;
}

} // namespace uvahost
