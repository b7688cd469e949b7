// A program with a debug shell and a command of its own: runs until SIGTERM or SIGINT.

#include "debug/shell/command_struct.h"
#include "debug/shell/mshell.h"
#include "debug/shell/zant_dbg.h"
#include "debug/shell/zant_dbg_mshell.h"
#include "debug/trace/zant_trace_core.h"
#include "debug/trace/zant_trace_thread.h"
#include "messaging/thread/thread_object_mshell.h"
#include "messaging/queue/zant_msg_queue_mshell.h"
#include "script/script_mshell.h"
#include "script/script_runs.h"
#include "state/framework_state.h"

#include <csignal>

static int greet(CommandStruct* command) {
    if (command->paramCount < 1) {
        FormattedStringToStdout("ERROR: Parameter 1 (name) is missing\n");
        return badCommandParam;
    }
    FormattedStringToStdout("Hello %s\n", command->params[0].string.c_str());
    return 0;
}

int main(int argc, char** argv) {
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr); // before the first thread

    zantTrace.StartTracingToScreen();
    zantTrace.Init("example", 128); // with the trace commands
    mshell.Init(argc > 1 ? argv[1] : "zant_dbg_server_uva");
    mshell.StartThread("zant_mshell", 0, 0);
    AddZantMsgQueueMshellCmds();
    AddZantDbgMshellCmds();
    AddThreadObjectMshellCmds();
    AddStateMshellCmds();
    AddScriptMshellCmds();
    mshell.AddMshellCmd(1, "m_greet", "example", "m_greet <name>", greet, nullptr, true);
    AddZantDbgCmd(5, ZantDbgCmdTestFunction);
    zantTrace.CheckAndStartTracingToFile("example"); // where there is a log directory

    int signal = 0;
    sigwait(&ends, &signal);
    ScriptRuns::instance().end(std::chrono::seconds(2));
    mshell.StopThreadAndWait();
    zantTraceThread.StopThreadAndWait();
}
