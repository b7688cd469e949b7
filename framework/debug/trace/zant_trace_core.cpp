#include "debug/trace/zant_trace_core.h"

#include "debug/trace/sys_vars.h"
#include "debug/trace/trace_line.h"
#include "debug/trace/zant_trace_colors.h"
#include "debug/trace/zant_trace_thread.h"
#include "util/mutex.h"
#include "util/text_output.h"

#include <cstring>
#include <set>
#include <string>
#include <strings.h>
#include <syslog.h>

namespace {

constexpr size_t maxPrefixLength = 19;
constexpr const char* unusedUnitName = "TRACE_NONE";
constexpr const char* spareUnitPrefix = "TRACE_G_SPARE";

/// Units known by name: all entries of the array but the last.
unsigned namedUnits() {
    if (!traceUnitsStringArraySizePtr)
        return 0;
    const size_t entries = *traceUnitsStringArraySizePtr / sizeof(const char*);
    return entries == 0 ? 0 : static_cast<unsigned>(entries - 1);
}

/// A copy that lives as long as the process: lines and syslog hold on to the pointer. Each text is
/// kept once.
const char* keepText(const std::string& text) {
    static Mutex mutex;
    static auto* const texts = new std::set<std::string>;
    const MutexLock lock(mutex);
    return texts->insert(text).first->c_str();
}

} // namespace

int32_t CZantTrace::Init(const char* processName, int32_t syslogFacility) {
    const std::string name = processName ? processName : "";
    traceSettings.zantSyslogFacility = syslogFacility;
    openlog(keepText(name), LOG_NOWAIT, syslogFacility);
    if (void (*const addShellCommands)() = traceSettings.addShellCommands)
        addShellCommands();

    traceSettings.initialTraceProcessPrefix = keepText(name + " ");
    restorePrefix();
    sysVarStringMap.Set("ZANTALOG_PATH", "");

    const int32_t result = zantTraceThread.StartThread("ZantTrace", 0, 0);
    if (result != 0)
        printfToStdout("%s%s%d%s", CS_RED,
                       "ERROR: CZantTrace::Init() - Error while starting ZantTrace thread - rc = ",
                       result, CS_NORMAL);
    return result;
}

const char* CZantTrace::GetTraceUnitNamePtr(unsigned unit) const {
    const char* const name = traceUnitsStringArray[unit < namedUnits() ? unit : 0];
    return name ? name : unusedUnitName;
}

unsigned CZantTrace::GetTraceUnitNrByName(const char* name) const {
    if (!name)
        return TRACEUNIT_NONE;
    const unsigned units = namedUnits();
    for (unsigned unit = 0; unit < units; ++unit) {
        const char* const known = traceUnitsStringArray[unit];
        if (known && strcasecmp(known, name) == 0)
            return unit;
    }
    return TRACEUNIT_NONE;
}

T_TraceLevel CZantTrace::GetTraceLevelNrByName(const char* name) const {
    if (!name)
        return TRACELEVEL_ALL;
    for (const T_TraceLevelName* entry = zantTraceLevelNameTable;; ++entry) {
        if (strcasecmp(entry->name, name) == 0)
            return static_cast<T_TraceLevel>(entry->value);
        if (entry->value == TRACELEVEL_NO_TRACE)
            return TRACELEVEL_ALL;
    }
}

const char* CZantTrace::GetTraceLevelNamePtr(int32_t level) const {
    for (const T_TraceLevelName* entry = zantTraceLevelNameTable;; ++entry) {
        if (entry->value == level)
            return entry->name;
        if (entry->value == TRACELEVEL_NO_TRACE)
            return "!!! ILLEGAL !!!";
    }
}

T_TraceLevel CZantTrace::ConvertTraceLevel(T_TraceLevel level) const {
    switch (level) {
    case TRACELEVEL_DEBUG_OLD:
    case TRACELEVEL_INFO_OLD:
        return TRACELEVEL_DEBUG;
    case TRACELEVEL_WARNING_OLD:
        return TRACELEVEL_WARNING;
    case TRACELEVEL_ERROR_OLD:
        return TRACELEVEL_ERROR;
    case TRACELEVEL_FATAL_OLD:
        return TRACELEVEL_FATAL;
    case TRACELEVEL_SYSINFO_OLD:
        return TRACELEVEL_SYSINFO;
    default:
        return level;
    }
}

bool CZantTrace::IsTraceUnitNamed(unsigned unit) const {
    const char* const name = GetTraceUnitNamePtr(unit);
    return strcmp(name, unusedUnitName) != 0 &&
           strncmp(name, spareUnitPrefix, strlen(spareUnitPrefix)) != 0;
}

int32_t CZantTrace::SetTraceOn(unsigned unit, T_TraceLevel level) {
    if (unit >= MAX_TRACE_UNITS)
        return errorUnit;
    storeLevel(unit, ConvertTraceLevel(level));
    return 0;
}

int32_t CZantTrace::SetTraceOn(const char* unitName, const char* levelName) {
    const unsigned unit = GetTraceUnitNrByName(unitName);
    if (unit == TRACEUNIT_NONE)
        return errorUnit;
    return SetTraceOn(unit, GetTraceLevelNrByName(levelName));
}

int32_t CZantTrace::SetTraceOff(unsigned unit) {
    return SetTraceOn(unit, TRACELEVEL_NO_TRACE);
}

int32_t CZantTrace::SetTraceOnAll(T_TraceLevel level) {
    for (unsigned unit = 0; unit < MAX_TRACE_UNITS; ++unit)
        storeLevel(unit, ConvertTraceLevel(level));
    return 0;
}

int32_t CZantTrace::SetTraceOffAll() {
    return SetTraceOnAll(TRACELEVEL_NO_TRACE);
}

void CZantTrace::storeLevel(unsigned unit, T_TraceLevel level) {
    __atomic_store_n(&zantTraceActivationTable[unit], level, __ATOMIC_RELAXED);
}

T_TraceLevel CZantTrace::GetTraceActivationState(unsigned unit) const {
    if (unit >= MAX_TRACE_UNITS)
        return TRACELEVEL_ALL;
    return static_cast<T_TraceLevel>(
        __atomic_load_n(&zantTraceActivationTable[unit], __ATOMIC_RELAXED));
}

int32_t CZantTrace::SetTraceModeUseSyslog(int on) {
    traceSettings.zantTraceUseSyslog = on != 0;
    // Syslog adds the process's name itself.
    if (on)
        traceSettings.zantTraceProcessPrefix = "";
    else
        restorePrefix();
    return 0;
}

void CZantTrace::restorePrefix() {
    const std::string name = static_cast<const char*>(traceSettings.initialTraceProcessPrefix);
    traceSettings.zantTraceProcessPrefix = keepText(name.substr(0, maxPrefixLength));
}

int32_t CZantTrace::StopTracingToScreen() {
    traceSettings.tracingToScreen = false;
    printToStdout("\nCZantTrace::StopTracingToScreen called ==!!!==\n");
    return 0;
}

int32_t CZantTrace::PrintTimestampToCharString(char* destination) const {
    if (!destination)
        return 0;
    return static_cast<int32_t>(formatTraceTimestamp(destination, timestampSize));
}

int32_t CZantTrace::PrintTimestamp() const {
    char timestamp[timestampSize];
    const int32_t length = PrintTimestampToCharString(timestamp);
    printToStdout(length > 0 ? timestamp : "\nCZantTrace::PrintTimestamp failed");
    return length;
}

int32_t CZantTrace::PrintTraceActivationState(unsigned unit, bool skipUnused) const {
    if (unit >= MAX_TRACE_UNITS) {
        FormattedStringToStdout("Illegal trace unit specified\n");
        return 0;
    }
    if (skipUnused && !IsTraceUnitNamed(unit))
        return 0;
    const char* const name = GetTraceUnitNamePtr(unit);
    const T_TraceLevel level = GetTraceActivationState(unit);
    FormattedStringToStdout("Trace unit %3d %-22s - Trace activation state = %d (%s)\n",
                            static_cast<int>(unit), name, level, GetTraceLevelNamePtr(level));
    return 0;
}

int32_t CZantTrace::PrintAllTraceActivationStates() const {
    for (unsigned unit = 1; unit < MAX_TRACE_UNITS; ++unit)
        PrintTraceActivationState(unit, true);
    return 0;
}
