#ifndef TVBOX_READINESS_SOCKET_H
#define TVBOX_READINESS_SOCKET_H

#include "unique_fd.h"

#include <string>

namespace tvbox {

/// Hears from a program that it is ready: "READY=1" in a datagram to the socket that NOTIFY_SOCKET
/// names, as service managers do it. The socket has no file and goes with the object.
class ReadinessSocket {
public:
    /// Throws Failure if there is no socket to be had.
    ReadinessSocket();

    /// For NOTIFY_SOCKET.
    const std::string& address() const { return m_address; }
    int fd() const { return m_socket.get(); }
    /// Takes what came; true once the program has said so.
    bool isReady();

private:
    UniqueFd m_socket;
    std::string m_address;
    bool m_ready = false;
};

} // namespace tvbox

#endif
