// Any bytes in the shared memory's table of blocks, as a peer that runs wild may leave them:
// addresses are answered with blocks that lie within the memory, or not at all, and a message that
// names one brings at most that block. Input: the table, then what is done with it, a byte each and
// a word.

#include "fuzz_target.h"
#include "input.h"
#include "messaging/queue/zant_msg.h"
#include "messaging/remote/zant_rpc_msg_dest_posix.h"
#include "quiet_traces.h"
#include "shared_memory.h"
#include "simulation.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

// As the simulation lays the memory out: a header with the lock in it, then eight bytes a unit.
constexpr size_t headerSize = 256;
constexpr size_t lockAt = 8;
constexpr size_t behindLock = lockAt + sizeof(pthread_mutex_t);
constexpr size_t unitSize = 64;
constexpr size_t tableSize = 64 * 8;

/// The same memory in the hands of somebody else, who leaves but the lock alone; in the end as
/// before.
class Peer {
public:
    explicit Peer(const fuzz::SharedMemory& memory) : m_bytes(mapped(memory)) {
        std::memcpy(m_before, m_bytes, sizeof m_before);
    }
    ~Peer() {
        write(0, m_before, lockAt);
        write(behindLock, m_before + behindLock, sizeof m_before - behindLock);
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    void scribble(fuzz::Input& input) {
        const auto head = input.text(lockAt);
        const auto rest = input.text(12);
        const auto table = input.text(tableSize);
        write(0, head.data(), head.size());
        write(behindLock, rest.data(), rest.size());
        write(headerSize, table.data(), table.size());
    }

private:
    static uint8_t* mapped(const fuzz::SharedMemory& memory) {
        static uint8_t* const bytes = map(memory);
        return bytes;
    }
    static uint8_t* map(const fuzz::SharedMemory& memory) {
        void* const bytes = mmap(nullptr, headerSize + tableSize, PROT_READ | PROT_WRITE,
                                 MAP_SHARED, memory.descriptor(), 0);
        require(bytes != MAP_FAILED);
        return static_cast<uint8_t*>(bytes);
    }
    void write(size_t at, const void* bytes, size_t size) {
        std::memcpy(m_bytes + at, bytes, size);
    }

    uint8_t* const m_bytes;
    uint8_t m_before[headerSize + tableSize];
};

class Blocks {
public:
    Blocks() : m_base(static_cast<uint8_t*>(Trid_Util_CPUComm_Malloc(1))) {
        require(m_base != nullptr);
        m_physicalBase = Trid_Util_CPUComm_Convert2PhyAddr(m_base);
        m_capacity = cpucomm::statistics().capacity;
        require(m_capacity == tableSize / 8 * unitSize);
        Trid_Util_CPUComm_Free(m_base);
    }

    uint32_t address(uint32_t word) const {
        return m_physicalBase + word % static_cast<uint32_t>(m_capacity + unitSize);
    }
    /// Writes to all of it.
    void use(void* block) const {
        if (block == nullptr)
            return;
        const auto size = Trid_Util_CPUComm_GetBlockSize(block);
        auto* const bytes = static_cast<uint8_t*>(block);
        require(bytes >= m_base && bytes + size <= m_base + m_capacity);
        std::memset(block, 0xa5, size);
    }
    void* somewhere(uint32_t word) const { return m_base + word % (m_capacity + unitSize); }

private:
    uint8_t* m_base;
    uint32_t m_physicalBase;
    uint64_t m_capacity;
};

void receive(CZantRpcMsgDestPosix& destination, uint32_t address, int32_t size) {
    CZantMsg msg(SIG_ID_TEST_RPC);
    msg.sharedAddress = address;
    msg.signalSize = size;
    destination.ProcessZantMsg(&msg);
    require(msg.signalPtr == nullptr);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const fuzz::QuietTraces quiet;
    static const fuzz::SharedMemory memory;
    static CZantRpcMsgDestPosix& destination = *new CZantRpcMsgDestPosix;
    fuzz::Input input(data, size);
    Peer peer(memory);
    const Blocks blocks;
    peer.scribble(input);
    while (input.size() > 0) {
        const auto step = input.byte();
        const auto word = input.take<uint32_t>();
        switch (step % 6) {
        case 0:
            blocks.use(Trid_Util_CPUComm_Convert2VirtualAddr(blocks.address(word)));
            break;
        case 1:
            blocks.use(Trid_Util_CPUComm_Malloc(word % 1024));
            break;
        case 2:
            Trid_Util_CPUComm_Free(Trid_Util_CPUComm_Convert2VirtualAddr(blocks.address(word)));
            break;
        case 3:
            blocks.use(Trid_Util_CPUComm_Convert2PhyAddr(blocks.somewhere(word)) != 0
                           ? blocks.somewhere(word)
                           : nullptr);
            break;
        case 4:
            require(cpucomm::statistics().blocks <= tableSize / 8);
            break;
        default:
            receive(destination, blocks.address(word / 4096 * unitSize),
                    static_cast<int32_t>(word % 4096) - 64);
        }
    }
    return 0;
}
