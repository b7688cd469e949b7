#ifndef ZANTSH_PROCESS_OUTPUT_H
#define ZANTSH_PROCESS_OUTPUT_H

#include "util/scoped_handles.h"

#include <string>
#include <sys/types.h>
#include <vector>

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

/// The output of the shell's process from now on, as far as it can be followed.
class ProcessOutput {
public:
    /// `process` may be 0 for one that cannot be seen. `files` are shown as well.
    ProcessOutput(pid_t process, const std::vector<std::string>& files);

    /// What has come since the last call. Standard output and a trace log may say the same: of the
    /// two, the one that says something first is listened to.
    std::string takeNew();

    /// Where to look for output that did not show; empty where it needs no word.
    const std::string& whereElse() const { return m_whereElse; }

private:
    void followStandardOutput(pid_t process);
    void followTraceLog(pid_t process);

    std::vector<FollowedFile> m_alternatives;
    std::vector<FollowedFile> m_files;
    std::string m_whereElse;
};

} // namespace zantsh

#endif
