#include "util/socket_comm.h"

#include "util/scoped_handles.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

namespace {

constexpr const char* socketDirectory = "/tmp";
constexpr mode_t ownerOnly = 0600;
constexpr int pauseMs = 10;
constexpr int longestSendMs = 300000;
constexpr int longestRecvfromMs = 1800000;

std::atomic<int> sendFlagsInUse{0};

/// A socket's address. The system always gets its full size, not the length of the path.
struct SocketAddress {
    explicit SocketAddress(const char* name) {
        address.sun_family = AF_UNIX;
        const char* const known = name ? name : "";
        // Cut to what the address holds, by design.
        if (snprintf(address.sun_path, sizeof address.sun_path, "%s/%s", socketDirectory, known) <
            0)
            address.sun_path[0] = '\0';
    }
    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address); }
    const char* path() const { return address.sun_path; }
    static constexpr socklen_t size = sizeof(sockaddr_un);

    sockaddr_un address{};
};

int fail(SocketCommError error, const char* text) {
    const int reason = errno;
    syslog(LOG_ERR, "%s", text);
    errno = reason;
    return error;
}

/// What is at the path itself, links not followed; nothing at all has mode 0.
struct stat look(const char* path) {
    struct stat info {};
    if (lstat(path, &info) != 0)
        info.st_mode = 0;
    return info;
}

/// The mode is set before the name exists, so that nobody gets in between. The umask may have taken
/// the owner's own rights from it: they come back afterwards, and not through a link.
bool bindForOwner(int fd, const SocketAddress& address) {
    if (fchmod(fd, ownerOnly) != 0 || bind(fd, address.get(), SocketAddress::size) != 0)
        return false;
    return (look(address.path()).st_mode & 0777) == ownerOnly ||
           fchmodat(AT_FDCWD, address.path(), ownerOnly, AT_SYMLINK_NOFOLLOW) == 0;
}

ScopedFd newSocket() {
    return ScopedFd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

/// Makes room for a socket of ours where something is in the way. 0 or an error.
int clearPath(const SocketAddress& address) {
    const struct stat found = look(address.path());
    // Connecting would follow a link, perhaps to a process that has nothing to do with the name.
    if (S_ISLNK(found.st_mode))
        return fail(socketPathBlocked, "Error removing old socket");
    const ScopedFd probe = newSocket();
    if (connect(probe.get(), address.get(), SocketAddress::size) == 0)
        return fail(socketHasOwner, "Second instance already running");
    // Nobody listens: a process that died has left it.
    const bool isAbandoned = errno == ECONNREFUSED;
    const bool mayReplace =
        S_ISSOCK(found.st_mode) && (found.st_uid == geteuid() || geteuid() == 0);
    if (isAbandoned && mayReplace && unlink(address.path()) == 0)
        return 0;
    return fail(socketPathBlocked, "Error removing old socket");
}

/// Before the socket can get its first datagram.
bool nameSenders(int fd) {
    const int on = 1;
    return setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof on) == 0;
}

bool waitUntilReadable(int fd) {
    pollfd waiting{fd, POLLIN, 0};
    int ready = 0;
    do
        ready = poll(&waiting, 1, -1);
    while (ready < 0 && errno == EINTR);
    if (ready < 0 || (waiting.revents & POLLNVAL)) {
        const int reason = ready < 0 ? errno : EBADF;
        syslog(LOG_ERR, "SocketComm_Recv - select failed - rc_select: %d errno=%d\n", -1, reason);
        errno = reason;
        return false;
    }
    if (!(waiting.revents & (POLLIN | POLLERR | POLLHUP))) {
        syslog(LOG_ERR, "SocketComm_Recv - select, but not our socket - rc_select: %d errno=%d\n",
               ready, errno);
        return false;
    }
    return true;
}

/// The time that a call may take, used up in steps.
class Budget {
public:
    Budget(int timeoutMs, int longestMs) : m_leftMs(timeoutMs == -1 ? longestMs : timeoutMs) {}
    /// Waits for one step. False when nothing was left.
    bool wait() {
        if (m_leftMs < 1)
            return false;
        Delay(pauseMs);
        m_leftMs -= pauseMs;
        return true;
    }

private:
    int m_leftMs;
};

} // namespace

int Delay(int ms) {
    if (ms <= 0)
        return 0;
    timespec until{};
    clock_gettime(CLOCK_MONOTONIC, &until);
    until.tv_sec += ms / 1000;
    until.tv_nsec += static_cast<long>(ms % 1000) * 1000000;
    if (until.tv_nsec >= 1000000000) {
        until.tv_nsec -= 1000000000;
        ++until.tv_sec;
    }
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
    return 0;
}

int SocketComm_Start(const char* name, int sendFlags) {
    ScopedFd fd = newSocket();
    if (!fd || !nameSenders(fd.get()))
        return fail(socketFailed, "Low level socket error");

    const SocketAddress address(name);
    if (!bindForOwner(fd.get(), address)) {
        const int error = clearPath(address);
        if (error != 0)
            return error;
        if (!bindForOwner(fd.get(), address))
            return fail(socketNotBound, "Error binding socket");
    }
    sendFlagsInUse = sendFlags;
    return fd.release();
}

int SocketComm_Unlink(const char* name) {
    return unlink(SocketAddress(name).path());
}

int SocketComm_Sendto(int fd, const void* buffer, unsigned length, const char* destName,
                      int timeoutMs) {
    const SocketAddress address(destName);
    Budget budget(timeoutMs, longestSendMs);
    ssize_t sent = 0;
    do
        sent = sendto(fd, buffer, length, sendFlagsInUse, address.get(), SocketAddress::size);
    while (sent < 0 && (errno == EINTR || (errno == EAGAIN && budget.wait())));
    return static_cast<int>(sent);
}

int SocketComm_Recv(int fd, void* buffer, unsigned length, int flags, int /*timeoutMs*/) {
    if (!waitUntilReadable(fd))
        return -1;
    return static_cast<int>(recv(fd, buffer, length, flags));
}

int SocketComm_RecvWithSender(int fd, void* buffer, unsigned length, struct ucred* sender) {
    if (!waitUntilReadable(fd))
        return -1;
    iovec data{buffer, length};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(struct ucred))];
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t size = recvmsg(fd, &message, MSG_DONTWAIT | MSG_TRUNC | MSG_CMSG_CLOEXEC);

    *sender = {0, static_cast<uid_t>(-1), static_cast<gid_t>(-1)};
    if (size < 0)
        return -1;
    for (cmsghdr* part = CMSG_FIRSTHDR(&message); part; part = CMSG_NXTHDR(&message, part)) {
        if (part->cmsg_level == SOL_SOCKET && part->cmsg_type == SCM_CREDENTIALS)
            memcpy(sender, CMSG_DATA(part), sizeof *sender);
    }
    return static_cast<int>(size);
}

int SocketComm_Recvfrom(int fd, void* buffer, unsigned length, int flags, sockaddr* from,
                        socklen_t* fromLength, int timeoutMs) {
    Budget budget(timeoutMs, longestRecvfromMs);
    ssize_t received = 0;
    do
        received = recvfrom(fd, buffer, length, flags, from, fromLength);
    while (received < 0 && budget.wait());
    return static_cast<int>(received);
}
