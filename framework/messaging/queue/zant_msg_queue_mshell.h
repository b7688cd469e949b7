#ifndef MESSAGING_ZANT_MSG_QUEUE_MSHELL_H
#define MESSAGING_ZANT_MSG_QUEUE_MSHELL_H

///@{
/// Registers the shell commands of the group "queue". Once, at start-up; both names do the same.
void InitZantMsgQueueMshell();
void AddZantMsgQueueMshellCmds();
///@}

#endif
