#ifndef UVA_GST_IF_RECEIVER_H
#define UVA_GST_IF_RECEIVER_H

#include "MediaKind.h"
#include "UvaGstIfClock.h"
#include "UvaGstIfMedia.h"
#include "UvaGstIfReports.h"
#include "messaging/queue_thread/thread_object_with_queue_rpc.h"
#include "util/mutex.h"

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <vector>

class CUvaGstIfLowerLayer;

/// Whose a decoder is: the address of something of its own. Null is nobody in particular.
using UvaGstIfRequester = const void*;

/// Obeys a control text of the main system; zero-terminated, the caller's. On the receiver's
/// thread, with its `backendMutex` held: it must not call connectBackend, nor wait for a thread
/// that does, nor take a lock under which somebody does.
using UvaGstIfControl = std::function<void(const char* commands)>;

/// This process's side of the arbitration of the set's decoders, which belong to the main system: a
/// thread that handles what the main system says, and the operations of those who want a decoder,
/// wait for one or give one back. Thread-safe.
///
/// The link knows a kind of decoder as granted to the process or not; masks have its bit. What is
/// granted is every requester's who asks, and in use until the last of them has given it back.
///
/// A wait for a decoder takes 5 seconds at most. It ends at once by a refusal, when whoever asks is
/// interrupted, and by Term; it does not begin when the request cannot be sent.
class CUvaGstIfReceiver : public CThreadObjectWithQueueRpc {
public:
    explicit CUvaGstIfReceiver(CUvaGstIfLowerLayer& lowerLayer);
    CUvaGstIfReceiver(CUvaGstIfLowerLayer& lowerLayer, UvaGstIfClock& clock);
    ~CUvaGstIfReceiver() override;

    /// Opens the queue; see CThreadObjectWithQueue::Init for the codes. The thread is then started
    /// with StartThread.
    int32_t Init();
    /// The queue that the lower layer delivers to, valid after Init.
    int queueHandle() const { return m_queue.handle; }
    /// What goes to the main system besides.
    CUvaGstIfLowerLayer& lowerLayer() { return m_lowerLayer; }
    /// Ends all waits and the thread, and freezes the lists of threads and queues. Requests are
    /// refused from then on.
    void Term();
    /// No answer will ever come: ends all waits and refuses requests from now on.
    void cutOff() EXCLUDES(stateMutex);

    /// Sets the backend that control requests go to, which keeps what is to be called; null for
    /// none. Waits while a control request is being handed over: the former backend is not called
    /// afterwards.
    void connectBackend(const UvaGstIfControl* newBackend) EXCLUDES(backendMutex);
    /// The same with null, for a backend that goes: one that has come since stays connected.
    void disconnectBackend(const UvaGstIfControl* goingBackend) EXCLUDES(backendMutex);

    void ProcessZantMsg(CZantMsg* msg) override;

    /// As requestDecoder for nobody in particular; `type` is "audio" or "video", `receiver` a
    /// CUvaGstIfReceiver. The answer is the element's: 1 or 0.
    static int decoder_request_cb(GstElement* element, const char* type, void* receiver) noexcept;

    /// Asks for the decoder of a kind and waits for the answer. True when it may be used, at once
    /// if the main system has granted it before. Called by streaming threads, with no lock of the
    /// caller's that its tear-down wants. While `isInterrupted` answers true the request is
    /// refused; it is called under the receiver's lock, calls nothing of the receiver, and whoever
    /// makes it true calls wake(). It may be empty.
    using Interrupted = std::function<bool()>;
    bool requestDecoder(MediaKind kind, UvaGstIfRequester requester,
                        const Interrupted& isInterrupted = {}) EXCLUDES(stateMutex);
    /// Who waits looks whether it is interrupted.
    void wake() EXCLUDES(stateMutex);

    /// Gives back what the requester still uses, because its pipeline is gone.
    void leave(UvaGstIfRequester requester) EXCLUDES(stateMutex);

    /// An application message of the pipeline's bus: "GstNoxDecoderNeeded" gives back the
    /// requester's decoder, "GstNoxVideoFormat" and "GstNoxAudioFormat" are reported to the main
    /// system. Never waits.
    void handleApplicationMessage(const UvaGstIfApplicationMessage& message,
                                  UvaGstIfRequester requester = nullptr) EXCLUDES(stateMutex);

    /// Waits until no decoder is in use, whoever uses it; after about a second what is left is
    /// given back all the same. For the owner of a pipeline that is about to go; `from` is for the
    /// log. Exported, as the object is.
    __attribute__((visibility("default"))) void waitForDecoderAvailable(GstElement* pipeline,
                                                                        const char* from)
        EXCLUDES(stateMutex);

    /// How things stand.
    struct State {
        uint32_t releaseRequest;
        uint32_t used;
        uint32_t available;
        bool requestPending;
        int waiting; ///< threads that wait for an answer
    };
    State state() EXCLUDES(stateMutex);

private:
    /// Who asks, for what.
    struct Request {
        uint32_t bit;
        const Interrupted& isInterrupted;
    };
    void setBackend(const UvaGstIfControl* newBackend) REQUIRES(backendMutex);
    void dispatch(CZantMsg& msg);
    bool isRefused(const Request& request) const REQUIRES(stateMutex);
    bool askMainSystem(const Request& request) REQUIRES(stateMutex);
    bool waitForGrant(const Request& request) REQUIRES(stateMutex);
    void recordAnswer() REQUIRES(stateMutex);
    void handleDecoderNeededLocked(const char* type, std::optional<MediaKind> lost)
        REQUIRES(stateMutex);
    void giveBack(uint32_t kinds) REQUIRES(stateMutex);
    void giveBackWhatIsLeft() EXCLUDES(stateMutex);
    void answerReleaseRequests() REQUIRES(stateMutex);
    bool leavesToOthers(MediaKind kind, UvaGstIfRequester requester) REQUIRES(stateMutex);
    void decoderNoLongerNeeded(const char* type, UvaGstIfRequester requester) EXCLUDES(stateMutex);
    void reportVideoFormat(const UvaGstIfVideoFormat& format);
    void reportAudioFormat(const char* codec);
    void processDecoderAvailableInd(const CZantMsg& msg);
    void processDecoderNotAvailableInd();
    void processDecoderReleaseReq(CZantMsg& msg);
    void processControlReq(const char* bytes, int length);

    /// Kinds that the main system has asked back and not been answered, of all its requests.
    uint32_t decoder_release_request GUARDED_BY(stateMutex) = 0;
    uint32_t decoder_used GUARDED_BY(stateMutex) = 0;
    uint32_t decoder_available GUARDED_BY(stateMutex) = 0;
    /// 1 from a request to its refusal. A grant leaves it, and so does a time-out.
    int32_t requestPending GUARDED_BY(stateMutex) = 0;
    /// Guards how decoders stand. Held while messages are queued for the main system, which is to
    /// hear of changes in their order and waits for nobody; no other lock of the link is taken
    /// under it.
    Mutex stateMutex;
    /// Told of every change.
    ConditionVariable stateCond;
    const UvaGstIfControl* backend GUARDED_BY(backendMutex) = nullptr;
    /// Guards `backend`, and is held while that one is called. Never together with the other.
    Mutex backendMutex;

    CUvaGstIfLowerLayer& m_lowerLayer;
    UvaGstIfClock& m_clock;
    /// Who uses each kind.
    std::array<std::set<UvaGstIfRequester>, mediaKinds.size()> m_users GUARDED_BY(stateMutex);
    /// The kinds of each request that has not been answered, in the order they came.
    std::vector<uint32_t> m_releaseRequests GUARDED_BY(stateMutex);
    /// Refusals ever: one that comes just before somebody else's request counts all the same.
    uint32_t m_refusals GUARDED_BY(stateMutex) = 0;
    int m_waiting GUARDED_BY(stateMutex) = 0;
    uint64_t m_answer GUARDED_BY(stateMutex) = 0; ///< of the time line, until it is taken
    bool m_isCutOff GUARDED_BY(stateMutex) = false;
};

/// The one of the process. Never destroyed.
extern __attribute__((visibility("protected"))) CUvaGstIfReceiver uvaGstIfReceiver;

#endif
