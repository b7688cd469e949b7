#ifndef UVA_HOST_TIMELINE_H
#define UVA_HOST_TIMELINE_H

#include "host/record.h"
#include "host/status.h"

#include <optional>
#include <string>

namespace uvahost {

/// The host's part of the time line: operations, events and states on a track each, position and
/// duration as counters. Nothing while nobody records.
class Timeline {
public:
    /// Recording has begun, if it does at all.
    Timeline();

    void mediaBegins(const std::string& name, host::Clock::time_point time);
    void add(const host::Record& record);
    void add(const host::Status& status);
    void mediaEnds(host::Clock::time_point time);

private:
    host::Status m_last;
    std::optional<host::Clock::time_point> m_stateSince; ///< nothing: no state is shown
};

} // namespace uvahost

#endif
