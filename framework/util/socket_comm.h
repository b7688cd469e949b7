#ifndef UTIL_SOCKET_COMM_H
#define UTIL_SOCKET_COMM_H

#include <sys/socket.h>
#include <sys/types.h>

/// Unix-domain datagram sockets with names under "/tmp". A path is cut to what a socket address
/// holds (107 characters). What goes wrong is said in syslog, because tracing may not be up yet.
///
/// All functions are thread-safe and, where they wait, cancellation points that hold nothing.

enum SocketCommError : int {
    socketFailed = -1,
    socketNotBound = -2,
    socketHasOwner = -3,
    socketPathBlocked = -4,
};

/// Waits that many milliseconds, whatever signals arrive. Returns 0.
int Delay(int ms);

/// Opens a non-blocking socket bound to "/tmp/<name>", for this user and root alone (mode 0600
/// whatever the umask). A socket of this user that a dead process left there is replaced; anything
/// else there stays untouched and no link is followed. The system names the sender of every
/// datagram to the socket. The descriptor, the caller's to close, or one of SocketCommError.
/// `sendFlags` goes with every later SocketComm_Sendto of the process.
int SocketComm_Start(const char* name, int sendFlags);

/// Removes "/tmp/<name>". Returns what unlink returned.
int SocketComm_Unlink(const char* name);

/// Sends a datagram to "/tmp/<destName>". While the receiver has no room it tries again every 10 ms
/// until `timeoutMs` are used up; -1 stands for 300 s. The number of bytes, or -1 with errno.
int SocketComm_Sendto(int fd, const void* buffer, unsigned length, const char* destName,
                      int timeoutMs);

/// Waits for a datagram without limit of time; the time-out is not used. What recv returned, or -1.
int SocketComm_Recv(int fd, void* buffer, unsigned length, int flags, int timeoutMs);

/// As SocketComm_Recv, and tells who sent. The size is the datagram's even where `buffer` holds
/// less. A sender that the system does not name is nobody: process 0, user -1.
int SocketComm_RecvWithSender(int fd, void* buffer, unsigned length, struct ucred* sender);

/// Looks for a datagram every 10 ms until `timeoutMs` are used up; -1 stands for 1800 s. What
/// recvfrom returned last.
int SocketComm_Recvfrom(int fd, void* buffer, unsigned length, int flags, sockaddr* from,
                        socklen_t* fromLength, int timeoutMs);

#endif
