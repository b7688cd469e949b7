#ifndef MESSAGING_ZANT_MSG_QUEUE_H
#define MESSAGING_ZANT_MSG_QUEUE_H

#include "messaging/queue/queue_io.h"
#include "util/mutex.h"

#include <atomic>
#include <cstdint>
#include <list>
#include <mqueue.h>
#include <string>
#include <vector>

class CZantMsg;
class CancellationBlock;
class CZantMsgQueue;
struct ZantMsgBody;

/// One open queue of the process.
struct T_GlobalMsgQueueInfo {
    CZantMsgQueue* queue;
    int32_t handle;
};

/// A POSIX message queue for CZantMsg, and the registry of all that are open in the process.
///
/// Any thread may send to any queue; one thread, the owner, opens, reads and closes it. All
/// operations return 0 or one of the codes below. The registry's functions are thread-safe and work
/// until the last instruction of the process.
class CZantMsgQueue {
public:
    /// What the operations answer besides 0.
    enum Code : int32_t {
        closeFailed = -1410,
        nothingToClose = -1411,
        getattrFailed = -1412,
        getattrNotOpen = -1413,
        countFailed = -1414,
        countNotOpen = -1415,
        noName = -1417,
        openFailed = -1418,
        receiveFailed = -1419,
        notOpen = -1420,
        sendFailed = -1421,
        sendNotOpen = -1422,
        sendToNoHandle = -1423,
        unlinkFailed = -1424,
        waitFailed = -1425,
        noMessage = -1426,
        handleIsZero = -1427,
        wokenForNothing = -1428
    };

    CZantMsgQueue() = default;
    /// Drains, closes and unlinks the queue if `unlinkOnDestroy` is set, also one that is closed
    /// already; else closes the descriptor and leaves queue and messages in the system. A name that
    /// another queue has meanwhile stays.
    ~CZantMsgQueue();
    CZantMsgQueue(const CZantMsgQueue&) = delete;
    CZantMsgQueue& operator=(const CZantMsgQueue&) = delete;

    /// Opens the queue, as mq_open does, with room for `maxMsgs` messages; where the kernel allows
    /// fewer, with as many as it allows. With `unlinkFirst` a queue that an earlier run left behind
    /// is discarded, so that this one is new, and is unlinked in the end. A queue that exists keeps
    /// its capacity; one whose messages are not of 48 bytes is refused. An object that had a queue
    /// before, open or closed, parts from it first, as at its end; but from a closed one that it
    /// opens again.
    int32_t Open(const char* name, int oflag, int mode, int maxMsgs, bool unlinkFirst);
    /// The same with the caller's attributes; sets their message size.
    int32_t OpenWithAttrStruct(const char* name, int oflag, int mode, mq_attr* attr,
                               bool unlinkFirst);

    /// Closes the descriptor; `handle` stays as it was, yet nothing is done through it any more.
    /// What waits stays in the queue; of one that gave up its name, or is this object's own
    /// (`unlinkFirst`) and lost it, it is drained, unless another object of the process has it
    /// open.
    int32_t Close();
    /// The queue's attributes as mq_getattr gives them. 0 or a code.
    int32_t Getattr(mq_attr* attr);
    /// Why the last Open failed, as errno; 0 if it did not.
    int OpenError() const { return m_openError; }
    /// Takes the queue's name from the system and keeps the queue: whoever is to send to it needs
    /// its handle, and nothing of it outlives the process, whatever that one's end. Only of a queue
    /// that is open.
    void DropName();
    /// Drains and closes the queue and removes its name from the system, unless that was dropped. A
    /// closed queue is opened for that once more, where that is possible. After an Open that failed
    /// the name goes all the same, whosever it is; a second Unlink, or one whose queue has lost its
    /// name to another, removes nothing.
    int32_t Unlink();
    /// Reads all waiting messages and frees their payloads. Never waits.
    int32_t ClearQueue();
    /// The number of waiting messages, or a negative code.
    int32_t GetNrOfMsgsInQueue();

    ///@{
    /// Sends to this queue, or to any queue of the process. On success the receiver owns the
    /// payloads; on failure they are freed, except that with a null message there are none. A full
    /// queue opened without O_NONBLOCK holds the sender, one opened with it refuses. Only the wait
    /// on a full queue may be cancelled.
    int32_t Send(CZantMsg* msg, unsigned prio);
    static int32_t Send(int handle, CZantMsg* msg, unsigned prio);
    ///@}
    /// The same without a trace: false, with errno, when it is not sent. The payloads are then
    /// still the caller's.
    [[nodiscard]] bool TrySend(CZantMsg& msg, unsigned prio);

    /// Receives one message; waits for it if the queue was opened without O_NONBLOCK. The payload
    /// fields of the given message are overwritten, not freed; the caller owns the new ones. The
    /// number is not used. Only the wait may be cancelled.
    int32_t Receive(CZantMsg* msg, unsigned unused);
    /// The same, but waits for a message whatever the queue's mode.
    int32_t ReceiveFromNonblockingQueue(CZantMsg* msg, unsigned unused);
    /// Waits until a message is there, for Receive. Returns 0 or a code.
    int32_t WaitForMsg();
    /// Waits until a message is there or the time is up: 1, 0, or -1 with errno.
    int usleepOnQueue(unsigned long usec);

    using FreeShared = void (*)(uint32_t address);
    /// The queue's messages come from another process: the word for the buffer is an address in
    /// shared memory, left in the message's `sharedAddress`. `freeShared` is called for those that
    /// are drained or dropped, on whichever thread does that; it has to bear any number. To be
    /// called before the queue opens.
    void CarrySharedAddresses(FreeShared freeShared) { m_freeShared = freeShared; }
    /// Whether CarrySharedAddresses() was called.
    bool CarriesSharedAddresses() const { return m_freeShared != nullptr; }
    /// Frees what a message that came from this queue carries, because nobody handles it.
    void DropPayload(CZantMsg& msg) const;

    ///@{
    /// Locks and unlocks the registry.
    static void GetMutex() ACQUIRE(m_zantMsgQueueMutex) { m_zantMsgQueueMutex.lock(); }
    static void ReleaseMutex() RELEASE(m_zantMsgQueueMutex) { m_zantMsgQueueMutex.unlock(); }
    ///@}
    /// Lists an open queue; once.
    static void AddQueueToGlobalMsgQueueList(CZantMsgQueue* queue, int handle)
        EXCLUDES(m_zantMsgQueueMutex);
    /// Does nothing while handling is terminated.
    static void RemoveQueueFromGlobalMsgQueueList(CZantMsgQueue* queue, int handle)
        EXCLUDES(m_zantMsgQueueMutex);
    /// A copy of the queue's name, or "Unknown".
    static std::string GetQueueNameByHandle(int handle) EXCLUDES(m_zantMsgQueueMutex);
    /// The queue object, or null. Valid as long as its owner keeps it.
    static CZantMsgQueue* GetQueueObjPtrByHandle(int handle) EXCLUDES(m_zantMsgQueueMutex);
    /// A listed queue as it is now.
    struct Info {
        int handle;
        std::string name;
        bool isOpen; ///< else the five below are 0
        bool isBlocking;
        int waiting; ///< messages
        int maximum; ///< of them
        int maxUsed; ///< the most that waited when one was read
        uint32_t lastSignal;
        uint32_t nrRead;
    };
    /// All of them, in the order in which they were opened.
    static std::vector<Info> GetQueueInfos() EXCLUDES(m_zantMsgQueueMutex);
    /// Prints the queue, or all queues for 0, to the shell's output.
    static void ListGlobalMsgQueueList(int handle) EXCLUDES(m_zantMsgQueueMutex);
    /// Reads and prints all waiting messages and frees their payloads. Never waits.
    static void DumpQueue(int handle) EXCLUDES(m_zantMsgQueueMutex);

    ///@{
    /// Terminate freezes the registry before static objects go: queues that close afterwards stay
    /// listed, until they are destroyed. Start ends that.
    static void Start() { m_zantMsgQueueHandlingTerminated = false; }
    static void Terminate() { m_zantMsgQueueHandlingTerminated = true; }
    ///@}

    ///@{
    /// Successful sends of the process.
    static uint32_t GetTotalNrOfSentMsgs() { return totalNrOfSentMsgs; }
    static void ClearTotalNrOfSentMsgs() { totalNrOfSentMsgs = 0; }
    ///@}

    /// -1 until a queue was opened, and after an Open that failed.
    std::atomic<int32_t> handle{-1};
    /// While set, a failed send to this queue is a success without a trace. Receiving clears it.
    std::atomic<bool> sendErrorsSuppressed{false};
    std::atomic<bool> unlinkOnDestroy{true};

private:
    static constexpr int quickAccessSize = 350;
    enum class SendErrors { traced, suppressed, unknownQueue };
    /// What the object has.
    enum class State {
        none,     ///< no queue yet, or the last Open failed: `handle` is -1
        open,     ///< a queue that was opened by its name
        nameless, ///< a queue that is open and gave up its name
        closed,   ///< no descriptor; the queue may still be found by its name
        parted    ///< nothing of its queue any more
    };

    int32_t openDescriptor(const char* queueName, int oflag, int mode, bool unlinkFirst);
    int32_t failOpen(int error);
    void part();
    bool isOpen() const;
    int unlinkOpen();
    int unlinkClosed();
    /// Whether another object of the process has the same queue open.
    bool isShared() const EXCLUDES(m_zantMsgQueueMutex);
    void forget() EXCLUDES(m_zantMsgQueueMutex);
    void drain(int descriptor) const;
    static void discard(const ZantMsgBody& body, FreeShared freeShared);
    bool trySend(CZantMsg& msg, unsigned prio, const CancellationBlock& block);
    int32_t receiveNow(CZantMsg& msg);
    int32_t checkReceive(const CZantMsg* msg);
    void countReceived(uint32_t signal);
    Info info(int listedHandle) const;

    static CZantMsgQueue* findQueue(int handle) REQUIRES(m_zantMsgQueueMutex);
    static void removeEntry(const CZantMsgQueue* queue, int handle) REQUIRES(m_zantMsgQueueMutex);
    static SendErrors sendErrorsOf(int handle) EXCLUDES(m_zantMsgQueueMutex);
    /// Not null for a queue that carries shared addresses.
    static FreeShared freeSharedOf(int handle) EXCLUDES(m_zantMsgQueueMutex);

    /// Written under the registry's lock, because the registry's readers copy it.
    std::string name;
    std::atomic<int32_t> maxUsed{0};
    std::atomic<uint32_t> nrRead{0};
    mq_attr attr{};
    std::atomic<uint32_t> lastSignal{0};
    /// Changed by the owner; senders look whether the number in `handle` is still this queue's.
    std::atomic<State> m_state{State::none};
    /// Tells the queue from others of its name.
    queue_io::Identity m_identity;
    pid_t m_opener = 0;
    std::atomic<int> m_openError{0};
    std::atomic<FreeShared> m_freeShared{nullptr};

    /// Guards the list and the quick-access array. Nothing is called under it.
    static Mutex m_zantMsgQueueMutex;
    /// In order of opening.
    static std::list<T_GlobalMsgQueueInfo>& globalMsgQueueList GUARDED_BY(m_zantMsgQueueMutex);
    static CZantMsgQueue* m_quickAccess[quickAccessSize] GUARDED_BY(m_zantMsgQueueMutex);
    static std::atomic<bool> m_zantMsgQueueHandlingTerminated;
    static std::atomic<uint32_t> totalNrOfSentMsgs;
};

/// True unless the queue was opened with O_NONBLOCK. True, with a trace, for a handle whose
/// attributes can not be read: nobody should rely on it not to block.
bool QueueTypeIsBlocking(int handle);

#endif
