#ifndef MAINSYS_SESSION_H
#define MAINSYS_SESSION_H

#include "arbiter.h"
#include "common/signals.h"
#include "link.h"
#include "options.h"
#include "script/script.h"
#include "timeline.h"

#include <chrono>
#include <deque>
#include <optional>
#include <string>

namespace mainsys {

using Milliseconds = std::chrono::milliseconds;

/// One run of the program: obeys orders, answers the plug-in, prints what passes. Bound to the
/// program's one thread: while a script computes nothing else goes on, while it waits all does.
class Session {
public:
    /// Without a script commands come from standard input.
    Session(Options options, std::optional<CompiledScript> script);

    /// The exit code.
    int run();

    // What is ordered.
    void noteOrder(const std::string& text);
    void tellStates(); ///< to scripts, after an order
    void setMode(Arbiter::Mode mode);
    void grant(uint32_t kinds); ///< 0: what is asked for
    void setDelay(Milliseconds delay) { m_delay = delay; }
    void askBack(uint32_t kinds);
    void lend(uint32_t kinds);
    void takeBack(uint32_t kinds);
    void control(const std::string& text);
    void crash();
    void restart();
    void sendRaw(const ZantMsgBody& body, uint32_t count);
    void sendGarbage(uint32_t count);
    ScriptValue status() const; ///< who has what
    void quit() { end(0, ""); }

private:
    struct Delayed {
        Clock::time_point due;
        Arbiter::Answer answer;
    };

    bool isScripted() const { return m_toRun.has_value(); }
    void bringUp();
    void runScript(const CompiledScript& script);
    void turn(Clock::time_point deadline);
    bool takeSignal();
    void takeInput();
    void obey(const std::string& line) noexcept;
    void takeEndSignal();
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
    const std::optional<CompiledScript> m_toRun;
    const Clock::time_point m_start = Clock::now();
    tools::Signals m_endSignals{SIGINT, SIGTERM};
    Arbiter m_arbiter;
    std::optional<Link> m_link; ///< nothing: the main system is down
    Timeline m_timeline;
    Milliseconds m_delay{0};
    std::deque<Delayed> m_delayed;
    ScriptControl m_script{[this](Clock::time_point deadline) { turn(deadline); }};
    ScriptState m_mainSystem{"main system"};
    ScriptState m_audioDecoder{"audio decoder"};
    ScriptState m_videoDecoder{"video decoder"};
    ScopedFd m_player;          ///< its process, once it is known
    bool m_playerEnded = false; ///< and there is no other yet
    std::string m_input;        ///< of a line that is not complete
    bool m_inputOpen;
    int m_cookie = 0;
    bool m_ended = false;
    int m_exitCode = 0;
};

} // namespace mainsys

#endif
