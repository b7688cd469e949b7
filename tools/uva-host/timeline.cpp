#include "timeline.h"

namespace uvahost {

namespace {

enum Track : int { Operations = 1, Events, States };

} // namespace

void Timeline::mediaBegins(const std::string& name, host::Clock::time_point time) {
    if (!m_isWanted)
        return;
    m_events.instant(Events, "media", time, {{"name", name}}, "p");
    m_last = {};
}

/// An operation made while an event was delivered may overlap those of the event loop, which a
/// track of nested spans cannot show: it goes where the event is.
void Timeline::add(const host::Record& record) {
    if (!m_isWanted)
        return;
    tools::TraceEvents::Arguments arguments;
    for (const auto& [name, value] : record.arguments)
        arguments.emplace_back(name, value);
    if (record.kind == host::Record::Kind::Operation)
        m_events.span(record.onLoop ? Operations : Events, record.name, record.time,
                      record.time + record.duration, arguments);
    else
        m_events.instant(Events, record.name, record.time, arguments);
}

void Timeline::add(const host::Status& status) {
    if (!m_isWanted)
        return;
    if (!m_stateSince || status.state != m_last.state) {
        mediaEnds(status.time);
        m_stateSince = status.time;
    }
    if (status.position != m_last.position)
        m_events.counter(Operations, "position", status.time, {{"seconds", status.position}});
    if (status.duration != m_last.duration)
        m_events.counter(Operations, "duration", status.time, {{"seconds", status.duration}});
    m_last = status;
}

void Timeline::mediaEnds(host::Clock::time_point time) {
    tools::TraceEvents::Arguments reason;
    if (!m_last.reason.empty())
        reason.emplace_back("reason", m_last.reason);
    if (m_stateSince)
        m_events.span(States, host::name(m_last.state), *m_stateSince, time, reason);
    m_stateSince.reset();
}

} // namespace uvahost
