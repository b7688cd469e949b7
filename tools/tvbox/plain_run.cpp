#include "plain_run.h"

#include "box.h"
#include "failure.h"

#include <fcntl.h>
#include <fstream>
#include <sys/file.h>

namespace tvbox {

namespace {

/// All users share the names that a plain run uses, and can lock this; a lock leaves nothing there.
constexpr const char* lockPath = "/tmp";
constexpr int neededMessages = 50;

/// A kernel setting that forbids boxes when it has this value.
struct Switch {
    const char* name;
    const char* path;
    int forbids;
    const char* allows;
};
constexpr Switch switches[] = {
    {"kernel.unprivileged_userns_clone", "/proc/sys/kernel/unprivileged_userns_clone", 0, "1"},
    {"kernel.apparmor_restrict_unprivileged_userns",
     "/proc/sys/kernel/apparmor_restrict_unprivileged_userns", 1, "0"},
    {"user.max_user_namespaces", "/proc/sys/user/max_user_namespaces", 0, "10000"},
    {"user.max_mnt_namespaces", "/proc/sys/user/max_mnt_namespaces", 0, "10000"},
    {"user.max_ipc_namespaces", "/proc/sys/user/max_ipc_namespaces", 0, "10000"},
};

int settingOf(const char* path) {
    int value = -1;
    std::ifstream(path) >> value;
    return value;
}

UniqueFd waitForTurn(const BlockedSignals& signals) {
    UniqueFd file(open(lockPath, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!file)
        throw Failure(withErrno(std::string("cannot open the folder to lock, ") + lockPath));
    if (flock(file.get(), LOCK_EX | LOCK_NB) == 0)
        return file;
    notice("waits for another plain run to end");
    signals.restore(); // nothing runs yet: Ctrl-C ends the waiting
    int result = 0;
    while ((result = flock(file.get(), LOCK_EX)) != 0 && errno == EINTR)
        continue;
    signals.block();
    if (result != 0)
        throw Failure(withErrno(std::string("cannot lock ") + lockPath));
    return file;
}

} // namespace

std::string whyNoBox(const std::string& reason) {
    std::string settings;
    for (const auto& each : switches) {
        if (settingOf(each.path) == each.forbids)
            settings += std::string(" ") + each.name + "=" + each.allows;
    }
    if (settings.empty() && geteuid() != 0)
        settings = " kernel.unprivileged_userns_clone=1";
    auto advice = settings.empty()
                      ? std::string("give the container CAP_SYS_ADMIN and let it mount")
                      : "as root: sysctl -w" + settings;
    const int messages = settingOf("/proc/sys/fs/mqueue/msg_max");
    if (messages < neededMessages)
        advice += "; without a box queues hold " + std::to_string(messages) +
                  " messages, raise it with sysctl -w fs.mqueue.msg_max=256";
    return "no box (" + reason + "); to allow it, " + advice;
}

int runPlainly(const Options& options, const BlockedSignals& signals) {
    const auto companionLog = openLog(options.companionLog);
    const auto lock = waitForTurn(signals);
    const auto job = jobOf(options, companionLog);
    return Supervisor(job, signals, Leftovers::KillChildren, nullptr).run();
}

} // namespace tvbox
