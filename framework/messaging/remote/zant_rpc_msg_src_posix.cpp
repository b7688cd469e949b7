#include "messaging/remote/zant_rpc_msg_src_posix.h"

#include "debug/trace/zant_trace.h"
#include "debug/trace/zant_trace_colors.h"
#include "messaging/queue/queue_io.h"
#include "messaging/queue/zant_msg.h"
#include "messaging/queue/zant_msg_body.h"
#include "messaging/remote/rpc_sequence.h"
#include "timeline/timeline.h"
#include "util/cancellation_block.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <mqueue.h>
#include <sys/stat.h>
#include <utility>

std::atomic<uint32_t> CZantRpcMsgSrcPosix::totalNrOfRpcCalls{0};

CZantRpcMsgSrcPosix::~CZantRpcMsgSrcPosix() {
    const CancellationBlock block;
    CThreadObjectWithQueue::StopThreadAndWait();
    closeTargetQueue();
}

int32_t CZantRpcMsgSrcPosix::Init(const char* prefix, int capacity, _tagCPUID,
                                  std::string function) {
    const int32_t result = CThreadObjectWithQueue::Init(prefix, capacity, 0, false, true);
    targetQueueName = rpc_sequence::queueNameOf(function);
    targetFunc = std::move(function);
    return result;
}

int32_t CZantRpcMsgSrcPosix::SendCmd(CZantMsg* msg) {
    if (msg && msg->signalObj) {
        ZANT_TRACE_STREAM(
            TRACEUNIT_RPC_SOURCE, TRACELEVEL_ERROR,
            "CZantRpcMsgSrcPosix::SendCmd() - Sending objects via RPC not yet supported - "
                << " - Signal = " << msg->signalName() << '\n');
        msg->FreeSignal();
        return CZantMsgQueue::sendFailed;
    }
    const bool isToForward = msg && msg->signalId != SIG_ID_STOP_THREAD;
    const uint32_t number = m_given += isToForward; // before the thread can have forwarded it
    const timeline::Span span("link", "queue");
    if (span && isToForward)
        span.with("signal", msg->signalName())
            .flow(timeline::Flow::Start, "queued", timeline::idOf(this) + number);
    const int32_t result = CThreadObjectWithQueue::SendCmd(msg);
    if (result < 0)
        m_given -= isToForward;
    return result;
}

void CZantRpcMsgSrcPosix::ProcessZantMsg(CZantMsg* msg) {
    ZANT_TRACE_STREAM(TRACEUNIT_RPC_SOURCE, TRACELEVEL_INFO,
                      "CZantRpcMsgSrcPosix::ProcessZantMsg called for sending IPC msg -- Signal = "
                          << msg->signalName() << '\n');
    {
        const timeline::Span span("link", "send");
        if (span)
            span.with("signal", msg->signalName())
                .flow(timeline::Flow::End, "queued", timeline::idOf(this) + m_forwarded + 1);
        SendMsgViaRpcPosixQueue(msg);
    }
    ++m_forwarded;
    if (!m_isAwaited)
        return;
    const MutexLock lock(m_sentMutex);
    m_sent.broadcast();
}

bool CZantRpcMsgSrcPosix::WaitUntilSent(std::chrono::steady_clock::time_point deadline) {
    const MutexLock lock(m_sentMutex);
    m_isAwaited = true;
    while (m_forwarded != m_given && m_sent.waitUntil(m_sentMutex, deadline)) {
    }
    m_isAwaited = false;
    return m_forwarded == m_given;
}

int32_t CZantRpcMsgSrcPosix::SendMsgViaRpcPosixQueue(CZantMsg* msg) {
    const CancellationBlock cancellationBlock;
    ++nrOfRpcCalls;
    ++totalNrOfRpcCalls;
    if (!openTargetQueue()) {
        msg->FreeSignal();
        return CZantMsgQueue::sendFailed;
    }
    void* block = nullptr;
    const bool shared = sharePayload(*msg, block);
    msg->FreeSignal();
    if (!shared)
        return noSharedMemory;

    msg->rpcControl = rpc_sequence::stamp(msg->rpcControl, sequenceCtr);
    ZANT_TRACE(TRACEUNIT_RPC_SOURCE, TRACELEVEL_INFO,
               "%s CZantRpcMsgSrcPosix:: Sending IPC msg -- Signal Id = %ld Signal Ptr (phys) = %p "
               "Sequence-Ctr = %d Variable = %d %s\n",
               CS_CYAN, static_cast<long>(msg->signalId),
               rpc_sequence::asPointer(msg->sharedAddress), static_cast<int>(sequenceCtr),
               msg->param1, CS_NORMAL);
    IncSequenceCtr();
    ZANT_TRACE(TRACEUNIT_RPC_SOURCE, TRACELEVEL_INFO,
               "%s CZantRpcMsgSrcPosix:: Next Sequence-Ctr = %d %s\n", CS_CYAN,
               static_cast<int>(sequenceCtr), CS_NORMAL);

    if (timeline::isOn())
        timeline::flow(timeline::Flow::Start, targetFunc.c_str(),
                       rpc_sequence::read(msg->rpcControl));
    const int result = queue_io::send(targetQueue, packForOtherProcess(*msg), 0, cancellationBlock);
    if (result == 0)
        return 0;
    ZANT_TRACE(TRACEUNIT_RPC_SOURCE, TRACELEVEL_ERROR,
               "CZantRpcMsgSrcPosix::Send (FAILED - handle=%d rc2=%d errno=%d signal=%lu %s\n",
               targetQueue, result, errno, static_cast<unsigned long>(msg->signalId),
               msg->signalName());
    Trid_Util_CPUComm_Free(block);
    msg->sharedAddress = 0;
    msg->signalSize = 0;
    return CZantMsgQueue::sendFailed;
}

bool CZantRpcMsgSrcPosix::sharePayload(CZantMsg& msg, void*& block) {
    msg.sharedAddress = 0;
    if (!msg.signalPtr || msg.signalSize <= 0)
        return true;
    const auto size = static_cast<uint32_t>(msg.signalSize);
    block = Trid_Util_CPUComm_Malloc(size);
    if (!block) {
        ZANT_TRACE(TRACEUNIT_RPC_SOURCE, TRACELEVEL_ERROR,
                   "CZantRpcMsgSrcPosix: Trid_Util_CPUComm_Malloc failed\n");
        return false;
    }
    memcpy(block, msg.signalPtr, size);
    msg.sharedAddress = Trid_Util_CPUComm_Convert2PhyAddr(block);
    if (msg.sharedAddress == 0) {
        ZANT_TRACE(TRACEUNIT_RPC_SOURCE, TRACELEVEL_ERROR,
                   "CZantRpcMsgSrcPosix: Trid_Util_CPUComm_Convert2PhyAddr failed\n");
        Trid_Util_CPUComm_Free(block);
        return false;
    }
    ZANT_TRACE_STREAM(TRACEUNIT_RPC_SOURCE, TRACELEVEL_INFO,
                      "CZantRpcMsgSrcPosix: Trid_Util_CPUComm_Malloc o.k. - Addr = "
                          << rpc_sequence::asPointer(msg.sharedAddress) << '\n');
    return true;
}

void CZantRpcMsgSrcPosix::IncSequenceCtr() {
    sequenceCtr = rpc_sequence::next(sequenceCtr);
}

/// A queue that was unlinked has no reader any more, or soon none: its successor has the name.
bool CZantRpcMsgSrcPosix::openTargetQueue() {
    struct stat info {};
    if (targetQueueOpen && fstat(targetQueue, &info) == 0 && info.st_nlink > 0)
        return true;
    closeTargetQueue();
    targetQueue = mq_open(targetQueueName.c_str(), O_WRONLY | O_NONBLOCK);
    targetQueueOpen = targetQueue >= 0;
    if (!targetQueueOpen)
        ZANT_TRACE_STREAM(TRACEUNIT_RPC_SOURCE, TRACELEVEL_ERROR,
                          "CZantRpcMsgSrcPosix::SendMsgViaRpcPosixQueue() - Error opening target "
                          "queue : "
                              << targetQueueName << '\n');
    return targetQueueOpen;
}

void CZantRpcMsgSrcPosix::closeTargetQueue() {
    if (targetQueueOpen)
        mq_close(targetQueue);
    targetQueueOpen = false;
}
