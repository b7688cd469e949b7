#ifndef ZANT_TRACE_MSHELL_H
#define ZANT_TRACE_MSHELL_H

/// Registers the shell's commands of the group "trace". CZantTrace::Init calls it.
void AddZantTraceMshellCmds();

#endif
