#include "timeline.h"

#include "timeline/timeline.h"

namespace uvahost {

namespace {

enum Track : int { Operations = 1, Events, States };

constexpr const char* category = "host";

void addArguments(timeline::Event& event, const host::Record& record) {
    for (const auto& [name, value] : record.arguments)
        std::visit([&event, key = name.c_str()](const auto& each) { event.with(key, each); },
                   value);
}

} // namespace

Timeline::Timeline() {
    timeline::nameTrack(Operations, "operations");
    timeline::nameTrack(Events, "events");
    timeline::nameTrack(States, "state");
}

void Timeline::mediaBegins(const std::string& name, host::Clock::time_point time) {
    if (timeline::isOn())
        timeline::instant(category, "media", {Events, time}).with("name", name);
    m_last = {};
}

/// An operation made while an event was delivered may overlap those of the event loop, which a
/// track of nested spans cannot show: it goes where the event is.
void Timeline::add(const host::Record& record) {
    if (!timeline::isOn())
        return;
    if (record.kind == host::Record::Kind::Operation) {
        auto event =
            timeline::span(category, record.name,
                           {record.onLoop ? Operations : Events, record.time}, record.duration);
        addArguments(event, record);
    } else {
        auto event = timeline::instant(category, record.name, {Events, record.time});
        addArguments(event, record);
    }
}

void Timeline::add(const host::Status& status) {
    if (!timeline::isOn())
        return;
    if (!m_stateSince || status.state != m_last.state) {
        mediaEnds(status.time);
        m_stateSince = status.time;
    }
    const timeline::Place place{Operations, status.time};
    if (status.position != m_last.position)
        timeline::counter(category, "position", place).with("seconds", status.position);
    if (status.duration != m_last.duration)
        timeline::counter(category, "duration", place).with("seconds", status.duration);
    m_last = status;
}

void Timeline::mediaEnds(host::Clock::time_point time) {
    if (m_stateSince) {
        auto event = timeline::span(category, host::name(m_last.state), {States, *m_stateSince},
                                    time - *m_stateSince);
        if (!m_last.reason.empty())
            event.with("reason", m_last.reason);
    }
    m_stateSince.reset();
}

} // namespace uvahost
