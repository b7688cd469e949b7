#ifndef TIMELINE_TRACE_FILE_H
#define TIMELINE_TRACE_FILE_H

#include "util/scoped_handles.h"

#include <string>
#include <sys/types.h>

namespace timeline {

/// A file that is a whole JSON array at any time, to which several processes and several modules of
/// one add rows. Bound to one thread at a time.
class TraceFile {
public:
    /// Empty; else why there is no such file, and what to do.
    std::string open(const std::string& path);

    enum class Added { All, Nothing, Full };
    /// Rows with commas between them, if the file has that many bytes at most afterwards, or
    /// nearly. Nothing: failure() says why. Waits a second at most for others who add to the file.
    Added add(const std::string& rows, off_t limit);
    const std::string& failure() const { return m_failure; }

private:
    bool lock();
    Added addLocked(const std::string& rows, off_t limit);
    Added fail(const char* what);

    ScopedFd m_file;
    std::string m_path;
    std::string m_failure;
};

} // namespace timeline

#endif
