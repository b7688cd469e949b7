#include "messaging/queue/zant_msg_body.h"

#include "debug/trace/zant_trace.h"
#include "messaging/queue/pointer_tokens.h"

using pointer_tokens::Kind;

namespace {

void unpackValues(const ZantMsgBody& body, CZantMsg& msg) {
    static_cast<ZantMsgValues&>(msg) = body;
    msg.signalPtr = nullptr;
    msg.signalObj = nullptr;
    msg.sharedAddress = 0;
}

} // namespace

ZantMsgBody packForOtherProcess(const CZantMsg& msg) {
    return {msg, msg.sharedAddress, 0};
}

void unpackFromOtherProcess(const ZantMsgBody& body, CZantMsg& msg) {
    unpackValues(body, msg);
    msg.sharedAddress = body.signalPtr;
}

void unpackMsg(const ZantMsgBody& body, CZantMsg& msg) {
    unpackValues(body, msg);
    if (body.signalPtr != 0)
        msg.signalPtr = pointer_tokens::take(body.signalPtr, Kind::buffer, body.signalSize);
    if (body.signalObj != 0)
        msg.signalObj =
            static_cast<CZantMsgObject*>(pointer_tokens::take(body.signalObj, Kind::object));

    const bool bufferIsForeign = body.signalPtr != 0 && !msg.signalPtr;
    const bool objectIsForeign = body.signalObj != 0 && !msg.signalObj;
    // A size without the buffer that it measures would mislead the receiver.
    if (bufferIsForeign)
        msg.signalSize = 0;
    if (bufferIsForeign || objectIsForeign)
        ZANT_TRACE(
            TRACEUNIT_MSG_QUEUE, TRACELEVEL_ERROR,
            "CZantMsgQueue::Receive - Payload is unknown here and left away: only threads of "
            "one process may send payloads - signal=%lu ptr=0x%08x obj=0x%08x\n",
            static_cast<unsigned long>(body.signalId), body.signalPtr, body.signalObj);
}

PackedMsg::PackedMsg(CZantMsg& msg) : m_msg(msg), m_body{msg, 0, 0} {
    if (msg.signalPtr)
        m_body.signalPtr = pointer_tokens::put(msg.signalPtr, Kind::buffer, msg.signalSize);
    if (msg.signalObj)
        m_body.signalObj = pointer_tokens::put(msg.signalObj, Kind::object);
    m_complete =
        (!msg.signalPtr || m_body.signalPtr != 0) && (!msg.signalObj || m_body.signalObj != 0);
}

PackedMsg::~PackedMsg() {
    if (m_body.signalPtr != 0)
        pointer_tokens::take(m_body.signalPtr, Kind::buffer, m_body.signalSize);
    if (m_body.signalObj != 0)
        pointer_tokens::take(m_body.signalObj, Kind::object);
}

void PackedMsg::sent() {
    m_body.signalPtr = 0;
    m_body.signalObj = 0;
    m_msg.signalSize = 0;
    m_msg.signalPtr = nullptr;
    m_msg.signalObj = nullptr;
}
