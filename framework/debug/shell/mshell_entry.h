#ifndef MSHELL_ENTRY_H
#define MSHELL_ENTRY_H

#include <cstdint>
#include <string>

struct CommandStruct;

/// Runs a command. Returns 0 for success; anything else is answered "ERR" and ends a configuration
/// file.
using T_MshellHandler = int (*)(CommandStruct*);

/// One row of a table of commands, see CMshell::AddMshellCmds.
struct MshellCmd {
    int32_t paramCount;
    const char* name;
    const char* help;
    T_MshellHandler handler;
    bool enabled = true;
};

/// One command of the debug shell. Never changes, so any thread may read it.
class CMshellEntry {
public:
    CMshellEntry(int32_t paramCount, const char* name, const char* group, const char* help,
                 T_MshellHandler handler, T_MshellHandler deinit);
    virtual ~CMshellEntry() = default;

    /// Prints the help text and a newline to the shell's output.
    void PrintShortHelp() const;

    ///@{
    /// Order by name, or by group, whatever the case.
    static bool MshellEntryNameSortPredicate(const CMshellEntry* left, const CMshellEntry* right);
    static bool MshellEntryGroupSortPredicate(const CMshellEntry* left, const CMshellEntry* right);
    ///@}

    /// How many parameters the command takes, as registered; each handler checks its own.
    const int32_t paramCount;
    const std::string name;
    const std::string group;
    /// Begins with the usage; a description may follow after tabs.
    const std::string help;
    /// May be null: the command then does nothing and fails.
    const T_MshellHandler handler;
    /// May be null.
    const T_MshellHandler deinit;
};

#endif
