#include "command_names.h"

#include "debug/shell/mshell.h"
#include "debug/shell/zant_dbg_mshell.h"
#include "debug/shell/zant_trace_mshell.h"
#include "messaging/queue/zant_msg_queue_mshell.h"
#include "messaging/thread/thread_object_mshell.h"

#include <regex>
#include <sstream>

namespace zantsh {

namespace {

constexpr std::chrono::seconds fresh(10);

/// The first word of each line that has one; traces of others have none.
template <typename Take>
void forEachName(const std::string& output, Take take) {
    static const std::regex name(R"(^([A-Za-z_]\w*)([ \t].*)?$)");
    std::istringstream lines(output);
    std::smatch found;
    for (std::string line; std::getline(lines, line);)
        if (std::regex_match(line, found, name))
            take(found[1], line);
}

CommandNames::Groups frameworkCommands() {
    static const bool added = [] {
        AddZantTraceMshellCmds();
        AddZantDbgMshellCmds();
        AddZantMsgQueueMshellCmds();
        AddThreadObjectMshellCmds();
        return true;
    }();
    static_cast<void>(added);
    CommandNames::Groups groups;
    for (const CMshellEntry* const entry : mshell.GetMshellEntrys())
        groups[entry->group].insert(entry->name);
    return groups;
}

} // namespace

const CommandNames::Groups& CommandNames::groups() {
    const auto now = Clock::now();
    if (m_asked && now - *m_asked < fresh)
        return m_groups;
    try {
        m_groups = ask();
    } catch (const std::exception&) { // told when a command is run
    }
    if (m_groups.empty())
        m_groups = frameworkCommands();
    m_asked = now;
    return m_groups;
}

CommandNames::Groups CommandNames::ask() {
    std::string listed;
    const auto take = [&listed](const std::string& text) { listed += text; };
    std::vector<std::string> questions;
    m_session.run({"m_help groups"}, take);
    forEachName(listed, [&](const std::string& name, const std::string& line) {
        if (line.rfind("m_help (", 0) != 0)
            questions.push_back("m_help " + name);
    });

    listed.clear();
    m_session.run(questions, take);
    Groups groups;
    std::string group;
    forEachName(listed, [&](const std::string& name, const std::string& line) {
        if (line.rfind("m_help (", 0) == 0)
            group = line.substr(8, line.size() - 9);
        else
            groups[group].insert(name);
    });
    return groups;
}

} // namespace zantsh
