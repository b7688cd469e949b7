#include "script/script_mshell.h"

#include "debug/shell/mshell.h"
#include "debug/shell/mshell_handler.h"
#include "debug/trace/output_capture.h"
#include "script/script.h"
#include "script/script_runs.h"

#include <cstdlib>
#include <string>

namespace {

/// How long a script that is asked to stop is waited for.
constexpr std::chrono::milliseconds stopPatience(2000);

int answerScriptError(const std::string& error) {
    FormattedStringToStdout("ERROR: %s\n", error.c_str());
    return badCommandParam;
}

int answerSurplus(const char* usage) {
    return answerScriptError(std::string("that is too much: write ") + usage);
}

int MshellCmdScript(CommandStruct* command) {
    traceMshellCall(__func__, *command);
    if (command->paramCount < 1)
        return answerScriptError("Parameter 1 (file) is missing");
    const auto compilation = SILCompile(command->params[0].string);
    if (!compilation.script)
        return answerScriptError(compilation.error);
    ScriptValues arguments;
    for (int i = 1; i < command->paramCount; ++i) {
        const CommandParam& param = command->params[i];
        arguments.push_back(param.isNumber() ? ScriptValue(param.value)
                                             : scriptValueOf(param.string));
    }
    const auto start = ScriptRuns::instance().start(*compilation.script, arguments);
    if (start.number == 0)
        return answerScriptError(start.error);
    FormattedStringToStdout("Script %d started: %s\n", start.number,
                            compilation.script->name().c_str());
    return 0;
}

void printScript(const ScriptRuns::Info& info) {
    FormattedStringToStdout("%6d | %7ld | %s | %s\n", info.number,
                            static_cast<long>(info.age.count()), info.name.c_str(),
                            info.runs ? "runs" : info.end.c_str());
}

int MshellCmdScriptList(CommandStruct* command) {
    traceMshellCall(__func__, *command);
    if (command->paramCount > 0)
        return answerSurplus("m_scriptlist");
    FormattedStringToStdout("number | seconds | file | state\n");
    for (const auto& info : ScriptRuns::instance().list())
        printScript(info);
    return 0;
}

int MshellCmdScriptStop(CommandStruct* command) {
    traceMshellCall(__func__, *command);
    auto& runs = ScriptRuns::instance();
    if (command->paramCount == 0) {
        runs.stopAll(stopPatience);
        for (const auto& info : runs.list())
            if (info.runs)
                printScript(info);
        return 0;
    }
    if (command->paramCount > 1)
        return answerSurplus("m_scriptstop [number]");
    const auto number = numberParam(*command, "number");
    if (!number)
        return badCommandParam;
    if (!runs.stop(*number, stopPatience))
        return answerScriptError("there is no script " + std::to_string(*number) +
                                 ": m_scriptlist has them");
    for (const auto& info : runs.list())
        if (info.number == *number)
            FormattedStringToStdout("Script %d %s\n", info.number,
                                    info.runs ? "ends when its command does" : info.end.c_str());
    return 0;
}

int MshellCmdScriptHelp(CommandStruct* command) {
    traceMshellCall(__func__, *command);
    if (command->paramCount > 0)
        return answerSurplus("m_scripthelp");
    for (const std::string& line : scriptHelp())
        FormattedStringToStdout("%s\n", line.c_str());
    return 0;
}

/// A command's output that a script gets at most.
constexpr size_t mostOutput = 64 * 1024;

ScriptValues runShellCommand(const ScriptCall& call) {
    const std::string& line = call.text(1, "command line");
    OutputCapture output(mostOutput);
    const int32_t result = mshell.ProcessMshellCmd(line.c_str());
    return {output.text(), result};
}

constexpr MshellCmd scriptShellCommands[] = {
    {1, "m_script", "m_script file [argument]...\tStarts a script on a thread of its own",
     MshellCmdScript},
    {0, "m_scriptlist", "m_scriptlist\tLists the scripts that run, and the latest that have ended",
     MshellCmdScriptList},
    {0, "m_scriptstop", "m_scriptstop [number]\tStops a script, or all", MshellCmdScriptStop},
    {0, "m_scripthelp", "m_scripthelp\tLists the commands that scripts have", MshellCmdScriptHelp},
};

} // namespace

void AddScriptMshellCmds() {
    mshell.AddMshellCmds("script", scriptShellCommands);
    registerScriptCommand(
        "shell", "shell(line)\tRuns a shell command: gives its output and its code, 0 for OK",
        runShellCommand);
    // Before the objects go that scripts may use: what was built before this goes later.
    std::atexit([] { ScriptRuns::instance().end(stopPatience); });
}
