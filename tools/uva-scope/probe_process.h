#ifndef UVA_SCOPE_PROBE_PROCESS_H
#define UVA_SCOPE_PROBE_PROCESS_H

#include "glib_ptr.h"
#include "json.h"

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace scope {

/// A probe and the pipes to it. Bound to the thread of the default main context, on which it
/// reports.
class ProbeProcess {
public:
    using Report = std::function<void(const Json& message)>;
    using Lost = std::function<void()>;
    /// ok, what the player has said, and what it has written.
    using Answered =
        std::function<void(bool ok, const std::string& text, const std::string& bytes)>;

    /// `command`: the program and its arguments. `lost` is called once, when the probe has ended by
    /// itself. Throws std::runtime_error.
    ProbeProcess(const std::vector<std::string>& command, Report report, Lost lost);
    /// Ends the probe, without a wait. Who waits for an answer gets none any more.
    ~ProbeProcess();
    ProbeProcess(const ProbeProcess&) = delete;
    ProbeProcess& operator=(const ProbeProcess&) = delete;

    /// Gives an order; its "id" is set here. At most a few are open at a time: others are refused.
    void order(Json order, Answered answered);

private:
    /// What a callback has in hand, which may come when the probe is not there any more.
    struct Share {
        ProbeProcess* probe;
    };
    void readOn();
    static void onLine(GObject* stream, GAsyncResult* result, gpointer share);
    void take(const std::string& line);
    void takeAnswer(const Json& message);

    const Report m_report;
    const Lost m_lost;
    const std::shared_ptr<Share> m_share;
    ObjectPtr<GSubprocess> m_process;
    ObjectPtr<GDataInputStream> m_lines;
    std::map<int, Answered> m_open; ///< by order
    int m_orders = 0;
};

} // namespace scope

#endif
