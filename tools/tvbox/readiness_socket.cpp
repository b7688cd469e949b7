#include "readiness_socket.h"

#include "failure.h"

#include <cstddef>
#include <sys/socket.h>
#include <sys/un.h>

namespace tvbox {

ReadinessSocket::ReadinessSocket()
    : m_socket(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    auto* const plain = reinterpret_cast<struct sockaddr*>(&address);
    socklen_t size = sizeof address.sun_family; // the kernel finds a free name without a file
    if (!m_socket || bind(m_socket.get(), plain, size) != 0 ||
        getsockname(m_socket.get(), plain, &(size = sizeof address)) != 0)
        throw Failure(
            withErrno("cannot make the socket on which the main system says it is ready"));
    const auto length = size - offsetof(struct sockaddr_un, sun_path) - 1;
    m_address = "@" + std::string(address.sun_path + 1, length);
}

bool ReadinessSocket::isReady() {
    char bytes[4096];
    ssize_t size = 0;
    while ((size = recv(m_socket.get(), bytes, sizeof bytes, 0)) > 0) {
        const auto lines = "\n" + std::string(bytes, static_cast<std::size_t>(size)) + "\n";
        m_ready = m_ready || lines.find("\nREADY=1\n") != std::string::npos;
    }
    return m_ready;
}

} // namespace tvbox
