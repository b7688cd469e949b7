#ifndef UTIL_SANITIZERS_H
#define UTIL_SANITIZERS_H

#if defined(__SANITIZE_ADDRESS__)
#define BUILT_WITH_ADDRESS_SANITIZER
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define BUILT_WITH_ADDRESS_SANITIZER
#endif
#if __has_feature(thread_sanitizer)
#define BUILT_WITH_THREAD_SANITIZER
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#define BUILT_WITH_THREAD_SANITIZER
#endif

#ifdef BUILT_WITH_ADDRESS_SANITIZER
#include <cstddef>
#include <sanitizer/asan_interface.h>
#endif
#ifdef BUILT_WITH_THREAD_SANITIZER
#include <sanitizer/tsan_interface.h>
#endif

namespace sanitizers {

/// Tells the address sanitizer that the caller, and all that it called or was called by, is left
/// without a return, as the functions of a cancelled thread are. What it knows of their frames
/// would be taken for an error of the functions that use the same stack next. Nothing in a build
/// without it.
inline void forgetLeftFrames() {
#ifdef BUILT_WITH_ADDRESS_SANITIZER
    // First the frames of what was called: the sanitizer's own function stands on them and would
    // stumble.
    constexpr size_t depth = 65536;
    __asan_unpoison_memory_region(static_cast<char*>(__builtin_frame_address(0)) - depth, depth);
    __asan_handle_no_return();
#endif
}

/// Tells the thread sanitizer that the calling thread holds a lock, for a scope. It does not see
/// the locks of a thread that was cancelled in a call that it intercepts: it takes that call as
/// never left. Nothing in a build without it.
class SeenLock {
public:
    explicit SeenLock(void* lock) : m_lock(lock) {
#ifdef BUILT_WITH_THREAD_SANITIZER
        __tsan_acquire(m_lock);
#endif
    }
    ~SeenLock() {
#ifdef BUILT_WITH_THREAD_SANITIZER
        __tsan_release(m_lock);
#endif
    }
    SeenLock(const SeenLock&) = delete;
    SeenLock& operator=(const SeenLock&) = delete;

private:
    [[maybe_unused]] void* m_lock;
};

} // namespace sanitizers

#endif
