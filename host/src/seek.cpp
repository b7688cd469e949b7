#include "seek.h"

#include "calls.h"
#include "playback.h"
#include "progress_watch.h"

#include <cmath>

namespace host {

void Seek::request(double target) {
    if (!std::isfinite(target) || m_calls.backend() == nullptr || m_playback.is(State::Failed))
        return answer(target, SeekOutcome::Failed);
    if (m_waiting)
        answer(*m_waiting, SeekOutcome::Replaced);
    m_waiting = target;
}

bool Seek::begin() {
    const bool ended = m_playback.is(State::Ended);
    const bool possible = ended || everBegan() || m_playback.reached(Playback::Stage::Played);
    if (!m_waiting || isUnderWay() || !possible)
        return false;
    m_target = *std::exchange(m_waiting, std::nullopt);
    if (!m_playback.is(State::Seeking))
        m_fromEnd = ended;
    m_progress = Progress::UnderWay;
    m_watch.forgetErrors();
    m_watch.restart();
    m_playback.setState(State::Seeking);
    m_calls.operate("setPosition", {{"seconds", m_target}}, &UVAMediaBackend::setPosition,
                    m_target);
    return true;
}

void Seek::finish(SeekOutcome outcome) {
    if (!isUnderWay())
        return;
    m_progress = Progress::Settling;
    m_watch.restart();
    if (outcome == SeekOutcome::Succeeded)
        m_fromEnd = false;
    answer(m_target, outcome);
    if (begin())
        return;
    m_playback.refresh();
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
        answer(m_target, SeekOutcome::Aborted);
    if (m_waiting)
        answer(*m_waiting, SeekOutcome::Aborted);
    m_waiting.reset();
    m_progress = Progress::Settled;
}

void Seek::answer(double target, SeekOutcome outcome) {
    m_calls.observe([&](Observer& observer) { observer.onSeek(target, outcome); });
}

} // namespace host
