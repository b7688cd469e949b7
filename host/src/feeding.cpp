#include "feeding.h"

#include "calls.h"
#include "playback.h"
#include "progress_watch.h"

#include <cmath>

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
    auto* data = event.release(); // the backend's
    m_calls.operate("writeData",
                    {number("sourceId", data->sourceId), number("samples", samples),
                     number("bytes", bytes), number("status", status)},
                    &UVAMediaBackend::writeData, data, bytes, status);
    if (samples > 0 && m_asksMainSystem && !m_watch.hasAskedForDecoder())
        m_watch.decoderAsked(m_calls.now()); // such sinks do not ask the host first
}

void Feeding::reattach(StreamInfo::Kind kind) {
    if (!m_playback.reached(Playback::Stage::Initialized) || m_playback.over())
        return;
    for (const auto& source : m_feeder->sources()) {
        if (source.kind != kind)
            continue;
        m_calls.operate("removeSource", {number("sourceId", source.id)},
                        &UVAMediaBackend::removeSource, source.id);
        m_feeder->restart(source.id, m_playback.status().position);
        m_watch.decoderReturned(); // its sink asks anew
        auto* description = m_feeder->describe(source.id).release();
        const int attached = m_calls.operate(
            "attachSource",
            {number("sourceId", source.id), {"mimeType", std::string(description->mimeType)}},
            &UVAMediaBackend::attachSource, description);
        if (attached != UVABackend::Success)
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
    return anySource([this](const MseFeeder::SourceInfo& info, double ahead) {
        return info.waitsSince && *info.waitsSince < m_calls.now() - patience && ahead < tooLittle;
    });
}

/// Every source has enough, or does not ask for more: a backend may hold less.
bool Feeding::isFilled() const {
    return !anySource([](const MseFeeder::SourceInfo& info, double ahead) {
        return std::isnan(ahead) || (info.waitsSince && ahead < enough);
    });
}

/// That has not ended. `ahead`: seconds that the backend can still play of it; NaN before its
/// first sample.
template <typename Predicate>
bool Feeding::anySource(Predicate predicate) const {
    const auto& status = m_playback.status();
    const auto infos = m_feeder->sources();
    for (std::size_t i = 0; i < infos.size(); ++i) {
        const auto& ranges = status.sources.at(i).ranges;
        const double ahead = ranges.empty() ? std::nan("") : ranges.back().end - status.position;
        if (!infos[i].ended && predicate(infos[i], ahead))
            return true;
    }
    return false;
}

} // namespace host
