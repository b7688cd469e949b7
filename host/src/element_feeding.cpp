// The media element's side of feeding: what passes between the backend and the feeder.

#include "element_core.h"

#include "element_calls.h"
#include "event_description.h"
#include "uva/uva_event.h"
#include "uva/uva_media_backend.h"

#include <algorithm>
#include <utility>

namespace host {

namespace {

// When playback is held, and goes on. A decoder must not run dry: what comes late for the clock is
// lost. What the backend holds, it holds in front of the decoder and in it.
constexpr double tooLittle = 0.5;                         // seconds
constexpr double enough = 1.0;                            // seconds
constexpr auto patience = std::chrono::milliseconds(100); // with a request

} // namespace

void ElementCore::feederOpened() {
    auto* backend = m_backend.load();
    m_mediaSeen = true;
    if (m_protected) {
        UVAKeySystemConfig config;
        config.keySystemId = clearKeySystem;
        operate("setKeySystem", {{"id", std::string(clearKeySystem)}},
                [&] { return backend->setKeySystem(config); });
    }
    std::vector<UVABackend::SourceDescription*> sources;
    std::string types;
    for (const auto& info : m_feeder->sources()) {
        sources.push_back(m_feeder->describe(info.id).release());
        types += (types.empty() ? "" : ", ") + std::string(sources.back()->mimeType);
    }
    sources.push_back(nullptr);
    if (!initialize(sources.data(), {{"sources", types}}))
        return;
    if (m_wantPlaying)
        operate("play", {}, [backend] { return backend->play(); });
    else if (m_status.state == State::Paused)
        operate("pause", {}, [backend] { return backend->pause(); });
    m_watch.restart();
}

void ElementCore::feederFailed(const std::string& reason) {
    fail(reason);
}

void ElementCore::keyNeeded(const KeyBytes& id) {
    observe([&](Observer& observer) { observer.onKeyNeeded(id); });
}

void ElementCore::resumeFeeding() {
    if (m_feeder != nullptr)
        m_feeder->resume();
}

void ElementCore::writeData(std::unique_ptr<NeedMSEDataEvent> event, unsigned int samples,
                            unsigned int bytes, UVABackend::WriteDataStatus status) {
    auto* backend = m_backend.load();
    operate("writeData",
            {{"sourceId", static_cast<long long>(event->sourceId)},
             {"samples", static_cast<long long>(samples)},
             {"bytes", static_cast<long long>(bytes)},
             {"status", static_cast<long long>(status)}},
            [&] { return backend->writeData(event.release(), bytes, status); });
    if (samples > 0 && !m_decoderAsked && m_options.mainSystem)
        decoderAsked(m_loop->now()); // the sinks of media sources do not ask the host first
}

void ElementCore::takeRequest(std::unique_ptr<NeedMSEDataEvent> event) {
    const Record record = describe(*event, m_loop->now());
    if (m_releasing || m_feeder == nullptr || m_status.state == State::Failed)
        return;
    observe([&](Observer& observer) { observer.onRecord(record); });
    m_feeder->request(std::move(event));
}

int ElementCore::attach(unsigned int id) {
    auto* backend = m_backend.load();
    m_decoderAsked.reset(); // its sink asks anew
    auto source = m_feeder->describe(id);
    const std::string mimeType = source->mimeType;
    return operate("attachSource",
                   {{"sourceId", static_cast<long long>(id)}, {"mimeType", mimeType}},
                   [&] { return backend->attachSource(source.release()); });
}

void ElementCore::reattach(StreamInfo::Kind kind) {
    auto* backend = m_backend.load();
    if (m_feeder == nullptr || !m_initialized || over())
        return;
    for (const auto& source : m_feeder->sources()) {
        if (source.kind != kind)
            continue;
        operate("removeSource", {{"sourceId", static_cast<long long>(source.id)}},
                [&] { return backend->removeSource(source.id); });
        m_feeder->restart(source.id, m_status.position);
        if (attach(source.id) != UVABackend::Success)
            fail("the backend did not take the source again; see the system log");
    }
}

void ElementCore::refreshSources() {
    if (m_feeder == nullptr || !m_initialized)
        return;
    auto* backend = m_backend.load();
    m_status.sources.clear();
    for (const auto& source : m_feeder->sources()) {
        std::vector<UVABackend::TimeRange> ranges;
        busy("getBufferedTimeRanges",
             [&] { return backend->getBufferedTimeRanges(source.id, {}, ranges); });
        m_status.sources.push_back({source.kind, std::move(ranges)});
    }
}

// ---- running dry

/// Holds playback while the data comes too slowly, so that none of it is lost to the clock.
void ElementCore::watchBuffers() {
    if (m_feeder == nullptr || !m_initialized || m_seekInFlight || over())
        return;
    auto* backend = m_backend.load();
    if (!m_starved && m_wantPlaying && runsDry()) {
        m_starved = true;
        operate("pause", {}, [backend] { return backend->pause(); });
        setState(State::Buffering);
    } else if (m_starved && isFilled()) {
        m_starved = false;
        m_watch.restart();
        if (m_wantPlaying)
            operate("play", {}, [backend] { return backend->play(); });
    }
}

/// A source has asked for data in vain, and soon has none.
bool ElementCore::runsDry() const {
    const auto sources = m_feeder->sources();
    const auto asked = m_loop->now() - patience;
    for (std::size_t i = 0; i < sources.size(); ++i)
        if (!sources[i].ended && sources[i].waitsSince.value_or(m_loop->now()) < asked &&
            ahead(i) && *ahead(i) < tooLittle)
            return true;
    return false;
}

/// Every source has enough, or does not ask for more: a backend may hold less.
bool ElementCore::isFilled() const {
    const auto sources = m_feeder->sources();
    for (std::size_t i = 0; i < sources.size(); ++i)
        if (!sources[i].ended && (!ahead(i) || (sources[i].waitsSince && *ahead(i) < enough)))
            return false;
    return true;
}

/// Seconds that the backend can still play of a source; none before its first sample.
std::optional<double> ElementCore::ahead(std::size_t source) const {
    const auto& ranges = m_status.sources.at(source).ranges;
    if (ranges.empty())
        return std::nullopt;
    return ranges.back().end - m_status.position;
}

} // namespace host
