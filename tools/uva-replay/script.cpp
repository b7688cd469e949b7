#include "script.h"

#include <algorithm>
#include <cmath>
#include <unordered_map>

namespace replay {

namespace {

using record::Kind;
using record::Tag;
using record::Value;

/// Goes through the entries once, and keeps what is under way on each thread.
class ScriptMaker {
public:
    ScriptMaker(const record::Record& record, Script& script)
        : m_record(record), m_script(script) {}

    void make() {
        for (std::size_t i = 0; i < m_record.entries.size(); ++i)
            take(m_record.entries[i], i);
        for (auto& call : m_script.steps)
            call.answer = m_returns[call.entry->number];
        for (auto& call : m_script.answers)
            call.answer = m_returns[call.entry->number];
        if (!m_record.entries.empty())
            m_script.duration = m_record.entries.back().time;
        if (m_record.header.payloads == record::Payloads::Digest && m_hasSamples)
            m_script.error = "it keeps sizes and hashes of its samples only (UVA_RECORD_PAYLOADS="
                             "digest): they cannot be played again; --list shows what is there";
    }

private:
    void take(const Entry& entry, std::size_t position) {
        switch (entry.kind) {
        case Kind::Call:
            return takeCall(entry, position);
        case Kind::Return:
            m_returns[entry.number] = &entry;
            return;
        case Kind::Event:
            return takeEvent(entry, position);
        case Kind::Taken:
            if (auto& open = m_open[entry.thread]; !open.empty())
                open.pop_back();
            return;
        case Kind::Config:
            m_script.configs[entry.number] = &entry;
            return;
        case Kind::Sample:
            m_hasSamples = true;
            m_handed[entry.thread].push_back(&entry);
            return;
        case Kind::Data:
            m_script.data[entry.number].push_back(&entry);
            return;
        default:
            return;
        }
    }

    void takeEvent(const Entry& entry, std::size_t position) {
        m_open[entry.thread].push_back(&entry);
        m_events[entry.number] = {&entry, position};
        m_script.events.push_back({&entry, position});
        const auto type = static_cast<UVAEvent::Type>(entry.code);
        if (type == UVAEvent::CancelDataRequestsAsync)
            m_cancelled[entry.object] = position;
        if (type == UVAEvent::MultiComponentChanged && entry.values.size() == 2)
            for (const auto& component : entry.values[1].items)
                m_script.added[entry.number].push_back(
                    component.items.empty()
                        ? 0
                        : static_cast<std::uint32_t>(component.items[0].integer));
    }

    void takeCall(const Entry& entry, std::size_t position) {
        Call call;
        call.entry = &entry;
        call.position = position;
        call.after = m_script.steps.size();
        if (const auto& open = m_open[entry.thread]; !open.empty())
            call.inside = open.back();
        if (!isAnswer(call.operation()))
            return m_script.steps.push_back(std::move(call));
        if (call.operation() == Operation::writeData)
            call.samples.swap(m_handed[entry.thread]);
        const auto event = m_events.find(eventOf(entry));
        if (event == m_events.end())
            return m_script.steps.push_back(std::move(call)); // the host has made the event
        call.event = event->second.entry;
        call.source = memberOf(*call.event, 0);
        const auto cancelled = m_cancelled.find(entry.object);
        call.isVoid = cancelled != m_cancelled.end() && event->second.position < cancelled->second;
        m_script.answers.push_back(std::move(call));
    }

    /// The number of the event that an answer is for; 0: none.
    static std::uint32_t eventOf(const Entry& answer) {
        if (answer.values.empty())
            return 0;
        const Value& event = answer.values[0];
        const Value* const id = event.items.empty() ? &event : &event.items[0];
        return id->tag == Tag::Id ? static_cast<std::uint32_t>(id->integer) : 0;
    }

    const record::Record& m_record;
    Script& m_script;
    bool m_hasSamples = false;
    std::unordered_map<std::uint32_t, const Entry*> m_returns;
    std::unordered_map<std::uint32_t, Event> m_events;
    std::unordered_map<std::uint32_t, std::size_t> m_cancelled;            // by backend
    std::unordered_map<std::uint32_t, std::vector<const Entry*>> m_open;   // by thread
    std::unordered_map<std::uint32_t, std::vector<const Entry*>> m_handed; // by thread
};

} // namespace

Script makeScript(const record::Record& record) {
    Script script;
    ScriptMaker(record, script).make();
    return script;
}

bool isAnswer(Operation operation) {
    return operation == Operation::eventCompleted || operation == Operation::writeData;
}

bool isQuery(Operation operation) {
    return record::rowOf(operation).answers != record::Answers::Same && !isAnswer(operation);
}

bool alike(const Value& one, const Value& other) {
    constexpr double noise = 1e-3; // of what is counted in nanoseconds and told in seconds
    if (one.tag != other.tag)
        return false;
    switch (one.tag) {
    case Tag::Id:
        return true;
    case Tag::Real:
        return std::abs(one.real - other.real) <= noise || one == other;
    case Tag::List:
        return alike(one.items, other.items);
    default:
        return one == other;
    }
}

bool alike(const record::Values& some, const record::Values& others) {
    return std::equal(some.begin(), some.end(), others.begin(), others.end(),
                      [](const Value& one, const Value& other) { return alike(one, other); });
}

std::int64_t memberOf(const Entry& event, std::size_t index) {
    return index < event.values.size() ? event.values[index].integer : 0;
}

} // namespace replay
