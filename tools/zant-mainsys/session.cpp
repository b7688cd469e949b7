#include "session.h"

#include "common/output_file.h"
#include "common/script.h"
#include "describe.h"
#include "orders.h"
#include "timeline/timeline.h"
#include "util/printable.h"
#include "util/thrown_by.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <poll.h>
#include <random>
#include <unistd.h>
#include <utility>
#include <vector>

namespace mainsys {

namespace {

// Signals of scripts that no message is.
constexpr const char* playerEndedSignal = "PLAYER_ENDED";
constexpr const char* endsSignal = "MAIN_SYSTEM_ENDS";

/// Rounded up; -1 for never.
int millisecondsUntil(Clock::time_point time) {
    if (time == Clock::time_point::max())
        return -1;
    const auto left = std::chrono::ceil<Milliseconds>(time - Clock::now()).count();
    constexpr Milliseconds::rep longest = 24 * 3600 * 1000;
    return static_cast<int>(std::clamp<Milliseconds::rep>(left, 0, longest));
}

void complain(const std::string& text) {
    if (!text.empty())
        fprintf(stderr, "zant-mainsys: %s\n", text.c_str());
}

} // namespace

Session::Session(Options options, std::optional<CompiledScript> script)
    : m_options(std::move(options)), m_toRun(std::move(script)),
      m_arbiter(m_options.audioDecoders, m_options.videoDecoders), m_inputOpen(!isScripted()) {}

int Session::run() {
    const std::string why =
        m_options.timeline.empty() ? timeline::begin() : timeline::beginFile(m_options.timeline);
    complain(why);
    if (!why.empty())
        return ExitFailed;
    Timeline::begin();
    if (!m_options.down)
        bringUp();
    if (!m_ended)
        complain(tellReady()); // up, or down as it was asked for
    if (m_toRun && !m_ended)
        runScript(*m_toRun);
    while (!m_ended)
        turn(Clock::time_point::max());
    m_link.reset();
    writeTimeline();
    if (const std::string fault = tools::whyNotPrinted(stdout); !fault.empty())
        end(ExitFailed, fault);
    while (m_endSignals.take() != 0) { // one that came while the script computed ends nothing more
    }
    return m_exitCode;
}

/// To its end, which is the program's.
void Session::runScript(const CompiledScript& script) {
    registerOrders(*this);
    ScriptEvents::instance().nameMessageSignals();
    ScriptEvents::instance().nameSignals({playerEndedSignal, endsSignal});
    tellStates();
    const std::string fault = tools::runScript(script, {}, m_script);
    if (m_ended)
        return; // by what the script has ordered, or what has happened to the program
    end(fault.empty() ? 0 : ExitFailed, fault);
}

void Session::bringUp() {
    try {
        m_link.emplace();
        log("main system is up");
    } catch (const Failure& failure) {
        end(failure.exitCode, failure.what());
    }
}

/// Waits first: what a script waits for comes of what is done then.
void Session::turn(Clock::time_point deadline) {
    lookForPlayer();
    for (const Delayed& delayed : m_delayed)
        deadline = std::min(deadline, delayed.due);
    pollfd waiting[] = {{m_link ? m_link->fd() : -1, POLLIN, 0},
                        {m_inputOpen ? STDIN_FILENO : -1, POLLIN, 0},
                        {m_endSignals.fd(), POLLIN, 0},
                        {m_player.get(), POLLIN, 0},
                        {m_link ? m_link->claim().fd() : -1, POLLIN, 0}};
    if (poll(waiting, std::size(waiting), millisecondsUntil(deadline)) > 0) {
        if (waiting[4].revents != 0)
            m_link->claim().tell([this] { return status().dump(); });
        if (waiting[1].revents != 0)
            takeInput();
        if (waiting[2].revents != 0)
            takeEndSignal();
        // One at a time: a script has looked at each signal before the next is answered. What a
        // player that has ended had sent comes before its end.
        if (!takeSignal() && waiting[3].revents != 0)
            playerEnded();
    }
    giveDueAnswers();
    tellStates();
}

void Session::tellStates() {
    m_mainSystem.set(m_link ? "up" : "down");
    for (const auto& [state, kind] :
         {std::pair(&m_audioDecoder, audioKind), std::pair(&m_videoDecoder, videoKind)})
        state->set((m_arbiter.held() & kind) != 0      ? "asked for"
                   : (m_arbiter.lent() & kind) != 0    ? "lent"
                   : (m_arbiter.granted() & kind) != 0 ? "granted"
                                                       : "free");
}

void Session::noteOrder(const std::string& text) {
    const auto now = Clock::now();
    log("obey " + text, now);
    m_timeline.ordered(text, now);
}

void Session::setMode(Arbiter::Mode mode) {
    m_arbiter.setMode(mode);
    if (mode != Arbiter::Mode::Ignore)
        answerLater(m_arbiter.answerHeld());
}

void Session::grant(uint32_t kinds) {
    if (kinds == 0)
        return setMode(Arbiter::Mode::Grant);
    m_arbiter.granted(kinds);
    send(SIG_ID_MPLAYER_DECODER_AVAILABLE_IND, kinds);
}

void Session::askBack(uint32_t kinds) {
    send(SIG_ID_MPLAYER_DECODER_RELEASE_REQ, kinds, {}, ++m_cookie);
}

void Session::lend(uint32_t kinds) {
    if (const uint32_t plugIns = kinds & m_arbiter.granted())
        askBack(plugIns);
    m_arbiter.lend(kinds);
}

void Session::takeBack(uint32_t kinds) {
    answerLater(m_arbiter.takeBack(kinds));
}

void Session::control(const std::string& text) {
    send(SIG_ID_MPLAYER_CONTROL_REQ, 0, text);
}

/// Nothing is put in order: what is left is what a main system that dies leaves.
void Session::crash() {
    writeTimeline();
    raise(SIGKILL);
}

/// A main system that comes back knows nothing of what went before.
void Session::restart() {
    m_link.reset();
    m_delayed.clear();
    m_arbiter.plugInStarted();
    m_timeline.endSpans(Clock::now());
    bringUp();
}

ScriptValue Session::status() const {
    static constexpr const char* modes[] = {"grant", "refuse", "ignore"};
    const auto names = [](uint32_t kinds) {
        auto list = ScriptValue::array();
        for (const uint32_t kind : {audioKind, videoKind})
            if ((kinds & kind) != 0)
                list.push_back(kindsText(kind));
        return list;
    };
    return ScriptValue{{"up", m_link.has_value()},
                       {"decoders", names(m_arbiter.there())},
                       {"granted", names(m_arbiter.granted())},
                       {"lent", names(m_arbiter.lent())},
                       {"not_answered", names(m_arbiter.held())},
                       {"answers_delayed", m_delayed.size()},
                       {"mode", modes[static_cast<std::size_t>(m_arbiter.mode())]}};
}

bool Session::takeSignal() {
    const auto signal = m_link ? m_link->take() : std::nullopt;
    if (signal)
        received(*signal);
    return signal.has_value();
}

void Session::takeInput() {
    char bytes[4096];
    const ssize_t count = read(STDIN_FILENO, bytes, sizeof bytes);
    if (count <= 0) {
        m_inputOpen = count < 0 && (errno == EINTR || errno == EAGAIN);
        return;
    }
    m_input.append(bytes, static_cast<size_t>(count));
    for (size_t end = m_input.find('\n'); end != std::string::npos && !m_ended;
         end = m_input.find('\n')) {
        const std::string line = m_input.substr(0, end);
        m_input.erase(0, end + 1);
        obey(line);
    }
}

/// What it answers is printed.
void Session::obey(const std::string& line) noexcept {
    const auto thrown = thrownBy([&] {
        for (const ScriptValue& value : obeyLine(*this, line))
            printf("%s\n", value.is_string() ? value.get_ref<const std::string&>().c_str()
                                             : value.dump().c_str());
    });
    if (thrown)
        complain(*thrown);
}

/// Taken, or it would end the program by itself when it is no more held back. A script whose player
/// has ended is about to end by itself.
void Session::takeEndSignal() {
    if (m_endSignals.take() == 0)
        return;
    if (isScripted() && m_playerEnded)
        ScriptEvents::instance().publishEnd(endsSignal, "the main system is to end");
    else if (isScripted())
        end(ExitFailed, "ended by a signal before the end of the script");
    else
        end(0, "");
}

/// Nothing on the link tells of its end.
void Session::lookForPlayer() {
    if (m_player)
        return;
    m_player = openPlugInProcess();
    m_playerEnded = m_playerEnded && !m_player;
}

void Session::playerEnded() {
    m_player.reset();
    m_playerEnded = true;
    log("player has ended");
    ScriptEvents::instance().publishEnd(playerEndedSignal, "the player has ended");
}

void Session::received(const Signal& signal) {
    log(Direction::FromPlugIn, signal);
    m_timeline.passed(Direction::FromPlugIn, signal);
    ScriptEvents::instance().publishSignal(signalName(signal.body),
                                           [&signal] { return parametersOf(signal); });
    if (signal.sequence() == rpc_sequence::senderStarted)
        m_arbiter.plugInStarted();
    const auto kinds = static_cast<uint32_t>(signal.body.param1);
    if (signal.body.signalId == SIG_ID_MPLAYER_DECODER_NEEDED_IND)
        answerLater(m_arbiter.needed(kinds));
    if (signal.body.signalId == SIG_ID_MPLAYER_DECODER_RELEASE_RESP)
        m_arbiter.released(kinds);
}

void Session::answerLater(std::optional<Arbiter::Answer> answer) {
    if (answer)
        m_delayed.push_back({Clock::now() + m_delay, *answer});
    giveDueAnswers();
}

void Session::giveDueAnswers() {
    const auto now = Clock::now();
    for (auto next = m_delayed.begin(); next != m_delayed.end();) {
        if (next->due > now) {
            ++next;
            continue;
        }
        const uint32_t kinds = next->answer;
        next = m_delayed.erase(next);
        send(kinds != 0 ? SIG_ID_MPLAYER_DECODER_AVAILABLE_IND
                        : SIG_ID_MPLAYER_DECODER_NOT_AVAILABLE_IND,
             kinds);
    }
}

void Session::send(uint32_t signal, uint32_t param1, const std::string& payload, int cookie) {
    Signal sent{Clock::now(), {}, payload};
    sent.body.signalId = signal;
    sent.body.param1 = static_cast<int32_t>(param1);
    sent.body.responseInfo = cookie;
    sent.body.signalSize = static_cast<int32_t>(payload.size());
    log(Direction::ToPlugIn, sent);
    if (m_link)
        m_link->send(sent);
    m_timeline.passed(Direction::ToPlugIn, sent);
}

void Session::sendRaw(const ZantMsgBody& body, uint32_t count) {
    const Signal sent{Clock::now(), body, {}};
    log(Direction::ToPlugIn, sent);
    if (m_link)
        Link::sendRaw(body, count);
    m_timeline.passed(Direction::ToPlugIn, sent);
}

/// The same bytes in every run.
void Session::sendGarbage(uint32_t count) {
    std::minstd_rand random(count);
    for (uint32_t i = 0; i < count; ++i) {
        ZantMsgBody body{};
        auto* const bytes = reinterpret_cast<unsigned char*>(&body);
        std::generate(bytes, bytes + sizeof body,
                      [&random] { return static_cast<unsigned char>(random() >> 8); });
        sendRaw(body, 1);
    }
}

void Session::log(const std::string& text, Clock::time_point time) const {
    ScriptEvents::instance().publishTrace(text);
    if (!m_options.quiet)
        printf("%11.6f %s\n", std::chrono::duration<double>(time - m_start).count(),
               printable(text).c_str());
}

void Session::log(Direction direction, const Signal& signal) const {
    log((direction == Direction::FromPlugIn ? "<- " : "-> ") +
            std::to_string(signal.body.signalId) + " " + signalName(signal.body) + describe(signal),
        signal.time);
}

void Session::writeTimeline() {
    m_timeline.endSpans(Clock::now());
    if (const std::string failure = timeline::flush(); !failure.empty())
        end(ExitFailed, failure);
}

void Session::end(int exitCode, const std::string& why) {
    complain(why);
    m_ended = true;
    m_exitCode = m_exitCode != 0 ? m_exitCode : exitCode;
    m_script.stop();
}

} // namespace mainsys
