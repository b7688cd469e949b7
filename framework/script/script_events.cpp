#include "script/script_events.h"

#include "debug/trace/trace_settings.h"
#include "messaging/observer/observable_callback_function.h"
#include "messaging/queue/zant_msg.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

void publishLine(const char* line) {
    const std::string_view text(line);
    if (text.substr(0, scriptLinePrefix.size()) != scriptLinePrefix)
        ScriptEvents::instance().publishTrace(text);
}

ScriptValue parametersOf(const ZantMsgValues& message) {
    return {{"param1", message.param1},
            {"param2", message.param2},
            {"param3", message.param3},
            {"param4", message.param4}};
}

class SignalObserver : public CObserverCallbackFunction {
public:
    SignalObserver() { ScriptEvents::instance().nameMessageSignals(); }

private:
    void CallbackFunction(CZantMsg* msg) override {
        ScriptEvents::instance().publishSignal(msg->signalName(),
                                               [msg] { return parametersOf(*msg); });
    }
};

} // namespace

ScriptEvents& ScriptEvents::instance() {
    static auto& events = *new ScriptEvents;
    return events;
}

std::optional<ScriptEvents::Kind> ScriptEvents::kindOf(std::string_view word) {
    for (const auto& [name, kind] :
         {std::pair("trace", Kind::Trace), {"state", Kind::State}, {"signal", Kind::Signal}})
        if (word == name)
            return kind;
    return std::nullopt;
}

void ScriptEvents::publishTrace(std::string_view line) {
    if (!m_hasListeners)
        return;
    while (!line.empty() && line.back() == '\n')
        line.remove_suffix(1);
    const MutexLock lock(m_mutex);
    tell(Kind::Trace, line);
}

void ScriptEvents::publishSignal(std::string_view name, const Parameters& parameters) {
    if (!m_hasListeners)
        return;
    ScriptValue signal = parameters ? parameters() : ScriptValue::object();
    signal["name"] = name;
    bring(signal);
}

void ScriptEvents::publishEnd(std::string_view name, const std::string& why) {
    publishSignal(name, [&why] { return ScriptValue{{"ends_waits", why}}; });
}

void ScriptEvents::bring(const ScriptValue& signal) {
    const MutexLock lock(m_mutex);
    for (Inbox* const inbox : m_inboxes) {
        if (inbox->m_signals.size() == Inbox::mostSignals)
            inbox->m_signals.pop_front();
        inbox->m_signals.push_back(signal);
        inbox->m_hasSignals = true;
        inbox->m_control.wake();
    }
    tell(Kind::Signal, signal["name"].get_ref<const std::string&>());
}

void ScriptEvents::tell(Kind kind, std::string_view text) {
    for (Watch* const watch : m_watches)
        watch->see(kind, text);
}

void ScriptEvents::nameSignals(const std::vector<std::string>& names) {
    const MutexLock lock(m_mutex);
    for (const std::string& name : names)
        if (std::find(m_signalNames.begin(), m_signalNames.end(), name) == m_signalNames.end())
            m_signalNames.push_back(name);
}

void ScriptEvents::nameMessageSignals() {
    std::vector<std::string> names;
    for (uint32_t id = 1; id < nrOfSignalIds; ++id)
        names.emplace_back(GetSignalIdNamePtr(static_cast<SignalIds>(id)));
    nameSignals(names);
}

std::vector<std::string> ScriptEvents::signalNames() {
    const MutexLock lock(m_mutex);
    return m_signalNames;
}

std::vector<std::string> ScriptEvents::states() {
    std::vector<std::string> texts;
    const MutexLock lock(m_mutex);
    for (const ScriptState* const state : m_states)
        if (!state->m_text.empty())
            texts.push_back(state->m_text);
    return texts;
}

/// What scripts listen to now; where nobody does, nothing is told.
void ScriptEvents::switchSources() {
    m_hasListeners = !m_watches.empty() || !m_inboxes.empty();
    const bool lines = std::any_of(m_watches.begin(), m_watches.end(),
                                   [](const Watch* watch) { return watch->m_kind == Kind::Trace; });
    traceSettings.lineObserver = lines ? publishLine : nullptr;
}

void ScriptEvents::enter(Watch& watch) {
    const MutexLock lock(m_mutex);
    for (const ScriptState* const state : m_states)
        if (!state->m_text.empty())
            watch.see(Kind::State, state->m_text);
    m_watches.push_back(&watch);
    switchSources();
}

void ScriptEvents::leave(const Watch& watch) {
    const MutexLock lock(m_mutex);
    m_watches.remove(const_cast<Watch*>(&watch));
    switchSources();
}

ScriptEvents::Watch::Watch(Kind kind, std::string text, ScriptControl& control)
    : m_kind(kind), m_text(std::move(text)), m_control(control) {
    instance().enter(*this);
}

ScriptEvents::Watch::~Watch() {
    instance().leave(*this);
}

void ScriptEvents::Watch::see(Kind kind, std::string_view text) {
    if (m_isSeen || m_kind != kind || text.find(m_text) == std::string_view::npos)
        return;
    m_seenLength = std::min(text.size(), textSize);
    memcpy(m_seen, text.data(), m_seenLength);
    m_isSeen = true;
    m_control.wake();
}

std::optional<std::string> ScriptEvents::Watch::take() {
    if (!m_isSeen)
        return std::nullopt;
    std::string text(m_seen, m_seenLength); // nobody writes what is seen
    m_isSeen = false;
    return text;
}

ScriptEvents::Inbox::Inbox(ScriptControl& control) : m_control(control) {
    ScriptEvents& events = instance();
    const MutexLock lock(events.m_mutex);
    events.m_inboxes.push_back(this);
    events.switchSources();
}

ScriptEvents::Inbox::~Inbox() {
    ScriptEvents& events = instance();
    const MutexLock lock(events.m_mutex);
    events.m_inboxes.remove(this);
    events.switchSources();
}

std::optional<ScriptValue> ScriptEvents::Inbox::take() {
    if (!m_hasSignals)
        return std::nullopt;
    const MutexLock lock(instance().m_mutex);
    ScriptValue signal = std::move(m_signals.front());
    m_signals.pop_front();
    m_hasSignals = !m_signals.empty();
    return signal;
}

ScriptState::ScriptState(std::string subject) : m_subject(std::move(subject)) {
    ScriptEvents& events = ScriptEvents::instance();
    const MutexLock lock(events.m_mutex);
    events.m_states.push_back(this);
}

ScriptState::~ScriptState() {
    ScriptEvents& events = ScriptEvents::instance();
    const MutexLock lock(events.m_mutex);
    events.m_states.remove(this);
}

void ScriptState::set(std::string_view state) {
    std::string text = m_subject + " ";
    text += state;
    ScriptEvents& events = ScriptEvents::instance();
    const MutexLock lock(events.m_mutex);
    if (text == m_text)
        return;
    m_text = std::move(text);
    events.tell(ScriptEvents::Kind::State, m_text);
}

CObserverCallbackFunction& scriptSignalObserver() {
    static auto& observer = *new SignalObserver;
    return observer;
}
