#ifndef MAINSYS_SESSION_H
#define MAINSYS_SESSION_H

#include "arbiter.h"
#include "command.h"
#include "common/signals.h"
#include "link.h"
#include "options.h"
#include "timeline.h"

#include <deque>
#include <optional>
#include <string>

namespace mainsys {

/// One run of the program: obeys commands, answers the plug-in, prints what passes. Bound to the
/// program's one thread.
class Session {
public:
    explicit Session(Options options);

    /// The exit code.
    int run();

private:
    struct Line {
        int number;
        std::string text;
    };
    struct Holding { ///< a command that holds those behind it
        Command command;
        Line line;
        Clock::time_point until;
    };
    struct Delayed {
        Clock::time_point due;
        Arbiter::Answer answer;
    };

    bool isScenario() const { return !m_options.scenario.empty(); }
    bool readScenario();
    void bringUp();
    void obeyLines();
    void obey(const Command& command, const Line& line);
    void setMode(Arbiter::Mode mode);
    void grant(uint32_t kinds);
    void crash();
    void restart();
    void printStatus() const;
    void tryHolding();
    bool metExpectation(const Command& command);
    void failed(const Line& line, const std::string& why);

    void waitForSomething();
    int timeout() const;
    void takeSignals();
    void takeInput();
    void lookForPlayer();
    void playerEnded();
    void received(const Signal& signal);
    void answerLater(std::optional<Arbiter::Answer> answer);
    void giveDueAnswers();
    void send(uint32_t signal, uint32_t param1, const std::string& payload = {}, int cookie = 0);
    void sendRaw(const ZantMsgBody& body, uint32_t count);
    void sendGarbage(uint32_t count);
    void log(Clock::time_point time, const std::string& text) const;
    void log(const char* direction, const Signal& signal) const;
    void writeTimeline();
    void end(int exitCode, const std::string& why);

    const Options m_options;
    const Clock::time_point m_start = Clock::now();
    tools::Signals m_endSignals{SIGINT, SIGTERM};
    Arbiter m_arbiter;
    std::optional<Link> m_link; ///< nothing: the main system is down
    Timeline m_timeline;
    Milliseconds m_delay{0};
    std::deque<Delayed> m_delayed;
    std::deque<Line> m_lines;
    std::optional<Holding> m_holding;
    std::deque<Signal> m_unexpected; ///< came since the last expected one
    ScopedFd m_player;               ///< its process, once it is known
    bool m_playerEnded = false;      ///< the scenario waits for nothing any more
    std::string m_input;             ///< of a line that is not complete
    bool m_inputOpen;
    int m_inputLine = 0;
    int m_cookie = 0;
    bool m_ended = false;
    int m_exitCode = 0;
};

} // namespace mainsys

#endif
