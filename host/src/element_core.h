#ifndef HOST_ELEMENT_CORE_H
#define HOST_ELEMENT_CORE_H

#include "cached_position.h"
#include "calls.h"
#include "end.h"
#include "feeding.h"
#include "host/media_element.h"
#include "locks/mutex.h"
#include "playback.h"
#include "progress_watch.h"
#include "request_ledger.h"
#include "seek.h"
#include "uva/uva_client.h"

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

class UVAAsyncEvent;
class UVAEvent;

namespace host {

/// The media element on its event loop: brings what is asked for, and what the backend tells, to
/// the parts that it concerns. Bound to the loop's thread, but for where noted. Tasks share its
/// ownership: should the loop's thread hang in the backend, it keeps what it stands on.
class ElementCore final : public UVAClient, public std::enable_shared_from_this<ElementCore> {
public:
    ElementCore(std::shared_ptr<const BackendLibrary> library, std::shared_ptr<EventLoop> loop,
                Observer& observer, MediaElement::Options options);
    ~ElementCore() override;

    void deliverEvent(UVAEvent* event) override; ///< any thread

    void open(const std::string& uri);
    void openSource(MediaSource source);
    void attach(SourceId id, std::shared_ptr<SampleStream> stream);
    void detach(SourceId id);
    void reattach(StreamInfo::Kind kind);
    void resumeFeeding();
    void play();
    void pause();
    void seek(Seek::Request request);
    void setVolume(double volume);
    void setRate(double rate);
    void setDuration(double seconds);
    CapabilityAnswer canPlayType(const UVABackend::ContentDescription& description);
    void setWindow(const UVABackend::Rect& window);
    MediaElement::Capture capture();
    void release();

    // Any thread.
    CachedPosition& position() { return m_position; }
    SourceId nextSource();
    bool canPlayAt(double rate) const;
    PictureCounters counters() const;
    RequestCounts requests() const { return m_requests.counts(); }

    void closeGate() { m_calls.closeGate(); } ///< see Calls
    std::optional<MediaElement::Operation> operationUnderWay() const {
        return m_calls.operationUnderWay();
    }

private:
    /// What an event says, copied while it is delivered: the components in it are the backend's and
    /// may change later.
    struct Delivery {
        std::shared_ptr<UVAEvent> event;
        Record record;
        Playback::Components added;
        std::uint64_t cancel = 0; ///< of CancelDataRequestsAsync: which one
    };
    /// The newest CancelDataRequestsAsync.
    struct Cancel {
        std::uint64_t number = 0;
        double target = 0; ///< seconds
    };

    void countFor(SourceId id);
    PictureCounters pictures(SourceId id) const;
    bool requestBackend();
    bool begin(const std::string& server, double start);
    void startWatching();
    bool isOpen() const { return m_calls.backend() != nullptr; }

    void takeRequest(MseFeeder::Request request);
    void answerResourceRequest(UVAMediaBackend& backend, std::unique_ptr<UVAAsyncEvent> event);
    void handle(const Delivery& delivery);
    void act(const Delivery& delivery);
    void completeCancel(const UVAAsyncEvent& event, std::uint64_t number);
    void feedAnew();
    void changeCodecs(bool finished);
    void decoderAsked(Clock::time_point time);

    void beginSeek();
    void finishSeek(SeekOutcome outcome);
    void tick();
    void trackPosition();
    void tellPosition();
    std::optional<Phase> phase() const;
    bool isLookedInto() const;
    Phase phaseOfStart() const;

    const std::shared_ptr<const BackendLibrary> m_library;
    const MediaElement::Options m_options;
    Calls m_calls;
    ProgressWatch m_watch;
    Playback m_playback;
    Seek m_seek;
    End m_end;
    RequestLedger m_requests;
    std::unique_ptr<Feeding> m_feeding; // null: a URL is played
    std::vector<std::pair<SourceId, std::shared_ptr<SampleStream>>> m_early; // before there is any
    std::optional<double> m_volume; // for a backend that is not there yet
    std::uint64_t m_seeksTaken = 0;
    std::uint64_t m_cancelsDone = 0; // up to which data was cancelled
    CachedPosition m_position;
    std::atomic<bool> m_releasing{false}; // also read where events are delivered
    EventLoop::TimerId m_timer = 0;
    std::atomic<SourceId> m_sourceCount{0};

    mutable locks::Mutex m_mutex; // nothing is called under it
    std::vector<UVAMediaBackend::SpeedRange> m_speeds GUARDED_BY(m_mutex) = {{1.0, 1.0}};
    /// All that ever were, and what had been counted for them before; 0: of a URL.
    std::vector<std::pair<SourceId, PictureCounters>> m_sinks GUARDED_BY(m_mutex);
    Cancel m_cancel GUARDED_BY(m_mutex);
};

} // namespace host

#endif
