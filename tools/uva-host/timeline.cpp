#include "timeline.h"

#include <nlohmann/json.hpp>
#include <unistd.h>

namespace uvahost {

namespace {

using nlohmann::json;

enum Track : int { Operations = 1, Events = 2, States = 3 };

double microseconds(host::Clock::duration time) {
    return std::chrono::duration<double, std::micro>(time).count();
}

double microseconds(host::Clock::time_point time) {
    return microseconds(time.time_since_epoch());
}

json toJson(const std::vector<host::Argument>& arguments) {
    json object = json::object();
    for (const auto& argument : arguments)
        std::visit([&](const auto& value) { object[argument.name] = value; }, argument.value);
    return object;
}

} // namespace

Timeline::Timeline() : m_events(std::make_unique<json>(json::array())) {
    append("M", "process_name", 0)["args"]["name"] = "uva-host";
    append("M", "thread_name", Operations)["args"]["name"] = "operations";
    append("M", "thread_name", Events)["args"]["name"] = "events";
    append("M", "thread_name", States)["args"]["name"] = "state";
}

Timeline::~Timeline() = default;

json& Timeline::append(const char* phase, const std::string& name, int track) {
    m_events->push_back({{"ph", phase}, {"name", name}, {"pid", getpid()}, {"tid", track}});
    return m_events->back();
}

void Timeline::mediaBegins(const std::string& name, host::Clock::time_point time) {
    auto& event = append("i", "media", Events);
    event["ts"] = microseconds(time);
    event["s"] = "p";
    event["args"]["name"] = name;
    m_last = {};
}

/// An operation made while an event was delivered may overlap those of the event loop, which a
/// track of nested spans cannot show: it goes where the event is.
void Timeline::add(const host::Record& record) {
    const bool operation = record.kind == host::Record::Kind::Operation;
    const int track = operation && record.onLoop ? Operations : Events;
    auto& event = append(operation ? "X" : "i", record.name, track);
    event["ts"] = microseconds(record.time);
    event["args"] = toJson(record.arguments);
    if (operation)
        event["dur"] = microseconds(record.duration);
    else
        event["s"] = "t";
}

void Timeline::add(const host::Status& status) {
    if (!m_stateOpen || status.state != m_last.state) {
        closeState(status.time);
        m_stateOpen = true;
        m_stateSince = status.time;
    }
    const auto counter = [&](const char* name, double before, double now) {
        if (before == now)
            return;
        auto& event = append("C", name, Operations);
        event["ts"] = microseconds(status.time);
        event["args"]["seconds"] = now;
    };
    counter("position", m_last.position, status.position);
    counter("duration", m_last.duration, status.duration);
    m_last = status;
}

void Timeline::mediaEnds(host::Clock::time_point time) {
    closeState(time);
}

void Timeline::closeState(host::Clock::time_point time) {
    if (!m_stateOpen)
        return;
    m_stateOpen = false;
    auto& event = append("X", host::name(m_last.state), States);
    event["ts"] = microseconds(m_stateSince);
    event["dur"] = microseconds(time - m_stateSince);
    if (!m_last.reason.empty())
        event["args"]["reason"] = m_last.reason;
}

std::string Timeline::text() const {
    const json document = {{"displayTimeUnit", "ms"}, {"traceEvents", *m_events}};
    return document.dump(1, ' ', false, json::error_handler_t::replace) + "\n";
}

} // namespace uvahost
