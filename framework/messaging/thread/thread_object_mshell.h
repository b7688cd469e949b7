#ifndef MESSAGING_THREAD_OBJECT_MSHELL_H
#define MESSAGING_THREAD_OBJECT_MSHELL_H

struct CommandStruct;

/// The shell command of the group "thread".

/// Registers it. Once, at start-up; both names do the same.
void InitThreadObjectMshell();
void AddThreadObjectMshellCmds();

constexpr const char* threadListHelp = "m_threadlist [thread addr | thread id]\t\tLists all (or a "
                                       "specific) active zant threads in the system";
/// "m_threadlist": lists the thread with the given pthread handle or kernel thread id, or all.
int MshellThreadList(CommandStruct* command);

#endif
