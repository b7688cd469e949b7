#include "messaging/queue/zant_msg_queue_mshell.h"

#include "debug/shell/command_struct.h"
#include "debug/shell/mshell.h"
#include "debug/trace/zant_trace.h"
#include "messaging/queue/zant_msg_queue.h"

namespace {

/// Hands the queue that the first parameter names to an operation.
int runOnQueue(const CommandStruct& command, void (*operation)(int handle)) {
    if (!command.params[0].isNumber()) {
        FormattedStringToStdout("ERROR: Parameter 1 is not a number\n");
        return badCommandParam;
    }
    operation(command.params[0].value);
    return 0;
}

int MshellQueueList(CommandStruct* command) {
    if (command->paramCount >= 1)
        return runOnQueue(*command, CZantMsgQueue::ListGlobalMsgQueueList);
    CZantMsgQueue::ListGlobalMsgQueueList(0);
    return 0;
}

int MshellDumpQueue(CommandStruct* command) {
    if (command->paramCount >= 1)
        return runOnQueue(*command, CZantMsgQueue::DumpQueue);
    FormattedStringToStdout("ERROR: Parameter 1 (queuehandle) is missing\n");
    return badCommandParam;
}

constexpr MshellCmd queueCommands[] = {
    {1, "m_queuelist", "m_queuelist [queuehandle]\t\tLists all active message queues in the system",
     MshellQueueList},
    {1, "m_dumpqueue",
     "m_dumpqueue <queuehandle>\t\tDisplays and removes all messages from the queue",
     MshellDumpQueue},
};

} // namespace

void InitZantMsgQueueMshell() {
    AddZantMsgQueueMshellCmds();
}

void AddZantMsgQueueMshellCmds() {
    mshell.AddMshellCmds("queue", queueCommands);
}
