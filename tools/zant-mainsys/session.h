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

    // What commands order.
    void setMode(Arbiter::Mode mode);
    void grant(uint32_t kinds); ///< 0: what is asked for
    void setDelay(Milliseconds delay) { m_delay = delay; }
    void askBack(uint32_t kinds);
    void lend(uint32_t kinds);
    void takeBack(uint32_t kinds);
    void control(const std::string& text);
    void crash();
    void restart();
    void hold(Milliseconds time, const std::optional<Expectation>& expectation);
    void sendRaw(const ZantMsgBody& body, uint32_t count);
    void sendGarbage(uint32_t count);
    void printStatus() const;
    void quit() { m_ended = true; }

private:
    struct Line {
        int number = 0;
        std::string text;
    };
    struct Holding { ///< what holds the lines behind the one that is being obeyed
        std::optional<Expectation> expectation;
        Clock::time_point until;
    };
    struct Delayed {
        Clock::time_point due;
        Arbiter::Answer answer;
    };

    std::string stateAsJson() const;
    bool isScenario() const { return !m_options.scenario.empty(); }
    bool readScenario();
    void bringUp();
    void obeyLines();
    void obeyLine();
    void tryHolding();
    bool takeExpected(const Expectation& expectation);
    void failed(const std::string& why);

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
    void log(const std::string& text, Clock::time_point time = Clock::now()) const;
    void log(Direction direction, const Signal& signal) const;
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
    Line m_line; ///< that is being obeyed
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
