#ifndef MESSAGING_ZANT_MSG_BODY_H
#define MESSAGING_ZANT_MSG_BODY_H

#include "messaging/queue/zant_msg.h"

#include <cstdint>

/// A message as it lies in a queue: twelve words in the machine's byte order. The last two stand
/// for the payloads, see pointer_tokens; on a queue between processes the first of them is an
/// address in shared memory and the second is 0.
struct ZantMsgBody : ZantMsgValues {
    uint32_t signalPtr = 0;
    uint32_t signalObj = 0;
};

static_assert(sizeof(ZantMsgValues) == 40 && sizeof(ZantMsgBody) == 48);

/// The message's values, the shared address in place of the buffer, no payload of this process.
ZantMsgBody packForOtherProcess(const CZantMsg& msg);

/// Fills the message with a body from a queue between processes. The message's own payload fields
/// are overwritten, not freed.
void unpackFromOtherProcess(const ZantMsgBody& body, CZantMsg& msg);

/// Fills the message with a body from a queue of this process and hands it the payloads. Payloads
/// that are not of this process, or were taken before, are answered with a trace and left away.
/// The message's own payload fields are overwritten, not freed.
void unpackMsg(const ZantMsgBody& body, CZantMsg& msg);

/// A message made ready for a queue of this process. Unless it was sent, the words for its payloads
/// are taken back at the end. The payloads stay the message's until sent() is called.
class PackedMsg {
public:
    explicit PackedMsg(CZantMsg& msg);
    ~PackedMsg();
    PackedMsg(const PackedMsg&) = delete;
    PackedMsg& operator=(const PackedMsg&) = delete;

    const ZantMsgBody& body() const { return m_body; }
    /// False when there are too many payloads on their way already.
    bool isComplete() const { return m_complete; }
    /// The payloads belong to the receiver now: clears those fields of the message.
    void sent();

private:
    CZantMsg& m_msg;
    ZantMsgBody m_body;
    bool m_complete;
};

#endif
