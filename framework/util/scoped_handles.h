#ifndef UTIL_SCOPED_HANDLES_H
#define UTIL_SCOPED_HANDLES_H

#include "util/scoped_resource.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

/// How the types below close what they hold.
namespace scoped_handles {

///@{
/// Closing on the way out of an error keeps the error for whoever reports it.
inline void closeDescriptor(int descriptor) {
    const int before = errno;
    close(descriptor);
    errno = before;
}

inline void closeFile(FILE* file) {
    const int before = errno;
    fclose(file);
    errno = before;
}
///@}

} // namespace scoped_handles

/// Owns a file descriptor by scope.
using ScopedFd = ScopedResource<int, scoped_handles::closeDescriptor, -1>;
/// Owns a stdio stream by scope.
using ScopedFile = ScopedResource<FILE*, scoped_handles::closeFile, nullptr>;

#endif
