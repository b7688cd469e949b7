#ifndef SUPPORT_PRIVATE_TMP_H
#define SUPPORT_PRIVATE_TMP_H

#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace support {

inline void writeProcFile(const char* path, const std::string& text) {
    const int file = open(path, O_WRONLY | O_CLOEXEC);
    if (file < 0 || write(file, text.data(), text.size()) < 0)
        perror(path);
    close(file);
}

/// Puts an empty file system in memory there, for this process and its children.
inline bool mountMemory(const char* path, const char* options) {
    return mount("tmpfs", path, "tmpfs", 0, options) == 0;
}

/// Gives the process an empty /tmp of its own, so that fixed names there are this test's alone; the
/// folder of /tmp that the tests run in stays. To be called while there is one thread, such as from
/// a static constructor. False where the system allows no namespaces: such tests are skipped.
inline bool makePrivateTmp() {
    const uid_t user = geteuid();
    const gid_t userGroup = getegid();
    if (unshare(user == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER) != 0)
        return false;
    if (user != 0) {
        const auto same = [](unsigned id) {
            return std::to_string(id) + " " + std::to_string(id) + " 1\n";
        };
        writeProcFile("/proc/self/setgroups", "deny");
        writeProcFile("/proc/self/uid_map", same(user));
        writeProcFile("/proc/self/gid_map", same(userGroup));
    }
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return false;

    const auto here = std::filesystem::current_path().lexically_relative("/tmp");
    const std::string top = "/tmp/" + here.begin()->string();
    const bool isBelow = *here.begin() != ".." && *here.begin() != ".";
    const int folder = isBelow ? open(top.c_str(), O_PATH | O_CLOEXEC) : -1;
    if (!mountMemory("/tmp", "mode=1777,size=64m"))
        return false;
    if (isBelow) {
        mkdir(top.c_str(), 0755);
        const std::string source = "/proc/self/fd/" + std::to_string(folder);
        if (mount(source.c_str(), top.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0)
            return false;
        close(folder);
    }
    return true;
}

} // namespace support

#endif
