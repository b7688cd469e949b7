#ifndef MAINSYS_TIMELINE_H
#define MAINSYS_TIMELINE_H

#include "common/trace_events.h"
#include "link.h"

#include <memory>
#include <optional>
#include <string>

namespace mainsys {

enum class Direction { FromPlugIn, ToPlugIn };

/// The handshake as trace events: signals from and to the plug-in, what was ordered, and for each
/// kind of decoder the spans in which it was asked for and was the plug-in's.
class Timeline {
public:
    void passed(Direction direction, const Signal& signal);
    void ordered(const std::string& line, Clock::time_point time);
    /// The main system went or came: what stood before does not any more.
    void endSpans(Clock::time_point time);

    std::string text() const { return m_events.text(); }

private:
    struct Span {
        const char* name;
        Clock::time_point since;
    };

    void changeSpans(uint32_t kinds, const char* name, Clock::time_point time);

    tools::TraceEvents m_events{
        "zant-mainsys",
        {"from the plug-in", "to the plug-in", "orders", "audio decoder", "video decoder"}};
    std::optional<Span> m_spans[2]; ///< audio, video
};

} // namespace mainsys

#endif
