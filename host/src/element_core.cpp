#include "element_core.h"

#include "element_calls.h"
#include "event_description.h"
#include "host/backend_library.h"
#include "host/media_uri.h"
#include "uva/uva_event.h"
#include "uva/uva_media_backend.h"

#include <cmath>
#include <type_traits>

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

std::string seconds(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f s", value);
    return text;
}

std::string seconds(std::chrono::milliseconds value) {
    return seconds(std::chrono::duration<double>(value).count());
}

std::string decodeErrorText(int reason, ResourcePolicy policy) {
    switch (reason) {
    case DecodeErrorEvent::UnknownFormat:
        return "decode error: the format is unknown";
    case DecodeErrorEvent::CorruptStream:
        return "decode error: the stream is corrupt";
    case DecodeErrorEvent::InsufficientResources:
        return policy == ResourcePolicy::Deny
                   ? "decoder refused: this host denies the decoders"
                   : "decoder refused: no decoder was granted (is the main system running? without "
                     "one, play standalone)";
    default:
        return "decode error " + std::to_string(reason);
    }
}

Component copyOf(const UVABackend::AVComponent& component) {
    return {component.type, component.encoding, component.language, component.label};
}

SeekOutcome outcomeOf(const SeekCompletedExEvent& event) {
    switch (event.outcome) {
    case SeekCompletedExEvent::SeekOutcome::Succeeded:
        return SeekOutcome::Succeeded;
    case SeekCompletedExEvent::SeekOutcome::Aborted:
        return SeekOutcome::Aborted;
    case SeekCompletedExEvent::SeekOutcome::Failed:
        return SeekOutcome::Failed;
    }
    return SeekOutcome::Failed;
}

} // namespace

ElementCore::ElementCore(std::shared_ptr<const BackendLibrary> library,
                         std::shared_ptr<EventLoop> loop, Observer& observer,
                         MediaElement::Options options)
    : m_library(std::move(library)), m_loop(std::move(loop)), m_options(std::move(options)),
      m_observer(&observer), m_watch(m_options.tick) {}

ElementCore::~ElementCore() = default;

// ---- operations

void ElementCore::open(const std::string& uri) {
    if (m_status.state != State::Idle || requestBackend() == nullptr)
        return;
    m_network = isNetworkUri(uri);
    setState(State::Opening);
    UVABackend::SourceDescription* sources[] = {new UrlSource(uri, m_options.userAgent), nullptr};
    if (initialize(sources, {{"url", uri}}))
        startWatching();
}

void ElementCore::openSource(MediaSource source) {
    if (m_status.state != State::Idle || requestBackend() == nullptr)
        return;
    m_network = true; // what is opened may be anywhere: the longer bound
    m_protected = source.keys != nullptr;
    setState(State::Opening);
    m_feeder = std::make_shared<MseFeeder>(m_loop, std::move(source), *this);
    m_feeder->open();
    startWatching();
}

UVAMediaBackend* ElementCore::requestBackend() {
    constexpr auto type = UVABackend::VideoElement;
    auto* backend = operate("UVA_RequestBackend", {{"type", static_cast<long long>(type)}},
                            [this] { return m_library->request(type, this); });
    if (backend == nullptr)
        fail("the library gave no backend; its own message on standard output says why");
    m_backend = backend;
    return backend;
}

/// Hands the sources over.
bool ElementCore::initialize(UVABackend::SourceDescription** sources,
                             std::vector<Argument> arguments) {
    auto* backend = m_backend.load();
    const int opened = operate("initBackend", std::move(arguments), [backend, sources] {
        return backend->initBackend("", sources, false, false);
    });
    m_initialized = opened == UVABackend::Success;
    if (!m_initialized)
        fail("the backend did not take the media (initBackend answered " + std::to_string(opened) +
             "); see the system log");
    return m_initialized;
}

void ElementCore::startWatching() {
    m_watch.tick(Clock::now());
    m_watch.restart();
    m_timer = m_loop->startTimer(m_options.tick, [core = shared_from_this()] { core->tick(); });
}

void ElementCore::play() {
    auto* backend = m_backend.load();
    if (backend == nullptr || over())
        return;
    m_wantPlaying = true;
    if (m_initialized && !m_starved)
        operate("play", {}, [backend] { return backend->play(); });
    m_watch.restart();
    settle();
}

void ElementCore::pause() {
    auto* backend = m_backend.load();
    if (backend == nullptr || over())
        return;
    m_wantPlaying = false;
    if (m_initialized)
        operate("pause", {}, [backend] { return backend->pause(); });
    settle();
}

void ElementCore::setWindow(const UVABackend::Rect& window) {
    auto* backend = m_backend.load();
    if (backend == nullptr)
        return;
    operate("setLogicalScreenSize",
            {{"width", static_cast<long long>(screenWidth)},
             {"height", static_cast<long long>(screenHeight)}},
            [backend] { return backend->setLogicalScreenSize(screenWidth, screenHeight); });
    const UVABackend::Rect clip{0, 0, screenWidth, screenHeight};
    operate("setVideoWindowAndClip",
            {{"x", static_cast<long long>(window.x)},
             {"y", static_cast<long long>(window.y)},
             {"width", static_cast<long long>(window.width)},
             {"height", static_cast<long long>(window.height)}},
            [&] { return backend->setVideoWindowAndClip(window, clip); });
}

MediaElement::Capture ElementCore::capture() {
    auto* backend = m_backend.load();
    if (backend == nullptr)
        return {{}, "nothing is open"};
    Picture picture;
    double ratio = 1.0;
    operate("getNativeSize", {},
            [&] { return backend->getNativeSize(picture.width, picture.height, ratio); });
    if (picture.width <= 0 || picture.height <= 0)
        return {{}, "the media has shown no picture"};
    const int started =
        operate("startCapture",
                {{"width", static_cast<long long>(picture.width)},
                 {"height", static_cast<long long>(picture.height)}},
                [&] { return backend->startCapture(picture.width, picture.height); });
    if (started != UVABackend::Success)
        return {{}, "the backend cannot capture pictures of this size"};

    picture.rgba.resize(static_cast<std::size_t>(picture.width) *
                        static_cast<std::size_t>(picture.height) * 4);
    const int fetched = operate("getVideoFrame", {}, [&] {
        return backend->getVideoFrame(picture.rgba.data(),
                                      static_cast<unsigned int>(picture.rgba.size()));
    });
    operate("stopCapture", {}, [backend] { return backend->stopCapture(); });
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
    if (m_timer != 0)
        m_loop->cancelTimer(m_timer);
    m_timer = 0;
    abortSeeks();
    if (m_feeder != nullptr)
        m_feeder->stop();
    if (auto* backend = m_backend.load()) {
        operate("UVA_ReleaseBackend", {}, [this, backend] { return m_library->release(backend); });
        m_backend = nullptr;
    }
    closeGate();
}

std::optional<MediaElement::Operation> ElementCore::operationUnderWay() const {
    const std::lock_guard lock(m_operationMutex);
    return m_operation;
}

// ---- events

void ElementCore::deliverEvent(UVAEvent* event) {
    if (event == nullptr)
        return;
    if (event->type() == UVAEvent::BackendResourceRequestAsync) {
        if (auto* backend = m_backend.load()) {
            std::unique_ptr<UVAAsyncEvent> request(static_cast<UVAAsyncEvent*>(event));
            return answerResourceRequest(*backend, std::move(request));
        }
    }
    if (event->type() == UVAEvent::NeedMSEData) {
        auto request = std::make_shared<std::unique_ptr<NeedMSEDataEvent>>(
            static_cast<NeedMSEDataEvent*>(event));
        m_loop->post([core = shared_from_this(), request] { core->takeRequest(std::move(*request)); });
        return;
    }
    Delivery delivery{std::shared_ptr<UVAEvent>(event), describe(*event), {}};
    if (event->type() == UVAEvent::MultiComponentChanged)
        for (const auto* component : static_cast<MultiComponentChangedEvent*>(event)->added)
            if (component != nullptr)
                delivery.added.emplace_back(component, copyOf(*component));
    m_loop->post(
        [core = shared_from_this(), delivery = std::move(delivery)] { core->handle(delivery); });
}

/// Answered on the spot: while the request is with the client, every other sink that asks is
/// refused.
void ElementCore::answerResourceRequest(UVAMediaBackend& backend,
                                        std::unique_ptr<UVAAsyncEvent> event) {
    Delivery delivery{nullptr, describe(*event), {}};
    const bool granted = m_options.resources == ResourcePolicy::Grant && !m_releasing;
    Record answer;
    answer.kind = Record::Kind::Operation;
    answer.name = "eventCompleted";
    answer.onLoop = false;
    answer.time = Clock::now();
    const int result = backend.eventCompleted(event.get(), granted);
    answer.duration = Clock::now() - answer.time;
    answer.arguments = {
        {"event", delivery.record.name}, {"success", granted}, {"result", toValue(result)}};
    m_loop->post(
        [core = shared_from_this(), delivery = std::move(delivery), answer = std::move(answer)] {
            core->handle(delivery);
            core->observe([&](Observer& observer) { observer.onRecord(answer); });
        });
}

void ElementCore::handle(const Delivery& delivery) {
    if (m_releasing)
        return;
    observe([&](Observer& observer) { observer.onRecord(delivery.record); });
    if (delivery.event != nullptr && m_backend.load() != nullptr)
        act(delivery);
}

void ElementCore::act(const Delivery& delivery) {
    const auto& event = *delivery.event;
    switch (event.type()) {
    case UVAEvent::BackendResourceRequestAsync: // raised before the backend was known
        operate("eventCompleted", {{"event", delivery.record.name}}, [&] {
            const bool granted = m_options.resources == ResourcePolicy::Grant;
            return m_backend.load()->eventCompleted(static_cast<const UVAAsyncEvent*>(&event),
                                                    granted);
        });
        break;
    case UVAEvent::CancelDataRequestsAsync:
        completeCancel(static_cast<const UVAAsyncEvent&>(event));
        break;
    case UVAEvent::SeekCompletedEx:
        finishSeek(outcomeOf(static_cast<const SeekCompletedExEvent&>(event)));
        break;
    case UVAEvent::NewMetadata:
        takeMetadata(event);
        break;
    case UVAEvent::MultiComponentChanged:
        takeComponents(delivery);
        break;
    case UVAEvent::BufferingStreamUnderrun:
        underrun();
        break;
    case UVAEvent::BufferingProgress:
        m_watch.restart();
        break;
    case UVAEvent::BufferingStreamBuffered:
        buffered();
        break;
    case UVAEvent::PlaybackFinished:
        m_endSeen = true;
        considerEnd();
        break;
    case UVAEvent::DecodeError:
        fail(decodeErrorText(static_cast<const DecodeErrorEvent&>(event).reason,
                             m_options.resources));
        break;
    case UVAEvent::BufferingNetworkError:
        fail("the media cannot be fetched: the server or the file does not answer as it should");
        break;
    default:
        break;
    }
}

void ElementCore::completeCancel(const UVAAsyncEvent& event) {
    auto* backend = m_backend.load();
    if (m_feeder != nullptr)
        m_feeder->seek(static_cast<const CancelDataRequestsAsyncEvent&>(event).position);
    operate("eventCompleted",
            {{"event", std::string("CancelDataRequestsAsync")}, {"success", true}},
            [&] { return backend->eventCompleted(&event, true); });
}

void ElementCore::takeMetadata(const UVAEvent& event) {
    const auto& media = static_cast<const NewMetadataEvent&>(event);
    if (media.duration > 0)
        m_status.duration = media.duration;
    m_status.width = media.width;
    m_status.height = media.height;
    m_status.pixelAspectRatio = media.pixelAspectRatio;
    m_watch.restart();
    publishStatus();
}

void ElementCore::takeComponents(const Delivery& delivery) {
    for (const void* gone : static_cast<const MultiComponentChangedEvent&>(*delivery.event).removed)
        for (std::size_t i = m_componentKeys.size(); i-- > 0;)
            if (m_componentKeys[i] == gone) {
                const auto offset = static_cast<std::ptrdiff_t>(i);
                m_componentKeys.erase(m_componentKeys.begin() + offset);
                m_status.components.erase(m_status.components.begin() + offset);
            }
    for (const auto& [key, component] : delivery.added) {
        m_componentKeys.push_back(key);
        m_status.components.push_back(component);
    }
    publishStatus();
}

void ElementCore::underrun() {
    if (m_status.state == State::Opening || m_status.state == State::Playing)
        setState(State::Buffering);
}

/// Of a media source it only says that samples have arrived: what moves tells that it plays.
void ElementCore::buffered() {
    m_watch.restart();
    if (m_feeder == nullptr && m_status.state == State::Buffering)
        setState(State::Playing);
}

// ---- seeking

void ElementCore::seek(double target) {
    if (!std::isfinite(target) || m_backend.load() == nullptr || m_status.state == State::Failed)
        return answerSeek(target, SeekOutcome::Failed);
    if (m_seekQueued)
        answerSeek(*m_seekQueued, SeekOutcome::Replaced);
    m_seekQueued = target;
    startQueuedSeek();
}

void ElementCore::startQueuedSeek() {
    const bool possible = m_started || m_status.state == State::Ended;
    if (!m_seekQueued || m_seekInFlight || !possible)
        return;
    const double target = *m_seekQueued;
    m_seekQueued.reset();
    m_seekInFlight = target;
    if (m_status.state != State::Seeking)
        m_seekFromEnd = m_status.state == State::Ended;
    m_settling = true;
    m_endSeen = false;
    m_watch.restart();
    setState(State::Seeking);
    auto* backend = m_backend.load();
    operate("setPosition", {{"seconds", target}},
            [backend, target] { return backend->setPosition(target); });
}

void ElementCore::finishSeek(SeekOutcome outcome) {
    if (!m_seekInFlight)
        return;
    const double target = *m_seekInFlight;
    m_seekInFlight.reset();
    m_watch.restart();
    if (outcome == SeekOutcome::Succeeded)
        m_seekFromEnd = false;
    answerSeek(target, outcome);
    if (m_seekQueued)
        return startQueuedSeek();
    refreshPosition();
    setState(m_seekFromEnd ? State::Ended : m_wantPlaying ? State::Buffering : State::Paused);
    considerEnd();
}

void ElementCore::answerSeek(double target, SeekOutcome outcome) {
    observe([&](Observer& observer) { observer.onSeek(target, outcome); });
}

void ElementCore::abortSeeks() {
    for (auto* pending : {&m_seekInFlight, &m_seekQueued}) {
        if (!*pending)
            continue;
        answerSeek(**pending, SeekOutcome::Aborted);
        pending->reset();
    }
}

// ---- position and progress

void ElementCore::tick() {
    const double before = m_status.position;
    const double durationBefore = m_status.duration;
    refreshPosition();
    const bool hasMoved = m_status.position != before;
    if (hasMoved && m_status.state != State::Seeking)
        moved();
    watchBuffers();
    if (hasMoved || m_status.duration != durationBefore)
        publishStatus();
    considerEnd();

    const auto still = m_watch.tick(Clock::now());
    const auto bound = progressBound();
    if (!expectsProgress())
        m_watch.restart();
    else if (bound.count() > 0 && still >= bound)
        noProgress(bound);
}

void ElementCore::refreshPosition() {
    auto* backend = m_backend.load();
    if (over() || !m_initialized)
        return;
    refreshSources();
    double value = 0;
    const auto success = UVABackend::Success;
    if (busy("getPosition", [&] { return backend->getPosition(value); }) == success)
        m_status.position = value;
    if (m_status.duration > 0)
        return;
    if (busy("getDuration", [&] { return backend->getDuration(value); }) == success && value > 0)
        m_status.duration = value;
}

void ElementCore::moved() {
    m_watch.restart();
    m_started = true;
    m_settling = m_endSeen = false;
    const bool waits = m_status.state == State::Opening || m_status.state == State::Buffering;
    if (m_wantPlaying && !m_starved && waits)
        setState(State::Playing);
    startQueuedSeek();
}

bool ElementCore::expectsProgress() const {
    if (m_keyMissing)
        return false;
    switch (m_status.state) {
    case State::Opening:
        return m_wantPlaying;
    case State::Buffering:
    case State::Playing:
    case State::Seeking:
        return true;
    default:
        return false;
    }
}

std::chrono::milliseconds ElementCore::progressBound() const {
    return m_network ? m_options.noProgressNetwork : m_options.noProgress;
}

void ElementCore::noProgress(std::chrono::milliseconds bound) {
    if (m_seekInFlight)
        return fail("the seek to " + seconds(*m_seekInFlight) + " did not complete within " +
                    seconds(bound));
    if (m_endSeen) {
        m_settling = false;
        return considerEnd();
    }
    if (m_started)
        return fail("stalled at " + seconds(m_status.position) + ": nothing moved for " +
                    seconds(bound) + " (the media may be corrupt there; see the system log)");
    fail(
        "no progress: nothing was played within " + seconds(bound) +
        " (the media may be broken or of an unsupported type; GST_DEBUG=2 puts GStreamer's reasons "
        "into the system log)");
}

bool ElementCore::nearEnd() const {
    constexpr double tolerance = 0.25; // seconds; the last picture's and sound's lengths
    return m_status.duration > 0 && m_status.position >= m_status.duration - tolerance;
}

/// The bus of the backend is not flushed by a seek. So an end that comes before the position has
/// moved again may be the old one: it counts only where the end is, or when nothing moves.
void ElementCore::considerEnd() {
    if (!m_endSeen || m_seekInFlight || (m_settling && !nearEnd()) || over())
        return;
    m_settling = m_endSeen = false;
    refreshPosition();
    setState(State::Ended);
    if (m_seekQueued)
        startQueuedSeek();
}

// ---- state

bool ElementCore::over() const {
    return m_status.state == State::Idle || m_status.state == State::Ended ||
           m_status.state == State::Failed;
}

/// After play() or pause().
void ElementCore::settle() {
    if (m_status.state == State::Seeking)
        return;
    if (!m_wantPlaying)
        setState(State::Paused);
    else if (m_status.state == State::Paused)
        setState(m_starved ? State::Buffering : m_started ? State::Playing : State::Opening);
}

void ElementCore::setState(State state) {
    if (m_status.state == state)
        return;
    m_status.state = state;
    publishStatus();
}

void ElementCore::fail(std::string reason) {
    if (m_status.state == State::Ended || m_status.state == State::Failed)
        return;
    m_status.reason = std::move(reason);
    setState(State::Failed);
    abortSeeks();
}

void ElementCore::publishStatus() {
    m_status.time = Clock::now();
    observe([this](Observer& observer) { observer.onStatus(m_status); });
}

void ElementCore::closeGate() {
    const std::lock_guard lock(m_gate);
    m_observer = nullptr;
}

} // namespace host
