#ifndef COMMON_OFFER_H
#define COMMON_OFFER_H

#include "util/scoped_handles.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>

namespace tools {

/// A local socket's name; behind '@' one without a file.
class SocketAddress {
public:
    explicit SocketAddress(const std::string& name);
    /// The same without a file, for who shares this process's queues: those are an IPC namespace's,
    /// such names a network namespace's.
    static SocketAddress amongQueues(const std::string& name);

    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&m_socket); }
    socklen_t size() const { return m_size; }
    bool fits() const { return m_fits; }

private:
    sockaddr_un m_socket{};
    socklen_t m_size;
    bool m_fits;
};

/// Bytes that a process has for those who ask on this machine: of this user, and root. It ends with
/// the process, however that one dies, and leaves no file. Bound to a thread.
class Offer {
public:
    /// One process at a time has a name; see isOpen().
    explicit Offer(const std::string& name);

    bool isOpen() const { return m_isOpen; } ///< else errno says why, right after construction
    /// Can be read when somebody asks.
    int fd() const { return m_socket.get(); }
    /// Gives the bytes to all who ask. Who does not take them within a second gets what he took.
    void answer(const std::function<std::string()>& bytes) const;

private:
    ScopedFd m_socket;
    bool m_isOpen;
};

/// What is offered under the name; nothing when nobody does, or not all came in time, or it is more
/// than `most` bytes.
std::optional<std::string> askForOffer(const std::string& name, std::chrono::milliseconds bound,
                                       std::size_t most);

} // namespace tools

#endif
