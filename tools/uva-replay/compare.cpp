#include "compare.h"

#include "script.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iterator>
#include <map>

namespace replay {

namespace {

using record::Answers;
using record::Kind;
using record::Order;
using record::Value;
using record::Values;

using Calls = std::vector<const Call*>;
using Events = std::vector<const Event*>;

std::string inMilliseconds(std::int64_t nanoseconds) {
    return std::to_string((nanoseconds + 500000) / 1000000) + " ms";
}

std::string textOf(const Values& values) {
    std::string text;
    for (const auto& value : values)
        text += (text.empty() ? "" : ", ") + describe(value);
    return text;
}

/// What one backend did in a run.
struct Life {
    Calls steps;
    Calls completed; ///< answers to questions, with their events
    Events events;
    std::map<const Event*, std::uint64_t> cause; ///< when the call began that it follows
};

void findCauses(Life& life) {
    Calls calls = life.completed;
    std::copy_if(life.steps.begin(), life.steps.end(), std::back_inserter(calls),
                 [](const Call* call) { return !isQuery(call->operation()); });
    std::sort(calls.begin(), calls.end(),
              [](const Call* one, const Call* other) { return one->position < other->position; });
    auto next = calls.begin();
    std::uint64_t cause = 0;
    for (const auto* event : life.events) {
        for (; next != calls.end() && (*next)->position < event->position; ++next)
            cause = (*next)->entry->time;
        life.cause[event] = cause;
    }
}

/// Calls that the record does not have are the replay's own end: what comes of it does not count.
Life untilEnd(const Life& life, std::size_t steps) {
    Life cut = life;
    if (steps >= life.steps.size())
        return cut;
    const std::size_t end = life.steps[steps]->position;
    const auto isBehind = [end](const Event* event) { return event->position > end; };
    cut.events.erase(std::remove_if(cut.events.begin(), cut.events.end(), isBehind),
                     cut.events.end());
    return cut;
}

std::vector<Life> livesOf(const Script& script) {
    std::map<std::uint32_t, std::size_t> places; // by the number of the backend
    std::vector<Life> lives;
    const auto lifeOf = [&](const Entry& entry) -> Life& {
        const auto [place, isNew] = places.try_emplace(entry.object, lives.size());
        if (isNew)
            lives.emplace_back();
        return lives[place->second];
    };
    for (const auto& step : script.steps)
        lifeOf(*step.entry).steps.push_back(&step);
    for (const auto& answer : script.answers)
        if (answer.operation() == Operation::eventCompleted && answer.event != nullptr)
            lifeOf(*answer.entry).completed.push_back(&answer);
    for (const auto& event : script.events)
        lifeOf(*event.entry).events.push_back(&event);
    for (auto& life : lives)
        findCauses(life);
    return lives;
}

/// Compares one backend's two lives.
class Comparison {
public:
    Comparison(const Life& before, Life after, const Bounds& bounds, std::vector<Difference>& found)
        : m_before(before), m_after(std::move(after)), m_bounds(bounds), m_found(found),
          m_bound(std::chrono::nanoseconds(bounds.time).count()) {}

    void compare() {
        compareSteps();
        compareCompletions();
        compareInTurn();
        compareAnyhow();
        compareSettled();
        comparePrompt();
    }

private:
    void add(Difference::Kind kind, const Entry& where, std::string text) {
        const char* const what = where.kind == Kind::Call
                                     ? record::rowOf(static_cast<Operation>(where.code)).name
                                     : record::rowOf(static_cast<UVAEvent::Type>(where.code)).name;
        m_found.push_back({kind, what, where.time, std::move(text)});
    }

    // ---- calls

    /// Of each operation one behind the other: calls of two threads may change places.
    void compareSteps() {
        std::map<Operation, Calls> again;
        for (const auto* call : m_after.steps)
            again[call->operation()].push_back(call);
        std::map<Operation, std::size_t> next;
        std::map<Operation, std::pair<const Call*, const Call*>> settled;
        for (const auto* before : m_before.steps) {
            const auto& others = again[before->operation()];
            const std::size_t place = next[before->operation()]++;
            if (place >= others.size())
                return add(Difference::Kind::Call, *before->entry,
                           record::nameOf(*before->entry) + " was not made again");
            compareCall(*before, *others[place]);
            settled[before->operation()] = {before, others[place]};
        }
        for (const auto& [operation, calls] : settled)
            if (record::rowOf(operation).answers == Answers::Settles && isSettled(*calls.first) &&
                isSettled(*calls.second))
                compareAnswer(*calls.first, *calls.second);
    }

    static bool isSettled(const Call& query) {
        return query.answer != nullptr && !query.answer->values.empty() &&
               query.answer->values[0].integer != UVABackend::NotAvailable;
    }

    void compareCall(const Call& before, const Call& after) {
        if (before.answer == nullptr || after.answer == nullptr)
            return; // who did not return is told of otherwise
        const auto answers = record::rowOf(before.operation()).answers;
        if (answers == Answers::Same)
            compareAnswer(before, after);
        if (answers == Answers::Position && !m_bounds.fast)
            comparePosition(before, after);
        compareDuration(before, after);
    }

    void compareAnswer(const Call& before, const Call& after) {
        if (before.answer == nullptr || after.answer == nullptr ||
            alike(before.answer->values, after.answer->values))
            return;
        add(Difference::Kind::Answer, *before.entry,
            record::nameOf(*before.entry) + " answered " + textOf(after.answer->values) + ", not " +
                textOf(before.answer->values));
    }

    void comparePosition(const Call& before, const Call& after) {
        const auto seconds = [](const Call& call) {
            const Values& values = call.answer->values;
            const bool isTime = values.size() == 1 && !values[0].items.empty();
            return isTime ? values[0].items[0].real : values.size() == 2 ? values[1].real : 0.0;
        };
        const double difference = seconds(after) - seconds(before);
        if (!(std::abs(difference) * 1e9 > static_cast<double>(m_bound))) // also what is no number
            return;
        char text[120];
        std::snprintf(text, sizeof text, "the position was %.3f s, not %.3f s", seconds(after),
                      seconds(before));
        add(Difference::Kind::Position, *before.entry, text);
    }

    void compareDuration(const Call& before, const Call& after) {
        const auto took = [](const Call& call) {
            return static_cast<std::int64_t>(call.answer->time - call.entry->time);
        };
        if (took(after) - took(before) > m_bound)
            add(Difference::Kind::Duration, *before.entry,
                record::nameOf(*before.entry) + " took " + inMilliseconds(took(after)) + ", not " +
                    inMilliseconds(took(before)));
    }

    /// Of each type one behind the other.
    void compareCompletions() {
        std::map<std::uint16_t, Calls> after;
        for (const auto* call : m_after.completed)
            after[call->event->code].push_back(call);
        std::map<std::uint16_t, std::size_t> next;
        for (const auto* call : m_before.completed) {
            const auto& others = after[call->event->code];
            const std::size_t place = next[call->event->code]++;
            if (place < others.size())
                compareCall(*call, *others[place]);
        }
    }

    // ---- events

    /// Whether decoders were there to be released says how far the media had come.
    bool isCompared(const Event& event) const {
        return !m_bounds.fast || event.type() != UVAEvent::BackendResourceReleased;
    }

    Events ofOrder(const Life& life, Order order) const {
        Events events;
        for (const auto* event : life.events)
            if (record::rowOf(event->type()).order == order && isCompared(*event))
                events.push_back(event);
        return events;
    }

    void compareInTurn() {
        const auto before = ofOrder(m_before, Order::InTurn);
        const auto after = ofOrder(m_after, Order::InTurn);
        const std::size_t common = std::min(before.size(), after.size());
        for (std::size_t i = 0; i < common; ++i) {
            const Entry& was = *before[i]->entry;
            const Entry& is = *after[i]->entry;
            if (was.code != is.code || !alike(was.values, is.values))
                return add(Difference::Kind::EventOther, was,
                           record::nameOf(is) + " came, not " + record::nameOf(was));
        }
        if (before.size() > common)
            add(Difference::Kind::EventMissing, *before[common]->entry,
                record::nameOf(*before[common]->entry) + " did not come");
        if (after.size() > common)
            add(Difference::Kind::EventMore, *after[common]->entry,
                record::nameOf(*after[common]->entry) + " came, which the record does not have");
    }

    void compareAnyhow() {
        auto left = ofOrder(m_after, Order::Anyhow);
        for (const auto* event : ofOrder(m_before, Order::Anyhow)) {
            const auto same = std::find_if(left.begin(), left.end(), [&](const Event* other) {
                return other->type() == event->type() &&
                       alike(other->entry->values, event->entry->values);
            });
            if (same != left.end())
                left.erase(same);
            else
                add(Difference::Kind::EventMissing, *event->entry,
                    record::nameOf(*event->entry) + " did not come");
        }
        for (const auto* event : left)
            add(Difference::Kind::EventMore, *event->entry,
                record::nameOf(*event->entry) + " came, which the record does not have");
    }

    void compareSettled() {
        std::map<UVAEvent::Type, const Event*> after;
        for (const auto* event : ofOrder(m_after, Order::Settles))
            after[event->type()] = event;
        std::map<UVAEvent::Type, const Event*> before;
        for (const auto* event : ofOrder(m_before, Order::Settles))
            before[event->type()] = event;
        for (const auto& [type, event] : before) {
            const auto* const now = after[type];
            if (now == nullptr)
                add(Difference::Kind::EventMissing, *event->entry,
                    record::nameOf(*event->entry) + " did not come");
            else if (!alike(event->entry->values, now->entry->values))
                add(Difference::Kind::EventOther, *event->entry,
                    record::nameOf(*now->entry) + " came last, not " +
                        record::nameOf(*event->entry));
        }
    }

    /// Events of a type one behind the other, each against the call that it follows.
    void comparePrompt() {
        std::map<UVAEvent::Type, Events> after;
        for (const auto* event : m_after.events)
            after[event->type()].push_back(event);
        std::map<UVAEvent::Type, std::size_t> next;
        for (const auto* event : m_before.events) {
            const auto& row = record::rowOf(event->type());
            const std::size_t place = next[event->type()]++;
            const auto& others = after[event->type()];
            const bool counts = row.order == Order::InTurn && (row.prompt || !m_bounds.fast);
            if (!counts || place >= others.size())
                continue;
            const auto took = latency(m_before, *event);
            const auto takes = latency(m_after, *others[place]);
            if (takes - took > m_bound)
                add(Difference::Kind::EventLate, *event->entry,
                    record::nameOf(*event->entry) + " came " + inMilliseconds(takes) +
                        " behind the call before it, not " + inMilliseconds(took));
        }
    }

    static std::int64_t latency(const Life& life, const Event& event) {
        return static_cast<std::int64_t>(event.entry->time - life.cause.at(&event));
    }

    const Life& m_before;
    const Life m_after;
    const Bounds& m_bounds;
    std::vector<Difference>& m_found;
    const std::int64_t m_bound;
};

} // namespace

const char* nameOf(Difference::Kind kind) {
    static constexpr const char* names[] = {"answer",      "position", "duration", "missing",
                                            "other event", "more",     "late",     "call",
                                            "crash",       "hang"};
    return names[static_cast<std::size_t>(kind)];
}

bool isSame(const Difference& one, const Difference& other) {
    return one.kind == other.kind && one.what == other.what;
}

std::vector<Difference> compare(const record::Record& before, const record::Record& after,
                                const Bounds& bounds) {
    const Script was = makeScript(before);
    const Script is = makeScript(after);
    const auto lives = livesOf(was);
    const auto again = livesOf(is);
    std::vector<Difference> found;
    const Life none;
    for (std::size_t i = 0; i < lives.size(); ++i)
        Comparison(lives[i], i < again.size() ? untilEnd(again[i], lives[i].steps.size()) : none,
                   bounds, found)
            .compare();
    std::stable_sort(
        found.begin(), found.end(),
        [](const Difference& one, const Difference& other) { return one.time < other.time; });
    return found;
}

} // namespace replay
