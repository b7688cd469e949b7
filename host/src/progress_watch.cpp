#include "progress_watch.h"

#include "uva/uva_event.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace host {

namespace {

using std::chrono::milliseconds;

/// After an error nothing more is to come; what is on its way is still played.
constexpr milliseconds errorBound(500);
/// How long the backend waits for the main system's answer, a decoder, and a little less.
constexpr milliseconds decoderAnswer(4500);

struct Row {
    Phase phase;
    milliseconds bound; // 0: for ever
    const char* still;  // nothing moved for the bound
    const char* error;  // ... and there is an error to quote
    const char* next;
};

constexpr const char* lookAtTheMedia = "is it intact and of a supported type? GST_DEBUG=2 puts "
                                       "GStreamer's reasons into the system log";
constexpr const char* lookAtTheNetwork = "check the address, the network and the server";

// Opening has room for a display that takes long to start. GStreamer's HTTP source gives up by
// itself after 15 s and says less: the network's bounds are shorter. A main system that does not
// answer is reported by the backend, which has a bound of its own: here it is only for shorter
// ones.
constexpr Row rows[] = {
    {Phase::Connecting, milliseconds(10000), "no media came from {source} within {time}",
     "nothing can be fetched from {source}", lookAtTheNetwork},
    {Phase::Opening, milliseconds(15000), "nothing was played within {time}",
     "the media cannot be played", lookAtTheMedia},
    {Phase::WaitingForDecoder, milliseconds(0),
     "the main system did not answer the request for the decoder within {time}",
     "the media cannot be played",
     "start zant-mainsys, or play without a main system (NOX_GST_STANDALONE=1)"},
    {Phase::Playing, milliseconds(5000), "stalled at {position}: nothing moved for {time}",
     "stopped at {position}", lookAtTheMedia},
    {Phase::Seeking, milliseconds(10000), "the seek to {target} did not complete within {time}",
     "the seek to {target} failed", lookAtTheMedia},
    {Phase::WaitingForData, milliseconds(10000),
     "stalled at {position}: no data came from {source} for {time}",
     "stopped at {position}: no more can be had from {source}", lookAtTheNetwork},
    {Phase::WaitingForKey, milliseconds(30000), "stalled at {position}: no key came for {time}",
     "stopped at {position} without a key", "check the licence server"},
};

const Row& rowOf(Phase phase) {
    return *std::find_if(std::begin(rows), std::end(rows),
                         [phase](const Row& row) { return row.phase == phase; });
}

} // namespace

std::string secondsText(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f s", value);
    return text;
}

void ProgressWatch::begin(std::string server) {
    m_server = std::move(server);
    forgetErrors(); // of what was played before
}

bool ProgressWatch::tick(std::optional<Phase> phase, Clock::time_point now) {
    const Clock::duration most = 2 * m_options.tick;
    m_still += std::clamp(now - std::exchange(m_last, now), Clock::duration::zero(), most);
    if (!phase || phase != std::exchange(m_phase, phase)) {
        restart();
        return false;
    }
    const auto bound = boundFor(*phase);
    return (bound.count() > 0 && m_still >= bound) || (hasError() && m_still >= errorBound);
}

milliseconds ProgressWatch::boundFor(Phase phase) const {
    const auto bound = m_options.noProgress.value_or(rowOf(phase).bound);
    return phase == Phase::WaitingForKey && bound.count() > 0 ? bound + m_options.keyDelay : bound;
}

Clock::duration ProgressWatch::patienceWithData() const {
    const auto bound = boundFor(Phase::WaitingForData);
    return bound.count() > 0 ? Clock::duration(bound) : Clock::duration::max();
}

void ProgressWatch::hearErrors() {
    if (!hasError() && m_options.takeError)
        m_error = m_options.takeError();
}

void ProgressWatch::forgetErrors() {
    hearErrors();
    m_error.clear();
}

void ProgressWatch::decoderAsked(Clock::time_point time) {
    m_decoderAsked = time;
    restart();
}

/// A main system that has not answered after its time has been reported as an error: if nothing
/// moves even then it is for another reason. So it is if the media has an error.
bool ProgressWatch::awaitsDecoder(Clock::time_point now) const {
    return m_decoderAsked && !hasError() && now - *m_decoderAsked < decoderAnswer;
}

std::string ProgressWatch::standstillText(Phase phase, const Place& place) const {
    return explain(phase, place, boundFor(phase), m_error);
}

/// A main system that refuses and none that answers are told apart by the time that it took.
std::string ProgressWatch::decodeErrorText(int reason, Clock::time_point time,
                                           const Place& place) const {
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
    const auto waited =
        std::chrono::duration_cast<milliseconds>(time - m_decoderAsked.value_or(time));
    if (waited >= decoderAnswer)
        return explain(Phase::WaitingForDecoder, place, waited, {});
    return "decoder refused: the main system has none to give, or there is no link to it (then the "
           "system log says why); end the player that has it, or play without a main system "
           "(NOX_GST_STANDALONE=1)";
}

std::string ProgressWatch::networkErrorText() {
    hearErrors();
    return "the media cannot be fetched: " + source() + " does not answer as it should" +
           (hasError() ? " (GStreamer: " + m_error + ")" : "");
}

std::string ProgressWatch::explain(Phase phase, const Place& place, milliseconds time,
                                   const std::string& error) const {
    const std::pair<const char*, std::string> words[] = {
        {"{source}", source()},
        {"{position}", secondsText(place.position)},
        {"{target}", secondsText(place.target)},
        {"{time}", secondsText(std::chrono::duration<double>(time).count())},
    };
    const Row& row = rowOf(phase);
    std::string text = error.empty() ? row.still : row.error;
    for (const auto& [name, word] : words)
        if (const auto at = text.find(name); at != std::string::npos)
            text.replace(at, std::string_view(name).size(), word);
    if (!error.empty())
        text += " (GStreamer: " + error + ")";
    return text + "; " + row.next;
}

} // namespace host
