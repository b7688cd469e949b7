#ifndef UVA_BACKEND_H
#define UVA_BACKEND_H

#include <string>
#include <vector>

class UVAAsyncEvent;
class UVAClient;

/// Base of everything that the host drives.
///
/// The order of the virtual operations, here and in UVAMediaBackend, is binding: host and backend
/// are built apart and meet in the virtual table alone. Unless a line says otherwise every
/// operation is called from one host thread, the one that made the backend.
///
/// Operations with an integer result answer with the constants below; results other than these are
/// named where they occur.
class UVABackend {
public:
    static constexpr int Success = 1;
    static constexpr int Failure = 2;
    static constexpr int NotAvailable = 3; ///< not known yet, ask again later

    /// Which kind of element the backend is for. Value 2 is not given out.
    enum UVABackendType : unsigned int { VideoElement = 0, AudioElement = 1, MediaObject = 3 };

    /// Decoders of the set, as a bit set: what is taken with releaseResources().
    enum ResourceType : int {
        NoResource = 0,
        AudioDecoder = 1,
        VideoDecoder = 2,
        AllResources = 3
    };

    /// What a host hands over with UVAMediaBackend::writeData(): samples, the end of the source, or
    /// that there are none because of an error.
    enum WriteDataStatus : int { Data = 0, EndOfStream = 1, DataError = 2 };

    /// Where media comes from. Made by the host and handed over: who receives it deletes it. The
    /// texts belong to the derived class that the host allocates; any of them may be null.
    struct SourceDescription {
        enum Type : int {
            None = 0,
            MseStreaming = 1,     ///< the host pushes samples, see NeedMSEDataEvent
            HostStreaming = 2,    ///< the host pushes bytes
            BackendStreaming = 3, ///< the backend fetches the URL
        };
        virtual ~SourceDescription();
        int type = None;                   ///< a Type
        const char* url = nullptr;         ///< what the backend fetches (RFC 3986)
        const char* userAgent = nullptr;   ///< for requests over HTTP
        int sourceId = 0;                  ///< media source only: the host's, unique in the element
        const char* mimeType = nullptr;    ///< media source only, e.g. "video/x-h264"
        int streamType = 0;                ///< media source only: GstAppStreamType
        unsigned long long durationMs = 0; ///< media source only: milliseconds, 0 unknown
    };

    /// What canPlayType() is asked. Numbers are decimal texts; an empty text means "not said".
    struct ContentDescription {
        std::string type;                ///< MIME type without parameters
        std::vector<std::string> codecs; ///< entries of a codecs= parameter (RFC 6381)
        std::string width, height;       ///< pixels
        std::string framerate;           ///< per second; "30000/1001" and "29.97" are fine
        std::string bitrate;             ///< bits per second
        std::string channels;
        std::string cryptoblockformat;
        std::string drmID;
        std::string drm_robustness;
    };

    /// A place on the screen or in the picture, in pixels of the space that setLogicalScreenSize()
    /// says.
    struct Rect {
        int x = 0, y = 0, width = 0, height = 0;
    };

    /// A part of a file.
    struct ByteRange {
        unsigned long long start = 0, end = 0; ///< bytes, both inclusive
    };
    /// A part of the media.
    struct TimeRange {
        double start = 0, end = 0; ///< seconds
    };

    /// An audio or video track as the user sees it. The backend owns it until a
    /// MultiComponentChangedEvent names it as removed.
    class AVComponent {
    public:
        /// What the component carries.
        enum Type : int { Video = 0, Audio = 1, Subtitle = 2 };
        /// What a text track is for, as HTML has it.
        enum class Kind : int {
            Subtitles = 0,
            Captions = 1,
            Descriptions = 2,
            Chapters = 3,
            Metadata = 4
        };

        AVComponent(int componentType, const char* componentEncoding, const char* componentLanguage,
                    const char* componentLabel);
        virtual ~AVComponent();
        AVComponent(const AVComponent&) = delete;
        AVComponent& operator=(const AVComponent&) = delete;

        /// Says whether the component is the one that plays. The backend that owns it alone.
        void setActive(bool on) { active = on; }

        int type;             ///< a Type
        std::string encoding; ///< of the codec, or "UNKNOWN_ENCODING"
        std::string language; ///< ISO 639-2; "und": undetermined
        std::string label;    ///< for the user; may be empty
        bool active = false;  ///< it plays
        bool encrypted = false;
        int pid = 0;
        int shape = 0;           ///< video: aspect ratio code, 4 for 16:9; audio: 0
        int bitrate = 0;         ///< bits per second
        char* channel = nullptr; ///< stream layout code such as "5_1"; malloc'ed, freed here
    };

    UVABackend(UVABackendType type, UVAClient* client);
    virtual ~UVABackend();
    UVABackend(const UVABackend&) = delete;
    UVABackend& operator=(const UVABackend&) = delete;

    /// Bit set of what the backend can do beyond plain playback: bit 0 capture, bit 1 volume.
    virtual unsigned int getCapabilities();

    /// Details of a named timeline of a broadcast; empty when the element has no such timeline.
    virtual std::string getTimelineDetails(const std::string& selector);

    /// Which window of the host the picture is for. A set with one picture plane notes it. Success.
    virtual int setWindowId(unsigned int id);

    /// Size of the coordinate space that setVideoWindowAndClip() speaks, pixels.
    virtual int setLogicalScreenSize(int width, int height);

    ///@{
    /// Answers to GetCookies and SetCookie events, by the request number of the event.
    virtual int responseFromGetCookiesEvent(const char* cookies, unsigned int request);
    virtual int responseFromSetCookieEvent(bool stored, unsigned int request);
    ///@}

    /// The client has finished an asynchronous event. The event stays the client's. Any thread,
    /// also from inside the event.
    virtual int eventCompleted(const UVAAsyncEvent* event, bool success);

    /// The host takes decoders away: playback stops and the player is gone when this returns. Media
    /// sources are removed and attached again to go on; for a URL a new backend is requested.
    virtual int releaseResources(ResourceType type);
    /// Deprecated: a backend may only note it. Say what is taken.
    virtual int releaseResources();

    /// Stops playback, then raises AsyncReleaseFinishedEvent; the backend may be released after it.
    virtual int releaseBackendAsynchronously();

protected:
    const UVABackendType m_type;
    UVAClient* const m_uvaClient; ///< not owned; may be null
};

#endif
