#include <otherset/link.h>

#include <pthread.h>
#include <stdbool.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

/* The memory of one main system. Kept to the end of the process: somebody may still be in a block. */
struct Region
{
    const struct Region *Older;
    uint8_t *Memory;
    uint32_t Address, Bytes;
};

static pthread_mutex_t Lock = PTHREAD_MUTEX_INITIALIZER;
static const struct Region *Newest;
static int Socket = -1;
static bool Wanted; /* between Init and DeInit */

static void Disconnect(void)
{
    if (Socket >= 0)
        close(Socket);
    Socket = -1;
}

static bool Welcome(int Connection)
{
    struct OtherSet_Welcome Hello;
    char Control[CMSG_SPACE(sizeof(int))];
    struct iovec Bytes = {&Hello, sizeof Hello};
    struct msghdr Message = {.msg_iov = &Bytes, .msg_iovlen = 1, .msg_control = Control, .msg_controllen = sizeof Control};
    if (recvmsg(Connection, &Message, MSG_CMSG_CLOEXEC) != (ssize_t)sizeof Hello)
        return false;
    const struct cmsghdr *Header = CMSG_FIRSTHDR(&Message);
    if (!Header || Header->cmsg_type != SCM_RIGHTS)
        return false;
    int Descriptor;
    memcpy(&Descriptor, CMSG_DATA(Header), sizeof Descriptor);
    if (Newest && Newest->Address == Hello.Address) /* the same main system as before */
    {
        close(Descriptor);
        return true;
    }
    void *Memory = mmap(NULL, Hello.Bytes, PROT_READ | PROT_WRITE, MAP_SHARED, Descriptor, 0);
    close(Descriptor);
    struct Region *Region = malloc(sizeof *Region);
    if (Memory == MAP_FAILED || !Region)
    {
        free(Region);
        return false;
    }
    *Region = (struct Region){Newest, Memory, Hello.Address, Hello.Bytes};
    Newest = Region;
    return true;
}

static bool Connect(void)
{
    const char *Path = getenv("OTHERSET_LINK");
    struct sockaddr_un Name = {.sun_family = AF_UNIX};
    strncpy(Name.sun_path, Path ? Path : "/tmp/otherset-link", sizeof Name.sun_path - 1);
    const struct timeval Patience = {.tv_usec = 300000};
    Socket = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (Socket < 0)
        return false;
    setsockopt(Socket, SOL_SOCKET, SO_RCVTIMEO, &Patience, sizeof Patience);
    setsockopt(Socket, SOL_SOCKET, SO_SNDTIMEO, &Patience, sizeof Patience);
    if (connect(Socket, (const struct sockaddr *)&Name, sizeof Name) == 0 && Welcome(Socket))
        return true;
    Disconnect();
    return false;
}

/* The answer, or 0 when nobody gives one in time. The lock is held. */
static uint32_t Ask(enum OtherSet_Question Question, uint32_t Value)
{
    const struct OtherSet_Request Request = {Question, Value};
    uint32_t Answer = 0;
    if (Socket < 0)
        return 0;
    if (send(Socket, &Request, sizeof Request, MSG_NOSIGNAL) == (ssize_t)sizeof Request &&
        recv(Socket, &Answer, sizeof Answer, 0) == (ssize_t)sizeof Answer)
        return Answer;
    Disconnect(); /* a late answer would be taken for the next one's */
    return 0;
}

/* Whether there is a main system, perhaps another than last time. The lock is held. */
static bool Attached(void)
{
    char Byte;
    if (Socket >= 0 && recv(Socket, &Byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0)
        Disconnect();
    return Wanted && (Socket >= 0 || Connect());
}

/* The address of what lies in today's memory, else 0. The lock is held. */
static uint32_t AddressOf(const void *Block)
{
    const uint8_t *Byte = Block;
    if (!Newest || Byte < Newest->Memory || Byte >= Newest->Memory + Newest->Bytes)
        return 0;
    return Newest->Address + (uint32_t)(Byte - Newest->Memory);
}

static void *Malloc(uint32_t Bytes)
{
    const uint32_t Address = Bytes && Attached() ? Ask(OTHERSET_ALLOCATE, Bytes) : 0;
    return Address ? Newest->Memory + (Address - Newest->Address) : NULL;
}

static void *ConvertToVirtual(uint32_t Address)
{
    return Address && Attached() && Ask(OTHERSET_SIZE, Address) ? Newest->Memory + (Address - Newest->Address) : NULL;
}

int32_t TriHidtvRegMap(void)
{
    return 0;
}

void TriHidtvRegUnmap(void)
{
}

int32_t Trid_Util_CPUComm_Init(uint32_t Reserved)
{
    pthread_mutex_lock(&Lock);
    Wanted = true;
    const bool There = Attached();
    pthread_mutex_unlock(&Lock);
    return Reserved == 0 && There ? 0 : -1;
}

int32_t Trid_Util_CPUComm_Ready(void)
{
    pthread_mutex_lock(&Lock);
    const int32_t Result = Socket >= 0 ? 0 : -1;
    pthread_mutex_unlock(&Lock);
    return Result;
}

void Trid_Util_CPUComm_DeInit(void)
{
    pthread_mutex_lock(&Lock);
    Wanted = false;
    Disconnect();
    pthread_mutex_unlock(&Lock);
}

void *Trid_Util_CPUComm_Malloc(uint32_t Bytes)
{
    pthread_mutex_lock(&Lock);
    void *Block = Malloc(Bytes);
    pthread_mutex_unlock(&Lock);
    return Block;
}

void Trid_Util_CPUComm_Free(void *Block)
{
    pthread_mutex_lock(&Lock);
    const uint32_t Address = AddressOf(Block);
    if (Address && Attached())
        Ask(OTHERSET_FREE, Address);
    pthread_mutex_unlock(&Lock);
}

uint32_t Trid_Util_CPUComm_Convert2PhyAddr(void *Block)
{
    pthread_mutex_lock(&Lock);
    const uint32_t Address = AddressOf(Block);
    pthread_mutex_unlock(&Lock);
    return Address;
}

void *Trid_Util_CPUComm_Convert2VirtualAddr(uint32_t Address)
{
    pthread_mutex_lock(&Lock);
    void *Block = ConvertToVirtual(Address);
    pthread_mutex_unlock(&Lock);
    return Block;
}

uint32_t Trid_Util_CPUComm_GetBlockSize(const void *Block)
{
    pthread_mutex_lock(&Lock);
    const uint32_t Address = AddressOf(Block);
    const uint32_t Size = Address && Attached() ? Ask(OTHERSET_SIZE, Address) : 0;
    pthread_mutex_unlock(&Lock);
    return Size;
}
