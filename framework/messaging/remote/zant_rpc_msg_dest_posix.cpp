#include "messaging/remote/zant_rpc_msg_dest_posix.h"

#include "debug/trace/zant_trace.h"
#include "debug/trace/zant_trace_colors.h"
#include "messaging/queue/zant_msg.h"
#include "messaging/remote/block_size.h"
#include "messaging/remote/rpc_sequence.h"
#include "timeline/timeline.h"

#include <cstring>
#include <new>

namespace {

constexpr int nrOfMsgs = 50;
constexpr int ownerAndGroup = 0660;

/// Frees the shared copy of a payload at the end of a scope.
class SharedBlock {
public:
    explicit SharedBlock(uint32_t address)
        : m_block(Trid_Util_CPUComm_Convert2VirtualAddr(address)) {}
    ~SharedBlock() { Trid_Util_CPUComm_Free(m_block); }
    SharedBlock(const SharedBlock&) = delete;
    SharedBlock& operator=(const SharedBlock&) = delete;

    const void* get() const { return m_block; }
    bool holds(int32_t size) const {
        return size > 0 && blockHolds(m_block, static_cast<uint32_t>(size));
    }

private:
    void* m_block;
};

} // namespace

CZantRpcMsgDestPosix::~CZantRpcMsgDestPosix() {
    CThreadObjectWithQueue::StopThreadAndWait();
}

int32_t CZantRpcMsgDestPosix::Init(const char* funcName, Routine routine, int cpu,
                                   int observerQueue, long observerArg) {
    ZANT_TRACE_STREAM(TRACEUNIT_RPC_DESTINATION, TRACELEVEL_INFO,
                      "CZantRpcMsgDestPosix() - Init called - Queue handle = " << observerQueue
                                                                               << '\n');
    m_funcName = funcName ? funcName : "";
    m_routine = routine;
    m_cpu = static_cast<_tagCPUID>(cpu);
    RegisterCallbackQueue(observerQueue, observerArg, 0, 0);

    const std::string inputQueue = rpc_sequence::queueNameOf(m_funcName);
    m_queue.CarrySharedAddresses([](uint32_t address) { const SharedBlock dropped(address); });
    const int32_t result =
        CThreadObjectWithQueue::Init(inputQueue.c_str(), nrOfMsgs, ownerAndGroup, true, false);
    ZANT_TRACE_STREAM(TRACEUNIT_RPC_DESTINATION, TRACELEVEL_INFO,
                      "CZantRpcMsgDestPosix::Init() IpcInputQueuename = " << inputQueue << '\n');
    if (result != 0)
        ZANT_TRACE(TRACEUNIT_RPC_DESTINATION, TRACELEVEL_WARNING,
                   "CZantRpcMsgDestPosix::Init() FAILED - %d - %s\n", result, inputQueue.c_str());
    else
        ZANT_TRACE(TRACEUNIT_RPC_DESTINATION, TRACELEVEL_INFO,
                   "CZantRpcMsgDestPosix::Init() - %d - %s\n", m_queue.handle.load(),
                   inputQueue.c_str());
    if (result == 0)
        StartThread(m_funcName.c_str(), 0, 0);
    ZANT_TRACE_STREAM(TRACEUNIT_RPC_DESTINATION, TRACELEVEL_INFO,
                      "CZantRpcMsgDestPosix::Init() done - rc = " << result << " Queue handle = "
                                                                  << m_queue.handle << '\n');
    return result;
}

void CZantRpcMsgDestPosix::ProcessZantMsg(CZantMsg* msg) {
    ZANT_TRACE(TRACEUNIT_RPC_DESTINATION, TRACELEVEL_INFO,
               "%sCZantRpcMsgDestPosix::ProcessZantMsg called for IPC msg -- Signal Id = %ld "
               "Signal Ptr (phys) = %p Sequence-Ctr = %d %s\n",
               CS_CYAN, static_cast<long>(msg->signalId),
               rpc_sequence::asPointer(msg->sharedAddress),
               static_cast<int>(rpc_sequence::read(msg->rpcControl)), CS_NORMAL);
    const timeline::Span span("link", "receive");
    if (span) {
        const uint32_t number = rpc_sequence::read(msg->rpcControl);
        span.with("signal", msg->signalName())
            .with("seq", number)
            .flow(timeline::Flow::End, m_funcName.c_str(), number)
            .flow(timeline::Flow::Start, "received", number);
    }
    if (!fetchPayload(*msg))
        return;
    checkSequence(*msg);
    NotifyObserversAll(msg);
}

bool CZantRpcMsgDestPosix::fetchPayload(CZantMsg& msg) const {
    if (msg.sharedAddress == 0)
        return true;
    // Whatever comes of the message, nobody else learns of the block.
    const SharedBlock shared(msg.sharedAddress);
    if (msg.signalSize == 0) {
        msg.sharedAddress = 0;
        return true;
    }
    ZANT_TRACE(TRACEUNIT_RPC_DESTINATION, TRACELEVEL_INFO,
               "CZantRpcMsgDestPosix:: Signal pointers -- received=%p, virtual=%p\n",
               rpc_sequence::asPointer(msg.sharedAddress), shared.get());
    const auto size = static_cast<size_t>(msg.signalSize);
    void* const local = shared.holds(msg.signalSize) ? ::operator new(size, std::nothrow) : nullptr;
    if (!local) {
        ZANT_TRACE(TRACEUNIT_RPC_DESTINATION, TRACELEVEL_ERROR,
                   "CZantRpcMsgDestPosix::Cannot get signal ptr - Func = %s, SignalName = %ld = "
                   "%s\n",
                   m_funcName.c_str(), static_cast<long>(msg.signalId), msg.signalName());
        return false;
    }
    msg.signalPtr = memcpy(local, shared.get(), size);
    msg.sharedAddress = 0;
    ZANT_TRACE(TRACEUNIT_RPC_DESTINATION, TRACELEVEL_INFO,
               "CZantRpcMsgDestPosix::Signal struct copied -- copied struct=%p, this=%p, size=%d\n",
               msg.signalPtr, static_cast<void*>(&msg), msg.signalSize);
    return true;
}

/// A gap is reported only: the message counts all the same.
void CZantRpcMsgDestPosix::checkSequence(const CZantMsg& msg) {
    const uint32_t received = rpc_sequence::read(msg.rpcControl);
    ZANT_TRACE(TRACEUNIT_RPC_DESTINATION, TRACELEVEL_INFO_MAGENTA,
               "CZantRpcMsgDestPosix:: IPC msg received - SeqCtr = %d, Expected = %u, Func = %s, "
               "SignalName = %ld = %s\n",
               static_cast<int>(received), expectedSequenceCtr, m_funcName.c_str(),
               static_cast<long>(msg.signalId), msg.signalName());
    const bool startsAnew =
        expectedSequenceCtr == rpc_sequence::nothingYet || received == rpc_sequence::senderStarted;
    if (!startsAnew && received != expectedSequenceCtr)
        ZANT_TRACE(TRACEUNIT_RPC_DESTINATION, TRACELEVEL_ERROR,
                   "CZantRpcMsgDestPosix::Illegal sequence nr - Messages out of order or missed - "
                   "Received = %d, Expected = %d, Func = %s, SignalName = %ld = %s\n",
                   static_cast<int>(received), static_cast<int>(expectedSequenceCtr),
                   m_funcName.c_str(), static_cast<long>(msg.signalId), msg.signalName());
    expectedSequenceCtr = received;
    IncSequenceCtr();
}

void CZantRpcMsgDestPosix::IncSequenceCtr() {
    expectedSequenceCtr = rpc_sequence::next(expectedSequenceCtr);
}
