#ifndef GLIB_LOCK_H
#define GLIB_LOCK_H

#include <glib.h>

#if defined(__clang__)
#define GUARDED_BY(lock) __attribute__((guarded_by(lock)))
#define REQUIRES(lock) __attribute__((requires_capability(lock)))
#define EXCLUDES(lock) __attribute__((locks_excluded(lock)))
#define LOCK_ATTRIBUTE(x) __attribute__((x))
#else
#define GUARDED_BY(lock)
#define REQUIRES(lock)
#define EXCLUDES(lock)
#define LOCK_ATTRIBUTE(x)
#endif

/// A GMutex that the compiler's lock analysis understands.
class LOCK_ATTRIBUTE(capability("mutex")) GLibMutex {
public:
    GLibMutex() { g_mutex_init(&m_mutex); }
    ~GLibMutex() { g_mutex_clear(&m_mutex); }
    GLibMutex(const GLibMutex&) = delete;
    GLibMutex& operator=(const GLibMutex&) = delete;

    void lock() LOCK_ATTRIBUTE(acquire_capability()) { g_mutex_lock(&m_mutex); }
    void unlock() LOCK_ATTRIBUTE(release_capability()) { g_mutex_unlock(&m_mutex); }

private:
    friend class GLibCondition;
    GMutex m_mutex;
};

class LOCK_ATTRIBUTE(scoped_lockable) GLibLock {
public:
    explicit GLibLock(GLibMutex& mutex) LOCK_ATTRIBUTE(acquire_capability(mutex)) : m_mutex(mutex) {
        m_mutex.lock();
    }
    ~GLibLock() LOCK_ATTRIBUTE(release_capability()) { m_mutex.unlock(); }
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
    void broadcast() { g_cond_broadcast(&m_condition); }

private:
    GCond m_condition;
};

#endif
