#ifndef SCRIPT_MSHELL_H
#define SCRIPT_MSHELL_H

/// Registers the shell's commands of the group "script". Once is enough.
void AddScriptMshellCmds();

#endif
