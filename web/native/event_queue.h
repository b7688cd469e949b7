#ifndef UVA_NATIVE_EVENT_QUEUE_H
#define UVA_NATIVE_EVENT_QUEUE_H

#include <napi.h>

#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace uva_native {

/// What JavaScript is told: an object with its type and these properties. A plain value.
struct Event {
    using Value = std::variant<double, std::string>;

    std::string type;
    std::vector<std::pair<const char*, Value>> properties;
    /// An older event of the same subject that has not been delivered is dropped: so what is told
    /// over and over again stays bounded while Node's loop is busy. Empty: none is dropped.
    std::string subject;
};

/// Brings events from any thread to a function on Node's loop, in their order. While it is open it
/// keeps Node running.
class EventQueue : public std::enable_shared_from_this<EventQueue> {
public:
    /// Node's thread.
    EventQueue(Napi::Env env, const Napi::Function& callback);

    void push(Event event); ///< any thread
    /// Nothing is delivered any more. Node's thread, also from the function itself. Twice is
    /// harmless.
    void close();
    /// Node may end. After close(), when nobody pushes any more; any thread.
    void release();

private:
    void deliver(Napi::Env env, Napi::Function callback);

    Napi::ThreadSafeFunction m_function;
    std::mutex m_mutex;
    std::deque<Event> m_events; // guarded
    bool m_isWaking = false;    // guarded: a delivery is on its way
    bool m_isClosed = false;    // guarded
    bool m_isReleased = false;  // guarded
};

} // namespace uva_native

#endif
