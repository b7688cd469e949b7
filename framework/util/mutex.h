#ifndef UTIL_MUTEX_H
#define UTIL_MUTEX_H

#include "util/thread_annotations.h"

#include <cerrno>
#include <chrono>
#include <ctime>
#include <pthread.h>

/// A plain mutex that the thread-safety analysis understands. Zeroed storage is an unlocked mutex,
/// and there is nothing to destroy: a mutex with static storage works before its constructor and
/// after every destructor of the process.
class CAPABILITY("mutex") Mutex {
public:
    constexpr Mutex() = default;
    /// One that its holder may take again, for an object that calls others while it is locked and
    /// is called back.
    struct Recursive {};
    constexpr explicit Mutex(Recursive) : m_mutex(PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP) {}
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    ///@{
    /// Bound to the holder's thread; MutexLock does it by scope.
    void lock() ACQUIRE() { pthread_mutex_lock(&m_mutex); }
    void unlock() RELEASE() { pthread_mutex_unlock(&m_mutex); }
    ///@}

    /// The handle, for calls that take a pthread mutex.
    pthread_mutex_t* handle() RETURN_CAPABILITY(this) { return &m_mutex; }

private:
    pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER;
};

/// Holds a mutex for a scope. It may be given back and taken again on the way.
class SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.lock(); }
    ~MutexLock() RELEASE() {
        if (m_held)
            m_mutex.unlock();
    }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

    ///@{
    /// Give it back, and take it again, before the scope ends.
    void unlock() RELEASE() {
        m_held = false;
        m_mutex.unlock();
    }
    void lock() ACQUIRE() {
        m_mutex.lock();
        m_held = true;
    }
    ///@}

private:
    Mutex& m_mutex;
    bool m_held = true;
};

/// As calls on CLOCK_MONOTONIC take it.
inline timespec monotonicTime(std::chrono::steady_clock::time_point time) {
    const auto since = time.time_since_epoch();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(since);
    timespec result{};
    result.tv_sec = static_cast<time_t>(seconds.count());
    result.tv_nsec = static_cast<long>(std::chrono::nanoseconds(since - seconds).count());
    return result;
}

/// A condition variable on the monotonic clock: setting the wall clock neither shortens nor
/// stretches a wait. The caller holds the mutex and waits in a loop on its own predicate.
class ConditionVariable {
public:
    ConditionVariable() {
        pthread_condattr_t attributes;
        pthread_condattr_init(&attributes);
        pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
        pthread_cond_init(&m_condition, &attributes);
        pthread_condattr_destroy(&attributes);
    }
    ~ConditionVariable() { pthread_cond_destroy(&m_condition); }
    ConditionVariable(const ConditionVariable&) = delete;
    ConditionVariable& operator=(const ConditionVariable&) = delete;

    /// Wakes all that wait.
    void broadcast() { pthread_cond_broadcast(&m_condition); }

    /// False when the deadline passed before a wake-up.
    bool waitUntil(Mutex& mutex, std::chrono::steady_clock::time_point deadline) REQUIRES(mutex) {
        const timespec until = monotonicTime(deadline);
        return pthread_cond_timedwait(&m_condition, mutex.handle(), &until) != ETIMEDOUT;
    }

private:
    pthread_cond_t m_condition;
};

#endif
