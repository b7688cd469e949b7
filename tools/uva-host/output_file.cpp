#include "output_file.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace uvahost {

namespace {

std::string failure(const std::string& path, int error) {
    return "cannot write '" + path + "': " + std::strerror(error) +
           "; name a file in a folder that exists, has room and may be written";
}

int writeAll(int fd, const std::string& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const auto count = write(fd, bytes.data() + done, bytes.size() - done);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return errno;
        done += static_cast<std::size_t>(count);
    }
    return 0;
}

} // namespace

std::string whyNotWritable(const std::string& path) {
    struct stat info = {};
    if (stat(path.c_str(), &info) == 0) {
        if (S_ISDIR(info.st_mode))
            return failure(path, EISDIR);
        return access(path.c_str(), W_OK) == 0 ? std::string() : failure(path, errno);
    }
    if (errno != ENOENT)
        return failure(path, errno);
    auto folder = std::filesystem::path(path).parent_path().string();
    if (folder.empty())
        folder = ".";
    return access(folder.c_str(), W_OK | X_OK) == 0 ? std::string() : failure(path, errno);
}

std::string writeFile(const std::string& path, const std::string& bytes) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0)
        return failure(path, errno);
    const int written = writeAll(fd, bytes);
    const int closed = close(fd) == 0 ? 0 : errno;
    const int error = written != 0 ? written : closed;
    return error == 0 ? std::string() : failure(path, error);
}

} // namespace uvahost
