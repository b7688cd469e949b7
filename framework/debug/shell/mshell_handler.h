#ifndef MSHELL_HANDLER_H
#define MSHELL_HANDLER_H

#include "debug/shell/command_struct.h"
#include "debug/trace/zant_trace.h"

#include <optional>

/// Traces that a command's handler was called, and with how many parameters.
inline void traceMshellCall(const char* handler, const CommandStruct& command) {
    ZANT_TRACE(TRACEUNIT_SHELL_COMMANDS, TRACELEVEL_DEBUG, "%s called\n", handler);
    ZANT_TRACE(TRACEUNIT_SHELL_COMMANDS, TRACELEVEL_DEBUG, "ParamCount = %d\n", command.paramCount);
}

/// The first parameter as a number; answers one that is missing or none.
inline std::optional<int32_t> numberParam(const CommandStruct& command, const char* what) {
    const bool isMissing = command.paramCount < 1;
    if (!isMissing && command.params[0].isNumber())
        return command.params[0].value;
    FormattedStringToStdout("ERROR: Parameter 1 (%s) is %s\n", what,
                            isMissing ? "missing" : "not a number");
    return std::nullopt;
}

#endif
