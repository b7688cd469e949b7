#include "followed_file.h"

#include <sys/stat.h>

namespace zantsh {

FollowedFile::FollowedFile(std::string name, const std::string& openPath)
    : m_name(std::move(name)), m_file(open(openPath.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {
    struct stat info {};
    if (m_file && (fstat(m_file.get(), &info) != 0 || !S_ISREG(info.st_mode)))
        m_file.reset();
    m_position = info.st_size;
}

std::string FollowedFile::takeNew() {
    std::string text;
    readOn(text);
    if (isBegunAnew()) {
        m_file.reset(open(m_name.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        m_position = 0;
        readOn(text);
    }
    return text;
}

void FollowedFile::readOn(std::string& text) {
    char buffer[4096];
    ssize_t got = 0;
    while (m_file && (got = pread(m_file.get(), buffer, sizeof buffer, m_position)) > 0) {
        text.append(buffer, static_cast<size_t>(got));
        m_position += got;
    }
}

bool FollowedFile::isBegunAnew() const {
    struct stat mine {};
    struct stat named {};
    return m_file && fstat(m_file.get(), &mine) == 0 && stat(m_name.c_str(), &named) == 0 &&
           S_ISREG(named.st_mode) && (mine.st_ino != named.st_ino || mine.st_dev != named.st_dev);
}

} // namespace zantsh
