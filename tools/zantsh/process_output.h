#ifndef ZANTSH_PROCESS_OUTPUT_H
#define ZANTSH_PROCESS_OUTPUT_H

#include "transcript.h"
#include "util/scoped_handles.h"

#include <optional>
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
    /// `process` may be 0 for one that cannot be seen. `files` are shown as well. `scope`: of the
    /// process's own output.
    ProcessOutput(pid_t process, const std::vector<std::string>& files, Transcript::Scope scope);

    pid_t process() const { return m_process; }

    void expectSkip();
    /// A command is about to be run.
    void expect(const Marks& marks);
    /// Whether its output was seen to begin; false, too, where nothing can be followed.
    bool hasBegun() const { return m_chosen && m_alternatives[*m_chosen].transcript.hasBegun(); }
    bool hasEnded() const { return m_chosen && m_alternatives[*m_chosen].transcript.hasEnded(); }
    bool canBeFollowed() const { return !m_alternatives.empty(); }

    /// What has come since the last call. Standard output and a trace log may say the same: of the
    /// two, the one that says it first is listened to.
    std::string takeNew();
    /// An incomplete line.
    std::string flush();

    /// Where to look for output that did not show; empty where it needs no word.
    const std::string& whereElse() const { return m_whereElse; }

private:
    struct Source {
        FollowedFile file;
        Transcript transcript;

        std::string takeNew() { return transcript.take(file.takeNew()); }
    };

    void followStandardOutput();
    void followTraceLog();

    const pid_t m_process;
    const Transcript::Scope m_scope;
    std::vector<Source> m_alternatives;
    std::optional<std::size_t> m_chosen;
    std::vector<Source> m_files;
    std::string m_whereElse;
};

} // namespace zantsh

#endif
