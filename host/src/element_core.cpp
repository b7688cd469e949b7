#include "element_core.h"

#include "element_calls.h"
#include "event_description.h"
#include "host/backend_library.h"
#include "host/media_uri.h"
#include "uva/uva_event.h"
#include "uva/uva_media_backend.h"

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
    m_server = serverOf(uri);
    setState(State::Opening);
    UVABackend::SourceDescription* sources[] = {new UrlSource(uri, m_options.userAgent), nullptr};
    if (initialize(sources, {{"url", uri}}))
        startWatching();
}

void ElementCore::openSource(MediaSource source) {
    if (m_status.state != State::Idle || requestBackend() == nullptr)
        return;
    m_server = source.server;
    m_protected = source.keys != nullptr;
    setState(State::Opening);
    m_feeder = std::make_shared<MseFeeder>(m_loop, std::move(source), *this);
    m_feeder->open();
    startWatching();
}

UVAMediaBackend* ElementCore::requestBackend() {
    constexpr auto type = UVABackend::VideoElement;
    if (m_options.takeError)
        m_options.takeError(); // of what was played before
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
        m_loop->post(
            [core = shared_from_this(), request] { core->takeRequest(std::move(*request)); });
        return;
    }
    Delivery delivery{std::shared_ptr<UVAEvent>(event), describe(*event, m_loop->now()), {}};
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
    Delivery delivery{nullptr, describe(*event, m_loop->now()), {}};
    const bool granted = m_options.resources == ResourcePolicy::Grant && !m_releasing;
    Record answer;
    answer.kind = Record::Kind::Operation;
    answer.name = "eventCompleted";
    answer.onLoop = false;
    answer.time = m_loop->now();
    const int result = backend.eventCompleted(event.get(), granted);
    answer.duration = m_loop->now() - answer.time;
    answer.arguments = {
        {"event", delivery.record.name}, {"success", granted}, {"result", toValue(result)}};
    m_loop->post(
        [core = shared_from_this(), delivery = std::move(delivery), answer = std::move(answer)] {
            core->handle(delivery);
            core->observe([&](Observer& observer) { observer.onRecord(answer); });
            core->decoderAsked(answer.time);
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
        decoderAsked(m_loop->now());
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
        trackPosition(); // what was played up to it says nothing against it
        m_endSeen = true;
        considerEnd();
        break;
    case UVAEvent::DecodeError:
        fail(decodeErrorText(static_cast<const DecodeErrorEvent&>(event).reason,
                             delivery.record.time));
        break;
    case UVAEvent::BufferingNetworkError:
        fail(networkErrorText());
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
    m_mediaSeen = true;
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
    m_mediaSeen = true;
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
    m_sought = Sought::Settling;
    m_target = target;
    m_endSeen = false;
    hearErrors();
    m_error.clear();
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
    m_status.time = m_loop->now();
    observe([this](Observer& observer) { observer.onStatus(m_status); });
}

void ElementCore::closeGate() {
    const std::lock_guard lock(m_gate);
    m_observer = nullptr;
}

} // namespace host
