#ifndef ZANT_DBG_MSHELL_H
#define ZANT_DBG_MSHELL_H

struct CommandStruct;

/// Registers the shell's commands of the group "dbg". Several of them hand their text to the system
/// shell as typed.
void AddZantDbgMshellCmds();

///@{
/// As "m_appendlinetoetcpreinit" and "m_deleteetcpreinit", for the file "/etc/zantauto". For a
/// product that registers them; the first takes the text, the second nothing.
int MshellCmdAppendLineToEtcZantauto(CommandStruct* command);
int MshellCmdDeleteEtcZantauto(CommandStruct* command);
///@}

#endif
