#ifndef MESSAGING_ZANT_RPC_MSG_DEST_POSIX_H
#define MESSAGING_ZANT_RPC_MSG_DEST_POSIX_H

#include "messaging/observer/observable_callback_all.h"
#include "messaging/queue_thread/thread_object_with_queue.h"

#include "cpucomm/trid_cpucomm.h"

#include <cstdint>
#include <string>

/// The receiving end of remote calls: a thread that reads the queue of a remote function, turns
/// what another process sent into ordinary messages and hands them to its observers.
///
/// Nothing that the other process says is trusted. A payload whose address is no block, or whose
/// size is not positive or exceeds the block, is dropped with a trace, and so is its message; the
/// block, if there is one, is freed. No message of another process ends the thread.
class CZantRpcMsgDestPosix : public CObservableCallbackAll, public CThreadObjectWithQueue {
public:
    using Routine = void (*)(_tagCPUFuncCallParam*, _tagCPUFuncCallReturn*);

    CZantRpcMsgDestPosix() = default;
    ~CZantRpcMsgDestPosix() override;

    /// Registers the queue as an observer of all messages, opens the queue "/" and `funcName`,
    /// which a peer may have made before, and starts the thread under that name. The routine and
    /// the processor are kept only. 0, or the code of CZantMsgQueue::Open.
    int32_t Init(const char* funcName, Routine routine, int cpu, int observerQueue,
                 long observerArg);
    /// Does nothing: the queue is there for the process's life.
    void Term() {}

    void ProcessZantMsg(CZantMsg* msg) override;

    /// Goes on to the next sequence number, see CZantRpcMsgSrcPosix.
    void IncSequenceCtr();

private:
    bool fetchPayload(CZantMsg& msg) const;
    void checkSequence(const CZantMsg& msg);

    std::string m_funcName;
    Routine m_routine = nullptr;
    _tagCPUID m_cpu = CPUID_MAIN;
    /// The thread's own.
    uint32_t expectedSequenceCtr = 0;
};

#endif
