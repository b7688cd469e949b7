#ifndef UTIL_SANITIZERS_H
#define UTIL_SANITIZERS_H

#if defined(__SANITIZE_ADDRESS__)
#define BUILT_WITH_ADDRESS_SANITIZER
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define BUILT_WITH_ADDRESS_SANITIZER
#endif
#endif

#ifdef BUILT_WITH_ADDRESS_SANITIZER
#include <sanitizer/asan_interface.h>
#endif

namespace sanitizers {

/// Tells the address sanitizer that functions were left without a return, as those of a cancelled
/// thread are. What it knows of their frames would be taken for an error of the functions that use
/// the same stack next. Nothing in a build without it.
inline void forgetLeftFrames() {
#ifdef BUILT_WITH_ADDRESS_SANITIZER
    __asan_handle_no_return();
#endif
}

} // namespace sanitizers

#endif
