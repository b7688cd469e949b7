#ifndef UTIL_SCOPED_HANDLES_H
#define UTIL_SCOPED_HANDLES_H

#include "util/scoped_resource.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace scoped_handles {

// Closing on the way out of an error keeps the error for whoever reports it.
inline void closeDescriptor(int descriptor) {
    const int before = errno;
    close(descriptor);
    errno = before;
}

inline void closeDirectory(DIR* directory) {
    const int before = errno;
    closedir(directory);
    errno = before;
}

inline void closeFile(FILE* file) {
    const int before = errno;
    fclose(file);
    errno = before;
}

} // namespace scoped_handles

using ScopedFd = ScopedResource<int, scoped_handles::closeDescriptor, -1>;
using ScopedDir = ScopedResource<DIR*, scoped_handles::closeDirectory, nullptr>;
using ScopedFile = ScopedResource<FILE*, scoped_handles::closeFile, nullptr>;

/// A second descriptor of the same file, closed on exec; invalid, with errno, on failure.
inline ScopedFd dup(const ScopedFd& descriptor) {
    return ScopedFd(fcntl(descriptor.get(), F_DUPFD_CLOEXEC, 0));
}

/// Owns a memory mapping. Bound to one thread at a time.
class ScopedMapping {
public:
    ScopedMapping() = default;
    /// Adopts a mapping of `size` bytes, or the failure of mmap.
    ScopedMapping(void* address, size_t size)
        : m_address(address == MAP_FAILED ? nullptr : address), m_size(m_address ? size : 0) {}
    ScopedMapping(ScopedMapping&& other) noexcept
        : m_address(std::exchange(other.m_address, nullptr)),
          m_size(std::exchange(other.m_size, 0)) {}
    ScopedMapping& operator=(ScopedMapping&& other) noexcept {
        std::swap(m_address, other.m_address);
        std::swap(m_size, other.m_size);
        return *this;
    }
    ScopedMapping(const ScopedMapping&) = delete;
    ScopedMapping& operator=(const ScopedMapping&) = delete;
    ~ScopedMapping() {
        if (m_address)
            munmap(m_address, m_size);
    }

    void* address() const { return m_address; }
    size_t size() const { return m_size; }
    explicit operator bool() const { return m_address != nullptr; }

private:
    void* m_address = nullptr;
    size_t m_size = 0;
};

#endif
