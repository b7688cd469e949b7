// Any bytes as a command line, as a datagram or a configuration file may bring them: they are
// parsed within bounds, and commands that do no more than print run with whatever they get.

#include "debug/shell/command_struct.h"
#include "debug/shell/mshell.h"
#include "debug/shell/zant_trace_mshell.h"
#include "fuzz_target.h"
#include "messaging/queue/zant_msg_queue_mshell.h"
#include "messaging/thread/thread_object_mshell.h"
#include "quiet_traces.h"

#include <string>

namespace {

bool registerCommands() {
    AddZantTraceMshellCmds();
    AddZantMsgQueueMshellCmds();
    AddThreadObjectMshellCmds();
    return true;
}

/// Sleeping would hold the fuzzer up, printing to the screen or to syslog would drown it.
bool mayRun(const std::string& name) {
    return name != "m_sleep" && name != "m_starttracingtoscreen" &&
           name != "m_stoptracingtoscreen" && name != "m_traceusesyslog";
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool registered = registerCommands();
    require(registered);
    const fuzz::QuietTraces quiet;
    const std::string line(reinterpret_cast<const char*>(data), size);

    static CommandStruct command;
    mshell.InitCommandStruct(&command);
    const int32_t parsed = mshell.ParseMshellCmd(line.c_str(), &command);
    require(parsed == 0 || parsed == CMshell::badParam);
    require(command.paramCount >= 0 && command.paramCount <= CommandStruct::maxParams);
    require(command.name.size() < 512);
    require(command.lastCmdInputString.size() <= size);
    require(command.lastCmdInputString.find('\x7f') == std::string::npos);
    for (int i = 0; i < command.paramCount; ++i) {
        const CommandParam& param = command.params[i];
        require(!param.string.empty() && param.string.size() < 512);
        require(param.type == CommandParam::number || param.type == CommandParam::text);
    }
    if (mayRun(command.name))
        mshell.ProcessMshellCmd(line.c_str());
    return 0;
}
