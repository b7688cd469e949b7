#include "debug/shell/zant_trace_mshell.h"

#include "debug/shell/mshell.h"
#include "debug/shell/mshell_handler.h"
#include "debug/trace/zant_trace_core.h"

#include <optional>

namespace {

constexpr int32_t badLevelForAll = -1602;
constexpr int32_t badLevel = -1603;

/// The first parameter as a unit; answers one that is none.
std::optional<unsigned> unitParam(const CommandStruct& command) {
    const CommandParam& param = command.params[0];
    const unsigned unit = param.isNumber() ? static_cast<unsigned>(param.value)
                                           : zantTrace.GetTraceUnitNrByName(param.string.c_str());
    if (unit < MAX_TRACE_UNITS && (param.isNumber() || unit != TRACEUNIT_NONE))
        return unit;
    FormattedStringToStdout("ERROR: Parameter 1 (trace unit) is not a number or a valid name\n");
    return std::nullopt;
}

/// The parameter as a level. A name that is no level's lets everything pass, as everywhere.
std::optional<T_TraceLevel> levelParam(const CommandParam& param) {
    if (param.isNumber())
        return static_cast<T_TraceLevel>(param.value);
    if (param.type == CommandParam::text)
        return zantTrace.GetTraceLevelNrByName(param.string.c_str());
    return std::nullopt;
}

int MshellCmdSetTraceOn(CommandStruct* command) {
    traceMshellCall(__func__, *command);
    if (command->paramCount < 2) {
        FormattedStringToStdout("ERROR: Not enough parameters\n");
        return badCommandParam;
    }
    const auto unit = unitParam(*command);
    if (!unit)
        return badCommandParam;
    const auto level = levelParam(command->params[1]);
    if (!level) {
        FormattedStringToStdout("ERROR: Parameter 2 (trace level) is not a number or string\n");
        return badLevel;
    }
    zantTrace.SetTraceOn(*unit, *level);
    FormattedStringToStdout("Trace switched on to level %d (%s) for unit %u (%s)\n", *level,
                            zantTrace.GetTraceLevelNamePtr(*level), *unit,
                            zantTrace.GetTraceUnitNamePtr(*unit));
    return 0;
}

int MshellCmdSetTraceOff(CommandStruct* command) {
    traceMshellCall(__func__, *command);
    if (command->paramCount < 1) {
        FormattedStringToStdout("ERROR: Parameter 1 (trace unit) is missing\n");
        return badCommandParam;
    }
    const auto unit = unitParam(*command);
    if (!unit)
        return badCommandParam;
    zantTrace.SetTraceOff(*unit);
    FormattedStringToStdout("Trace switched off for unit %u (%s)\n", *unit,
                            zantTrace.GetTraceUnitNamePtr(*unit));
    return 0;
}

int MshellCmdSetTraceOnAll(CommandStruct* command) {
    traceMshellCall(__func__, *command);
    if (command->paramCount < 1) {
        FormattedStringToStdout("ERROR: Parameter 1 (trace level) is missing\n");
        return badCommandParam;
    }
    const auto level = levelParam(command->params[0]);
    if (!level) {
        FormattedStringToStdout("ERROR: Parameter 1 (trace level) is not a number or string\n");
        return badLevelForAll;
    }
    zantTrace.SetTraceOnAll(*level);
    FormattedStringToStdout("Trace switched on for all units to %s\n",
                            zantTrace.GetTraceLevelNamePtr(*level));
    return 0;
}

int MshellCmdSetTraceOffAll(CommandStruct* command) {
    traceMshellCall(__func__, *command);
    zantTrace.SetTraceOffAll();
    FormattedStringToStdout("All traces switched off\n");
    return 0;
}

int MshellCmdTraceState(CommandStruct* command) {
    traceMshellCall(__func__, *command);
    if (command->paramCount < 1)
        return zantTrace.PrintAllTraceActivationStates();
    const auto unit = unitParam(*command);
    return unit ? zantTrace.PrintTraceActivationState(*unit, false) : badCommandParam;
}

int MshellCmdTimestampsOn(CommandStruct* command) {
    traceMshellCall(__func__, *command);
    zantTrace.SetTraceTimestampsOn();
    FormattedStringToStdout("Trace timestamps switched on\n");
    return 0;
}

int MshellCmdTimestampsOff(CommandStruct* command) {
    traceMshellCall(__func__, *command);
    zantTrace.SetTraceTimestampsOff();
    FormattedStringToStdout("Trace timestamps switched off\n");
    return 0;
}

/// A mode that a number switches: what its parameter is called and what is said.
int switchMode(const char* handler, const CommandStruct& command, const char* param,
               int32_t (CZantTrace::*set)(int), const char* on, const char* off) {
    traceMshellCall(handler, command);
    const auto value = numberParam(command, param);
    if (!value)
        return badCommandParam;
    (zantTrace.*set)(*value);
    FormattedStringToStdout("%s\n", *value != 0 ? on : off);
    return 0;
}

int MshellCmdTraceDirectPrintMode(CommandStruct* command) {
    return switchMode(__func__, *command, "DirectPrintMode", &CZantTrace::SetTraceModeDirectPrint,
                      "DirectPrintMode switched on", "DirectPrintMode switched off");
}

int MshellCmdTraceUseSyslog(CommandStruct* command) {
    return switchMode(__func__, *command, "Use syslog", &CZantTrace::SetTraceModeUseSyslog,
                      "Using syslog", "Not using syslog");
}

int MshellCmdTraceWithColors(CommandStruct* command) {
    return switchMode(__func__, *command, "TraceWithColors", &CZantTrace::SetTraceWithColors,
                      "TraceWithColors switched on", "TraceWithColors switched off");
}

int MshellCmdTraceLogfileMaxSize(CommandStruct* command) {
    traceMshellCall(__func__, *command);
    const auto size = numberParam(*command, "TraceLogfileMaxSize");
    if (!size)
        return badCommandParam;
    if (*size < 0) {
        FormattedStringToStdout("ERROR: Parameter 1 (TraceLogfileMaxSize) is negative\n");
        return badCommandParam;
    }
    zantTrace.SetTraceFileMaxSize(*size);
    FormattedStringToStdout("TraceLogfileMaxSize set to %d\n", *size);
    return 0;
}

int MshellCmdStartTracingToScreen(CommandStruct* command) {
    traceMshellCall(__func__, *command);
    FormattedStringToStdout("Starting tracing to screen !!!\n");
    return zantTrace.StartTracingToScreen();
}

int MshellCmdStopTracingToScreen(CommandStruct* command) {
    traceMshellCall(__func__, *command);
    FormattedStringToStdout("Stopping tracing to screen !!!\n");
    return zantTrace.StopTracingToScreen();
}

constexpr MshellCmd traceCommands[] = {
    {2, "m_traceon", "m_traceon <trace_unit> <trace_level>\tSet trace level for a unit",
     MshellCmdSetTraceOn},
    {1, "m_traceoff", "m_traceoff <trace_unit>\t\t\tSwitch off traces for a unit",
     MshellCmdSetTraceOff},
    {1, "m_traceonall", "m_traceonall <trace_level>\t\tSet trace level for all units",
     MshellCmdSetTraceOnAll},
    {0, "m_traceoffall", "m_traceoffall\t\t\t\tSwitch off traces for all units",
     MshellCmdSetTraceOffAll},
    {1, "m_tracestate",
     "m_tracestate [trace_unit]>\t\tShow current trace level for a unit or all units",
     MshellCmdTraceState},
    {0, "m_timestampson", "m_timestampson\t\t\t\tActivates timestamps in trace output",
     MshellCmdTimestampsOn},
    {0, "m_timestampsoff", "m_timestampsoff\t\t\t\tDeactivates timestamps in trace output",
     MshellCmdTimestampsOff},
    {1, "m_tracedirectprintmode",
     "m_tracedirectprintmode 0|1\t\tSwitch direct print mode for traces off/on",
     MshellCmdTraceDirectPrintMode},
    {1, "m_tracelogfilemaxsize",
     "m_tracelogfilemaxsize <size_in_bytes>\tSet the maximum size of the trace logfile",
     MshellCmdTraceLogfileMaxSize},
    {0, "m_starttracingtoscreen",
     "m_starttracingtoscreen\t\t\tStarts tracing to stdout (debug console)",
     MshellCmdStartTracingToScreen},
    {0, "m_stoptracingtoscreen",
     "m_stoptracingtoscreen\t\t\tStops tracing to stdout (debug console)",
     MshellCmdStopTracingToScreen},
    {1, "m_traceusesyslog",
     "m_traceusesyslog 0|1\t\tSwitch print mode for traces to use syslog off/on",
     MshellCmdTraceUseSyslog},
    {1, "m_tracewithcolors", "m_tracewithcolors 0|1\t\tSwitch color mode for traces off/on",
     MshellCmdTraceWithColors},
};

} // namespace

void AddZantTraceMshellCmds() {
    mshell.AddMshellCmds("trace", traceCommands);
}
