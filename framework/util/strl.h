#ifndef UTIL_STRL_H
#define UTIL_STRL_H

#include <string.h>

#ifndef HAVE_STRLCPY
///@{
/// Bounded copies, from here only where the C library has none of its own.
///
/// Both leave at most size - 1 characters in `destination`, always terminated when size > 0, and
/// return the length that the whole result would have had: at least `size` says that it was cut.
/// strlcat counts a `destination` without terminator as `size` characters and leaves it alone.
/// Source and destination are terminated strings and do not overlap.
inline size_t strlcpy(char* destination, const char* source, size_t size) {
    const size_t length = strlen(source);
    if (size > 0) {
        const size_t copied = length < size ? length : size - 1;
        memcpy(destination, source, copied);
        destination[copied] = '\0';
    }
    return length;
}

inline size_t strlcat(char* destination, const char* source, size_t size) {
    const size_t length = strnlen(destination, size);
    return length + strlcpy(destination + length, source, size - length);
}
///@}
#endif

#endif
