#include "element_core.h"

#include "event_description.h"
#include "host/backend_library.h"
#include "host/media_uri.h"
#include "uva/uva_event.h"

#include <algorithm>
#include <cmath>

namespace host {

namespace {

constexpr int screenWidth = 1280;
constexpr int screenHeight = 720;

/// The source as the backend takes it: it owns this, and the texts live in it.
class UrlSource final : public UVABackend::SourceDescription {
public:
    UrlSource(std::string address, std::string agent)
        : m_address(std::move(address)), m_agent(std::move(agent)) {
        type = BackendStreaming;
        url = m_address.c_str();
        userAgent = m_agent.c_str();
        mimeType = "";
    }

private:
    const std::string m_address;
    const std::string m_agent;
};

Component copyOf(const UVABackend::AVComponent& component) {
    return {component.type, component.encoding, component.language, component.label};
}

SeekOutcome outcomeOf(const SeekCompletedExEvent& event) {
    using Told = SeekCompletedExEvent::SeekOutcome;
    return event.outcome == Told::Succeeded ? SeekOutcome::Succeeded
           : event.outcome == Told::Aborted ? SeekOutcome::Aborted
                                            : SeekOutcome::Failed;
}

} // namespace

ElementCore::ElementCore(std::shared_ptr<const BackendLibrary> library,
                         std::shared_ptr<EventLoop> loop, Observer& observer,
                         MediaElement::Options options)
    : m_library(std::move(library)), m_options(std::move(options)),
      m_calls(std::move(loop), observer), m_watch(m_options),
      m_playback(m_calls, m_watch, [this] { m_seek.abortAll(); }),
      m_seek(m_calls, m_playback, m_watch), m_end(m_playback, m_seek, m_watch) {}

ElementCore::~ElementCore() = default;

// ---- any thread

SourceId ElementCore::nextSource() {
    const auto id = m_options.firstSource + m_sourceCount++;
    countFor(id);
    return id;
}

void ElementCore::countFor(SourceId id) {
    const auto before = pictures(id);
    const locks::Lock lock(m_mutex);
    m_sinks.emplace_back(id, before);
}

PictureCounters ElementCore::pictures(SourceId id) const {
    return m_options.pictures ? m_options.pictures(id) : PictureCounters{};
}

bool ElementCore::canPlayAt(double rate) const {
    const locks::Lock lock(m_mutex);
    return std::any_of(m_speeds.begin(), m_speeds.end(), [rate](const auto& range) {
        return rate >= range.minimum && rate <= range.maximum;
    });
}

PictureCounters ElementCore::counters() const {
    std::vector<std::pair<SourceId, PictureCounters>> sinks;
    {
        const locks::Lock lock(m_mutex);
        sinks = m_sinks;
    }
    PictureCounters sum;
    for (const auto& [id, before] : sinks) {
        const auto now = pictures(id);
        sum.shown += now.shown - before.shown;
        sum.dropped += now.dropped - before.dropped;
        sum.corrupted += now.corrupted - before.corrupted;
    }
    return sum;
}

// ---- operations

void ElementCore::open(const std::string& uri) {
    if (!begin(serverOf(uri), 0))
        return;
    countFor(0);
    UVABackend::SourceDescription* sources[] = {new UrlSource(uri, m_options.userAgent), nullptr};
    if (m_playback.initialize(sources, {{"url", uri}})) {
        if (m_playback.isWanted())
            m_playback.play();
        startWatching();
    }
}

void ElementCore::openSource(MediaSource source) {
    if (!std::isfinite(source.start) || source.start < 0)
        source.start = 0;
    if (!begin(source.server, source.start))
        return;
    Feeding::Options options{m_options.mainSystem, m_options.tick, [this] { return nextSource(); }};
    m_feeding = std::make_unique<Feeding>(m_calls, m_playback, m_watch, m_requests,
                                          std::move(source), std::move(options));
    for (auto& [id, stream] : std::exchange(m_early, {}))
        m_feeding->attach(id, std::move(stream));
    m_feeding->open();
    tellPosition();
    startWatching();
}

/// Once an element. Who hears that it opens finds it at its start.
bool ElementCore::begin(const std::string& server, double start) {
    if (!m_playback.is(State::Idle) || m_releasing)
        return false;
    m_position.set(start, 0, m_seeksTaken);
    m_watch.begin(server);
    if (requestBackend())
        m_playback.setState(State::Opening);
    else
        m_playback.fail("the library gave no backend; its own message on standard output says why");
    return isOpen();
}

bool ElementCore::requestBackend() {
    if (isOpen() || m_releasing)
        return isOpen();
    constexpr auto type = UVABackend::VideoElement;
    m_calls.setBackend(m_calls.operate("UVA_RequestBackend", {number("type", type)},
                                       [this] { return m_library->request(type, this); }));
    if (!isOpen())
        return false;
    std::vector<UVAMediaBackend::SpeedRange> speeds;
    m_calls.ask("getPlaybackSpeedRanges", &UVAMediaBackend::getPlaybackSpeedRanges, speeds);
    if (m_volume)
        setVolume(*m_volume);
    const locks::Lock lock(m_mutex);
    m_speeds.swap(speeds);
    return true;
}

void ElementCore::startWatching() {
    m_timer =
        m_calls.loop()->startTimer(m_options.tick, [core = shared_from_this()] { core->tick(); });
}

/// Behind the end it begins anew.
void ElementCore::play() {
    if (m_releasing)
        return;
    m_playback.play();
    if (m_playback.is(State::Ended) && m_seek.isIdle()) {
        m_seek.request({0, 0});
        beginSeek();
    }
}

void ElementCore::pause() {
    if (!m_releasing)
        m_playback.pause();
}

/// Before anything was fed, playback can as well begin at the target.
void ElementCore::seek(Seek::Request request) {
    if (m_releasing)
        return;
    m_seeksTaken = std::max(m_seeksTaken, request.generation); // asked on different threads
    const bool isEarly = m_feeding != nullptr && !m_seek.everBegan() &&
                         std::isfinite(request.target) && !m_playback.is(State::Failed);
    if (isEarly && m_feeding->begin(Seek::placeOf(request.target, m_playback.status().duration))) {
        m_seek.answer(request, SeekOutcome::Succeeded);
    } else {
        m_seek.request(request);
        beginSeek();
    }
    tellPosition();
}

void ElementCore::setVolume(double volume) {
    m_volume = volume;
    if (isOpen())
        m_calls.operate("setVolume", {{"volume", volume}}, &UVAMediaBackend::setVolume, volume);
}

void ElementCore::setRate(double rate) {
    if (isOpen())
        m_calls.operate("setPlaybackRate", {{"rate", rate}}, &UVAMediaBackend::setPlaybackRate,
                        rate);
}

void ElementCore::setDuration(double seconds) {
    if (m_releasing)
        return;
    const double known = knownDuration(seconds);
    m_playback.setDuration(known);
    if (known > 0 && m_feeding != nullptr)
        m_feeding->setDuration(known);
}

CapabilityAnswer ElementCore::canPlayType(const UVABackend::ContentDescription& description) {
    if (!requestBackend())
        return {false, "there is no backend to ask"};
    return m_calls.ask("canPlayType", [&] { return askCanPlay(*m_calls.backend(), description); });
}

void ElementCore::attach(SourceId id, std::shared_ptr<SampleStream> stream) {
    if (m_releasing || m_playback.is(State::Failed))
        return;
    if (m_feeding != nullptr)
        m_feeding->attach(id, std::move(stream));
    else
        m_early.emplace_back(id, std::move(stream));
}

void ElementCore::detach(SourceId id) {
    if (m_feeding != nullptr && isOpen())
        m_feeding->detach(id);
    const auto isIt = [id](const auto& early) { return early.first == id; };
    m_early.erase(std::remove_if(m_early.begin(), m_early.end(), isIt), m_early.end());
}

void ElementCore::reattach(StreamInfo::Kind kind) {
    if (isOpen() && m_feeding != nullptr)
        m_feeding->reattach(kind);
}

void ElementCore::resumeFeeding() {
    if (isOpen() && m_feeding != nullptr)
        m_feeding->resume();
}

void ElementCore::setWindow(const UVABackend::Rect& window) {
    if (!isOpen())
        return;
    m_calls.operate("setLogicalScreenSize",
                    {number("width", screenWidth), number("height", screenHeight)},
                    &UVAMediaBackend::setLogicalScreenSize, screenWidth, screenHeight);
    m_calls.operate("setVideoWindowAndClip",
                    {number("x", window.x), number("y", window.y), number("width", window.width),
                     number("height", window.height)},
                    &UVAMediaBackend::setVideoWindowAndClip, window,
                    UVABackend::Rect{0, 0, screenWidth, screenHeight});
}

MediaElement::Capture ElementCore::capture() {
    if (!isOpen())
        return {{}, "nothing is open"};
    Picture picture;
    auto& [width, height, rgba] = picture;
    double ratio = 1.0;
    m_calls.operate("getNativeSize", {}, &UVAMediaBackend::getNativeSize, width, height, ratio);
    if (width <= 0 || height <= 0)
        return {{}, "the media has shown no picture"};
    const int started =
        m_calls.operate("startCapture", {number("width", width), number("height", height)},
                        &UVAMediaBackend::startCapture, width, height);
    if (started != UVABackend::Success)
        return {{}, "the backend cannot capture pictures of this size"};

    rgba.resize(static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 4);
    const int fetched = m_calls.operate("getVideoFrame", {}, &UVAMediaBackend::getVideoFrame,
                                        rgba.data(), static_cast<unsigned int>(rgba.size()));
    m_calls.operate("stopCapture", {}, &UVAMediaBackend::stopCapture);
    if (fetched == UVABackend::NotAvailable)
        return {{}, "no picture is on screen"};
    if (fetched != UVABackend::Success)
        return {{},
                "the backend gave no picture (getVideoFrame answered " + std::to_string(fetched) +
                    ")"};
    return {std::move(picture), {}};
}

void ElementCore::release() {
    m_releasing = true;
    m_early.clear();
    m_calls.loop()->cancelTimer(m_timer);
    m_seek.abortAll();
    if (m_feeding != nullptr)
        m_feeding->stop();
    if (auto* backend = m_calls.backend()) {
        m_calls.operate("UVA_ReleaseBackend", {},
                        [this, backend] { return m_library->release(backend); });
        m_calls.setBackend(nullptr);
    }
    closeGate();
}

// ---- events

void ElementCore::deliverEvent(UVAEvent* event) {
    if (event == nullptr)
        return;
    if (event->type() == UVAEvent::BackendResourceRequestAsync) {
        if (auto* backend = m_calls.backend()) {
            std::unique_ptr<UVAAsyncEvent> request(static_cast<UVAAsyncEvent*>(event));
            return answerResourceRequest(*backend, std::move(request));
        }
    }
    const auto& loop = m_calls.loop();
    if (event->type() == UVAEvent::NeedMSEData) {
        auto request = std::make_shared<MseFeeder::Request>();
        request->event.reset(static_cast<NeedMSEDataEvent*>(event));
        request->number = m_requests.ask(request->event->sourceId, loop->now());
        loop->post(
            [core = shared_from_this(), request] { core->takeRequest(std::move(*request)); });
        return;
    }
    Delivery delivery{std::shared_ptr<UVAEvent>(event), describe(*event, loop->now()), {}};
    if (event->type() == UVAEvent::CancelDataRequestsAsync) {
        const locks::Lock lock(m_mutex);
        delivery.cancel = ++m_cancel.number;
        m_cancel.target = static_cast<CancelDataRequestsAsyncEvent*>(event)->position;
    }
    if (event->type() == UVAEvent::MultiComponentChanged)
        for (const auto* component : static_cast<MultiComponentChangedEvent*>(event)->added)
            if (component != nullptr)
                delivery.added.emplace_back(component, copyOf(*component));
    loop->post(
        [core = shared_from_this(), delivery = std::move(delivery)] { core->handle(delivery); });
}

/// Answered on the spot: while the request is with the client, every other sink that asks is
/// refused.
void ElementCore::answerResourceRequest(UVAMediaBackend& backend,
                                        std::unique_ptr<UVAAsyncEvent> event) {
    Delivery delivery{nullptr, describe(*event, m_calls.now()), {}};
    const bool granted = m_options.resources == ResourcePolicy::Grant && !m_releasing;
    Record answer;
    answer.kind = Record::Kind::Operation;
    answer.name = "eventCompleted";
    answer.onLoop = false;
    answer.time = m_calls.now();
    const int result = backend.eventCompleted(event.get(), granted);
    answer.duration = m_calls.now() - answer.time;
    answer.arguments = {{"event", delivery.record.name},
                        {"success", granted},
                        {"result", static_cast<long long>(result)}};
    m_calls.loop()->post(
        [core = shared_from_this(), delivery = std::move(delivery), answer = std::move(answer)] {
            core->handle(delivery);
            core->m_calls.observe([&](Observer& observer) { observer.onRecord(answer); });
            core->decoderAsked(answer.time);
        });
}

void ElementCore::takeRequest(MseFeeder::Request request) {
    if (!isOpen() || m_feeding == nullptr || m_playback.is(State::Failed))
        return;
    const Record record = describe(*request.event, m_calls.now());
    m_calls.observe([&](Observer& observer) { observer.onRecord(record); });
    m_feeding->request(std::move(request));
}

void ElementCore::handle(const Delivery& delivery) {
    if (!isOpen())
        return;
    m_calls.observe([&](Observer& observer) { observer.onRecord(delivery.record); });
    if (delivery.event != nullptr)
        act(delivery);
}

void ElementCore::act(const Delivery& delivery) {
    const auto& event = *delivery.event;
    switch (event.type()) {
    case UVAEvent::BackendResourceRequestAsync: // raised before the backend was known
        m_calls.operate(
            "eventCompleted", {{"event", delivery.record.name}}, [&](UVAMediaBackend& backend) {
                return backend.eventCompleted(static_cast<const UVAAsyncEvent*>(&event),
                                              m_options.resources == ResourcePolicy::Grant);
            });
        decoderAsked(m_calls.now());
        break;
    case UVAEvent::CancelDataRequestsAsync:
        completeCancel(static_cast<const UVAAsyncEvent&>(event), delivery.cancel);
        break;
    case UVAEvent::SeekCompletedEx:
        finishSeek(outcomeOf(static_cast<const SeekCompletedExEvent&>(event)));
        break;
    case UVAEvent::NewMetadata:
        m_playback.take(static_cast<const NewMetadataEvent&>(event));
        break;
    case UVAEvent::MultiComponentChanged:
        m_playback.take(static_cast<const MultiComponentChangedEvent&>(event), delivery.added);
        break;
    case UVAEvent::BufferingStreamUnderrun:
        m_playback.underrun();
        break;
    case UVAEvent::BufferingProgress:
        m_watch.restart();
        break;
    case UVAEvent::BufferingStreamBuffered:
        m_playback.buffered();
        break;
    case UVAEvent::PlaybackFinished:
        trackPosition(); // what was played up to it says nothing against it
        changeCodecs(true);
        if (m_feeding == nullptr || m_feeding->hasEnded())
            m_end.see();
        break;
    case UVAEvent::DecodeError:
        m_playback.fail(m_watch.decodeErrorText(static_cast<const DecodeErrorEvent&>(event).reason,
                                                delivery.record.time, m_end.place()));
        break;
    case UVAEvent::BufferingNetworkError:
        m_playback.fail(m_watch.networkErrorText());
        break;
    default:
        break;
    }
}

/// Of several that are pending the first completion makes the seek, to the newest target.
void ElementCore::completeCancel(const UVAAsyncEvent& event, std::uint64_t number) {
    if (m_feeding != nullptr && number > m_cancelsDone) {
        Cancel newest;
        {
            const locks::Lock lock(m_mutex);
            newest = m_cancel;
        }
        m_cancelsDone = newest.number;
        m_feeding->seek(newest.target);
    }
    m_calls.operate("eventCompleted",
                    {{"event", std::string("CancelDataRequestsAsync")}, {"success", true}},
                    [&](UVAMediaBackend& backend) { return backend.eventCompleted(&event, true); });
}

void ElementCore::decoderAsked(Clock::time_point time) {
    m_playback.advance(Playback::Stage::Known);
    m_watch.decoderAsked(time);
}

// ---- time

/// Behind the target of a seek an end from before it does not count.
void ElementCore::beginSeek() {
    if (m_seek.begin())
        m_end.forget();
}

void ElementCore::finishSeek(SeekOutcome outcome) {
    m_seek.finish(outcome);
    if (m_seek.isUnderWay())
        m_end.forget();
    m_end.consider();
}

void ElementCore::tick() {
    trackPosition();
    if (m_feeding != nullptr) {
        feedAnew();
        changeCodecs(false);
        m_feeding->balance();
    }
    m_watch.hearErrors();
    if (const auto now = phase(); m_watch.tick(now, m_calls.now()))
        m_end.standStill(*now);
    m_end.consider();
}

void ElementCore::trackPosition() {
    const auto& status = m_playback.status();
    const auto before = std::make_pair(status.position, status.duration);
    m_playback.refresh();
    const bool hasMoved = status.position != before.first;
    if (hasMoved && !m_seek.isUnderWay()) {
        m_end.forget();
        m_seek.settle();
        m_playback.moved();
        beginSeek();
    }
    if (hasMoved || status.duration != before.second)
        m_playback.publish();
    tellPosition();
}

/// Where playback is, or is to be.
void ElementCore::tellPosition() {
    m_position.set(m_seek.destination(), m_playback.status().duration, m_seeksTaken);
}

void ElementCore::changeCodecs(bool finished) {
    if (m_feeding == nullptr)
        return;
    const auto goOn = m_feeding->changeCodecs(finished);
    if (!goOn || !m_seek.isIdle())
        return;
    m_seek.request({0, *goOn});
    beginSeek();
}

/// What the backend holds, and has not shown, is outdated: it gets what is there now.
void ElementCore::feedAnew() {
    const auto until = m_feeding->outdatedUntil();
    if (!until || !m_seek.isIdle() || m_playback.is(State::Failed))
        return;
    m_feeding->forgetOutdated();
    const double position = m_playback.status().position;
    if (*until <= position)
        return;
    m_seek.request({0, position});
    beginSeek();
}

/// What is waited for now; nothing when nothing is to move.
std::optional<Phase> ElementCore::phase() const {
    const bool isUnplayed = m_playback.is(State::Opening) && !m_playback.isWanted();
    if (m_playback.over() || isUnplayed)
        return std::nullopt;
    if (m_playback.is(State::Paused))
        return isLookedInto() ? std::optional(phaseOfStart()) : std::nullopt;
    if (m_seek.isUnderWay())
        return Phase::Seeking;
    if (m_feeding != nullptr && m_feeding->waitsForKey())
        return Phase::WaitingForKey;
    if (m_playback.isHeld())
        return Phase::WaitingForData;
    if (!m_playback.reached(Playback::Stage::Played))
        return phaseOfStart();
    if (m_watch.hasServer())
        return Phase::WaitingForData; // what stands still there lacks data
    if (m_seek.isSettling())
        return Phase::Seeking;
    return m_playback.is(State::Buffering) ? Phase::WaitingForData : Phase::Playing;
}

/// A URL is, also while it is paused; nothing has come of it yet.
bool ElementCore::isLookedInto() const {
    return m_feeding == nullptr && !m_playback.reached(Playback::Stage::Known) &&
           m_playback.status().duration <= 0;
}

Phase ElementCore::phaseOfStart() const {
    if (m_watch.awaitsDecoder(m_calls.now()))
        return Phase::WaitingForDecoder;
    const bool connected =
        m_playback.reached(Playback::Stage::Known) || m_playback.status().duration > 0;
    return m_watch.hasServer() && !connected ? Phase::Connecting : Phase::Opening;
}

} // namespace host
