#ifndef TVBOX_SUPERVISOR_H
#define TVBOX_SUPERVISOR_H

#include "common/signals.h"
#include "options.h"

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tvbox {

/// Starts companions and command, passes signals on, reaps, and ends companions after the command
/// and, but for a box that was entered, what else is left. For one thread; it waits for all
/// children of the process.
class Supervisor {
public:
    /// @p companionLog may be none: standard error. Throws Failure.
    Supervisor(const Options& options, const ScopedFd& companionLog, const tools::Signals& signals);

    /// Passes on signals of this process alone, besides those of a process outside (0).
    void obeyOnly(pid_t sender) { m_sender = sender; }
    /// While it runs, calls @p action when @p fd can be read.
    void watch(int fd, std::function<void()> action);
    /// Runs all to its end. Returns the exit code: ExitFailure, with a notice, if a companion does
    /// not start or fails, or the main system dies or does not get ready before the command.
    int run();

private:
    enum class Role { Command, Companion };

    bool killsRest() const { return m_options.enter.empty(); }
    void start();
    void startMainSystem();
    pid_t spawn(const Words& words, Role role, const std::string& notifySocket = {});
    void becomeProgram(const Words& words, Role role, const std::string& notifySocket) const;
    /// Handles what comes until then; waits for it if there is nothing, -1 ms for ever.
    void handleNext(std::chrono::milliseconds time);
    /// The same until @p done says so; false if that takes too long.
    bool handleUntil(std::chrono::milliseconds time, const std::function<bool()>& done);
    void handleSignal();
    void reap();
    void companionEnded(const std::string& name, int status);
    void endCompanions();

    const Options& m_options;
    const tools::Signals& m_signals;
    const int m_companionOutput;
    std::vector<std::pair<int, std::function<void()>>> m_watched;
    std::optional<pid_t> m_sender;
    pid_t m_command = 0;
    std::optional<int> m_exitCode;             ///< of the command, or of a start that was ended
    std::map<pid_t, std::string> m_companions; ///< those that run
    bool m_companionFailed = false;
    bool m_impatient = false; ///< asked again to end while companions end
};

/// Kills the children of this process, and theirs as they become its own, until none is left.
void killDescendants();

/// Whether a signal was sent by a process. What the terminal sends (Ctrl-C, a new window size)
/// reaches the command by itself.
bool sentByProcess(int code);

/// Whether there is one that Ctrl-C can be typed at.
bool hasTerminal();

/// The exit code that stands for a wait status.
int exitCodeOf(int status);

} // namespace tvbox

#endif
