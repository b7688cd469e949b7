#include "messaging/timer/time_out_server.h"

#include "debug/trace/zant_trace.h"
#include "messaging/queue/zant_msg.h"
#include "util/cancellation_block.h"

#include <algorithm>
#include <cstdint>
#include <unistd.h>

namespace {

constexpr useconds_t passInterval = 50000;

} // namespace

TimeOutServer& TimeOutServer::instance() {
    static auto& server = *new TimeOutServer;
    return server;
}

void TimeOutServer::AddTimer(TimeOutTimer timer) {
    const CancellationBlock block;
    const MutexLock lock(m_timersMutex);
    ZANT_TRACE(TRACEUNIT_TIMER, TRACELEVEL_DEBUG,
               "TimeOutServer::AddTimer() called %d - Timer-Id = %d  Timeout = %lf  Signal = %ld  "
               "Queue = %d\n",
               m_loopCounter, static_cast<int>(timer.GetTimerId()), timer.GetExpiryTime(),
               static_cast<long>(timer.GetSignalName()), timer.GetQueueId());
    const auto dueEarlier =
        std::find_if(m_timers.begin(), m_timers.end(), [&timer](const TimeOutTimer& other) {
            return other.deadlineInMicroSec() < timer.deadlineInMicroSec();
        });
    m_timers.insert(dueEarlier, timer);
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
    if (!m_timers.empty())
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
}

std::list<TimeOutTimer> TimeOutServer::GetTimers() {
    const CancellationBlock block;
    const MutexLock lock(m_timersMutex);
    return m_timers;
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
        m_timers.pop_back();
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
