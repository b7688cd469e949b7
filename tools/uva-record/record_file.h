#ifndef UVA_RECORD_RECORD_FILE_H
#define UVA_RECORD_RECORD_FILE_H

#include "format.h"
#include "util/mutex.h"
#include "util/scoped_handles.h"

#include <atomic>
#include <memory>
#include <semaphore.h>
#include <string>
#include <thread>

namespace record {

/// A record that is written. The file is mapped, shared: what has been noted is in it even when
/// the process is killed in the next instruction. Threads reserve their room with one atomic
/// operation; a thread of its own has the pages ahead of them ready and lets go of those behind.
///
/// A file that cannot grow is closed with the reason in it and on standard error, and nothing is
/// noted any more. A process that forks records in the parent alone. Thread-safe.
class RecordFile {
public:
    /// Null when the file cannot be written; then `error` says why and what to do.
    static std::unique_ptr<RecordFile> create(const std::string& path, Payloads payloads,
                                              std::string& error);

    /// As close() does. Nobody may be writing any more.
    ~RecordFile();
    RecordFile(const RecordFile&) = delete;
    RecordFile& operator=(const RecordFile&) = delete;

    /// The header's mark is filled in here; a body beyond largestBody is not taken.
    void append(Kind kind, EntryHeader header, const void* body, std::size_t size);

    /// Nothing is taken from now on; the file is cut to what is in it once those who are writing
    /// have done so. Late ones may still call append().
    void close();
    void abandon() { m_end.fetch_or(closedBit, std::memory_order_relaxed); } ///< in a child

    std::uint64_t began() const { return m_began; } ///< nanoseconds of CLOCK_MONOTONIC

private:
    RecordFile(std::string path, ScopedFd file, std::uint64_t most);

    /// Part of the file. Let go of once all of it is written.
    struct Segment {
        std::atomic<std::uint8_t*> base{nullptr};
        std::atomic<std::uint32_t> written{0}; ///< bytes
    };

    std::uint64_t reserve(std::uint32_t size);
    void pad(std::uint64_t offset, std::uint64_t end);
    void commit(std::uint64_t offset, std::uint32_t size);
    std::uint8_t* placeOf(std::uint64_t offset);
    std::uint8_t* prepare(std::uint64_t number, bool decides);
    void endFor(std::uint64_t number, int error);
    void keepAhead();
    void letGoBehind();

    static constexpr std::uint64_t closedBit = 1; // places are multiples of 8
    static constexpr std::uint64_t none = ~std::uint64_t{0};

    const std::string m_path;
    const ScopedFd m_file;
    const std::uint64_t m_most; // segments
    const std::uint64_t m_began;
    const std::unique_ptr<Segment[]> m_segments;
    std::atomic<std::uint64_t> m_end{sizeof(FileHeader)};
    std::atomic<bool> m_stop{false};
    Mutex m_mapping; // held while a segment is mapped or let go of; nothing of ours is called
    std::uint64_t m_behind GUARDED_BY(m_mapping) = 0; // all before are let go of
    bool m_ended GUARDED_BY(m_mapping) = false;
    sem_t m_wake;
    std::thread m_helper;
};

} // namespace record

#endif
