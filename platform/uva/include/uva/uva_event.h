#ifndef UVA_EVENT_H
#define UVA_EVENT_H

#include "uva/uva_backend.h"
#include "uva/uva_sample.h"

#include <utility>
#include <vector>

/// What a backend tells its client. Owned by the client once delivered; deleted by it.
class UVAEvent {
public:
    /// The number of each event. Those without a class below belong to what this interface does not
    /// carry, such as broadcasts.
    enum Type : int {
        BackendResourceRevoked = 0,
        BackendResourceRequestAsync = 1,
        BackendResourceReleased = 2,
        NeedData = 3,
        NeedMSEData = 4,
        PlaybackFinished = 5,
        NewMetadata = 6,
        NeedKeySystem = 7,
        DecodeError = 8,
        VideoFrameAvailable = 9,
        VideoBufferAvailable = 10,
        DRMRightsError = 11,
        ParentalRatingError = 12,
        ParentalRatingChange = 13,
        PlaySpeedChanged = 14,
        BroadcastPlayPositionChanged = 15,
        BroadcastPlaystateChange = 16,
        BroadcastSignalStrengthChanged = 17,
        ChannelChangeError = 18,
        ChannelChangeSucceeded = 19,
        ProgrammesChanged = 20,
        Recording = 21,
        BufferingProgress = 22,
        BufferingNetworkError = 23,
        BufferingIdle = 24,
        BufferingStreamUnderrun = 25,
        BufferingStreamBuffered = 26,
        ConnectionEstablished = 27,
        ConnectionLost = 28,
        DeprecatedSubtitlesChanged = 29,
        ComponentChanged = 30,
        ExternalComponentActivate = 31,
        MultiComponentChanged = 32,
        InBandVTTUpdate = 33,
        InBandDVBSub = 34,
        InBandDataUpdate = 35,
        InBandTTML = 36,
        InBandRemoveCuesRange = 37,
        GetCookies = 38,
        PlaySpeedsArrayChanged = 39,
        SetCookie = 40,
        CancelDataRequestsAsync = 41,
        SeekCompletedEx = 42,
        CacheUpdateRequestAsync = 43,
        PidFilterData = 44,
        ChannelChanged = 45,
        TunerStateChanged = 46,
        BouquetSelectionChanged = 47,
        ContentIdChanged = 48,
        MrsUrlChanged = 49,
        AsyncReleaseFinished = 50,
        FramesDropped = 51,
        BufferingStreamPreloaded = 52,
        ActiveStateChanged = 53,
        PauseFinished = 54,
        PastLastNonOoifEvent = 3000,
    };

    explicit UVAEvent(Type type) : m_type(type) {}
    virtual ~UVAEvent();
    UVAEvent(const UVAEvent&) = delete;
    UVAEvent& operator=(const UVAEvent&) = delete;

    /// Which class this is: those below are told apart by it, without run-time type information.
    Type type() const { return m_type; }

private:
    const Type m_type;
};

/// An event that the client answers, once, with UVABackend::eventCompleted(); it deletes the event
/// after that call.
class UVAAsyncEvent : public UVAEvent {
public:
    using UVAEvent::UVAEvent;
    ~UVAAsyncEvent() override;
};

/// A sink needs the set's decoder. Completed with true to grant, false to refuse; a sink waits.
class BackendResourceRequestAsyncEvent : public UVAAsyncEvent {
public:
    explicit BackendResourceRequestAsyncEvent(bool audio)
        : UVAAsyncEvent(BackendResourceRequestAsync), audioOnly(audio) {}
    ~BackendResourceRequestAsyncEvent() override;
    const bool audioOnly;
};

/// The last decoder that the element used is free again.
class BackendResourceReleasedEvent : public UVAEvent {
public:
    explicit BackendResourceReleasedEvent(bool audio)
        : UVAEvent(BackendResourceReleased), audioOnly(audio) {}
    ~BackendResourceReleasedEvent() override;
    const bool audioOnly;
};

/// A media source wants samples. The client fills `samples` in and hands this very event back with
/// UVAMediaBackend::writeData(), which takes ownership of it and of the samples.
class NeedMSEDataEvent : public UVAEvent {
public:
    NeedMSEDataEvent(unsigned int id, int count)
        : UVAEvent(NeedMSEData), sourceId(id), samplesRequested(count) {}
    ~NeedMSEDataEvent() override;  ///< deletes the array and the samples still in it
    const unsigned int sourceId;   ///< SourceDescription::sourceId
    const int samplesRequested;    ///< at a time; fewer may be given
    UVASample** samples = nullptr; ///< null-terminated, allocated with new[]
};

/// The end of the media was shown. Told again when playback goes on there: play() after a pause(),
/// or the end of a seek that everything was delivered for meanwhile.
class PlaybackFinishedEvent : public UVAEvent {
public:
    PlaybackFinishedEvent(int reasonCode, int detailCode)
        : UVAEvent(PlaybackFinished), reason(reasonCode), detail(detailCode) {}
    ~PlaybackFinishedEvent() override;
    const int reason; ///< 0: the end of the stream
    const int detail; ///< 0: none
};

/// What is known of the media now.
class NewMetadataEvent : public UVAEvent {
public:
    NewMetadataEvent(double seconds, int w, int h, double par)
        : UVAEvent(NewMetadata), duration(seconds), width(w), height(h), pixelAspectRatio(par) {}
    ~NewMetadataEvent() override;
    const double duration;         ///< seconds; 0 when unknown
    const int width;               ///< pixels; -1 when unknown
    const int height;              ///< pixels; -1 when unknown
    const double pixelAspectRatio; ///< width of a pixel over its height
};

/// There will be no picture, or no sound: see the reason.
class DecodeErrorEvent : public UVAEvent {
public:
    /// What `reason` says. InsufficientResources: no decoder was granted.
    enum Reason : int { UnknownFormat = 0, CorruptStream = 1, InsufficientResources = 2 };
    explicit DecodeErrorEvent(int reasonCode) : UVAEvent(DecodeError), reason(reasonCode) {}
    ~DecodeErrorEvent() override;
    const int reason;
};

/// A URL cannot be fetched, or no longer.
class BufferingNetworkErrorEvent : public UVAEvent {
public:
    /// What `reason` says. SourceFailed: the element that fetches has reported an error.
    enum Reason : int { Unknown = 0, SourceFailed = 1 };
    explicit BufferingNetworkErrorEvent(int reasonCode)
        : UVAEvent(BufferingNetworkError), reason(reasonCode) {}
    ~BufferingNetworkErrorEvent() override;
    const int reason;
};

/// Data is arriving. Carries no figure; the backend that raises it defines its destructor.
class BufferingProgressEvent : public UVAEvent {
public:
    BufferingProgressEvent() : UVAEvent(BufferingProgress) {}
    ~BufferingProgressEvent() override;
};

/// Enough data is there. The backend that raises it defines its destructor.
class BufferingStreamBufferedEvent : public UVAEvent {
public:
    BufferingStreamBufferedEvent() : UVAEvent(BufferingStreamBuffered) {}
    ~BufferingStreamBufferedEvent() override;
};

/// Playback waits for data.
class BufferingStreamUnderrunEvent : public UVAEvent {
public:
    BufferingStreamUnderrunEvent() : UVAEvent(BufferingStreamUnderrun) {}
    ~BufferingStreamUnderrunEvent() override;
};

/// First phase of a seek: requests for data from before are void, and what is delivered all the
/// same is dropped; none is made before the seek. The client moves its own reading to the target
/// and completes the event; the seek is made in that completion, and data is asked for anew. Of
/// several that are pending the first completion makes the seek, to the newest target, and the
/// others nothing. One that is never completed leaves a media source without requests.
class CancelDataRequestsAsyncEvent : public UVAAsyncEvent {
public:
    explicit CancelDataRequestsAsyncEvent(double seconds)
        : UVAAsyncEvent(CancelDataRequestsAsync), position(seconds) {}
    ~CancelDataRequestsAsyncEvent() override;
    const double position; ///< target, seconds
};

/// Second phase of a seek.
class SeekCompletedExEvent : public UVAEvent {
public:
    /// What became of the seek. Aborted: something else came in its place.
    enum class SeekOutcome : int { Succeeded = 0, Aborted = 1, Failed = 2 };
    explicit SeekCompletedExEvent(SeekOutcome result)
        : UVAEvent(SeekCompletedEx), outcome(result) {}
    ~SeekCompletedExEvent() override;
    const SeekOutcome outcome;
};

/// Components came or went. The event owns the removed ones; the added ones belong to the backend.
class MultiComponentChangedEvent : public UVAEvent {
public:
    using Components = std::vector<UVABackend::AVComponent*>;
    MultiComponentChangedEvent(Components removedOnes, Components addedOnes)
        : UVAEvent(MultiComponentChanged), removed(std::move(removedOnes)),
          added(std::move(addedOnes)) {}
    ~MultiComponentChangedEvent() override; ///< deletes the removed components
    const Components removed;
    const Components added;
};

/// A captured picture can be fetched with getVideoFrame().
class VideoFrameAvailableEvent : public UVAEvent {
public:
    explicit VideoFrameAvailableEvent(unsigned int id) : UVAEvent(VideoFrameAvailable), frame(id) {}
    ~VideoFrameAvailableEvent() override;
    const unsigned int frame; ///< for frameConsumed()
};

/// releaseBackendAsynchronously() is through: the backend may be released.
class AsyncReleaseFinishedEvent : public UVAEvent {
public:
    AsyncReleaseFinishedEvent() : UVAEvent(AsyncReleaseFinished) {}
    ~AsyncReleaseFinishedEvent() override;
};

/// setActive() took effect.
class ActiveStateChangedEvent : public UVAEvent {
public:
    explicit ActiveStateChangedEvent(bool on) : UVAEvent(ActiveStateChanged), active(on) {}
    ~ActiveStateChangedEvent() override;
    const bool active;
};

/// pauseAsync() took effect.
class PauseFinishedEvent : public UVAEvent {
public:
    PauseFinishedEvent() : UVAEvent(PauseFinished) {}
    ~PauseFinishedEvent() override;
};

#endif
