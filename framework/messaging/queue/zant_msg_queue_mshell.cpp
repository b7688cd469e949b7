#include "messaging/queue/zant_msg_queue_mshell.h"

#include "debug/shell/command_struct.h"
#include "debug/shell/mshell.h"
#include "debug/trace/zant_trace.h"
#include "messaging/queue/zant_msg_queue.h"

namespace {

/// Answers a first parameter that is no queue handle.
bool firstParamIsNumber(const CommandStruct& command) {
    if (command.params[0].type == CommandParam::number)
        return true;
    FormattedStringToStdout("ERROR: Parameter 1 is not a number\n");
    return false;
}

} // namespace

void InitZantMsgQueueMshell() {
    AddZantMsgQueueMshellCmds();
}

void AddZantMsgQueueMshellCmds() {
    mshell.AddMshellCmd(1, "m_queuelist", "queue", queueListHelp, MshellQueueList, nullptr, true);
    mshell.AddMshellCmd(1, "m_dumpqueue", "queue", dumpQueueHelp, MshellDumpQueue, nullptr, true);
}

int MshellQueueList(CommandStruct* command) {
    if (!command || command->paramCount < 1) {
        CZantMsgQueue::ListGlobalMsgQueueList(0);
        return 0;
    }
    if (!firstParamIsNumber(*command))
        return badCommandParam;
    CZantMsgQueue::ListGlobalMsgQueueList(command->params[0].value);
    return 0;
}

int MshellDumpQueue(CommandStruct* command) {
    if (!command || command->paramCount < 1) {
        FormattedStringToStdout("ERROR: Parameter 1 (queuehandle) is missing\n");
        return badCommandParam;
    }
    if (!firstParamIsNumber(*command))
        return badCommandParam;
    CZantMsgQueue::DumpQueue(command->params[0].value);
    return 0;
}
