#include "script/script_events.h"

#include "debug/trace/trace_settings.h"
#include "messaging/observer/observable_callback_function.h"
#include "messaging/queue/zant_msg.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr std::string_view traceKind = "trace";

void publishLine(const char* line) {
    const std::string_view text(line);
    if (text.substr(0, scriptLinePrefix.size()) != scriptLinePrefix)
        ScriptEvents::instance().publish(traceKind, text);
}

class SignalObserver : public CObserverCallbackFunction {
    void CallbackFunction(CZantMsg* msg) override {
        ScriptEvents::instance().publish("signal", msg->signalName());
    }
};

} // namespace

ScriptEvents& ScriptEvents::instance() {
    static auto& events = *new ScriptEvents;
    return events;
}

void ScriptEvents::publish(std::string_view kind, std::string_view text) {
    if (!m_isWatched)
        return;
    while (!text.empty() && text.back() == '\n')
        text.remove_suffix(1);
    const MutexLock lock(m_mutex);
    for (Watch* const watch : m_watches) {
        if (watch->m_isSeen || watch->m_kind != kind ||
            text.find(watch->m_text) == std::string_view::npos)
            continue;
        watch->m_seenLength = std::min(text.size(), textSize);
        memcpy(watch->m_seen, text.data(), watch->m_seenLength);
        watch->m_isSeen = true;
        watch->m_control.wake();
    }
}

void ScriptEvents::enter(Watch& watch) {
    const MutexLock lock(m_mutex);
    m_watches.push_back(&watch);
    switchTraces();
}

void ScriptEvents::leave(const Watch& watch) {
    const MutexLock lock(m_mutex);
    m_watches.remove(const_cast<Watch*>(&watch));
    switchTraces();
}

void ScriptEvents::switchTraces() {
    m_isWatched = !m_watches.empty();
    const bool lines = std::any_of(m_watches.begin(), m_watches.end(),
                                   [](const Watch* watch) { return watch->m_kind == traceKind; });
    traceSettings.lineObserver = lines ? publishLine : nullptr;
}

ScriptEvents::Watch::Watch(std::string kind, std::string text, ScriptControl& control)
    : m_kind(std::move(kind)), m_text(std::move(text)), m_control(control) {
    instance().enter(*this);
}

ScriptEvents::Watch::~Watch() {
    instance().leave(*this);
}

std::optional<std::string> ScriptEvents::Watch::take(ScriptControl::Clock::time_point deadline) {
    if (!m_control.waitUntil(deadline, [this] { return m_isSeen.load(); }))
        return std::nullopt;
    std::string text(m_seen, m_seenLength); // nobody writes what is seen
    m_isSeen = false;
    return text;
}

CObserverCallbackFunction& scriptSignalObserver() {
    static auto& observer = *new SignalObserver;
    return observer;
}
