#ifndef QUIET_TRACES_H
#define QUIET_TRACES_H

#include "debug/trace/trace_clock.h"
#include "debug/trace/zant_trace_core.h"
#include "debug/trace/zant_trace_thread.h"

namespace fuzz {

/// Every execution begins with the same trace settings: what is printed goes into the ring and is
/// forgotten at the end, what sleeps does not.
class QuietTraces {
public:
    QuietTraces() {
        static constexpr TraceClock hasty{[] { return timeval{}; }, [](unsigned) {}};
        setTraceClock(&hasty);
        zantTrace.SetTraceModeDirectPrint(0);
        zantTrace.SetTraceWithColors(1);
        zantTrace.SetTraceTimestampsOff();
        zantTrace.SetTraceOffAll();
    }
    ~QuietTraces() { zantTraceThread.ClearTraceBuffer(); }
    QuietTraces(const QuietTraces&) = delete;
    QuietTraces& operator=(const QuietTraces&) = delete;
};

} // namespace fuzz

#endif
