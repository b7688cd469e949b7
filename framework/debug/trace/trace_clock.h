#ifndef TRACE_CLOCK_H
#define TRACE_CLOCK_H

#include <sys/time.h>

/// What tracing takes from the passing of time; a test puts its own clock in place.
struct TraceClock {
    /// Wall-clock time with microseconds.
    timeval (*now)();
    /// Holds the calling thread for the whole time, signals or not.
    void (*sleep)(unsigned microseconds);
};

/// The clock in use. Thread-safe.
const TraceClock& traceClock();

/// Puts another clock in place, which must outlive its use; null puts the system's clock back.
void setTraceClock(const TraceClock* clock);

#endif
