#include "minimize.h"

#include "script.h"

#include <algorithm>
#include <set>

namespace replay {

namespace {

using record::Kind;

/// Entries that stay or go together.
using Unit = std::vector<const Entry*>;
using Units = std::vector<Unit>;

/// Parts a record into units: a call and all that follows from it alone.
class Partition {
public:
    explicit Partition(const record::Record& record)
        : m_record(record), m_script(makeScript(record)) {}

    /// Queries first: they go in one piece, as a rule.
    Units units() {
        Units queries, acts;
        for (const auto& step : m_script.steps)
            if (!isFrame(step.operation()))
                (isQuery(step.operation()) ? queries : acts).push_back(unitOf(step));
        m_queries = queries.size();
        queries.insert(queries.end(), acts.begin(), acts.end());
        Units whole = backends();
        queries.insert(queries.end(), whole.begin(), whole.end());
        return queries;
    }
    std::size_t queries() const { return m_queries; }

private:
    /// Without these there is no backend, or nothing in it.
    static bool isFrame(Operation operation) {
        return operation == Operation::requestBackend || operation == Operation::releaseBackend ||
               operation == Operation::initBackend || operation == Operation::initBackendOf;
    }

    /// With all that belongs to it, if there are several.
    Units backends() const {
        std::set<std::uint32_t> objects;
        for (const auto& step : m_script.steps)
            objects.insert(step.entry->object);
        Units units;
        for (const std::uint32_t object : objects) {
            Unit unit;
            for (const auto& entry : m_record.entries)
                if (entry.object == object && entry.kind != Kind::Config)
                    unit.push_back(&entry);
            if (objects.size() > 1)
                units.push_back(std::move(unit));
        }
        return units;
    }

    Unit unitOf(const Call& step) const {
        Unit unit;
        addCall(step, unit);
        switch (step.operation()) {
        case Operation::setPosition:
        case Operation::adjustPosition:
            addEvent(step, UVAEvent::CancelDataRequestsAsync, unit);
            addEvent(step, UVAEvent::SeekCompletedEx, unit);
            break;
        case Operation::pauseAsync:
            addEvent(step, UVAEvent::PauseFinished, unit);
            break;
        case Operation::setActive:
            addEvent(step, UVAEvent::ActiveStateChanged, unit);
            break;
        case Operation::releaseBackendAsynchronously:
            addEvent(step, UVAEvent::AsyncReleaseFinished, unit);
            break;
        case Operation::play:
            addEvent(step, UVAEvent::PlaybackFinished, unit);
            break;
        case Operation::attachSource:
            addFeeding(step, unit);
            break;
        default:
            break;
        }
        return unit;
    }

    static void addCall(const Call& call, Unit& unit) {
        unit.push_back(call.entry);
        if (call.answer != nullptr)
            unit.push_back(call.answer);
        unit.insert(unit.end(), call.samples.begin(), call.samples.end());
    }

    /// The next of this type, unless another call of the kind is before it; and its answers.
    void addEvent(const Call& step, UVAEvent::Type type, Unit& unit) const {
        const auto position = nextLike(step);
        for (const auto& event : m_script.events) {
            if (event.position < step.position || event.type() != type ||
                event.entry->object != step.entry->object)
                continue;
            if (event.position < position)
                addWithAnswers(event, unit);
            return;
        }
    }

    std::size_t nextLike(const Call& step) const {
        for (const auto& other : m_script.steps)
            if (other.position > step.position && other.entry->object == step.entry->object &&
                other.operation() == step.operation())
                return other.position;
        return ~std::size_t{0};
    }

    void addWithAnswers(const Event& event, Unit& unit) const {
        for (const auto& entry : m_record.entries)
            if ((entry.kind == Kind::Event || entry.kind == Kind::Taken) &&
                entry.number == event.entry->number)
                unit.push_back(&entry);
        for (const auto& answer : m_script.answers)
            if (answer.event == event.entry)
                addCall(answer, unit);
    }

    /// What the source that is attached asks for, until one with its number is attached again.
    void addFeeding(const Call& step, Unit& unit) const {
        constexpr std::size_t idOfSource = 3;
        const auto& values = step.entry->values;
        if (values.empty() || values[0].items.size() <= idOfSource)
            return;
        const std::int64_t source = values[0].items[idOfSource].integer;
        const auto end = nextLike(step);
        for (const auto& event : m_script.events)
            if (event.type() == UVAEvent::NeedMSEData && memberOf(*event.entry, 0) == source &&
                event.position > step.position && event.position < end)
                addWithAnswers(event, unit);
    }

    const record::Record& m_record;
    const Script m_script;
    std::size_t m_queries = 0;
};

/// Delta debugging: leaves out ever smaller parts for as long as the failure stays.
class Search {
public:
    Search(const record::Record& record, Units units,
           const std::function<bool(const record::Record&)>& fails,
           const std::function<void(const Try&)>& progress)
        : m_record(record), m_all(units.size()), m_units(std::move(units)), m_fails(fails),
          m_progress(progress) {}

    void leaveOut(std::size_t begin, std::size_t end) {
        Units fewer(m_units.begin(), m_units.begin() + static_cast<std::ptrdiff_t>(begin));
        fewer.insert(fewer.end(), m_units.begin() + static_cast<std::ptrdiff_t>(end),
                     m_units.end());
        m_progress({++m_tries, fewer.size(), m_all});
        auto before = m_gone;
        for (std::size_t i = begin; i < end; ++i)
            m_gone.insert(m_units[i].begin(), m_units[i].end());
        if (m_fails(record::readRecord(bytes())))
            m_units = std::move(fewer);
        else
            m_gone = std::move(before);
    }

    void run() {
        for (std::size_t size = std::max<std::size_t>(m_units.size() / 2, 1);; size /= 2) {
            const std::size_t had = m_units.size();
            for (std::size_t begin = 0; begin < m_units.size();) {
                const std::size_t left = m_units.size();
                leaveOut(begin, std::min(begin + size, left));
                if (m_units.size() == left)
                    begin += size;
            }
            if (size == 1 && m_units.size() == had)
                return;
            size = std::max<std::size_t>(size, 2);
        }
    }

    std::vector<char> bytes() const {
        std::vector<const Entry*> left;
        std::set<std::uint32_t> samples; // whose payload stays
        for (const auto& entry : m_record.entries) {
            if (m_gone.count(&entry) > 0)
                continue;
            if (entry.kind == Kind::Sample)
                samples.insert(entry.number);
            if (entry.kind == Kind::Data && samples.count(entry.number) == 0)
                continue;
            left.push_back(&entry);
        }
        return writeRecord(m_record, left);
    }

    std::size_t count() const { return m_units.size(); }

private:
    const record::Record& m_record;
    const std::size_t m_all;
    Units m_units;
    const std::function<bool(const record::Record&)>& m_fails;
    const std::function<void(const Try&)>& m_progress;
    std::set<const Entry*> m_gone;
    std::size_t m_tries = 0;
};

} // namespace

std::vector<char> minimize(const record::Record& record,
                           const std::function<bool(const record::Record& shorter)>& fails,
                           const std::function<void(const Try& attempt)>& progress) {
    Partition partition(record);
    Search search(record, partition.units(), fails, progress);
    if (partition.queries() > 0)
        search.leaveOut(0, partition.queries());
    search.run();
    return search.bytes();
}

} // namespace replay
