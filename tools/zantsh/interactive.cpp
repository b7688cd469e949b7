#include "interactive.h"

#include "command_run.h"
#include "debug/shell/mshell.h"
#include "debug/shell/zant_dbg_mshell.h"
#include "debug/trace/zant_trace_mshell.h"
#include "exit_code.h"
#include "messaging/queue/zant_msg_queue_mshell.h"
#include "messaging/thread/thread_object_mshell.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <readline/history.h>
#include <readline/readline.h>
#include <set>
#include <sstream>
#include <unistd.h>

namespace zantsh {

namespace {

constexpr int historyLength = 1000;

/// Names to complete: the framework's own commands, which every shell has, and those that were seen
/// in output.
std::set<std::string>& commandNames() {
    static std::set<std::string> names;
    return names;
}

void learnFrameworkCommands() {
    AddZantTraceMshellCmds();
    AddZantDbgMshellCmds();
    AddZantMsgQueueMshellCmds();
    AddThreadObjectMshellCmds();
    for (const CMshellEntry* const entry : mshell.GetMshellEntrys())
        commandNames().insert(entry->name);
}

/// Help lists a command a line, its name first.
void learnFrom(const std::string& output) {
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("m_", 0) == 0)
            commandNames().insert(line.substr(0, line.find_first_of(" \t")));
    }
}

char* nextName(const char* begun, int state) {
    static std::set<std::string>::const_iterator at;
    if (state == 0)
        at = commandNames().lower_bound(begun);
    if (at == commandNames().end() || at->rfind(begun, 0) != 0)
        return nullptr;
    return strdup((at++)->c_str());
}

/// Names of commands come first in a line, and after m_help.
char** complete(const char* begun, int start, int /*end*/) {
    rl_attempted_completion_over = 1;
    const std::string before(rl_line_buffer, static_cast<size_t>(start));
    if (before.find_first_not_of(" \t") != std::string::npos && before != "m_help ")
        return nullptr;
    return rl_completion_matches(begun, nextName);
}

/// Lines with editing, and a history that outlives the program.
class Terminal {
public:
    Terminal() {
        rl_readline_name = "zantsh";
        rl_attempted_completion_function = complete;
        using_history();
        stifle_history(historyLength);
        if (const char* const home = getenv("HOME"); home && *home)
            m_historyFile = std::string(home) + "/.zantsh_history";
        if (!m_historyFile.empty())
            read_history(m_historyFile.c_str());
    }
    bool next(std::string& line) {
        char* const typed = readline("zantsh> ");
        if (!typed) {
            putchar('\n');
            return false;
        }
        line = typed;
        free(typed);
        if (!line.empty())
            remember(line);
        return true;
    }

private:
    void remember(const std::string& line) {
        add_history(line.c_str());
        // A history that cannot be kept lasts as long as the program.
        if (!m_historyFile.empty())
            write_history(m_historyFile.c_str());
    }

    std::string m_historyFile;
};

template <typename NextLine>
int runLines(const Options& options, NextLine nextLine) {
    int exitCode = ExitOk;
    for (std::string line; nextLine(line);) {
        if (line == "exit" || line == "quit")
            break;
        if (line.find_first_not_of(" \t") == std::string::npos)
            continue;
        const CommandResult result = runCommand(options, line);
        learnFrom(result.output);
        exitCode = result.exitCode;
    }
    return exitCode;
}

} // namespace

int runInteractively(const Options& options) {
    if (!isatty(STDIN_FILENO))
        return runLines(options, [](std::string& line) -> bool {
            return static_cast<bool>(std::getline(std::cin, line));
        });
    learnFrameworkCommands();
    Terminal terminal;
    return runLines(options, [&](std::string& line) { return terminal.next(line); });
}

} // namespace zantsh
