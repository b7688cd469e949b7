#ifndef STATE_REPORT_H
#define STATE_REPORT_H

#include "util/mutex.h"

#include <chrono>
#include <functional>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

/// All that a process knows of itself, as JSON (RFC 8259): an object with a member for each of its
/// modules that told how to ask it. Thread-safe.
///
/// A module is asked on a thread of its own and has a bounded time: what waits for a lock that
/// never comes free is told of as such, and is not asked again until it has answered.
class StateReport {
public:
    using Json = nlohmann::ordered_json;
    /// Gives a module's part. It takes the module's own locks, and lets go of them before it
    /// returns; it may outlive the report that asked.
    using Ask = std::function<Json()>;

    StateReport();
    ~StateReport();
    StateReport(const StateReport&) = delete;
    StateReport& operator=(const StateReport&) = delete;

    /// The one of the process, never destroyed.
    static StateReport& instance();

    /// Adds a member; one of that name that is there already stays.
    void add(const std::string& name, Ask ask) EXCLUDES(m_mutex);
    /// The report, within the bound and what it takes to write it down. Members stand in the order
    /// in which they were added; of those named, or all when none is.
    std::string collect(std::chrono::milliseconds bound,
                        const std::vector<std::string>& members = {}) EXCLUDES(m_mutex);

private:
    struct Section;

    Mutex m_mutex; // the list; nothing is called under it
    std::vector<std::shared_ptr<Section>> m_sections GUARDED_BY(m_mutex);
};

#endif
