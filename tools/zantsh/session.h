#ifndef ZANTSH_SESSION_H
#define ZANTSH_SESSION_H

#include "exchange.h"
#include "options.h"
#include "process_output.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace zantsh {

/// Commands to one shell, and what its process prints.
class Session {
public:
    using Show = std::function<void(const std::string& text)>;

    /// `scope`: whether there is to be shown what is printed beside commands, too.
    Session(const Options& options, Transcript::Scope scope) : m_options(options), m_scope(scope) {}

    /// Runs commands, one after the other, and gives the last one's reply. Throws NoShell and
    /// Interrupted.
    Reply run(const std::vector<std::string>& lines, const Show& show);
    /// Runs one for a person: its output, the reply, and on standard error what keeps it from one.
    /// Gives the exit code for it.
    int runAndPrint(const std::string& line);
    /// Where the process prints when that cannot be followed; empty when it can. After a command.
    std::string whereElse() const {
        return m_output && !m_output->canBeFollowed() ? m_output->whereElse() : std::string();
    }
    /// What the process has printed since the last command.
    std::string takeOther() { return m_output ? m_output->takeNew() : std::string(); }

private:
    using Clock = std::chrono::steady_clock;

    void begin(Exchange& exchange, const Marks& marks);
    Reply awaitReply(Exchange& exchange, Clock::time_point deadline, const Show& show);
    void awaitEnd(Clock::time_point deadline, const Show& show);
    void tellOfMissingOutput();

    const Options& m_options;
    const Transcript::Scope m_scope;
    std::optional<ProcessOutput> m_output;
};

} // namespace zantsh

#endif
