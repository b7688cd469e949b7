#ifndef GLIB_LOCK_H
#define GLIB_LOCK_H

#include "util/thread_annotations.h"

#include <glib.h>

/// A GMutex that the compiler's lock analysis understands.
class CAPABILITY("mutex") GLibMutex {
public:
    GLibMutex() { g_mutex_init(&m_mutex); }
    ~GLibMutex() { g_mutex_clear(&m_mutex); }
    GLibMutex(const GLibMutex&) = delete;
    GLibMutex& operator=(const GLibMutex&) = delete;

    void lock() ACQUIRE() { g_mutex_lock(&m_mutex); }
    void unlock() RELEASE() { g_mutex_unlock(&m_mutex); }

private:
    friend class GLibCondition;
    GMutex m_mutex;
};

class SCOPED_CAPABILITY GLibLock {
public:
    explicit GLibLock(GLibMutex& mutex) ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.lock(); }
    ~GLibLock() RELEASE() { m_mutex.unlock(); }
    GLibLock(const GLibLock&) = delete;
    GLibLock& operator=(const GLibLock&) = delete;

private:
    GLibMutex& m_mutex;
};

class GLibCondition {
public:
    GLibCondition() { g_cond_init(&m_condition); }
    ~GLibCondition() { g_cond_clear(&m_condition); }
    GLibCondition(const GLibCondition&) = delete;
    GLibCondition& operator=(const GLibCondition&) = delete;

    void wait(GLibMutex& mutex) REQUIRES(mutex) {
        ++m_waiting;
        g_cond_wait(&m_condition, &mutex.m_mutex);
        --m_waiting;
    }
    /// False when the time, of g_get_monotonic_time(), has come first.
    bool waitUntil(GLibMutex& mutex, gint64 end) REQUIRES(mutex) {
        ++m_waiting;
        const bool woken = g_cond_wait_until(&m_condition, &mutex.m_mutex, end) != FALSE;
        --m_waiting;
        return woken;
    }
    /// Under the mutex that is waited with; where nobody waits it costs no call of the kernel.
    void broadcast(GLibMutex& mutex) REQUIRES(mutex) {
        static_cast<void>(mutex);
        if (m_waiting > 0)
            g_cond_broadcast(&m_condition);
    }

private:
    GCond m_condition;
    int m_waiting = 0; // guarded by the mutex that is waited with
};

#endif
