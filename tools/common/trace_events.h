#ifndef TOOLS_COMMON_TRACE_EVENTS_H
#define TOOLS_COMMON_TRACE_EVENTS_H

#include <chrono>
#include <initializer_list>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace tools {

/// Collects Chrome trace events, on tracks that count from 1. Times are CLOCK_MONOTONIC: files of
/// several processes of one machine load side by side. Bound to one thread.
class TraceEvents {
public:
    using Time = std::chrono::steady_clock::time_point;
    using Value = std::variant<bool, long long, double, std::string>;
    using Arguments = std::vector<std::pair<std::string, Value>>;

    TraceEvents(const char* process, std::initializer_list<const char*> tracks);

    /// `scope`: "t" for its track, "p" when it concerns all of them.
    void instant(int track, const std::string& name, Time time, const Arguments& arguments = {},
                 const char* scope = "t");
    void span(int track, const std::string& name, Time begin, Time end,
              const Arguments& arguments = {});
    void counter(int track, const std::string& name, Time time, const Arguments& values);

    /// The file's text. Bytes that are no UTF-8 are replaced.
    std::string text() const;

private:
    struct Event;
    void add(const Event& event);

    std::string m_text;
};

} // namespace tools

#endif
