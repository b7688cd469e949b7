#include "arena.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <new>
#include <pthread.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#ifdef __SANITIZE_THREAD__
#include <sanitizer/tsan_interface.h>
#endif

namespace cpucomm {

namespace {

constexpr uint32_t unitSize = 64;
/// Where the blocks lie for the other processors.
constexpr uint32_t physicalBase = 0x20000000;
constexpr uint64_t largestArena = 0x40000000;
constexpr uint64_t smallestArena = 16 * unitSize;
/// Says what the memory is laid out for: a process of another word size has another lock.
constexpr uint32_t magic = 0x54524400 + sizeof(pthread_mutex_t);
constexpr time_t longestWait = 1; // seconds

std::string because(const std::string& what) {
    return what + ": " + strerrordesc_np(errno);
}

} // namespace

struct Arena::Header {
    std::atomic<uint32_t> magic;
    uint32_t nrOfUnits;
    pthread_mutex_t mutex;
    /// Where the last allocation ended, the begin of a block or of free units.
    uint32_t next;
    std::atomic<uint32_t> badFrees;
    uint32_t deadOwners;
};

struct Arena::Unit {
    /// In bytes; 0 unless a block begins here.
    std::atomic<uint32_t> size;
    int32_t owner;
};

namespace {

/// That the lock of a dead owner was taken: of the timed call, it does not know.
void tellThreadChecker([[maybe_unused]] pthread_mutex_t& mutex) {
#ifdef __SANITIZE_THREAD__
    __tsan_mutex_pre_lock(&mutex, 0);
    __tsan_mutex_post_lock(&mutex, 0, 0);
#endif
}

} // namespace

/// Holds the lock of the arena, unless a peer that does not let go of it makes that impossible.
class Arena::Lock {
public:
    explicit Lock(Header& header) : m_mutex(header.mutex) {
        // Almost always free. The timed call goes by the wall clock: its counterpart for the
        // monotonic one is unknown to the thread checker.
        int error = pthread_mutex_trylock(&m_mutex);
        if (error == EBUSY) {
            timespec deadline{};
            clock_gettime(CLOCK_REALTIME, &deadline);
            deadline.tv_sec += longestWait;
            error = pthread_mutex_timedlock(&m_mutex, &deadline);
            if (error == EOWNERDEAD)
                tellThreadChecker(m_mutex);
        }
        m_held = error == 0 || error == EOWNERDEAD;
        if (error == EOWNERDEAD) {
            // Every block is whole; only this may lie within one that was just allocated.
            header.next = 0;
            ++header.deadOwners;
            pthread_mutex_consistent(&m_mutex);
        }
        if (!m_held)
            fprintf(stderr, "cpucomm: another process holds the lock of the shared memory: is it "
                            "stopped in a debugger?\n");
    }
    ~Lock() {
        if (m_held)
            pthread_mutex_unlock(&m_mutex);
    }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

    explicit operator bool() const { return m_held; }

private:
    pthread_mutex_t& m_mutex;
    bool m_held;
};

Arena::~Arena() {
    if (m_mapping)
        munmap(m_mapping, m_mappingSize);
    if (m_fd >= 0)
        close(m_fd);
}

/// Who is attached holds a shared lock of the file, which goes with the process whatever its end.
std::string Arena::attach(const std::string& name, uint64_t size) {
    m_name = name;
    for (;;) {
        if (m_fd >= 0)
            close(m_fd);
        m_fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0660);
        if (m_fd < 0)
            return because("cannot open shared memory " + name);
        const bool isFirst = flock(m_fd, LOCK_EX | LOCK_NB) == 0;
        if (isFirst && !isUnlinked()) {
            const std::string failure = makeAnew(size);
            if (!failure.empty())
                return failure;
        }
        // Another may come in between and make it anew as well: so it is looked at afterwards only.
        if (flock(m_fd, LOCK_SH) != 0)
            return because("cannot lock shared memory " + name);
        if (!isUnlinked())
            return map();
    }
}

bool Arena::isUnlinked() const {
    struct stat info {};
    return fstat(m_fd, &info) == 0 && info.st_nlink == 0;
}

std::string Arena::makeAnew(uint64_t size) const {
    const uint64_t usable = std::clamp(size, smallestArena, largestArena);
    const auto nrOfUnits = static_cast<uint32_t>(usable / unitSize);
    const uint64_t total =
        unitSize * 4 + nrOfUnits * (sizeof(Unit) + uint64_t{unitSize}) + unitSize;
    // Emptied first: what was there before must not be taken for blocks.
    if (ftruncate(m_fd, 0) != 0 || ftruncate(m_fd, static_cast<off_t>(total)) != 0)
        return because("cannot make " + std::to_string(total) + " bytes of shared memory " +
                       m_name + " (a smaller TRID_CPUCOMM_SIZE may help)");
    void* const mapping =
        mmap(nullptr, sizeof(Header), PROT_READ | PROT_WRITE, MAP_SHARED, m_fd, 0);
    if (mapping == MAP_FAILED)
        return because("cannot map shared memory " + m_name);
    auto* const header = new (mapping) Header{};
    header->nrOfUnits = nrOfUnits;
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(&header->mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
    header->magic.store(magic, std::memory_order_release);
    munmap(mapping, sizeof(Header));
    return {};
}

std::string Arena::map() {
    static_assert(sizeof(Header) <= size_t{unitSize} * 4);
    struct stat info {};
    if (fstat(m_fd, &info) != 0 || info.st_size < static_cast<off_t>(unitSize * 4))
        return "shared memory " + m_name +
               " is none of this library's: remove it or set "
               "TRID_CPUCOMM_ARENA to another name";
    m_mappingSize = static_cast<size_t>(info.st_size);
    void* const mapping = mmap(nullptr, m_mappingSize, PROT_READ | PROT_WRITE, MAP_SHARED, m_fd, 0);
    if (mapping == MAP_FAILED)
        return because("cannot map shared memory " + m_name);
    m_mapping = mapping;
    m_header = static_cast<Header*>(mapping);
    m_nrOfUnits = m_header->nrOfUnits;
    const uint64_t table = unitSize * 4 + uint64_t{m_nrOfUnits} * sizeof(Unit);
    const uint64_t data = (table + unitSize - 1) / unitSize * unitSize;
    if (m_header->magic.load(std::memory_order_acquire) != magic ||
        data + uint64_t{m_nrOfUnits} * unitSize > m_mappingSize)
        return "shared memory " + m_name +
               " was made by a program of another word size or version: "
               "end all that use it, or set TRID_CPUCOMM_ARENA to another name";
    auto* const bytes = static_cast<std::byte*>(mapping);
    m_units = static_cast<Unit*>(static_cast<void*>(bytes + size_t{unitSize} * 4));
    m_data = bytes + data;
    return {};
}

void Arena::detach() {
    if (m_fd < 0)
        return;
    if (flock(m_fd, LOCK_EX | LOCK_NB) == 0 && !isUnlinked()) {
        reportLeaks();
        shm_unlink(m_name.c_str());
    }
    close(m_fd);
    m_fd = -1;
}

void Arena::reportLeaks() {
    const Statistics left = statistics();
    if (left.blocks == 0)
        return;
    fprintf(stderr, "cpucomm: %u blocks with %llu bytes were never freed in %s:\n", left.blocks,
            static_cast<unsigned long long>(left.bytes), m_name.c_str());
    constexpr int mostLines = 20;
    int lines = 0;
    for (uint32_t unit = 0; unit < m_nrOfUnits && lines < mostLines; unit += unitsOf(unit)) {
        const uint32_t size = m_units[unit].size;
        if (size == 0)
            continue;
        fprintf(stderr, "cpucomm:   0x%08x, %u bytes, allocated by process %d\n",
                physicalBase + unit * unitSize, size, m_units[unit].owner);
        ++lines;
    }
}

/// How many units further the next begins that may be a block's first.
uint32_t Arena::unitsOf(uint32_t unit) const {
    const uint32_t size = m_units[unit].size.load(std::memory_order_relaxed);
    const uint32_t units = size / unitSize + (size % unitSize != 0 ? 1 : 0);
    return std::clamp(units, uint32_t{1}, m_nrOfUnits - unit);
}

uint32_t Arena::findRoom(uint32_t from, uint32_t units) const {
    uint32_t begin = from;
    for (uint32_t unit = from; unit < m_nrOfUnits;) {
        const uint32_t width = unitsOf(unit);
        if (m_units[unit].size.load(std::memory_order_relaxed) != 0)
            begin = unit + width;
        unit += width;
        if (unit >= begin + units)
            return begin;
    }
    return none;
}

/// Goes on where the last allocation ended, so that a freed address stays unused for long.
void* Arena::allocate(uint32_t size, bool dieInTheMiddle) {
    if (size == 0 || size > uint64_t{m_nrOfUnits} * unitSize)
        return nullptr;
    const uint32_t units = (size - 1) / unitSize + 1;
    const Lock lock(*m_header);
    if (!lock)
        return nullptr;
    uint32_t unit = m_header->next < m_nrOfUnits ? findRoom(m_header->next, units) : none;
    if (unit == none)
        unit = findRoom(0, units);
    if (unit == none)
        return nullptr;
    m_units[unit].owner = getpid();
    m_units[unit].size.store(size, std::memory_order_release);
    if (dieInTheMiddle)
        raise(SIGKILL);
    m_header->next = unit + units;
    return m_data + size_t{unit} * unitSize;
}

bool Arena::free(void* block) {
    const uint32_t unit = unitOf(block);
    if (unit != none) {
        const Lock lock(*m_header);
        if (!lock)
            return true; // said already; the block stays allocated
        if (m_units[unit].size.exchange(0) != 0)
            return true;
    }
    ++m_header->badFrees;
    return false;
}

uint32_t Arena::addressOf(const void* block) {
    const uint32_t unit = unitOf(block);
    // Publishes what the block holds to whoever finds it by its address.
    if (unit == none || m_units[unit].size.fetch_add(0, std::memory_order_release) == 0)
        return 0;
    return physicalBase + unit * unitSize;
}

void* Arena::blockAt(uint32_t address) {
    const uint32_t offset = address - physicalBase;
    const uint32_t unit = offset / unitSize;
    if (address < physicalBase || offset % unitSize != 0 || unit >= m_nrOfUnits)
        return nullptr;
    if (m_units[unit].size.load(std::memory_order_acquire) == 0)
        return nullptr;
    return m_data + size_t{unit} * unitSize;
}

/// Never more than what lies between the block and the end: a peer may have written anything.
uint32_t Arena::sizeOf(const void* block) const {
    const uint32_t unit = unitOf(block);
    if (unit == none)
        return 0;
    return std::min(m_units[unit].size.load(), (m_nrOfUnits - unit) * unitSize);
}

uint32_t Arena::unitOf(const void* block) const {
    const auto begin = reinterpret_cast<uintptr_t>(m_data);
    const auto offset = reinterpret_cast<uintptr_t>(block) - begin;
    if (offset % unitSize != 0 || offset / unitSize >= m_nrOfUnits)
        return none;
    return static_cast<uint32_t>(offset / unitSize);
}

Statistics Arena::statistics() {
    Statistics result;
    result.badFrees = m_header->badFrees;
    result.capacity = uint64_t{m_nrOfUnits} * unitSize;
    const Lock lock(*m_header);
    if (!lock)
        return result;
    result.deadOwners = m_header->deadOwners;
    for (uint32_t unit = 0; unit < m_nrOfUnits; unit += unitsOf(unit)) {
        const uint32_t size = m_units[unit].size;
        result.blocks += size != 0 ? 1 : 0;
        result.bytes += size;
    }
    return result;
}

} // namespace cpucomm
