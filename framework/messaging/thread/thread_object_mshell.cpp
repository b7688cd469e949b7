#include "messaging/thread/thread_object_mshell.h"

#include "debug/shell/command_struct.h"
#include "debug/shell/mshell.h"
#include "debug/trace/zant_trace.h"
#include "messaging/thread/thread_object.h"

#include <cstdlib>

namespace {

int MshellThreadList(CommandStruct* command) {
    long select = 0;
    if (command->paramCount >= 1) {
        // From the text: a pthread handle may be wider than the parsed number.
        const char* const text = command->params[0].string.c_str();
        char* end = nullptr;
        const int base = text[0] == '0' && text[1] == 'x' ? 16 : 10;
        select = static_cast<long>(strtoul(text, &end, base));
        if (end == text || *end != '\0') {
            FormattedStringToStdout("ERROR: Parameter 1 is not a number\n");
            return badCommandParam;
        }
    }
    CThreadObject::ListGlobalThreadObjectList(select);
    return 0;
}

constexpr MshellCmd threadCommands[] = {
    {1, "m_threadlist",
     "m_threadlist [thread addr | thread id]\t\tLists all (or a specific) active zant threads in "
     "the system",
     MshellThreadList},
};

} // namespace

void InitThreadObjectMshell() {
    AddThreadObjectMshellCmds();
}

void AddThreadObjectMshellCmds() {
    mshell.AddMshellCmds("thread", threadCommands);
}
