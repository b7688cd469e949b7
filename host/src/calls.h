#ifndef HOST_CALLS_H
#define HOST_CALLS_H

#include "host/event_loop.h"
#include "host/media_element.h"
#include "locks/mutex.h"
#include "uva/uva_media_backend.h"

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace host {

inline Argument number(const char* name, long long value) {
    return {name, value};
}

/// The calls that leave a media element: down to the backend, up to the observer. Bound to the
/// event loop's thread, but where noted.
class Calls {
public:
    Calls(std::shared_ptr<EventLoop> loop, Observer& observer)
        : m_loop(std::move(loop)), m_observer(&observer) {}

    const std::shared_ptr<EventLoop>& loop() const { return m_loop; } ///< any thread
    Clock::time_point now() const { return m_loop->now(); }           ///< any thread

    UVAMediaBackend* backend() const { return m_backend; } ///< null: none. Any thread.
    void setBackend(UVAMediaBackend* backend) { m_backend = backend; }

    /// Makes a call, of the backend if it is one of its operations or takes it; what the backend is
    /// busy with is known meanwhile.
    template <typename Call, typename... Parameters>
    auto ask(const char* name, Call call, Parameters&&... parameters);
    /// ... which the observer is told about.
    template <typename Call, typename... Parameters>
    auto operate(const char* name, std::vector<Argument> arguments, Call call,
                 Parameters&&... parameters);
    template <typename Call>
    void observe(Call call);

    /// Once it has returned the observer is not called any more. Any thread but the observer's
    /// call.
    void closeGate() {
        const locks::Lock lock(m_gate);
        m_observer = nullptr;
    }
    std::optional<MediaElement::Operation> operationUnderWay() const { ///< any thread
        const locks::Lock lock(m_operationMutex);
        return m_operation;
    }

private:
    void note(std::optional<MediaElement::Operation> operation) {
        const locks::Lock lock(m_operationMutex);
        m_operation = std::move(operation);
    }

    const std::shared_ptr<EventLoop> m_loop;
    std::atomic<UVAMediaBackend*> m_backend{nullptr};

    /// Held while the observer is called, so that closeGate() waits for a call under way.
    locks::Mutex m_gate;
    Observer* m_observer GUARDED_BY(m_gate); // null once closed

    mutable locks::Mutex m_operationMutex; // nothing is called under it
    std::optional<MediaElement::Operation> m_operation GUARDED_BY(m_operationMutex);
};

template <typename Call, typename... Parameters>
auto Calls::ask(const char* name, Call call, Parameters&&... parameters) {
    note(MediaElement::Operation{name, now()});
    const auto result = [&] {
        if constexpr (std::is_invocable_v<Call>)
            return call();
        else
            return std::invoke(call, *m_backend.load(), std::forward<Parameters>(parameters)...);
    }();
    note(std::nullopt);
    return result;
}

template <typename Call, typename... Parameters>
auto Calls::operate(const char* name, std::vector<Argument> arguments, Call call,
                    Parameters&&... parameters) {
    Record record;
    record.kind = Record::Kind::Operation;
    record.name = name;
    record.arguments = std::move(arguments);
    record.time = now();
    const auto result = ask(name, std::move(call), std::forward<Parameters>(parameters)...);
    record.duration = now() - record.time;
    if constexpr (std::is_same_v<decltype(result), const int>)
        record.arguments.push_back(number("result", result));
    else
        record.arguments.push_back({"result", static_cast<bool>(result)});
    observe([&](Observer& observer) { observer.onRecord(record); });
    return result;
}

template <typename Call>
void Calls::observe(Call call) {
    const locks::Lock lock(m_gate);
    if (m_observer != nullptr)
        call(*m_observer);
}

} // namespace host

#endif
