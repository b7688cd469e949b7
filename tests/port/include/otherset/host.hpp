#pragma once
/**
 * \file   host.hpp
 * \brief  The whole host interface of the other set in one file; the headers in uva/ include it.
 *
 * Deliberately unlike the reference: values live in a namespace and are aliased, data members stand in
 * another order, constants are enumerators, and what need not be in the library is inline.
 */
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <utility>
#include <vector>

class UVAAsyncEvent;
class UVAClient;
class UVAEvent;

namespace otherset
{

/** \brief A rectangle on the screen, in pixels. */
struct Rectangle
{
    int width{}, height{}, x{}, y{};
};

/** \brief A pair of limits. */
template <typename Number> struct Limits
{
    Number start{}, end{};
};

struct SpeedLimits
{
    double maximum{1}, minimum{1};
};

/** \brief What the page asks before it plays; all numbers are decimal texts. */
struct TypeQuestion
{
    std::string drm_robustness, drmID, cryptoblockformat;
    std::string channels, bitrate, framerate, height, width;
    std::vector<std::string> codecs;
    std::string type;
};

struct ColourPoints
{
    unsigned bitsPerChannel{~0U}, primaries{2}, transfer{2}, range{0}, matrix{2};
};

struct MasteringDisplay
{
    double luminanceMin{}, luminanceMax{}, whitePointX{}, whitePointY{};
    double primaryBX{}, primaryBY{}, primaryGX{}, primaryGY{}, primaryRX{}, primaryRY{};
};

/** \brief Who owns the keys. */
struct KeySystem
{
    std::int32_t value{};
    std::uint64_t client{};
    unsigned flags{};
    const char *keySystemId{};
};

/** \brief A position and when it was read, all in seconds. */
struct __attribute__((visibility("default"))) TimePoint
{
    double mediaPosition, timestamp, rate, position;

    TimePoint(double Position, double Rate, double Timestamp, double MediaPosition)
        : mediaPosition(MediaPosition), timestamp(Timestamp), rate(Rate), position(Position)
    {
    }
    static double Timestamp();
};

} // namespace otherset

using UVATime = otherset::TimePoint;
using UVAKeySystemConfig = otherset::KeySystem;

/** \brief How a stream is coded. */
struct UVAStreamConfig
{
    enum Kind { UNKNOWN_STREAM, AUDIO_STREAM, VIDEO_STREAM };

    static constexpr int CODEC_AAC = 1001, CODEC_MP3 = 1002, CODEC_VORBIS = 1004, CODEC_OPUS = 1005;
    static constexpr int CODEC_EAC3 = 1006, CODEC_AC3 = 1007, CODEC_DTS = 1009;
    static constexpr int CODEC_AAC_MAIN = 1013, CODEC_AAC_HE = 1014;
    static constexpr int CODEC_H264 = 2001, CODEC_H265 = 2002, CODEC_VP8 = 2007, CODEC_VP9 = 2008;

    using ColorInfo = otherset::ColourPoints;
    using MasteringMetadata = otherset::MasteringDisplay;

    virtual ~UVAStreamConfig() = default;

    static constexpr Kind av(int Codec)
    {
        if (Codec < 1000 || Codec > 2998)
            return UNKNOWN_STREAM;
        return Codec <= 1998 ? AUDIO_STREAM : VIDEO_STREAM;
    }

    const MasteringMetadata *mastering{};
    const ColorInfo *color{};
    int height{}, width{}, channels{}, sampleRate{};
    std::size_t codecDataSize{};
    const std::uint8_t *codecData{};
    int codec{};
};

/** \brief One access unit of a media source. Its host's destructor runs on any thread. */
struct UVASample
{
    struct Subsample
    {
        std::uint32_t encryptedBytes{}, clearBytes{};
    };

    virtual const UVAStreamConfig *config() const = 0;
    virtual double duration() const = 0;
    virtual double dts() const = 0;
    virtual double pts() const = 0;
    virtual std::size_t payloadSize() const = 0;
    virtual const std::uint8_t *payload() const = 0;
    virtual const std::vector<Subsample> &subsamples() const = 0;
    virtual unsigned skipByteBlock() const { return 0; }
    virtual unsigned cryptByteBlock() const { return 0; }
    virtual std::size_t ivSize() const { return 0; }
    virtual const std::uint8_t *iv() const { return {}; }
    virtual std::size_t keyIdSize() const { return 0; }
    virtual const std::uint8_t *keyId() const { return {}; }
    virtual ~UVASample() = default;
};

/** \brief What both kinds of elements have in common: slots 1 to 12. */
class __attribute__((visibility("default"))) UVABackend
{
  public:
    enum { Success = 1, Failure, NotAvailable };
    enum UVABackendType : unsigned { VideoElement, AudioElement, MediaObject = 3 };
    enum ResourceType { NoResource, AudioDecoder, VideoDecoder, AllResources };
    enum WriteDataStatus { Data, EndOfStream, DataError };

    using Rect = otherset::Rectangle;
    using ByteRange = otherset::Limits<unsigned long long>;
    using TimeRange = otherset::Limits<double>;
    using ContentDescription = otherset::TypeQuestion;

    struct SourceDescription
    {
        enum Type { None, MseStreaming, HostStreaming, BackendStreaming };

        unsigned long long durationMs{};
        int streamType{};
        const char *mimeType{};
        int sourceId{};
        const char *userAgent{}, *url{};
        Type type{None};

        virtual ~SourceDescription() = default;
    };

    class AVComponent
    {
      public:
        enum Type { Video, Audio, Subtitle };
        enum class Kind { Subtitles, Captions, Descriptions, Chapters, Metadata };

        AVComponent(int Type, const char *Encoding, const char *Language, const char *Label);
        AVComponent(AVComponent &&) = delete;
        virtual ~AVComponent();

        void setActive(bool Active) { active = Active; }

        char *channel{};
        int bitrate{}, shape{}, pid{};
        bool encrypted{}, active{};
        std::string label, language, encoding;
        int type;
    };

    UVABackend(UVABackendType Type, UVAClient *Client) : m_uvaClient(Client), m_type(Type) {}
    UVABackend(UVABackend &&) = delete;
    virtual ~UVABackend() = default;

    virtual unsigned int getCapabilities();
    virtual std::string getTimelineDetails(const std::string &Selector);
    virtual int setWindowId(unsigned int Window);
    virtual int setLogicalScreenSize(int Width, int Height);
    virtual int responseFromGetCookiesEvent(const char *Cookies, unsigned int Request);
    virtual int responseFromSetCookieEvent(bool Stored, unsigned int Request);
    virtual int eventCompleted(const UVAAsyncEvent *Event, bool Success);
    virtual int releaseResources(ResourceType Which);
    virtual int releaseResources();
    virtual int releaseBackendAsynchronously();

  protected:
    /** \brief Hands an event to the client, or drops it where there is none. */
    void Tell(UVAEvent *Event);

    UVAClient *m_uvaClient;
    UVABackendType m_type;
};

/** \brief A player: slots 13 to 63, and one that the reference does not have. */
class __attribute__((visibility("default"))) UVAMediaBackend : public UVABackend
{
  public:
    using SpeedRange = otherset::SpeedLimits;

    UVAMediaBackend(UVABackendType Type, UVAClient *Client);
    ~UVAMediaBackend() override;

    virtual int initBackend(const char *Origin, SourceDescription **Sources, bool Autoplay);
    virtual int initBackend(const char *Origin, SourceDescription **Sources, bool Autoplay, bool AudioOnly) = 0;
    virtual int attachSource(SourceDescription *Source) = 0;
    virtual bool removeSource(unsigned int Source) = 0;
    virtual int setVideoWindowAndClip(const Rect &Window, const Rect &Clip) = 0;
    virtual int setVideoOutputID(int Output);
    virtual int getNativeSize(int &Width, int &Height, double &PixelAspectRatio) = 0;
    virtual int getVideoFrame(unsigned char *Frame, unsigned int Size);
    virtual int startCapture(int Width, int Height);
    virtual int frameConsumed(unsigned int Frame, bool Wanted);
    virtual int resourcesReleased(const std::vector<unsigned int> &Sources);
    virtual int stopCapture();
    virtual int getSeekableTimeRanges(ByteRange **Bytes, TimeRange **&Ranges) = 0;
    virtual int getBufferedTimeRanges(unsigned int Source, const std::vector<ByteRange> &Bytes,
                                      std::vector<TimeRange> &Ranges) = 0;
    virtual int canPlaySource(const SourceDescription &Source) = 0;
    virtual int load();
    virtual int play() = 0;
    virtual int suspend();
    virtual int getStartDate(double &Seconds);
    virtual int pause() = 0;
    virtual int pauseAsync();
    virtual int setPlaybackRate(double Rate) = 0;
    virtual int setVolume(double Volume);
    virtual int getDuration(double &Seconds) = 0;
    virtual int setContentSize(unsigned int Source, unsigned long long Milliseconds) = 0;
    virtual int getPosition(double &Seconds);
    virtual UVATime getPosition() = 0;
    virtual int setPosition(double Seconds) = 0;
    virtual int adjustPosition(const UVATime &Time);
    virtual int setVisibility(bool Visible);
    virtual int getSizeFromDuration(double Seconds, unsigned long long &Bytes);
    virtual int writeData(UVAEvent *Event, unsigned int Bytes, WriteDataStatus Status) = 0;
    virtual bool canPlayType(const ContentDescription &Question) = 0;
    virtual int setFullScreen(bool On) = 0;
    virtual bool getSupportedMimetypes(char **&Types) = 0;
    virtual int setLoop(int Times) = 0;
    virtual int setCache(bool On);
    virtual int addTrack(AVComponent::Kind Kind, const char *Url, const char *Language, const char *Label) = 0;
    virtual int queue(SourceDescription *Source);
    virtual int selectComponent(AVComponent *Component) = 0;
    virtual int unselectComponent(AVComponent *Component) = 0;
    virtual int registerExternalComponents(const std::vector<AVComponent *> &Components);
    virtual int unregisterExternalComponents(const std::vector<AVComponent *> &Components);
    virtual int onListenerChanged(const char *Name);
    virtual int getBytesInBuffer(unsigned long long &Bytes);
    virtual int setKeySystem(const char *Id);
    virtual int setKeySystem(const UVAKeySystemConfig &Config) = 0;
    virtual int passDataAttribute(const char *Name, const char *Value);
    virtual int getPlaybackSpeedRanges(std::vector<SpeedRange> &Ranges) = 0;
    virtual int setActive(bool Active);
    virtual int setPrefs(const std::map<std::string, std::string> &Prefs);

    /** \brief This set's own, behind all that the library knows: the name of the picture's preset. */
    virtual std::string picturePreset() { return "standard"; }

  private:
    class Capture;
    Capture *m_capture; ///< owned
    bool m_active{true};
};

/** \brief What an element talks to. */
class __attribute__((visibility("default"))) UVAClient
{
  public:
    virtual ~UVAClient() = default;
    virtual void deliverEvent(UVAEvent *Event) = 0;
};

class __attribute__((visibility("default"))) UVAEvent
{
  public:
    enum Type {
        BackendResourceRevoked, BackendResourceRequestAsync, BackendResourceReleased, NeedData, NeedMSEData,
        PlaybackFinished, NewMetadata, NeedKeySystem, DecodeError, VideoFrameAvailable, VideoBufferAvailable,
        DRMRightsError, ParentalRatingError, ParentalRatingChange, PlaySpeedChanged, BroadcastPlayPositionChanged,
        BroadcastPlaystateChange, BroadcastSignalStrengthChanged, ChannelChangeError, ChannelChangeSucceeded,
        ProgrammesChanged, Recording, BufferingProgress, BufferingNetworkError, BufferingIdle,
        BufferingStreamUnderrun, BufferingStreamBuffered, ConnectionEstablished, ConnectionLost,
        DeprecatedSubtitlesChanged, ComponentChanged, ExternalComponentActivate, MultiComponentChanged,
        InBandVTTUpdate, InBandDVBSub, InBandDataUpdate, InBandTTML, InBandRemoveCuesRange, GetCookies,
        PlaySpeedsArrayChanged, SetCookie, CancelDataRequestsAsync, SeekCompletedEx, CacheUpdateRequestAsync,
        PidFilterData, ChannelChanged, TunerStateChanged, BouquetSelectionChanged, ContentIdChanged, MrsUrlChanged,
        AsyncReleaseFinished, FramesDropped, BufferingStreamPreloaded, ActiveStateChanged, PauseFinished,
        PastLastNonOoifEvent = 3000,
    };

    explicit UVAEvent(Type Which) : m_type(Which) {}
    UVAEvent(UVAEvent &&) = delete;
    virtual ~UVAEvent() = default;

    Type type() const { return m_type; }

  private:
    Type m_type;
};

/** \brief An event that wants eventCompleted(). */
class UVAAsyncEvent : public UVAEvent
{
    using UVAEvent::UVAEvent;
};

namespace otherset
{
/** \brief The base of each kind of event: its number is the type's. */
template <UVAEvent::Type Which, class Base = UVAEvent> class EventOf : public Base
{
  protected:
    EventOf() : Base(Which) {}
};
template <UVAEvent::Type Which> using AsyncEventOf = EventOf<Which, UVAAsyncEvent>;
} // namespace otherset

struct BackendResourceRequestAsyncEvent : otherset::AsyncEventOf<UVAEvent::BackendResourceRequestAsync>
{
    explicit BackendResourceRequestAsyncEvent(bool AudioOnly) : audioOnly(AudioOnly) {}
    bool audioOnly;
};

struct BackendResourceReleasedEvent : otherset::EventOf<UVAEvent::BackendResourceReleased>
{
    explicit BackendResourceReleasedEvent(bool AudioOnly) : audioOnly(AudioOnly) {}
    bool audioOnly;
};

struct NeedMSEDataEvent : otherset::EventOf<UVAEvent::NeedMSEData>
{
    NeedMSEDataEvent(unsigned Source, int Count) : samplesRequested(Count), sourceId(Source) {}
    ~NeedMSEDataEvent() override
    {
        for (int Left = 0; samples && samples[Left]; ++Left)
            delete samples[Left];
        delete[] samples;
    }
    UVASample **samples{};
    int samplesRequested;
    unsigned sourceId;
};

struct PlaybackFinishedEvent : otherset::EventOf<UVAEvent::PlaybackFinished>
{
    PlaybackFinishedEvent(int Reason, int Detail) : reason(Reason), detail(Detail) {}
    int reason, detail;
};

struct NewMetadataEvent : otherset::EventOf<UVAEvent::NewMetadata>
{
    NewMetadataEvent(double Seconds, int Width, int Height, double PixelAspectRatio)
        : pixelAspectRatio(PixelAspectRatio), height(Height), width(Width), duration(Seconds)
    {
    }
    double pixelAspectRatio;
    int height, width;
    double duration;
};

struct DecodeErrorEvent : otherset::EventOf<UVAEvent::DecodeError>
{
    enum Reason { UnknownFormat, CorruptStream, InsufficientResources };
    explicit DecodeErrorEvent(Reason Why) : reason(Why) {}
    Reason reason;
};

struct BufferingNetworkErrorEvent : otherset::EventOf<UVAEvent::BufferingNetworkError>
{
    enum Reason { Unknown, SourceFailed };
    explicit BufferingNetworkErrorEvent(Reason Why) : reason(Why) {}
    Reason reason;
};

/** \brief The two whose destructors the library of the player defines. */
struct BufferingProgressEvent : otherset::EventOf<UVAEvent::BufferingProgress>
{
    BufferingProgressEvent() = default;
    ~BufferingProgressEvent() override;
};
struct BufferingStreamBufferedEvent : otherset::EventOf<UVAEvent::BufferingStreamBuffered>
{
    BufferingStreamBufferedEvent() = default;
    ~BufferingStreamBufferedEvent() override;
};

struct BufferingStreamUnderrunEvent : otherset::EventOf<UVAEvent::BufferingStreamUnderrun>
{
};

struct CancelDataRequestsAsyncEvent : otherset::AsyncEventOf<UVAEvent::CancelDataRequestsAsync>
{
    explicit CancelDataRequestsAsyncEvent(double Target) : position(Target) {}
    double position;
};

struct SeekCompletedExEvent : otherset::EventOf<UVAEvent::SeekCompletedEx>
{
    enum class SeekOutcome { Succeeded, Aborted, Failed };
    explicit SeekCompletedExEvent(SeekOutcome Outcome) : outcome(Outcome) {}
    SeekOutcome outcome;
};

struct MultiComponentChangedEvent : otherset::EventOf<UVAEvent::MultiComponentChanged>
{
    using Components = std::vector<UVABackend::AVComponent *>;
    MultiComponentChangedEvent(Components Removed, Components Added)
        : removed(std::move(Removed)), added(std::move(Added))
    {
    }
    ~MultiComponentChangedEvent() override
    {
        for (auto *Gone : removed)
            delete Gone;
    }
    Components removed, added;
};

struct VideoFrameAvailableEvent : otherset::EventOf<UVAEvent::VideoFrameAvailable>
{
    explicit VideoFrameAvailableEvent(unsigned Frame) : frame(Frame) {}
    unsigned frame;
};

struct AsyncReleaseFinishedEvent : otherset::EventOf<UVAEvent::AsyncReleaseFinished>
{
};

struct ActiveStateChangedEvent : otherset::EventOf<UVAEvent::ActiveStateChanged>
{
    explicit ActiveStateChangedEvent(bool Active) : active(Active) {}
    bool active;
};

struct PauseFinishedEvent : otherset::EventOf<UVAEvent::PauseFinished>
{
};

/** \brief Content protection: what decrypts with one key. */
struct UVADRMDecrypter
{
    struct Input
    {
        bool flag{}, last{}, first{};
        std::size_t size{};
        const std::uint8_t *data{};
        std::size_t ivSize{};
        const std::uint8_t *iv{};
    };
    struct Output
    {
        std::size_t size{};
        std::uint8_t *data{};
    };
    virtual int decrypt(const Input &In, const Output &Out) = 0;
    virtual ~UVADRMDecrypter() = default;
};

struct UVADRMBackend
{
    virtual int createDecrypter(UVADRMDecrypter *&Decrypter, const std::uint8_t *KeyId, std::size_t KeyIdSize,
                                std::uint64_t Value) = 0;
    virtual void releaseDecrypter(UVADRMDecrypter *Decrypter) = 0;
    virtual void *getInterface(const char *Name) = 0;
    virtual ~UVADRMBackend() = default;
};

struct __attribute__((visibility("default"))) UVADRMKeySlotGetter
{
    static const char *const interfaceName;
    virtual int getKeySlot(UVADRMDecrypter *Decrypter, std::uint32_t &Slot) = 0;
    virtual ~UVADRMKeySlotGetter() = default;
};

struct __attribute__((visibility("default"))) UVADRMFullSampleDecrypter
{
    static const char *const interfaceName;
    struct Subsample
    {
        std::uint32_t length{}, offset{};
    };
    struct Sample
    {
        std::vector<Subsample> subsamples;
        std::size_t ivSize{};
        const std::uint8_t *iv{};
        std::size_t size{};
        std::uint8_t *data{};
    };
    virtual int decrypt(UVADRMDecrypter *Decrypter, const Sample &Whole) = 0;
    virtual ~UVADRMFullSampleDecrypter() = default;
};

extern "C" {
void UVA_OfferDRMBackend(const char *KeySystem, UVADRMBackend *Backend);
UVADRMBackend *UVA_FindDRMBackend(const char *KeySystem);
}
