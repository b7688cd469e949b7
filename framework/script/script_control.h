#ifndef SCRIPT_CONTROL_H
#define SCRIPT_CONTROL_H

#include "util/mutex.h"

#include <atomic>
#include <chrono>

/// Stops a script, and lets it wait for what other threads do. Thread-safe; outlives the run.
class ScriptControl {
public:
    using Clock = std::chrono::steady_clock;

    /// Ends the script at its next step, and a wait at once. There is no way back.
    void stop() EXCLUDES(m_mutex) {
        m_isStopped = true;
        wake();
    }
    /// Whether stop() was called.
    bool isStopped() const { return m_isStopped; }
    /// Has a waiting script look again.
    void wake() EXCLUDES(m_mutex) {
        const MutexLock lock(m_mutex);
        m_changed.broadcast();
    }

    /// Waits until the predicate holds, the script is stopped or the time has come. Whether the
    /// predicate holds; it is asked under the lock, and takes none.
    template <typename Predicate>
    bool waitUntil(Clock::time_point deadline, Predicate predicate) EXCLUDES(m_mutex) {
        const MutexLock lock(m_mutex);
        while (!m_isStopped && !predicate() && m_changed.waitUntil(m_mutex, deadline)) {
        }
        return predicate();
    }

private:
    Mutex m_mutex; // of the condition
    ConditionVariable m_changed;
    std::atomic<bool> m_isStopped{false};
};

#endif
