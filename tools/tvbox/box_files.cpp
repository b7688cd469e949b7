#include "box_files.h"

#include "failure.h"
#include "named_paths.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <fnmatch.h>
#include <fstream>
#include <glob.h>
#include <set>
#include <sstream>
#include <sys/mount.h>
#include <sys/stat.h>

namespace tvbox {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t largestEtcFile = 16 << 20;

/// Configuration of the system inside: never the outside's.
const std::vector<const char*> ownEtc = {"tracesuva.cfg", "preinit*", "zantauto"};
const std::vector<const char*> ownDev = {"log", "shm", "mqueue"};

/// Where display and sound servers put their sockets.
constexpr const char* serverSockets[] = {".X11-unix", ".ICE-unix", "pulse-*"};

struct QueueLimit {
    const char* name;
    int value;
};
constexpr QueueLimit queueLimits[] = {
    {"msg_max", 256}, {"msgsize_max", 65536}, {"queues_max", 1024}};
constexpr const char* queueLimitFolder = "/proc/sys/fs/mqueue/";

void mountOrRefuse(const char* what, const std::string& where, const char* type,
                   unsigned long flags, const char* data = nullptr) {
    if (mount(what, where.c_str(), type, flags, data) != 0)
        throw Refusal(withErrno("cannot mount " + where));
}

void makeFolder(const std::string& path) {
    if (mkdir(path.c_str(), 0755) != 0)
        throw Refusal(withErrno("cannot make " + path));
}

bool fits(const std::string& name, const std::vector<const char*>& patterns) {
    return std::any_of(patterns.begin(), patterns.end(),
                       [&](const char* pattern) { return fnmatch(pattern, name.c_str(), 0) == 0; });
}

void makeReadOnly(const std::string& path) {
    struct mount_attr attributes = {};
    attributes.attr_set = MOUNT_ATTR_RDONLY;
    if (mount_setattr(AT_FDCWD, path.c_str(), AT_RECURSIVE, &attributes, sizeof attributes) != 0)
        throw Refusal(withErrno("cannot make " + path + " read-only (needs Linux 5.12)"));
}

EtcContent readEtc(const EtcFile& etc) {
    std::error_code error;
    if (!fs::is_regular_file(etc.file, error))
        throw Failure("--etc '" + etc.file + "' is not a file that exists");
    if (fs::file_size(etc.file, error) > largestEtcFile)
        throw Failure("--etc '" + etc.file + "' is larger than 16 MiB");
    std::ifstream in(etc.file, std::ios::binary);
    std::ostringstream bytes;
    if (!in || (in.peek() != EOF && !(bytes << in.rdbuf())))
        throw Failure("--etc '" + etc.file + "' cannot be read");
    return {etc.name, bytes.str()};
}

Words environment() {
    Words result;
    for (char** variable = environ; *variable; ++variable)
        result.emplace_back(*variable);
    return result;
}

/// The same path with the real name of /tmp.
std::string throughRealTmp(const std::string& path, const std::string& tmp) {
    return path.compare(0, 5, "/tmp/") == 0 ? tmp + path.substr(4) : path;
}

} // namespace

FilePlan makeFilePlan(const Options& options) {
    FilePlan plan;
    std::error_code error;
    plan.tmp = fs::canonical("/tmp", error);
    if (error)
        throw Failure("there is no /tmp: " + error.message());
    plan.cwd = fs::current_path(error);

    Words arguments = options.command;
    for (const auto& companion : options.companions)
        arguments.insert(arguments.end(), companion.words.begin(), companion.words.end());
    for (const auto& path : namedPaths(arguments, environment(), plan.cwd))
        plan.named.push_back(throughRealTmp(path, plan.tmp));
    for (const auto& pattern : options.keep) {
        const auto absolute = (fs::path(plan.cwd) / pattern).lexically_normal();
        plan.keep.push_back(throughRealTmp(absolute, plan.tmp));
    }
    for (const auto& etc : options.etcFiles)
        plan.etc.push_back(readEtc(etc));
    return plan;
}

BoxFiles::BoxFiles(const FilePlan& plan)
    : m_plan(plan), m_back(plan.tmp + "/.tvbox"), m_tmp(plan.tmp, m_back + "/tmp"),
      m_shm("/dev/shm", m_back + "/dev/shm") {}

void BoxFiles::mountAll(bool newProc) {
    // What is mounted outside later, a drive say, still appears; nothing goes the other way.
    mountOrRefuse(nullptr, "/", nullptr, MS_REC | MS_SLAVE);
    hideTmp();
    hideEtc();
    hideDev();
    if (newProc)
        mountOrRefuse("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC);
    letThroughNamed();
    if (!m_plan.cwd.empty() && chdir(m_plan.cwd.c_str()) != 0)
        throw Refusal(withErrno("cannot go to " + m_plan.cwd));
}

void BoxFiles::hideTmp() {
    // Taken before the new one is mounted over it: a copy made later would include that.
    const UniqueFd hidden(open_tree(AT_FDCWD, m_plan.tmp.c_str(),
                                    OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_RECURSIVE));
    if (!hidden)
        throw Refusal(withErrno("cannot keep " + m_plan.tmp));
    mountOrRefuse("tvbox", m_plan.tmp, "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777");
    for (const char* folder : {"", "/tmp", "/etc", "/dev"})
        makeFolder(m_back + folder);
    const auto place = m_back + "/tmp";
    if (move_mount(hidden.get(), "", AT_FDCWD, place.c_str(), MOVE_MOUNT_F_EMPTY_PATH) != 0)
        throw Refusal(withErrno("cannot mount " + place));
}

void BoxFiles::hideEtc() {
    const auto hidden = m_back + "/etc";
    mountOrRefuse("/etc", hidden, nullptr, MS_BIND | MS_REC);
    makeReadOnly(hidden);
    mountOrRefuse("tvbox", "/etc", "tmpfs", MS_NOSUID | MS_NODEV, "mode=755");
    auto own = ownEtc;
    for (const auto& file : m_plan.etc) {
        own.push_back(file.name.c_str());
        std::ofstream out("/etc/" + file.name, std::ios::binary);
        if (!(out << file.bytes << std::flush))
            throw Refusal(withErrno("cannot write the box's /etc/" + file.name));
    }
    mirror(hidden, "/etc", own);
}

void BoxFiles::hideDev() {
    const auto hidden = m_back + "/dev";
    mountOrRefuse("/dev", hidden, nullptr, MS_BIND | MS_REC);
    mountOrRefuse("tvbox", "/dev", "tmpfs", MS_NOSUID, "mode=755");
    mirror(hidden, "/dev", ownDev);
    makeFolder("/dev/shm");
    mountOrRefuse("tvbox", "/dev/shm", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777");
    makeFolder("/dev/mqueue");
    mountOrRefuse("mqueue", "/dev/mqueue", "mqueue", MS_NOSUID | MS_NODEV | MS_NOEXEC);
}

/// Folders are mounted, so that ".." in them is right; links are copied; the rest are links to the
/// hidden folder, where a pseudo-terminal's master still finds its neighbours.
void BoxFiles::mirror(const std::string& outside, const std::string& inside,
                      const std::vector<const char*>& without) const {
    for (const auto& entry : fs::directory_iterator(outside)) {
        const std::string name = entry.path().filename();
        if (fits(name, without))
            continue;
        const auto target = inside + "/" + name;
        if (entry.is_symlink()) {
            fs::copy_symlink(entry.path(), target);
        } else if (entry.is_directory()) {
            makeFolder(target);
            mountOrRefuse(entry.path().c_str(), target, nullptr, MS_BIND | MS_REC);
        } else {
            fs::create_symlink(entry.path(), target);
        }
    }
}

void BoxFiles::letThroughNamed() {
    for (const char* pattern : serverSockets)
        m_tmp.letThroughMatching(pattern);
    for (const auto& path : m_plan.named) {
        m_tmp.letThrough(path);
        m_shm.letThrough(path);
    }
}

std::string BoxFiles::raiseQueueLimits() const {
    std::string missing;
    for (const auto& limit : queueLimits) {
        const auto path = queueLimitFolder + std::string(limit.name);
        int present = 0;
        std::ifstream(path) >> present;
        if (present >= limit.value)
            continue;
        std::ofstream out(path);
        if (!(out << limit.value << std::flush))
            missing += " fs.mqueue." + std::string(limit.name) + "=" + std::to_string(limit.value);
    }
    return missing;
}

std::vector<std::string> BoxFiles::bringBack() const {
    std::set<std::string> paths(m_plan.named.begin(), m_plan.named.end());
    for (const auto& pattern : m_plan.keep) {
        glob_t found = {};
        if (glob(pattern.c_str(), GLOB_NOSORT, nullptr, &found) == 0)
            paths.insert(found.gl_pathv, found.gl_pathv + found.gl_pathc);
        globfree(&found);
    }
    std::vector<std::string> errors;
    for (const auto& path : paths) {
        for (const auto* tree : {&m_tmp, &m_shm}) {
            const auto failed = tree->bringBack(path);
            errors.insert(errors.end(), failed.begin(), failed.end());
        }
    }
    return errors;
}

} // namespace tvbox
