#ifndef MESSAGING_QUEUE_IO_H
#define MESSAGING_QUEUE_IO_H

#include "messaging/queue/zant_msg_body.h"
#include "util/cancellation_block.h"
#include "util/scoped_handles.h"

#include <chrono>
#include <cstdint>
#include <fcntl.h>
#include <mqueue.h>
#include <poll.h>
#include <string>
#include <sys/types.h>

/// The system calls on a queue's descriptor. Thread-safe. Results and errno are the kernel's.
namespace queue_io {

/// Opens a queue. When the kernel refuses the capacity, opens it with what the kernel allows and
/// says so. `attr` becomes what the queue really has. The descriptor is never 0, which stands for
/// no queue. -1 with errno on failure.
int open(const char* name, int oflag, mode_t mode, mq_attr& attr);

/// Which queue a descriptor is of, whatever has its name by now.
struct Identity {
    dev_t device = 0;
    ino_t number = 0;
    bool operator==(const Identity& other) const {
        return device == other.device && number == other.number;
    }
};
/// None (0, 0) for a number that is no descriptor.
Identity identityOf(int handle);

/// Whether a name still leads to the queue of a descriptor. One that was unlinked has lost it,
/// perhaps to a successor, whose it is now.
bool hasName(int handle);

/// Opens the queue of that name again if it is the same one, to read and without waiting. Invalid,
/// with errno, if it is not.
ScopedFd reopen(const std::string& name, const Identity& identity);

/// What a person can do about an error (errno) of opening a queue; empty for one that needs a
/// programmer.
std::string adviceOn(int error);

/// Sends a body. Waits while the queue is full, if its mode says so; only that wait may be
/// cancelled. 0, or -1 with errno.
int send(int handle, const ZantMsgBody& body, unsigned prio, const CancellationBlock& block);

/// Reads a message if there is one. Its size; -1 with errno EAGAIN if there is none and the queue
/// does not block, ETIMEDOUT if there is none and the queue does.
ssize_t receiveAtOnce(int handle, ZantMsgBody& body);

using Clock = std::chrono::steady_clock;

/// Waits until the queue can be read (POLLIN) or written (POLLOUT), for ever without a deadline: 1
/// if it can, 0 at the deadline or on another wake-up, -1 with errno. A signal does not end the
/// wait. May be cancelled.
int waitFor(int handle, short events, const Clock::time_point* deadline,
            const CancellationBlock& block);

} // namespace queue_io

#endif
