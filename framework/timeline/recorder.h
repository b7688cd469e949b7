#ifndef TIMELINE_RECORDER_H
#define TIMELINE_RECORDER_H

#include "timeline/trace_file.h"
#include "util/mutex.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace timeline {

/// Collects rows of every thread and has a thread of its own add them to the file. Must stay until
/// the process ends.
class Recorder {
public:
    static constexpr off_t defaultLimit = off_t{256} << 20; // bytes

    explicit Recorder(off_t fileLimit = defaultLimit) : m_fileLimit(fileLimit) {}
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    /// Empty; else why not. Once, before anything else.
    std::string open(const std::string& path);
    /// Never waits for the file. False when it is full: nothing more will be taken.
    bool add(std::string_view row) EXCLUDES(m_mutex);
    /// Returns when all that was added before is in the file, or cannot be. Empty; else why
    /// something is missing.
    std::string flush() EXCLUDES(m_mutex, m_fileMutex);

private:
    static constexpr std::size_t mostBytes = 4 << 20; ///< that wait for the file

    void startWriter() REQUIRES(m_mutex);
    [[noreturn]] void write() EXCLUDES(m_mutex, m_fileMutex);
    void writeOut() EXCLUDES(m_mutex, m_fileMutex);
    std::size_t noteLoss() REQUIRES(m_mutex);

    const off_t m_fileLimit;
    Mutex m_fileMutex; ///< taken before the other
    TraceFile m_file GUARDED_BY(m_fileMutex);

    Mutex m_mutex; ///< a leaf
    ConditionVariable m_changed;
    std::string m_rows GUARDED_BY(m_mutex); ///< with commas between
    std::size_t m_count GUARDED_BY(m_mutex) = 0;
    std::size_t m_lost GUARDED_BY(m_mutex) = 0; ///< that no row tells of yet
    bool m_isFull GUARDED_BY(m_mutex) = false;
    bool m_hasWriter GUARDED_BY(m_mutex) = false;
};

} // namespace timeline

#endif
