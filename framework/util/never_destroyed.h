#ifndef UTIL_NEVER_DESTROYED_H
#define UTIL_NEVER_DESTROYED_H

#include <new>
#include <utility>

/// Static storage for an object that is built at load and never destroyed, because threads outlive
/// static destruction. The storage is zero until build() runs and costs no resident memory until
/// it is touched; a reference to `object` is a constant and may be bound before.
template <typename T>
union NeverDestroyed {
    constexpr NeverDestroyed() : nothing() {}
    ~NeverDestroyed() {}
    NeverDestroyed(const NeverDestroyed&) = delete;
    NeverDestroyed& operator=(const NeverDestroyed&) = delete;

    template <typename... Arguments>
    void build(Arguments&&... arguments) {
        new (&object) T(std::forward<Arguments>(arguments)...);
    }

    char nothing;
    T object;
};

#endif
