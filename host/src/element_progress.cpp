// The media element's side of time: where playback is, whether it gets on, and whether it has
// ended.

#include "element_core.h"

#include "element_calls.h"
#include "uva/uva_event.h"
#include "uva/uva_media_backend.h"

#include <cmath>
#include <utility>

namespace host {

namespace {

using std::chrono::milliseconds;

/// After an error nothing more is to come; what is on its way is still played.
constexpr milliseconds errorBound(500);
/// So long nothing moves behind an end that is no old one.
constexpr milliseconds endBound(300);
/// Seconds: the last picture's and sound's lengths, and what a seek may miss its target by.
constexpr double tolerance = 0.25;
/// How long the backend waits for the main system's answer, a decoder, and a little less.
constexpr milliseconds decoderAnswer(4500);

milliseconds inMilliseconds(Clock::duration time) {
    return std::chrono::duration_cast<milliseconds>(time);
}

} // namespace

void ElementCore::tick() {
    trackPosition();
    watchBuffers();
    watch();
    considerEnd();
}

void ElementCore::trackPosition() {
    const double before = m_status.position;
    const double durationBefore = m_status.duration;
    refreshPosition();
    const bool hasMoved = m_status.position != before;
    if (hasMoved && m_status.state != State::Seeking)
        moved();
    if (hasMoved || m_status.duration != durationBefore)
        publishStatus();
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
    m_endSeen = false;
    if (m_sought == Sought::Settling)
        m_sought = Sought::Settled;
    const bool waits = m_status.state == State::Opening || m_status.state == State::Buffering;
    if (m_wantPlaying && !m_starved && waits)
        setState(State::Playing);
    startQueuedSeek();
}

// ---- the watch

/// Nothing when nothing is to move.
std::optional<Phase> ElementCore::phase() const {
    const State state = m_status.state;
    if (over() || state == State::Paused || (state == State::Opening && !m_wantPlaying))
        return std::nullopt;
    if (m_seekInFlight)
        return Phase::Seeking;
    if (m_feeder != nullptr && m_feeder->waitsForKey())
        return Phase::WaitingForKey;
    if (m_starved)
        return Phase::WaitingForData;
    if (!m_started)
        return phaseOfStart();
    if (!m_server.empty())
        return Phase::WaitingForData; // what stands still there lacks data
    if (m_sought == Sought::Settling)
        return Phase::Seeking;
    return state == State::Buffering ? Phase::WaitingForData : Phase::Playing;
}

/// A main system that has not answered after its time has been reported as an error: if nothing
/// moves even then it is for another reason. So it is if the media has an error.
std::optional<Phase> ElementCore::phaseOfStart() const {
    if (m_decoderAsked && m_error.empty() && m_loop->now() - *m_decoderAsked < decoderAnswer)
        return Phase::WaitingForDecoder;
    const bool connected = m_mediaSeen || m_status.duration > 0;
    return m_server.empty() || connected ? Phase::Opening : Phase::Connecting;
}

milliseconds ElementCore::boundFor(Phase phase) const {
    const auto bound = m_options.noProgress.value_or(boundOf(phase));
    return phase == Phase::WaitingForKey && bound.count() > 0 ? bound + m_options.keyDelay : bound;
}

void ElementCore::watch() {
    hearErrors();
    const auto now = phase();
    m_watch.tick(m_loop->now());
    if (!now || now != std::exchange(m_phase, now))
        return m_watch.restart();
    const auto bound = boundFor(*now);
    const bool tooLong = bound.count() > 0 && m_watch.still() >= bound;
    if (tooLong || (!m_error.empty() && m_watch.still() >= errorBound))
        standstill(*now);
}

void ElementCore::standstill(Phase phase) {
    if (m_endSeen && !m_seekInFlight && m_error.empty())
        return end();
    fail(explain(phase, {m_server, m_status.position, m_target, boundFor(phase)}, m_error));
}

void ElementCore::hearErrors() {
    if (m_error.empty() && m_options.takeError)
        m_error = m_options.takeError();
}

// ---- the decoder

void ElementCore::decoderAsked(Clock::time_point time) {
    m_mediaSeen = true;
    m_decoderAsked = time;
    m_watch.restart();
}

/// A main system that refuses and none that answers are told apart by the time that it took.
std::string ElementCore::decodeErrorText(int reason, Clock::time_point time) const {
    switch (reason) {
    case DecodeErrorEvent::UnknownFormat:
        return "decode error: the format is unknown";
    case DecodeErrorEvent::CorruptStream:
        return "decode error: the stream is corrupt";
    case DecodeErrorEvent::InsufficientResources:
        break;
    default:
        return "decode error " + std::to_string(reason);
    }
    if (m_options.resources == ResourcePolicy::Deny)
        return "decoder refused: this host denies the decoders";
    const auto waited = time - m_decoderAsked.value_or(time);
    if (waited >= decoderAnswer)
        return explain(Phase::WaitingForDecoder,
                       {m_server, m_status.position, m_target, inMilliseconds(waited)}, {});
    return "decoder refused: the main system has none to give, or there is no link to it (then the "
           "system log says why); end the player that has it, or play without a main system "
           "(NOX_GST_STANDALONE=1)";
}

std::string ElementCore::networkErrorText() {
    hearErrors();
    const std::string from = m_server.empty() ? "the media's file" : m_server;
    return "the media cannot be fetched: " + from + " does not answer as it should" +
           (m_error.empty() ? "" : " (GStreamer: " + m_error + ")");
}

// ---- the end

bool ElementCore::nearEnd() const {
    return m_status.duration > 0 && m_status.position >= m_status.duration - tolerance;
}

/// The bus of the backend is not flushed by a seek, so after one an end may be the old one. Then
/// something is still to move. The new one is where the media ends, as far as that is known, or
/// where something was played behind the seek; and nothing moves any more.
void ElementCore::considerEnd() {
    if (!m_endSeen || m_seekInFlight || over())
        return;
    const bool plausible = nearEnd() || std::abs(m_status.position - m_target) > tolerance;
    if (m_sought == Sought::Never || (plausible && m_watch.still() >= endBound))
        end();
}

void ElementCore::end() {
    m_endSeen = false;
    hearErrors();
    if (!m_error.empty())
        return standstill(m_phase.value_or(Phase::Playing));
    if (m_sought == Sought::Settling)
        m_sought = Sought::Settled;
    refreshPosition();
    if (!m_started && m_sought == Sought::Never && m_status.duration > tolerance)
        return fail("the media ended before anything was played of its " +
                    secondsText(m_status.duration) + "; it seems to be cut off: get it anew");
    setState(State::Ended);
    if (m_seekQueued)
        startQueuedSeek();
}

} // namespace host
