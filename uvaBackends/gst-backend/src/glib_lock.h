#ifndef GLIB_LOCK_H
#define GLIB_LOCK_H

#include <glib.h>

#if defined(__SANITIZE_THREAD__)
#define NOX_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define NOX_TSAN 1
#endif
#endif

#ifdef NOX_TSAN
#include <sanitizer/tsan_interface.h>
#endif

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

/// Tells the thread sanitizer what it cannot see, GLib and GStreamer not being instrumented: all
/// that was done before handOver(x) on one thread is visible after takeOver(x) on another. Nothing
/// in other builds.
inline void handOver([[maybe_unused]] void* object) {
#ifdef NOX_TSAN
    __tsan_release(object);
#endif
}
inline void takeOver([[maybe_unused]] void* object) {
#ifdef NOX_TSAN
    __tsan_acquire(object);
#endif
}

/// Scope of a call that GLib or GStreamer makes into `object` from a thread of its own.
class CallbackScope {
public:
    explicit CallbackScope(void* object) : m_object(object) { takeOver(m_object); }
    ~CallbackScope() { handOver(m_object); }
    CallbackScope(const CallbackScope&) = delete;
    CallbackScope& operator=(const CallbackScope&) = delete;

private:
    void* const m_object;
};

/// A GMutex that the compiler's lock analysis and the thread sanitizer understand.
class LOCK_ATTRIBUTE(capability("mutex")) GLibMutex {
public:
    GLibMutex() { g_mutex_init(&m_mutex); }
    ~GLibMutex() { g_mutex_clear(&m_mutex); }
    GLibMutex(const GLibMutex&) = delete;
    GLibMutex& operator=(const GLibMutex&) = delete;

    void lock() LOCK_ATTRIBUTE(acquire_capability()) {
        g_mutex_lock(&m_mutex);
        takeOver(this);
    }
    void unlock() LOCK_ATTRIBUTE(release_capability()) {
        handOver(this);
        g_mutex_unlock(&m_mutex);
    }

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

    void wait(GLibMutex& mutex) REQUIRES(mutex) {
        handOver(&mutex);
        g_cond_wait(&m_condition, &mutex.m_mutex);
        takeOver(&mutex);
    }
    void broadcast() { g_cond_broadcast(&m_condition); }

private:
    GCond m_condition;
};

#endif
