#include "debug/shell/mshell.h"

#include "debug/trace/zant_trace.h"
#include "util/cancellation_block.h"
#include "util/scoped_handles.h"
#include "util/socket_comm.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

// Stopping the thread cancels it in the two places where it may wait for long: for a command, and
// for room for the reply. Commands themselves and traces are not cancelled.

namespace {

constexpr const char* clientSocketName = "zant_dbg_client";
constexpr int pauseAfterErrorMs = 10;

/// Removes and closes the socket however the thread ends, without being cancelled over it.
struct ServerSocket {
    explicit ServerSocket(CMshell& server) : shell(server) {}
    ~ServerSocket() {
        const CancellationBlock block;
        // Its name first: of a closed socket it may be another process's already.
        shell.RemoveSocket();
        fd.reset();
    }
    ServerSocket(const ServerSocket&) = delete;
    ServerSocket& operator=(const ServerSocket&) = delete;

    CMshell& shell;
    ScopedFd fd;
};

/// What stands where the socket should be, for people.
std::string describe(const std::string& path) {
    struct stat info {};
    if (lstat(path.c_str(), &info) != 0)
        return std::string("it cannot be looked at: ") + strerrordesc_np(errno);
    if (S_ISLNK(info.st_mode))
        return "it is a symbolic link";
    if (S_ISDIR(info.st_mode))
        return "it is a directory";
    if (!S_ISSOCK(info.st_mode))
        return "it is no socket";
    return "it is a socket that belongs to user " + std::to_string(info.st_uid);
}

} // namespace

void CMshell::ThreadWorkFunction() {
    ZANT_TRACE(TRACEUNIT_SHELL_SOCKET, TRACELEVEL_DEBUG, "CMshell::RealThreadFunction() called\n");
    ServerSocket server(*this);
    {
        const CancellationBlock block;
        if (MshellOpenSocket() != 0) {
            ZANT_TRACE(TRACEUNIT_SHELL_SOCKET, TRACELEVEL_WARNING,
                       "CMshell::MshellOpenSocket() failed\n");
            return;
        }
        server.fd.reset(m_socketFd);
    }
    while (!stopRequested) {
        if (MshellReadFromSocket() == 0)
            answer(ProcessMshellCmd(m_receiveBuffer));
    }
}

int32_t CMshell::MshellOpenSocket() {
    m_socketFd = SocketComm_Start(m_socketName.c_str(), MSG_DONTWAIT);
    if (m_socketFd < 0) {
        const int reason = errno;
        ZANT_TRACE_STREAM(TRACEUNIT_SHELL_SOCKET, TRACELEVEL_ERROR,
                          "CMshell::MshellOpenSocket() FAILED - SocketFd = "
                              << m_socketFd << ", SocketName = " << m_socketName << "\n");
        reportBlockedSocket(m_socketFd, reason);
        return m_socketFd;
    }
    m_socketOwner = getpid();
    ZANT_TRACE_STREAM(TRACEUNIT_SHELL_SOCKET, TRACELEVEL_INFO,
                      "CMshell::MshellOpenSocket() - SocketFd = " << m_socketFd << ", SocketName = "
                                                                  << m_socketName << "\n");
    return 0;
}

void CMshell::RemoveSocket() {
    // A forked child has a copy of the object, and may come here as it exits.
    pid_t owner = getpid();
    if (m_socketOwner.compare_exchange_strong(owner, 0))
        SocketComm_Unlink(m_socketName.c_str());
}

/// Says what to do about a socket that cannot be had, to syslog as well.
void CMshell::reportBlockedSocket(int32_t error, int reason) const {
    const std::string path = "/tmp/" + m_socketName;
    std::string advice;
    if (error == socketHasOwner)
        advice = path + " is served by another process (fuser " + path +
                 " names it): one process "
                 "has the shell, this one goes on without; end the other and start again";
    else if (error == socketPathBlocked)
        advice = path + " is in the way and stays untouched, " + describe(path) +
                 "; remove it and start again";
    else
        advice = "no socket at " + path + ": " + strerrordesc_np(reason);
    const std::string text = "CMshell::MshellOpenSocket() - " + advice + "\n";
    ZANT_TRACE(TRACEUNIT_SHELL_SOCKET, TRACELEVEL_ERROR, "%s", text.c_str());
    ErrorToSyslogUnlessTraced(TRACEUNIT_SHELL_SOCKET, TRACELEVEL_ERROR, text.c_str());
}

int32_t CMshell::MshellReadFromSocket() {
    struct ucred sender {};
    const int size = SocketComm_RecvWithSender(m_socketFd, m_receiveBuffer, commandSize, &sender);
    if (size != static_cast<int>(commandSize)) {
        ZANT_TRACE(TRACEUNIT_SHELL_SOCKET, TRACELEVEL_DEBUG,
                   "CMshell::MshellReadFromSocket() - FAILED\n");
        if (size < 0)
            Delay(pauseAfterErrorMs);
        return receiveFailed;
    }
    if (!mayCommand(sender.uid)) {
        ZANT_TRACE(TRACEUNIT_SHELL_SOCKET, TRACELEVEL_WARNING,
                   "CMshell::MshellReadFromSocket() - Command of user %ld, process %ld, refused: "
                   "only user %ld and root may send commands\n",
                   static_cast<long>(sender.uid), static_cast<long>(sender.pid),
                   static_cast<long>(geteuid()));
        return receiveFailed;
    }
    return 0;
}

bool CMshell::mayCommand(unsigned user) const {
    return user == 0 || user == geteuid();
}

void CMshell::answer(int32_t result) {
    const bool sent = result == 0 ? SendMshellCmdAckToSocket() : SendMshellCmdNackToSocket();
    if (sent)
        ZANT_TRACE(TRACEUNIT_SHELL_SOCKET, TRACELEVEL_DEBUG,
                   "CMshell::RealThreadFunction() - Sending Ack/Nack successful\n");
    else
        ZANT_TRACE(TRACEUNIT_SHELL_SOCKET, TRACELEVEL_WARNING,
                   "CMshell::RealThreadFunction() - Sending Ack/Nack failed\n");
}

bool CMshell::SendMshellCmdAckToSocket() {
    return sendReply("OK", sizeof "OK", "SendMshellCmdAckToSocket");
}

bool CMshell::SendMshellCmdNackToSocket() {
    return sendReply("ERR", sizeof "ERR", "SendMshellCmdNackToSocket");
}

bool CMshell::sendReply(const char* reply, unsigned size, const char* caller) {
    if (SocketComm_Sendto(m_socketFd, reply, size, clientSocketName, -1) >= 0)
        return true;
    ZANT_TRACE_STREAM(TRACEUNIT_SHELL_SOCKET, TRACELEVEL_WARNING,
                      "CMshell::" << caller << "() - FAILED, SocketName = " << clientSocketName
                                  << "\n");
    return false;
}
