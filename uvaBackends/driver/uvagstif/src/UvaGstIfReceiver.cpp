#include "UvaGstIfReceiver.h"

#include "UvaGstIfLowerLayer.h"
#include "messaging/queue/zant_msg.h"
#include "messaging/remote/rpc_sequence.h"
#include "timeline/timeline.h"
#include "util/thrown_by.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

namespace {

using namespace std::chrono_literals;

constexpr auto longestRequest = 5s;
constexpr auto longestGivingBack = 1s;

UvaGstIfClock& realClock() {
    static UvaGstIfClock& clock = *new UvaGstIfClock;
    return clock;
}

const char* signalName(const CZantMsg& msg) {
    return GetSignalIdNamePtr(static_cast<SignalIds>(msg.signalId));
}

} // namespace

CUvaGstIfReceiver::CUvaGstIfReceiver(CUvaGstIfLowerLayer& lowerLayer)
    : CUvaGstIfReceiver(lowerLayer, realClock()) {}

CUvaGstIfReceiver::CUvaGstIfReceiver(CUvaGstIfLowerLayer& lowerLayer, UvaGstIfClock& clock)
    : m_lowerLayer(lowerLayer), m_clock(clock) {}

CUvaGstIfReceiver::~CUvaGstIfReceiver() {
    CThreadObjectWithQueue::StopThreadAndWait();
}

int32_t CUvaGstIfReceiver::Init() {
    return CThreadObjectWithQueue::Init("/Q_UVAGST_IF_REC_", 50, 0, false, true);
}

void CUvaGstIfReceiver::Term() {
    cutOff();
    StopThreadAndWait();
    CThreadObject::Terminate();
    CZantMsgQueue::Terminate();
}

void CUvaGstIfReceiver::cutOff() {
    const MutexLock lock(stateMutex);
    m_isCutOff = true;
    stateCond.broadcast();
}

void CUvaGstIfReceiver::connectBackend(const UvaGstIfControl* newBackend) {
    const UvaGstIfLogLater later;
    const MutexLock lock(backendMutex);
    setBackend(newBackend);
}

void CUvaGstIfReceiver::disconnectBackend(const UvaGstIfControl* goingBackend) {
    const UvaGstIfLogLater later;
    const MutexLock lock(backendMutex);
    if (backend == goingBackend)
        setBackend(nullptr);
}

void CUvaGstIfReceiver::setBackend(const UvaGstIfControl* newBackend) {
    if ((backend == nullptr) != (newBackend == nullptr))
        UVA_GST_IF_LOG(BackendIf, Debug, "old = %p, new = %p", static_cast<const void*>(backend),
                       static_cast<const void*>(newBackend));
    backend = newBackend;
}

/// What is thrown costs this message, not the thread.
void CUvaGstIfReceiver::ProcessZantMsg(CZantMsg* msg) {
    if (!msg)
        return;
    const timeline::Span span("link", "handle");
    span.with("signal", signalName(*msg));
    if (const uint32_t number = rpc_sequence::read(msg->rpcControl); number != 0)
        span.flow(timeline::Flow::End, "received", number);
    if (const auto thrown = thrownBy([&] { dispatch(*msg); }))
        UVA_GST_IF_LOG(BackendIf, Error, "***E: %s is lost: %s", signalName(*msg), thrown->c_str());
    msg->FreeSignal();
}

void CUvaGstIfReceiver::dispatch(CZantMsg& msg) {
    UVA_GST_IF_LOG(BackendIf, Debug, "%s(%d) l=%d", signalName(msg), static_cast<int>(msg.signalId),
                   msg.signalSize);
    switch (msg.signalId) {
    case SIG_ID_MPLAYER_DECODER_AVAILABLE_IND:
        return processDecoderAvailableInd(msg);
    case SIG_ID_MPLAYER_DECODER_NOT_AVAILABLE_IND:
        return processDecoderNotAvailableInd();
    case SIG_ID_MPLAYER_DECODER_RELEASE_REQ:
        return processDecoderReleaseReq(msg);
    case SIG_ID_MPLAYER_CONTROL_REQ:
        return processControlReq(static_cast<const char*>(msg.signalPtr), msg.signalSize);
    default:
        UVA_GST_IF_LOG(BackendIf, Warning, "unhandled message: %s (%d) l=%d", signalName(msg),
                       static_cast<int>(msg.signalId), msg.signalSize);
    }
}

int CUvaGstIfReceiver::decoder_request_cb(GstElement*, const char* type, void* receiver) noexcept {
    const auto kind = mediaKindOf(type);
    bool granted = false;
    const auto thrown = thrownBy([&] {
        granted = kind && receiver &&
                  static_cast<CUvaGstIfReceiver*>(receiver)->requestDecoder(*kind, nullptr);
    });
    if (thrown)
        UVA_GST_IF_LOG(BackendIf, Error, "***E: no request for %s: %s", type, thrown->c_str());
    return granted;
}

bool CUvaGstIfReceiver::requestDecoder(MediaKind kind, UvaGstIfRequester requester,
                                       const Interrupted& isInterrupted) {
    const Request request{bitOf(kind), isInterrupted};
    uint32_t available = state().available;
    UVA_GST_IF_LOG(BackendIf, Debug, "decoder_request=%d decoder_available=%d",
                   static_cast<int>(request.bit), static_cast<int>(available));
    bool granted = false;
    {
        const UvaGstIfLogLater later;
        const MutexLock lock(stateMutex);
        granted = !isRefused(request);
        if (granted && (decoder_available & request.bit) == 0)
            granted = askMainSystem(request) && waitForGrant(request) && !isRefused(request);
        if (granted) {
            decoder_used |= request.bit;
            m_users[indexOf(kind)].insert(requester);
            stateCond.broadcast();
        }
        available = decoder_available;
    }
    UVA_GST_IF_LOG(BackendIf, Debug,
                   "  requested decoder %savailable (decoder_request=%d decoder_available=%d)",
                   granted ? "" : "not ", static_cast<int>(request.bit),
                   static_cast<int>(available));
    return granted;
}

bool CUvaGstIfReceiver::isRefused(const Request& request) const {
    return m_isCutOff || (request.isInterrupted && request.isInterrupted());
}

/// False when the request cannot be sent: nobody would answer it.
bool CUvaGstIfReceiver::askMainSystem(const Request& request) {
    CZantMsg needed(SIG_ID_MPLAYER_DECODER_NEEDED_IND);
    needed.param1 = static_cast<int32_t>(request.bit);
    if (m_lowerLayer.SendCmd(&needed) < 0)
        return false;
    requestPending = 1;
    stateCond.broadcast();
    return true;
}

bool CUvaGstIfReceiver::waitForGrant(const Request& request) {
    const auto deadline = m_clock.now() + longestRequest;
    const uint32_t refusals = m_refusals;
    ++m_waiting;
    while ((decoder_available & request.bit) == 0 && requestPending == 1 &&
           m_refusals == refusals && !isRefused(request) &&
           m_clock.waitUntil(stateCond, stateMutex, deadline)) {
    }
    --m_waiting;
    if (const auto answer = std::exchange(m_answer, 0); answer != 0 && timeline::isOn())
        timeline::flow(timeline::Flow::End, "answer", answer);
    return (decoder_available & request.bit) != 0;
}

void CUvaGstIfReceiver::wake() {
    const MutexLock lock(stateMutex);
    stateCond.broadcast();
}

void CUvaGstIfReceiver::leave(UvaGstIfRequester requester) {
    const UvaGstIfLogLater later;
    const MutexLock lock(stateMutex);
    for (const auto kind : mediaKinds)
        if (!leavesToOthers(kind, requester))
            giveBack(bitOf(kind) & decoder_used);
    stateCond.broadcast();
}

CUvaGstIfReceiver::State CUvaGstIfReceiver::state() {
    const MutexLock lock(stateMutex);
    return {decoder_release_request, decoder_used, decoder_available, requestPending == 1,
            m_waiting};
}

void CUvaGstIfReceiver::processDecoderAvailableInd(const CZantMsg& msg) {
    const UvaGstIfLogLater later;
    const MutexLock lock(stateMutex);
    UVA_GST_IF_LOG(BackendIf, Debug, "-> available_decoder: '%d'|'%d'\n",
                   static_cast<int>(decoder_available), msg.param1);
    decoder_available |= static_cast<uint32_t>(msg.param1);
    recordAnswer();
    stateCond.broadcast();
}

void CUvaGstIfReceiver::processDecoderNotAvailableInd() {
    const MutexLock lock(stateMutex);
    requestPending = 0;
    ++m_refusals;
    recordAnswer();
    stateCond.broadcast();
}

/// For the time line: from here to the first who waits for it.
void CUvaGstIfReceiver::recordAnswer() {
    if (!timeline::isOn() || m_waiting == 0 || m_answer != 0)
        return;
    m_answer = timeline::newId();
    timeline::flow(timeline::Flow::Start, "answer", m_answer);
}

void CUvaGstIfReceiver::processDecoderReleaseReq(CZantMsg& msg) {
    const auto kinds = static_cast<uint32_t>(msg.param1);
    const UvaGstIfLogLater later;
    const MutexLock lock(stateMutex);
    UVA_GST_IF_LOG(BackendIf, Debug, "-> decoder_release_request='%d' needed='%d' available='%d'",
                   msg.param1, static_cast<int>(decoder_used), static_cast<int>(decoder_available));
    if (kinds == 0)
        return;
    if ((kinds & decoder_used) != 0) {
        UVA_GST_IF_LOG(BackendIf, Error, "***E: how to suspend Mediaplayer pipeline here?");
        decoder_release_request |= kinds;
        m_releaseRequests.push_back(kinds);
    } else {
        m_lowerLayer.sendResponseInt32(SIG_ID_MPLAYER_DECODER_RELEASE_RESP, &msg, msg.param1);
        decoder_available &= ~kinds;
    }
    stateCond.broadcast();
}

void CUvaGstIfReceiver::processControlReq(const char* bytes, int length) {
    if (!bytes || length < 0)
        return;
    const std::string commands(bytes, strnlen(bytes, static_cast<size_t>(length)));
    const MutexLock lock(backendMutex);
    if (backend)
        (*backend)(commands.c_str());
}

void CUvaGstIfReceiver::handleDecoderNeededLocked(const char* type, std::optional<MediaKind> lost) {
    UVA_GST_IF_LOG(BackendIf, Debug,
                   "type='%s' -> decoder_release_request='%d' needed='%d' available='%d'", type,
                   static_cast<int>(decoder_release_request), static_cast<int>(decoder_used),
                   static_cast<int>(decoder_available));
    if (!lost)
        return;
    decoder_used &= ~bitOf(*lost);
    m_users[indexOf(*lost)].clear();
    answerReleaseRequests();
}

/// Each on its own, as soon as nothing that it asks back is in use.
void CUvaGstIfReceiver::answerReleaseRequests() {
    const auto stillWaits = std::stable_partition(
        m_releaseRequests.begin(), m_releaseRequests.end(),
        [used = decoder_used](uint32_t kinds) { return (kinds & used) == 0; });
    for (auto request = m_releaseRequests.begin(); request != stillWaits; ++request) {
        m_lowerLayer.sendIndicationInt32(SIG_ID_MPLAYER_DECODER_RELEASE_RESP,
                                         static_cast<int>(*request));
        decoder_available &= ~*request;
    }
    m_releaseRequests.erase(m_releaseRequests.begin(), stillWaits);
    decoder_release_request = 0;
    for (const uint32_t kinds : m_releaseRequests)
        decoder_release_request |= kinds;
}

/// The requester has done with the kind: who said so before, or never had it, changes nothing.
bool CUvaGstIfReceiver::leavesToOthers(MediaKind kind, UvaGstIfRequester requester) {
    auto& users = m_users[indexOf(kind)];
    users.erase(requester);
    return !users.empty();
}

void CUvaGstIfReceiver::giveBack(uint32_t kinds) {
    for (const auto kind : mediaKinds)
        if ((kinds & bitOf(kind)) != 0)
            handleDecoderNeededLocked((std::string("-") + nameOf(kind)).c_str(), kind);
}

void CUvaGstIfReceiver::handleApplicationMessage(const UvaGstIfApplicationMessage& message,
                                                 UvaGstIfRequester requester) {
    if (!message.name)
        return;
    UVA_GST_IF_LOG(BackendIf, Debug, "got application message: %s", message.name);
    const std::string_view says = message.name;
    if (says == "GstNoxDecoderNeeded" && message.type)
        decoderNoLongerNeeded(message.type, requester);
    else if (says == "GstNoxVideoFormat")
        reportVideoFormat(message.format);
    else if (says == "GstNoxAudioFormat" && message.codec)
        reportAudioFormat(message.codec);
}

void CUvaGstIfReceiver::decoderNoLongerNeeded(const char* type, UvaGstIfRequester requester) {
    const auto lost = mediaKindOf('-', type);
    const UvaGstIfLogLater later;
    const MutexLock lock(stateMutex);
    if (lost && leavesToOthers(*lost, requester))
        return;
    handleDecoderNeededLocked(type, lost);
    stateCond.broadcast();
}

void CUvaGstIfReceiver::reportVideoFormat(const UvaGstIfVideoFormat& format) {
    UVA_GST_IF_LOG(BackendIf, Debug, "  Size_Dec    = %d x %d\n", format.width, format.height);
    UVA_GST_IF_LOG(BackendIf, Debug, "  Size_Disp   = %d x %d\n", format.displayWidth,
                   format.displayHeight);
    UVA_GST_IF_LOG(BackendIf, Debug, "  DAR  = %d/%d\n", format.aspectRatio.numerator,
                   format.aspectRatio.denominator);
    UVA_GST_IF_LOG(BackendIf, Debug, "  FR   = %d/%d\n", format.frameRate.numerator,
                   format.frameRate.denominator);
    const auto record = videoFormatRecord(format);
    m_lowerLayer.sendIndicationBuffer(SIG_ID_MPLAYER_VIDEO_FORMAT_IND, record.data(),
                                      static_cast<int>(record.size()));
}

void CUvaGstIfReceiver::reportAudioFormat(const char* codec) {
    const std::string text = mediaInfoText(codec);
    m_lowerLayer.sendIndicationBuffer(SIG_ID_MPLAYER_MEDIA_INFO_IND,
                                      reinterpret_cast<const unsigned char*>(text.c_str()),
                                      static_cast<int>(text.size()) + 1);
}

void CUvaGstIfReceiver::waitForDecoderAvailable(GstElement* pipeline, const char* from) {
    const auto& states = uvaGstIfMedia().states;
    auto now = states(pipeline);
    uint32_t used = state().used;
    UVA_GST_IF_LOG(BackendIf, Debug, "from '%s': pipeline state=%d pending=%d decoder_used=%d",
                   from ? from : "", now.current, now.pending, static_cast<int>(used));
    for (; used != 0; used = state().used) {
        now = states(pipeline);
        UVA_GST_IF_LOG(BackendIf, Debug, " loop: state=%d pending=%d decoder_used=%d\n",
                       now.current, now.pending, static_cast<int>(used));
        giveBackWhatIsLeft();
    }
}

/// What nobody gives back within the time.
void CUvaGstIfReceiver::giveBackWhatIsLeft() {
    const UvaGstIfLogLater later;
    const MutexLock lock(stateMutex);
    const auto deadline = m_clock.now() + longestGivingBack;
    while (decoder_used != 0 && !m_isCutOff && m_clock.waitUntil(stateCond, stateMutex, deadline)) {
    }
    giveBack(decoder_used);
    stateCond.broadcast();
}
