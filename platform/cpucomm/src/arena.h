#ifndef CPUCOMM_ARENA_H
#define CPUCOMM_ARENA_H

#include "simulation.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace cpucomm {

/// One mapping of the shared memory: a table of units of 64 bytes, and the units. A block is a run
/// of units; the table's entry of its first unit holds its size and is all there is to know of it,
/// so that writing that one word allocates or frees. A process that dies in between leaves nothing
/// half done. Thread-safe once attached; between processes a robust lock orders allocations and
/// frees.
class Arena {
public:
    Arena() = default;
    ~Arena();
    Arena(const Arena&) = delete;
    Arena& operator=(const Arena&) = delete;

    /// Maps the object of that name. Whoever finds nobody else attached makes it anew, with `size`
    /// bytes of units; others take it as it is. Why not, or an empty text.
    std::string attach(const std::string& name, uint64_t size);
    /// Lets go of the object but keeps the mapping. The last one out reports on standard error what
    /// nobody freed and removes the object.
    void detach();

    void* allocate(uint32_t size, bool dieInTheMiddle);
    /// False if there is no block.
    bool free(void* block);
    uint32_t addressOf(const void* block);
    void* blockAt(uint32_t address);
    uint32_t sizeOf(const void* block) const;
    Statistics statistics();

private:
    struct Header;
    struct Unit;
    class Lock;
    static constexpr uint32_t none = UINT32_MAX;

    std::string makeAnew(uint64_t size) const;
    std::string map();
    bool isUnlinked() const;
    uint32_t findRoom(uint32_t from, uint32_t units) const;
    uint32_t unitsOf(uint32_t unit) const;
    uint32_t unitOf(const void* block) const;
    void reportLeaks();

    std::string m_name;
    int m_fd = -1;
    void* m_mapping = nullptr;
    size_t m_mappingSize = 0;
    Header* m_header = nullptr;
    Unit* m_units = nullptr;
    std::byte* m_data = nullptr;
    /// Our own copy: a peer may write anything into the header.
    uint32_t m_nrOfUnits = 0;
};

} // namespace cpucomm

#endif
