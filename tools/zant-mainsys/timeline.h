#ifndef MAINSYS_TIMELINE_H
#define MAINSYS_TIMELINE_H

#include "link.h"

#include <optional>
#include <string>

namespace mainsys {

enum class Direction { FromPlugIn, ToPlugIn };

/// The main system's part of the time line: signals from and to the plug-in, with an arrow each,
/// what was ordered, and for each kind of decoder the spans in which it was asked for and was the
/// plug-in's. Nothing while nobody records.
class Timeline {
public:
    /// Names the tracks. Recording has begun, if it does at all.
    static void begin();
    /// After it was taken or sent.
    void passed(Direction direction, const Signal& signal);
    void ordered(const std::string& line, Clock::time_point time);
    /// The main system went or came: what stood before does not any more.
    void endSpans(Clock::time_point time);

private:
    struct Span {
        const char* name;
        Clock::time_point since;
    };

    void changeSpans(uint32_t kinds, const char* name, Clock::time_point time);

    std::optional<Span> m_spans[2]; ///< audio, video
};

} // namespace mainsys

#endif
