#ifndef MESSAGING_THREAD_OBJECT_WITH_QUEUE_H
#define MESSAGING_THREAD_OBJECT_WITH_QUEUE_H

#include "messaging/queue/signal_ids.h"
#include "messaging/queue/zant_msg_queue.h"
#include "messaging/thread/thread_object.h"
#include "messaging/timer/time_out_timer.h"

#include <atomic>
#include <cstdint>
#include <string>

class CZantMsg;

/// A thread that handles messages from a queue of its own. Others talk to it through SendCmd only.
class CThreadObjectWithQueue : public CThreadObject {
public:
    static constexpr int32_t sendBeforeInit = -1110;
    static constexpr int32_t startBeforeInit = -1111;

    using CThreadObject::CThreadObject;
    ~CThreadObjectWithQueue() override;

    /// Opens the queue, for `maxMsgs` messages, non-blocking for senders. Unless the name is
    /// complete the object's address is appended to it, and the system forgets the name at once:
    /// such a queue is reached by its handle only and goes with the process. See
    /// CZantMsgQueue::Open for the rest and for the codes. Before the thread starts, and by one
    /// thread.
    int32_t Init(const char* name, int maxMsgs, int mode, bool nameIsComplete, bool unlinkFirst);
    ///@{
    /// The name and the error (errno) of an Init that failed; 0 after one that did not.
    const std::string& QueueName() const { return queueName; }
    int QueueError() const { return m_queue.OpenError(); }
    ///@}

    /// As the base, but 0 whatever the base answers; -1111 before Init.
    int32_t StartThread(const char* name, int stackSize, int priority) override;
    /// There was no thread to be had for the last StartThread: nobody reads the queue.
    bool LacksThread() const { return m_lacksThread; }
    void StopThread() override;
    void StopThreadAndWait() override;
    int GetThreadType() override { return 2; }
    uint32_t GetNrOfProcessedMsgs() const override { return nrProcessedMsgs; }
    void ThreadWorkFunction() override;

    /// Sends the message to this thread; the payloads are gone afterwards. The send's result; -1110
    /// before Init, but 0 for SIG_ID_STOP_THREAD. Thread-safe.
    virtual int32_t SendCmd(CZantMsg* msg);
    /// Handles a message, on the thread. It owns the payloads and frees them (FreeSignal). One that
    /// throws loses this message, payloads freed, and no other.
    virtual void ProcessZantMsg(CZantMsg* msg) = 0;
    /// Runs once on the thread, before the first message.
    virtual void BeforeProcessingMsgs();
    ///@{
    /// Read and handle messages until the thread shall end. The first is for a derived class whose
    /// queue blocks.
    virtual void ReadMsgsFromBlockingQueue();
    virtual void ReadMsgsFromNonBlockingQueue();
    ///@}

protected:
    CZantMsgQueue m_queue;
    TimeOutTimer timer{0, SIG_ID_NULL, 0, 0};

private:
    void handleNextMsg(CZantMsg& msg, bool queueBlocks, Run run);
    bool stopsThisRun(const CZantMsg& msg, Run run) const;
    void traceReadError(int32_t code, bool queueBlocks) const;
    void sendStop(Run run);

    std::string queueName;
    int32_t maxMsgs = 0;
    std::atomic<bool> initialised{false};
    std::atomic<bool> m_lacksThread{false};
    std::atomic<uint32_t> nrProcessedMsgs{0};
};

#endif
