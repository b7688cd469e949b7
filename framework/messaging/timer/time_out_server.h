#ifndef MESSAGING_TIME_OUT_SERVER_H
#define MESSAGING_TIME_OUT_SERVER_H

#include "messaging/thread/thread_object.h"
#include "messaging/timer/time_out_timer.h"
#include "util/mutex.h"

#include <list>

/// Sends the messages of all timers of the process, up to 50 ms late. An application that uses
/// timers calls StartThread on it once. Never destroyed. All functions are thread-safe.
class TimeOutServer : public CThreadObject {
public:
    static TimeOutServer& instance();

    TimeOutServer() = default;

    /// Enters a copy of a started timer. The list is kept in the order of decreasing remaining
    /// time, newer copies behind older ones of the same.
    void AddTimer(TimeOutTimer timer) EXCLUDES(m_timersMutex);
    /// A copy of the last timer of the list; an idle one when the list is empty.
    TimeOutTimer GetEarliestTimer() EXCLUDES(m_timersMutex);
    /// Removes the last timer of the list.
    void PopTimer() EXCLUDES(m_timersMutex);
    bool IsEmpty() EXCLUDES(m_timersMutex);
    /// Sorts the list with TimeOutTimerSortPredicate, that is the other way round than AddTimer
    /// keeps it: for reading a dump, not for a server at work.
    void SortTimer() EXCLUDES(m_timersMutex);
    /// A copy of the list.
    std::list<TimeOutTimer> GetTimers() EXCLUDES(m_timersMutex);
    /// Traces the list.
    void DumpList() EXCLUDES(m_timersMutex);
    void ThreadWorkFunction() override;

private:
    void sendExpired() EXCLUDES(m_timersMutex);

    /// Guards the list. Messages are sent under it.
    Mutex m_timersMutex;
    std::list<TimeOutTimer> m_timers GUARDED_BY(m_timersMutex);
    int m_loopCounter GUARDED_BY(m_timersMutex) = 0;
};

/// True when `a` has less time left than `b`.
bool TimeOutTimerSortPredicate(TimeOutTimer a, TimeOutTimer b);

#endif
