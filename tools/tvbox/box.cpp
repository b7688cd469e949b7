#include "box.h"

#include "failure.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>

namespace tvbox {

namespace {

// What goes over the channel between the two processes: a letter, then a text.
constexpr char isReady = 'r'; ///< inside; the text says which limits could not be raised
constexpr char isRefused = 'n';
constexpr char hasFailed = 'f';
constexpr char mayGo = 'g'; ///< outside

void tell(const UniqueFd& channel, char what, const std::string& text = {}) {
    const auto message = what + text;
    // Nobody to tell means that the other process is dead; the next read shows it.
    [[maybe_unused]] const auto sent =
        send(channel.get(), message.data(), message.size(), MSG_NOSIGNAL);
}

/// Empty if the other process is gone.
std::string hear(const UniqueFd& channel) {
    char buffer[4096];
    ssize_t size = 0;
    while ((size = recv(channel.get(), buffer, sizeof buffer, 0)) < 0 && errno == EINTR)
        continue;
    return {buffer, static_cast<std::size_t>(std::max<ssize_t>(size, 0))};
}

bool hasTerminal() {
    return static_cast<bool>(UniqueFd(open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC)));
}

std::string joined(const Words& words) {
    std::string text;
    for (const auto& word : words)
        text += (text.empty() ? "" : " ") + word;
    return text;
}

/// The bytes that a user may have in queues: as much as the system lets us have.
void raiseQueueBytes() {
    struct rlimit limit = {RLIM_INFINITY, RLIM_INFINITY};
    if (setrlimit(RLIMIT_MSGQUEUE, &limit) == 0 || getrlimit(RLIMIT_MSGQUEUE, &limit) != 0)
        return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_MSGQUEUE, &limit);
}

} // namespace

UniqueFd openLog(const std::string& path) {
    if (path.empty())
        return {};
    UniqueFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666));
    if (!file)
        throw Failure(withErrno("cannot write '" + path + "'"));
    return file;
}

Job jobOf(const Options& options, const UniqueFd& companionLog) {
    return {options.command, options.companions, companionLog ? companionLog.get() : STDERR_FILENO,
            !hasTerminal()};
}

Box::Box(const Options& options, const BlockedSignals& signals)
    : m_options(options), m_signals(signals),
      m_name(options.name.empty() ? std::to_string(getpid()) : options.name), m_caller{geteuid(),
                                                                                       getegid()},
      m_plan(makeFilePlan(options)), m_log(openLog(options.log)),
      m_companionLog(openLog(options.companionLog)), m_job(jobOf(options, m_companionLog)),
      m_record(RunDirectory().claim(m_name)) {}

int Box::run() {
    // Root needs no user namespace, and keeps its rights without one. A system that lets us have no
    // process ids of our own, or not the /proc that belongs to them, may still give the rest.
    std::vector<BoxKind> kinds = {{true, true}, {true, false}};
    if (m_caller.uid == 0)
        kinds.insert(kinds.begin(), {{false, true}, {false, false}});
    std::string refusal;
    for (const auto kind : kinds) {
        UniqueFd channel;
        pid_t first = 0;
        try {
            first = make(kind, channel);
        } catch (const Refusal& why) {
            refusal = refusal.empty() ? why.what() : refusal;
            continue;
        }
        m_record.publish({m_name, first, "/proc/" + std::to_string(first) + "/root" + m_plan.tmp,
                          joined(m_options.command)});
        tell(channel, mayGo);
        return attend(first, kind);
    }
    throw Refusal(refusal);
}

pid_t Box::make(BoxKind kind, UniqueFd& channel) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
        throw Failure(withErrno("cannot make a socket pair"));
    channel.reset(ends[0]);
    UniqueFd inner(ends[1]);
    const pid_t first = forkIntoBox(kind);
    if (first == 0) {
        channel.reset();
        m_record.abandon();
        _exit(liveInside(kind, inner));
    }
    inner.reset();
    const auto answer = hear(channel);
    const auto text = answer.substr(std::min<std::size_t>(answer.size(), 1));
    if (!answer.empty() && answer[0] == isReady) {
        if (text.empty())
            return first;
        const auto missing = "the kernel does not let the box have" + text +
                             "; run tvbox as root, or use Linux 6.11 or later";
        if (!m_options.require) {
            notice(missing);
            return first;
        }
        channel.reset();
        waitpid(first, nullptr, 0);
        throw Refusal(missing);
    }
    waitpid(first, nullptr, 0);
    if (answer.empty())
        throw Failure("the first process of the box died");
    if (answer[0] == isRefused)
        throw Refusal(text);
    throw Failure(text);
}

int Box::attend(pid_t first, BoxKind kind) {
    // Should the first process be killed where it does not take the others along, they become ours.
    if (!kind.process)
        prctl(PR_SET_CHILD_SUBREAPER, 1);
    for (;;) {
        siginfo_t info = {};
        const int signal = sigwaitinfo(&m_signals.set(), &info);
        int status = 0;
        if (signal == SIGCHLD && waitpid(first, &status, WNOHANG) == first) {
            if (!kind.process)
                killDescendants();
            if (WIFSIGNALED(status))
                notice("the box was killed; what it made under /tmp is lost");
            return exitCodeOf(status);
        }
        if (signal > 0 && signal != SIGCHLD && sentByProcess(info.si_code))
            kill(first, signal);
    }
}

int Box::liveInside(BoxKind kind, const UniqueFd& channel) {
    try {
        const mode_t mask = umask(022);
        BoxFiles files(m_plan);
        const auto missing = setUp(kind, files);
        LogCollector log("/dev/log", std::move(m_log));
        if (kind.user && m_caller.uid != 0)
            becomeCaller(m_caller);
        umask(mask);
        // After the last change of user: that would clear it. Whoever died before does not answer.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        tell(channel, isReady, missing);
        if (hear(channel).empty())
            return ExitFailure;

        const int code = runJob(kind, log);
        const auto errors = files.bringBack();
        for (const auto& error : errors)
            notice("cannot bring out " + error);
        return code == 0 && !errors.empty() ? ExitFailure : code;
    } catch (const Failure& failure) {
        tell(channel, hasFailed, failure.what());
    } catch (const std::exception& refusal) { // of ours or of the file system
        tell(channel, isRefused, refusal.what());
    }
    return ExitFailure;
}

std::string Box::setUp(BoxKind kind, BoxFiles& files) {
    if (kind.user)
        becomeBoxRoot(m_caller);
    files.mountAll(kind.process);
    raiseQueueBytes();
    setenv("TVBOX", m_name.c_str(), 1);
    return files.raiseQueueLimits();
}

int Box::runJob(BoxKind kind, LogCollector& log) {
    try {
        Supervisor supervisor(m_job, m_signals,
                              kind.process ? Leftovers::KillNamespace : Leftovers::KillChildren,
                              &log);
        supervisor.obeyOnly(getppid()); // 0 with process ids of our own
        return supervisor.run();
    } catch (const Failure& failure) {
        notice(failure.what());
        return ExitFailure;
    }
}

void enterBox(const Options& options, const BlockedSignals& signals) {
    const auto box = RunDirectory().find(options.name);
    if (!box)
        throw Failure("no box named '" + options.name + "' is running; see tvbox --list");
    char* const known = getcwd(nullptr, 0);
    const std::string cwd = known ? known : "/";
    std::free(known);
    joinBox(*box);
    int code = ExitFailure;
    try {
        if (chdir(cwd.c_str()) != 0 && chdir("/") != 0)
            throw Failure(withErrno("cannot go to / in the box"));
        setenv("TVBOX", box->name.c_str(), 1);
        raiseQueueBytes();
        const Job job = jobOf(options, {});
        code = Supervisor(job, signals, Leftovers::Keep, nullptr).run();
    } catch (const Failure& failure) {
        notice(failure.what());
    }
    // The box's /proc does not know this process: nothing that looks itself up there may run now.
    std::_Exit(code);
}

} // namespace tvbox
