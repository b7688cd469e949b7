#ifndef CPUCOMM_SIMULATION_H
#define CPUCOMM_SIMULATION_H

#include <cstdint>
#include <string>

/// What only the simulated shared memory offers, for tests and for the simulated main system. The
/// product never includes this. All functions are thread-safe.
///
/// Environment, read by Trid_Util_CPUComm_Init:
///   TRID_CPUCOMM_ARENA    name of the POSIX shared-memory object (/trid_cpucomm)
///   TRID_CPUCOMM_SIZE     bytes, with k or M behind (4M); whoever attaches first decides
///   TRID_CPUCOMM_FAULTS   faults, see setFaults
namespace cpucomm {

/// What is wrong on purpose from now on: names with commas between, none for an empty text.
///   malloc    every allocation fails
///   phys      no block has a physical address
///   virtual   no physical address is a block's
///   die       the next allocation kills the process in the middle of it, with the lock held
/// False, with nothing changed, for any other name.
bool setFaults(const std::string& names);

struct Statistics {
    uint32_t blocks = 0;     ///< allocated now, by all processes together
    uint64_t bytes = 0;      ///< in those blocks, as asked for
    uint32_t badFrees = 0;   ///< by all processes: frees of what was no block
    uint32_t deadOwners = 0; ///< how often a process was found to have died with the lock held
    uint64_t capacity = 0;   ///< bytes that the largest block could have
};

/// All zero while the process is not attached.
Statistics statistics();

} // namespace cpucomm

#endif
