#include "util/atomic_file.h"

#include "util/file_place.h"
#include "util/scoped_handles.h"
#include "util/trusted_path.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/types.h>

namespace {

constexpr mode_t modeOfFile = 0600; // its owner only

std::string failed(const std::string& what) {
    return "cannot write " + what + ": " + strerrordesc_np(errno);
}

} // namespace

std::string writeFileAtomically(const std::string& path, std::string_view content) {
    const auto slash = path.rfind('/');
    if (path.empty() || path.front() != '/' || path.back() == '/')
        return "'" + path + "' is no absolute path of a file";
    if (path.find("/.") != std::string::npos)
        return path + " is hidden: name a path without parts that begin with a dot";
    const std::string folderPath = path.substr(0, slash + 1);
    const std::string name = path.substr(slash + 1);
    const auto folder = openFolderForNewFile(folderPath);
    if (!folder.place)
        return folder.why.empty() ? folderPath + " is no folder: make it, or name another"
                                  : folder.why;

    const std::string temporary = "." + name + "." + std::to_string(gettid());
    constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    unlinkat(folder.place.get(), temporary.c_str(), 0); // of a process that was killed
    const ScopedFd file(openat(folder.place.get(), temporary.c_str(), flags, modeOfFile));
    if (!file)
        return failed(folderPath);
    if (writeAllAt(file.get(), content.data(), content.size(), 0) && fsync(file.get()) == 0 &&
        renameat(folder.place.get(), temporary.c_str(), folder.place.get(), name.c_str()) == 0)
        return {};
    const auto reason = failed(path);
    unlinkat(folder.place.get(), temporary.c_str(), 0);
    return reason;
}
