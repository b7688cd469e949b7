#include "request_ledger.h"

#include <utility>

namespace host {

namespace {

constexpr unsigned int asksBehindData = 2;
constexpr unsigned int asksBehindVoid = 2; // one may be on its way when a seek is begun

} // namespace

RequestLedger::Number RequestLedger::ask(SourceId source, Clock::time_point now) {
    const locks::Lock lock(m_mutex);
    auto& entry = m_sources[source];
    ++m_counts.requests;
    if (std::exchange(entry.isOpen, true))
        entry.voidUpTo = entry.newest;
    if (entry.asksLeft > 0)
        --entry.asksLeft;
    else
        ++m_counts.askedAgain;
    entry.since = now;
    return ++entry.newest;
}

void RequestLedger::answer(SourceId source, Number request) {
    const locks::Lock lock(m_mutex);
    auto& entry = m_sources[source];
    entry.asksLeft = asksBehindData;
    if (request != 0 && request <= entry.voidUpTo)
        return;
    if (entry.isOpen && request == entry.newest)
        settle(entry);
    else
        ++m_counts.unasked;
}

void RequestLedger::end(SourceId source) {
    const locks::Lock lock(m_mutex);
    auto& entry = m_sources[source];
    if (entry.isOpen)
        settle(entry);
    entry.hasEnded = true;
    entry.asksLeft = asksBehindData;
}

void RequestLedger::settle(Source& source) {
    source.isOpen = false;
    ++m_counts.answers;
}

void RequestLedger::makeVoid(Source& source) {
    source.voidUpTo = source.newest;
    source.isOpen = source.hasEnded = false;
    source.asksLeft = asksBehindVoid;
}

void RequestLedger::revoke(SourceId source) {
    const locks::Lock lock(m_mutex);
    makeVoid(m_sources[source]);
}

void RequestLedger::revokeAll(Clock::time_point now, Clock::duration patience,
                              const std::set<SourceId>& excused) {
    const locks::Lock lock(m_mutex);
    for (auto& [id, source] : m_sources) {
        const bool isDue = source.isOpen && !source.hasEnded && excused.count(id) == 0;
        if (isDue && now - source.since > patience)
            ++m_counts.unanswered;
        makeVoid(source);
    }
}

RequestCounts RequestLedger::counts() const {
    const locks::Lock lock(m_mutex);
    return m_counts;
}

} // namespace host
