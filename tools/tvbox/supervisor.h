#ifndef TVBOX_SUPERVISOR_H
#define TVBOX_SUPERVISOR_H

#include "log_collector.h"
#include "options.h"
#include "signals.h"
#include "unique_fd.h"

#include <map>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tvbox {

/// What is to run.
struct Job {
    Words command;
    std::vector<Companion> companions;
    int companionOutput = STDERR_FILENO;
    /// With a terminal the command stays in the caller's process group, so that Ctrl-C, Ctrl-Z and
    /// pipelines work as without tvbox. Without one it gets its own, so that a signal to the
    /// caller's group reaches it once.
    bool ownGroup = false;
};

/// What happens to processes that are left when the command has ended.
enum class Leftovers {
    KillNamespace, ///< we are process 1: all others go
    KillChildren,  ///< those that became our children
    Keep,
};

/// Starts companions and command, passes signals on, reaps, and ends companions after the command.
/// For one thread; it waits for all children of the process.
class Supervisor {
public:
    /// @p log may be null; it is drained while the command runs.
    Supervisor(const Job& job, const BlockedSignals& signals, Leftovers leftovers,
               LogCollector* log);

    /// Signals of this process alone are passed on, besides those of a process outside (0).
    void obeyOnly(pid_t sender) { m_sender = sender; }
    /// Runs all to its end. Returns the exit code. Throws Failure if a companion does not start, or
    /// the main system dies or does not get ready before the command.
    int run();

private:
    enum class Role { Command, Companion };
    pid_t spawn(const Words& words, Role role, const std::string& notifySocket = {});
    [[noreturn]] void becomeProgram(const Words& words, Role role, const std::string& notifySocket,
                                    int report) const;
    void startCompanions();
    void startMainSystem(const Words& words);
    /// Takes what comes until then, or until a further descriptor can be read. -1 waits for ever.
    void handleNext(int milliseconds, int further = -1);
    void handleSignal();
    void reap();
    void endCompanions();
    void killRest();

    const Job& m_job;
    const BlockedSignals& m_signals;
    const Leftovers m_leftovers;
    LogCollector* const m_log;
    UniqueFd m_signalFd;
    std::optional<pid_t> m_sender;
    pid_t m_command = 0;
    std::optional<int> m_exitCode;             ///< of the command, or of a start that was ended
    std::map<pid_t, std::string> m_companions; ///< those that run
    bool m_impatient = false;                  ///< asked again to end while companions end
};

/// Kills the children of this process, and theirs as they become its own, until none is left.
void killDescendants();

/// The exit code that stands for a wait status.
int exitCodeOf(int status);

} // namespace tvbox

#endif
