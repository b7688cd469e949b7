#ifndef HOST_ELEMENT_CALLS_H
#define HOST_ELEMENT_CALLS_H

#include "element_core.h"

#include <utility>

// How ElementCore calls the backend and the observer; for its own source files.

namespace host {

inline Value toValue(int result) {
    return static_cast<long long>(result);
}
inline Value toValue(bool result) {
    return result;
}
inline Value toValue(const UVAMediaBackend* result) {
    return result != nullptr;
}

/// Notes what the backend is busy with while it is.
template <typename Call>
auto ElementCore::busy(const char* name, Call call) {
    {
        const std::lock_guard lock(m_operationMutex);
        m_operation = MediaElement::Operation{name, m_loop->now()};
    }
    const auto result = call();
    const std::lock_guard lock(m_operationMutex);
    m_operation.reset();
    return result;
}

template <typename Call>
auto ElementCore::operate(const char* name, std::vector<Argument> arguments, Call call) {
    Record record;
    record.kind = Record::Kind::Operation;
    record.name = name;
    record.arguments = std::move(arguments);
    record.time = m_loop->now();
    const auto result = busy(name, call);
    record.duration = m_loop->now() - record.time;
    record.arguments.push_back({"result", toValue(result)});
    observe([&](Observer& observer) { observer.onRecord(record); });
    return result;
}

template <typename Call>
void ElementCore::observe(Call call) {
    const std::lock_guard lock(m_gate);
    if (m_observer != nullptr)
        call(*m_observer);
}

} // namespace host

#endif
