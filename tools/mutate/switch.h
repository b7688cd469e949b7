// Included before everything else where faults have been put in by tools/mutate: which one is on.
#ifndef MUTATE_SWITCH_H
#define MUTATE_SWITCH_H

#ifdef __cplusplus

#include <cstdlib>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace mutate {

/// The fault that MUTATE_FAULT names, -1 for none. Read once, without a lock: every thread reads the
/// same.
inline int chosen() noexcept {
    static const int fault = [] {
        const char* const text = getenv("MUTATE_FAULT");
        return text ? atoi(text) : -1;
    }();
    return fault;
}

/// The file that MUTATE_REACHED names: a byte for each fault, set when a test comes by. Shared, so
/// that it survives whatever becomes of the process.
inline unsigned char* reached() noexcept {
    static unsigned char* const bytes = []() -> unsigned char* {
        const char* const path = getenv("MUTATE_REACHED");
        const int fd = path ? open(path, O_RDWR | O_CLOEXEC) : -1;
        if (fd < 0)
            return nullptr;
        void* const memory = mmap(nullptr, 65536, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
        return memory == MAP_FAILED ? nullptr : static_cast<unsigned char*>(memory);
    }();
    return bytes;
}

/// Whether this fault is on.
inline bool on(int fault) noexcept {
    if (unsigned char* const bytes = reached())
        bytes[fault] = 1;
    return chosen() == fault;
}

} // namespace mutate

#endif
#endif
