#ifndef SUPPORT_PRIVATE_ARENA_H
#define SUPPORT_PRIVATE_ARENA_H

#include "cpucomm/trid_cpucomm.h"
#include "simulation.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

namespace support {

/// Shared memory of this test's own. At the end no block may be left in it.
class PrivateArena {
public:
    PrivateArena() {
        const std::string name = "/zant_test_arena_" + std::to_string(getpid());
        setenv("TRID_CPUCOMM_ARENA", name.c_str(), 1);
        EXPECT_EQ(Trid_Util_CPUComm_Init(0), 0);
    }
    ~PrivateArena() {
        cpucomm::setFaults("");
        EXPECT_EQ(cpucomm::statistics().blocks, 0u);
        EXPECT_EQ(cpucomm::statistics().badFrees, 0u);
        Trid_Util_CPUComm_DeInit();
    }
    PrivateArena(const PrivateArena&) = delete;
    PrivateArena& operator=(const PrivateArena&) = delete;
};

} // namespace support

#endif
