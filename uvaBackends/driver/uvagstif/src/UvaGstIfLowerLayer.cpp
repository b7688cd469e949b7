#include "UvaGstIfLowerLayer.h"

#include "UvaGstIfMedia.h"
#include "UvaGstMsgDestLowerLayer.h"
#include "messaging/queue/zant_msg.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <new>
#include <utility>

namespace {

constexpr int nrOfMsgs = 50;
constexpr const char* ownFunction = "BplayerAppIfLlDestFunc";
constexpr const char* mainSystemFunction = "BplayerAppIfUlDestFunc";

} // namespace

CUvaGstIfLowerLayer::CUvaGstIfLowerLayer(CUvaGstMsgDestLowerLayer& destination)
    : m_destination(destination) {}

CUvaGstIfLowerLayer::~CUvaGstIfLowerLayer() {
    CThreadObjectWithQueue::StopThreadAndWait();
}

int32_t CUvaGstIfLowerLayer::Init(int receiverQueue, long arg) {
    int32_t result = 0;
    if (receiverQueue == 0) {
        result = CThreadObjectWithQueue::Init("/Q_UVAGST_IF_LL_RECEIVE_", nrOfMsgs, 0, false, true);
        StartThread("UvaGst_If_Lower_Layer_Receiver", 0, 0);
        receiverQueue = m_queue.handle;
    }
    const int32_t destination = m_destination.Init(ownFunction, UvaGstIfUlRpcRoutineAsync,
                                                   CPUID_APPLICATION, receiverQueue, arg);
    const int32_t source =
        m_source.Init("/Q_UVAGST_IF_LL_SEND_", nrOfMsgs, CPUID_MAIN, mainSystemFunction);
    m_source.StartThread("UvaGst_If_Lower_Layer_Sender", 0, 0);
    const std::pair<const CThreadObjectWithQueue*, int32_t> parts[] = {
        {this, result}, {&m_destination, destination}, {&m_source, source}};
    const auto* const failed =
        std::find_if(std::begin(parts), std::end(parts), [](const auto& part) {
            return part.second != 0 || part.first->LacksThread();
        });
    m_notOpened = failed != std::end(parts) ? failed->first : nullptr;
    return result;
}

void CUvaGstIfLowerLayer::Term() {
    m_destination.Term();
}

int32_t CUvaGstIfLowerLayer::SendCmd(CZantMsg* msg) {
    const int32_t result = m_source.SendCmd(msg);
    if (result < 0)
        UVA_GST_IF_LOG(Backend, Error, "SendCmd() returned %d", result);
    return result;
}

void CUvaGstIfLowerLayer::ProcessZantMsg(CZantMsg* msg) {
    NotifyObserversWithCallbackFunction(msg);
}

void CUvaGstIfLowerLayer::sendIndicationInt32(SignalIds signal, int value) {
    CZantMsg msg(signal);
    msg.param1 = value;
    SendCmd(&msg);
}

void CUvaGstIfLowerLayer::sendResponseInt32(SignalIds signal, CZantMsg* request, int value) {
    CZantMsg msg(signal);
    msg.param1 = value;
    if (request) {
        msg.responseInfo = request->responseInfo;
        msg.responseInfo2 = request->responseInfo2;
    }
    SendCmd(&msg);
}

void CUvaGstIfLowerLayer::sendIndicationBuffer(SignalIds signal, const unsigned char* data,
                                               int length) {
    const auto size = static_cast<size_t>(length);
    void* const copy =
        length >= 0 && (data || length == 0) ? ::operator new(size, std::nothrow) : nullptr;
    if (!copy) {
        UVA_GST_IF_LOG(Backend, Error, "no payload of %d bytes for %s", length,
                       GetSignalIdNamePtr(signal));
        return;
    }
    if (length > 0)
        memcpy(copy, data, size);
    CZantMsg msg(signal);
    msg.signalPtr = copy;
    msg.signalSize = length;
    SendCmd(&msg);
}

void UvaGstIfUlRpcRoutineAsync(_tagCPUFuncCallParam*, _tagCPUFuncCallReturn*) {}
