#include "cpucomm/trid_cpucomm.h"
#include "simulation.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

/// An arena of this test's own.
class CpuComm : public ::testing::Test {
protected:
    CpuComm() {
        setenv("TRID_CPUCOMM_ARENA", m_name.c_str(), 1);
        setenv("TRID_CPUCOMM_SIZE", "256k", 1);
        EXPECT_EQ(Trid_Util_CPUComm_Init(0), 0);
        EXPECT_EQ(Trid_Util_CPUComm_Ready(), 0);
    }
    ~CpuComm() override {
        cpucomm::setFaults("");
        Trid_Util_CPUComm_DeInit();
        EXPECT_EQ(shm_open(m_name.c_str(), O_RDWR, 0), -1) << "the last one out leaves nothing";
        unsetenv("TRID_CPUCOMM_SIZE");
    }

    /// Runs it in another process, attached like this one. How the process ended.
    template <typename Work>
    static int inPeer(Work work) {
        const pid_t peer = fork();
        if (peer == 0) {
            work();
            _exit(0);
        }
        int status = -1;
        waitpid(peer, &status, 0);
        return status;
    }

    const std::string m_name = "/zant_test_arena_" + std::to_string(getpid());
};

TEST_F(CpuComm, BlocksCarryBytesToAnotherProcessWhichFreesThem) {
    auto* const block = static_cast<char*>(Trid_Util_CPUComm_Malloc(22));
    ASSERT_NE(block, nullptr);
    strcpy(block, "to the other one");
    const uint32_t address = Trid_Util_CPUComm_Convert2PhyAddr(block);
    const int status = inPeer([address] {
        auto* const seen = static_cast<char*>(Trid_Util_CPUComm_Convert2VirtualAddr(address));
        const bool same = seen && strcmp(seen, "to the other one") == 0 &&
                          Trid_Util_CPUComm_GetBlockSize(seen) == 22;
        Trid_Util_CPUComm_Free(seen);
        _exit(same ? 0 : 1);
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(Trid_Util_CPUComm_Convert2VirtualAddr(address), nullptr);
    EXPECT_EQ(cpucomm::statistics().blocks, 0u);
}

TEST_F(CpuComm, WhatIsNoBlockIsAnsweredWithNothing) {
    auto* const block = static_cast<char*>(Trid_Util_CPUComm_Malloc(200));
    const uint32_t address = Trid_Util_CPUComm_Convert2PhyAddr(block);
    int local = 0;
    void* const foreign[] = {nullptr,    &local,     block + 1,
                             block + 64, block - 64, reinterpret_cast<void*>(-64)};
    for (void* const pointer : foreign) {
        EXPECT_EQ(Trid_Util_CPUComm_Convert2PhyAddr(pointer), 0u);
        EXPECT_EQ(Trid_Util_CPUComm_GetBlockSize(pointer), 0u);
        Trid_Util_CPUComm_Free(pointer);
    }
    EXPECT_EQ(cpucomm::statistics().badFrees, 5u) << "null is nothing to report";
    for (const uint32_t bogus : {0u, 1u, address + 1, address + 64, address - 64, 0xffffffc0u})
        EXPECT_EQ(Trid_Util_CPUComm_Convert2VirtualAddr(bogus), nullptr) << bogus;

    Trid_Util_CPUComm_Free(block);
    Trid_Util_CPUComm_Free(block);
    EXPECT_EQ(cpucomm::statistics().badFrees, 6u);
    EXPECT_EQ(Trid_Util_CPUComm_Convert2VirtualAddr(address), nullptr);
    EXPECT_EQ(cpucomm::statistics().blocks, 0u);
}

TEST_F(CpuComm, SizesThatCannotBeAreRefusedAndTheWholeArenaCanBeUsed) {
    const auto capacity = static_cast<uint32_t>(cpucomm::statistics().capacity);
    EXPECT_EQ(capacity, 256u << 10);
    for (const uint32_t size : {0u, capacity + 1, 0x80000000u, 0xffffffffu})
        EXPECT_EQ(Trid_Util_CPUComm_Malloc(size), nullptr) << size;
    void* const all = Trid_Util_CPUComm_Malloc(capacity);
    ASSERT_NE(all, nullptr);
    memset(all, 1, capacity);
    EXPECT_EQ(Trid_Util_CPUComm_Malloc(1), nullptr);
    Trid_Util_CPUComm_Free(all);

    std::vector<void*> blocks;
    while (void* const block = Trid_Util_CPUComm_Malloc(100))
        blocks.push_back(block);
    EXPECT_EQ(blocks.size(), capacity / 128);
    for (size_t i = 0; i < blocks.size(); i += 2)
        Trid_Util_CPUComm_Free(blocks[i]);
    EXPECT_EQ(Trid_Util_CPUComm_Malloc(129), nullptr) << "holes of 128 bytes only";
    EXPECT_NE(blocks[0] = Trid_Util_CPUComm_Malloc(128), nullptr);
    Trid_Util_CPUComm_Free(blocks[0]);
    for (size_t i = 1; i < blocks.size(); i += 2)
        Trid_Util_CPUComm_Free(blocks[i]);
}

TEST_F(CpuComm, PeersKilledWithTheLockHeldLeaveAUsableArena) {
    for (int i = 0; i < 20; ++i) {
        const int status = inPeer([] {
            cpucomm::setFaults("die");
            Trid_Util_CPUComm_Malloc(1000);
        });
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
        void* const block = Trid_Util_CPUComm_Malloc(5000);
        ASSERT_NE(block, nullptr) << i;
        Trid_Util_CPUComm_Free(block);
    }
    const auto statistics = cpucomm::statistics();
    EXPECT_EQ(statistics.deadOwners, 20u);
    EXPECT_EQ(statistics.blocks, 20u) << "what the killed ones had is not taken from their readers";
    EXPECT_EQ(statistics.bytes, 20u * 1000);
    testing::internal::CaptureStderr();
    Trid_Util_CPUComm_DeInit();
    EXPECT_NE(testing::internal::GetCapturedStderr().find("20 blocks with 20000 bytes"),
              std::string::npos);
    EXPECT_EQ(Trid_Util_CPUComm_Malloc(1), nullptr);
    ASSERT_EQ(Trid_Util_CPUComm_Init(0), 0);
    EXPECT_EQ(cpucomm::statistics().blocks, 0u) << "whoever comes alone begins anew";
}

TEST_F(CpuComm, FaultsAreSwitchedByName) {
    void* const block = Trid_Util_CPUComm_Malloc(1);
    const uint32_t address = Trid_Util_CPUComm_Convert2PhyAddr(block);
    EXPECT_TRUE(cpucomm::setFaults("malloc,phys"));
    EXPECT_FALSE(cpucomm::setFaults("virtual,nonsense"));
    EXPECT_EQ(Trid_Util_CPUComm_Malloc(1), nullptr);
    EXPECT_EQ(Trid_Util_CPUComm_Convert2PhyAddr(block), 0u);
    EXPECT_EQ(Trid_Util_CPUComm_Convert2VirtualAddr(address), block);
    EXPECT_TRUE(cpucomm::setFaults("virtual"));
    EXPECT_EQ(Trid_Util_CPUComm_Convert2VirtualAddr(address), nullptr);
    Trid_Util_CPUComm_Free(block);
}

TEST(CpuCommWithout, ForeignMemoryThatSomebodyUsesIsRefused) {
    const std::string name = "/zant_test_foreign_" + std::to_string(getpid());
    const int user = shm_open(name.c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_EQ(ftruncate(user, 100000), 0);
    ASSERT_EQ(flock(user, LOCK_SH), 0);
    setenv("TRID_CPUCOMM_ARENA", name.c_str(), 1);
    EXPECT_EQ(Trid_Util_CPUComm_Init(0), -1);
    close(user);
    EXPECT_EQ(Trid_Util_CPUComm_Init(0), 0) << "once it is nobody's it is made anew";
    Trid_Util_CPUComm_DeInit();

    setenv("TRID_CPUCOMM_ARENA", "/no/such/name", 1);
    EXPECT_EQ(Trid_Util_CPUComm_Init(0), -1);
    EXPECT_EQ(Trid_Util_CPUComm_Ready(), -1);
    EXPECT_EQ(Trid_Util_CPUComm_Malloc(1), nullptr);
}

} // namespace
