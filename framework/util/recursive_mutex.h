#ifndef UTIL_RECURSIVE_MUTEX_H
#define UTIL_RECURSIVE_MUTEX_H

#include "util/cancellation_block.h"
#include "util/thread_annotations.h"

#include <pthread.h>

/// A mutex that its holder may take again, for an object that calls others while it is locked and
/// is called back.
class CAPABILITY("mutex") RecursiveMutex {
public:
    RecursiveMutex() = default;
    RecursiveMutex(const RecursiveMutex&) = delete;
    RecursiveMutex& operator=(const RecursiveMutex&) = delete;

    void lock() ACQUIRE() { pthread_mutex_lock(&m_mutex); }
    void unlock() RELEASE() { pthread_mutex_unlock(&m_mutex); }

private:
    pthread_mutex_t m_mutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
};

/// Holds a recursive mutex for a scope, in which the thread is not cancelled.
class SCOPED_CAPABILITY RecursiveMutexLock {
public:
    explicit RecursiveMutexLock(RecursiveMutex& mutex) ACQUIRE(mutex) : m_mutex(mutex) {
        m_mutex.lock();
    }
    ~RecursiveMutexLock() RELEASE() { m_mutex.unlock(); }
    RecursiveMutexLock(const RecursiveMutexLock&) = delete;
    RecursiveMutexLock& operator=(const RecursiveMutexLock&) = delete;

private:
    CancellationBlock m_block;
    RecursiveMutex& m_mutex;
};

#endif
