#ifndef MESSAGING_ZANT_RPC_MSG_SRC_POSIX_H
#define MESSAGING_ZANT_RPC_MSG_SRC_POSIX_H

#include "messaging/queue_thread/thread_object_with_queue.h"

#include "cpucomm/trid_cpucomm.h"
#include "util/mutex.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

/// The sending end of remote calls: a thread that forwards what it is given to the queue of another
/// process. Payload buffers travel in shared memory and belong to the receiver once sent.
///
/// The peer makes its queue. Without one messages are lost, each with a trace; the first after the
/// queue is there opens it, and a queue that was unlinked and made anew is opened anew. Nothing
/// here waits for the peer: a full queue loses the message.
class CZantRpcMsgSrcPosix : public CThreadObjectWithQueue {
public:
    /// The payload found no shared memory.
    static constexpr int32_t noSharedMemory = -1322;

    CZantRpcMsgSrcPosix() = default;
    ~CZantRpcMsgSrcPosix() override;

    /// Opens the thread's own queue (its name gets the object's address appended) and notes the
    /// remote function, whose queue is "/" and its name. The owner starts the thread. The processor
    /// is not used. The codes of CZantMsgQueue::Open.
    int32_t Init(const char* queueName, int maxMsgs, _tagCPUID cpu, std::string targetFunc);

    /// Queues the message for the thread; its payload is gone afterwards. As the base; refuses a
    /// message with a payload object (-1421). Thread-safe.
    int32_t SendCmd(CZantMsg* msg) override;
    void ProcessZantMsg(CZantMsg* msg) override;
    /// Waits until the thread has forwarded, or lost, what SendCmd was given. False when the
    /// deadline passed before. Any thread but this one; for one waiter at a time.
    bool WaitUntilSent(std::chrono::steady_clock::time_point deadline);
    /// Sends the message now; its payload is gone afterwards. 0, -1322, or -1421 when it could not
    /// be put into the peer's queue. On the thread.
    int32_t SendMsgViaRpcPosixQueue(CZantMsg* msg);

    /// Goes on to the next sequence number: 2 to 254 and round again. 1 is a fresh sender's first.
    void IncSequenceCtr();

    ///@{
    /// Messages that this source was given to forward, and those of all sources.
    uint32_t GetNrOfRpcCalls() const { return nrOfRpcCalls; }
    static uint32_t GetTotalNrOfRpcCalls() { return totalNrOfRpcCalls; }
    ///@}

private:
    bool openTargetQueue();
    void closeTargetQueue();
    /// Moves the payload, if any, into shared memory; `block` is that copy. False without room.
    static bool sharePayload(CZantMsg& msg, void*& block);

    std::atomic<uint32_t> m_given{0};
    std::atomic<uint32_t> m_forwarded{0};
    std::atomic<bool> m_isAwaited{false};
    Mutex m_sentMutex;
    ConditionVariable m_sent;

    std::string targetFunc;
    /// From here on the thread's own.
    uint32_t sequenceCtr = 1;
    int32_t targetQueue = -1;
    bool targetQueueOpen = false;
    std::string targetQueueName;
    std::atomic<uint32_t> nrOfRpcCalls{0};
    static std::atomic<uint32_t> totalNrOfRpcCalls;
};

#endif
