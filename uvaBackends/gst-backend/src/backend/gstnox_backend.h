#ifndef GSTNOX_BACKEND_H
#define GSTNOX_BACKEND_H

#include "UvaGstIfReceiver.h"
#include "base/glib_lock.h"
#include "base/gst_ptr.h"
#include "backend/gstnox_decoder.h"
#include "backend/gstnox_seek.h"
#include "uva/uva_client.h"
#include "uva/uva_media_backend.h"

#include <gst/app/gstappsrc.h>
#include <gst/gst.h>

#include <atomic>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

class GstNoxAvComponent;
class GstNoxBusWatch;
class UVADRMBackend;

/// The backend of one media element: plays its sources on a GStreamer pipeline of its own and tells
/// the client about it.
///
/// Threads: the host calls the virtual operations on one thread; bus messages are handled on the
/// main-loop thread "gst_run"; the static callbacks run on GStreamer's streaming threads. `m_lock`
/// guards what they share. No event is delivered to the client while the lock is held.
///
/// Waits: a sink may wait in decoder_request_cb for the client's answer, then for the main
/// system's; that of a media source for the latter alone. The client is asked for one sink at a
/// time, another that asks meanwhile is refused; several may wait for the main system side by side.
/// A sink that has the action "decoder-request-forwarded" is told when its request goes there.
/// Stopping the player or the source, and a flush, end that wait; such a sink is told "no".
class GstNoxBackend : public UVAMediaBackend {
public:
    /// The link to the main system, of all backends that are made from then on; it stays. Before
    /// the first one.
    static void setLink(CUvaGstIfReceiver& link) { g_link = &link; }
    /// `client` must not be null; it is not owned and outlives the backend.
    GstNoxBackend(UVABackendType type, UVAClient* client);
    ~GstNoxBackend() override;

    // Operations of the host interface. What they do is the interface's to say; here stands what
    // is particular to this backend.
    int setWindowId(unsigned int id) override;
    int setLogicalScreenSize(int width, int height) override;
    int eventCompleted(const UVAAsyncEvent* event, bool success) override;
    int releaseResources(ResourceType type) override;
    int releaseResources() override; ///< deprecated: only logs
    using UVAMediaBackend::initBackend;
    int initBackend(const char* origin, SourceDescription** sources, bool autoplay,
                    bool audioOnly) override; ///< `autoplay` is not used
    int attachSource(SourceDescription* source) override;
    bool removeSource(unsigned int id) override;
    int setVideoWindowAndClip(const Rect& window, const Rect& clip) override;
    int getNativeSize(int& width, int& height, double& pixelAspectRatio) override;
    int getSeekableTimeRanges(ByteRange** bytes, TimeRange**& ranges) override;
    int getBufferedTimeRanges(unsigned int id, const std::vector<ByteRange>& bytes,
                              std::vector<TimeRange>& ranges) override;
    int canPlaySource(const SourceDescription& source) override;
    int play() override;
    int pause() override;
    int setPlaybackRate(double rate) override; ///< normal speed only
    int getDuration(double& seconds) override;
    int setContentSize(unsigned int id, unsigned long long milliseconds) override; ///< a duration
    using UVAMediaBackend::getPosition;
    UVATime getPosition() override;
    int setPosition(double seconds) override;
    int writeData(UVAEvent* event, unsigned int bytes, WriteDataStatus status) override;
    bool canPlayType(const ContentDescription& description) override;
    int setFullScreen(bool on) override;
    bool getSupportedMimetypes(char**& types) override;
    int setLoop(int times) override;
    int addTrack(AVComponent::Kind kind, const char* url, const char* language,
                 const char* label) override;
    int selectComponent(AVComponent* component) override;
    int unselectComponent(AVComponent* component) override;
    using UVAMediaBackend::setKeySystem;
    int setKeySystem(const UVAKeySystemConfig& config) override; ///< 0: out of memory
    int getPlaybackSpeedRanges(std::vector<SpeedRange>& ranges) override;

    /// Stores the state that the backend has asked the pipeline for. Leaving READY upwards tells
    /// the client that data is awaited. Any thread.
    void changeState(GstState state) EXCLUDES(m_lock);

    /// Logs the event with a printf-like message and delivers it; the client owns it from then on.
    /// Any thread.
    void raiseEvent(UVAEvent* event, GstDebugLevel level, const char* format, ...)
        G_GNUC_PRINTF(4, 5) EXCLUDES(m_lock);

    /// What is known of the media; a change is told to the client by checkMetaDataChanged(). Any
    /// thread. Size in pixels; width of a pixel over its height; duration in nanoseconds, -1
    /// unknown.
    void setMetaData(int width, int height) EXCLUDES(m_lock);
    void setMetaData(double pixelAspectRatio) EXCLUDES(m_lock);
    void setMetaData(long long duration) EXCLUDES(m_lock);
    void checkMetaDataChanged() EXCLUDES(m_lock);

    /// A duration that is not known yet, or unknown, grows to this one. Seconds. Any thread.
    void changeDuration(double seconds) EXCLUDES(m_lock);
    bool isDurationInitialized() EXCLUDES(m_lock);
    bool isDurationUnknown() EXCLUDES(m_lock);

    /// The first start becomes that of all segments; later callers get it back. Nanoseconds.
    int checkNewSegment(unsigned long long* start) EXCLUDES(m_lock);

    /// Components by stream name. 1 added, 0 refused. Any thread.
    int addComponent(const char* kind, const char* name) EXCLUDES(m_lock);
    void removeComponent(const char* name) EXCLUDES(m_lock);
    bool hasComponent(const char* name) EXCLUDES(m_lock);

    /// Free-form commands for the player: "output-ddp:D" switches Dolby Digital Plus at the audio
    /// output by one digit; other text is left alone. Any thread.
    void controlCommands(const char* commands) EXCLUDES(m_lock);
    void controlOutputDdp(unsigned int enable) EXCLUDES(m_lock);

    /// The pipeline for a URL, for media sources, and its end. 0 or -1. Host thread.
    int gstPlaybinCreate();
    int gstPlaySinkCreate();
    void gstPlayerStopAndDestroy();

    /// On the thread that posts a message: what handleGstMessages() has no use for, nine of ten
    /// while a pipeline starts, wakes nobody up.
    static GstBusSyncReply _sift_message(GstBus* bus, GstMessage* message, gpointer unused);
    /// Bus messages; the result keeps the watch. "gst_run", or the thread that drains the bus.
    static gboolean _handle_message(GstBus* bus, GstMessage* message, gpointer backend);
    gboolean handleGstMessages(GstMessage* message);

    // Callbacks of the pipeline's elements; `backend` is the GstNoxBackend. Streaming threads.
    static void element_setup_cb(GstElement* playbin, GstElement* element, gpointer backend);
    static void source_setup_cb(GstElement* playbin, GstElement* source, gpointer backend);
    static void about_to_finish_cb(GstElement* playbin, gpointer backend);
    static gint decoder_request_cb(GstElement* sink, const gchar* type, gpointer backend);
    static void demux_pad_added_cb(GstElement* demuxer, GstPad* pad, gpointer backend);
    static void decodebin_pad_added_cb(GstElement* decodebin, GstPad* pad, gpointer backend);
    static void decodebin_pad_removed_cb(GstElement* decodebin, GstPad* pad, gpointer backend);
    static GstPadProbeReturn demux_video_pad_event_probe(GstPad* pad, GstPadProbeInfo* info,
                                                         gpointer backend);
    static GstPadProbeReturn decodebin_srcpad_event_probe(GstPad* pad, GstPadProbeInfo* info,
                                                          gpointer backend);

    // Callbacks of the media sources' appsrcs and sinks; the bin is found by the number in the
    // appsrc's name. Streaming threads.
    static void need_data_cb(GstAppSrc* appsrc, guint length, gpointer backend);
    static void enough_data_cb(GstAppSrc* appsrc, gpointer backend);
    static gboolean seek_data_cb(GstAppSrc* appsrc, guint64 offset, gpointer backend);
    static gint source_decoder_request_cb(GstElement* sink, const gchar* type, gpointer backend);

    /// Sort rule for decodebin's factories: a new list, or null to keep the given one, which may
    /// have been sorted in place.
    static GValueArray* autoplug_sort_cb(GstElement* decodebin, GstPad* pad, GstCaps* caps,
                                         GValueArray* factories, gpointer backend);
    static gint priorize_vptsfilter(gconstpointer a, gconstpointer b);

    static std::atomic<bool>
        g_standalone; ///< no decoder arbitration: NOX_GST_STANDALONE is in the environment

    /// A width and what may go with it, for isSpecSupported().
    struct CodecSpec {
        int width;  ///< exact, pixels; 0 ends a table
        int height; ///< positive: exact; negative: its negation is the largest
        int fps;    ///< largest, whole frames per second
    };
    static const char* const SUPPORTED_MEDIA_TYPES[];
    static const char* const SUPPORTED_CODECS[];
    static const CodecSpec HEVC_CODEC_SPEC[];
    static const CodecSpec VP9_CODEC_SPEC[];
    bool isMediaTypeSupported(const char* type);
    bool isCodecSupported(const char* codec);
    bool isSpecSupported(const CodecSpec* table, int width, int height, int fps);

    /// The state of every backend of the process, its media sources and what is queued in them; a
    /// line each. Any thread.
    static std::string describeAll();

private:
    class GstMseBin;
    class Registry;

    /// What setKeySystem() was told. Immutable.
    struct KeySystem {
        MallocText id; // null: none
        gint32 value = 0;
        guint64 client = 0;
        UVADRMBackend* drm = nullptr; // the host's, by the identifier; null: it has none
    };

    static constexpr gint64 durationUninitialized = -2;
    static constexpr gint64 durationUnknown = -1;

    class Writer;

    int initSource(SourceDescription* source, int index);
    int initBackendStreaming(const SourceDescription& source, int index);
    int enterState(GstState state, const char* graphName);
    void setPipelineState(GstState state);
    void writeGraph(const char* name);
    void watchBus();
    void setupElement(GstElement* element);
    void askClient() EXCLUDES(m_lock);
    gint reply(DecoderHandshake::Answer answer);
    void addBin(const std::shared_ptr<GstMseBin>& bin) EXCLUDES(m_lock);
    void checkComponent(const GstMseBin& starting) EXCLUDES(m_lock);
    std::shared_ptr<GstMseBin> findBin(unsigned int id) EXCLUDES(m_lock);
    std::shared_ptr<GstMseBin> takeBin(unsigned int id) EXCLUDES(m_lock);
    /// Waits until no other thread is in writeData, for this source or for any (null).
    void waitForWriters(const GstMseBin* bin) EXCLUDES(m_lock);
    std::vector<std::shared_ptr<GstMseBin>> bins() EXCLUDES(m_lock);
    std::shared_ptr<const KeySystem> keySystem() EXCLUDES(m_lock);
    std::string listing() EXCLUDES(m_lock);
    void takeDemuxerCaps(GstPad* pad, GstCaps* caps);
    void takeDecodedCaps(GstPad* pad, GstCaps* caps);
    void handleErrorMessage(GstMessage* message);
    void handleApplicationMessage(GstMessage* message);
    void handleStateChangedMessage(GstMessage* message);
    void handleVideoFormat(const GstStructure* format);
    void handleDecoderNeeded(const GstStructure* structure) EXCLUDES(m_lock);
    void handleBuffering(GstMessage* message);
    void completeSeek(const UVAAsyncEvent* event) EXCLUDES(m_lock);
    bool seekPipeline(guint64 target) EXCLUDES(m_lock);
    void askForData(unsigned int id) EXCLUDES(m_lock);
    gint64 duration() EXCLUDES(m_lock);
    bool isCodecPlayable(const char* codec, int width, int height, int fps);

    static inline CUvaGstIfReceiver* g_link = nullptr;

    UVAClient* const m_client;
    bool m_audioOnly = false;
    bool m_fullScreen = false;
    std::atomic<int> m_screenWidth{1280}; // the host's logical screen, pixels
    std::atomic<int> m_screenHeight{720};

    GstPtr<GstBus> m_bus;
    GstPtr<GstElement> m_pipeline; // changed on the host thread while no callback can run
    GstPtr<GstElement> m_playSink;
    std::shared_ptr<GstNoxBusWatch> m_busWatch;
    std::atomic<bool> m_transportStream{false};
    std::string m_userAgent;

    GLibMutex m_lock;          // never held while an event is delivered or a pipeline state is set
    GLibCondition m_condition; // a writer left
    double m_frameRate GUARDED_BY(m_lock) = 1.0;
    int m_nativeWidth GUARDED_BY(m_lock) = -1;
    int m_nativeHeight GUARDED_BY(m_lock) = -1;
    double m_pixelAspectRatio GUARDED_BY(m_lock) = 1.0;
    gint64 m_duration GUARDED_BY(m_lock) = durationUninitialized; // nanoseconds
    bool m_metaDataChanged GUARDED_BY(m_lock) = false;
    std::map<std::string, std::unique_ptr<GstNoxAvComponent>> m_components GUARDED_BY(m_lock);
    bool m_hasPlayer GUARDED_BY(m_lock) = false;
    GstPtr<GstElement> m_audioSink GUARDED_BY(m_lock); // the last "halaudiosink" set up
    GstState m_state GUARDED_BY(m_lock) = GST_STATE_NULL;
    std::map<unsigned int, std::shared_ptr<GstMseBin>> m_bins GUARDED_BY(m_lock); // by source id
    std::vector<const Writer*> m_writers GUARDED_BY(m_lock);
    guint64 m_segmentStart GUARDED_BY(m_lock) = GST_CLOCK_TIME_NONE; // of all media sources
    std::shared_ptr<const KeySystem> m_keySystem GUARDED_BY(m_lock);

    SeekState m_seek;
    CUvaGstIfReceiver& m_mainSystem{*g_link};
    DecoderHandshake m_decoders{m_mainSystem, [this] { askClient(); }};
    const UvaGstIfControl m_control{[this](const char* commands) { controlCommands(commands); }};
};

#endif
