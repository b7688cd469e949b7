#include "messaging/queue/zant_msg.h"

#include "debug/trace/zant_trace.h"
#include "messaging/queue/zant_msg_queue.h"
#include "util/cancellation_block.h"

#include <cstring>
#include <new>

namespace {

constexpr int32_t noResponseQueue = -1300;
constexpr int32_t payloadNotCopied = -1301;

} // namespace

CZantMsg::CZantMsg(const CZantMsg& other) {
    CopyMsg(other);
}

CZantMsg& CZantMsg::operator=(const CZantMsg& other) {
    if (this != &other)
        CopyMsg(other);
    return *this;
}

CZantMsg::~CZantMsg() {
    FreeSignal();
}

void CZantMsg::FreeSignal() {
    if (!signalPtr && !signalObj)
        return;
    const CancellationBlock block;
    if (signalPtr) {
        ZANT_TRACE(TRACEUNIT_MSG, TRACELEVEL_INFO,
                   "CZantMsg::FreeSignal Signal=%ld Signal-Ptr=%p this=%p\n",
                   static_cast<long>(signalId), signalPtr, static_cast<void*>(this));
        ::operator delete(signalPtr);
        signalPtr = nullptr;
    }
    if (signalObj) {
        ZANT_TRACE(TRACEUNIT_MSG, TRACELEVEL_DEBUG, "CZantMsg::FreeSignal Obj-Ptr=%p this=%p\n",
                   static_cast<void*>(signalObj), static_cast<void*>(this));
        delete signalObj;
        signalObj = nullptr;
    }
}

int32_t CZantMsg::CopyMsg(const CZantMsg& other) {
    if (this == &other)
        return 0;
    FreeSignal();
    static_cast<ZantMsgValues&>(*this) = other;
    sharedAddress = other.sharedAddress;

    const int32_t result = copyBuffer(other);
    if (other.signalObj) {
        signalObj = other.signalObj->Clone();
        ZANT_TRACE(TRACEUNIT_MSG, TRACELEVEL_DEBUG,
                   "CZantMsg::CopyMsg -- signal object copied -- copied obj=%p, this=%p\n",
                   static_cast<void*>(signalObj), static_cast<void*>(this));
    }
    return result;
}

int32_t CZantMsg::copyBuffer(const CZantMsg& other) {
    if (!other.signalPtr)
        return 0;
    if (other.signalSize > 0)
        signalPtr = ::operator new(static_cast<size_t>(other.signalSize), std::nothrow);
    if (signalPtr) {
        memcpy(signalPtr, other.signalPtr, static_cast<size_t>(other.signalSize));
        ZANT_TRACE(TRACEUNIT_MSG, TRACELEVEL_DEBUG,
                   "CZantMsg::CopyMsg -- signal struct copied -- copied struct=%p, this=%p\n",
                   signalPtr, static_cast<void*>(this));
        return 0;
    }

    signalSize = 0;
    if (other.signalSize < 0)
        return 0;
    if (other.signalSize == 0)
        ZANT_TRACE(
            TRACEUNIT_MSG, TRACELEVEL_ERROR,
            "CZantMsg::CopyMsg - Signal = %ld - Signal pointer is set, but signalSize is 0\n",
            static_cast<long>(signalId));
    else
        ZANT_TRACE(TRACEUNIT_MSG, TRACELEVEL_ERROR,
                   "CZantMsg::CopyMsg - Signal = %ld - No memory for %d bytes\n",
                   static_cast<long>(signalId), other.signalSize);
    return payloadNotCopied;
}

int32_t CZantMsg::SendMsg(CZantMsgQueue* queue, int prio) {
    return SendMsg(queue ? queue->handle.load() : -1, prio);
}

int32_t CZantMsg::SendMsg(int handle, int prio) {
    const int32_t result = CZantMsgQueue::Send(handle, this, static_cast<unsigned>(prio));
    if (result != 0)
        FreeSignal();
    return result;
}

int32_t CZantMsg::SendMsgIndirect(int prio) {
    if (responseQueue == 0) {
        ZANT_TRACE(TRACEUNIT_MSG, TRACELEVEL_ERROR, "Response queue not set\n");
        FreeSignal();
        return noResponseQueue;
    }
    return SendMsg(responseQueue, prio);
}

int32_t CZantMsg::ReceiveMsg(CZantMsgQueue* queue, int unused) {
    return queue ? queue->Receive(this, static_cast<unsigned>(unused)) : CZantMsgQueue::notOpen;
}

int32_t CZantMsg::ReceiveMsgFromNonblockingQueue(CZantMsgQueue* queue, int unused) {
    return queue ? queue->ReceiveFromNonblockingQueue(this, static_cast<unsigned>(unused))
                 : CZantMsgQueue::notOpen;
}
