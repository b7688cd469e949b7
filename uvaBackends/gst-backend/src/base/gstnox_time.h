#ifndef GSTNOX_TIME_H
#define GSTNOX_TIME_H

#include <gst/gst.h>

constexpr double nanosecondsPerSecond = 1e9;

inline double toSeconds(GstClockTime time) {
    return static_cast<double>(time) / nanosecondsPerSecond;
}

/// A signed time for the log, nanoseconds: what is not known prints as 99:99:99.999999999.
inline GstClockTime forLog(gint64 time) {
    return time < 0 ? GST_CLOCK_TIME_NONE : static_cast<GstClockTime>(time);
}

#endif
