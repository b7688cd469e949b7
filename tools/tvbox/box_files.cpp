#include "box_files.h"

#include "failure.h"

#include <algorithm>
#include <fnmatch.h>
#include <fstream>
#include <random>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>

namespace tvbox {

namespace {

namespace fs = std::filesystem;
using Patterns = std::vector<const char*>;

constexpr const char* sharedMemory = "/dev/shm";

/// What the box or the system in it puts directly into /tmp under a fixed name.
const Patterns ownTmp = {"zant_dbg_*", "GST_DEBUG", "usb_logs", ".tvbox*"};
/// Configuration of the system inside: never the outside's.
const Patterns ownEtc = {"tracesuva.cfg", "preinit*", "zantauto"};
const Patterns ownDev = {"log", "shm", "mqueue"};
/// Where display and sound servers put their sockets, and what names them.
const Patterns serverSockets = {".X11-unix", ".ICE-unix", "pulse-*"};
constexpr const char* serverVariables[] = {"XDG_RUNTIME_DIR", "XAUTHORITY"};

struct QueueLimit {
    const char* name;
    int value;
};
constexpr QueueLimit queueLimits[] = {
    {"msg_max", 256}, {"msgsize_max", 65536}, {"queues_max", 1024}};

/// The part of a path below a folder, "." for the folder itself; empty if it is elsewhere.
fs::path below(const fs::path& folder, const fs::path& path) {
    const auto relative = path.lexically_relative(folder);
    return relative.empty() || *relative.begin() == ".." ? fs::path() : relative;
}

bool fits(const fs::path& name, const Patterns& patterns) {
    return std::any_of(patterns.begin(), patterns.end(),
                       [&](const char* pattern) { return fnmatch(pattern, name.c_str(), 0) == 0; });
}

void mountOrRefuse(const char* what, const fs::path& where, const char* type, unsigned long flags,
                   const char* data = nullptr) {
    if (mount(what, where.c_str(), type, flags, data) != 0)
        throw Refusal(withErrno("cannot mount " + where.string()));
}

void makeReadOnly(const fs::path& path) {
    struct mount_attr attributes = {};
    attributes.attr_set = MOUNT_ATTR_RDONLY;
    if (mount_setattr(AT_FDCWD, path.c_str(), AT_RECURSIVE, &attributes, sizeof attributes) != 0)
        throw Refusal(withErrno("cannot make " + path.string() + " read-only (needs Linux 5.12)"));
}

/// Sockets, pipes and devices stay behind.
void copyTree(const fs::path& from, const fs::path& to) {
    const auto type = fs::symlink_status(from).type();
    if (type == fs::file_type::symlink) {
        fs::copy_symlink(from, to);
    } else if (type == fs::file_type::regular) {
        fs::copy_file(from, to);
        fs::last_write_time(to, fs::last_write_time(from));
    } else if (type == fs::file_type::directory) {
        fs::create_directory(to, from);
        for (const auto& entry : fs::directory_iterator(from))
            copyTree(entry, to / entry.path().filename());
    }
}

/// What is copied under a passing name beside the target, so that a reader never sees half of it.
void bringOut(const fs::path& from, const fs::path& to) {
    const auto number = std::to_string(std::random_device()()); // all boxes have the same ids
    const auto passing = to.parent_path() / (".tvbox-" + number + ".part");
    try {
        copyTree(from, passing);
        if (fs::exists(fs::symlink_status(passing)))
            fs::rename(passing, to);
    } catch (const fs::filesystem_error&) {
        std::error_code ignored;
        fs::remove_all(passing, ignored);
        throw;
    }
}

} // namespace

BoxFiles::BoxFiles(const Options& options) : m_tmp(fs::canonical("/tmp")) {
    std::error_code unknown;
    share(m_cwd = fs::current_path(unknown));
    for (const auto& path : options.share)
        if (!share(path))
            notice(
                "--share '" + path +
                "' changes nothing: it is not in /tmp or /dev/shm, and seen in a box as outside");
    for (const char* variable : serverVariables) {
        if (const char* const path = std::getenv(variable); path && *path)
            share(path);
    }
    for (const auto& entry : fs::directory_iterator(m_tmp)) {
        if (fits(entry.path().filename(), serverSockets))
            share(entry);
    }
    for (const auto& value : options.etc) {
        const auto equals = fs::exists(value) ? std::string::npos : value.rfind('=');
        const auto file = value.substr(0, equals);
        const auto name = equals == std::string::npos ? fs::path(value).filename().string()
                                                      : value.substr(equals + 1);
        if (name.empty() || name.find('/') != std::string::npos || !fs::is_regular_file(file))
            throw Failure("--etc '" + value +
                          "': give a FILE that exists, or FILE=NAME with a NAME directly in /etc, "
                          "such as traces.cfg=tracesuva.cfg");
        m_etc[name] = ScopedFd(open(file.c_str(), O_RDONLY | O_CLOEXEC));
        if (!m_etc[name])
            throw Failure(withErrno("--etc '" + file + "' cannot be read"));
    }
}

/// A path in a hidden folder counts as the topmost entry there; a path elsewhere may still lead
/// there through a link. Whether it is in one.
bool BoxFiles::share(const Path& path) {
    std::error_code error;
    bool isHidden = false;
    const auto whole = (m_cwd / path).lexically_normal();
    for (const auto& name : {whole, fs::weakly_canonical(whole, error)}) {
        for (const Path folder : {m_tmp.c_str(), sharedMemory}) {
            const auto relative = below(folder, name);
            isHidden |= !relative.empty();
            const auto first = relative.empty() ? relative : *relative.begin();
            if (first.empty() || first == "." || fits(first, ownTmp))
                continue;
            m_shared[folder / first] = fs::canonical(folder / first, error);
        }
    }
    return isHidden;
}

/// Where the box sees what its own folders hide.
BoxFiles::Path BoxFiles::hidden(const Path& path) const {
    for (const auto& [folder, name] :
         {std::pair{m_tmp.c_str(), "tmp"}, {"/dev", "dev"}, {"/etc", "etc"}}) {
        if (const auto relative = below(folder, path); !relative.empty())
            return (Path(m_tmp) / ".tvbox" / name / relative).lexically_normal();
    }
    return path;
}

void BoxFiles::mountAll(bool newProc) const {
    // What is mounted outside later, a drive say, still appears; nothing goes the other way.
    mountOrRefuse(nullptr, "/", nullptr, MS_REC | MS_SLAVE);
    hideTmp();
    hide("/etc", ownEtc);
    placeEtc();
    hide("/dev", ownDev);
    fs::create_directory("/dev/shm");
    mountOrRefuse("tvbox", "/dev/shm", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777");
    fs::create_directory("/dev/mqueue");
    mountOrRefuse("mqueue", "/dev/mqueue", "mqueue", MS_NOSUID | MS_NODEV | MS_NOEXEC);
    if (newProc)
        mountOrRefuse("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC);
    letThrough();
    enterFolder(m_cwd);
}

void BoxFiles::hideTmp() const {
    // Taken before the new one is mounted over it: a copy made later would include that.
    const ScopedFd outer(
        open_tree(AT_FDCWD, m_tmp.c_str(), OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_RECURSIVE));
    if (!outer)
        throw Refusal(withErrno("cannot keep " + m_tmp));
    mountOrRefuse("tvbox", m_tmp, "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777");
    for (const char* const folder : {m_tmp.c_str(), "/etc", "/dev"})
        fs::create_directories(hidden(folder));
    const auto place = hidden(m_tmp);
    if (move_mount(outer.get(), "", AT_FDCWD, place.c_str(), MOVE_MOUNT_F_EMPTY_PATH) != 0)
        throw Refusal(withErrno("cannot mount " + place.string()));
}

/// Puts a folder of the box's own in the place of the outside's, with the same in it except what is
/// the box's own.
void BoxFiles::hide(const Path& folder, const Patterns& own) const {
    const auto outer = hidden(folder);
    mountOrRefuse(folder.c_str(), outer, nullptr, MS_BIND | MS_REC);
    if (folder == "/etc")
        makeReadOnly(outer);
    mountOrRefuse("tvbox", folder, "tmpfs", MS_NOSUID, "mode=755");
    for (const auto& entry : fs::directory_iterator(outer)) {
        const auto name = entry.path().filename();
        if (!fits(name, own))
            show(entry, folder / name);
    }
}

/// Folders are mounted, so that ".." in them is right; links are copied; the rest are links to the
/// hidden folder, where a pseudo-terminal's master still finds its neighbours.
void BoxFiles::show(const Path& outside, const Path& inside) const {
    if (fs::is_symlink(outside)) {
        const auto target = fs::read_symlink(outside);
        // In a box around, links lead to what that one hides.
        fs::create_symlink(below(m_tmp, target).empty() ? target : hidden(target), inside);
    } else if (fs::is_directory(outside)) {
        fs::create_directory(inside);
        mountOrRefuse(outside.c_str(), inside, nullptr, MS_BIND | MS_REC);
    } else {
        fs::create_symlink(outside, inside);
    }
}

void BoxFiles::placeEtc() const {
    for (const auto& [name, file] : m_etc) {
        const auto target = "/etc/" + name;
        fs::remove(target); // the outside's
        fs::copy_file("/proc/self/fd/" + std::to_string(file.get()), target);
        fs::permissions(target, fs::perms(0644));
    }
}

void BoxFiles::letThrough() const {
    for (const auto& [inside, real] : m_shared) {
        if (!real.empty())
            show(hidden(real), inside);
    }
}

std::vector<std::string> BoxFiles::bringBack() const {
    std::vector<std::string> errors;
    for (const auto& [inside, real] : m_shared) {
        // Shared folders and links are the outside's own; a file in the place of a link is new.
        if (!real.empty() && (fs::is_directory(inside) || fs::is_symlink(inside)))
            continue;
        try {
            bringOut(inside, hidden(inside));
        } catch (const fs::filesystem_error& error) {
            errors.push_back(inside.string() + ": " + error.code().message());
        }
    }
    return errors;
}

std::string raiseQueueLimits() {
    struct rlimit bytes = {RLIM_INFINITY, RLIM_INFINITY};
    if (setrlimit(RLIMIT_MSGQUEUE, &bytes) != 0 && getrlimit(RLIMIT_MSGQUEUE, &bytes) == 0) {
        bytes.rlim_cur = bytes.rlim_max;
        setrlimit(RLIMIT_MSGQUEUE, &bytes);
    }
    std::string missing;
    for (const auto& limit : queueLimits) {
        const auto path = "/proc/sys/fs/mqueue/" + std::string(limit.name);
        int present = 0;
        std::ifstream(path) >> present;
        if (present < limit.value && !(std::ofstream(path) << limit.value << std::flush))
            missing += " fs.mqueue." + std::string(limit.name) + "=" + std::to_string(limit.value);
    }
    return missing;
}

void enterFolder(const fs::path& outside) {
    std::error_code refused;
    fs::current_path(outside, refused);
    if (refused)
        fs::current_path("/");
}

} // namespace tvbox
