#include "record_file.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

namespace record {

namespace {

constexpr std::uint64_t mostSegments = 16384; // 64 GB
constexpr std::uint64_t halfSegment = segmentSize / 2;
constexpr int segmentsAhead = 2;

std::uint64_t now(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * 1000000000 +
           static_cast<std::uint64_t>(time.tv_nsec);
}

std::uint64_t segmentOf(std::uint64_t offset) {
    return offset / segmentSize;
}

/// Where entries of the segment end.
std::uint64_t limitOf(std::uint64_t segment) {
    return (segment + 1) * segmentSize - segmentReserve;
}

/// What is written of a segment once it is full, bytes.
std::uint32_t roomOf(std::uint64_t segment) {
    return segmentSize - segmentReserve -
           (segment == 0 ? static_cast<std::uint32_t>(sizeof(FileHeader)) : 0);
}

void setMark(std::uint8_t* place, std::uint64_t mark) {
    static_cast<std::atomic<std::uint64_t>*>(static_cast<void*>(place))
        ->store(mark, std::memory_order_release);
}
static_assert(sizeof(std::atomic<std::uint64_t>) == 8);

/// Before a thread writes to them, which would otherwise wait for the kernel page by page.
void populate(std::uint8_t* base) {
#ifdef MADV_POPULATE_WRITE
    if (madvise(base, segmentSize, MADV_POPULATE_WRITE) == 0)
        return;
#endif
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    for (std::size_t at = 0; at < segmentSize; at += page)
        reinterpret_cast<std::atomic<std::uint8_t>*>(base + at)->fetch_or(0);
}

std::string describe(const std::string& path, int error) {
    return path + ": " + std::strerror(error);
}

/// How far a file may grow, in segments.
std::uint64_t segmentsAllowed() {
    rlimit limit{};
    if (getrlimit(RLIMIT_FSIZE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY)
        return mostSegments;
    return std::min<std::uint64_t>(mostSegments, limit.rlim_cur / segmentSize);
}

} // namespace

std::unique_ptr<RecordFile> RecordFile::create(const std::string& path, Payloads payloads,
                                               std::string& error) {
    ScopedFd file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!file || (flock(file.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK)) {
        error = describe(path, errno) + (file ? " (another process records there; write %p into "
                                                "the name for the process's number)"
                                              : " (name a file that can be written)");
        return nullptr;
    }
    if (ftruncate(file.get(), 0) != 0) {
        error = describe(path, errno) + " (name an ordinary file)";
        return nullptr;
    }
    std::unique_ptr<RecordFile> made(new RecordFile(path, std::move(file), segmentsAllowed()));
    std::uint8_t* const base = made->m_most > 0 ? made->prepare(0, false) : nullptr;
    if (base == nullptr) {
        error = describe(path, made->m_most > 0 ? errno : EFBIG) + " (there must be room for 4 MB)";
        return nullptr;
    }
    FileHeader header{};
    header.version = version;
    header.segmentSize = segmentSize;
    header.wallClock = now(CLOCK_REALTIME);
    header.monotonic = made->m_began;
    header.payloads = payloads;
    header.process = static_cast<std::uint32_t>(getpid());
    std::memcpy(header.magic, magic, sizeof magic);
    std::memcpy(base, &header, sizeof header);
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &before); // the host's signals are for its own threads
    made->m_helper = std::thread([file = made.get()] { file->keepAhead(); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return made;
}

RecordFile::RecordFile(std::string path, ScopedFd file, std::uint64_t most)
    : m_path(std::move(path)), m_file(std::move(file)), m_most(most), m_began(now(CLOCK_MONOTONIC)),
      m_segments(new Segment[mostSegments]) {
    sem_init(&m_wake, 0, 0);
}

RecordFile::~RecordFile() {
    close();
    const MutexLock lock(m_mapping);
    for (std::uint64_t i = m_behind; i < m_most; ++i)
        if (auto* base = m_segments[i].base.exchange(nullptr))
            munmap(base, segmentSize);
    sem_destroy(&m_wake);
}

void RecordFile::append(Kind kind, EntryHeader header, const void* body, std::size_t size) {
    if (size > largestBody)
        return;
    const auto whole = static_cast<std::uint32_t>(alignedUp(sizeof header + size));
    const std::uint64_t offset = reserve(whole);
    std::uint8_t* const place = offset != none ? placeOf(offset) : nullptr;
    if (place == nullptr)
        return;
    constexpr std::size_t behindMark = sizeof header.mark;
    std::memcpy(place + behindMark, reinterpret_cast<std::uint8_t*>(&header) + behindMark,
                sizeof header - behindMark);
    if (size > 0)
        std::memcpy(place + sizeof header, body, size);
    setMark(place, markOf(offset, kind, static_cast<std::uint32_t>(sizeof header + size)));
    commit(offset, whole);
}

/// Where the bytes go; none once the file is closed.
std::uint64_t RecordFile::reserve(std::uint32_t size) {
    std::uint64_t end = m_end.load(std::memory_order_relaxed);
    std::uint64_t begin = 0;
    do {
        if ((end & closedBit) != 0)
            return none;
        const std::uint64_t segment = segmentOf(end);
        begin = end + size <= limitOf(segment) ? end : (segment + 1) * segmentSize;
    } while (!m_end.compare_exchange_weak(end, begin + size, std::memory_order_relaxed));
    if (begin != end)
        pad(end, limitOf(segmentOf(end)));
    if (begin / halfSegment != end / halfSegment)
        sem_post(&m_wake);
    return begin;
}

/// The rest of a segment, which was too short.
void RecordFile::pad(std::uint64_t offset, std::uint64_t end) {
    const auto size = static_cast<std::uint32_t>(end - offset);
    std::uint8_t* const place = size > 0 ? placeOf(offset) : nullptr;
    if (place == nullptr)
        return;
    setMark(place, markOf(offset, Kind::Pad, size));
    commit(offset, size);
}

void RecordFile::commit(std::uint64_t offset, std::uint32_t size) {
    m_segments[segmentOf(offset)].written.fetch_add(size, std::memory_order_release);
}

/// Null: there is no room for it, and the record has ended.
std::uint8_t* RecordFile::placeOf(std::uint64_t offset) {
    const std::uint64_t number = segmentOf(offset);
    std::uint8_t* base = nullptr;
    if (number < m_most)
        base = m_segments[number].base.load(std::memory_order_acquire);
    if (base == nullptr)
        base = prepare(number, true);
    return base != nullptr ? base + offset % segmentSize : nullptr;
}

/// Maps a segment, unless it is. If that fails, and this decides, the record ends.
std::uint8_t* RecordFile::prepare(std::uint64_t number, bool decides) {
    const MutexLock lock(m_mapping);
    if (m_ended)
        return nullptr;
    if (number < m_most)
        if (auto* base = m_segments[number].base.load(std::memory_order_acquire))
            return base;
    const auto begin = static_cast<off_t>(number * segmentSize);
    int error = number < m_most ? posix_fallocate(m_file.get(), begin, segmentSize) : EFBIG;
    void* mapped = MAP_FAILED;
    if (error == 0) {
        mapped =
            mmap(nullptr, segmentSize, PROT_READ | PROT_WRITE, MAP_SHARED, m_file.get(), begin);
        error = mapped == MAP_FAILED ? errno : 0;
    }
    if (error != 0) {
        if (decides)
            endFor(number, error);
        errno = error;
        return nullptr;
    }
    auto* const base = static_cast<std::uint8_t*>(mapped);
    m_segments[number].base.store(base, std::memory_order_release);
    return base;
}

/// In the room that the segment before has kept.
void RecordFile::endFor(std::uint64_t number, int error) REQUIRES(m_mapping) {
    m_ended = true;
    m_end.fetch_or(closedBit);
    std::fprintf(stderr, "uvarecord: %s; the record ends here, all else goes on\n",
                 describe(m_path, error).c_str());
    std::uint8_t* const base = number > 0 ? m_segments[number - 1].base.load() : nullptr;
    if (base == nullptr)
        return;
    const std::uint64_t offset = limitOf(number - 1);
    std::uint8_t* const place = base + offset % segmentSize;
    EntryHeader header{};
    header.time = now(CLOCK_MONOTONIC) - m_began;
    header.number = static_cast<std::uint32_t>(error);
    header.mark = 0;
    std::memcpy(place, &header, sizeof header);
    setMark(place, markOf(offset, Kind::End, sizeof header));
}

void RecordFile::keepAhead() {
    pthread_setname_np(pthread_self(), "uva_record");
    std::uint64_t populated = 0;
    while (!m_stop) {
        const std::uint64_t here = segmentOf(m_end.load(std::memory_order_relaxed) & ~closedBit);
        const auto until = std::min<std::uint64_t>(here + segmentsAhead, m_most);
        for (populated = std::max(populated, here); populated < until && !m_stop; ++populated) {
            std::uint8_t* const base = prepare(populated, false);
            if (base == nullptr)
                break; // whoever needs it will see
            populate(base);
        }
        letGoBehind();
        while (sem_wait(&m_wake) != 0 && errno == EINTR) {
        }
    }
}

/// One stays before the one that is written: should the file end there, the reason goes into it.
void RecordFile::letGoBehind() {
    const std::uint64_t here = segmentOf(m_end.load(std::memory_order_relaxed) & ~closedBit);
    const MutexLock lock(m_mapping);
    for (; m_behind + 1 < here; ++m_behind) {
        Segment& segment = m_segments[m_behind];
        if (segment.written.load(std::memory_order_acquire) != roomOf(m_behind))
            return; // somebody is not done yet
        if (auto* base = segment.base.load())
            munmap(base, segmentSize);
    }
}

void RecordFile::close() {
    const std::uint64_t end = m_end.fetch_or(closedBit);
    if (!m_stop.exchange(true) && m_helper.joinable()) {
        sem_post(&m_wake);
        m_helper.join();
    }
    if ((end & closedBit) != 0)
        return; // as it ended
    const std::uint64_t last = segmentOf(end);
    const std::uint64_t begin = last == 0 ? sizeof(FileHeader) : last * segmentSize;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(200);
    const auto& written = m_segments[last].written;
    while (written.load(std::memory_order_acquire) != end - begin &&
           std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    // Whoever is not through has pages below the end. What is cut off holds nothing.
    if (ftruncate(m_file.get(), static_cast<off_t>(end)) != 0)
        std::fprintf(stderr, "uvarecord: %s\n", describe(m_path, errno).c_str());
}

} // namespace record
