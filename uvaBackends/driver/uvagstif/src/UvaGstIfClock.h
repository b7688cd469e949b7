#ifndef UVA_GST_IF_CLOCK_H
#define UVA_GST_IF_CLOCK_H

#include "util/mutex.h"

#include <chrono>

/// The time that the receiver's waits go by: the monotonic clock. A set learns the time of day
/// after it has started, from the broadcast: by the wall clock, a wait at that moment would end at
/// once or last for hours. Tests put their own in its place.
class UvaGstIfClock {
public:
    using Time = std::chrono::steady_clock::time_point;

    UvaGstIfClock() = default;
    virtual ~UvaGstIfClock() = default;
    UvaGstIfClock(const UvaGstIfClock&) = delete;
    UvaGstIfClock& operator=(const UvaGstIfClock&) = delete;

    virtual Time now() { return std::chrono::steady_clock::now(); }

    /// As ConditionVariable::waitUntil: false when the deadline has passed.
    virtual bool waitUntil(ConditionVariable& condition, Mutex& mutex, Time deadline)
        REQUIRES(mutex) {
        return condition.waitUntil(mutex, deadline);
    }
};

#endif
