#ifndef ZANT_TRACE_STATE_H
#define ZANT_TRACE_STATE_H

#include "debug/trace/zant_trace.h"

#include <atomic>
#include <cstdint>

/// The state that the trace output paths share. Constant-initialised and never destroyed, so that a
/// thread may trace before the first constructor and after the last destructor of the process.
/// Every item is set alone: readers take it relaxed and accept a value that is just changing.

/// Format and print in the caller's thread; off: queue for the trace thread.
extern std::atomic<bool> zantTraceDirectPrint;
/// In direct-print mode, also write each line to the log file.
extern std::atomic<bool> zantTraceWriteToLogfileIfDirectPrint;
/// Send lines to syslog instead of standard output.
extern std::atomic<bool> zantTraceUseSyslog;
/// Wrap coloured levels in terminal escape sequences.
extern std::atomic<bool> zantTraceWithColors;
/// ORed into every syslog priority.
extern std::atomic<int32_t> zantSyslogFacility;
/// Printed in every line; at most 19 characters. The text itself never changes or goes away.
extern std::atomic<const char*> zantTraceProcessPrefix;
/// The process name and a blank, from which the prefix is restored after syslog mode.
extern std::atomic<const char*> initialTraceProcessPrefix;
/// The running trace counter; wraps from 65535 to 0.
extern std::atomic<uint16_t> zantTraceCtr;
/// Receives every line that the trace thread prints, if set.
extern std::atomic<T_UserTraceOutputFunction> funcUserTraceOutputPtr;

/// One entry of the level name table.
struct T_TraceLevelName {
    int32_t value;
    const char* name;
};

/// Ends with TRACELEVEL_NO_TRACE.
extern const T_TraceLevelName zantTraceLevelNameTable[];

/// The names of the trace units by number, and a pointer to the array's size in bytes. The library
/// has one entry; a host process defines both symbols to supply its own. The last entry closes the
/// array and names no unit.
extern "C" {
extern const char* traceUnitsStringArray[];
extern const unsigned* traceUnitsStringArraySizePtr;
}

#endif
