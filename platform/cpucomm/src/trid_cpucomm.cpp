#include "cpucomm/trid_cpucomm.h"

#include "arena.h"
#include "locks/mutex.h"
#include "simulation.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>

namespace {

using cpucomm::Arena;

constexpr const char* usualName = "/trid_cpucomm";
constexpr uint64_t usualSize = 4 << 20;

enum Fault : uint32_t { failMalloc = 1, failPhys = 2, failVirtual = 4, die = 8 };

constexpr struct {
    const char* name;
    Fault fault;
} faultNames[] = {
    {"malloc", failMalloc}, {"phys", failPhys}, {"virtual", failVirtual}, {"die", die}};

/// What the process knows of the shared memory. Never destroyed: threads outlive the exit handler
/// that calls Trid_Util_CPUComm_DeInit.
struct State {
    /// Held shared while the arena is used, alone while it is changed for another.
    locks::SharedMutex mutex;
    /// Kept after DeInit, for those who still use blocks of it.
    std::unique_ptr<Arena> arena GUARDED_BY(mutex);
    bool attached GUARDED_BY(mutex) = false;
    std::atomic<uint32_t> faults{0};
};

State& state() {
    static State& object = *new State;
    return object;
}

bool has(Fault fault) {
    return (state().faults & fault) != 0;
}

/// What the call makes of the arena, `without` while there is none.
template <typename Result, typename Call>
Result withArena(Result without, Call call) {
    State& the = state();
    const locks::SharedLock lock(the.mutex);
    return the.attached ? call(*the.arena) : without;
}

std::string fromEnvironment(const char* name, const char* usual) {
    const char* const value = getenv(name);
    return value && *value ? value : usual;
}

uint64_t wantedSize() {
    const std::string text = fromEnvironment("TRID_CPUCOMM_SIZE", "");
    if (text.empty())
        return usualSize;
    char* end = nullptr;
    const unsigned long long number = strtoull(text.c_str(), &end, 10);
    const std::string unit = end;
    const uint64_t factor = unit == "M" ? 1 << 20 : unit == "k" ? 1 << 10 : unit.empty() ? 1 : 0;
    constexpr uint64_t most = 1 << 30;
    if (number > 0 && number <= most && factor != 0 && number * factor <= most)
        return number * factor;
    fprintf(stderr,
            "cpucomm: TRID_CPUCOMM_SIZE '%s' is no size up to 1024M, such as 512k or 4M; taking "
            "4M\n",
            text.c_str());
    return usualSize;
}

} // namespace

namespace cpucomm {

bool setFaults(const std::string& names) {
    uint32_t faults = 0;
    std::istringstream stream(names);
    for (std::string name; std::getline(stream, name, ',');) {
        uint32_t found = 0;
        for (const auto& row : faultNames)
            if (name == row.name)
                found = row.fault;
        if (found == 0)
            return false;
        faults |= found;
    }
    state().faults = faults;
    return true;
}

Statistics statistics() {
    return withArena(Statistics(), [](Arena& arena) { return arena.statistics(); });
}

} // namespace cpucomm

int32_t Trid_Util_CPUComm_Init(uint32_t) {
    State& the = state();
    const locks::Lock lock(the.mutex);
    if (the.attached)
        return 0;
    const std::string faults = fromEnvironment("TRID_CPUCOMM_FAULTS", "");
    if (!faults.empty() && !cpucomm::setFaults(faults))
        fprintf(
            stderr,
            "cpucomm: TRID_CPUCOMM_FAULTS '%s': write malloc, phys, virtual or die, with commas "
            "between\n",
            faults.c_str());
    the.arena = std::make_unique<Arena>();
    const std::string failure =
        the.arena->attach(fromEnvironment("TRID_CPUCOMM_ARENA", usualName), wantedSize());
    if (!failure.empty()) {
        fprintf(stderr, "cpucomm: %s\n", failure.c_str());
        the.arena.reset();
        return -1;
    }
    the.attached = true;
    return 0;
}

int32_t Trid_Util_CPUComm_Ready(void) {
    return withArena(-1, [](Arena&) { return 0; });
}

void Trid_Util_CPUComm_DeInit(void) {
    State& the = state();
    const locks::Lock lock(the.mutex);
    if (!the.attached)
        return;
    the.arena->detach();
    the.attached = false;
}

void* Trid_Util_CPUComm_Malloc(uint32_t size) {
    return withArena(static_cast<void*>(nullptr), [=](Arena& arena) {
        return has(failMalloc) ? nullptr : arena.allocate(size, has(die));
    });
}

void Trid_Util_CPUComm_Free(void* block) {
    if (!block)
        return;
    const bool freed = withArena(true, [=](Arena& arena) { return arena.free(block); });
    if (!freed)
        fprintf(stderr,
                "cpucomm: free of %p, which is no block: freed already, or not from "
                "Trid_Util_CPUComm_Malloc\n",
                block);
}

uint32_t Trid_Util_CPUComm_Convert2PhyAddr(void* block) {
    return withArena(uint32_t{0},
                     [=](Arena& arena) { return has(failPhys) ? 0 : arena.addressOf(block); });
}

void* Trid_Util_CPUComm_Convert2VirtualAddr(uint32_t address) {
    return withArena(static_cast<void*>(nullptr), [=](Arena& arena) {
        return has(failVirtual) ? nullptr : arena.blockAt(address);
    });
}

uint32_t Trid_Util_CPUComm_GetBlockSize(const void* block) {
    return withArena(uint32_t{0}, [=](Arena& arena) { return arena.sizeOf(block); });
}
