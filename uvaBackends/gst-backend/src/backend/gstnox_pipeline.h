#ifndef GSTNOX_PIPELINE_H
#define GSTNOX_PIPELINE_H

#include "backend/gstnox_buswatch.h"
#include "base/glib_lock.h"
#include "base/gst_ptr.h"

#include <gst/gst.h>

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

class MediaFacts;

/// The GStreamer pipeline of a media element: a playbin, which plays a URL, or an empty one, which
/// media sources are put into. There is one at a time; what asks for a pipeline where there is none
/// is answered with nothing.
///
/// Pipelines come and go on the host thread. The rest is thread-safe: who uses the pipeline holds a
/// reference of its own meanwhile, and no lock.
class GstNoxPipeline {
public:
    /// Whom the pipeline tells, with no lock held. What is thrown is logged.
    struct Client {
        /// "gst_run", or the thread that stops the pipeline.
        GstNoxBusWatch::Handler message;
        /// A playbin has a hardware sink; false if that is none of the client's. Any thread.
        std::function<bool(GstElement* sink)> sinkAdded;
        /// The decoded stream of this name has a format; it has gone. Streaming threads.
        std::function<void(const char* stream, bool isVideo)> streamDecoded;
        std::function<void(const char* stream)> streamGone;
    };

    /// What a demuxer tells of the media goes to the facts, which outlive the pipeline.
    GstNoxPipeline(Client client, MediaFacts& facts)
        : m_client(std::move(client)), m_facts(facts) {}

    /// False, with the reason logged: there is one already, or GStreamer has none.
    bool createPlaybin();
    bool createForMediaSources();
    /// Before a playbin's first state. `userAgent` is for a source that speaks HTTP.
    void setUrl(const char* url, const char* userAgent);

    /// There is one, and nobody is stopping it. Host thread.
    bool isOpen() const { return m_busWatch != nullptr; }
    /// The end of an open one, in two steps: READY, with every message handed over; then nothing is
    /// left of it.
    void stop() EXCLUDES(m_lock);
    void destroy() EXCLUDES(m_lock);

    /// Null when there is none.
    GstPtr<GstElement> element() EXCLUDES(m_lock);
    void setState(GstState state);
    /// Nanoseconds; none when the pipeline does not know yet.
    std::optional<gint64> position();
    std::optional<gint64> duration();
    /// What it is in and on its way to, and what a URL is read from.
    struct Facts {
        GstState state = GST_STATE_NULL;
        GstState pending = GST_STATE_VOID_PENDING;
        GCharPtr url;                    ///< null: it plays media sources
        std::optional<gint64> bytesRead; ///< none: nothing is read, or not told
    };
    /// Asks elements, which may wait for their locks. Null has none.
    static Facts factsOf(GstElement* pipeline);
    /// With a flush, to the exact time. Nanoseconds.
    bool seek(guint64 target);
    /// Writes what it consists of to GST_DEBUG_DUMP_DOT_DIR.
    void writeGraph(const char* name);

    /// The sink that puts the sound out, the last one that was set; null when it has gone.
    void setAudioSink(GstElement* sink) EXCLUDES(m_lock);
    void forgetAudioSink(const GstElement* sink) EXCLUDES(m_lock);
    GstPtr<GstElement> audioSink() EXCLUDES(m_lock);

    // Callbacks of the pipeline's elements; the last argument is the GstNoxPipeline. Any thread.
    static void element_setup_cb(GstElement* playbin, GstElement* element, gpointer self) noexcept;
    static void source_setup_cb(GstElement* playbin, GstElement* source, gpointer self) noexcept;
    static void about_to_finish_cb(GstElement* playbin, gpointer self) noexcept;
    static void demux_pad_added_cb(GstElement* demuxer, GstPad* pad, gpointer self) noexcept;
    static void decodebin_pad_added_cb(GstElement* decodebin, GstPad* pad, gpointer self) noexcept;
    static void decodebin_pad_removed_cb(GstElement* decodebin, GstPad* pad,
                                         gpointer self) noexcept;
    static GstPadProbeReturn demux_video_pad_event_probe(GstPad* pad, GstPadProbeInfo* info,
                                                         gpointer self) noexcept;
    static GstPadProbeReturn decodebin_srcpad_event_probe(GstPad* pad, GstPadProbeInfo* info,
                                                          gpointer self) noexcept;

    /// Sort rule for decodebin's factories: a new list, or null to keep the given one, which may
    /// have been sorted in place.
    static GValueArray* autoplug_sort_cb(GstElement* decodebin, GstPad* pad, GstCaps* caps,
                                         GValueArray* factories, gpointer self) noexcept;
    static gint priorize_vptsfilter(gconstpointer a, gconstpointer b) noexcept;

private:
    bool isFree();
    void open(GstPtr<GstElement> pipeline) EXCLUDES(m_lock);
    void setupElement(GstElement* element);
    void takeDemuxerCaps(GstPad* pad, GstCaps* caps);
    void takeDecodedCaps(GstPad* pad, GstCaps* caps);

    const Client m_client;
    MediaFacts& m_facts;

    // The host thread's.
    GstPtr<GstBus> m_bus;
    std::shared_ptr<GstNoxBusWatch> m_busWatch;

    std::string m_userAgent; // read while the pipeline plays, set before
    std::atomic<bool> m_transportStream{false};

    GLibMutex m_lock; // a leaf
    GstPtr<GstElement> m_pipeline GUARDED_BY(m_lock);
    GstPtr<GstElement> m_audioSink GUARDED_BY(m_lock);
};

#endif
