#include "supervisor.h"

#include "failure.h"

#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <wordexp.h>

namespace tvbox {

namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds companionsEnd = 5s;
constexpr milliseconds mainSystemStarts = 20s;

void killChildren() {
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        std::ifstream in(entry.path() / "stat");
        std::string text;
        std::getline(in, text);
        const auto name = text.rfind(')'); // a name may hold anything, parentheses too
        int parent = 0;
        if (name != std::string::npos &&
            std::sscanf(text.c_str() + name + 1, " %*c %d", &parent) == 1 && parent == getpid())
            kill(std::atoi(text.c_str()), SIGKILL);
    }
}

/// Words as a shell would split them; the path of an existing file is one word.
Words splitWords(const std::string& line) {
    if (access(line.c_str(), F_OK) == 0)
        return {line};
    wordexp_t found = {};
    if (wordexp(line.c_str(), &found, WRDE_NOCMD) != 0 || found.we_wordc == 0)
        throw Failure("'" + line + "' is no PROGRAM with ARGUMENTS; quote them as for a shell");
    const Words words(found.we_wordv, found.we_wordv + found.we_wordc);
    wordfree(&found);
    return words;
}

/// Hears from a program that it is ready, as service managers do it. The socket has no file.
class ReadinessSocket {
public:
    ReadinessSocket() : m_socket(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
        struct sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        auto* const plain = reinterpret_cast<struct sockaddr*>(&address);
        socklen_t size = sizeof address.sun_family; // the kernel finds a free name
        if (bind(m_socket.get(), plain, size) != 0 ||
            getsockname(m_socket.get(), plain, &(size = sizeof address)) != 0)
            throw Failure(
                withErrno("cannot make the socket on which the main system says it is ready"));
        m_address = "@" + std::string(address.sun_path + 1,
                                      size - offsetof(struct sockaddr_un, sun_path) - 1);
    }

    /// For NOTIFY_SOCKET.
    const std::string& address() const { return m_address; }
    int fd() const { return m_socket.get(); }
    bool isReady() const { return m_isReady; }
    void takeWhatCame() {
        char bytes[4096];
        ssize_t size = 0;
        while ((size = recv(fd(), bytes, sizeof bytes, 0)) > 0) {
            const auto lines = "\n" + std::string(bytes, static_cast<std::size_t>(size)) + "\n";
            m_isReady |= lines.find("\nREADY=1\n") != std::string::npos;
        }
    }

private:
    const ScopedFd m_socket;
    std::string m_address;
    bool m_isReady = false;
};

} // namespace

int exitCodeOf(int status) {
    return WIFSIGNALED(status) ? ExitSignal + WTERMSIG(status) : WEXITSTATUS(status);
}

void killDescendants() {
    do {
        killChildren();
    } while (waitpid(-1, nullptr, 0) > 0 || errno == EINTR);
}

bool sentByProcess(int code) {
    return code <= 0;
}

bool hasTerminal() {
    return static_cast<bool>(ScopedFd(open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC)));
}

Supervisor::Supervisor(const Options& options, const ScopedFd& companionLog,
                       const tools::Signals& signals)
    : m_options(options), m_signals(signals),
      m_companionOutput(companionLog ? companionLog.get() : STDERR_FILENO) {
    watch(signals.fd(), [this] { handleSignal(); });
    if (killsRest())
        prctl(PR_SET_CHILD_SUBREAPER, 1);
}

void Supervisor::watch(int fd, std::function<void()> action) {
    m_watched.emplace_back(fd, std::move(action));
}

int Supervisor::run() {
    try {
        start();
        while (!m_exitCode)
            handleNext(-1ms);
    } catch (const Failure& failure) {
        notice(failure.what());
        m_exitCode = ExitFailure;
    }
    endCompanions();
    if (killsRest())
        killDescendants();
    return m_companionFailed && m_exitCode == 0 ? ExitFailure : *m_exitCode;
}

void Supervisor::start() {
    if (!m_options.mainSystem.empty())
        startMainSystem();
    for (const auto& line : m_options.with) {
        if (!m_exitCode)
            spawn(splitWords(line), Role::Companion);
    }
    if (!m_exitCode)
        m_command = spawn(m_options.command, Role::Command);
}

/// The command's first request must not find nobody there.
void Supervisor::startMainSystem() {
    const auto socket = std::make_shared<ReadinessSocket>();
    const auto words = splitWords(m_options.mainSystem);
    const pid_t pid = spawn(words, Role::Companion, socket->address());
    watch(socket->fd(), [socket] { socket->takeWhatCame(); });
    const bool inTime = handleUntil(mainSystemStarts, [&] {
        return socket->isReady() || m_exitCode || m_companions.count(pid) == 0;
    });
    if (socket->isReady() || m_exitCode)
        return;
    throw Failure(
        "main system '" + words.front() +
        (inTime ? "' ended before it served its queue, see what it printed; the command was not "
                  "started"
                : "' did not say within " + std::to_string(mainSystemStarts / 1s) +
                      " s that it serves its queue (READY=1 to $NOTIFY_SOCKET); start a program "
                      "that never says so with --with"));
}

/// Returns the process. If the program cannot be started: for the command its exit code is set and
/// 0 returned, a companion throws.
pid_t Supervisor::spawn(const Words& words, Role role, const std::string& notifySocket) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        throw Failure(withErrno("cannot make a pipe"));
    const ScopedFd in(ends[0]);
    ScopedFd out(ends[1]);
    const pid_t pid = fork();
    if (pid < 0)
        throw Failure(withErrno("cannot start '" + words.front() + "'"));
    if (pid == 0) {
        becomeProgram(words, role, notifySocket);
        const int error = errno;
        _exit(write(out.get(), &error, sizeof error) == sizeof error ? ExitNotFound : ExitFailure);
    }
    out.reset();
    int error = 0;
    if (TEMP_FAILURE_RETRY(read(in.get(), &error, sizeof error)) != sizeof error) {
        if (role == Role::Companion)
            m_companions[pid] = words.front();
        return pid;
    }
    waitpid(pid, nullptr, 0);
    const auto text = withErrno("cannot run '" + words.front() + "'", error);
    if (role == Role::Companion)
        throw Failure(text);
    notice(text);
    m_exitCode = error == ENOENT ? ExitNotFound : ExitNotExecutable;
    return 0;
}

/// With a terminal the command stays in the caller's process group, so that Ctrl-C, Ctrl-Z and
/// pipelines work as without tvbox. Without one it gets its own, so that a signal to the caller's
/// group reaches it once. Returns if the program cannot be executed.
void Supervisor::becomeProgram(const Words& words, Role role,
                               const std::string& notifySocket) const {
    if (role == Role::Companion || !hasTerminal())
        setpgid(0, 0);
    if (!notifySocket.empty())
        setenv("NOTIFY_SOCKET", notifySocket.c_str(), 1);
    if (role == Role::Companion) {
        dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
        dup2(m_companionOutput, STDOUT_FILENO);
        dup2(m_companionOutput, STDERR_FILENO);
    }
    if (killsRest())
        prctl(PR_SET_PDEATHSIG, SIGKILL);
    m_signals.giveBack();
    std::vector<char*> arguments;
    for (const auto& word : words)
        arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
}

void Supervisor::handleNext(milliseconds time) {
    std::vector<struct pollfd> waits;
    for (const auto& watched : m_watched)
        waits.push_back({watched.first, POLLIN, 0});
    if (poll(waits.data(), waits.size(), static_cast<int>(time.count())) < 0 && errno != EINTR)
        throw Failure(withErrno("cannot wait for the command"));
    for (std::size_t i = 0; i < waits.size(); ++i) {
        if (waits[i].revents != 0)
            m_watched[i].second();
    }
}

bool Supervisor::handleUntil(milliseconds time, const std::function<bool()>& done) {
    const auto deadline = steady_clock::now() + time;
    while (!done()) {
        const auto left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now());
        if (left <= 0ms)
            return false;
        handleNext(left);
    }
    return true;
}

void Supervisor::handleSignal() {
    const auto info = m_signals.takeInfo();
    const auto signal = static_cast<int>(info.ssi_signo);
    if (signal == 0) // taken already
        return;
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
    else
        kill(m_command, signal);
}

void Supervisor::reap() {
    std::vector<std::pair<std::string, int>> ended;
    int status = 0;
    for (pid_t pid = 0; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
        if (pid == m_command)
            m_exitCode = exitCodeOf(status);
        else if (const auto companion = m_companions.extract(pid))
            ended.emplace_back(companion.mapped(), status);
    }
    for (const auto& [name, how] : ended) // now it is known whether the command goes on
        companionEnded(name, how);
}

/// A signal ends what is to die, and SIGTERM of ours what would go on: neither is a failure.
void Supervisor::companionEnded(const std::string& name, int status) {
    const bool commandRuns = m_command != 0 && !m_exitCode;
    const bool failed =
        WIFEXITED(status) && exitCodeOf(status) != 0 && exitCodeOf(status) != ExitSignal + SIGTERM;
    m_companionFailed |= failed;
    if (failed || commandRuns)
        notice("companion '" + name + "' ended with " + std::to_string(exitCodeOf(status)) +
               (commandRuns ? " while the command runs" : ""));
}

void Supervisor::endCompanions() {
    for (const auto& companion : m_companions)
        kill(companion.first, SIGTERM);
    if (!handleUntil(companionsEnd, [&] { return m_companions.empty() || m_impatient; }))
        notice("companion '" + m_companions.begin()->second + "' does not end; killed");
}

} // namespace tvbox
