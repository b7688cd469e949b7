#ifndef SHARED_MEMORY_H
#define SHARED_MEMORY_H

#include "cpucomm/trid_cpucomm.h"
#include "fuzz_target.h"

#include <cstdlib>
#include <string>
#include <unistd.h>

namespace fuzz {

/// The name of shared memory that no other process has.
inline const std::string& sharedMemoryName() {
    static const std::string name = "/fuzz_arena_" + std::to_string(getpid());
    return name;
}

/// Small shared memory of this execution's own, empty in the beginning.
class SharedMemory {
public:
    SharedMemory() {
        static const bool isNamed =
            setenv("TRID_CPUCOMM_ARENA", sharedMemoryName().c_str(), 1) == 0 &&
            setenv("TRID_CPUCOMM_SIZE", "4k", 1) == 0;
        require(isNamed && Trid_Util_CPUComm_Init(0) == 0);
    }
    ~SharedMemory() { Trid_Util_CPUComm_DeInit(); }
    SharedMemory(const SharedMemory&) = delete;
    SharedMemory& operator=(const SharedMemory&) = delete;
};

} // namespace fuzz

#endif
