#include "UvaGstIfReceiver.h"

#include "UvaGstIfLowerLayer.h"
#include "UvaGstIfReports.h"
#include "messaging/queue/zant_msg.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>

namespace {

using namespace std::chrono_literals;

constexpr uint32_t audioKind = 1;
constexpr uint32_t videoKind = 2;
constexpr uint32_t bothKinds[] = {audioKind, videoKind};
constexpr auto longestRequest = 5s;
constexpr auto longestGivingBack = 1s;

/// The kind that a text names, with the prefix before it; 0 for any other text.
uint32_t kindOf(const char* text, const char* prefix) {
    const std::string wanted = text ? text : "";
    if (wanted == std::string(prefix) + "audio")
        return audioKind;
    return wanted == std::string(prefix) + "video" ? videoKind : 0;
}

constexpr size_t indexOf(uint32_t kind) {
    return kind == videoKind ? 1 : 0;
}

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

void CUvaGstIfReceiver::connectBackend(UvaGstIfBackend* newBackend) {
    const MutexLock lock(backendMutex);
    if ((backend == nullptr) != (newBackend == nullptr))
        UVA_GST_IF_LOG(BackendIf, Debug, "old = %p, new = %p", static_cast<void*>(backend),
                       static_cast<void*>(newBackend));
    backend = newBackend;
}

void CUvaGstIfReceiver::ProcessZantMsg(CZantMsg* msg) {
    if (!msg)
        return;
    UVA_GST_IF_LOG(BackendIf, Debug, "%s(%d) l=%d", signalName(*msg),
                   static_cast<int>(msg->signalId), msg->signalSize);
    switch (msg->signalId) {
    case SIG_ID_MPLAYER_DECODER_AVAILABLE_IND:
        processDecoderAvailableInd(*msg);
        break;
    case SIG_ID_MPLAYER_DECODER_NOT_AVAILABLE_IND:
        processDecoderNotAvailableInd();
        break;
    case SIG_ID_MPLAYER_DECODER_RELEASE_REQ:
        processDecoderReleaseReq(*msg);
        break;
    case SIG_ID_MPLAYER_CONTROL_REQ:
        processControlReq(static_cast<const char*>(msg->signalPtr), msg->signalSize);
        break;
    default:
        UVA_GST_IF_LOG(BackendIf, Warning, "unhandled message: %s (%d) l=%d", signalName(*msg),
                       static_cast<int>(msg->signalId), msg->signalSize);
        break;
    }
    msg->FreeSignal();
}

int CUvaGstIfReceiver::decoder_request_cb(GstElement*, const char* type, void* receiver) {
    if (!receiver)
        return 0;
    return static_cast<CUvaGstIfReceiver*>(receiver)->requestDecoder(type, nullptr) ? 1 : 0;
}

bool CUvaGstIfReceiver::requestDecoder(const char* type, UvaGstIfRequester* requester,
                                       const Interrupted& isInterrupted) {
    const uint32_t kind = kindOf(type, "");
    if (kind == 0)
        return false;
    const MutexLock lock(stateMutex);
    UVA_GST_IF_LOG(BackendIf, Debug, "decoder_request=%d decoder_available=%d",
                   static_cast<int>(kind), static_cast<int>(decoder_available));
    bool granted = !isRefused(kind, requester, isInterrupted);
    if (granted && (decoder_available & kind) == 0)
        granted = askMainSystem(kind) && waitForKind(kind, requester, isInterrupted) &&
                  !isRefused(kind, requester, isInterrupted);
    UVA_GST_IF_LOG(BackendIf, Debug,
                   "  requested decoder %savailable (decoder_request=%d decoder_available=%d)",
                   granted ? "" : "not ", static_cast<int>(kind),
                   static_cast<int>(decoder_available));
    if (!granted)
        return false;
    decoder_used |= kind;
    m_users[indexOf(kind)].insert(requester);
    stateCond.broadcast();
    return true;
}

bool CUvaGstIfReceiver::isRefused(uint32_t kind, const UvaGstIfRequester* requester,
                                  const Interrupted& isInterrupted) const {
    return m_isCutOff || (requester && requester->m_waits[indexOf(kind)].breakers > 0) ||
           (isInterrupted && isInterrupted());
}

/// False when the request cannot be sent: nobody would answer it.
bool CUvaGstIfReceiver::askMainSystem(uint32_t kind) {
    CZantMsg request(SIG_ID_MPLAYER_DECODER_NEEDED_IND);
    request.param1 = static_cast<int32_t>(kind);
    if (m_lowerLayer.SendCmd(&request) < 0)
        return false;
    requestPending = 1;
    stateCond.broadcast();
    return true;
}

bool CUvaGstIfReceiver::waitForKind(uint32_t kind, const UvaGstIfRequester* requester,
                                    const Interrupted& isInterrupted) {
    const auto deadline = m_clock.now() + longestRequest;
    const uint32_t refusals = m_refusals;
    const auto brokenWaits = [&] {
        return requester ? requester->m_waits[indexOf(kind)].broken : 0;
    };
    const uint32_t brokenBefore = brokenWaits();
    bool mayWait = true;
    ++m_waiting;
    while (mayWait && (decoder_available & kind) == 0) {
        const bool isBroken = brokenWaits() != brokenBefore;
        const bool isPending = requestPending == 1 && m_refusals == refusals;
        mayWait = isPending && !isBroken && !isRefused(kind, requester, isInterrupted) &&
                  m_clock.waitUntil(stateCond, stateMutex, deadline);
    }
    --m_waiting;
    return (decoder_available & kind) != 0;
}

void CUvaGstIfReceiver::breakWaits(UvaGstIfRequester& requester, const char* type) {
    const MutexLock lock(stateMutex);
    for (const uint32_t kind : bothKinds) {
        if (type && kindOf(type, "") != kind)
            continue;
        auto& waits = requester.m_waits[indexOf(kind)];
        ++waits.breakers;
        ++waits.broken;
    }
    stateCond.broadcast();
}

void CUvaGstIfReceiver::allowWaits(UvaGstIfRequester& requester, const char* type) {
    const MutexLock lock(stateMutex);
    for (const uint32_t kind : bothKinds) {
        auto& waits = requester.m_waits[indexOf(kind)];
        if ((!type || kindOf(type, "") == kind) && waits.breakers > 0)
            --waits.breakers;
    }
}

void CUvaGstIfReceiver::wake() {
    const MutexLock lock(stateMutex);
    stateCond.broadcast();
}

void CUvaGstIfReceiver::leave(UvaGstIfRequester& requester) {
    const MutexLock lock(stateMutex);
    for (const uint32_t kind : bothKinds) {
        if (!leavesToOthers(kind, &requester))
            giveBack(kind & decoder_used);
    }
    stateCond.broadcast();
}

CUvaGstIfReceiver::State CUvaGstIfReceiver::state() {
    const MutexLock lock(stateMutex);
    return {decoder_release_request, decoder_used, decoder_available, requestPending == 1,
            m_waiting};
}

void CUvaGstIfReceiver::processDecoderAvailableInd(const CZantMsg& msg) {
    const MutexLock lock(stateMutex);
    UVA_GST_IF_LOG(BackendIf, Debug, "-> available_decoder: '%d'|'%d'\n",
                   static_cast<int>(decoder_available), msg.param1);
    decoder_available |= static_cast<uint32_t>(msg.param1);
    stateCond.broadcast();
}

void CUvaGstIfReceiver::processDecoderNotAvailableInd() {
    const MutexLock lock(stateMutex);
    requestPending = 0;
    ++m_refusals;
    stateCond.broadcast();
}

void CUvaGstIfReceiver::processDecoderReleaseReq(CZantMsg& msg) {
    const auto kinds = static_cast<uint32_t>(msg.param1);
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
        backend->controlCommands(commands.c_str());
}

void CUvaGstIfReceiver::handleDecoderNeededLocked(const char* type) {
    UVA_GST_IF_LOG(BackendIf, Debug,
                   "type='%s' -> decoder_release_request='%d' needed='%d' available='%d'", type,
                   static_cast<int>(decoder_release_request), static_cast<int>(decoder_used),
                   static_cast<int>(decoder_available));
    const uint32_t kind = kindOf(type, "-");
    decoder_used &= ~kind;
    if (kind != 0)
        m_users[indexOf(kind)].clear();
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
bool CUvaGstIfReceiver::leavesToOthers(uint32_t kind, const UvaGstIfRequester* requester) {
    auto& users = m_users[indexOf(kind)];
    users.erase(requester);
    return !users.empty();
}

void CUvaGstIfReceiver::giveBack(uint32_t kinds) {
    if ((kinds & audioKind) != 0)
        handleDecoderNeededLocked("-audio");
    if ((kinds & videoKind) != 0)
        handleDecoderNeededLocked("-video");
}

void CUvaGstIfReceiver::handleApplicationMessage(GstMessage* message,
                                                 const UvaGstIfRequester* requester) {
    UvaGstIfMedia& media = uvaGstIfMedia();
    const char* const text = message ? media.name(message) : nullptr;
    if (!text)
        return;
    UVA_GST_IF_LOG(BackendIf, Debug, "got application message: %s", text);
    const std::string structure = text;
    if (structure == "GstNoxDecoderNeeded")
        decoderNoLongerNeeded(media.text(message, "type"), requester);
    else if (structure == "GstNoxVideoFormat")
        reportVideoFormat(message);
    else if (structure == "GstNoxAudioFormat")
        reportAudioFormat(message);
}

void CUvaGstIfReceiver::decoderNoLongerNeeded(const char* type,
                                              const UvaGstIfRequester* requester) {
    if (!type)
        return;
    const MutexLock lock(stateMutex);
    const uint32_t kind = kindOf(type, "-");
    if (kind != 0 && leavesToOthers(kind, requester))
        return;
    handleDecoderNeededLocked(type);
    stateCond.broadcast();
}

void CUvaGstIfReceiver::reportVideoFormat(GstMessage* message) {
    UvaGstIfMedia& media = uvaGstIfMedia();
    const UvaGstIfVideoFormat format{media.integer(message, "width"),
                                     media.integer(message, "height"),
                                     media.integer(message, "disp-width"),
                                     media.integer(message, "disp-height"),
                                     media.fraction(message, "display-aspect-ratio"),
                                     media.fraction(message, "frame-rate")};
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

void CUvaGstIfReceiver::reportAudioFormat(GstMessage* message) {
    const char* const codec = uvaGstIfMedia().text(message, "codec");
    if (!codec)
        return;
    const std::string text = mediaInfoText(codec);
    m_lowerLayer.sendIndicationBuffer(SIG_ID_MPLAYER_MEDIA_INFO_IND,
                                      reinterpret_cast<const unsigned char*>(text.c_str()),
                                      static_cast<int>(text.size()) + 1);
}

void CUvaGstIfReceiver::waitForDecoderAvailable(GstElement* pipeline, const char* from) {
    UvaGstIfMedia& media = uvaGstIfMedia();
    UvaGstIfMedia::States states = media.states(pipeline);
    MutexLock lock(stateMutex);
    UVA_GST_IF_LOG(BackendIf, Debug, "from '%s': pipeline state=%d pending=%d decoder_used=%d",
                   from ? from : "", states.current, states.pending,
                   static_cast<int>(decoder_used));
    while (decoder_used != 0) {
        // A state change may wait for a thread that asks here: so not under the lock.
        lock.unlock();
        states = media.states(pipeline);
        lock.lock();
        UVA_GST_IF_LOG(BackendIf, Debug, " loop: state=%d pending=%d decoder_used=%d\n",
                       states.current, states.pending, static_cast<int>(decoder_used));
        const auto deadline = m_clock.now() + longestGivingBack;
        while (decoder_used != 0 && !m_isCutOff &&
               m_clock.waitUntil(stateCond, stateMutex, deadline)) {
        }
        giveBack(decoder_used);
        stateCond.broadcast();
    }
}
