#include "session.h"

#include "describe.h"
#include "output_file.h"
#include "readiness.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <poll.h>
#include <random>
#include <sys/signalfd.h>
#include <unistd.h>

namespace mainsys {

namespace {

using Verb = Command::Verb;

constexpr size_t mostUnexpected = 10000;

/// Given back when the link is forked, see LinkProcess.
int openEndSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    return signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
}

} // namespace

Session::Session(Options options)
    : m_options(std::move(options)), m_arbiter(m_options.audioDecoders, m_options.videoDecoders),
      m_inputOpen(m_options.scenario.empty()), m_endSignals(openEndSignals()) {}

Session::~Session() {
    if (m_endSignals >= 0)
        close(m_endSignals);
}

int Session::run() {
    const std::string why =
        m_options.timeline.empty() ? "" : uvahost::whyNotWritable(m_options.timeline);
    if (!why.empty()) {
        fprintf(stderr, "zant-mainsys: %s\n", why.c_str());
        return ExitFailed;
    }
    if (!readScenario())
        return ExitUsage;
    if (!m_options.down)
        bringUp();
    if (!m_ended)
        sayReady();
    while (!m_ended) {
        giveDueAnswers();
        obeyLines();
        if (!m_ended)
            waitForSomething();
    }
    m_link.stop();
    if (!writeTimeline() && m_exitCode == 0)
        m_exitCode = ExitFailed;
    return m_exitCode;
}

/// Every line is looked at before the first is obeyed.
bool Session::readScenario() {
    if (m_options.scenario.empty())
        return true;
    std::ifstream file(m_options.scenario);
    bool good = file.good();
    int number = 0;
    for (std::string text; std::getline(file, text);) {
        m_lines.push_back({++number, text});
        const auto parsed = parseCommand(text);
        if (parsed.command)
            continue;
        fprintf(stderr, "%s:%d: %s\n", m_options.scenario.c_str(), number, parsed.error.c_str());
        good = false;
    }
    return good;
}

void Session::bringUp() {
    fflush(stdout); // what is not written yet would be written by the link's process once more
    std::string failure;
    const auto start = m_link.start(failure);
    const auto now = Clock::now();
    if (start == LinkProcess::Start::Up) {
        log(now, "main system is up");
        return;
    }
    fprintf(stderr, "zant-mainsys: %s\n", failure.c_str());
    m_exitCode = start == LinkProcess::Start::Served ? ExitServed : ExitFailed;
    m_ended = true;
}

/// Up, or down as it was asked for: who started the program may go on.
void Session::sayReady() {
    const std::string failure = tellReady();
    if (!failure.empty())
        fprintf(stderr, "zant-mainsys: %s\n", failure.c_str());
}

void Session::obeyLines() {
    tryHolding();
    while (!m_ended && !m_holding && !m_lines.empty()) {
        const Line line = m_lines.front();
        m_lines.pop_front();
        const auto parsed = parseCommand(line.text);
        if (!parsed.command) {
            fprintf(stderr, "zant-mainsys: %s\n", parsed.error.c_str());
            continue;
        }
        if (parsed.command->verb == Verb::Nothing)
            continue;
        const auto now = Clock::now();
        log(now, "obey " + line.text);
        m_timeline.ordered(line.text, now);
        obey(*parsed.command, line);
        tryHolding();
    }
    if (!m_options.scenario.empty() && m_lines.empty() && !m_holding)
        m_ended = true;
}

void Session::obey(const Command& command, const Line& line) {
    switch (command.verb) {
    case Verb::Grant:
        if (command.kinds == 0) {
            setMode(Arbiter::Mode::Grant);
        } else {
            m_arbiter.granted(command.kinds);
            send(SIG_ID_MPLAYER_DECODER_AVAILABLE_IND, command.kinds);
        }
        break;
    case Verb::Refuse:
        setMode(Arbiter::Mode::Refuse);
        break;
    case Verb::Ignore:
        setMode(Arbiter::Mode::Ignore);
        break;
    case Verb::Delay:
        m_delay = command.time;
        break;
    case Verb::Release:
        send(SIG_ID_MPLAYER_DECODER_RELEASE_REQ, command.kinds, {}, ++m_cookie);
        break;
    case Verb::Control:
        send(SIG_ID_MPLAYER_CONTROL_REQ, 0, command.text);
        break;
    case Verb::Crash:
        crash();
        break;
    case Verb::Restart:
        m_link.stop();
        crash();
        bringUp();
        break;
    case Verb::Expect:
    case Verb::ExpectNone:
    case Verb::Wait:
        m_holding = Holding{command, line, Clock::now() + command.time};
        break;
    case Verb::Raw:
        sendRaw(command.body, command.count);
        break;
    case Verb::Garbage:
        sendGarbage(command.count);
        break;
    case Verb::Status:
        printStatus();
        break;
    case Verb::Help:
        printf("%s", commandHelp().c_str());
        break;
    case Verb::Quit:
        m_ended = true;
        break;
    case Verb::Nothing:
        break;
    }
}

void Session::setMode(Arbiter::Mode mode) {
    m_arbiter.setMode(mode);
    if (mode != Arbiter::Mode::Ignore)
        answerLater(m_arbiter.answerHeld());
}

/// A main system that comes back knows nothing of what went before.
void Session::crash() {
    m_link.crash();
    m_delayed.clear();
    m_arbiter.plugInStarted();
    m_timeline.endSpans(Clock::now());
}

void Session::printStatus() const {
    printf("main system %s, granted to the plug-in: %s, answers waiting: %zu\n",
           m_link.isUp() ? "up" : "down", kindsText(m_arbiter.granted()).c_str(), m_delayed.size());
}

void Session::tryHolding() {
    if (!m_holding)
        return;
    const Holding holding = *m_holding;
    const bool timeIsUp = Clock::now() >= holding.until;
    if (holding.command.verb == Verb::Wait) {
        if (timeIsUp)
            m_holding.reset();
        return;
    }
    const bool met = metExpectation(holding.command);
    if (!met && !timeIsUp)
        return;
    m_holding.reset();
    if (met != (holding.command.verb == Verb::Expect))
        failed(holding.line, met ? "it came" : "it did not come");
}

/// Takes away what came before the expected signal, and that one.
bool Session::metExpectation(const Command& command) {
    const auto found =
        std::find_if(m_unexpected.begin(), m_unexpected.end(), [&command](const Signal& signal) {
            return signal.body.signalId == command.signal &&
                   (!command.parameter || signal.body.param1 == *command.parameter);
        });
    if (found == m_unexpected.end())
        return false;
    m_unexpected.erase(m_unexpected.begin(), found + 1);
    return true;
}

void Session::failed(const Line& line, const std::string& why) {
    std::string came;
    for (const Signal& signal : m_unexpected)
        came += " " + signalName(signal.body) + "(" + std::to_string(signal.body.param1) + ")";
    const std::string where = m_options.scenario.empty() ? "standard input" : m_options.scenario;
    fprintf(stderr, "%s:%d: '%s': %s; since the last expectation:%s\n", where.c_str(), line.number,
            line.text.c_str(), why.c_str(), came.empty() ? " nothing" : came.c_str());
    m_exitCode = ExitFailed;
    if (!m_options.scenario.empty())
        m_ended = true;
}

void Session::waitForSomething() {
    pollfd waiting[] = {{m_link.fd(), POLLIN, 0},
                        {m_inputOpen ? STDIN_FILENO : -1, POLLIN, 0},
                        {m_endSignals, POLLIN, 0}};
    if (poll(waiting, std::size(waiting), timeout()) <= 0)
        return;
    if (waiting[0].revents != 0)
        takeSignals();
    if (waiting[1].revents != 0)
        takeInput();
    if (waiting[2].revents != 0) {
        m_ended = true;
        if (!m_options.scenario.empty()) {
            fprintf(stderr, "zant-mainsys: ended by a signal before the end of the scenario\n");
            m_exitCode = ExitFailed;
        }
    }
}

/// Milliseconds until something is due, rounded up; -1 for never.
int Session::timeout() const {
    auto next = Clock::time_point::max();
    if (m_holding)
        next = m_holding->until;
    for (const Delayed& delayed : m_delayed)
        next = std::min(next, delayed.due);
    if (next == Clock::time_point::max())
        return -1;
    const auto left = std::chrono::ceil<Milliseconds>(next - Clock::now());
    return static_cast<int>(std::max(left, Milliseconds(0)).count());
}

void Session::takeSignals() {
    for (Passed passed; m_link.take(passed);)
        if (passed.kind == Passing::Received)
            received(passed.signal);
    if (!m_link.isUp())
        log(Clock::now(), "main system is gone");
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

void Session::received(const Signal& signal) {
    constexpr uint32_t firstOfProcess = 1;
    log("<-", signal);
    m_timeline.received(signal);
    m_unexpected.push_back(signal);
    if (m_unexpected.size() > mostUnexpected)
        m_unexpected.pop_front();
    if (signal.sequence() == firstOfProcess)
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
    Passed passed;
    passed.kind = Passing::Send;
    passed.signal.time = Clock::now();
    passed.signal.body.signalId = signal;
    passed.signal.body.param1 = static_cast<int32_t>(param1);
    passed.signal.body.responseInfo = cookie;
    passed.signal.body.signalSize = static_cast<int32_t>(payload.size());
    passed.signal.payload = payload;
    log("->", passed.signal);
    m_timeline.sent(passed.signal);
    m_link.send(passed);
}

void Session::sendRaw(const ZantMsgBody& body, uint32_t count) {
    Passed passed;
    passed.kind = Passing::SendRaw;
    passed.count = count;
    passed.signal.time = Clock::now();
    passed.signal.body = body;
    log("->", passed.signal);
    m_timeline.sent(passed.signal);
    m_link.send(passed);
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

void Session::log(Clock::time_point time, const std::string& text) const {
    if (m_options.quiet)
        return;
    printf("%11.6f %s\n", std::chrono::duration<double>(time - m_start).count(), text.c_str());
}

void Session::log(const char* direction, const Signal& signal) const {
    if (!m_options.quiet)
        log(signal.time, std::string(direction) + " " + std::to_string(signal.body.signalId) + " " +
                             signalName(signal.body) + describe(signal));
}

bool Session::writeTimeline() {
    if (m_options.timeline.empty())
        return true;
    m_timeline.endSpans(Clock::now());
    const std::string failure = uvahost::writeFile(m_options.timeline, m_timeline.text());
    if (failure.empty())
        return true;
    fprintf(stderr, "zant-mainsys: %s\n", failure.c_str());
    return false;
}

} // namespace mainsys
