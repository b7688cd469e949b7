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

    void wait(GLibMutex& mutex) REQUIRES(mutex) { g_cond_wait(&m_condition, &mutex.m_mutex); }
    /// False when the time, of g_get_monotonic_time(), has come first.
    bool waitUntil(GLibMutex& mutex, gint64 end) REQUIRES(mutex) {
        return g_cond_wait_until(&m_condition, &mutex.m_mutex, end) != FALSE;
    }
    void broadcast() { g_cond_broadcast(&m_condition); }

private:
    GCond m_condition;
};

#endif
