#include "exchange.h"

#include "exit_code.h"
#include "util/socket_comm.h"

#include <csignal>
#include <cstring>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <utility>

namespace zantsh {

namespace {

using std::chrono::milliseconds;

constexpr const char* replySocketName = "zant_dbg_client";
constexpr const char* replySocketPath = "/tmp/zant_dbg_client";
constexpr const char* lockPath = "/tmp/zant_dbg_client.lock";
constexpr size_t commandSize = maxLineLength + 1;
constexpr int pauseMs = 5;

/// The lock file, whoever made it. A reader's rights are enough to lock.
ScopedFd openLockFile() {
    constexpr int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    ScopedFd file(open(lockPath, flags));
    // With O_CREAT the system refuses another user's file in /tmp, even to root.
    if (!file && errno == ENOENT)
        file.reset(open(lockPath, flags | O_CREAT, 0644));
    if (!file)
        throw NoShell(std::string("cannot open ") + lockPath + ": " + strerror(errno) +
                      "; remove it if no zantsh is running");
    return file;
}

} // namespace

Exchange::Exchange(const std::string& socketName, milliseconds timeout,
                   std::function<void()> whileWaiting)
    : m_socketName(socketName), m_deadline(Clock::now() + timeout),
      m_whileWaiting(std::move(whileWaiting)) {
    struct stat info {};
    if (lstat(path().c_str(), &info) != 0)
        throw NoShell("no shell at " + path() + ": " + strerror(errno) +
                      "; is the program running, and not in a box (tvbox --list, --box)?");
    m_owner = info.st_uid;
    lock();
    openReplySocket();
    waitUntilIdle();
}

Exchange::ReplyPath::~ReplyPath() {
    if (isOpen) {
        removeOnSignals(nullptr);
        SocketComm_Unlink(replySocketName);
    }
}

/// Somebody else is done with what is waited for, or soon.
void Exchange::pauseABit() const {
    m_whileWaiting();
    Delay(pauseMs);
}

void Exchange::lock() {
    m_lock = openLockFile();
    while (flock(m_lock.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR)
            throw NoShell(std::string("cannot lock ") + lockPath + ": " + strerror(errno));
        if (Clock::now() >= m_deadline)
            throw NoShell(std::string("another zantsh waits for its answer (fuser ") + lockPath +
                          " names it); try again, or give a longer --timeout");
        pauseABit();
    }
}

void Exchange::openReplySocket() {
    m_socket.reset(SocketComm_Start(replySocketName, MSG_DONTWAIT));
    if (m_socket.get() < 0) {
        static_cast<void>(m_socket.release()); // an error, not a descriptor
        throw NoShell(std::string("cannot have ") + replySocketPath +
                      " for the answers: another client uses it, or somebody else left it; see "
                      "ls -l " +
                      replySocketPath + " and remove it");
    }
    m_replyPath.isOpen = true;
    removeOnSignals(replySocketPath);
    // Root's socket is made the server's, which may not be root and has to write to it.
    if (geteuid() == 0 && m_owner != 0 &&
        lchown(replySocketPath, m_owner, static_cast<gid_t>(-1)) != 0)
        throw NoShell(std::string("cannot prepare ") + replySocketPath + ": " + strerror(errno));
}

/// A datagram of a wrong size is skipped without a reply. When the shell has taken it, all commands
/// before it have been answered.
void Exchange::waitUntilIdle() {
    sendDatagram("?");
    for (int unread = 1; ioctl(m_socket.get(), SIOCOUTQ, &unread) == 0 && unread > 0;) {
        if (Clock::now() >= m_deadline)
            throw NoShell("the shell at " + path() +
                          " is busy with another command; try again, or give a longer --timeout");
        pauseABit();
    }
    char late[16];
    while (recv(m_socket.get(), late, sizeof late, MSG_DONTWAIT) >= 0) {
    }
}

void Exchange::sendDatagram(const std::string& bytes) {
    const auto left = std::chrono::duration_cast<milliseconds>(m_deadline - Clock::now()).count();
    const int sent =
        SocketComm_Sendto(m_socket.get(), bytes.data(), static_cast<unsigned>(bytes.size()),
                          m_socketName.c_str(), static_cast<int>(std::max<long long>(left, 0)));
    if (sent >= 0)
        return;
    if (errno == EACCES)
        throw NoShell("the shell at " + path() + " is for user " + std::to_string(m_owner) +
                      " and root; run zantsh as one of them");
    if (errno == EAGAIN)
        throw NoShell("the shell at " + path() + " takes no command: it is flooded or stuck");
    throw NoShell("no shell at " + path() + ": " + strerror(errno) +
                  "; the program that made it has ended, or its shell has");
}

pid_t Exchange::ask(const std::string& line) {
    send(line);
    while (!waitForReply(milliseconds(50))) {
        if (Clock::now() >= m_deadline)
            throw NoShell("the shell at " + path() + " takes commands and does not answer");
    }
    return m_process;
}

void Exchange::send(const std::string& line) {
    if (line.size() > maxLineLength)
        throw NoShell("a command line has at most " + std::to_string(maxLineLength) +
                      " bytes, not " + std::to_string(line.size()));
    std::string bytes = line;
    bytes.resize(commandSize, '\0');
    sendDatagram(bytes);
}

std::optional<Reply> Exchange::waitForReply(milliseconds time) {
    m_whileWaiting();
    pollfd waiting{m_socket.get(), POLLIN, 0};
    if (poll(&waiting, 1, static_cast<int>(time.count())) <= 0) {
        if (m_process > 0 && kill(m_process, 0) != 0 && errno == ESRCH)
            throw NoShell("process " + std::to_string(m_process) + " ended before it answered");
        return std::nullopt;
    }
    char reply[8] = {};
    struct ucred sender {};
    const int size = SocketComm_RecvWithSender(m_socket.get(), reply, sizeof reply - 1, &sender);
    if (size < 0 || (sender.uid != m_owner && sender.uid != 0))
        return std::nullopt;
    m_process = sender.pid;
    return strcmp(reply, "OK") == 0 ? Reply::ok : Reply::error;
}

bool shellListens(const std::string& socketName) {
    const ScopedFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "/tmp/%s", socketName.c_str());
    return connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ||
           errno == EACCES;
}

} // namespace zantsh
