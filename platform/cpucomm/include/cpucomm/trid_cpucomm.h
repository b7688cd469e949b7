#ifndef CPUCOMM_TRID_CPUCOMM_H
#define CPUCOMM_TRID_CPUCOMM_H

/// The chip vendor's CPU-communication library: memory that the processors of the chip, and so the
/// processes on them, share. Blocks of it carry what is too long for a message; the message carries
/// the block's physical address.
///
/// All functions are thread-safe, never wait longer than a second, and may be called before
/// Trid_Util_CPUComm_Init and after Trid_Util_CPUComm_DeInit: there is no memory then. Usable from
/// C.

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/// A processor as the addressee of a remote call.
enum _tagCPUID {
    CPUID_MAIN = 0,       ///< where the main system runs
    CPUID_APPLICATION = 2 ///< where the media processes run
};

/// What a remotely called routine is given.
struct _tagCPUFuncCallParam {
    uint32_t word[8];
};
/// What a remotely called routine answers.
struct _tagCPUFuncCallReturn {
    uint32_t word[8];
};

/// Attaches the process to the shared memory; the argument is 0. 0, or -1 when there is none.
/// Blocks obtained before an earlier Trid_Util_CPUComm_DeInit are invalid afterwards.
int32_t Trid_Util_CPUComm_Init(uint32_t reserved);

/// Says that the process is set up. 0, or -1 before a successful Trid_Util_CPUComm_Init.
int32_t Trid_Util_CPUComm_Ready(void);

/// Leaves the shared memory. Blocks stay mapped for threads that are still at work on them, and
/// stay allocated for the process that has their address.
void Trid_Util_CPUComm_DeInit(void);

/// Allocates a block of `size` bytes, of any content. Null for a size of 0 or without room. The
/// block is nobody's in particular: whoever is told its address last frees it.
void* Trid_Util_CPUComm_Malloc(uint32_t size);

/// Frees a block, whichever process it came from. Anything that is no block (null, a freed one, an
/// address within one) is left alone and reported; null silently.
void Trid_Util_CPUComm_Free(void* block);

/// The physical address of a block, 0 for what is none. What was written to the block before is
/// seen by whoever converts the address back.
uint32_t Trid_Util_CPUComm_Convert2PhyAddr(void* block);

/// The block at a physical address, null if none begins there.
void* Trid_Util_CPUComm_Convert2VirtualAddr(uint32_t address);

/// The size in bytes that the block was allocated with, 0 for what is no block. What a peer says of
/// a block's length is held against it.
uint32_t Trid_Util_CPUComm_GetBlockSize(const void* block);

#ifdef __cplusplus
} // extern "C"
#endif

#endif
