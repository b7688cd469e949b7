#include "timeline.h"

#include "arbiter.h"
#include "describe.h"
#include "timeline/timeline.h"

namespace mainsys {

namespace {

enum Track : int { FromPlugIn = 1, ToPlugIn, Orders, AudioDecoder, VideoDecoder };

constexpr const char* category = "main system";
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

/// An arrow ends inside a span: at its beginning, the message is sent right behind that.
void recordSignal(Direction direction, const Signal& signal) {
    using timeline::Flow;
    const bool comes = direction == Direction::FromPlugIn;
    const int track = comes ? FromPlugIn : ToPlugIn;
    {
        auto event = timeline::span(category, signalName(signal.body), {track, signal.time},
                                    Clock::now() - signal.time);
        event.with("number", signal.body.signalId).with("param1", signal.body.param1);
        if (signal.sequence() != 0)
            event.with("seq", signal.sequence());
        if (const std::string payload = describePayload(signal); !payload.empty())
            event.with("payload", payload);
    }
    if (signal.sequence() != 0)
        timeline::flow(comes ? Flow::End : Flow::Start, comes ? ownFunction : plugInFunction,
                       signal.sequence(), {track, signal.time + std::chrono::nanoseconds(1)});
}

} // namespace

void Timeline::begin() {
    timeline::nameTrack(FromPlugIn, "from the plug-in");
    timeline::nameTrack(ToPlugIn, "to the plug-in");
    timeline::nameTrack(Orders, "orders");
    timeline::nameTrack(AudioDecoder, "audio decoder");
    timeline::nameTrack(VideoDecoder, "video decoder");
}

void Timeline::passed(Direction direction, const Signal& signal) {
    if (!timeline::isOn())
        return;
    recordSignal(direction, signal);
    for (const auto& turn : turns)
        if (turn.direction == direction && turn.signal == signal.body.signalId)
            changeSpans(static_cast<uint32_t>(signal.body.param1), turn.span, signal.time);
    if (signal.body.signalId == SIG_ID_MPLAYER_DECODER_NOT_AVAILABLE_IND)
        for (const uint32_t kind : {audioKind, videoKind})
            if (m_spans[kind - 1] && m_spans[kind - 1]->name == askedFor)
                changeSpans(kind, nullptr, signal.time);
}

void Timeline::ordered(const std::string& line, Clock::time_point time) {
    if (timeline::isOn())
        timeline::instant(category, line, {Orders, time});
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
            timeline::span(category, span->name,
                           {kind == audioKind ? AudioDecoder : VideoDecoder, span->since},
                           time - span->since);
        span = name ? std::optional<Span>({name, time}) : std::nullopt;
    }
}

} // namespace mainsys
