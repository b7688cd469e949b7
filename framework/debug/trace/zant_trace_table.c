#include "debug/trace/zant_trace.h"

/* In C, because only there one line can fill a table at compile time. */
int32_t zantTraceActivationTable[MAX_TRACE_UNITS] = {
    [0 ... MAX_TRACE_UNITS - 1] = TRACELEVEL_WARNING,
};
