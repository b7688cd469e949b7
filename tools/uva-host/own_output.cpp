#include "own_output.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace uvahost {

OwnOutput::~OwnOutput() {
    if (m_stream != stdout)
        std::fclose(m_stream);
}

std::string OwnOutput::send(Others where) {
    const auto failure = [] {
        return std::string("cannot part the library's lines from the program's: ") +
               std::strerror(errno) + "; close descriptors that the program inherits";
    };
    std::fflush(stdout);
    const int own = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    std::FILE* stream = own >= 0 ? fdopen(own, "w") : nullptr;
    if (stream == nullptr)
        return failure();
    m_stream = stream;
    if (where == Others::ToErrors)
        return dup2(STDERR_FILENO, STDOUT_FILENO) >= 0 ? std::string() : failure();
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    const bool sent = nowhere >= 0 && dup2(nowhere, STDOUT_FILENO) >= 0;
    const std::string error = sent ? std::string() : failure();
    if (nowhere >= 0)
        close(nowhere);
    return error;
}

std::string OwnOutput::pathOf(const std::string& path) const {
    for (const char* name : {"/dev/stdout", "/dev/fd/1", "/proc/self/fd/1"})
        if (path == name)
            return "/proc/self/fd/" + std::to_string(fileno(m_stream));
    return path;
}

} // namespace uvahost
