#ifndef MESSAGING_THREAD_OBJECT_MSHELL_H
#define MESSAGING_THREAD_OBJECT_MSHELL_H

///@{
/// Registers the shell command of the group "thread". Once, at start-up; both names do the same.
void InitThreadObjectMshell();
void AddThreadObjectMshellCmds();
///@}

#endif
