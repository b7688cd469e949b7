#include "debug/trace/trace_clock.h"

#include <atomic>
#include <cerrno>
#include <ctime>

namespace {

timeval systemNow() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return now;
}

void systemSleep(unsigned microseconds) {
    timespec left{};
    left.tv_sec = static_cast<time_t>(microseconds / 1000000);
    left.tv_nsec = static_cast<long>(microseconds % 1000000) * 1000;
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

constexpr TraceClock systemClock{systemNow, systemSleep};
std::atomic<const TraceClock*> clockInUse{&systemClock};

} // namespace

const TraceClock& traceClock() {
    return *clockInUse.load(std::memory_order_acquire);
}

void setTraceClock(const TraceClock* clock) {
    clockInUse.store(clock ? clock : &systemClock, std::memory_order_release);
}
