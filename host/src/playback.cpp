#include "playback.h"

#include "calls.h"
#include "progress_watch.h"
#include "uva/uva_event.h"

#include <cmath>

namespace host {

void Playback::setState(State state) {
    if (is(state))
        return;
    m_status.state = state;
    publish();
}

void Playback::publish() {
    m_status.time = m_calls.now();
    m_calls.observe([this](Observer& observer) { observer.onStatus(m_status); });
}

void Playback::fail(std::string reason) {
    if (is(State::Ended) || is(State::Failed))
        return;
    m_status.reason = std::move(reason);
    setState(State::Failed);
    m_failed();
}

bool Playback::initialize(UVABackend::SourceDescription** sources,
                          std::vector<Argument> arguments) {
    const int opened =
        m_calls.operate("initBackend", std::move(arguments), [&](UVAMediaBackend& backend) {
            return backend.initBackend("", sources, false, false);
        });
    if (opened == UVABackend::Success)
        advance(Stage::Initialized);
    else
        fail("the backend did not take the media (initBackend answered " + std::to_string(opened) +
             "); see the system log");
    return opened == UVABackend::Success;
}

void Playback::refresh() {
    if (over() || !reached(Stage::Initialized))
        return;
    m_status.sources.clear();
    for (const auto& [id, kind] : m_sources) {
        std::vector<UVABackend::TimeRange> ranges;
        m_calls.ask("getBufferedTimeRanges", &UVAMediaBackend::getBufferedTimeRanges, id,
                    std::vector<UVABackend::ByteRange>(), ranges);
        m_status.sources.push_back({id, kind, std::move(ranges)});
    }
    double value = 0;
    const auto position = [&](UVAMediaBackend& backend) { return backend.getPosition(value); };
    if (m_calls.ask("getPosition", position) == UVABackend::Success && hasLeftPlace(value)) {
        m_placeAt.reset();
        m_status.position = value;
    }
    if (m_status.duration > 0 || m_isDurationTold)
        return;
    const int known = m_calls.ask("getDuration", &UVAMediaBackend::getDuration, value);
    if (known == UVABackend::Success && value > 0)
        m_status.duration = value;
}

void Playback::removeSource(SourceId id) {
    const auto isIt = [id](const auto& source) { return source.first == id; };
    m_sources.erase(std::remove_if(m_sources.begin(), m_sources.end(), isIt), m_sources.end());
}

void Playback::playFrom(double seconds) {
    m_isFed = true;
    place(seconds);
}

void Playback::place(double seconds) {
    m_placeAt = m_status.position = seconds;
}

/// A backend rounds times. One that is fed stands at 0, or where it was, until it has samples; of
/// what they are to be played from nothing is before.
bool Playback::hasLeftPlace(double position) const {
    constexpr double rounding = 2e-6;
    if (!m_placeAt)
        return true;
    return m_isFed ? position > *m_placeAt + rounding : std::abs(position - *m_placeAt) > rounding;
}

void Playback::setDuration(double seconds) {
    m_isDurationTold = true;
    if (m_status.duration == seconds)
        return;
    m_status.duration = seconds;
    publish();
}

void Playback::finish() {
    m_held = false;
    setState(State::Ended);
    m_calls.observe([this](Observer& observer) { observer.onEnd(m_status.position); });
}

// ---- what is wanted

void Playback::play() {
    m_wanted = true;
    if (is(State::Idle) || is(State::Failed))
        return;
    if (reached(Stage::Initialized) && !m_held)
        m_calls.operate("play", {}, &UVAMediaBackend::play);
    m_watch.restart();
    if (is(State::Paused))
        setState(m_held                    ? State::Buffering
                 : !reached(Stage::Played) ? State::Opening
                 : m_placeAt               ? State::Buffering // nothing was played behind the seek
                                           : State::Playing);
}

void Playback::pause() {
    m_wanted = false;
    if (is(State::Idle) || is(State::Failed))
        return;
    if (reached(Stage::Initialized))
        m_calls.operate("pause", {}, &UVAMediaBackend::pause);
    if (!is(State::Seeking) && !is(State::Ended))
        setState(State::Paused);
}

void Playback::catchUp() {
    if (m_wanted && !m_held)
        m_calls.operate("play", {}, &UVAMediaBackend::play);
    else if (is(State::Paused))
        m_calls.operate("pause", {}, &UVAMediaBackend::pause);
    m_watch.restart();
}

void Playback::hold() {
    m_held = true;
    m_calls.operate("pause", {}, &UVAMediaBackend::pause);
    setState(State::Buffering);
}

void Playback::letGo() {
    m_held = false;
    m_watch.restart();
    if (m_wanted)
        m_calls.operate("play", {}, &UVAMediaBackend::play);
}

// ---- what the backend tells

void Playback::moved() {
    m_watch.restart();
    advance(Stage::Played);
    if (m_wanted && !m_held && (is(State::Opening) || is(State::Buffering)))
        setState(State::Playing);
}

void Playback::underrun() {
    if (is(State::Opening) || is(State::Playing))
        setState(State::Buffering);
}

/// Of a media source it only says that samples have arrived: what moves tells that it plays.
void Playback::buffered() {
    m_watch.restart();
    if (!m_isFed && is(State::Buffering))
        setState(State::Playing);
}

void Playback::take(const NewMetadataEvent& media) {
    if (media.duration > 0 && !m_isDurationTold)
        m_status.duration = media.duration;
    m_status.width = media.width;
    m_status.height = media.height;
    m_status.pixelAspectRatio = media.pixelAspectRatio;
    advance(Stage::Known);
    m_watch.restart();
    publish();
}

void Playback::take(const MultiComponentChangedEvent& change, const Components& added) {
    for (const void* gone : change.removed)
        for (std::size_t i = m_componentKeys.size(); i-- > 0;)
            if (m_componentKeys[i] == gone) {
                const auto offset = static_cast<std::ptrdiff_t>(i);
                m_componentKeys.erase(m_componentKeys.begin() + offset);
                m_status.components.erase(m_status.components.begin() + offset);
            }
    for (const auto& [key, component] : added) {
        m_componentKeys.push_back(key);
        m_status.components.push_back(component);
    }
    advance(Stage::Known);
    publish();
}

} // namespace host
