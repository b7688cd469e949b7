#ifndef MSHELL_H
#define MSHELL_H

#include "debug/shell/mshell_entry.h"
#include "messaging/thread/thread_object_blocking_wait.h"
#include "util/mutex.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

struct CommandStruct;

/// The debug shell: a table of commands, and a thread that serves them over a datagram socket.
///
/// A client sends one command line, NUL-terminated in a datagram of exactly 1023 bytes, and gets
/// "OK" or "ERR" at the socket "zant_dbg_client". What a command prints goes to the trace output.
/// Only the user of this process and root are served. Commands come one at a time, in order of
/// arrival; configuration files run theirs on other threads meanwhile.
///
/// Registration, lookup, help and ProcessMshellCmd are thread-safe. Entries are never removed while
/// the object lives, so what GetMshellEntry returns stays valid.
class CMshell : public CThreadObjectBlockingWait {
public:
    /// What the functions answer besides 0 and a handler's result.
    enum Code : int32_t {
        unknownCommand = -1700,
        receiveFailed = -1702,
        badParam = -1703,
    };

    CMshell();
    ~CMshell() override;

    /// Opens the socket and serves commands until the thread is stopped. Ends at once when
    /// the socket's name is taken, and says why, as a trace and to syslog.
    void ThreadWorkFunction() override;
    /// Takes the socket from the file system, if it is this shell's: nobody finds the shell any
    /// more. For the end of a process whose shell still runs. Thread-safe.
    void RemoveSocket();

    /// Registers a command; does nothing when `enabled` is false, so that a registration can be
    /// switched off where it is written. Of several commands of one name the first is found.
    virtual void AddMshellCmd(int paramCount, const char* cmdName, const char* group,
                              const char* help, T_MshellHandler handler, T_MshellHandler deinit,
                              bool enabled) EXCLUDES(m_entriesMutex);
    /// Registers a table of commands, all of one group.
    template <size_t Count>
    void AddMshellCmds(const char* group, const MshellCmd (&commands)[Count]) {
        for (const MshellCmd& row : commands)
            AddMshellCmd(row.paramCount, row.name, group, row.help, row.handler, nullptr,
                         row.enabled);
    }
    /// The first command of exactly this name, or null.
    virtual CMshellEntry* GetMshellEntry(std::string cmdName) EXCLUDES(m_entriesMutex);
    /// How many commands are registered.
    virtual int32_t CountMshellEntrys() EXCLUDES(m_entriesMutex);

    /// Sets the name of the socket, "zant_dbg_server" if never called. Before the thread starts.
    void Init(const char* socketName);

    /// Whether there is a command of exactly this name.
    bool MshellEntryExists(std::string cmdName) {
        return GetMshellEntry(std::move(cmdName)) != nullptr;
    }

    /// Registers the shell's own commands (group "mshell"), unless that has been done.
    void AddMshellInternalMshellCmds();

    /// Parses and runs a command line on the calling thread. The handler's result, or a Code.
    int32_t ProcessMshellCmd(const char* line);

    ///@{
    /// Splits a line at blanks, tabs, commas and line ends, without quoting. 0, or badParam with
    /// `errorText` set. An empty line gives an empty name.
    int32_t ParseMshellCmd(const char* line, CommandStruct* command) {
        return GetCommand(command, line);
    }
    int32_t GetCommand(CommandStruct* command, const char* line);
    ///@}
    /// Appends a parameter. 0, or badParam when there are 256 already or an argument is null.
    int32_t SetCommandParam(CommandStruct* command, const char* token);
    /// Reads a text that is a decimal number, or "0x" and a hexadecimal one, as a whole. 0, or
    /// badParam. `out` holds the last attempt either way; what needs more than 32 bits is cut to
    /// the largest or smallest number of 32.
    int32_t Convert_Atoi(const char* text, long* out);
    /// Empties it: no name, no parameters, no text.
    void InitCommandStruct(CommandStruct* command);
    /// Applies DEL characters: each goes, and takes the character before it along.
    void CleanString(std::string* text);

    ///@{
    /// Help, printed to the shell's output.
    void PrintAllMshellEntrysShortHelp();
    void PrintAllMshellEntrysShortHelpForGroup(std::string group);
    void PrintAllMshellGroups();
    void PrintAllMshellEntrysWithIncludedSubstring(std::string text);
    ///@}
    /// Whether a command was registered with this group.
    bool MshellGroupExists(const std::string& group);

    /// All commands, in the order of their registration.
    std::vector<CMshellEntry*> GetMshellEntrys() EXCLUDES(m_entriesMutex);

private:
    static constexpr unsigned commandSize = 1023;

    int32_t MshellOpenSocket();
    int32_t MshellReadFromSocket();
    void reportBlockedSocket(int32_t error, int reason) const;
    bool mayCommand(unsigned user) const;
    void answer(int32_t result);
    bool SendMshellCmdAckToSocket();
    bool SendMshellCmdNackToSocket();
    bool sendReply(const char* reply, unsigned size, const char* caller);
    int32_t runHandler(const CMshellEntry& entry, CommandStruct& command);
    void RemoveMshellEntrys() EXCLUDES(m_entriesMutex);

    /// Of the shell's thread alone.
    int32_t m_socketFd = -1;
    char m_receiveBuffer[commandSize + 1] = {};

    /// Guards the list, not the entries. Nothing is called under it.
    Mutex m_entriesMutex;
    /// In order of registration.
    std::list<std::unique_ptr<CMshellEntry>> m_entries GUARDED_BY(m_entriesMutex);
    std::string m_socketName = "zant_dbg_server";
    std::atomic<pid_t> m_socketOwner{0};
};

/// The one shell of the process. Never destroyed.
extern CMshell& mshell;

#endif
