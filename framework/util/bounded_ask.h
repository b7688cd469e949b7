#ifndef UTIL_BOUNDED_ASK_H
#define UTIL_BOUNDED_ASK_H

#include "util/mutex.h"

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <pthread.h>
#include <thread>
#include <utility>

/// Asks something that may wait for a lock that never comes free, on a thread of its own, and goes
/// on without an answer. Only one thread is out at a time, however often is asked. Thread-safe.
template <typename Answer>
class BoundedAsk {
public:
    using Clock = std::chrono::steady_clock;
    using Ask = std::function<Answer()>; ///< throws nothing; may outlive the object

    /// Starts to ask; false: an earlier question is still open. Throws std::system_error when there
    /// is no thread to be had.
    bool begin(Ask ask) {
        if (!m_state->open())
            return false;
        try {
            std::thread([state = m_state, ask = std::move(ask)] {
                pthread_setname_np(pthread_self(), "zant_ask");
                state->close(ask());
            }).detach();
        } catch (...) {
            m_state->close(std::nullopt);
            throw;
        }
        return true;
    }
    /// The answer; none when it has not come until the deadline.
    std::optional<Answer> end(Clock::time_point deadline) { return m_state->wait(deadline); }
    /// How long the open question has been asked for; zero: there is none.
    Clock::duration openFor() { return m_state->openFor(); }

private:
    class State {
    public:
        bool open() EXCLUDES(m_mutex) {
            const MutexLock lock(m_mutex);
            if (m_since)
                return false;
            m_since = Clock::now();
            return true;
        }
        void close(std::optional<Answer> answer) EXCLUDES(m_mutex) {
            const MutexLock lock(m_mutex);
            m_answer = std::move(answer);
            m_since.reset();
            m_changed.broadcast();
        }
        std::optional<Answer> wait(Clock::time_point deadline) EXCLUDES(m_mutex) {
            const MutexLock lock(m_mutex);
            while (m_since && m_changed.waitUntil(m_mutex, deadline)) {
            }
            return m_since ? std::nullopt : m_answer;
        }
        Clock::duration openFor() EXCLUDES(m_mutex) {
            const MutexLock lock(m_mutex);
            return m_since ? Clock::now() - *m_since : Clock::duration::zero();
        }

    private:
        Mutex m_mutex; // a leaf
        ConditionVariable m_changed;
        std::optional<Clock::time_point> m_since GUARDED_BY(m_mutex);
        std::optional<Answer> m_answer GUARDED_BY(m_mutex);
    };

    const std::shared_ptr<State> m_state = std::make_shared<State>();
};

#endif
