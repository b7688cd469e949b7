#ifndef ZANTSH_COMMAND_NAMES_H
#define ZANTSH_COMMAND_NAMES_H

#include "session.h"

#include <chrono>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace zantsh {

/// The commands of a shell, as it lists them itself.
class CommandNames {
public:
    using Groups = std::map<std::string, std::set<std::string>>; ///< names by group

    explicit CommandNames(Session& session) : m_session(session) {}

    /// Asks the shell, but not several times a moment: modules add commands while the process runs.
    /// Where its output cannot be seen, the framework's own.
    const Groups& groups();

private:
    using Clock = std::chrono::steady_clock;

    Groups ask();

    Session& m_session;
    Groups m_groups;
    std::optional<Clock::time_point> m_asked;
};

} // namespace zantsh

#endif
