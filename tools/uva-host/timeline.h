#ifndef UVA_HOST_TIMELINE_H
#define UVA_HOST_TIMELINE_H

#include "host/record.h"
#include "host/status.h"

#include <nlohmann/json_fwd.hpp>

#include <memory>
#include <string>

namespace uvahost {

/// Collects what happened as Chrome trace events: operations, events and states on a track each,
/// position and duration as counters. Times are CLOCK_MONOTONIC in microseconds.
class Timeline {
public:
    Timeline();
    ~Timeline();

    void mediaBegins(const std::string& name, host::Clock::time_point time);
    void add(const host::Record& record);
    void add(const host::Status& status);
    void mediaEnds(host::Clock::time_point time);

    /// The file's text. Bytes that are no UTF-8 are replaced.
    std::string text() const;

private:
    void closeState(host::Clock::time_point time);
    nlohmann::json& append(const char* phase, const std::string& name, int track);

    const std::unique_ptr<nlohmann::json> m_events; // an array
    bool m_stateOpen = false;
    host::Status m_last;
    host::Clock::time_point m_stateSince;
};

} // namespace uvahost

#endif
