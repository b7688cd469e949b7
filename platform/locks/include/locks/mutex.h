#ifndef LOCKS_MUTEX_H
#define LOCKS_MUTEX_H

#include <mutex>
#include <shared_mutex>

/// The locks of the C++ library in words that clang's thread-safety analysis understands: a member
/// says what guards it, a function which lock its caller holds, and the compiler checks both. Other
/// compilers see nothing of the words.

#if defined(__clang__)
#define LOCKS_ATTRIBUTE(x) __attribute__((x))
#else
#define LOCKS_ATTRIBUTE(x)
#endif

#define GUARDED_BY(mutex) LOCKS_ATTRIBUTE(guarded_by(mutex))
#define REQUIRES(mutex) LOCKS_ATTRIBUTE(requires_capability(mutex))

namespace locks {

template <typename Base>
class LOCKS_ATTRIBUTE(capability("mutex")) Annotated : public Base {};

using Mutex = Annotated<std::mutex>;
using RecursiveMutex = Annotated<std::recursive_mutex>;
using SharedMutex = Annotated<std::shared_mutex>;

/// Holds a mutex for a scope. std::condition_variable waits with it.
template <typename Base>
class LOCKS_ATTRIBUTE(scoped_lockable) Lock : public std::unique_lock<Base> {
public:
    explicit Lock(Annotated<Base>& mutex) LOCKS_ATTRIBUTE(acquire_capability(mutex))
        : std::unique_lock<Base>(mutex) {}
    ~Lock() LOCKS_ATTRIBUTE(release_capability()) {}

    void lock() LOCKS_ATTRIBUTE(acquire_capability()) { std::unique_lock<Base>::lock(); }
    void unlock() LOCKS_ATTRIBUTE(release_capability()) { std::unique_lock<Base>::unlock(); }
};

/// ... together with others who only read.
template <typename Base>
class LOCKS_ATTRIBUTE(scoped_lockable) SharedLock : public std::shared_lock<Base> {
public:
    explicit SharedLock(Annotated<Base>& mutex) LOCKS_ATTRIBUTE(acquire_shared_capability(mutex))
        : std::shared_lock<Base>(mutex) {}
    ~SharedLock() LOCKS_ATTRIBUTE(release_generic_capability()) {}
};

} // namespace locks

#endif
