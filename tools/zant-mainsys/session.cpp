#include "session.h"

#include "describe.h"
#include "timeline/timeline.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <random>
#include <unistd.h>
#include <utility>

namespace mainsys {

namespace {

void complain(const std::string& text) {
    if (!text.empty())
        fprintf(stderr, "zant-mainsys: %s\n", text.c_str());
}

} // namespace

Session::Session(Options options)
    : m_options(std::move(options)), m_arbiter(m_options.audioDecoders, m_options.videoDecoders),
      m_inputOpen(!isScenario()) {}

int Session::run() {
    const std::string why =
        m_options.timeline.empty() ? timeline::begin() : timeline::beginFile(m_options.timeline);
    complain(why);
    if (!why.empty())
        return ExitFailed;
    Timeline::begin();
    if (!readScenario())
        return tools::usageError;
    if (!m_options.down)
        bringUp();
    if (!m_ended)
        complain(tellReady()); // up, or down as it was asked for
    while (!m_ended) {
        giveDueAnswers();
        obeyLines();
        if (!m_ended)
            waitForSomething();
    }
    m_link.reset();
    writeTimeline();
    return m_exitCode;
}

/// Every line is looked at before the first is obeyed.
bool Session::readScenario() {
    if (!isScenario())
        return true;
    std::ifstream file(m_options.scenario);
    bool good = file.good();
    int number = 0;
    for (std::string text; std::getline(file, text);) {
        m_lines.push_back({++number, text});
        const std::string error = parseCommand(text).error;
        if (error.empty())
            continue;
        fprintf(stderr, "%s:%d: %s\n", m_options.scenario.c_str(), number, error.c_str());
        good = false;
    }
    return good;
}

void Session::bringUp() {
    try {
        m_link.emplace();
        log("main system is up");
    } catch (const Failure& failure) {
        end(failure.exitCode, failure.what());
    }
}

void Session::obeyLines() {
    tryHolding();
    while (!m_ended && !m_holding && !m_lines.empty()) {
        obeyLine();
        tryHolding();
    }
    if (isScenario() && m_lines.empty() && !m_holding)
        m_ended = true;
}

void Session::obeyLine() {
    m_line = m_lines.front();
    m_lines.pop_front();
    const Command command = parseCommand(m_line.text);
    complain(command.error);
    if (!command.error.empty() || !command.obey)
        return;
    const auto now = Clock::now();
    log("obey " + m_line.text, now);
    m_timeline.ordered(m_line.text, now);
    command.obey(*this, command.arguments);
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

void Session::printStatus() const {
    printf("main system %s, granted to the plug-in: %s, answers waiting: %zu\n",
           m_link ? "up" : "down", kindsText(m_arbiter.granted()).c_str(), m_delayed.size());
}

/// For who looks at the set from outside.
std::string Session::stateAsJson() const {
    static constexpr const char* modes[] = {"grant", "refuse", "ignore"};
    const auto names = [](uint32_t kinds) {
        auto list = nlohmann::json::array();
        for (const uint32_t kind : {audioKind, videoKind})
            if ((kinds & kind) != 0)
                list.push_back(kindsText(kind));
        return list;
    };
    return nlohmann::json{{"decoders", names(m_arbiter.there())},
                          {"granted", names(m_arbiter.granted())},
                          {"lent", names(m_arbiter.lent())},
                          {"not_answered", names(m_arbiter.held())},
                          {"answers_delayed", m_delayed.size()},
                          {"mode", modes[static_cast<std::size_t>(m_arbiter.mode())]}}
        .dump();
}

void Session::hold(Milliseconds time, const std::optional<Expectation>& expectation) {
    lookForPlayer();
    m_holding = Holding{expectation, Clock::now() + time};
}

void Session::tryHolding() {
    if (!m_holding)
        return;
    const auto expectation = m_holding->expectation;
    const bool came = expectation && takeExpected(*expectation);
    if (!came && !m_playerEnded && Clock::now() < m_holding->until)
        return;
    m_holding.reset();
    if (expectation && came != expectation->toCome)
        failed(came            ? "it came"
               : m_playerEnded ? "the player has ended, it did not come"
                               : "it did not come");
}

/// Takes away what came before the expected signal, and that one.
bool Session::takeExpected(const Expectation& expectation) {
    const auto found =
        std::find_if(m_unexpected.begin(), m_unexpected.end(), [&](const Signal& signal) {
            return signal.body.signalId == expectation.signal &&
                   signal.body.param1 == expectation.parameter.value_or(signal.body.param1);
        });
    if (found == m_unexpected.end())
        return false;
    m_unexpected.erase(m_unexpected.begin(), found + 1);
    return true;
}

void Session::failed(const std::string& why) {
    std::string came;
    for (const Signal& signal : m_unexpected)
        came += " " + signalName(signal.body) + "(" + std::to_string(signal.body.param1) + ")";
    const std::string where = isScenario() ? m_options.scenario : "standard input";
    fprintf(stderr, "%s:%d: '%s': %s; since the last expectation:%s\n", where.c_str(),
            m_line.number, m_line.text.c_str(), why.c_str(),
            came.empty() ? " nothing" : came.c_str());
    m_exitCode = ExitFailed;
    m_ended = isScenario();
}

void Session::waitForSomething() {
    pollfd waiting[] = {{m_link ? m_link->fd() : -1, POLLIN, 0},
                        {m_inputOpen ? STDIN_FILENO : -1, POLLIN, 0},
                        {m_endSignals.fd(), POLLIN, 0},
                        {m_player.get(), POLLIN, 0},
                        {m_link ? m_link->claim().fd() : -1, POLLIN, 0}};
    if (poll(waiting, std::size(waiting), timeout()) <= 0)
        return;
    if (waiting[0].revents != 0)
        takeSignals();
    if (waiting[1].revents != 0)
        takeInput();
    if (waiting[3].revents != 0)
        playerEnded();
    if (waiting[4].revents != 0 && m_link)
        m_link->claim().tell([this] { return stateAsJson(); });
    // Taken, or it would end the program by itself when it is no more held back.
    if (waiting[2].revents != 0 && m_endSignals.take() != 0 &&
        !m_playerEnded) // else the scenario is about to end by itself
        end(isScenario() ? ExitFailed : 0,
            isScenario() ? "ended by a signal before the end of the scenario" : "");
}

/// Milliseconds until something is due, rounded up; -1 for never.
int Session::timeout() const {
    auto next = m_holding ? m_holding->until : Clock::time_point::max();
    for (const Delayed& delayed : m_delayed)
        next = std::min(next, delayed.due);
    if (next == Clock::time_point::max())
        return -1;
    const auto left = std::chrono::ceil<Milliseconds>(next - Clock::now());
    return static_cast<int>(std::max(left, Milliseconds(0)).count());
}

void Session::takeSignals() {
    while (const auto signal = m_link ? m_link->take() : std::nullopt)
        received(*signal);
}

void Session::takeInput() {
    char bytes[4096];
    const ssize_t count = read(STDIN_FILENO, bytes, sizeof bytes);
    if (count <= 0) {
        m_inputOpen = count < 0 && (errno == EINTR || errno == EAGAIN);
        return;
    }
    m_input.append(bytes, static_cast<size_t>(count));
    for (size_t end = m_input.find('\n'); end != std::string::npos; end = m_input.find('\n')) {
        m_lines.push_back({++m_inputLine, m_input.substr(0, end)});
        m_input.erase(0, end + 1);
    }
}

/// Nothing on the link tells of its end.
void Session::lookForPlayer() {
    if (!m_player && !m_playerEnded)
        m_player = openPlugInProcess();
}

/// A scenario is for one player; who gives orders may go on to the next.
void Session::playerEnded() {
    takeSignals(); // all that it has sent is there by now
    m_player.reset();
    m_playerEnded = isScenario();
    log("player has ended");
}

void Session::received(const Signal& signal) {
    constexpr size_t mostUnexpected = 10000;
    log(Direction::FromPlugIn, signal);
    m_timeline.passed(Direction::FromPlugIn, signal);
    m_unexpected.push_back(signal);
    if (m_unexpected.size() > mostUnexpected)
        m_unexpected.pop_front();
    if (signal.sequence() == rpc_sequence::senderStarted)
        m_arbiter.plugInStarted();
    const auto kinds = static_cast<uint32_t>(signal.body.param1);
    if (signal.body.signalId == SIG_ID_MPLAYER_DECODER_NEEDED_IND)
        answerLater(m_arbiter.needed(kinds));
    if (signal.body.signalId == SIG_ID_MPLAYER_DECODER_RELEASE_RESP)
        m_arbiter.released(kinds);
    lookForPlayer();
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
    if (!m_options.quiet)
        printf("%11.6f %s\n", std::chrono::duration<double>(time - m_start).count(), text.c_str());
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
}

} // namespace mainsys
