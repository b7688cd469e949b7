#include "common/box_registry.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sched.h>
#include <set>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>

namespace tvbox {

namespace {

/// What names of boxes begin with: it differs for users, and for those who do not share /tmp.
std::string namePrefix() {
    struct stat folder = {};
    const char* const runtime = std::getenv("XDG_RUNTIME_DIR");
    if (!runtime || stat(runtime, &folder) != 0 || folder.st_uid != geteuid())
        stat("/tmp", &folder);
    std::ostringstream text;
    text << "tvbox/" << geteuid() << '/' << std::hex << folder.st_dev << '.' << folder.st_ino
         << '/';
    return text.str();
}

bool isName(const std::string& name) {
    const auto allowed = [](unsigned char c) {
        return std::isalnum(c) != 0 || std::strchr("-_.", c) != nullptr;
    };
    return !name.empty() && name.size() <= 64 && name[0] != '.' && name[0] != '-' &&
           std::all_of(name.begin(), name.end(), allowed);
}

/// Calls bind() or connect() with the address of a box.
template <typename Call>
int withAddress(Call call, const ScopedFd& socket, const std::string& name) {
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const auto text = namePrefix() + name;
    text.copy(address.sun_path + 1, sizeof address.sun_path - 1);
    const auto size = offsetof(struct sockaddr_un, sun_path) + 1 + text.size();
    return call(socket.get(), reinterpret_cast<const struct sockaddr*>(&address),
                static_cast<socklen_t>(std::min(size, sizeof address)));
}

ScopedFd makeSocket() {
    return ScopedFd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

} // namespace

std::string withErrno(const std::string& what, int error) {
    return what + ": " + std::strerror(error);
}

BoxName::BoxName(const std::string& name) : m_socket(makeSocket()) {
    if (!isName(name))
        throw Failure("'" + name +
                      "' cannot name a box; take up to 64 letters, digits and '-', '_', '.', "
                      "beginning with a letter or digit");
    if (withAddress(bind, m_socket, name) == 0)
        return;
    if (errno == EADDRINUSE)
        throw Failure("a box named '" + name +
                      "' is running; choose another --name, or enter it with --enter " + name);
    throw Failure(withErrno("cannot name the box '" + name + "'"));
}

void BoxName::publish() const {
    if (listen(m_socket.get(), SOMAXCONN) != 0) // visitors see the process that called this
        throw Failure(withErrno("cannot make the box known"));
}

void BoxName::dismissVisitor() const {
    const ScopedFd visitor(accept4(m_socket.get(), nullptr, nullptr, SOCK_CLOEXEC));
}

std::optional<BoxInfo> findBox(const std::string& name) {
    const auto visitor = makeSocket();
    struct ucred first = {};
    socklen_t size = sizeof first;
    if (!isName(name) || withAddress(connect, visitor, name) != 0 ||
        getsockopt(visitor.get(), SOL_SOCKET, SO_PEERCRED, &first, &size) != 0 ||
        first.uid != geteuid() || first.pid == 0) // taken by somebody else, not seen from here
        return std::nullopt;
    return BoxInfo{name, first.pid};
}

std::vector<BoxInfo> listBoxes() {
    const auto begin = " @" + namePrefix();
    std::set<std::string> names; // a visited box is there more than once
    std::ifstream sockets("/proc/net/unix");
    for (std::string line; std::getline(sockets, line);) {
        if (const auto at = line.find(begin); at != std::string::npos)
            names.insert(line.substr(at + begin.size()));
    }
    std::vector<BoxInfo> boxes;
    for (const auto& name : names) {
        if (auto box = findBox(name))
            boxes.push_back(std::move(*box));
    }
    return boxes;
}

void joinBox(const BoxInfo& box) {
    const ScopedFd first(static_cast<int>(syscall(SYS_pidfd_open, box.pid, 0)));
    int namespaces = CLONE_NEWNS | CLONE_NEWIPC;
    for (const auto& [name, flag] : {std::pair{"user", CLONE_NEWUSER}, {"pid", CLONE_NEWPID}}) {
        const auto its = "/proc/" + std::to_string(box.pid) + "/ns/" + name;
        std::error_code error; // a process that is gone is setns()'s to report
        if (!std::filesystem::equivalent(std::string("/proc/self/ns/") + name, its, error))
            namespaces |= flag; // what one is in already may not be entered
    }
    if (setns(first.get(), namespaces) != 0)
        throw Failure(withErrno("cannot enter box '" + box.name + "'"));
    setenv("TVBOX", box.name.c_str(), 1);
}

} // namespace tvbox
