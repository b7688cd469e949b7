#ifndef HOST_ELEMENT_CORE_H
#define HOST_ELEMENT_CORE_H

#include "host/event_loop.h"
#include "host/media_element.h"
#include "host/media_source.h"
#include "mse_feeder.h"
#include "progress_watch.h"
#include "uva/uva_client.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

class UVAAsyncEvent;
class UVAEvent;
class UVAMediaBackend;

namespace host {

class BackendLibrary;

/// The media element on its event loop. Bound to the loop's thread, but for deliverEvent(),
/// closeGate() and operationUnderWay(). Tasks share its ownership: should the loop's thread hang in
/// the backend, it keeps what it stands on.
class ElementCore final : public UVAClient,
                          public MseFeeder::Client,
                          public std::enable_shared_from_this<ElementCore> {
public:
    ElementCore(std::shared_ptr<const BackendLibrary> library, std::shared_ptr<EventLoop> loop,
                Observer& observer, MediaElement::Options options);
    ~ElementCore() override;

    void deliverEvent(UVAEvent* event) override; ///< any thread

    void open(const std::string& uri);
    void openSource(MediaSource source);
    void reattach(StreamInfo::Kind kind);
    void resumeFeeding();
    void play();
    void pause();
    void seek(double seconds);
    void setWindow(const UVABackend::Rect& window);
    MediaElement::Capture capture();
    void release();

    /// Once it has returned the observer is not called any more. Any thread but the observer's
    /// call.
    void closeGate();
    std::optional<MediaElement::Operation> operationUnderWay() const; ///< any thread

private:
    /// What an event says, copied while it is delivered: the components in it are the backend's and
    /// may change later.
    struct Delivery {
        std::shared_ptr<UVAEvent> event;
        Record record;
        std::vector<std::pair<const void*, Component>> added;
    };

    /// Whether a seek was begun; it settles when the position moves again.
    enum class Sought { Never, Settling, Settled };

    // From the feeder.
    void feederOpened() override;
    void feederFailed(const std::string& reason) override;
    void keyNeeded(const KeyBytes& id) override;
    void writeData(std::unique_ptr<NeedMSEDataEvent> event, unsigned int samples,
                   unsigned int bytes, UVABackend::WriteDataStatus status) override;
    void takeRequest(std::unique_ptr<NeedMSEDataEvent> event);

    UVAMediaBackend* requestBackend();
    bool initialize(UVABackend::SourceDescription** sources, std::vector<Argument> arguments);
    void startWatching();
    int attach(unsigned int id);
    void refreshSources();
    void watchBuffers();
    bool runsDry() const;
    bool isFilled() const;
    std::optional<double> ahead(std::size_t source) const;
    void answerResourceRequest(UVAMediaBackend& backend, std::unique_ptr<UVAAsyncEvent> event);
    void handle(const Delivery& delivery);
    void act(const Delivery& delivery);
    void completeCancel(const UVAAsyncEvent& event);
    void takeMetadata(const UVAEvent& event);
    void takeComponents(const Delivery& delivery);
    void underrun();
    void buffered();

    void startQueuedSeek();
    void finishSeek(SeekOutcome outcome);
    void answerSeek(double target, SeekOutcome outcome);
    void abortSeeks();

    void tick();
    void trackPosition();
    void refreshPosition();
    void moved();
    std::optional<Phase> phase() const;
    std::optional<Phase> phaseOfStart() const;
    std::chrono::milliseconds boundFor(Phase phase) const;
    void watch();
    void standstill(Phase phase);
    bool nearEnd() const;
    void considerEnd();
    void end();
    void hearErrors();
    void decoderAsked(Clock::time_point time);
    std::string decodeErrorText(int reason, Clock::time_point time) const;
    std::string networkErrorText();

    bool over() const;
    void settle();
    void setState(State state);
    void fail(std::string reason);
    void publishStatus();
    template <typename Call>
    void observe(Call call);

    template <typename Call>
    auto busy(const char* name, Call call);
    template <typename Call>
    auto operate(const char* name, std::vector<Argument> arguments, Call call);

    const std::shared_ptr<const BackendLibrary> m_library;
    const std::shared_ptr<EventLoop> m_loop;
    const MediaElement::Options m_options;

    /// Held while the observer is called, so that closeGate() waits for a call under way.
    std::mutex m_gate;
    Observer* m_observer; // guarded by m_gate; null once closed

    mutable std::mutex m_operationMutex; // guards m_operation; nothing is called under it
    std::optional<MediaElement::Operation> m_operation;

    std::atomic<UVAMediaBackend*> m_backend{nullptr}; // also read where events are delivered
    std::atomic<bool> m_releasing{false};

    Status m_status;
    std::vector<const void*> m_componentKeys; // one for each of m_status.components
    std::shared_ptr<MseFeeder> m_feeder;      // null: a URL is played
    bool m_protected = false;                 // the feeder has keys
    bool m_initialized = false;               // the backend has the media
    std::string m_server;                     // that the media comes from; empty: from files
    bool m_starved = false;                   // playback is held until there is enough again
    bool m_mediaSeen = false;                 // the backend has told something about the media
    bool m_wantPlaying = false;
    bool m_started = false;                          // something was played
    std::optional<Clock::time_point> m_decoderAsked; // when the main system was asked

    std::optional<double> m_seekInFlight;
    std::optional<double> m_seekQueued;
    bool m_seekFromEnd = false; // the one in flight began where playback had ended
    Sought m_sought = Sought::Never;
    double m_target = 0;    // of the last seek that was begun
    bool m_endSeen = false; // an end that may be from before the seek

    std::optional<Phase> m_phase; // that m_watch counts
    ProgressWatch m_watch;
    std::string m_error; // the first one since the media was opened, or the last seek; empty: none
    EventLoop::TimerId m_timer = 0;
};

} // namespace host

#endif
