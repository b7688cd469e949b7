#include "common/offer.h"

#include <cerrno>
#include <cstddef>
#include <poll.h>
#include <string_view>
#include <sys/time.h>
#include <unistd.h>

namespace tools {

namespace {

bool isAllowed(int socket) {
    ucred peer{};
    socklen_t size = sizeof peer;
    return getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 &&
           (peer.uid == 0 || peer.uid == geteuid());
}

void sendAll(int socket, std::string_view bytes) {
    const timeval bound{1, 0};
    setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &bound, sizeof bound);
    while (!bytes.empty()) {
        const auto sent = send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent <= 0)
            return; // who asked has gone, or is too slow
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
}

} // namespace

SocketAddress::SocketAddress(const std::string& name)
    : m_size(static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size())),
      m_fits(name.size() < sizeof m_socket.sun_path) {
    m_socket.sun_family = AF_UNIX;
    name.copy(m_socket.sun_path, sizeof m_socket.sun_path - 1);
    if (!name.empty() && name.front() == '@')
        m_socket.sun_path[0] = '\0';
}

SocketAddress SocketAddress::amongQueues(const std::string& name) {
    char ipc[64] = "";
    if (readlink("/proc/self/ns/ipc", ipc, sizeof ipc - 1) < 0)
        ipc[0] = '\0';
    return SocketAddress("@" + name + " " + ipc);
}

Offer::Offer(const std::string& name)
    : m_socket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    const auto address = SocketAddress::amongQueues(name);
    m_isOpen = m_socket && bind(m_socket.get(), address.get(), address.size()) == 0 &&
               listen(m_socket.get(), SOMAXCONN) == 0;
}

void Offer::answer(const std::function<std::string()>& bytes) const {
    for (;;) {
        const ScopedFd visitor(accept4(m_socket.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!visitor)
            return;
        if (isAllowed(visitor.get()))
            sendAll(visitor.get(), bytes());
    }
}

std::optional<std::string> askForOffer(const std::string& name, std::chrono::milliseconds bound,
                                       std::size_t most) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + bound;
    const ScopedFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const auto address = SocketAddress::amongQueues(name);
    if (!socket || connect(socket.get(), address.get(), address.size()) != 0 ||
        !isAllowed(socket.get()))
        return std::nullopt;
    std::string bytes;
    for (;;) {
        using std::chrono::milliseconds;
        const auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now());
        pollfd waiting{socket.get(), POLLIN, 0};
        if (left.count() <= 0 || poll(&waiting, 1, static_cast<int>(left.count())) == 0)
            return std::nullopt;
        char part[16384];
        const auto got = recv(socket.get(), part, sizeof part, 0);
        if (got == 0)
            return bytes;
        if (got < 0 && errno != EINTR && errno != EAGAIN)
            return std::nullopt;
        bytes.append(part, static_cast<std::size_t>(got > 0 ? got : 0));
        if (bytes.size() > most)
            return std::nullopt;
    }
}

} // namespace tools
