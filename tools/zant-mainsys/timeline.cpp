#include "timeline.h"

#include "arbiter.h"
#include "describe.h"

namespace mainsys {

namespace {

enum Track : int { FromPlugIn = 1, ToPlugIn, Orders, AudioDecoder, VideoDecoder };

constexpr const char* askedFor = "asked for";

/// What becomes of the kinds that a signal names; null: nothing of them is left.
constexpr struct {
    Direction direction;
    SignalIds signal;
    const char* span;
} turns[] = {
    {Direction::FromPlugIn, SIG_ID_MPLAYER_DECODER_NEEDED_IND, askedFor},
    {Direction::ToPlugIn, SIG_ID_MPLAYER_DECODER_AVAILABLE_IND, "granted"},
    {Direction::ToPlugIn, SIG_ID_MPLAYER_DECODER_RELEASE_REQ, "asked back"},
    {Direction::FromPlugIn, SIG_ID_MPLAYER_DECODER_RELEASE_RESP, nullptr},
};

} // namespace

void Timeline::passed(Direction direction, const Signal& signal) {
    tools::TraceEvents::Arguments arguments = {
        {"number", static_cast<long long>(signal.body.signalId)},
        {"param1", static_cast<long long>(signal.body.param1)}};
    if (signal.sequence() != 0)
        arguments.emplace_back("seq", static_cast<long long>(signal.sequence()));
    if (const std::string payload = describePayload(signal); !payload.empty())
        arguments.emplace_back("payload", payload);
    m_events.instant(direction == Direction::FromPlugIn ? FromPlugIn : ToPlugIn,
                     signalName(signal.body), signal.time, arguments);

    for (const auto& turn : turns)
        if (turn.direction == direction && turn.signal == signal.body.signalId)
            changeSpans(static_cast<uint32_t>(signal.body.param1), turn.span, signal.time);
    if (signal.body.signalId == SIG_ID_MPLAYER_DECODER_NOT_AVAILABLE_IND)
        for (const uint32_t kind : {audioKind, videoKind})
            if (m_spans[kind - 1] && m_spans[kind - 1]->name == askedFor)
                changeSpans(kind, nullptr, signal.time);
}

void Timeline::ordered(const std::string& line, Clock::time_point time) {
    m_events.instant(Orders, line, time);
}

void Timeline::endSpans(Clock::time_point time) {
    changeSpans(audioKind | videoKind, nullptr, time);
}

void Timeline::changeSpans(uint32_t kinds, const char* name, Clock::time_point time) {
    for (const uint32_t kind : {audioKind, videoKind}) {
        if ((kinds & kind) == 0)
            continue;
        auto& span = m_spans[kind - 1];
        if (span)
            m_events.span(kind == audioKind ? AudioDecoder : VideoDecoder, span->name, span->since,
                          time);
        span = name ? std::optional<Span>({name, time}) : std::nullopt;
    }
}

} // namespace mainsys
