#ifndef ZANT_TRACE_H
#define ZANT_TRACE_H

/// The trace interface of the framework: what a module needs to trace, and nothing else.
///
/// Every module traces under its own unit. A trace passes when its level is at least the unit's
/// activation level; a passing trace becomes one text line, printed at once or queued for the trace
/// thread. Use the macros ZANT_TRACE and ZANT_TRACE_STREAM: they test the level inline and evaluate
/// their arguments only for a trace that passes.
///
/// All functions are thread-safe, take no heap memory (streams excepted) and never fail towards
/// their caller. They may be called from static constructors and until the last instruction of the
/// process. They are usable from C and C++.

#include <stdint.h>

#ifdef __cplusplus
#include <sstream>
#endif

/// Units are numbered from 0 to MAX_TRACE_UNITS - 1.
#define MAX_TRACE_UNITS 400

/// Higher is more severe. The values 1 to 9 are an older scale, see CZantTrace::ConvertTraceLevel.
#ifdef __cplusplus
enum T_TraceLevel : int32_t
#else
typedef int32_t T_TraceLevel;
enum
#endif
{
    TRACELEVEL_ALL = 0,
    TRACELEVEL_DEBUG_OLD = 1,
    TRACELEVEL_INFO_OLD = 2,
    TRACELEVEL_WARNING_OLD = 3,
    TRACELEVEL_ERROR_OLD = 4,
    TRACELEVEL_FATAL_OLD = 5,
    TRACELEVEL_SYSINFO_OLD = 6,
    TRACELEVEL_MAX_OLD = 9,
    TRACELEVEL_DEBUG = 10,
    TRACELEVEL_DEBUG1 = 11,
    TRACELEVEL_DEBUG2 = 12,
    TRACELEVEL_DEBUG3 = 13,
    TRACELEVEL_DEBUG_CYAN = 16,
    TRACELEVEL_DEBUG_GREEN = 17,
    TRACELEVEL_DEBUG_MAGENTA = 18,
    TRACELEVEL_DEBUG_BLUE = 19,
    TRACELEVEL_INFO = 20,
    TRACELEVEL_INFO1 = 21,
    TRACELEVEL_INFO2 = 22,
    TRACELEVEL_INFO3 = 23,
    TRACELEVEL_INFO_CYAN = 26,
    TRACELEVEL_INFO_GREEN = 27,
    TRACELEVEL_INFO_MAGENTA = 28,
    TRACELEVEL_INFO_BLUE = 29,
    TRACELEVEL_WARNING = 30,
    TRACELEVEL_WARNING1 = 31,
    TRACELEVEL_WARNING2 = 32,
    TRACELEVEL_WARNING3 = 33,
    TRACELEVEL_ERROR = 40,
    TRACELEVEL_FATAL = 50,
    TRACELEVEL_SYSINFO = 60,
    TRACELEVEL_SYSINFO_CYAN = 66,
    TRACELEVEL_SYSINFO_GREEN = 67,
    TRACELEVEL_SYSINFO_MAGENTA = 68,
    TRACELEVEL_SYSINFO_BLUE = 69,
    /// As an activation level: nothing passes.
    TRACELEVEL_NO_TRACE = 70
};

/// The framework's own units. The application names them, and numbers its own, see
/// traceUnitsStringArray.
enum {
    TRACEUNIT_NONE = 0,
    TRACEUNIT_MSG = 2,
    TRACEUNIT_MSG_QUEUE = 3,
    TRACEUNIT_THREAD = 4,
    TRACEUNIT_QUEUE_THREAD = 6,
    TRACEUNIT_RPC_THREAD = 8,
    TRACEUNIT_SHELL = 9,
    TRACEUNIT_SHELL_COMMANDS = 10,
    TRACEUNIT_TIMER = 11,
    TRACEUNIT_CONFIG_FILE = 12,
    TRACEUNIT_RPC_SOURCE = 14,
    TRACEUNIT_RPC_DESTINATION = 15,
    TRACEUNIT_OBSERVER = 17,
    TRACEUNIT_DEBUG_COMMANDS = 18,
    TRACEUNIT_SHELL_SOCKET = 19,
    TRACEUNIT_CONFIG_FILE_THREAD = 33
};

#ifdef __cplusplus
extern "C" {
#endif

/// Activation level by unit. Outside of any object so that the inline test costs one load and
/// works before and after every constructor and destructor. Written through SetTraceOn and its
/// like only.
extern int32_t zantTraceActivationTable[MAX_TRACE_UNITS] __attribute__((visibility("hidden")));

/// True when a trace of this unit and level passes. A unit out of range passes too:
/// TraceFormattedString then answers it with the out-of-range line.
static inline int ZantTracePasses(unsigned unit, int level) {
    return unit >= MAX_TRACE_UNITS ||
           level >= __atomic_load_n(&zantTraceActivationTable[unit], __ATOMIC_RELAXED);
}

/// Traces one line, out of the caller's hot code. The format supplies the line end. A line holds at
/// most 1999 bytes; what is longer is cut. In queued mode a trace of exactly TRACELEVEL_FATAL holds
/// its caller for two seconds, so that the line gets out before whatever follows.
void TraceFormattedString(unsigned unit, int level, const char* format, ...)
    __attribute__((format(printf, 3, 4), cold));

/// Prints text without header and without level check (listings, command replies), to standard
/// output or through the trace thread, never to syslog.
void FormattedStringToStdout(const char* format, ...) __attribute__((format(printf, 1, 2)));

///@{
/// Sends a text to syslog as an error, however tracing is set: by default traces go nowhere. The
/// second form is for what is traced too: not a second time where that trace goes to syslog.
void ErrorToSyslog(const char* text);
void ErrorToSyslogUnlessTraced(unsigned unit, int level, const char* text);
///@}

/// Initialises the trace facility with syslog facility LOG_LOCAL0. Returns 0 or a negative code.
int32_t ZantTrace_Init(const char* processName);

/// Sets the activation level of a unit. Returns 0, or -1600 for a unit out of range.
int32_t SetTraceOn(unsigned unit, T_TraceLevel level);

/// Lets nothing of the unit pass. Returns 0, or -1600 for a unit out of range.
int32_t SetTraceOff(unsigned unit);

/// The activation level of a unit, 0 for a unit out of range.
T_TraceLevel GetTraceActivationState(unsigned unit);

/// Lists the activation levels of all used units through FormattedStringToStdout.
void PrintAllTraceActivationStates(void);

/// Receives every finished line, on the trace thread. Never called in direct-print mode. One that
/// throws is unregistered.
typedef void (*T_UserTraceOutputFunction)(const char* line);
/// One at a time: the last one registered.
void RegisterUserDefinedTraceOutputFunction(T_UserTraceOutputFunction function);
/// The function may be under way when this returns.
void UnregisterUserDefinedTraceOutputFunction(void);

#ifdef __cplusplus
} // extern "C"

/// As TraceFormattedString, with the stream's text as the message.
void TraceStream(unsigned unit, int level, const std::ostringstream& stream) __attribute__((cold));

/// As FormattedStringToStdout, with the stream's text.
void StreamToStdout(const std::ostringstream& stream);
#endif

/// ZANT_TRACE(unit, level, format, ...): traces if the level passes. A trace that does not pass
/// costs one load and one branch and evaluates no argument of the format.
#define ZANT_TRACE(unit, level, ...)                                                               \
    do {                                                                                           \
        if (__builtin_expect(ZantTracePasses((unit), (level)), 0))                                 \
            TraceFormattedString((unit), (level), __VA_ARGS__);                                    \
    } while (0)

/// ZANT_TRACE_STREAM(unit, level, a << b << c): the same for a chain of stream insertions.
#define ZANT_TRACE_STREAM(unit, level, chain)                                                      \
    do {                                                                                           \
        if (__builtin_expect(ZantTracePasses((unit), (level)), 0)) {                               \
            std::ostringstream zantTraceStream_;                                                   \
            zantTraceStream_ << chain;                                                             \
            TraceStream((unit), (level), zantTraceStream_);                                        \
        }                                                                                          \
    } while (0)

#endif
