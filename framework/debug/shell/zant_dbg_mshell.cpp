#include "debug/shell/zant_dbg_mshell.h"

#include "debug/shell/mshell.h"
#include "debug/shell/mshell_handler.h"
#include "debug/shell/zant_dbg.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr const char* preinitFile = "/etc/preinit";
constexpr const char* zantautoFile = "/etc/zantauto";
constexpr int systemFailed = -1;

/// What was typed after that many words, separators inside it kept.
std::string textAfterWords(const CommandStruct& command, int words) {
    const std::string& line = command.lastCmdInputString;
    size_t at = line.find_first_not_of(wordSeparators);
    for (int word = 0; word < words && at != std::string::npos; ++word) {
        at = line.find_first_of(wordSeparators, at);
        at = line.find_first_not_of(wordSeparators, at);
    }
    return at == std::string::npos ? "" : line.substr(at);
}

/// The text goes to the system shell as typed, on purpose. Its output is the process's own. Unlike
/// under system(), what it runs does not inherit the signals that are blocked on this thread.
int runInSystemShell(const std::string& line) {
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    std::string words[] = {"sh", "-c", line};
    char* const arguments[] = {words[0].data(), words[1].data(), words[2].data(), nullptr};
    pid_t child = 0;
    const int failed = posix_spawn(&child, "/bin/sh", nullptr, &attributes, arguments, environ);
    posix_spawnattr_destroy(&attributes);
    if (failed != 0)
        return systemFailed;
    int status = 0;
    pid_t ended = 0;
    do
        ended = waitpid(child, &status, 0);
    while (ended < 0 && errno == EINTR);
    return ended == child && status == 0 ? 0 : systemFailed;
}

/// The same for a handler, with what it says before and after a failure.
int runFor(const char* handler, const char* kind, const std::string& line) {
    ZANT_TRACE(TRACEUNIT_SHELL_COMMANDS, TRACELEVEL_INFO, "%s - %s = %s\n", handler, kind,
               line.c_str());
    const int result = runInSystemShell(line);
    if (result != 0)
        FormattedStringToStdout("%s - FAILED \n", handler);
    return result;
}

int appendLine(const char* handler, const std::string& text, const std::string& file) {
    return runFor(handler, "Line", "echo " + text + " >> " + file);
}

int deleteFile(const char* handler, const std::string& file) {
    return runFor(handler, "Cmd", "rm -f " + file);
}

/// Answers a command whose parameters are missing.
bool hasParams(const char* handler, const CommandStruct& command, int count) {
    if (command.paramCount >= count)
        return true;
    FormattedStringToStdout("%s - FAILED \n", handler);
    return false;
}

int MshellCmdDbgCmd(CommandStruct* command) {
    traceMshellCall(__func__, *command);
    const auto param = numberParam(*command, "command id");
    if (!param)
        return badCommandParam;
    const auto id = static_cast<unsigned>(*param);
    const int32_t result = zantDbg.ExecuteZantDbgCmd(id);
    FormattedStringToStdout("ZantDbgCmd executed - Id = %u, return-code = %d\n", id, result);
    return result;
}

int MshellCmdAppendLineToEtcPreinit(CommandStruct* command) {
    traceMshellCall(__func__, *command);
    if (!hasParams(__func__, *command, 2))
        return badCommandParam;
    return appendLine(__func__, textAfterWords(*command, 2),
                      preinitFile + command->params[0].string);
}

int MshellCmdDeleteEtcPreinit(CommandStruct* command) {
    traceMshellCall(__func__, *command);
    if (!hasParams(__func__, *command, 1))
        return badCommandParam;
    return deleteFile(__func__, preinitFile + command->params[0].string);
}

int MshellCmdSync(CommandStruct* command) {
    traceMshellCall(__func__, *command);
    const int result = runInSystemShell("sync");
    FormattedStringToStdout("%s\n", result == 0 ? "sync executed" : "MshellCmdSync - FAILED ");
    return result;
}

int MshellCmdLs(CommandStruct* command) {
    traceMshellCall(__func__, *command);
    const int result = runInSystemShell("ls -lisa " + textAfterWords(*command, 1));
    if (result == 0)
        ZANT_TRACE(TRACEUNIT_SHELL_COMMANDS, TRACELEVEL_INFO, "MshellCmdLs end - \n");
    else
        FormattedStringToStdout("MshellCmdLs - FAILED - \n");
    return result;
}

constexpr MshellCmd dbgCommands[] = {
    {1, "m_dbgcmd", "m_dbgcmd <command id>\t\t\tExecutes a dbg command given by id",
     MshellCmdDbgCmd},
    {0, "m_appendlinetoetcpreinit",
     "m_appendlinetoetcpreinit <second-part-of-filename> <text>\tAppends a line to "
     "/etc/preinit<second-part-of-filename>",
     MshellCmdAppendLineToEtcPreinit},
    {0, "m_deleteetcpreinit",
     "m_deleteetcpreinit <second-part-of-filename> \tDeletes the file "
     "/etc/preinit<second-part-of-filename>",
     MshellCmdDeleteEtcPreinit},
    {0, "m_sync", "m_sync \tExecutes a linux \"sync\" command", MshellCmdSync},
    {0, "m_ls", "m_ls \tExecutes a linux \"ls -lisa\" command", MshellCmdLs},
};

} // namespace

int MshellCmdAppendLineToEtcZantauto(CommandStruct* command) {
    traceMshellCall(__func__, *command);
    if (!hasParams(__func__, *command, 1))
        return badCommandParam;
    return appendLine(__func__, textAfterWords(*command, 1), zantautoFile);
}

int MshellCmdDeleteEtcZantauto(CommandStruct* command) {
    traceMshellCall(__func__, *command);
    return deleteFile(__func__, zantautoFile);
}

void AddZantDbgMshellCmds() {
    mshell.AddMshellCmds("dbg", dbgCommands);
}
