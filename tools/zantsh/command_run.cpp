#include "command_run.h"

#include "exchange.h"
#include "exit_code.h"
#include "process_output.h"
#include "util/socket_comm.h"

#include <cstdio>

namespace zantsh {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds look(50);
/// The process may print through a thread that looks ten times a second.
constexpr milliseconds quietTime(250);
constexpr milliseconds longestTail(5000);

/// Shows what comes, and keeps it.
class Display {
public:
    explicit Display(ProcessOutput& output) : m_output(output) {}

    bool showNew() {
        const std::string text = m_output.takeNew();
        fputs(text.c_str(), stdout);
        fflush(stdout);
        m_shown += text;
        return !text.empty();
    }
    /// Shows on until nothing more comes.
    void showTail() {
        const auto end = Clock::now() + longestTail;
        auto quietSince = Clock::now();
        while (Clock::now() < end && Clock::now() - quietSince < quietTime) {
            if (showNew())
                quietSince = Clock::now();
            Delay(10);
        }
    }
    const std::string& shown() const { return m_shown; }

private:
    ProcessOutput& m_output;
    std::string m_shown;
};

} // namespace

CommandResult runCommand(const Options& options, const std::string& line) {
    try {
        Exchange exchange(options.socket, options.timeout);
        ProcessOutput output(exchange.findProcess(), options.follow);
        Display display(output);
        exchange.send(line);

        const auto deadline = Clock::now() + options.timeout;
        std::optional<Reply> reply;
        while (!(reply = exchange.waitForReply(look))) {
            display.showNew();
            if (Clock::now() >= deadline)
                throw NoShell("no answer in time; the command may still be running (a longer "
                              "--timeout waits for it)");
        }
        display.showTail();
        if (display.shown().empty() && !output.whereElse().empty())
            fprintf(stderr, "zantsh: %s\n", output.whereElse().c_str());
        puts(*reply == Reply::ok ? "OK" : "ERR");
        return {*reply == Reply::ok ? ExitOk : ExitErr, display.shown()};
    } catch (const NoShell& reason) {
        fprintf(stderr, "zantsh: %s\n", reason.what());
        return {ExitNoShell, {}};
    }
}

} // namespace zantsh
