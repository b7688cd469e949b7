#ifndef ZANTSH_FOLLOWED_FILE_H
#define ZANTSH_FOLLOWED_FILE_H

#include "util/scoped_handles.h"

#include <string>

namespace zantsh {

/// What is added to a file from now on, also when the file is moved away and begun anew, as a
/// rolling log is.
class FollowedFile {
public:
    /// `name` is the file's own, `openPath` another way to it, such as /proc/PID/fd/1.
    FollowedFile(std::string name, const std::string& openPath);

    bool isOpen() const { return static_cast<bool>(m_file); }
    /// What has been added since the last call.
    std::string takeNew();

private:
    void readOn(std::string& text);
    bool isBegunAnew() const;

    std::string m_name;
    ScopedFd m_file;
    off_t m_position = 0;
};

} // namespace zantsh

#endif
