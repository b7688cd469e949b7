#include "debug/trace/zant_trace.h"

// The names of the trace units, for every program that carries the framework or loads a library
// that does: see traceUnitsStringArray. Exported, so that such a library finds them.

#define EXPORTED __attribute__((visibility("default")))

extern EXPORTED const char* traceUnitsStringArray[];
extern EXPORTED const unsigned* traceUnitsStringArraySizePtr;

const char* traceUnitsStringArray[] = {
    [TRACEUNIT_NONE] = "TRACE_NONE",
    [1] = "TRACE_G_SPARE1",
    [TRACEUNIT_MSG] = "TRACE_MSG",
    [TRACEUNIT_MSG_QUEUE] = "TRACE_MSG_QUEUE",
    [TRACEUNIT_THREAD] = "TRACE_THREAD",
    [5] = "TRACE_G_SPARE5",
    [TRACEUNIT_QUEUE_THREAD] = "TRACE_QUEUE_THREAD",
    [7] = "TRACE_G_SPARE7",
    [TRACEUNIT_RPC_THREAD] = "TRACE_RPC_THREAD",
    [TRACEUNIT_SHELL] = "TRACE_SHELL",
    [TRACEUNIT_SHELL_COMMANDS] = "TRACE_SHELL_COMMANDS",
    [TRACEUNIT_TIMER] = "TRACE_TIMER",
    [TRACEUNIT_CONFIG_FILE] = "TRACE_CFG_FILE",
    [13] = "TRACE_G_SPARE13",
    [TRACEUNIT_RPC_SOURCE] = "TRACE_RPC_SOURCE",
    [TRACEUNIT_RPC_DESTINATION] = "TRACE_RPC_DESTINATION",
    [16] = "TRACE_G_SPARE16",
    [TRACEUNIT_OBSERVER] = "TRACE_OBSERVER",
    [TRACEUNIT_DEBUG_COMMANDS] = "TRACE_DEBUG_COMMANDS",
    [TRACEUNIT_SHELL_SOCKET] = "TRACE_SHELL_SOCKET",
    [20 ... TRACEUNIT_CONFIG_FILE_THREAD - 1] = "TRACE_G_SPARE",
    [TRACEUNIT_CONFIG_FILE_THREAD] = "TRACE_CFG_FILE_THREAD",
    [TRACEUNIT_CONFIG_FILE_THREAD + 1] = "", // closes the array, names no unit
};
static const unsigned sizeInBytes = sizeof traceUnitsStringArray;
const unsigned* traceUnitsStringArraySizePtr = &sizeInBytes;
