#ifndef MESSAGING_BLOCK_SIZE_H
#define MESSAGING_BLOCK_SIZE_H

#include "cpucomm/trid_cpucomm.h"

#include <cstdint>

/// Whether a block of shared memory has the bytes that a peer says it has. A vendor's library that
/// does not tell leaves the peer's word, within a bound: no payload of the link is longer.
inline bool blockHolds(const void* block, uint32_t size) {
#ifdef CPUCOMM_WITHOUT_BLOCK_SIZE
    constexpr uint32_t longestPayload = 64 * 1024;
    return block != nullptr && size <= longestPayload;
#else
    return size <= Trid_Util_CPUComm_GetBlockSize(block);
#endif
}

#endif
