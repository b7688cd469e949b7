#include "feeding.h"

#include "calls.h"
#include "playback.h"
#include "progress_watch.h"

#include <algorithm>

namespace host {

namespace {

// When playback is held, and goes on. A decoder must not run dry: what comes late for the clock is
// lost. What the backend holds, it holds in front of the decoder and in it.
constexpr double tooLittle = 0.5;                         // seconds
constexpr double enough = 1.0;                            // seconds
constexpr auto patience = std::chrono::milliseconds(100); // with a request

} // namespace

Feeding::Feeding(Calls& calls, Playback& playback, ProgressWatch& watch, MediaSource source,
                 bool asksMainSystem)
    : m_calls(calls), m_playback(playback), m_watch(watch), m_keys(source.keys),
      m_keyNeeded(std::move(source.keyNeeded)), m_asksMainSystem(asksMainSystem),
      m_feeder(std::make_shared<MseFeeder>(calls.loop(), std::move(source), *this)) {
    m_feeder->open();
}

void Feeding::feederOpened() {
    if (m_keys != nullptr) {
        UVAKeySystemConfig config;
        config.keySystemId = clearKeySystem;
        m_calls.operate("setKeySystem", {{"id", std::string(clearKeySystem)}},
                        [&](UVAMediaBackend& backend) { return backend.setKeySystem(config); });
    }
    std::vector<UVABackend::SourceDescription*> sources;
    std::string types;
    for (const auto& info : m_feeder->sources()) {
        sources.push_back(m_feeder->describe(info.id).release());
        types += (types.empty() ? "" : ", ") + std::string(sources.back()->mimeType);
        m_playback.addSource(info.id, info.kind);
    }
    sources.push_back(nullptr);
    if (!m_playback.initialize(sources.data(), {{"sources", types}}))
        return;
    m_playback.advance(Playback::Stage::Known);
    m_playback.catchUp();
}

void Feeding::feederFailed(const std::string& reason) {
    m_playback.fail(reason);
}

void Feeding::keyNeeded(const KeyBytes& id) {
    if (m_keyNeeded)
        m_calls.observe([&](Observer&) { m_keyNeeded(id); });
}

void Feeding::writeData(std::unique_ptr<NeedMSEDataEvent> event, unsigned int samples,
                        unsigned int bytes, UVABackend::WriteDataStatus status) {
    m_calls.operate("writeData",
                    {{"sourceId", static_cast<long long>(event->sourceId)},
                     {"samples", static_cast<long long>(samples)},
                     {"bytes", static_cast<long long>(bytes)},
                     {"status", static_cast<long long>(status)}},
                    [&](UVAMediaBackend& backend) {
                        return backend.writeData(event.release(), bytes, status);
                    });
    if (samples > 0 && m_asksMainSystem && !m_watch.hasAskedForDecoder())
        m_watch.decoderAsked(m_calls.now()); // such sinks do not ask the host first
}

int Feeding::attach(unsigned int id) {
    m_watch.decoderReturned(); // its sink asks anew
    auto source = m_feeder->describe(id);
    const std::string mimeType = source->mimeType;
    return m_calls.operate(
        "attachSource", {{"sourceId", static_cast<long long>(id)}, {"mimeType", mimeType}},
        [&](UVAMediaBackend& backend) { return backend.attachSource(source.release()); });
}

void Feeding::reattach(StreamInfo::Kind kind) {
    if (!m_playback.reached(Playback::Stage::Initialized) || m_playback.over())
        return;
    for (const auto& source : m_feeder->sources()) {
        if (source.kind != kind)
            continue;
        m_calls.operate("removeSource", {{"sourceId", static_cast<long long>(source.id)}},
                        [&](UVAMediaBackend& backend) { return backend.removeSource(source.id); });
        m_feeder->restart(source.id, m_playback.status().position);
        if (attach(source.id) != UVABackend::Success)
            m_playback.fail("the backend did not take the source again; see the system log");
    }
}

void Feeding::balance() {
    if (!m_playback.reached(Playback::Stage::Initialized) || m_playback.over() ||
        m_playback.is(State::Seeking))
        return;
    if (!m_playback.isHeld() && m_playback.isWanted() && runsDry())
        m_playback.hold();
    else if (m_playback.isHeld() && isFilled())
        m_playback.letGo();
}

/// A source has asked for data in vain, and soon has none.
bool Feeding::runsDry() const {
    const auto sources = m_feeder->sources();
    const auto asked = m_calls.now() - patience;
    for (std::size_t i = 0; i < sources.size(); ++i)
        if (!sources[i].ended && sources[i].waitsSince.value_or(m_calls.now()) < asked &&
            ahead(i) && *ahead(i) < tooLittle)
            return true;
    return false;
}

/// Every source has enough, or does not ask for more: a backend may hold less.
bool Feeding::isFilled() const {
    const auto sources = m_feeder->sources();
    for (std::size_t i = 0; i < sources.size(); ++i)
        if (!sources[i].ended && (!ahead(i) || (sources[i].waitsSince && *ahead(i) < enough)))
            return false;
    return true;
}

/// Seconds that the backend can still play of a source; none before its first sample.
std::optional<double> Feeding::ahead(std::size_t source) const {
    const auto& ranges = m_playback.status().sources.at(source).ranges;
    if (ranges.empty())
        return std::nullopt;
    return ranges.back().end - m_playback.status().position;
}

} // namespace host
