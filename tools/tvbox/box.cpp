#include "box.h"

#include "failure.h"
#include "supervisor.h"

#include <optional>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>

namespace tvbox {

namespace {

/// Root needs no user namespace, and keeps its rights without one. A system that lets us have no
/// process ids of our own, or not the /proc that belongs to them, may still give the rest.
constexpr int kinds[] = {CLONE_NEWPID, 0, CLONE_NEWUSER | CLONE_NEWPID, CLONE_NEWUSER};

void writeProc(const char* path, const std::string& text) {
    const ScopedFd file(open(path, O_WRONLY | O_CLOEXEC));
    if (!file || write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        throw Refusal(withErrno(std::string("cannot write ") + path));
}

void mapIds(Ids inside, Ids outside) {
    const auto row = [](auto in, auto out) {
        return std::to_string(in) + " " + std::to_string(out) + " 1\n";
    };
    writeProc("/proc/self/setgroups", "deny");
    writeProc("/proc/self/uid_map", row(inside.uid, outside.uid));
    writeProc("/proc/self/gid_map", row(inside.gid, outside.gid));
}

} // namespace

Box::Box(const Options& options, const tools::Signals& signals)
    : m_options(options), m_signals(signals),
      m_name(options.name.empty() ? std::to_string(getpid()) : options.name), m_claim(m_name),
      m_files(options), m_log(openLog(options.log)), m_companionLog(openLog(options.companionLog)) {
}

int Box::run() {
    std::string refusal;
    for (const int kind : kinds) {
        if ((kind & CLONE_NEWUSER) == 0 && m_caller.uid != 0)
            continue;
        try {
            return attend(make(kind), kind);
        } catch (const Refusal& why) {
            refusal = refusal.empty() ? why.what() : refusal;
        }
    }
    throw Refusal(refusal);
}

/// Returns the first process, which is about to run the command.
pid_t Box::make(int kind) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
        throw Failure(withErrno("cannot make a socket pair"));
    ScopedFd inside(ends[0]);
    ScopedFd outside(ends[1]);
    const auto first = static_cast<pid_t>(syscall(
        SYS_clone, CLONE_NEWNS | CLONE_NEWIPC | kind | SIGCHLD, nullptr, nullptr, nullptr, 0));
    if (first < 0)
        throw Refusal(withErrno("cannot make namespaces"));
    if (first == 0) {
        inside.reset();
        _exit(liveInside(kind, std::move(outside)));
    }
    outside.reset();
    char refusal[4096];
    const auto size = TEMP_FAILURE_RETRY(recv(inside.get(), refusal, sizeof refusal, 0));
    if (size <= 0)
        return first;
    waitpid(first, nullptr, 0);
    throw Refusal(std::string(refusal, static_cast<std::size_t>(size)));
}

int Box::attend(pid_t first, int kind) const {
    // Should the first process be killed where it does not take the others along, they become ours.
    const bool takesOthersAlong = (kind & CLONE_NEWPID) != 0;
    if (!takesOthersAlong)
        prctl(PR_SET_CHILD_SUBREAPER, 1);
    for (pollfd signals{m_signals.fd(), POLLIN, 0};;) {
        poll(&signals, 1, -1);
        const auto info = m_signals.takeInfo();
        const auto signal = static_cast<int>(info.ssi_signo);
        int status = 0;
        if (signal == SIGCHLD && waitpid(first, &status, WNOHANG) == first) {
            if (!takesOthersAlong)
                killDescendants();
            if (WIFSIGNALED(status))
                notice("the box was killed; what it made under /tmp is lost");
            return exitCodeOf(status);
        }
        if (signal > 0 && signal != SIGCHLD && sentByProcess(info.ssi_code))
            kill(first, signal);
    }
}

/// The other end of @p outside gets the text of a refusal; its end means that there is none.
int Box::liveInside(int kind, ScopedFd outside) {
    std::optional<LogCollector> log;
    // A signal to the caller's group comes from the process outside, and not from its sender too.
    // With a terminal the command needs that group.
    if (!hasTerminal())
        setpgid(0, 0);
    try {
        const mode_t mask = umask(022);
        log.emplace(setUp(kind));
        umask(mask);
    } catch (const std::exception& refusal) { // of ours or of the file system
        const std::string text = refusal.what();
        return send(outside.get(), text.data(), text.size(), MSG_NOSIGNAL) < 0 ? ExitFailure : 0;
    }
    // After the last change of user: that would clear it. Whoever died before cannot be told.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (send(outside.get(), "", 0, MSG_NOSIGNAL) < 0)
        return ExitFailure;
    outside.reset();
    try {
        return runCommand(*log);
    } catch (const std::exception& failure) {
        notice(failure.what());
        return ExitFailure;
    }
}

/// With privileges over the box, which are given up in the end.
LogCollector Box::setUp(int kind) {
    if (kind & CLONE_NEWUSER)
        mapIds({0, 0}, m_caller); // all files written are the caller's
    m_files.mountAll((kind & CLONE_NEWPID) != 0);
    const auto missing = raiseQueueLimits();
    if (!missing.empty()) {
        const auto text = "the kernel does not let the box have" + missing +
                          "; run tvbox as root, or use Linux 6.11 or later";
        if (m_options.require)
            throw Refusal(text);
        notice(text);
    }
    LogCollector log(std::move(m_log));
    if ((kind & CLONE_NEWUSER) && m_caller.uid != 0) {
        if (unshare(CLONE_NEWUSER) != 0)
            throw Refusal(withErrno("cannot make a second user namespace"));
        mapIds(m_caller, {0, 0});
    }
    return log;
}

int Box::runCommand(LogCollector& log) const {
    setenv("TVBOX", m_name.c_str(), 1);
    Supervisor supervisor(m_options, m_companionLog, m_signals);
    supervisor.obeyOnly(getppid()); // 0 with process ids of our own
    supervisor.watch(log.fd(), [&] { log.drain(); });
    supervisor.watch(m_claim.fd(), [&] { m_claim.dismissVisitor(); });
    m_claim.publish();
    const int code = supervisor.run();
    log.drain();
    const auto errors = m_files.bringBack();
    for (const auto& error : errors)
        notice("cannot bring out " + error);
    return code == 0 && !errors.empty() ? ExitFailure : code;
}

void enterBox(const Options& options, const tools::Signals& signals) {
    const auto box = findBox(options.enter);
    if (!box)
        throw Failure("no box named '" + options.enter + "' is running; see tvbox --list");
    std::error_code unknown;
    const auto cwd = std::filesystem::current_path(unknown);
    joinBox(*box);
    enterFolder(cwd);
    raiseQueueLimits();
    const int code = Supervisor(options, {}, signals).run();
    // The box's /proc does not know this process: nothing that looks itself up there may run now.
    std::_Exit(code);
}

} // namespace tvbox
