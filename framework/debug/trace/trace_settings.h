#ifndef TRACE_SETTINGS_H
#define TRACE_SETTINGS_H

#include "debug/trace/zant_trace.h"

#include <atomic>
#include <cstdint>
#include <syslog.h>

/// A value that any thread may set and read. It is set alone: who reads it accepts one that is just
/// changing. What a pointer leads to is complete before the pointer is seen.
template <typename Value>
class Setting {
public:
    constexpr explicit Setting(Value value) : m_value(value) {}
    Setting(const Setting&) = delete;
    Setting& operator=(const Setting&) = delete;
    void operator=(Value value) { m_value.store(value, std::memory_order_release); }
    operator Value() const { return m_value.load(std::memory_order_acquire); }

private:
    std::atomic<Value> m_value;
};

/// Where lines go, what they look like, and whom tracing calls; the levels that let them pass are
/// in zantTraceActivationTable, which C reads too. Changed through CZantTrace. Constant-initialised
/// and never destroyed, so that a thread may trace before the first constructor and after the last
/// destructor of the process.
struct TraceSettings {
    /// Priority of a text that never goes to syslog.
    static constexpr int32_t notForSyslog = -1;

    /// Hands a finished text to syslog or to the screen, as they are switched.
    void put(int32_t priority, const char* text) const;

    Setting<bool> timestamps{false};
    Setting<bool> tracingToScreen{false};
    Setting<bool> tracingToFile{false};
    /// Format and print in the caller's thread; off: queue for the trace thread.
    Setting<bool> zantTraceDirectPrint{true};
    /// In direct-print mode, also write each line to the log file.
    Setting<bool> zantTraceWriteToLogfileIfDirectPrint{true};
    /// Send lines to syslog instead of standard output.
    Setting<bool> zantTraceUseSyslog{false};
    /// Wrap coloured levels in terminal escape sequences.
    Setting<bool> zantTraceWithColors{true};
    /// ORed into every syslog priority.
    Setting<int32_t> zantSyslogFacility{LOG_LOCAL0};
    /// Printed in every line; at most 19 characters. The text itself never changes or goes away.
    Setting<const char*> zantTraceProcessPrefix{" "};
    /// The process name and a blank, from which the prefix is restored after syslog mode.
    Setting<const char*> initialTraceProcessPrefix{""};

    /// Receives every line that the trace thread prints.
    Setting<T_UserTraceOutputFunction> funcUserTraceOutputPtr{nullptr};
    /// Kept for applications; nothing here calls it.
    Setting<int (*)(const char*)> printToScreen{nullptr};
    /// Sees every finished text before it goes to syslog or to the screen, on the thread that puts
    /// it out: it takes no lock that anybody holds while he calls, and no heap memory.
    Setting<void (*)(const char* text)> lineObserver{nullptr};
    /// Called when tracing to a file has started.
    Setting<void (*)()> initialInfo{nullptr};

    /// What the rooms above do for tracing: start-up says how.
    Setting<void (*)()> addShellCommands{nullptr};
    Setting<void (*)(const char* path)> runCommandFile{nullptr};
};

extern TraceSettings traceSettings;

/// The running trace counter; wraps from 65535 to 0.
extern std::atomic<uint16_t> zantTraceCtr;

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
