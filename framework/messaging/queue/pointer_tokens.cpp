#include "messaging/queue/pointer_tokens.h"

#include "debug/trace/zant_trace.h"
#include "util/mutex.h"

#include <atomic>
#include <cstring>
#include <sys/auxv.h>

namespace pointer_tokens {

namespace {

void traceFullTable(uint32_t nrOfSlots) {
    ZANT_TRACE(TRACEUNIT_MSG, TRACELEVEL_ERROR,
               "CZantMsg - No room for another payload or timer, %u are under way: is a queue not "
               "read? See m_queuelist\n",
               nrOfSlots - 1);
}

} // namespace

#if UINTPTR_MAX > UINT32_MAX

namespace {

constexpr unsigned indexBits = 18;
constexpr uint32_t nrOfSlots = 1U << indexBits;
constexpr uint32_t indexMask = nrOfSlots - 1;
constexpr uint32_t generationMask = (1U << (32 - indexBits)) - 1;

/// What a slot holds, in one word: size, generation, kind. The kind is 0 while the slot is free.
constexpr uint64_t makeState(uint32_t kind, uint32_t generation, int32_t size) {
    return static_cast<uint64_t>(static_cast<uint32_t>(size)) << 32 |
           static_cast<uint64_t>(generation & generationMask) << 8 | kind;
}

constexpr uint32_t generationOf(uint64_t state) {
    return static_cast<uint32_t>(state >> 8) & generationMask;
}

struct Slot {
    std::atomic<uint64_t> state;
    /// The pointer, or the index of the next free slot.
    std::atomic<uintptr_t> value;
};

// Zero until used, and so without resident memory until used. Slot 0 stays unused: its index ends
// the chain of free slots, and no token is 0.
Slot slots[nrOfSlots];
std::atomic<uint32_t> nextUntouched{1};
/// Guards the chain of free slots; held for a few instructions, nothing is called under it.
Mutex freeSlotsMutex;
uint32_t oldestFree GUARDED_BY(freeSlotsMutex) = 0;
uint32_t newestFree GUARDED_BY(freeSlotsMutex) = 0; ///< means nothing while there is no oldest

/// Where the generations of this process begin, so that the tokens of another process, or of an
/// earlier run left in a queue, do not fit.
uint32_t firstGeneration() {
    static const uint32_t value = [] {
        uint32_t random = 0;
        if (const auto* bytes = reinterpret_cast<const void*>(getauxval(AT_RANDOM)))
            memcpy(&random, bytes, sizeof random);
        return random & generationMask;
    }();
    return value;
}

/// The oldest free slot, so that a stale token meets its slot's next generation as late as
/// possible.
uint32_t popFree() {
    const MutexLock lock(freeSlotsMutex);
    const uint32_t index = oldestFree;
    if (index != 0)
        oldestFree = static_cast<uint32_t>(slots[index].value.load(std::memory_order_relaxed));
    return index;
}

void pushFree(uint32_t index) {
    const MutexLock lock(freeSlotsMutex);
    slots[index].value.store(0, std::memory_order_relaxed);
    if (oldestFree == 0)
        oldestFree = index;
    else
        slots[newestFree].value.store(index, std::memory_order_relaxed);
    newestFree = index;
}

uint32_t untouchedSlot() {
    uint32_t index = nextUntouched.load(std::memory_order_relaxed);
    do {
        if (index == nrOfSlots)
            return 0;
    } while (!nextUntouched.compare_exchange_weak(index, index + 1, std::memory_order_relaxed));
    slots[index].state.store(makeState(0, firstGeneration(), 0), std::memory_order_relaxed);
    return index;
}

} // namespace

uint32_t put(void* pointer, Kind kind, int32_t size) {
    uint32_t index = popFree();
    if (index == 0)
        index = untouchedSlot();
    if (index == 0) {
        traceFullTable(nrOfSlots);
        return 0;
    }
    Slot& slot = slots[index];
    const uint32_t generation = generationOf(slot.state.load(std::memory_order_relaxed));
    slot.value.store(reinterpret_cast<uintptr_t>(pointer), std::memory_order_relaxed);
    slot.state.store(makeState(static_cast<uint32_t>(kind), generation, size),
                     std::memory_order_release);
    return generation << indexBits | index;
}

void* take(uint32_t word, Kind kind, int32_t size) {
    const uint32_t index = word & indexMask;
    if (index == 0)
        return nullptr;
    Slot& slot = slots[index];
    const uint32_t generation = word >> indexBits;
    uint64_t expected = makeState(static_cast<uint32_t>(kind), generation, size);
    if (!slot.state.compare_exchange_strong(expected, makeState(0, generation + 1, 0),
                                            std::memory_order_acq_rel, std::memory_order_relaxed))
        return nullptr;
    // Nobody else touches the slot until it is in the list again.
    void* const pointer = reinterpret_cast<void*>(slot.value.load(std::memory_order_relaxed));
    pushFree(index);
    return pointer;
}

void* find(uint32_t word, Kind kind) {
    const uint32_t index = word & indexMask;
    if (index == 0)
        return nullptr;
    Slot& slot = slots[index];
    const uint64_t state = slot.state.load(std::memory_order_acquire);
    if ((state & 0xff) != static_cast<uint32_t>(kind) || generationOf(state) != word >> indexBits)
        return nullptr;
    const uintptr_t value = slot.value.load(std::memory_order_acquire);
    if (slot.state.load(std::memory_order_relaxed) != state)
        return nullptr;
    return reinterpret_cast<void*>(value);
}

#else

namespace {

struct Slot {
    uint32_t address;
    Kind kind;
    int32_t size;
    uint32_t next;
};

constexpr uint32_t nrOfSlots = 1U << 16;
constexpr uint32_t nrOfBuckets = 1U << 12;

/// Guards the tables; held for a few instructions, nothing is called under it.
Mutex mutex;
// Index 0 ends a list.
Slot slots[nrOfSlots] GUARDED_BY(mutex);
uint32_t buckets[nrOfBuckets] GUARDED_BY(mutex);
uint32_t freeList GUARDED_BY(mutex) = 0;
uint32_t nextUntouched GUARDED_BY(mutex) = 1;

uint32_t& bucketOf(uint32_t address) REQUIRES(mutex) {
    return buckets[(address >> 4 ^ address >> 16) % nrOfBuckets];
}

uint32_t unusedSlot() REQUIRES(mutex) {
    if (freeList != 0) {
        const uint32_t index = freeList;
        freeList = slots[index].next;
        return index;
    }
    return nextUntouched < nrOfSlots ? nextUntouched++ : 0;
}

/// The link to the address's slot: in the bucket or in the slot before. Its value is 0 when the
/// address is not entered.
uint32_t* linkTo(uint32_t address, Kind kind) REQUIRES(mutex) {
    uint32_t* link = &bucketOf(address);
    while (*link != 0 && (slots[*link].address != address || slots[*link].kind != kind))
        link = &slots[*link].next;
    return link;
}

} // namespace

uint32_t put(void* pointer, Kind kind, int32_t size) {
    const auto address = reinterpret_cast<uint32_t>(pointer);
    MutexLock lock(mutex);
    const uint32_t index = unusedSlot();
    if (index == 0) {
        lock.unlock();
        traceFullTable(nrOfSlots);
        return 0;
    }
    uint32_t& bucket = bucketOf(address);
    slots[index] = {address, kind, size, bucket};
    bucket = index;
    return address;
}

void* take(uint32_t word, Kind kind, int32_t size) {
    const MutexLock lock(mutex);
    uint32_t* const link = linkTo(word, kind);
    const uint32_t index = *link;
    if (index == 0 || slots[index].size != size)
        return nullptr;
    *link = slots[index].next;
    slots[index].next = freeList;
    freeList = index;
    return reinterpret_cast<void*>(word);
}

void* find(uint32_t word, Kind kind) {
    const MutexLock lock(mutex);
    return *linkTo(word, kind) != 0 ? reinterpret_cast<void*>(word) : nullptr;
}

#endif

} // namespace pointer_tokens
