#include "supervisor.h"

#include "failure.h"
#include "readiness_socket.h"

#include <chrono>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>

namespace tvbox {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds companionsEnd{5000};
constexpr milliseconds mainSystemStarts{20000};

/// The parent of a process, from /proc; 0 if it is gone.
pid_t parentOf(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    std::getline(in, text);
    const auto name = text.rfind(')'); // a name may hold anything, parentheses too
    int parent = 0;
    if (name == std::string::npos || std::sscanf(text.c_str() + name + 1, " %*c %d", &parent) != 1)
        return 0;
    return parent;
}

void killChildren() {
    DIR* const proc = opendir("/proc");
    if (!proc)
        return;
    while (const auto* entry = readdir(proc)) {
        const auto pid = static_cast<pid_t>(std::atoi(entry->d_name));
        if (pid > 0 && parentOf(pid) == getpid())
            kill(pid, SIGKILL);
    }
    closedir(proc);
}

int exitCodeOfExec(int error) {
    return error == ENOENT ? ExitNotFound : ExitNotExecutable;
}

} // namespace

int exitCodeOf(int status) {
    return WIFSIGNALED(status) ? ExitSignal + WTERMSIG(status) : WEXITSTATUS(status);
}

void killDescendants() {
    do {
        killChildren();
    } while (waitpid(-1, nullptr, 0) > 0 || errno == EINTR);
}

Supervisor::Supervisor(const Job& job, const BlockedSignals& signals, Leftovers leftovers,
                       LogCollector* log)
    : m_job(job), m_signals(signals), m_leftovers(leftovers), m_log(log),
      m_signalFd(signalfd(-1, &signals.set(), SFD_CLOEXEC | SFD_NONBLOCK)) {
    if (!m_signalFd)
        throw Failure(withErrno("cannot listen for signals"));
    if (leftovers == Leftovers::KillChildren)
        prctl(PR_SET_CHILD_SUBREAPER, 1);
}

int Supervisor::run() {
    try {
        startCompanions();
        if (!m_exitCode)
            m_command = spawn(m_job.command, Role::Command);
    } catch (...) {
        m_exitCode = ExitFailure;
        endCompanions();
        killRest();
        throw;
    }
    while (!m_exitCode)
        handleNext(-1);
    endCompanions();
    killRest();
    if (m_log)
        m_log->drain();
    return *m_exitCode;
}

void Supervisor::startCompanions() {
    for (const auto& companion : m_job.companions) {
        if (m_exitCode)
            return;
        if (companion.isMainSystem)
            startMainSystem(companion.words);
        else
            m_companions[spawn(companion.words, Role::Companion)] = companion.words.front();
    }
}

/// The command's first request must not find nobody there.
void Supervisor::startMainSystem(const Words& words) {
    ReadinessSocket socket;
    const auto what = "main system '" + words.front() + "' ";
    const pid_t pid = spawn(words, Role::Companion, socket.address());
    m_companions[pid] = words.front();
    const auto deadline = steady_clock::now() + mainSystemStarts;
    while (!socket.isReady() && !m_exitCode) {
        if (m_companions.count(pid) == 0)
            throw Failure(what +
                          "ended before it served its queue, see what it printed; the command "
                          "was not started");
        const auto left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now());
        if (left.count() <= 0)
            throw Failure(
                what + "did not say within " +
                std::to_string(mainSystemStarts / std::chrono::seconds(1)) +
                " s that it serves its queue (READY=1 to $NOTIFY_SOCKET); start a program "
                "that never says so with --with");
        handleNext(static_cast<int>(left.count()), socket.fd());
    }
}

/// Returns the process. If the program cannot be started: for the command its exit code is set and
/// 0 returned, a companion throws.
pid_t Supervisor::spawn(const Words& words, Role role, const std::string& notifySocket) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        throw Failure(withErrno("cannot make a pipe"));
    UniqueFd in(ends[0]);
    UniqueFd out(ends[1]);
    const pid_t pid = fork();
    if (pid < 0)
        throw Failure(withErrno("cannot start '" + words.front() + "'"));
    if (pid == 0)
        becomeProgram(words, role, notifySocket, out.get());
    out.reset();
    int error = 0;
    ssize_t size = 0;
    while ((size = read(in.get(), &error, sizeof error)) < 0 && errno == EINTR)
        continue;
    if (size != sizeof error)
        return pid;
    waitpid(pid, nullptr, 0);
    const auto text = withErrno("cannot run '" + words.front() + "'", error);
    if (role == Role::Companion)
        throw Failure(text);
    notice(text);
    m_exitCode = exitCodeOfExec(error);
    return 0;
}

void Supervisor::becomeProgram(const Words& words, Role role, const std::string& notifySocket,
                               int report) const {
    if (role == Role::Companion || m_job.ownGroup)
        setpgid(0, 0);
    if (!notifySocket.empty())
        setenv("NOTIFY_SOCKET", notifySocket.c_str(), 1);
    if (role == Role::Companion) {
        const int nothing = open("/dev/null", O_RDONLY);
        dup2(nothing, STDIN_FILENO);
        dup2(m_job.companionOutput, STDOUT_FILENO);
        dup2(m_job.companionOutput, STDERR_FILENO);
    }
    if (m_leftovers != Leftovers::Keep)
        prctl(PR_SET_PDEATHSIG, SIGKILL);
    m_signals.restore();
    std::vector<char*> arguments;
    for (const auto& word : words)
        arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    const int error = errno;
    [[maybe_unused]] const auto written = write(report, &error, sizeof error);
    _exit(ExitNotFound);
}

void Supervisor::handleNext(int milliseconds, int further) {
    struct pollfd waits[] = {
        {m_signalFd.get(), POLLIN, 0}, {m_log ? m_log->fd() : -1, POLLIN, 0}, {further, POLLIN, 0}};
    if (poll(waits, std::size(waits), milliseconds) < 0 && errno != EINTR)
        throw Failure(withErrno("cannot wait for the command"));
    if (waits[1].revents != 0)
        m_log->drain();
    if (waits[0].revents != 0)
        handleSignal();
}

void Supervisor::handleSignal() {
    struct signalfd_siginfo info = {};
    if (read(m_signalFd.get(), &info, sizeof info) != sizeof info)
        return;
    const auto signal = static_cast<int>(info.ssi_signo);
    if (signal == SIGCHLD)
        return reap();
    // There is no command yet that would get it: it ends the start, also from the terminal.
    if (m_command == 0 && !m_exitCode) {
        if (signal != SIGWINCH)
            m_exitCode = ExitSignal + signal;
        return;
    }
    const auto sender = static_cast<pid_t>(info.ssi_pid);
    if (!sentByProcess(info.ssi_code) || (m_sender && sender != *m_sender))
        return;
    if (m_exitCode)
        m_impatient = true;
    else if (m_command > 0)
        kill(m_command, signal);
}

void Supervisor::reap() {
    int status = 0;
    for (pid_t pid = 0; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
        const auto companion = m_companions.find(pid);
        if (pid == m_command) {
            m_exitCode = exitCodeOf(status);
        } else if (companion != m_companions.end()) {
            if (!m_exitCode)
                notice("companion '" + companion->second + "' ended with " +
                       std::to_string(exitCodeOf(status)) + " while the command runs");
            m_companions.erase(companion);
        }
    }
}

void Supervisor::endCompanions() {
    for (const auto& companion : m_companions)
        kill(companion.first, SIGTERM);
    const auto deadline = steady_clock::now() + companionsEnd;
    while (!m_companions.empty() && !m_impatient) {
        const auto left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now());
        if (left.count() <= 0) {
            notice("companion '" + m_companions.begin()->second + "' does not end; killed");
            break;
        }
        handleNext(static_cast<int>(left.count()));
    }
}

void Supervisor::killRest() {
    if (m_leftovers == Leftovers::Keep)
        return;
    if (m_leftovers == Leftovers::KillNamespace)
        kill(-1, SIGKILL);
    killDescendants();
}

} // namespace tvbox
