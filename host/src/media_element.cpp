#include "host/media_element.h"

#include "element_core.h"
#include "host/event_loop.h"

#include <utility>

namespace host {

MediaElement::MediaElement(std::shared_ptr<const BackendLibrary> library,
                           std::shared_ptr<EventLoop> loop, Observer& observer, Options options)
    : m_loop(loop), m_core(std::make_shared<ElementCore>(std::move(library), std::move(loop),
                                                         observer, std::move(options))) {}

MediaElement::~MediaElement() {
    release(std::chrono::seconds(10));
}

void MediaElement::open(std::string uri) {
    m_loop->post([core = m_core, uri = std::move(uri)] { core->open(uri); });
}

void MediaElement::openSource(MediaSource source) {
    m_loop->post([core = m_core, source = std::move(source)]() mutable {
        core->openSource(std::move(source));
    });
}

void MediaElement::play() {
    m_loop->post([core = m_core] { core->play(); });
}

void MediaElement::pause() {
    m_loop->post([core = m_core] { core->pause(); });
}

std::uint64_t MediaElement::seek(double seconds) {
    const auto generation = m_core->position().ask(seconds);
    m_loop->post([core = m_core, generation, seconds] { core->seek({generation, seconds}); });
    return generation;
}

double MediaElement::position() const {
    return m_core->position().get();
}

void MediaElement::setVolume(double volume) {
    m_loop->post([core = m_core, volume] { core->setVolume(volume); });
}

bool MediaElement::setRate(double rate) {
    if (!m_core->canPlayAt(rate))
        return false;
    m_loop->post([core = m_core, rate] { core->setRate(rate); });
    return true;
}

void MediaElement::setDuration(double seconds) {
    m_loop->post([core = m_core, seconds] { core->setDuration(seconds); });
}

std::future<CapabilityAnswer>
MediaElement::canPlayType(UVABackend::ContentDescription description) {
    auto promise = std::make_shared<std::promise<CapabilityAnswer>>();
    auto answer = promise->get_future();
    const bool posted =
        m_loop->post([core = m_core, promise, description = std::move(description)] {
            promise->set_value(core->canPlayType(description));
        });
    if (!posted)
        promise->set_value({false, "the event loop has ended"});
    return answer;
}

PictureCounters MediaElement::counters() const {
    return m_core->counters();
}

RequestCounts MediaElement::requests() const {
    return m_core->requests();
}

SourceId MediaElement::attach(std::unique_ptr<SampleStream> stream) {
    if (stream == nullptr)
        return 0;
    const auto id = m_core->nextSource();
    m_loop->post([core = m_core, id, shared = std::shared_ptr<SampleStream>(std::move(stream))] {
        core->attach(id, shared);
    });
    return id;
}

void MediaElement::detach(SourceId source) {
    m_loop->post([core = m_core, source] { core->detach(source); });
}

void MediaElement::reattach(StreamInfo::Kind kind) {
    m_loop->post([core = m_core, kind] { core->reattach(kind); });
}

void MediaElement::resumeFeeding() {
    m_loop->post([core = m_core] { core->resumeFeeding(); });
}

void MediaElement::setWindow(const UVABackend::Rect& window) {
    m_loop->post([core = m_core, window] { core->setWindow(window); });
}

std::future<MediaElement::Capture> MediaElement::capture() {
    auto promise = std::make_shared<std::promise<Capture>>();
    auto answer = promise->get_future();
    if (!m_loop->post([core = m_core, promise] { promise->set_value(core->capture()); }))
        promise->set_value({{}, "the event loop has ended"});
    return answer;
}

bool MediaElement::release(std::chrono::milliseconds bound) {
    if (m_released)
        return *m_released;
    const auto released = std::make_shared<std::promise<void>>();
    const auto answer = released->get_future();
    const auto tell = [released] { released->set_value(); };
    const bool posted = m_loop->post([core = m_core, loop = m_loop, tell] {
        core->release();
        // What was read meanwhile is among the loop's tasks: it goes before anyone counts.
        if (!loop->post(tell))
            tell();
    });
    m_released = posted && answer.wait_for(bound) == std::future_status::ready;
    if (!*m_released)
        m_core->closeGate();
    return *m_released;
}

std::optional<MediaElement::Operation> MediaElement::operationUnderWay() const {
    return m_core->operationUnderWay();
}

} // namespace host
