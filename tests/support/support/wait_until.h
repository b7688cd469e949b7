#ifndef SUPPORT_WAIT_UNTIL_H
#define SUPPORT_WAIT_UNTIL_H

#include <chrono>
#include <thread>

namespace support {

/// Waits until the predicate holds, looking again every few milliseconds. False when the deadline
/// passed first. The default leaves room for sanitizers on a busy machine.
template <typename Predicate>
bool waitUntil(Predicate predicate, std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return predicate();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

} // namespace support

#endif
