#ifndef MAINSYS_LINK_SIGNAL_H
#define MAINSYS_LINK_SIGNAL_H

#include "messaging/queue/zant_msg_body.h"

#include <chrono>
#include <cstdint>
#include <string>

namespace mainsys {

using Clock = std::chrono::steady_clock;

/// A message of the link with the bytes of its payload.
struct Signal {
    Clock::time_point time; ///< when it arrived or was to be sent
    ZantMsgBody body{};
    std::string payload;

    uint32_t sequence() const { return body.rpcControl >> 16 & 0xff; }
};

} // namespace mainsys

#endif
