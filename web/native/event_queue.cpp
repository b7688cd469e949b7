#include "event_queue.h"

#include <algorithm>

namespace uva_native {

namespace {

Napi::Object objectOf(Napi::Env env, const Event& event) {
    auto object = Napi::Object::New(env);
    object.Set("type", event.type);
    for (const auto& [name, value] : event.properties)
        std::visit([&, key = name](const auto& plain) { object.Set(key, plain); }, value);
    return object;
}

} // namespace

EventQueue::EventQueue(Napi::Env env, const Napi::Function& callback)
    : m_function(Napi::ThreadSafeFunction::New(env, callback, "uva player", 0, 1)) {}

void EventQueue::push(Event event) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_isClosed)
        return;
    if (!event.subject.empty()) {
        const auto old = std::find_if(m_events.begin(), m_events.end(), [&](const Event& other) {
            return other.subject == event.subject;
        });
        if (old != m_events.end())
            m_events.erase(old);
    }
    m_events.push_back(std::move(event));
    if (m_isWaking)
        return;
    m_isWaking = true;
    m_function.NonBlockingCall([self = shared_from_this()](Napi::Env env, Napi::Function callback) {
        self->deliver(env, callback);
    });
}

void EventQueue::deliver(Napi::Env env, Napi::Function callback) {
    if (env == nullptr || callback.IsEmpty())
        return; // Node is ending
    for (bool first = true;; first = false) {
        Event event;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            if (first)
                m_isWaking = false; // what comes from here on wakes anew
            if (m_isClosed || m_events.empty())
                return;
            event = std::move(m_events.front());
            m_events.pop_front();
        }
        const Napi::HandleScope scope(env);
        try {
            callback.Call({objectOf(env, event)});
        } catch (const Napi::Error& error) {
            napi_fatal_exception(env, error.Value()); // the page's own: as if nobody had called it
        }
    }
}

void EventQueue::close() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_isClosed = true;
    m_events.clear();
}

void EventQueue::release() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_isReleased)
        return;
    m_isReleased = true;
    m_function.Release();
}

} // namespace uva_native
