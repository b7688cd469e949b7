#ifndef UVA_GST_IF_LOWER_LAYER_H
#define UVA_GST_IF_LOWER_LAYER_H

#include "messaging/observer/observable_callback_function.h"
#include "messaging/queue/signal_ids.h"
#include "messaging/queue_thread/thread_object_with_queue.h"
#include "messaging/remote/zant_rpc_msg_src_posix.h"

#include <chrono>
#include <cstdint>

class CUvaGstMsgDestLowerLayer;

/// This process's end of the link to the main system: sends indications and responses, and has the
/// main system's messages delivered to the receiver's queue.
///
/// The send operations are for any thread and never wait for the main system: they queue a message
/// for the sending thread. What cannot be queued or sent is lost; that shows in the log and in the
/// traces beneath. They send through the virtual SendCmd.
class CUvaGstIfLowerLayer : public CThreadObjectWithQueue, public CObservableCallbackFunction {
public:
    explicit CUvaGstIfLowerLayer(CUvaGstMsgDestLowerLayer& destination);
    ~CUvaGstIfLowerLayer() override;

    /// Starts the link: the destination "BplayerAppIfLlDestFunc", whose messages go to
    /// `receiverQueue`, and the sending thread for "BplayerAppIfUlDestFunc". With 0 for the queue,
    /// a queue and a thread of its own hand the messages to the registered observers; then the code
    /// of opening that queue, else 0. The other number goes to the destination's Init.
    int32_t Init(int receiverQueue, long arg);
    /// The part of the link whose queue Init could not open, or that lacks its thread, the first if
    /// there are several; null when all is open.
    const CThreadObjectWithQueue* NotOpened() const { return m_notOpened; }
    void Term();
    /// Waits until the main system's queue has what it was told so far; false when it has not by
    /// then. Any thread but the link's.
    bool WaitUntilSent(std::chrono::steady_clock::time_point deadline) {
        return m_source.WaitUntilSent(deadline);
    }
    int32_t Dump() { return 0; }

    /// Queues the message for the main system; its payload is gone afterwards. A negative code, see
    /// CZantRpcMsgSrcPosix::SendCmd, is logged.
    int32_t SendCmd(CZantMsg* msg) override;
    void ProcessZantMsg(CZantMsg* msg) override;

    void sendIndicationInt32(SignalIds signal, int value);
    /// Carries the request's cookies, so that the main system knows what it answers.
    void sendResponseInt32(SignalIds signal, CZantMsg* request, int value);
    /// Sends a copy of `length` bytes.
    void sendIndicationBuffer(SignalIds signal, const unsigned char* data, int length);

private:
    CUvaGstMsgDestLowerLayer& m_destination;
    CZantRpcMsgSrcPosix m_source;
    const CThreadObjectWithQueue* m_notOpened = nullptr;
};

/// Stands for the destination where a routine is to be named; messages go to the queue, so that it
/// does nothing.
void UvaGstIfUlRpcRoutineAsync(_tagCPUFuncCallParam* param, _tagCPUFuncCallReturn* result);

/// The one of the process. Never destroyed.
extern CUvaGstIfLowerLayer& uvaGstIfLowerLayer;

#endif
