#ifndef UVA_HOST_TIMELINE_H
#define UVA_HOST_TIMELINE_H

#include "common/trace_events.h"
#include "host/record.h"
#include "host/status.h"

#include <optional>
#include <string>

namespace uvahost {

/// What happened as trace events: operations, events and states on a track each, position and
/// duration as counters.
class Timeline {
public:
    /// Keeps nothing when nobody wants it: a run may be long.
    explicit Timeline(bool isWanted) : m_isWanted(isWanted) {}

    void mediaBegins(const std::string& name, host::Clock::time_point time);
    void add(const host::Record& record);
    void add(const host::Status& status);
    void mediaEnds(host::Clock::time_point time);

    std::string text() const { return m_events.text(); }

private:
    const bool m_isWanted;
    tools::TraceEvents m_events{"uva-host", {"operations", "events", "state"}};
    host::Status m_last;
    std::optional<host::Clock::time_point> m_stateSince; ///< nothing: no state is shown
};

} // namespace uvahost

#endif
