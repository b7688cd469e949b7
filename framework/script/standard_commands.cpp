#include "script/standard_commands.h"

#include "debug/trace/sys_vars.h"
#include "debug/trace/zant_trace.h"
#include "script/key_codes.h"
#include "state/framework_state.h"
#include "state/state_report.h"
#include "util/printable.h"

#include <algorithm>
#include <limits>

namespace {

constexpr double longestWait = 1e8; // seconds
constexpr size_t longestName = 64;
constexpr size_t longestVariable = 4096;
constexpr size_t mostVariables = 1000;

ScriptValues secondsNow(const ScriptCall&) {
    const auto since = ScriptControl::Clock::now().time_since_epoch();
    return {std::chrono::duration<double>(since).count()};
}

/// A line at a time, because what is put out has a longest line.
ScriptValues writeLog(const ScriptCall& call) {
    const std::string& text = call.text(1, "text");
    for (size_t start = 0; start <= text.size();) {
        const size_t end = std::min(text.find('\n', start), text.size());
        if (end > start || text.empty())
            FormattedStringToStdout("%.*s%s: %s\n", static_cast<int>(scriptLinePrefix.size()),
                                    scriptLinePrefix.data(), call.script.c_str(),
                                    printable(text.substr(start, end - start), "\t").c_str());
        start = end + 1;
    }
    return {};
}

/// Nobody will ever tell of another one.
void checkSignal(const std::string& text) {
    const auto names = ScriptEvents::instance().signalNames();
    if (std::none_of(names.begin(), names.end(), [&text](const std::string& name) {
            return name.find(text) != std::string::npos;
        }))
        throw ScriptError("no signal here has '" + text +
                          "' in its name: signal_names() lists them");
}

ScriptValues checkSignalOf(const ScriptCall& call) {
    checkSignal(call.text(1, "name of a signal"));
    return {};
}

ScriptValues addWatch(const ScriptCall& call) {
    const std::string& word = call.text(1, "kind of event");
    const auto kind = ScriptEvents::kindOf(word);
    if (!kind)
        throw ScriptError("there are no events of kind '" + word +
                          "': write trace, state or signal");
    const std::string& text = call.text(2, "text to look for");
    if (kind == ScriptEvents::Kind::Signal)
        checkSignal(text);
    return {call.watches.add(*kind, text)};
}

/// 0 is none.
size_t numberOfWatch(const ScriptCall& call, size_t position) {
    return static_cast<size_t>(std::max<int64_t>(call.number(position, "watch"), 0));
}

ScriptEvents::Watch& watchOf(const ScriptCall& call, size_t position) {
    return call.watches.get(numberOfWatch(call, position));
}

ScriptValues takeEvent(const ScriptCall& call) {
    const auto seen = watchOf(call, 1).take();
    return {seen ? ScriptValue(*seen) : ScriptValue()};
}

ScriptValues takeSignal(const ScriptCall& call) {
    auto signal = call.signals.take();
    return {signal ? std::move(*signal) : ScriptValue()};
}

/// Waits for a signal, and for the event of a watch if one is named.
ScriptValues await(const ScriptCall& call) {
    const std::chrono::duration<double> time(std::min(call.seconds(1, "seconds"), longestWait));
    const auto* const watch = call.has(2) ? &watchOf(call, 2) : nullptr;
    const auto deadline = ScriptControl::Clock::now() +
                          std::chrono::duration_cast<ScriptControl::Clock::duration>(time);
    call.control.waitUntil(
        deadline, [&] { return call.signals.hasSignals() || (watch && watch->hasSeen()); });
    return {};
}

ScriptValues signalNames(const ScriptCall&) {
    return {ScriptEvents::instance().signalNames()};
}

ScriptValues statesNow(const ScriptCall&) {
    return {ScriptEvents::instance().states()};
}

ScriptValues forgetWatch(const ScriptCall& call) {
    call.watches.remove(numberOfWatch(call, 1));
    return {};
}

ScriptValues keyCode(const ScriptCall& call) {
    const ScriptValue name = call.has(1) ? call.arguments[0] : ScriptValue();
    for (const RemoteKey& key : remoteKeys())
        if (name == key.name)
            return {key.code};
    throw ScriptError("no key has the name '" +
                      (name.is_string() ? name.get<std::string>() : name.dump()) +
                      "': key_names() lists them");
}

ScriptValues keyNames(const ScriptCall&) {
    auto names = ScriptValue::array();
    for (const RemoteKey& key : remoteKeys())
        names.push_back(key.name);
    return {names};
}

template <typename Value>
ScriptValues valueOf(const std::optional<Value>& value) {
    return {value ? ScriptValue(*value) : ScriptValue()};
}

const std::string& nameOfVariable(const ScriptCall& call) {
    const auto* const name =
        call.has(1) ? call.arguments[0].get_ptr<const std::string*>() : nullptr;
    if (!name || name->size() > longestName)
        throw ScriptError("a system variable's name is a text of at most " +
                          std::to_string(longestName) + " bytes");
    return *name;
}

/// They outlive the script: what scripts may leave behind has a bound.
template <typename Value>
void setVariable(CSysVarMap<Value>& variables, const std::string& name, const Value& value) {
    if (!variables.SetWithin(mostVariables, name, value))
        throw ScriptError("there are " + std::to_string(mostVariables) +
                          " system variables: set one that is not needed to nil");
}

ScriptValues getInt(const ScriptCall& call) {
    return valueOf(sysVarIntMap.Get(nameOfVariable(call)));
}

ScriptValues setInt(const ScriptCall& call) {
    using Limits = std::numeric_limits<int>;
    const std::string& name = nameOfVariable(call);
    if (!call.has(2)) {
        sysVarIntMap.Remove(name);
        return {};
    }
    const auto value = wholeNumber(call.arguments[1]);
    if (!value || *value < Limits::min() || *value > Limits::max())
        throw ScriptError("sys_int." + name +
                          " takes a whole number of 32 bits, or nil, which removes it");
    setVariable(sysVarIntMap, name, static_cast<int>(*value));
    return {};
}

ScriptValues getString(const ScriptCall& call) {
    return valueOf(sysVarStringMap.Get(nameOfVariable(call)));
}

ScriptValues setString(const ScriptCall& call) {
    const std::string& name = nameOfVariable(call);
    if (!call.has(2)) {
        sysVarStringMap.Remove(name);
        return {};
    }
    const auto* const value = call.arguments[1].get_ptr<const std::string*>();
    if (!value || value->size() > longestVariable)
        throw ScriptError("sys_string." + name + " takes a text of at most " +
                          std::to_string(longestVariable) + " bytes, or nil, which removes it");
    setVariable(sysVarStringMap, name, *value);
    return {};
}

ScriptValues stateOfProcess(const ScriptCall& call) {
    if (call.arguments.empty())
        return {ScriptValue::parse(StateReport::instance().collect(longestAsk))};
    const std::string& member = call.text(1, "member");
    auto report = ScriptValue::parse(StateReport::instance().collect(longestAsk, {member}));
    const auto found = report.find(member);
    if (found == report.end())
        throw ScriptError("the state has no member '" + member + "': m_state writes all of it");
    return {std::move(*found)};
}

} // namespace

std::vector<ScriptCommand> standardScriptCommands() {
    return {
        {"now", "now()\tSeconds, on a clock that nobody sets", secondsNow},
        {"log", "log(text)\tWrites lines to the trace output", writeLog},
        {"watch", "watch(kind, text)\tLooks out from now on: gives a watch for wait", addWatch},
        {"forget", "forget(watch)\tEnds a watch; a script has 16 at most", forgetWatch},
        {"signal_names", "signal_names()\tThe names of the signals that may come, an array",
         signalNames},
        {"key_names", "key_names()\tThe names of all keys, an array", keyNames},
        {"state", "state([member])\tWhat m_state writes, as tables; a second at most",
         stateOfProcess},
        {"await", "", await},
        {"take_event", "", takeEvent},
        {"take_signal", "", takeSignal},
        {"check_signal", "", checkSignalOf},
        {"states", "", statesNow},
        {"key_code", "", keyCode},
        {"get_int", "", getInt},
        {"set_int", "", setInt},
        {"get_string", "", getString},
        {"set_string", "", setString},
    };
}
