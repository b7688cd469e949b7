#ifndef ZANT_TRACE_CORE_H
#define ZANT_TRACE_CORE_H

#include "debug/log/rol_log.h"
#include "debug/trace/trace_settings.h"
#include "util/mutex.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

/// The trace facility of the process: which traces pass, where lines go and what they look like.
/// Modules trace through debug/trace/zant_trace.h; this class is for those who set tracing up.
///
/// There is one object, zantTrace, never destroyed. All functions are thread-safe and, unless they
/// say otherwise, return 0.
class CZantTrace {
public:
    /// A trace unit out of range.
    static constexpr int32_t errorUnit = -1600;
    /// Room that every timestamp fits into, with its terminator.
    static constexpr size_t timestampSize = 80;

    CZantTrace();
    virtual ~CZantTrace() = default;

    /// Opens syslog under the process's name, registers the trace commands of the shell, puts the
    /// name into every line and starts the trace thread. Returns what starting the thread returned.
    /// Runs once, early in start-up: until then queued lines wait in the ring.
    int32_t Init(const char* processName, int32_t syslogFacility);

    /// The unit's name; unit 0's for a unit without one.
    const char* GetTraceUnitNamePtr(unsigned unit) const;
    /// False for one that nobody uses.
    bool IsTraceUnitNamed(unsigned unit) const;
    /// The first unit of that name, in any case; 0 if there is none.
    unsigned GetTraceUnitNrByName(const char* name) const;
    /// The level of that name, in any case; TRACELEVEL_ALL if there is none.
    T_TraceLevel GetTraceLevelNrByName(const char* name) const;
    /// The name of exactly this level, or "!!! ILLEGAL !!!".
    const char* GetTraceLevelNamePtr(int32_t level) const;
    /// Maps the older scale to the current one; the older INFO is the current DEBUG, deliberately.
    T_TraceLevel ConvertTraceLevel(T_TraceLevel level) const;

    ///@{
    /// Sets the activation level of a unit, by number or by name. A unit out of range gives
    /// errorUnit; so does an unknown unit name. An unknown level name lets everything pass.
    int32_t SetTraceOn(unsigned unit, T_TraceLevel level);
    int32_t SetTraceOn(const char* unitName, const char* levelName);
    int32_t SetTraceOff(unsigned unit);
    int32_t SetTraceOnAll(T_TraceLevel level);
    int32_t SetTraceOffAll();
    ///@}
    /// The unit's activation level, 0 for a unit out of range.
    T_TraceLevel GetTraceActivationState(unsigned unit) const;

    /// Lines are written by the caller, without the ring; anything but 0 switches it on. Always 0.
    int32_t SetTraceModeDirectPrint(int on) {
        return set(traceSettings.zantTraceDirectPrint, on != 0);
    }
    /// In direct-print mode: lines go to the log file too.
    int32_t SetTraceModeWriteToLogfileIfDirectPrint(int on) {
        return set(traceSettings.zantTraceWriteToLogfileIfDirectPrint, on != 0);
    }
    /// In direct-print mode: lines go to syslog in place of standard output.
    int32_t SetTraceModeUseSyslog(int on);
    /// Lines have the colours of their levels, as escape sequences of a terminal.
    int32_t SetTraceWithColors(int on) { return set(traceSettings.zantTraceWithColors, on != 0); }
    ///@{
    /// Lines begin with the local time.
    int32_t SetTraceTimestampsOn() { return set(traceSettings.timestamps, true); }
    int32_t SetTraceTimestampsOff() { return set(traceSettings.timestamps, false); }
    ///@}
    ///@{
    /// Whether lines go to standard output, where the mode sends them there. Stopping says so on
    /// it.
    int32_t StartTracingToScreen() { return set(traceSettings.tracingToScreen, true); }
    int32_t StopTracingToScreen();
    ///@}

    /// Writes the local time with milliseconds and a blank into `destination`, which has
    /// timestampSize bytes. Returns the number of characters, 0 on failure.
    int32_t PrintTimestampToCharString(char* destination) const;
    /// The same to standard output, without a line end. The number of characters.
    int32_t PrintTimestamp() const;

    ///@{
    /// Start and stop writing every line to the log file too; the first line of a start says so.
    /// They tell on standard output what they did. 0, also when there was nothing to do, or a code
    /// of CRolLog. The directory and name, if given, are taken when the log is not being written.
    /// Stopping lets what is on its way settle and takes more than two seconds.
    int32_t StartTracingToFile() EXCLUDES(m_logControlMutex);
    int32_t StartTracingToFile(const char* dir, const char* name) EXCLUDES(m_logControlMutex);
    int32_t StopTracingToFile() EXCLUDES(m_logControlMutex);
    ///@}

    /// Looks for a log directory, "/tmp/usb_logs/" or "zantalog" on a removable drive, and starts
    /// tracing to a file there. A file "traces<suffix>.cfg" beside it is run on the configuration
    /// thread; until it is through, the log's size has no limit. Without a directory: 0. Directory
    /// and file count only if nobody but this user and root may write to them, see
    /// util/trusted_path.h; if others may, a line on standard output says so.
    int32_t CheckAndStartTracingToFile(const char* suffix) EXCLUDES(m_logControlMutex);
    /// Gives a log without limit the limit that it had before CheckAndStartTracingToFile.
    int32_t CheckAndSetMaxSizeOfLogfile();
    /// The log's size at most, bytes; 0 for no limit. Always 0.
    int32_t SetTraceFileMaxSize(long maxSize);
    /// The log's directory.
    std::string GetLogfilePath();

    /// Writes a finished line to the log file if one is being written. The first failure ends that
    /// and says so on standard output.
    void WriteToLogfile(const char* line);

    /// Kept for applications; nothing here calls the function.
    int32_t SetPrintToScreenFunction(int (*function)(const char*)) {
        return set(traceSettings.printToScreen, function);
    }
    /// Called when a log file has begun, to write who the process is; null for none.
    int32_t SetInitialInfoWhenTracingToFileStartsFunction(void (*function)()) {
        return set(traceSettings.initialInfo, function);
    }

    ///@{
    /// Lists one unit, or all but unit 0; unused units are left out of a listing if asked to.
    int32_t PrintTraceActivationState(unsigned unit, bool skipUnused) const;
    int32_t PrintAllTraceActivationStates() const;
    ///@}

private:
    template <typename Value>
    static int32_t set(Setting<Value>& setting, Value value) {
        setting = value;
        return 0;
    }
    void beginLog() REQUIRES(m_logControlMutex);
    static void storeLevel(unsigned unit, T_TraceLevel level);
    static void restorePrefix();

    /// Held while the log is started, stopped or moved elsewhere, not while lines are written.
    Mutex m_logControlMutex;
    CRolLog m_LogFile;
    /// The log's maximum while it has none.
    std::atomic<long> m_savedMaxSize;
};

/// The one trace object of the process. Never destroyed.
extern CZantTrace& zantTrace;

#endif
