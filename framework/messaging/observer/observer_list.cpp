#include "messaging/observer/observer_list.h"

#include "debug/trace/zant_trace.h"
#include "util/cancellation_block.h"

#include <algorithm>
#include <iterator>
#include <vector>

namespace {

auto isOf(intptr_t observer, unsigned long signal) {
    return [observer, filter = static_cast<uint32_t>(signal)](const ObserverList::Record& record) {
        return record.observer == observer && record.signalFilter == filter;
    };
}

} // namespace

bool ObserverList::contains(intptr_t observer, unsigned long signal) const {
    const CancellationBlock block;
    const MutexLock lock(m_mutex);
    return std::any_of(m_records.begin(), m_records.end(), isOf(observer, signal));
}

int32_t ObserverList::add(intptr_t observer, long callbackId, long callbackId2,
                          unsigned long signal) {
    const CancellationBlock block;
    const MutexLock lock(m_mutex);
    if (contains(observer, signal)) {
        ZANT_TRACE_STREAM(TRACEUNIT_OBSERVER, TRACELEVEL_ERROR,
                          m_form.alreadyRegistered << m_observable << '\n');
        return observerKnown;
    }
    m_records.push_back({observer, static_cast<int32_t>(callbackId),
                         static_cast<int32_t>(callbackId2), static_cast<uint32_t>(signal),
                         ++m_lastSerial});
    ZANT_TRACE_STREAM(TRACEUNIT_OBSERVER, TRACELEVEL_INFO,
                      m_form.registered << m_observable << '\n');
    return 0;
}

int32_t ObserverList::remove(intptr_t observer, unsigned long signal) {
    const CancellationBlock block;
    const MutexLock lock(m_mutex);
    const size_t before = m_records.size();
    m_records.remove_if(isOf(observer, signal));
    return m_records.size() < before ? 0 : observerUnknown;
}

void ObserverList::clear() {
    const CancellationBlock block;
    const MutexLock lock(m_mutex);
    m_records.clear();
}

int32_t ObserverList::count(unsigned long signal) const {
    const CancellationBlock block;
    const MutexLock lock(m_mutex);
    return static_cast<int32_t>(
        std::count_if(m_records.begin(), m_records.end(), [signal](const Record& record) {
            return record.wants(static_cast<uint32_t>(signal));
        }));
}

int32_t ObserverList::notify(CZantMsg* msg) {
    if (!msg)
        return observerIllegal;
    const CancellationBlock block;
    const MutexLock lock(m_mutex);
    const int32_t nrOfObservers = count(msg->signalId);
    ZANT_TRACE_STREAM(TRACEUNIT_OBSERVER, TRACELEVEL_INFO,
                      m_form.notified << nrOfObservers << '\n');
    if (nrOfObservers >= 2 && payloadHasNoSize(*msg)) {
        ZANT_TRACE(TRACEUNIT_OBSERVER, TRACELEVEL_FATAL, "%s", m_form.sizeless);
        msg->FreeSignal();
        return observerIllegal;
    }
    return deliverToAll(*msg);
}

int32_t ObserverList::deliverToAll(CZantMsg& msg) {
    std::vector<Record> wanting;
    std::copy_if(m_records.begin(), m_records.end(), std::back_inserter(wanting),
                 [&msg](const Record& record) { return record.wants(msg.signalId); });
    int32_t result = 0;
    for (const Record& record : wanting) {
        if (!isRegistered(record))
            continue; // went away when an observer before it was notified
        CZantMsg copy;
        const bool isLast = &record == &wanting.back();
        if (!isLast)
            copy.CopyMsg(msg);
        CZantMsg& delivered = isLast ? msg : copy;
        delivered.param2 = record.callbackId;
        delivered.param3 = record.callbackId2;
        if (const int32_t failed = m_form.deliver(record, delivered))
            result = failed;
    }
    msg.FreeSignal();
    return result;
}

bool ObserverList::isRegistered(const Record& wanted) const {
    return std::any_of(m_records.begin(), m_records.end(),
                       [&wanted](const Record& record) { return record.serial == wanted.serial; });
}
