#include "timeline.h"

#include "arbiter.h"
#include "describe.h"

#include <nlohmann/json.hpp>
#include <unistd.h>

namespace mainsys {

namespace {

using nlohmann::json;

enum Track : int { FromPlugIn = 1, ToPlugIn = 2, Orders = 3, AudioDecoder = 4, VideoDecoder = 5 };

constexpr struct {
    Track track;
    const char* name;
} tracks[] = {{FromPlugIn, "from the plug-in"},
              {ToPlugIn, "to the plug-in"},
              {Orders, "orders"},
              {AudioDecoder, "audio decoder"},
              {VideoDecoder, "video decoder"}};

constexpr uint32_t allKinds = audioKind | videoKind;

double microseconds(Clock::duration time) {
    return std::chrono::duration<double, std::micro>(time).count();
}

} // namespace

Timeline::Timeline() : m_events(std::make_unique<json>(json::array())) {
    append("M", "process_name", 0)["args"]["name"] = "zant-mainsys";
    for (const auto& row : tracks)
        append("M", "thread_name", row.track)["args"]["name"] = row.name;
}

Timeline::~Timeline() = default;

json& Timeline::append(const char* phase, const std::string& name, int track) {
    m_events->push_back({{"ph", phase}, {"name", name}, {"pid", getpid()}, {"tid", track}});
    return m_events->back();
}

void Timeline::add(const Signal& signal, int track) {
    auto& event = append("i", signalName(signal.body), track);
    event["ts"] = microseconds(signal.time.time_since_epoch());
    event["s"] = "t";
    event["args"] = {{"number", signal.body.signalId}, {"param1", signal.body.param1}};
    if (signal.sequence() != 0)
        event["args"]["seq"] = signal.sequence();
    const std::string payload = describePayload(signal);
    if (!payload.empty())
        event["args"]["payload"] = payload;
}

void Timeline::received(const Signal& signal) {
    add(signal, FromPlugIn);
    const auto kinds = static_cast<uint32_t>(signal.body.param1);
    if (signal.body.signalId == SIG_ID_MPLAYER_DECODER_NEEDED_IND)
        changeSpans(kinds, "asked for", signal.time);
    if (signal.body.signalId == SIG_ID_MPLAYER_DECODER_RELEASE_RESP)
        changeSpans(kinds, nullptr, signal.time);
}

void Timeline::sent(const Signal& signal) {
    add(signal, ToPlugIn);
    const auto kinds = static_cast<uint32_t>(signal.body.param1);
    if (signal.body.signalId == SIG_ID_MPLAYER_DECODER_AVAILABLE_IND)
        changeSpans(kinds, "granted", signal.time);
    if (signal.body.signalId == SIG_ID_MPLAYER_DECODER_RELEASE_REQ)
        changeSpans(kinds, "asked back", signal.time);
    if (signal.body.signalId == SIG_ID_MPLAYER_DECODER_NOT_AVAILABLE_IND)
        for (const uint32_t kind : {audioKind, videoKind})
            if (m_spans[kind - 1] && std::string(m_spans[kind - 1]->name) == "asked for")
                changeSpans(kind, nullptr, signal.time);
}

void Timeline::ordered(const std::string& line, Clock::time_point time) {
    auto& event = append("i", line, Orders);
    event["ts"] = microseconds(time.time_since_epoch());
    event["s"] = "t";
}

void Timeline::endSpans(Clock::time_point time) {
    changeSpans(allKinds, nullptr, time);
}

void Timeline::changeSpans(uint32_t kinds, const char* name, Clock::time_point time) {
    for (const uint32_t kind : {audioKind, videoKind}) {
        if ((kinds & kind) == 0)
            continue;
        auto& span = m_spans[kind - 1];
        if (span) {
            auto& event = append("X", span->name, kind == audioKind ? AudioDecoder : VideoDecoder);
            event["ts"] = microseconds(span->since.time_since_epoch());
            event["dur"] = microseconds(time - span->since);
        }
        span = name ? std::optional<Span>({name, time}) : std::nullopt;
    }
}

std::string Timeline::text() const {
    const json document = {{"displayTimeUnit", "ms"}, {"traceEvents", *m_events}};
    return document.dump(1, ' ', false, json::error_handler_t::replace) + "\n";
}

} // namespace mainsys
