#ifndef MAINSYS_LINK_SOCKET_H
#define MAINSYS_LINK_SOCKET_H

#include "link_signal.h"

#include <cstdint>

namespace mainsys {

/// What passes between the program and the process that holds the link.
enum class Passing : uint32_t {
    Ready,    ///< to the program: the queues are open
    Failed,   ///< to the program: they are not; the payload says why
    Received, ///< to the program: a message of the plug-in
    Send,     ///< to the link: send the message with its payload
    SendRaw   ///< to the link: put exactly this body into the queue, `count` times
};

struct Passed {
    Passing kind = Passing::Ready;
    uint32_t count = 1;
    Signal signal;
};

/// The most bytes of a payload that pass; longer ones are cut.
constexpr size_t longestPassed = 32 * 1024;

/// Send and receive one, through a socket that keeps the borders of packets. Sending waits for
/// room; receiving waits unless the socket does not. False when the other end is gone or, for a
/// socket that does not wait, when there is nothing: `errno` is EAGAIN then. Each for one thread at
/// a time.
bool pass(int socket, const Passed& passed);
bool takePassed(int socket, Passed& passed);

} // namespace mainsys

#endif
