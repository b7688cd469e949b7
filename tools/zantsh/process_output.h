#ifndef ZANTSH_PROCESS_OUTPUT_H
#define ZANTSH_PROCESS_OUTPUT_H

#include "followed_file.h"

#include <string>
#include <sys/types.h>
#include <vector>

namespace zantsh {

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
