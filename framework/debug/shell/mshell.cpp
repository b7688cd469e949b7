#include "debug/shell/mshell.h"

#include "debug/shell/command_struct.h"
#include "debug/trace/zant_trace.h"
#include "util/cancellation_block.h"
#include "util/thrown_by.h"

#include <algorithm>

CMshell::CMshell() {
    AddMshellInternalMshellCmds();
}

CMshell::~CMshell() {
    const CancellationBlock block;
    StopThreadAndWait();
    RemoveMshellEntrys();
}

void CMshell::Init(const char* socketName) {
    m_socketName = socketName ? socketName : "";
    ZANT_TRACE_STREAM(TRACEUNIT_SHELL_SOCKET, TRACELEVEL_INFO,
                      "CMshell:: Socketname for mshell = " << m_socketName << "\n");
}

void CMshell::AddMshellCmd(int paramCount, const char* cmdName, const char* group, const char* help,
                           T_MshellHandler handler, T_MshellHandler deinit, bool enabled) {
    if (!enabled)
        return;
    ZANT_TRACE_STREAM(TRACEUNIT_SHELL, TRACELEVEL_DEBUG,
                      "Inserting mshell cmd: CmdName = " << (cmdName ? cmdName : "") << "\n");
    auto entry = std::make_unique<CMshellEntry>(paramCount, cmdName, group, help, handler, deinit);
    const MutexLock lock(m_entriesMutex);
    m_entries.push_back(std::move(entry));
}

CMshellEntry* CMshell::GetMshellEntry(std::string cmdName) {
    const MutexLock lock(m_entriesMutex);
    for (const auto& entry : m_entries) {
        if (entry->name == cmdName)
            return entry.get();
    }
    return nullptr;
}

int32_t CMshell::CountMshellEntrys() {
    const MutexLock lock(m_entriesMutex);
    return static_cast<int32_t>(m_entries.size());
}

std::vector<CMshellEntry*> CMshell::GetMshellEntrys() {
    std::vector<CMshellEntry*> entries;
    const MutexLock lock(m_entriesMutex);
    for (const auto& entry : m_entries)
        entries.push_back(entry.get());
    return entries;
}

void CMshell::RemoveMshellEntrys() {
    const MutexLock lock(m_entriesMutex);
    m_entries.clear();
}

int32_t CMshell::ProcessMshellCmd(const char* line) {
    ZANT_TRACE_STREAM(TRACEUNIT_SHELL, TRACELEVEL_INFO,
                      "CMshell::ProcessMshellCmd(): Processing cmd: " << (line ? line : "")
                                                                      << "\n");
    // Large, and a command may run a file of commands: not on the stack.
    const auto command = std::make_unique<CommandStruct>();
    InitCommandStruct(command.get());
    const int32_t parsed = ParseMshellCmd(line, command.get());
    if (parsed != 0)
        return parsed;
    if (const CMshellEntry* const entry = GetMshellEntry(command->name))
        return runHandler(*entry, *command);
    FormattedStringToStdout("-- ERROR: Unknown mshell command: %s\n", command->name.c_str());
    return unknownCommand;
}

int32_t CMshell::runHandler(const CMshellEntry& entry, CommandStruct& command) {
    // A command is not broken off in its midst: it may hold locks of anybody's.
    const CancellationBlock block;
    int32_t result = badParam;
    const auto thrown = thrownBy([&] {
        if (entry.handler)
            result = entry.handler(&command);
    });
    if (thrown)
        ZANT_TRACE(TRACEUNIT_SHELL, TRACELEVEL_ERROR,
                   "CMshell::ProcessMshellCmd() - Command %s failed: %s\n", entry.name.c_str(),
                   thrown->c_str());
    return result;
}

void CMshell::PrintAllMshellEntrysShortHelp() {
    auto entries = GetMshellEntrys();
    std::stable_sort(entries.begin(), entries.end(), CMshellEntry::MshellEntryNameSortPredicate);
    for (const CMshellEntry* const entry : entries)
        entry->PrintShortHelp();
}

void CMshell::PrintAllMshellEntrysShortHelpForGroup(std::string group) {
    for (const CMshellEntry* const entry : GetMshellEntrys()) {
        if (entry->group == group)
            entry->PrintShortHelp();
    }
}

void CMshell::PrintAllMshellGroups() {
    auto entries = GetMshellEntrys();
    std::stable_sort(entries.begin(), entries.end(), CMshellEntry::MshellEntryGroupSortPredicate);
    std::vector<std::string> groups;
    for (const CMshellEntry* const entry : entries) {
        if (std::find(groups.begin(), groups.end(), entry->group) == groups.end())
            groups.push_back(entry->group);
    }
    FormattedStringToStdout("--- List of mshell command groups: \n");
    for (const std::string& group : groups)
        FormattedStringToStdout("%s\n", group.c_str());
}

void CMshell::PrintAllMshellEntrysWithIncludedSubstring(std::string text) {
    for (const CMshellEntry* const entry : GetMshellEntrys()) {
        if (entry->name.find(text) != std::string::npos)
            FormattedStringToStdout("Available CmdName = %s Group = %s\n", entry->name.c_str(),
                                    entry->group.c_str());
    }
}

bool CMshell::MshellGroupExists(const std::string& group) {
    const auto entries = GetMshellEntrys();
    return std::any_of(entries.begin(), entries.end(),
                       [&](const CMshellEntry* entry) { return entry->group == group; });
}
