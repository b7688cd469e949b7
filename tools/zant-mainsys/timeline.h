#ifndef MAINSYS_TIMELINE_H
#define MAINSYS_TIMELINE_H

#include "link_signal.h"

#include <nlohmann/json_fwd.hpp>

#include <memory>
#include <optional>
#include <string>

namespace mainsys {

/// Collects the handshake as Chrome trace events: signals from and to the plug-in, what was
/// ordered, and for each kind of decoder the spans in which it was asked for and was the plug-in's.
/// Times are CLOCK_MONOTONIC in microseconds, as those of uva-host.
class Timeline {
public:
    Timeline();
    ~Timeline();

    void received(const Signal& signal);
    void sent(const Signal& signal);
    void ordered(const std::string& line, Clock::time_point time);
    /// The main system went or came: what stood before does not any more.
    void endSpans(Clock::time_point time);

    /// The file's text. Bytes that are no UTF-8 are replaced.
    std::string text() const;

private:
    struct Span {
        const char* name;
        Clock::time_point since;
    };

    void add(const Signal& signal, int track);
    void changeSpans(uint32_t kinds, const char* name, Clock::time_point time);
    nlohmann::json& append(const char* phase, const std::string& name, int track);

    const std::unique_ptr<nlohmann::json> m_events; ///< an array
    std::optional<Span> m_spans[2];                 ///< audio, video
};

} // namespace mainsys

#endif
