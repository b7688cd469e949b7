#include "seek.h"

#include "calls.h"
#include "playback.h"
#include "progress_watch.h"

#include <algorithm>
#include <cmath>

namespace host {

double Seek::placeOf(double target, double duration) {
    const double start = std::max(target, 0.0);
    return duration > 0 ? std::min(start, duration) : start;
}

/// The element's own leads to where something is, whatever was told of the length.
double Seek::placeOf(const Request& request) const {
    return request.generation == 0 ? request.target
                                   : placeOf(request.target, m_playback.status().duration);
}

double Seek::destination() const {
    return m_waiting ? placeOf(*m_waiting) : isUnderWay() ? m_place : m_playback.status().position;
}

void Seek::request(Request request) {
    const bool refused =
        m_calls.backend() == nullptr || m_playback.is(State::Idle) || m_playback.is(State::Failed);
    if (refused || !std::isfinite(request.target))
        return answer(request, SeekOutcome::Failed);
    if (m_waiting)
        answer(*m_waiting, SeekOutcome::Replaced);
    m_waiting = request;
}

/// A URL is not sought before something was played.
bool Seek::isPossible() const {
    return m_playback.is(State::Ended) || everBegan() ||
           m_playback.reached(m_playback.isFed() ? Playback::Stage::Initialized
                                                 : Playback::Stage::Played);
}

bool Seek::begin() {
    if (!m_waiting || isUnderWay() || !isPossible())
        return false;
    m_current = *std::exchange(m_waiting, std::nullopt);
    const bool ended = m_playback.is(State::Ended);
    if (!m_playback.is(State::Seeking))
        m_fromEnd = ended;
    m_progress = Progress::UnderWay;
    m_watch.forgetErrors();
    m_watch.restart();
    m_place = placeOf(m_current);
    m_playback.place(m_place);
    if (m_current.generation != 0 || ended)
        m_playback.setState(State::Seeking);
    m_calls.operate("setPosition", {{"seconds", m_place}}, &UVAMediaBackend::setPosition, m_place);
    return true;
}

void Seek::finish(SeekOutcome outcome) {
    if (!isUnderWay())
        return;
    m_progress = Progress::Settling;
    m_watch.restart();
    if (outcome == SeekOutcome::Succeeded)
        m_fromEnd = false;
    else
        m_playback.leavePlace();
    m_playback.refresh();
    answer(m_current, outcome);
    if (!begin() && m_playback.is(State::Seeking))
        m_playback.setState(m_fromEnd               ? State::Ended
                            : m_playback.isWanted() ? State::Buffering
                                                    : State::Paused);
}

void Seek::settle() {
    if (isSettling())
        m_progress = Progress::Settled;
}

void Seek::abortAll() {
    if (isUnderWay())
        answer(m_current, SeekOutcome::Aborted);
    if (m_waiting)
        answer(*m_waiting, SeekOutcome::Aborted);
    m_waiting.reset();
    m_progress = Progress::Settled;
}

void Seek::answer(Request request, SeekOutcome outcome) {
    if (request.generation == 0)
        return;
    const SeekResult result{request.generation, request.target, outcome,
                            m_playback.status().position};
    m_calls.observe([&](Observer& observer) { observer.onSeek(result); });
}

} // namespace host
