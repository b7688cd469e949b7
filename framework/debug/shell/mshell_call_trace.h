#ifndef MSHELL_CALL_TRACE_H
#define MSHELL_CALL_TRACE_H

#include "debug/shell/command_struct.h"
#include "debug/trace/zant_trace.h"

/// Traces that a command's handler was called, and with how many parameters.
inline void traceMshellCall(const char* handler, const CommandStruct& command) {
    ZANT_TRACE(TRACEUNIT_SHELL_COMMANDS, TRACELEVEL_DEBUG, "%s called\n", handler);
    ZANT_TRACE(TRACEUNIT_SHELL_COMMANDS, TRACELEVEL_DEBUG, "ParamCount = %d\n", command.paramCount);
}

#endif
