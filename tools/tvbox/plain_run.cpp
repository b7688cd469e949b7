#include "plain_run.h"

#include "failure.h"
#include "log_collector.h"
#include "supervisor.h"

#include <fstream>
#include <sys/file.h>

namespace tvbox {

namespace {

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

ScopedFd waitForTurn(const BlockedSignals& signals) {
    ScopedFd file(open(lockPath, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (flock(file.get(), LOCK_EX | LOCK_NB) == 0)
        return file;
    notice("waits for another plain run to end");
    signals.unblock(); // nothing runs yet: Ctrl-C ends the waiting
    if (TEMP_FAILURE_RETRY(flock(file.get(), LOCK_EX)) != 0)
        throw Failure(withErrno(std::string("cannot lock ") + lockPath));
    signals.block();
    return file;
}

} // namespace

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

int runPlainly(const Options& options, const BlockedSignals& signals) {
    const auto companionLog = openLog(options.companionLog);
    const auto turn = waitForTurn(signals);
    return Supervisor(options, companionLog, signals, Leftovers::Kill).run();
}

} // namespace tvbox
