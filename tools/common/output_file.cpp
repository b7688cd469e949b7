#include "common/output_file.h"

#include "util/scoped_handles.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tools {

namespace {

std::string failure(const std::string& path, int error) {
    return "cannot write '" + path + "': " + std::strerror(error) +
           "; name a file in a folder that exists, has room and may be written";
}

bool writeAll(int fd, const std::string& bytes) {
    for (std::size_t done = 0; done < bytes.size();) {
        const auto count = write(fd, bytes.data() + done, bytes.size() - done);
        if (count < 0 && errno != EINTR)
            return false;
        done += count < 0 ? 0 : static_cast<std::size_t>(count);
    }
    return true;
}

} // namespace

std::string whyNotWritable(const std::string& path) {
    struct stat info = {};
    if (path.empty())
        return {};
    if (stat(path.c_str(), &info) == 0) {
        if (S_ISDIR(info.st_mode))
            return failure(path, EISDIR);
        return access(path.c_str(), W_OK) == 0 ? std::string() : failure(path, errno);
    }
    if (errno != ENOENT)
        return failure(path, errno);
    const auto folder = std::filesystem::path(path).parent_path();
    const char* const name = folder.empty() ? "." : folder.c_str();
    return access(name, W_OK | X_OK) == 0 ? std::string() : failure(path, errno);
}

std::string whyNotPrinted(std::FILE* stream) {
    const bool isPrinted = std::fflush(stream) == 0 && std::ferror(stream) == 0;
    pollfd reader = {fileno(stream), 0, 0};
    const bool hasGone = poll(&reader, 1, 0) > 0 && (reader.revents & (POLLERR | POLLHUP)) != 0;
    return isPrinted || hasGone
               ? std::string()
               : "cannot write all to standard output: direct it to where there is room";
}

std::string writeFile(const std::string& path, const std::string& bytes) {
    ScopedFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    const bool written = file && writeAll(file.get(), bytes) && close(file.release()) == 0;
    return written ? std::string() : failure(path, errno);
}

} // namespace tools
