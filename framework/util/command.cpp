#include "util/command.h"

#include "util/cancellation_block.h"
#include "util/file_place.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <iterator>
#include <poll.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>

namespace command {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds dyingTakes{2000};
constexpr size_t readSize = 16 * 1024;

/// What a program writes to and we read from.
struct Pipe {
    ScopedFd from;
    ScopedFd to;

    bool open() {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0)
            return false;
        from.reset(ends[0]);
        to.reset(ends[1]);
        return fcntl(from.get(), F_SETFL, O_NONBLOCK) == 0;
    }
};

class SpawnActions {
public:
    SpawnActions() { posix_spawn_file_actions_init(&m_actions); }
    ~SpawnActions() { posix_spawn_file_actions_destroy(&m_actions); }
    SpawnActions(const SpawnActions&) = delete;
    SpawnActions& operator=(const SpawnActions&) = delete;
    posix_spawn_file_actions_t* get() { return &m_actions; }

private:
    posix_spawn_file_actions_t m_actions{};
};

/// A process group of its own, and the signals as a new process has them.
class SpawnAttributes {
public:
    SpawnAttributes() {
        sigset_t signals;
        posix_spawnattr_init(&m_attributes);
        sigemptyset(&signals);
        posix_spawnattr_setsigmask(&m_attributes, &signals);
        sigfillset(&signals);
        posix_spawnattr_setsigdefault(&m_attributes, &signals);
        posix_spawnattr_setpgroup(&m_attributes, 0);
        posix_spawnattr_setflags(&m_attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF |
                                                    POSIX_SPAWN_SETPGROUP);
    }
    ~SpawnAttributes() { posix_spawnattr_destroy(&m_attributes); }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;
    const posix_spawnattr_t* get() const { return &m_attributes; }

private:
    posix_spawnattr_t m_attributes{};
};

/// Ends with a null. The texts stay the caller's; nobody writes to them.
std::vector<char*> pointersTo(const std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (const auto& text : texts)
        pointers.push_back(const_cast<char*>(text.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

bool holdsNul(const std::vector<std::string>& texts) {
    return std::any_of(texts.begin(), texts.end(),
                       [](const auto& text) { return text.find('\0') != std::string::npos; });
}

std::string lastLineOf(const std::string& text) {
    const auto end = text.find_last_not_of(" \r\n");
    if (end == std::string::npos)
        return "";
    const auto begin = text.find_last_of('\n', end);
    return text.substr(begin + 1, end - begin); // from 0 without one
}

} // namespace

} // namespace command

/// One run, from the program's start to its end.
class CommandRun {
public:
    CommandRun(const CommandRequest& request, const CommandStop* stop)
        : m_request(request), m_stop(stop) {}

    CommandResult go() {
        for (const auto step : {&CommandRun::refuseRequest, &CommandRun::openEnds,
                                &CommandRun::start, &CommandRun::listen, &CommandRun::takeEnd}) {
            m_result.outcome = (this->*step)();
            if (!m_result.outcome)
                break;
        }
        return std::move(m_result);
    }

private:
    const std::string& program() const { return m_request.words.front(); }

    Outcome refuseRequest() {
        const auto& words = m_request.words;
        if (words.empty() || words.front().empty())
            return {Outcome::badRequest, "a command without a program: name one"};
        if (command::holdsNul(words) ||
            (m_request.environment && command::holdsNul(*m_request.environment)))
            return {Outcome::badRequest, program() + ": a word holds a zero byte: leave it out"};
        if (m_stop && !m_stop->m_event)
            return {Outcome::failed, program() + " could not be stopped: close files, or raise "
                                                 "ulimit -n"};
        return {};
    }

    /// All of the input is there before the program is: nobody has to feed it. A process without
    /// its own three descriptors may get their numbers here, in rising order: so none is
    /// overwritten in the program before it has its place.
    Outcome openEnds() {
        m_input.reset(memfd_create("input", MFD_CLOEXEC));
        if (!m_input || !m_output.open() || !m_errors.open() ||
            !writeAllAt(m_input.get(), m_request.input.data(), m_request.input.size(), 0))
            return refused("cannot run " + program(), errno);
        return {};
    }

    Outcome start() {
        command::SpawnActions actions;
        const command::SpawnAttributes attributes;
        if (!m_request.folder.empty())
            posix_spawn_file_actions_addchdir_np(actions.get(), m_request.folder.c_str());
        posix_spawn_file_actions_adddup2(actions.get(), m_input.get(), STDIN_FILENO);
        posix_spawn_file_actions_adddup2(actions.get(), m_output.to.get(), STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(actions.get(), m_errors.to.get(), STDERR_FILENO);
        posix_spawn_file_actions_addclosefrom_np(actions.get(), STDERR_FILENO + 1);

        const auto words = command::pointersTo(m_request.words);
        static const std::vector<std::string> nothing;
        const auto variables =
            command::pointersTo(m_request.environment ? *m_request.environment : nothing);
        const int error =
            posix_spawnp(&m_process, program().c_str(), actions.get(), attributes.get(),
                         words.data(), m_request.environment ? variables.data() : environ);
        m_begin = command::Clock::now();
        m_output.to.reset();
        m_errors.to.reset();
        if (error != 0)
            return refused("cannot run " + program() +
                               (m_request.folder.empty() ? "" : " in " + m_request.folder),
                           error);
        return watch();
    }

    Outcome watch() {
        m_end.reset(static_cast<int>(syscall(SYS_pidfd_open, m_process, 0)));
        if (m_end || errno == ESRCH) // it has ended, and is reaped
            return {};
        const int error = errno;
        kill(-m_process, SIGKILL);
        waitpid(m_process, nullptr, 0);
        return refused("cannot watch " + program(), error);
    }

    /// Until it has ended, for whatever reason. What it left behind may hold the pipes.
    Outcome listen() {
        for (bool isRunning = static_cast<bool>(m_end); isRunning;) {
            const bool mayBeStopped = m_stop && !m_killed;
            pollfd waits[] = {{m_end.get(), POLLIN, 0},
                              {mayBeStopped ? m_stop->m_event.get() : -1, POLLIN, 0},
                              {m_output.from.get(), POLLIN, 0},
                              {m_errors.from.get(), POLLIN, 0}};
            if (poll(waits, std::size(waits), pollTime()) < 0)
                continue; // interrupted
            take(m_output.from, m_result.output, command::readSize);
            take(m_errors.from, m_result.errors, command::readSize);
            isRunning = waits[0].revents == 0;
            if (isRunning && waits[1].revents != 0)
                killGroup({Outcome::cancelled, program() + " was stopped"});
            else if (isRunning && left() <= left().zero() && m_killed)
                return {Outcome::failed,
                        program() + " (process " + std::to_string(m_process) +
                            ") does not die: see whether a drive that it waits for answers"};
            else if (isRunning && left() <= left().zero())
                killGroup({Outcome::timedOut, program() + " was killed when its time of " +
                                                  std::to_string(m_limit->count()) +
                                                  " ms was up: give it more, or see what it "
                                                  "waits for"});
        }
        takeRest(m_output.from, m_result.output);
        takeRest(m_errors.from, m_result.errors);
        return {};
    }

    /// Until the time limit; less than nothing when it has passed.
    command::milliseconds left() const {
        using command::milliseconds;
        const auto gone = command::Clock::now() - m_begin;
        return m_limit ? *m_limit - std::chrono::duration_cast<milliseconds>(gone)
                       : milliseconds::max();
    }

    int pollTime() const {
        return m_limit ? static_cast<int>(std::clamp<int64_t>(left().count(), 0, INT_MAX)) : -1;
    }

    /// While it is not reaped its number is nobody else's. It may have left its group.
    void killGroup(Outcome why) {
        m_killed = std::move(why);
        kill(-m_process, SIGKILL);
        syscall(SYS_pidfd_send_signal, m_end.get(), SIGKILL, nullptr, 0);
        m_begin = command::Clock::now();
        m_limit = command::dyingTakes;
    }

    /// What is there, up to so many bytes. The end of a pipe is told once.
    void take(ScopedFd& from, std::string& text, size_t most) {
        char bytes[command::readSize];
        const ssize_t count = read(from.get(), bytes, std::min(most, sizeof bytes));
        if (count == 0)
            from.reset();
        if (count <= 0)
            return;
        const auto kept = std::min(static_cast<size_t>(count), m_request.mostOutput - text.size());
        text.append(bytes, kept);
        m_result.isCut = m_result.isCut || kept < static_cast<size_t>(count);
    }

    /// What was there when it ended, and no more: others may write on.
    void takeRest(ScopedFd& from, std::string& text) {
        int size = 0;
        if (ioctl(from.get(), FIONREAD, &size) != 0)
            return;
        for (auto rest = static_cast<size_t>(size); rest > 0;
             rest -= std::min(rest, command::readSize))
            take(from, text, rest);
    }

    Outcome takeEnd() {
        siginfo_t info{};
        int failed = -1;
        do
            failed = m_end ? waitid(P_PIDFD, static_cast<id_t>(m_end.get()), &info, WEXITED) : -1;
        while (failed != 0 && m_end && errno == EINTR);
        if (failed == 0)
            (info.si_code == CLD_EXITED ? m_result.exitCode : m_result.signal) = info.si_status;
        if (m_killed)
            return *m_killed;
        if (failed != 0)
            return {Outcome::reapedByHost,
                    program() + " has ended, but its exit code is lost: this process ignores "
                                "SIGCHLD, or waits for any child; let it wait for its own only"};
        return judge();
    }

    Outcome judge() const {
        if (m_result.exitCode == 0)
            return {};
        const std::string how = m_result.exitCode
                                    ? " ended with exit code " + std::to_string(*m_result.exitCode)
                                    : " died of signal " + std::to_string(*m_result.signal) + " (" +
                                          strsignal(*m_result.signal) + ")";
        const auto said = command::lastLineOf(m_result.errors);
        return {Outcome::commandFailed, program() + how + (said.empty() ? "" : ": " + said)};
    }

    const CommandRequest& m_request;
    const CommandStop* const m_stop;
    CommandResult m_result;
    ScopedFd m_input;
    command::Pipe m_output;
    command::Pipe m_errors;
    pid_t m_process = 0;
    ScopedFd m_end; ///< readable when it has ended; none: it has, and somebody else has reaped it
    command::Clock::time_point m_begin;
    std::optional<command::milliseconds> m_limit = m_request.limit; ///< from m_begin on
    std::optional<Outcome> m_killed;                                ///< why
};

CommandStop::CommandStop() : m_event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void CommandStop::stop() {
    eventfd_write(m_event.get(), 1);
}

CommandResult runCommand(const CommandRequest& request, CommandStop* stop) {
    const CancellationBlock block;
    return CommandRun(request, stop).go();
}
