#ifndef UTIL_THREAD_ANNOTATIONS_H
#define UTIL_THREAD_ANNOTATIONS_H

/// Words for clang's thread-safety analysis: a lock says what it guards, a function says which lock
/// its caller holds, and the compiler checks both. Other compilers see nothing.

#if defined(__clang__)
#define ZANT_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define ZANT_THREAD_ATTRIBUTE(x)
#endif

#define CAPABILITY(name) ZANT_THREAD_ATTRIBUTE(capability(name))
#define SCOPED_CAPABILITY ZANT_THREAD_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(mutex) ZANT_THREAD_ATTRIBUTE(guarded_by(mutex))
#define REQUIRES(...) ZANT_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) ZANT_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) ZANT_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define RELEASE(...) ZANT_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define EXCLUDES(...) ZANT_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define RETURN_CAPABILITY(x) ZANT_THREAD_ATTRIBUTE(lock_returned(x))

#endif
