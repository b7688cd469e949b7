// The shell's own commands, group "mshell".

#include "debug/shell/mshell.h"
#include "debug/shell/mshell_handler.h"

#include <chrono>
#include <thread>

namespace {

/// How soon a sleeping thread that shall end does so.
constexpr std::chrono::milliseconds sleepStep(50);

int MshellCmdHelp(CommandStruct* command) {
    const std::string topic = command->paramCount > 0 ? command->params[0].string : "";
    FormattedStringToStdout("m_help (%s)\n", topic.c_str());
    if (topic.empty())
        mshell.PrintAllMshellEntrysShortHelp();
    else if (topic == "groups")
        mshell.PrintAllMshellGroups();
    else if (const CMshellEntry* const entry = mshell.GetMshellEntry(topic))
        entry->PrintShortHelp();
    else if (mshell.MshellGroupExists(topic))
        mshell.PrintAllMshellEntrysShortHelpForGroup(topic);
    else {
        FormattedStringToStdout(
            "-- ERROR: Help for unknown mshell command / mshell group requested: %s\n",
            topic.c_str());
        mshell.PrintAllMshellEntrysWithIncludedSubstring(topic);
        return badCommandParam;
    }
    return 0;
}

int MshellCmdSleep(CommandStruct* command) {
    const auto seconds = numberParam(*command, "nr of seconds");
    if (!seconds)
        return badCommandParam;
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + std::chrono::seconds(*seconds);
    for (auto now = Clock::now(); now < end && !CThreadObject::CallerShallStop();
         now = Clock::now())
        std::this_thread::sleep_for(std::min<Clock::duration>(sleepStep, end - now));
    return 0;
}

void DumpString(const std::string& text) {
    FormattedStringToStdout("Dumping string\n");
    for (const char character : text)
        FormattedStringToStdout("%x = %c\n", static_cast<unsigned char>(character), character);
}

int MshellCmdDumpLastCmd(CommandStruct* command) {
    FormattedStringToStdout("Dump of last mshell command input string:\n");
    DumpString(command->lastCmdInputString);
    return 0;
}

int MshellCmdDeinit(CommandStruct*) {
    FormattedStringToStdout("Mshell Deinit called\n");
    return 0;
}

int MshellCmdEcho(CommandStruct* command) {
    const std::string& line = command->lastCmdInputString;
    const size_t blank = line.find(' ');
    if (blank != std::string::npos)
        FormattedStringToStdout("%s\n", line.c_str() + blank + 1);
    return 0;
}

constexpr MshellCmd ownCommands[] = {
    {1, "m_help", "m_help [mshell_cmd] | groups", MshellCmdHelp},
    {1, "m_sleep", "m_sleep <nr of seconds>", MshellCmdSleep},
    {1, "m_dumplastcmd", "m_dumplastcmd", MshellCmdDumpLastCmd, false},
    {0, "deinit", "deinit\tJUST FOR MSHELL INTERNAL USE", MshellCmdDeinit},
    {0, "m_echo", "m_echo Just prints the text like the linux echo cmd", MshellCmdEcho},
};

} // namespace

void CMshell::AddMshellInternalMshellCmds() {
    if (MshellEntryExists(ownCommands[0].name))
        return;
    AddMshellCmds("mshell", ownCommands);
}
