#include "box.h"
#include "failure.h"
#include "supervisor.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sys/file.h>

namespace tvbox {

void notice(const std::string& text) {
    std::fprintf(stderr, "tvbox: %s\n", text.c_str());
}

namespace {

/// The command of a box, for people: its first process has the command line of the tvbox outside.
std::string commandOf(const std::string& process) {
    std::ifstream in(process + "/cmdline");
    Words words;
    for (std::string word; std::getline(in, word, '\0');) {
        std::replace_if(
            word.begin(), word.end(), [](unsigned char c) { return c < ' '; }, ' ');
        words.push_back(word);
    }
    std::vector<const char*> arguments;
    for (const auto& word : words)
        arguments.push_back(word.c_str());
    const auto parsed = parseOptions(static_cast<int>(arguments.size()), arguments.data());
    std::string text;
    for (const auto& word : parsed.options ? parsed.options->command : Words())
        text += (text.empty() ? "" : " ") + word;
    return text;
}

int printList() {
    const auto tmp = std::filesystem::canonical("/tmp");
    for (const auto& box : listBoxes()) {
        const auto process = "/proc/" + std::to_string(box.pid);
        std::printf("%s\t%d\t%s\t%s\n", box.name.c_str(), static_cast<int>(box.pid),
                    (process + "/root" + tmp.string()).c_str(), commandOf(process).c_str());
    }
    return std::fflush(stdout) == 0 ? 0 : ExitFailure;
}

/// All users share the names that a plain run uses, and can lock this; a lock leaves nothing there.
constexpr const char* lockPath = "/tmp";
constexpr int neededMessages = 50;

/// A kernel setting that forbids boxes when it has this value.
struct Switch {
    const char* name; ///< with '/', below /proc/sys
    int forbids;
    const char* allows; ///< as it is set
};
constexpr Switch switches[] = {
    {"kernel/unprivileged_userns_clone", 0, " kernel.unprivileged_userns_clone=1"},
    {"kernel/apparmor_restrict_unprivileged_userns", 1,
     " kernel.apparmor_restrict_unprivileged_userns=0"},
    {"user/max_user_namespaces", 0, " user.max_user_namespaces=10000"},
    {"user/max_mnt_namespaces", 0, " user.max_mnt_namespaces=10000"},
    {"user/max_ipc_namespaces", 0, " user.max_ipc_namespaces=10000"},
};

int settingOf(const std::string& name) {
    int value = -1;
    std::ifstream("/proc/sys/" + name) >> value;
    return value;
}

ScopedFd waitForTurn(const tools::Signals& signals) {
    ScopedFd file(open(lockPath, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (flock(file.get(), LOCK_EX | LOCK_NB) == 0)
        return file;
    notice("waits for another plain run to end");
    signals.giveBack(); // nothing runs yet: Ctrl-C ends the waiting
    if (TEMP_FAILURE_RETRY(flock(file.get(), LOCK_EX)) != 0)
        throw Failure(withErrno(std::string("cannot lock ") + lockPath));
    signals.block();
    return file;
}

/// What keeps this system from giving boxes, and what the user can do about it; one line.
std::string whyNoBox(const std::string& reason) {
    std::string settings;
    for (const auto& each : switches) {
        if (settingOf(each.name) == each.forbids)
            settings += each.allows;
    }
    if (settings.empty() && geteuid() != 0)
        settings = switches[0].allows;
    auto advice = settings.empty() ? "give the container CAP_SYS_ADMIN and let it mount"
                                   : "as root: sysctl -w" + settings;
    const int messages = settingOf("fs/mqueue/msg_max");
    if (messages < neededMessages)
        advice += "; without a box queues hold " + std::to_string(messages) +
                  " messages, raise it with sysctl -w fs.mqueue.msg_max=256";
    return "no box (" + reason + "); to allow it, " + advice;
}

/// Without a box. Such runs share the fixed names of the system inside, so that there is one at a
/// time.
int runPlainly(const Options& options, const tools::Signals& signals) {
    const auto companionLog = openLog(options.companionLog);
    const auto turn = waitForTurn(signals);
    return Supervisor(options, companionLog, signals).run();
}

int runInBox(const Options& options, const tools::Signals& signals) {
    try {
        return Box(options, signals).run();
    } catch (const Refusal& refusal) {
        const auto why = whyNoBox(refusal.what());
        if (options.require)
            throw Failure(why);
        notice(why + "; runs plainly, one at a time, without --etc, --log and a /tmp of its own");
    }
    return runPlainly(options, signals);
}

int run(const Options& options) {
    if (options.list)
        return printList();
    std::signal(SIGCHLD, SIG_DFL); // whoever ignored it would never learn how a child ended
    const tools::Signals signals{SIGCHLD, SIGHUP,  SIGINT,  SIGQUIT, SIGTERM,
                                 SIGUSR1, SIGUSR2, SIGALRM, SIGWINCH};
    if (signals.fd() < 0)
        throw Failure(withErrno("cannot listen for signals"));
    if (!options.enter.empty())
        enterBox(options, signals);
    return runInBox(options, signals);
}

} // namespace

} // namespace tvbox

int main(int argc, char** argv) {
    try {
        const auto parsed = tvbox::parseOptions(argc, argv);
        return parsed.options ? tvbox::run(*parsed.options) : parsed.tell();
    } catch (const std::exception& failure) {
        tvbox::notice(failure.what());
    }
    return tvbox::ExitFailure;
}
