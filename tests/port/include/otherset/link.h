#pragma once
/**
 * \file   link.h
 * \brief  The other vendor's link: memory of the main system, which hands it out over a socket.
 *
 * The main system owns the memory and its allocator. A client connects to its socket (OTHERSET_LINK, else
 * /tmp/otherset-link; sequenced packets), is given the memory's descriptor, and asks for blocks there. What a client
 * that is gone has left is the main system's again. When that one is gone, there is no memory until its
 * successor listens; blocks of the old memory stay mapped and are nobody's.
 */
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** \brief What a client asks; each has an answer of one word. */
enum OtherSet_Question
{
    OTHERSET_ALLOCATE = 1, /**< so many bytes: the block's address, or 0 */
    OTHERSET_FREE,         /**< the block at an address: 1, or 0 when none begins there */
    OTHERSET_SIZE          /**< of the block at an address, or 0 */
};

struct OtherSet_Request
{
    uint32_t Question, Value;
};

/** \brief The first packet of a connection, with the descriptor. */
struct OtherSet_Welcome
{
    uint32_t Address, Bytes;
};

enum _tagCPUID
{
    CPUID_MAIN,
    CPUID_APPLICATION = 2
};

typedef struct _tagCPUFuncCallParam
{
    void *Opaque[4];
} OtherSet_CallParam;

typedef struct _tagCPUFuncCallReturn
{
    int32_t Result;
} OtherSet_CallReturn;

int32_t TriHidtvRegMap(void);
void TriHidtvRegUnmap(void);

int32_t Trid_Util_CPUComm_Init(uint32_t Reserved);
int32_t Trid_Util_CPUComm_Ready(void);
void Trid_Util_CPUComm_DeInit(void);
void *Trid_Util_CPUComm_Malloc(uint32_t Bytes);
void Trid_Util_CPUComm_Free(void *Block);
uint32_t Trid_Util_CPUComm_Convert2PhyAddr(void *Block);
void *Trid_Util_CPUComm_Convert2VirtualAddr(uint32_t Address);
uint32_t Trid_Util_CPUComm_GetBlockSize(const void *Block);

#ifdef __cplusplus
}
#endif
