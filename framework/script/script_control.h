#ifndef SCRIPT_CONTROL_H
#define SCRIPT_CONTROL_H

#include "util/mutex.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <utility>

/// Stops a script, and lets it wait for what other threads do. Thread-safe; outlives the run.
class ScriptControl {
public:
    using Clock = std::chrono::steady_clock;
    /// A turn of a program's loop: returns when something may have changed, at that time at the
    /// latest.
    using Turn = std::function<void(Clock::time_point)>;

    ScriptControl() = default;
    /// For a script on the thread of a program's loop: while the script waits the loop turns, so
    /// that the two take turns and need no lock. What scripts wait for is published in these turns.
    explicit ScriptControl(Turn turn) : m_turn(std::move(turn)) {}

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
    /// predicate holds; it may be asked under the lock, and takes none.
    template <typename Predicate>
    bool waitUntil(Clock::time_point deadline, Predicate predicate) EXCLUDES(m_mutex) {
        if (m_turn) {
            while (!m_isStopped && !predicate() && Clock::now() < deadline)
                m_turn(deadline);
            return predicate();
        }
        const MutexLock lock(m_mutex);
        while (!m_isStopped && !predicate() && m_changed.waitUntil(m_mutex, deadline)) {
        }
        return predicate();
    }

private:
    const Turn m_turn; // none: the thread sleeps
    Mutex m_mutex;     // of the condition
    ConditionVariable m_changed;
    std::atomic<bool> m_isStopped{false};
};

#endif
