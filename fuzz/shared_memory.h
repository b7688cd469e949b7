#ifndef SHARED_MEMORY_H
#define SHARED_MEMORY_H

#include "cpucomm/trid_cpucomm.h"
#include "fuzz_target.h"

#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace fuzz {

/// Small shared memory of this execution's own, empty in the beginning. Its name is gone from the
/// start: a run that is killed leaves nothing.
class SharedMemory {
public:
    SharedMemory() {
        static const std::string name = "/fuzz_arena_" + std::to_string(getpid());
        static const bool isNamed = setenv("TRID_CPUCOMM_ARENA", name.c_str(), 1) == 0 &&
                                    setenv("TRID_CPUCOMM_SIZE", "4k", 1) == 0;
        require(isNamed && Trid_Util_CPUComm_Init(0) == 0);
        m_descriptor = shm_open(name.c_str(), O_RDWR | O_CLOEXEC, 0);
        require(m_descriptor >= 0 && shm_unlink(name.c_str()) == 0);
    }
    ~SharedMemory() {
        close(m_descriptor);
        Trid_Util_CPUComm_DeInit();
    }
    SharedMemory(const SharedMemory&) = delete;
    SharedMemory& operator=(const SharedMemory&) = delete;

    int descriptor() const { return m_descriptor; }

private:
    int m_descriptor = -1;
};

} // namespace fuzz

#endif
