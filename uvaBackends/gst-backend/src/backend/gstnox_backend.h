#ifndef GSTNOX_BACKEND_H
#define GSTNOX_BACKEND_H

#include "UvaGstIfReceiver.h"
#include "backend/event_log.h"
#include "backend/gstnox_decoder.h"
#include "backend/gstnox_pipeline.h"
#include "backend/gstnox_seek.h"
#include "backend/media_facts.h"
#include "base/glib_lock.h"
#include "base/gst_ptr.h"
#include "mse/media_source_group.h"
#include "mse/media_sources.h"
#include "script/script_state.h"
#include "timeline/timeline.h"
#include "uva/uva_client.h"
#include "uva/uva_media_backend.h"

#include <gst/app/gstappsrc.h>
#include <gst/gst.h>

#include <atomic>
#include <map>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

class GstNoxAvComponent;

/// The backend of one media element: plays its sources on a GStreamer pipeline of its own and tells
/// the client about it.
///
/// Threads: the host calls the virtual operations on one thread; bus messages are handled on the
/// main-loop thread "gst_run"; the callbacks run on GStreamer's streaming threads. What they share
/// is in objects with locks of their own. No event is delivered while a lock is held.
///
/// Waits: a sink may wait in its "decoder-request" for the client's answer, then for the main
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

    /// The end of a backend from new: stops all, and deletes it as soon as none of its own
    /// operations is under way; the client may ask from inside an event that one of them delivers.
    /// It is not called any more afterwards.
    void release();

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
    void setMetaData(int width, int height) { m_facts.setSize(width, height); }
    void setMetaData(double pixelAspectRatio) { m_facts.setPixelAspectRatio(pixelAspectRatio); }
    void setMetaData(long long duration) { m_facts.setDuration(duration); }
    void checkMetaDataChanged();

    /// A duration that is not known yet, or unknown, grows to this one. Seconds. Any thread.
    void changeDuration(double seconds);
    bool isDurationInitialized();
    bool isDurationUnknown();

    /// The first start becomes that of all segments; later callers get it back. Nanoseconds.
    int checkNewSegment(unsigned long long* start);

    /// Components by stream name. 1 added, 0 refused. Any thread.
    int addComponent(const char* kind, const char* name) EXCLUDES(m_lock);
    void removeComponent(const char* name) EXCLUDES(m_lock);
    bool hasComponent(const char* name) EXCLUDES(m_lock);

    /// Free-form commands for the player: "output-ddp:D" switches Dolby Digital Plus at the audio
    /// output by one digit; other text is left alone. Any thread.
    void controlCommands(const char* commands);
    void controlOutputDdp(unsigned int enable);

    /// The pipeline for a URL, for media sources, 0 or -1; its end. Host thread.
    int gstPlaybinCreate();
    int gstPlaySinkCreate();
    void gstPlayerStopAndDestroy();

    /// Bus messages; true. "gst_run", or the thread that stops the pipeline.
    gboolean handleGstMessages(GstMessage* message);

    /// What the callbacks of the pipeline's elements are handed.
    GstNoxPipeline& pipeline() { return m_pipeline; }
    DecoderHandshake& decoders() { return m_decoders; }

    // Callbacks of the media sources' appsrcs; the bin is found by the number in the
    // appsrc's name. Streaming threads.
    static void need_data_cb(GstAppSrc* appsrc, guint length, gpointer backend) noexcept;
    static void enough_data_cb(GstAppSrc* appsrc, gpointer backend) noexcept;
    static gboolean seek_data_cb(GstAppSrc* appsrc, guint64 offset, gpointer backend) noexcept;

    /// Of an event by the host's number.
    static const char* eventName(int type);
    /// Those that debug scripts may wait for: the events by their names, and what else happens.
    static std::vector<std::string> signalNames();

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
    /// The same, and more, as JSON; and how the link to the main system stands. Any thread.
    static nlohmann::ordered_json stateOfAll();
    /// What the newest backend's pipeline consists of now, or that of the backend at an address as
    /// stateOfAll() has it: Graphviz's language; empty when there is none. It waits for the
    /// elements' locks. Any thread.
    static std::string graphOf(const void* backend);

private:
    class Registry;
    /// An operation under way: until it has left, the backend is not deleted. See release().
    class Operation;

    int initSource(SourceDescription* source, int index);
    int initBackendStreaming(const SourceDescription& source, int index);
    int enterState(GstState state, const char* graphName);
    void askClient();
    void tellOfRefusal();
    bool takeSink(GstElement* sink, DecoderHandshake::SinkOf what);
    void takeDecodedStream(const char* name, bool isVideo);
    void shutDown();
    void leave();
    void addBin(const std::shared_ptr<GstMseBin>& bin);
    bool endBin(unsigned int id);
    void checkComponent(const GstMseBin& starting);
    static std::shared_ptr<GstMseBin> binOf(GstAppSrc* appsrc, gpointer backend);
    std::string listing(std::vector<MediaSources::Source>& seen) EXCLUDES(m_lock);
    struct Seen;
    nlohmann::ordered_json state(Seen& seen) EXCLUDES(m_lock);
    GstState wantedState() EXCLUDES(m_lock);
    void handleErrorMessage(GstMessage* message);
    void handleApplicationMessage(GstMessage* message);
    void handleStateChangedMessage(GstMessage* message);
    void handleVideoFormat(const GstStructure* format);
    void handleDecoderNeeded(const GstStructure* structure) EXCLUDES(m_lock);
    void handleBuffering(GstMessage* message);
    void completeSeek(const UVAAsyncEvent* event) EXCLUDES(m_lock);
    bool seekPipeline(guint64 target);
    void askForData(unsigned int id);
    bool isCodecPlayable(const char* codec, int width, int height, int fps);

    static inline std::atomic<CUvaGstIfReceiver*> g_link{nullptr};

    UVAClient* const m_client;
    bool m_audioOnly = false;
    bool m_fullScreen = false;
    std::atomic<int> m_screenWidth{1280}; // the host's logical screen, pixels
    std::atomic<int> m_screenHeight{720};

    std::atomic<int> m_leases{1}; // the host's, and one of each operation under way
    enum class Life { Used, Ending, Over };
    std::atomic<Life> m_life{Life::Used}; // see release()

    GLibMutex m_lock; // a leaf
    std::map<std::string, std::unique_ptr<GstNoxAvComponent>> m_components GUARDED_BY(m_lock);
    GstState m_state GUARDED_BY(m_lock) = GST_STATE_NULL;
    struct LastError {
        std::string text; ///< empty: there was none
        gint64 time = 0;  ///< of g_get_monotonic_time()
    };
    LastError m_lastError GUARDED_BY(m_lock);
    struct Buffering {
        int percent = 100;
        gint64 since = 0; ///< of g_get_monotonic_time(): less than all from then on
    };
    Buffering m_buffering GUARDED_BY(m_lock); // as the pipeline's queue has told it
    EventLog m_events;
    ScriptState m_stateForScripts{"media"}; // that the pipeline has reached

    MediaFacts m_facts;
    MediaSourceGroup m_sourceGroup;
    MediaSources m_sources;
    SeekState m_seek;
    CUvaGstIfReceiver& m_mainSystem{*g_link};
    DecoderHandshake m_decoders{m_mainSystem,
                                {[this] { askClient(); }, [this] { tellOfRefusal(); }}};
    GstNoxPipeline m_pipeline{
        {[this](GstMessage* message) { handleGstMessages(message); },
         [this](GstElement* sink) { return takeSink(sink, DecoderHandshake::SinkOf::Url); },
         [this](const char* stream, bool isVideo) { takeDecodedStream(stream, isVideo); },
         [this](const char* stream) { removeComponent(stream); }},
        m_facts};
    const UvaGstIfControl m_control{[this](const char* commands) { controlCommands(commands); }};
};

class GstNoxBackend::Operation {
public:
    /// The time line has it under that name.
    explicit Operation(GstNoxBackend& backend, const char* name = __builtin_FUNCTION())
        : m_backend(backend), m_span("uva", name) {
        ++m_backend.m_leases;
    }
    ~Operation() { m_backend.leave(); }
    Operation(const Operation&) = delete;
    Operation& operator=(const Operation&) = delete;

    const timeline::Span& span() const { return m_span; }

private:
    GstNoxBackend& m_backend;
    const timeline::Span m_span;
};

#endif
