#ifndef MAINSYS_LINK_H
#define MAINSYS_LINK_H

#include "messaging/queue/zant_msg_body.h"
#include "messaging/remote/rpc_sequence.h"
#include "service.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace mainsys {

using Clock = std::chrono::steady_clock;

/// The remote functions, whose names the queues have behind a "/".
constexpr const char* ownFunction = "BplayerAppIfUlDestFunc";
constexpr const char* plugInFunction = "BplayerAppIfLlDestFunc";

/// A message of the link with the bytes of its payload.
struct Signal {
    Clock::time_point time; ///< when it was taken or sent
    ZantMsgBody body{};
    std::string payload;

    uint32_t sequence() const { return rpc_sequence::read(body.rpcControl); }
};

/// The main system's end of the link: its queue, made anew, and the shared memory. Bound to the
/// program's one thread; nothing here waits.
class Link {
public:
    /// Throws a Failure when another main system serves the queue, or the link cannot be opened.
    Link();
    ~Link(); ///< in order: the queue goes, what is unread in it is freed

    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    /// Can be read when there is something to take.
    int fd() const { return m_queue.get(); }
    const ServiceClaim& claim() const { return m_claim; }
    /// The plug-in's next message. One whose payload cannot be had comes without.
    std::optional<Signal> take();
    /// Sends a message with its payload, and gives it its sequence number. Lost, without a number,
    /// when the plug-in's queue is full or not there.
    void send(Signal& signal);
    /// Puts exactly this body into the plug-in's queue.
    static void sendRaw(const ZantMsgBody& body, uint32_t count);

private:
    /// The process's part in the shared memory.
    struct SharedMemory {
        SharedMemory();
        ~SharedMemory();
    };

    const ServiceClaim m_claim;
    const SharedMemory m_memory;
    ScopedFd m_queue;
    uint32_t m_sequence = rpc_sequence::senderStarted;
};

/// The plug-in's process, as a descriptor that can be read once it has ended: whoever has the
/// plug-in's queue open, since no message says. Invalid when there is none, or none can be seen.
ScopedFd openPlugInProcess();

} // namespace mainsys

#endif
