#include "messaging/timer/time_out_server.h"

#include "debug/trace/zant_trace.h"
#include "messaging/queue/zant_msg.h"
#include "util/cancellation_block.h"
#include "util/never_destroyed.h"

#include <algorithm>
#include <cstdint>
#include <unistd.h>

namespace {

constexpr useconds_t passInterval = 50000;

NeverDestroyed<TimeOutServer> serverStorage;

} // namespace

TimeOutServer& TimeOutServer::instance() {
    static const bool built = [] {
        serverStorage.build();
        return true;
    }();
    static_cast<void>(built);
    return serverStorage.object;
}

TimeOutServer::Timers::iterator TimeOutServer::placeFor(const TimeOutTimer& timer) {
    const double deadline = timer.deadlineInMicroSec();
    if (m_byDeadline.size() == m_timers.size()) {
        const auto next = m_byDeadline.upper_bound(deadline);
        return next == m_byDeadline.end() ? m_timers.end() : next->second;
    }
    return std::find_if(m_timers.begin(), m_timers.end(), [deadline](const TimeOutTimer& other) {
        return other.deadlineInMicroSec() < deadline;
    });
}

void TimeOutServer::AddTimer(TimeOutTimer timer) {
    const CancellationBlock block;
    const MutexLock lock(m_timersMutex);
    ZANT_TRACE(TRACEUNIT_TIMER, TRACELEVEL_DEBUG,
               "TimeOutServer::AddTimer() called %d - Timer-Id = %d  Timeout = %lf  Signal = %ld  "
               "Queue = %d\n",
               m_loopCounter, static_cast<int>(timer.GetTimerId()), timer.GetExpiryTime(),
               static_cast<long>(timer.GetSignalName()), timer.GetQueueId());
    const bool isIndexed = m_byDeadline.size() == m_timers.size();
    const auto entry = m_timers.insert(placeFor(timer), timer);
    if (isIndexed)
        m_byDeadline.emplace(timer.deadlineInMicroSec(), entry);
}

TimeOutTimer TimeOutServer::GetEarliestTimer() {
    const CancellationBlock block;
    const MutexLock lock(m_timersMutex);
    if (m_timers.empty())
        return TimeOutTimer(0, SIG_ID_NULL, 0, 0);
    return m_timers.back();
}

void TimeOutServer::PopTimer() {
    const CancellationBlock block;
    const MutexLock lock(m_timersMutex);
    popLast();
}

void TimeOutServer::popLast() {
    if (m_timers.empty())
        return;
    if (!m_byDeadline.empty())
        m_byDeadline.erase(std::prev(m_byDeadline.end()));
    m_timers.pop_back();
}

bool TimeOutServer::IsEmpty() {
    const CancellationBlock block;
    const MutexLock lock(m_timersMutex);
    return m_timers.empty();
}

void TimeOutServer::SortTimer() {
    const CancellationBlock block;
    const MutexLock lock(m_timersMutex);
    m_timers.sort(TimeOutTimerSortPredicate);
    m_byDeadline.clear();
}

void TimeOutServer::DumpList() {
    const CancellationBlock block;
    const MutexLock lock(m_timersMutex);
    ZANT_TRACE_STREAM(TRACEUNIT_TIMER, TRACELEVEL_INFO,
                      "TimeOutServer::DumpList() called - Size = " << m_timers.size() << '\n');
    for (const TimeOutTimer& timer : m_timers)
        ZANT_TRACE(TRACEUNIT_TIMER, TRACELEVEL_INFO, "Signal = %ld, Expiry = %lf\n",
                   static_cast<long>(timer.GetSignalName()), timer.GetExpiryTime());
    ZANT_TRACE(TRACEUNIT_TIMER, TRACELEVEL_INFO, "TimeOutServer::DumpList() called - END\n");
}

void TimeOutServer::sendExpired() {
    const MutexLock lock(m_timersMutex);
    ++m_loopCounter;
    while (!m_timers.empty() && m_timers.back().GetRemainingTime() < 0) {
        const TimeOutTimer& timer = m_timers.back();
        CZantMsg msg = timer.expiryMessage();
        ZANT_TRACE_STREAM(TRACEUNIT_TIMER, TRACELEVEL_INFO,
                          "TimeOutServer::ThreadWorkFunction() "
                              << m_loopCounter
                              << " - Timer-Expiry - Timer-Id = " << timer.GetTimerId()
                              << " Signal = " << timer.GetSignalName() << '\n');
        if (const int32_t failed = msg.SendMsg(timer.GetQueueId(), 0))
            ZANT_TRACE_STREAM(TRACEUNIT_TIMER, TRACELEVEL_ERROR,
                              "TimeOutServer::ThreadWorkFunction() SendMsg with SignalId = "
                                  << timer.GetSignalName() << "failed. Error = " << failed << '\n');
        popLast();
    }
}

void TimeOutServer::ThreadWorkFunction() {
    while (!stopRequested) {
        sendExpired();
        usleep(passInterval);
    }
}

bool TimeOutTimerSortPredicate(TimeOutTimer a, TimeOutTimer b) {
    return a.deadlineInMicroSec() < b.deadlineInMicroSec();
}
