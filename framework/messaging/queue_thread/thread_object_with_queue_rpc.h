#ifndef MESSAGING_THREAD_OBJECT_WITH_QUEUE_RPC_H
#define MESSAGING_THREAD_OBJECT_WITH_QUEUE_RPC_H

#include "messaging/queue_thread/thread_object_with_queue.h"

#include <cstdint>

/// A queue thread that takes part in remote calls.
class CThreadObjectWithQueueRpc : public CThreadObjectWithQueue {
public:
    using CThreadObjectWithQueue::CThreadObjectWithQueue;

    int GetThreadType() override { return 4; }
    int32_t SendCmd(CZantMsg* msg) override;
    /// The transport notices lost messages itself: always 0.
    int32_t CheckForLostMsgs(CZantMsg* msg, const char* caller);

protected:
    /// For derived classes; nothing here looks at them.
    uint8_t m_rpcFlag1 = 0;
    uint8_t m_rpcFlag2 = 0;
};

#endif
