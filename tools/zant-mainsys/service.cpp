#include "service.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sys/socket.h>
#include <unistd.h>

namespace mainsys {

namespace {

constexpr const char* claimName = "zant-mainsys";

std::string nameOf(pid_t process) {
    std::string name;
    std::getline(std::ifstream("/proc/" + std::to_string(process) + "/comm"), name);
    return name;
}

/// Asks the socket that has the name: credentials are those of the process that began to listen.
std::string whoHas() {
    const auto address = tools::SocketAddress::amongQueues(claimName);
    const ScopedFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    ucred owner{};
    socklen_t size = sizeof owner;
    const bool known = connect(socket.get(), address.get(), address.size()) == 0 &&
                       getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &owner, &size) == 0 &&
                       owner.pid > 0;
    return known ? nameOf(owner.pid) + ", process " + std::to_string(owner.pid) + " of user " +
                       std::to_string(owner.uid)
                 : "another main system";
}

} // namespace

ServiceClaim::ServiceClaim() : m_offer(claimName) {
    if (m_offer.isOpen())
        return;
    if (errno == EADDRINUSE)
        throw Failure(ExitServed, "the main system's queue is served by " + whoHas() +
                                      "; end that one first, or run this one in a box of its own "
                                      "(tvbox)");
    throw Failure(ExitFailed,
                  std::string("cannot claim the main system's queue: ") + strerrordesc_np(errno));
}

std::string tellReady() {
    constexpr char ready[] = "READY=1";
    const char* const name = std::getenv("NOTIFY_SOCKET");
    if (!name || !*name)
        return {};
    const tools::SocketAddress address(name);
    if (!address.fits())
        return "NOTIFY_SOCKET is too long for a socket's name";
    const ScopedFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const auto sent =
        sendto(socket.get(), ready, sizeof ready - 1, MSG_NOSIGNAL, address.get(), address.size());
    return sent >= 0
               ? ""
               : std::string("cannot say READY=1 to NOTIFY_SOCKET: ") + strerrordesc_np(errno);
}

} // namespace mainsys
