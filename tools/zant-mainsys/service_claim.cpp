#include "service_claim.h"

#include "failure.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace mainsys {

namespace {

/// Queues are an IPC namespace's, these names a network namespace's: so the name tells which one.
sockaddr_un addressOfClaim(socklen_t& size) {
    char ipc[64] = "";
    if (readlink("/proc/self/ns/ipc", ipc, sizeof ipc - 1) < 0)
        ipc[0] = '\0';
    const std::string name = std::string("zant-mainsys ") + ipc;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path + 1, name.data(), name.size()); // after a NUL: no file
    size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    return address;
}

std::string nameOf(pid_t process) {
    std::string name;
    std::getline(std::ifstream("/proc/" + std::to_string(process) + "/comm"), name);
    return name;
}

/// Asks the socket that has the name: credentials are those of the process that began to listen.
std::string whoHas(const sockaddr_un& address, socklen_t size) {
    const ScopedFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    ucred owner{};
    socklen_t ownerSize = sizeof owner;
    const bool known =
        connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), size) == 0 &&
        getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &owner, &ownerSize) == 0 && owner.pid > 0;
    return known ? nameOf(owner.pid) + ", process " + std::to_string(owner.pid) + " of user " +
                       std::to_string(owner.uid)
                 : "another main system";
}

} // namespace

ServiceClaim::ServiceClaim() : m_socket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    socklen_t size = 0;
    const sockaddr_un address = addressOfClaim(size);
    if (bind(m_socket.get(), reinterpret_cast<const sockaddr*>(&address), size) == 0 &&
        listen(m_socket.get(), SOMAXCONN) == 0)
        return;
    if (errno == EADDRINUSE)
        throw Failure(ExitServed, "the main system's queue is served by " + whoHas(address, size) +
                                      "; end that one first, or run this one in a box of its own "
                                      "(tvbox)");
    throw Failure(ExitFailed,
                  std::string("cannot claim the main system's queue: ") + strerrordesc_np(errno));
}

} // namespace mainsys
