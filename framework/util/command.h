#ifndef UTIL_COMMAND_H
#define UTIL_COMMAND_H

#include "util/outcome.h"
#include "util/scoped_handles.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

/// A program to run. No shell sees its words.
struct CommandRequest {
    /// The program, a path or a name that is looked for in PATH, and its arguments.
    std::vector<std::string> words;
    /// "NAME=value" each; else that of this process, which nobody may change meanwhile.
    std::optional<std::vector<std::string>> environment = {};
    std::string folder = {}; ///< that it works in; empty: that of this process
    std::string input = {};  ///< what it reads from its standard input, which ends after it
    /// When it is killed, with all of its process group; else it takes as long as it takes.
    std::optional<std::chrono::milliseconds> limit = {};
    /// Bytes that are kept of its output, and as many of its errors. It may write more.
    size_t mostOutput = 1024 * 1024;
};

/// What came of a command.
struct CommandResult {
    Outcome outcome; ///< done: it ended with exit code 0
    std::optional<int> exitCode = {};
    std::optional<int> signal = {}; ///< that ended it
    std::string output = {};        ///< the beginning of its standard output
    std::string errors = {};        ///< the beginning of its standard error output
    bool isCut = false;             ///< it wrote more than was kept
};

/// Ends commands from another thread: those that run with it, and those that are yet to. It
/// outlives them. Thread-safe.
class CommandStop {
public:
    CommandStop();
    /// Ends them, now and for ever.
    void stop();

private:
    friend class CommandRun;
    ScopedFd m_event; ///< readable for ever once stopped
};

/// Runs a program to its end. It gets a process group of its own, the signals as a new process has
/// them, and no descriptor but the three; what it left running by itself goes on, unheard. One that
/// does not even die within two seconds, because it waits for a drive, is given up.
///
/// It works with whatever the process does with SIGCHLD; if that takes the exit code away (SIGCHLD
/// ignored, or waits for any child), the outcome is Outcome::reapedByHost, and the output is there
/// all the same. Needs Linux 5.4. Thread-safe; not a cancellation point: use `stop`.
CommandResult runCommand(const CommandRequest& request, CommandStop* stop = nullptr);

#endif
