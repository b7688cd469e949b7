#include "end.h"

#include "playback.h"
#include "seek.h"

#include <cmath>

namespace host {

namespace {

/// So long nothing moves behind an end that is no old one.
constexpr std::chrono::milliseconds endBound(300);
/// Seconds: the last picture's and sound's lengths, and what a seek may miss its target by.
constexpr double tolerance = 0.25;

} // namespace

ProgressWatch::Place End::place() const {
    return {m_playback.status().position, m_seek.place()};
}

void End::see() {
    m_seen = true;
    consider();
}

void End::consider() {
    if (!m_seen || m_seek.isUnderWay() || m_playback.over())
        return;
    if (!m_seek.everBegan() || (isPlausible() && m_watch.still() >= endBound))
        reach();
}

bool End::isPlausible() const {
    const auto& [position, target] = place();
    const double duration = m_playback.status().duration;
    return (duration > 0 && position >= duration - tolerance) ||
           std::abs(position - target) > tolerance;
}

void End::standStill(Phase phase) {
    if (m_seen && !m_seek.isUnderWay() && !m_watch.hasError())
        reach();
    else
        m_playback.fail(m_watch.standstillText(phase, place()));
}

void End::reach() {
    forget();
    m_watch.hearErrors();
    if (m_watch.hasError())
        return standStill(m_watch.lastPhase());
    m_seek.settle();
    m_playback.refresh();
    const double duration = m_playback.status().duration;
    if (!m_playback.reached(Playback::Stage::Played) && !m_seek.everBegan() && duration > tolerance)
        return m_playback.fail("the media ended before anything was played of its " +
                               secondsText(duration) + "; it seems to be cut off: get it anew");
    m_playback.finish();
    m_seek.begin();
}

} // namespace host
