#include "playback.h"

#include "common/script.h"
#include "gst_errors.h"
#include "host/sample.h"
#include "nox/screen.h"
#include "util/printable.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <unistd.h>
#include <utility>

namespace uvahost {

namespace {

using std::chrono::duration;
using std::chrono::duration_cast;
using std::chrono::milliseconds;

/// No operation of a backend takes so long; the first one may search all plug-ins.
constexpr auto hangBound = std::chrono::seconds(30);
constexpr auto captureBound = std::chrono::seconds(5);

milliseconds inMilliseconds(double seconds) {
    return duration_cast<milliseconds>(duration<double>(seconds));
}

host::MediaElement::Options elementOptions(const Options& options) {
    host::MediaElement::Options result;
    if (options.denyResources)
        result.resources = host::ResourcePolicy::Deny;
    if (options.noProgressTimeout)
        result.noProgress = inMilliseconds(*options.noProgressTimeout);
    result.keyDelay = options.keyDelay.value_or(milliseconds(0));
    result.mainSystem = std::getenv("NOX_GST_STANDALONE") == nullptr;
    result.takeError = takeGstError;
    result.pictures = [](host::SourceId source) {
        const auto counted = nox::Screen::instance().counters(source);
        return host::PictureCounters{counted.shown, counted.dropped, counted.corrupted};
    };
    if (options.snapshotAt)
        result.tick = milliseconds(20); // a picture's time
    return result;
}

/// What is on the screen, whatever the backend does; empty: nothing.
std::string screenAsPng() {
    nox::Picture shown;
    if (!nox::Screen::instance().grab(shown))
        return {};
    std::string error;
    return host::encodePng({shown.width, shown.height, std::move(shown.rgba)}, error);
}

std::string seconds(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f s", value);
    return text;
}

} // namespace

Playback::Playback(Stage& stage, std::string name, bool last)
    : m_stage(stage), m_name(std::move(name)),
      m_wantSnapshot(last && !stage.options.snapshot.empty()),
      m_picture("uva-host picture " + std::to_string(getpid())),
      m_element(stage.library, stage.loop, m_inbox, elementOptions(stage.options)),
      m_seeksLeft(stage.options.seeks.begin(), stage.options.seeks.end()),
      m_detachesLeft(stage.options.detaches) {}

Playback::Result Playback::play(Media media) {
    begin(std::move(media));
    if (m_stage.script)
        runScript();
    while (m_stop == Stop::None)
        turn(host::Clock::time_point::max());
    finish();
    return std::move(m_result);
}

/// To its end, which is that of playback; or until something else ends it.
void Playback::runScript() {
    ScriptControl control([this, &control](host::Clock::time_point deadline) {
        turn(deadline);
        if (m_stop != Stop::None)
            control.stop();
    });
    m_stage.scripted = this;
    const auto fault = tools::runScript(*m_stage.script, {m_name}, control);
    m_stage.scripted = nullptr;
    if (m_stop != Stop::None)
        return;
    if (!fault.empty())
        return fail(fault);
    stop(Stop::Scripted);
}

void Playback::turn(host::Clock::time_point deadline) {
    wait(deadline);
    takeSignals();
    takeKeys();
    takeMessages();
    deliverKeys();
    checkTimes();
}

void Playback::begin(Media media) {
    m_status.time = host::Clock::now();
    m_stage.display.begin(m_name);
    m_stage.timeline.mediaBegins(m_name, m_status.time);
    m_stage.terminal.enter();
    if (auto* const uri = std::get_if<std::string>(&media)) {
        m_element.open(std::move(*uri));
    } else {
        m_element.openSource(std::move(std::get<host::MediaSource>(media)));
    }
    if (m_stage.options.window)
        m_element.setWindow(*m_stage.options.window);
    m_element.play();
}

host::Clock::duration Playback::played() const {
    return m_playedBefore +
           (isPlaying() ? host::Clock::now() - m_status.time : host::Clock::duration());
}

void Playback::wait(host::Clock::time_point deadline) {
    milliseconds bound{200}; // how often a backend that hangs is looked for
    const auto dueIn = [&bound](auto left) {
        bound =
            std::clamp(duration_cast<milliseconds>(left) + milliseconds(1), milliseconds(0), bound);
    };
    if (deadline != host::Clock::time_point::max())
        dueIn(deadline - host::Clock::now());
    if (m_stage.options.duration && isPlaying())
        dueIn(duration<double>(*m_stage.options.duration) - played());
    if (m_keysDue)
        dueIn(*m_keysDue - host::Clock::now());
    pollfd fds[] = {{m_inbox.fd(), POLLIN, 0},
                    {m_stage.signals.fd(), POLLIN, 0},
                    {m_keyboard ? m_stage.terminal.keyFd() : -1, POLLIN, 0},
                    {m_picture.isOpen() ? m_picture.fd() : -1, POLLIN, 0}};
    if (poll(fds, std::size(fds), static_cast<int>(bound.count())) > 0 && fds[3].revents != 0)
        m_picture.answer(screenAsPng);
}

// ---- what the element reports

void Playback::takeMessages() {
    for (const auto& message : m_inbox.takeAll())
        std::visit([this](const auto& each) { take(each); }, message);
    if (m_status.state == host::State::Failed)
        fail(m_status.reason);
    if (m_status.state == host::State::Ended && m_seeksOpen == 0 && !m_stage.script)
        stop(Stop::Ended);
}

/// Once playback is over nothing else is of interest.
void Playback::takeRecords() {
    for (const auto& message : m_inbox.takeAll())
        if (const auto* record = std::get_if<host::Record>(&message))
            take(*record);
}

void Playback::take(const host::Record& record) {
    m_stage.display.show(record);
    m_stage.timeline.add(record);
    if (record.kind == host::Record::Kind::Event)
        ScriptEvents::instance().publishSignal(record.name, [&record] {
            auto parameters = ScriptValue::object();
            for (const auto& [name, value] : record.arguments)
                std::visit([&, key = name](const auto& each) { parameters[key] = each; }, value);
            return parameters;
        });
}

void Playback::take(const host::Status& status) {
    if (isPlaying())
        m_playedBefore += status.time - m_status.time;
    m_status = status;
    m_stage.display.show(status);
    m_stage.timeline.add(status);
    m_state.set(host::name(status.state));
    if (!m_hasStarted && (isPlaying() || status.state == host::State::Ended)) {
        m_hasStarted = true;
        nextSeek();
    }
    checkDetaches();
    const bool settled = status.state != host::State::Seeking;
    if (m_wantSnapshot && m_stage.options.snapshotAt && m_result.snapshot.rgba.empty() && settled &&
        status.position >= *m_stage.options.snapshotAt)
        snapshot();
}

void Playback::take(const host::SeekResult& answer) {
    ScriptEvents::instance().publishSignal(seekSignal, [&answer] {
        return ScriptValue{{"number", answer.generation},
                           {"target", answer.target},
                           {"outcome", host::name(answer.outcome)},
                           {"position", answer.position}};
    });
    --m_seeksOpen;
    if (m_seekFromList != answer.target)
        return;
    m_seekFromList.reset();
    if (answer.outcome == host::SeekOutcome::Failed)
        return fail("the seek to " + seconds(answer.target) + " failed");
    nextSeek();
}

void Playback::take(const KeyNeeded& key) {
    const auto& keys = m_stage.options.keys;
    const bool known =
        std::any_of(keys.begin(), keys.end(), [&](const auto& pair) { return pair.id == key.id; });
    if (!known)
        return fail("no key for key id " + host::hexText(key.id) + "; give it with --key " +
                    host::hexText(key.id) + ":KEY");
    if (!m_keysDue)
        m_keysDue = host::Clock::now() + m_stage.options.keyDelay.value_or(milliseconds(0));
}

/// As a licence server that has thought about it.
void Playback::deliverKeys() {
    if (!m_keysDue || host::Clock::now() < *m_keysDue)
        return;
    m_keysDue.reset();
    for (const auto& pair : m_stage.options.keys)
        m_stage.keys->addKey(pair);
    m_element.resumeFeeding();
}

void Playback::checkDetaches() {
    for (auto next = m_detachesLeft.begin(); isPlaying() && next != m_detachesLeft.end();) {
        if (m_status.position < next->time) {
            ++next;
            continue;
        }
        m_element.reattach(next->kind);
        next = m_detachesLeft.erase(next);
    }
}

// ---- what the user does

void Playback::takeKeys() {
    const int fd = m_stage.terminal.keyFd();
    pollfd keyboard = {fd, POLLIN, 0};
    if (fd < 0 || !m_keyboard || poll(&keyboard, 1, 0) <= 0)
        return;
    char bytes[64];
    const auto count = read(fd, bytes, sizeof bytes);
    if (count > 0)
        for (const Key key : m_keys.decode(std::string(bytes, static_cast<std::size_t>(count))))
            act(key);
    else if (count == 0 || errno != EINTR)
        m_keyboard = false;
}

void Playback::act(Key key) {
    constexpr double stepSeconds = 10;
    switch (key) {
    case Key::Pause:
        if (m_status.state == host::State::Paused)
            m_element.play();
        else
            m_element.pause();
        break;
    case Key::Back:
        step(-stepSeconds);
        break;
    case Key::Forward:
        step(stepSeconds);
        break;
    case Key::Quit:
        m_result.quit = true;
        stop(Stop::Quit);
        break;
    }
}

/// While a seek is under way that is from where it leads: quick steps add up.
void Playback::step(double seconds) {
    requestSeek(m_element.position() + seconds);
}

void Playback::nextSeek() {
    if (m_seeksLeft.empty())
        return;
    m_seekFromList = m_seeksLeft.front();
    m_seeksLeft.pop_front();
    requestSeek(*m_seekFromList);
}

std::uint64_t Playback::requestSeek(double target) {
    ++m_seeksOpen;
    return m_element.seek(target);
}

ScriptValue Playback::describe() const {
    const auto counters = m_element.counters();
    return {{"state", host::name(m_status.state)},
            {"position", m_element.position()},
            {"duration", m_status.duration},
            {"width", m_status.width},
            {"height", m_status.height},
            {"pictures",
             {{"shown", counters.shown},
              {"dropped", counters.dropped},
              {"damaged", counters.corrupted}}}};
}

void Playback::takeSignals() {
    while (const int number = m_stage.signals.take()) {
        switch (number) {
        case SIGWINCH:
            m_stage.display.redraw();
            break;
        case SIGTSTP:
            suspend();
            break;
        case SIGCONT:
            m_stage.terminal.enter();
            m_stage.display.redraw();
            break;
        default:
            m_result.signal = number;
            stop(Stop::Signal);
        }
    }
}

/// Ctrl-Z: the shell gets its terminal as it was. SIGCONT brings us back.
void Playback::suspend() {
    m_stage.terminal.restore();
    if (m_stage.terminal.isLive())
        std::fputs("\n", stdout);
    std::fflush(stdout);
    raise(SIGSTOP);
}

// ---- the end

void Playback::checkTimes() {
    if (m_stop != Stop::None)
        return;
    const auto operation = m_element.operationUnderWay();
    if (operation && host::Clock::now() - operation->since > hangBound)
        return fail("the backend hangs in " + operation->name + "; see the system log");
    const auto& bound = m_stage.options.duration;
    if (bound && isPlaying() && played() >= duration<double>(*bound))
        stop(Stop::Elapsed);
}

void Playback::snapshot() {
    auto answer = m_element.capture();
    if (answer.wait_for(captureBound) != std::future_status::ready)
        return fail("no snapshot: the backend did not answer in time");
    auto capture = answer.get();
    if (!capture.error.empty())
        return fail("no snapshot: " + capture.error);
    m_result.snapshot = std::move(capture.picture);
}

void Playback::fail(std::string reason) {
    if (m_result.error.empty())
        m_result.error = std::move(reason);
    stop(Stop::Failed);
}

void Playback::stop(Stop reason) {
    if (m_stop == Stop::None)
        m_stop = reason;
}

void Playback::finish() {
    const double playedFor = duration<double>(played()).count();
    if (m_wantSnapshot && m_stop != Stop::Failed && m_result.snapshot.rgba.empty()) {
        if (m_stage.options.snapshotAt)
            fail("no snapshot: playback did not reach " + seconds(*m_stage.options.snapshotAt));
        else
            snapshot();
    }
    takeRecords(); // before the lines that the backend prints itself
    m_stage.terminal.restore();
    m_stage.display.end();
    if (m_stop == Stop::Signal)
        m_stage.signals.giveBack();
    const long held = m_stop == Stop::Ended ? host::Sample::living() : 0; // all has been played
    m_result.abandoned = !m_element.release(duration_cast<milliseconds>(hangBound));
    if (m_result.abandoned && m_result.error.empty())
        m_result.error = "the backend did not come back from its release; see the system log";

    m_result.requests = faultOfRequests();

    takeRecords();
    m_stage.timeline.mediaEnds(host::Clock::now());
    if (m_result.error.empty())
        m_stage.display.summary(summary(playedFor, held));
}

std::string Playback::faultOfRequests() const {
    const auto counts = m_element.requests();
    const std::pair<std::uint64_t, const char*> faults[] = {
        {counts.askedAgain, "came before the one in front was answered"},
        {counts.unasked, "were answered twice, or never made"},
        {counts.unanswered, "were never answered"}};
    std::string text;
    for (const auto& [count, what] : faults)
        if (count > 0)
            text += (text.empty() ? "" : ", ") + std::to_string(count) + " " + what;
    return text.empty() ? text
                        : "of " + std::to_string(counts.requests) + " requests for samples " + text;
}

std::string Playback::summary(double playedFor, long held) const {
    static constexpr const char* how[] = {"",
                                          "to the end",
                                          "as long as asked",
                                          "",
                                          "until q was pressed",
                                          "until interrupted",
                                          "until its script ended"};
    std::string text = printable(m_name) + ": played " + seconds(playedFor) + " " +
                       how[static_cast<std::size_t>(m_stop)];
    if (m_status.width > 0 && m_status.height > 0)
        text += ", " + std::to_string(m_status.width) + "x" + std::to_string(m_status.height);
    if (m_status.duration > 0)
        text += ", " + seconds(m_status.duration) + " long";
    const auto counters = m_element.counters();
    const std::pair<std::uint64_t, const char*> counts[] = {{counters.shown, " pictures"},
                                                            {counters.dropped, " dropped"},
                                                            {counters.corrupted, " damaged"}};
    for (const auto& [count, what] : counts)
        if (count > 0)
            text += ", " + std::to_string(count) + what;
    if (const auto asked = m_element.requests(); asked.requests > 0)
        text += ", " + std::to_string(asked.answers) + " of " + std::to_string(asked.requests) +
                " requests answered";
    if (held > 0)
        text += ", " + std::to_string(held) + " samples held";
    return text;
}

} // namespace uvahost
