#include "common/trace_events.h"

#include <nlohmann/json.hpp>

#include <optional>
#include <unistd.h>

namespace tools {

namespace {

double microseconds(std::chrono::steady_clock::duration time) {
    return std::chrono::duration<double, std::micro>(time).count();
}

} // namespace

struct TraceEvents::Event {
    const char* phase;
    int track;
    const std::string& name;
    const Arguments& arguments;
    std::optional<Time> time = {};
    std::optional<Time> end = {};
    const char* scope = nullptr;
};

TraceEvents::TraceEvents(const char* process, std::initializer_list<const char*> tracks) {
    add({"M", 0, "process_name", {{"name", process}}});
    int number = 0;
    for (const char* const track : tracks)
        add({"M", ++number, "thread_name", {{"name", track}}});
}

void TraceEvents::instant(int track, const std::string& name, Time time, const Arguments& arguments,
                          const char* scope) {
    add({"i", track, name, arguments, time, {}, scope});
}

void TraceEvents::span(int track, const std::string& name, Time begin, Time end,
                       const Arguments& arguments) {
    add({"X", track, name, arguments, begin, end});
}

void TraceEvents::counter(int track, const std::string& name, Time time, const Arguments& values) {
    add({"C", track, name, values, time});
}

void TraceEvents::add(const Event& event) {
    nlohmann::json row = {
        {"ph", event.phase}, {"name", event.name}, {"pid", getpid()}, {"tid", event.track}};
    if (event.time)
        row["ts"] = microseconds(event.time->time_since_epoch());
    if (event.end)
        row["dur"] = microseconds(*event.end - *event.time);
    if (event.scope)
        row["s"] = event.scope;
    for (const auto& [name, value] : event.arguments)
        std::visit([&row, key = name](const auto& v) { row["args"][key] = v; }, value);
    m_text += (m_text.empty() ? "" : ",\n") +
              row.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string TraceEvents::text() const {
    return "{\"displayTimeUnit\": \"ms\", \"traceEvents\": [\n" + m_text + "\n]}\n";
}

} // namespace tools
