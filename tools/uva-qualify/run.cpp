#include "run.h"

#include "clip_player.h"
#include "util/scoped_handles.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace qualify {

namespace {

constexpr int silenceBound = 120000; // milliseconds

std::vector<std::string> commandOf(const Group& group, const Options& options, int descriptor) {
    std::vector<std::string> words = {"uva-qualify",
                                      "--run-group",
                                      group.name,
                                      "--result-fd",
                                      std::to_string(descriptor),
                                      "--media",
                                      options.media,
                                      "--elements",
                                      std::to_string(options.elements)};
    const auto add = [&](const char* name, const std::string& value) {
        if (!value.empty())
            words.insert(words.end(), {name, value});
    };
    add("--backend", options.backend);
    add("--main-system", options.mainSystem);
    add("--observe", options.observe == Observe::Sinks     ? "sinks"
                     : options.observe == Observe::Capture ? "capture"
                                                           : "");
    if (options.standalone)
        words.emplace_back("--standalone");
    if (options.profile == Profile::Short)
        words.emplace_back("--short");
    return words;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (auto& text : texts)
        pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

/// What the C library and GLib keep of freed memory for a thread would be counted as allocated.
std::vector<std::string> environmentOf() {
    std::vector<std::string> variables;
    for (char** variable = environ; *variable != nullptr; ++variable)
        variables.emplace_back(*variable);
    variables.emplace_back("GLIBC_TUNABLES=glibc.malloc.tcache_count=0");
    variables.emplace_back("G_SLICE=always-malloc");
    return variables;
}

/// Its standard output is the library's: nobody wants that.
pid_t start(std::vector<std::string> words, const StopSignals& stop) {
    auto variables = environmentOf();
    const auto arguments = pointersTo(words);
    const auto environment = pointersTo(variables);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    posix_spawnattr_setsigmask(&attributes, &stop.before());
    pid_t child = -1;
    const int error = posix_spawn(&child, "/proc/self/exe", &actions, &attributes, arguments.data(),
                                  environment.data());
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return error == 0 ? child : -1;
}

std::string endOf(int status) {
    if (WIFSIGNALED(status))
        return "its process died of signal " + std::to_string(WTERMSIG(status)) + " (" +
               strsignal(WTERMSIG(status)) + ")";
    return "its process ended with exit code " + std::to_string(WEXITSTATUS(status));
}

/// What a worker says, line by line.
class Listener {
public:
    Listener(GroupResult& result, const std::function<void(const Finding&)>& heard)
        : m_result(result), m_heard(heard) {}

    /// Until it has nothing more to say, or has ended: what it leaves behind may hold the pipe.
    /// Until a signal stops the run, too. False: it said nothing for too long.
    bool listen(int descriptor, int process, int stop) {
        std::string text;
        for (;;) {
            pollfd ready[] = {{descriptor, POLLIN, 0}, {process, POLLIN, 0}, {stop, POLLIN, 0}};
            if (poll(ready, std::size(ready), silenceBound) <= 0)
                return false;
            if (ready[2].revents != 0)
                return true;
            if (ready[0].revents == 0)
                return true;
            char bytes[65536];
            const auto count = read(descriptor, bytes, sizeof bytes);
            if (count <= 0)
                return true;
            text.append(bytes, static_cast<std::size_t>(count));
            for (auto end = text.find('\n'); end != std::string::npos; end = text.find('\n')) {
                take(text.substr(0, end));
                text.erase(0, end + 1);
            }
        }
    }
    bool isDone() const { return m_done; }

private:
    void take(const std::string& line) {
        const auto json = nlohmann::json::parse(line, nullptr, false);
        if (!json.is_object())
            return;
        if (json.contains("observed")) {
            m_result.observed = json["observed"].get<std::string>();
        } else if (json.contains("done")) {
            m_done = true;
        } else {
            m_result.findings.push_back(json.get<Finding>());
            m_heard(m_result.findings.back());
        }
    }

    GroupResult& m_result;
    const std::function<void(const Finding&)>& m_heard;
    bool m_done = false;
};

/// Ends the processes that have come to this one because their parent has ended.
unsigned int endOrphans() {
    unsigned int count = 0;
    const auto list = "/proc/self/task/" + std::to_string(getpid()) + "/children";
    for (unsigned int before = ~0U; before != count;) {
        before = count;
        std::ifstream children(list);
        for (pid_t child = 0; children >> child; ++count) { // each may leave some of its own
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
        }
    }
    return count;
}

Finding broken(const Group& group, const char* check, const char* what, const std::string& why) {
    Finding finding;
    finding.group = group.name;
    finding.check = check;
    finding.what = what;
    finding.source = "this program: a library neither crashes nor hangs, and leaves no process";
    finding.verdict = Verdict::Failed;
    finding.note = why;
    return finding;
}

} // namespace

unsigned int GroupResult::count(Verdict verdict) const {
    return static_cast<unsigned int>(
        std::count_if(findings.begin(), findings.end(),
                      [&](const auto& finding) { return finding.verdict == verdict; }));
}

unsigned int count(const Results& results, Verdict verdict) {
    unsigned int sum = 0;
    for (const auto& result : results)
        sum += result.count(verdict);
    return sum;
}

GroupResult runGroup(const Group& group, const Options& options, const StopSignals& stop,
                     const std::function<void(const Finding&)>& heard) {
    GroupResult result{group.name, group.what, {}, 0, {}, {}};
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    const auto begin = Clock::now();
    int ends[2];
    if (pipe(ends) != 0) {
        result.error = std::string("no pipe: ") + std::strerror(errno);
        return result;
    }
    ScopedFd from(ends[0]);
    ScopedFd to(ends[1]);
    fcntl(from.get(), F_SETFD, FD_CLOEXEC);
    const pid_t child = start(commandOf(group, options, to.get()), stop);
    to.reset();
    if (child < 0) {
        result.error =
            std::string("the group's process cannot be started: ") + std::strerror(errno);
        return result;
    }
    Listener listener(result, heard);
    const ScopedFd process(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
    const bool spoke = listener.listen(from.get(), process.get(), stop.descriptor());
    const int signal = stop.received();
    if (!spoke || signal != 0)
        kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    result.seconds = secondsBetween(begin, Clock::now());
    if (signal != 0) {
        endOrphans();
        result.error = std::string("stopped by ") + strsignal(signal);
        return result;
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 2 && result.observed.empty()) {
        result.error = "it could not begin; its message above says why";
    } else if (!listener.isDone() || status != 0) {
        result.findings.push_back(broken(group, "to its end", "the group runs to its end",
                                         spoke ? endOf(status)
                                               : "it said nothing for " +
                                                     std::to_string(silenceBound / 1000) +
                                                     " s: the library hangs"));
        heard(result.findings.back());
    }
    if (const auto left = endOrphans(); left > 0) {
        result.findings.push_back(broken(group, "processes", "no process is left behind",
                                         std::to_string(left) + " went on when it had ended"));
        heard(result.findings.back());
    }
    return result;
}

} // namespace qualify
