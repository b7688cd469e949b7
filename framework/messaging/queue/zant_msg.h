#ifndef MESSAGING_ZANT_MSG_H
#define MESSAGING_ZANT_MSG_H

#include "messaging/queue/signal_ids.h"

#include <cstdint>

class CZantMsgQueue;

/// A payload that is an object. A message owns its object and deletes it.
class CZantMsgObject {
public:
    virtual ~CZantMsgObject() = default;
    /// A deep copy, owned by the caller; null when there can be none.
    virtual CZantMsgObject* Clone() const = 0;
};

/// What a message says besides its payloads, in the order in which it lies in a queue.
struct ZantMsgValues {
    /// One of SignalIds.
    uint32_t signalId = SIG_ID_NULL;
    int32_t param1 = 0;
    /// Handle of the queue that a reply goes to, 0 for none.
    int32_t responseQueue = 0;
    /// The requester's cookies, copied unchanged into the response. In an expiry message the id of
    /// the timer and the word that stands for it.
    int32_t responseInfo = 0;
    int32_t responseInfo2 = 0;
    int32_t param2 = 0;
    int32_t param3 = 0;
    /// Of remote calls: flags in the low half, sequence counter in the third byte.
    uint32_t rpcControl = 0;
    int32_t param4 = 0;
    /// Length of the buffer in bytes.
    int32_t signalSize = 0;
};

/// The message that every thread of the framework talks to every other with.
///
/// A message owns its payloads, the buffer and the object, and frees them at its end. A successful
/// send hands them to the receiver and leaves this message without; a failed send frees them. Bound
/// to one thread at a time.
class CZantMsg : public ZantMsgValues {
public:
    CZantMsg() = default;
    explicit CZantMsg(unsigned long signal) { signalId = static_cast<uint32_t>(signal); }
    CZantMsg(const CZantMsg& other);
    CZantMsg& operator=(const CZantMsg& other);
    virtual ~CZantMsg();

    /// Frees the payloads. `signalSize` is left as it was.
    void FreeSignal();

    /// Makes this a deep copy of the other. Returns 0, or -1301 when the other's buffer can not be
    /// copied (its size is 0, or memory is short): then there is no buffer and the size is 0.
    int32_t CopyMsg(const CZantMsg& other);

    ///@{
    /// Send the message with the given priority, see CZantMsgQueue::Send. The payloads are gone
    /// afterwards, whatever the result.
    int32_t SendMsg(CZantMsgQueue* queue, int prio);
    int32_t SendMsg(int handle, int prio);
    ///@}
    /// Sends to `responseQueue`; -1300 when there is none.
    int32_t SendMsgIndirect(int prio);

    ///@{
    /// See CZantMsgQueue::Receive and CZantMsgQueue::ReceiveFromNonblockingQueue. The number is not
    /// used.
    int32_t ReceiveMsg(CZantMsgQueue* queue, int unused);
    int32_t ReceiveMsgFromNonblockingQueue(CZantMsgQueue* queue, int unused);
    ///@}

    /// The name of `signalId`, "SIG_ID_NULL" for a value that is none.
    const char* signalName() const { return GetSignalIdNamePtr(static_cast<SignalIds>(signalId)); }

    /// The buffer, from the global operator new.
    void* signalPtr = nullptr;
    CZantMsgObject* signalObj = nullptr;
    /// On a queue between processes, in place of the buffer: its address in the memory that the
    /// processes share. No more than a number here; nothing frees it.
    uint32_t sharedAddress = 0;

private:
    int32_t copyBuffer(const CZantMsg& other);
};

#endif
