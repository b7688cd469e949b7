#include "namespaces.h"

#include "failure.h"

#include <csignal>
#include <fcntl.h>
#include <linux/nsfs.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>

namespace tvbox {

namespace {

void writeProc(const char* path, const std::string& text) {
    const UniqueFd file(open(path, O_WRONLY | O_CLOEXEC));
    if (!file || write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        throw Refusal(withErrno(std::string("cannot write ") + path));
}

void mapIds(Caller inside, Caller outside) {
    const auto row = [](auto in, auto out) {
        return std::to_string(in) + " " + std::to_string(out) + " 1\n";
    };
    writeProc("/proc/self/setgroups", "deny");
    writeProc("/proc/self/uid_map", row(inside.uid, outside.uid));
    writeProc("/proc/self/gid_map", row(inside.gid, outside.gid));
}

UniqueFd openNamespace(const BoxInfo& box, const char* which) {
    const auto path = "/proc/" + std::to_string(box.pid) + "/ns/" + which;
    UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file)
        throw Failure(withErrno("cannot enter box '" + box.name + "': " + path));
    return file;
}

bool areSame(const UniqueFd& left, const UniqueFd& right) {
    struct stat leftInfo = {};
    struct stat rightInfo = {};
    return fstat(left.get(), &leftInfo) == 0 && fstat(right.get(), &rightInfo) == 0 &&
           leftInfo.st_ino == rightInfo.st_ino && leftInfo.st_dev == rightInfo.st_dev;
}

void join(const BoxInfo& box, const UniqueFd& file, const char* which) {
    if (setns(file.get(), 0) != 0)
        throw Failure(withErrno("cannot enter the " + std::string(which) + " namespace of box '" +
                                box.name + "'"));
}

} // namespace

pid_t forkIntoBox(BoxKind kind) {
    long flags = CLONE_NEWNS | CLONE_NEWIPC | SIGCHLD;
    if (kind.user)
        flags |= CLONE_NEWUSER;
    if (kind.process)
        flags |= CLONE_NEWPID;
    const auto pid = static_cast<pid_t>(syscall(SYS_clone, flags, nullptr, nullptr, nullptr, 0));
    if (pid < 0)
        throw Refusal(withErrno("cannot make namespaces"));
    return pid;
}

void becomeBoxRoot(Caller caller) {
    mapIds({0, 0}, caller);
}

void becomeCaller(Caller caller) {
    if (unshare(CLONE_NEWUSER) != 0)
        throw Refusal(withErrno("cannot make a second user namespace"));
    mapIds(caller, {0, 0});
}

void joinBox(const BoxInfo& box) {
    const auto mounts = openNamespace(box, "mnt");
    const auto ipc = openNamespace(box, "ipc");
    const auto processes = openNamespace(box, "pid");
    const auto user = openNamespace(box, "user");
    // The box's files and queues belong to a user namespace around the one that programs see.
    const UniqueFd owner(ioctl(mounts.get(), NS_GET_USERNS));
    if (!owner)
        throw Failure(withErrno("cannot enter box '" + box.name + "'"));
    const UniqueFd own(open("/proc/self/ns/user", O_RDONLY | O_CLOEXEC));
    if (!areSame(owner, own))
        join(box, owner, "owner's user");
    join(box, ipc, "ipc");
    join(box, processes, "pid");
    join(box, mounts, "mount");
    if (!areSame(user, owner))
        join(box, user, "user");
}

} // namespace tvbox
