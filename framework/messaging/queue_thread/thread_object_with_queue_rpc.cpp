#include "messaging/queue_thread/thread_object_with_queue_rpc.h"

#include "debug/trace/zant_trace.h"
#include "messaging/queue/zant_msg.h"

int32_t CThreadObjectWithQueueRpc::SendCmd(CZantMsg* msg) {
    ZANT_TRACE(TRACEUNIT_RPC_THREAD, TRACELEVEL_INFO,
               "CThreadObjectWithQueueRpc::SendCmd() called - msg = %s\n",
               GetSignalIdNamePtr(static_cast<SignalIds>(msg ? msg->signalId : SIG_ID_NULL)));
    return CThreadObjectWithQueue::SendCmd(msg);
}

int32_t CThreadObjectWithQueueRpc::CheckForLostMsgs(CZantMsg*, const char*) {
    return 0;
}
