#ifndef MESSAGING_ZANT_MSG_QUEUE_MSHELL_H
#define MESSAGING_ZANT_MSG_QUEUE_MSHELL_H

struct CommandStruct;

/// The shell commands of the group "queue".

/// Registers them. Once, at start-up; both names do the same.
void InitZantMsgQueueMshell();
void AddZantMsgQueueMshellCmds();

constexpr const char* queueListHelp =
    "m_queuelist [queuehandle]\t\tLists all active message queues in the system";
/// "m_queuelist": lists the queue with the given handle, or all.
int MshellQueueList(CommandStruct* command);

constexpr const char* dumpQueueHelp =
    "m_dumpqueue <queuehandle>\t\tDisplays and removes all messages from the queue";
/// "m_dumpqueue": displays and removes all messages of the queue with the given handle.
int MshellDumpQueue(CommandStruct* command);

#endif
