#include "readiness.h"

#include "util/scoped_handles.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>

namespace mainsys {

std::string tellReady() {
    constexpr char ready[] = "READY=1";
    const char* const name = std::getenv("NOTIFY_SOCKET");
    if (!name || !*name)
        return {};
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const size_t length = strlen(name);
    if (length >= sizeof address.sun_path)
        return "NOTIFY_SOCKET is too long for a socket's name";
    memcpy(address.sun_path, name, length);
    if (*name == '@')
        address.sun_path[0] = '\0';
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
    const ScopedFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const auto sent = sendto(socket.get(), ready, sizeof ready - 1, MSG_NOSIGNAL,
                             reinterpret_cast<const sockaddr*>(&address), size);
    return sent >= 0
               ? std::string()
               : std::string("cannot say READY=1 to NOTIFY_SOCKET: ") + strerrordesc_np(errno);
}

} // namespace mainsys
