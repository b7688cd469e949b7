#include "backend/gstnox_avcomponent.h"
#include "backend/gstnox_backend.h"
#include "backend/gstnox_buswatch.h"
#include "base/gstnox_debug.h"
#include "uva/uva_event.h"

#include <cstring>
#include <string_view>
#include <utility>

#define GST_CAT_DEFAULT gst_backend_debug

namespace {

bool beginsWith(const gchar* text, std::string_view prefix) {
    return text != nullptr && std::string_view(text).substr(0, prefix.size()) == prefix;
}

const gchar* factoryName(GstElement* element) {
    GstElementFactory* factory = gst_element_get_factory(element);
    return factory != nullptr ? GST_OBJECT_NAME(factory) : "(null)";
}

/// The caps of a CAPS event, else null. They belong to the event.
GstCaps* capsOf(GstPadProbeInfo* info) {
    GstEvent* event = GST_PAD_PROBE_INFO_EVENT(info);
    if (GST_EVENT_TYPE(event) != GST_EVENT_CAPS)
        return nullptr;
    GstCaps* caps = nullptr;
    gst_event_parse_caps(event, &caps);
    return caps;
}

const GstStructure* firstStructure(const GstCaps* caps) {
    return caps != nullptr && gst_caps_get_size(caps) > 0 ? gst_caps_get_structure(caps, 0)
                                                          : nullptr;
}

GstNoxBackend* backendOf(gpointer data) {
    return static_cast<GstNoxBackend*>(data);
}

} // namespace

int GstNoxBackend::gstPlaybinCreate() {
    if (m_pipeline) {
        GST_ERROR("***E: playbin still open");
        return -1;
    }
    m_pipeline = GstPtr<GstElement>::sink(gst_element_factory_make("playbin", nullptr));
    if (!m_pipeline) {
        GST_ERROR("one element could not be created");
        GST_ERROR("  playbin  = %p", static_cast<void*>(m_pipeline.get()));
        return -1;
    }
    m_transportStream = false;
    GST_INFO("elements created");
    watchBus();
    g_signal_connect(m_pipeline.get(), "element-setup", G_CALLBACK(element_setup_cb), this);
    g_signal_connect(m_pipeline.get(), "source-setup", G_CALLBACK(source_setup_cb), this);
    g_signal_connect(m_pipeline.get(), "about-to-finish", G_CALLBACK(about_to_finish_cb), this);
    GST_INFO("done (%d)", 0);
    return 0;
}

int GstNoxBackend::gstPlaySinkCreate() {
    if (m_pipeline) {
        GST_ERROR("***E: playbin still open");
        return -1;
    }
    m_pipeline = GstPtr<GstElement>::sink(gst_pipeline_new("mseplayer"));
    if (!m_pipeline) {
        GST_ERROR("cannot create pipeline");
        return -1;
    }
    GST_INFO("elements created");
    m_sourceGroup.forgetStart();
    watchBus();
    GST_INFO("done (%d)", 0);
    return 0;
}

void GstNoxBackend::watchBus() {
    m_bus = GstPtr<GstBus>::adopt(gst_element_get_bus(m_pipeline.get()));
    m_busWatch = GstNoxBusWatch::add(m_bus.get(), this);
    m_hasPlayer = true;
}

void GstNoxBackend::gstPlayerStopAndDestroy() {
    GST_DEBUG("playbin=%p, playsink=%p", static_cast<void*>(m_pipeline.get()),
              static_cast<void*>(m_playSink.get()));
    if (!m_busWatch)
        return; // there is none, or the client asks from inside an event that this one delivers
    const Operation operation(*this);
    writeGraph("nox-stop");
    const DecoderHandshake::Stop stop(m_decoders);
    changeState(GST_STATE_READY);
    GstState state = GST_STATE_VOID_PENDING;
    GstState pending = GST_STATE_VOID_PENDING;
    gst_element_get_state(m_pipeline.get(), &state, &pending, 0);
    GST_DEBUG("state=%d pending=%d", state, pending);
    setPipelineState(GST_STATE_READY);

    GST_DEBUG("draining the bus...");
    std::exchange(m_busWatch, nullptr)->remove(m_bus.get());
    while (const auto message = GstPtr<GstMessage>::adopt(gst_bus_pop(m_bus.get())))
        handleGstMessages(message.get());

    GST_DEBUG("destroy bus");
    m_bus.reset();
    GST_DEBUG("going to NULL");
    changeState(GST_STATE_NULL);
    setPipelineState(GST_STATE_NULL);
    m_mainSystem.leave(&m_decoders);
    m_hasPlayer = false;
    {
        const GLibLock lock(m_lock);
        m_audioSink.reset();
    }
    m_pipeline.reset();
    GST_DEBUG("done");
}

void GstNoxBackend::setPipelineState(GstState state) {
    if (!m_pipeline)
        return;
    gst_element_set_state(m_pipeline.get(), state);
}

void GstNoxBackend::writeGraph(const char* name) {
    if (m_pipeline)
        GST_DEBUG_BIN_TO_DOT_FILE_WITH_TS(GST_BIN(m_pipeline.get()), GST_DEBUG_GRAPH_SHOW_ALL,
                                          name);
}

void GstNoxBackend::element_setup_cb(GstElement* /*playbin*/, GstElement* element,
                                     gpointer backend) noexcept {
    guarded("element-setup", [=] { backendOf(backend)->setupElement(element); });
}

void GstNoxBackend::setupElement(GstElement* element) {
    const std::string_view factory = factoryName(element);
    GST_DEBUG("element='%s' factory='%s'", GST_OBJECT_NAME(element), factory.data());
    const bool audioSink = factory == "halaudiosink";
    if (!g_standalone && (audioSink || factory == "halvideosink")) {
        m_decoders.watch(element);
        g_signal_connect(element, "decoder-request", G_CALLBACK(decoder_request_cb), this);
        if (audioSink) {
            const GLibLock lock(m_lock);
            m_audioSink = GstPtr<GstElement>::retain(element);
        }
    } else if (factory == "tsdemux") {
        m_transportStream = true;
    } else if (factory == "decodebin") {
        g_signal_connect(element, "pad-added", G_CALLBACK(decodebin_pad_added_cb), this);
        g_signal_connect(element, "pad-removed", G_CALLBACK(decodebin_pad_removed_cb), this);
    } else if (factory == "souphttpsrc") {
        g_object_set(element, "ssl-strict", FALSE, nullptr);
    }
    const gchar* klass =
        gst_element_class_get_metadata(GST_ELEMENT_GET_CLASS(element), GST_ELEMENT_METADATA_KLASS);
    if (klass != nullptr && std::strstr(klass, "Demuxer") != nullptr)
        g_signal_connect(element, "pad-added", G_CALLBACK(demux_pad_added_cb), this);
}

void GstNoxBackend::source_setup_cb(GstElement* /*playbin*/, GstElement* source,
                                    gpointer backend) noexcept {
    GST_DEBUG("source=%s", GST_OBJECT_NAME(source));
    if (std::string_view(factoryName(source)) != "souphttpsrc")
        return;
    const char* userAgent = backendOf(backend)->m_userAgent.c_str();
    g_object_set(source, "user-agent", userAgent, nullptr);
    GST_DEBUG("source element has been created: set user-agent: %s", userAgent);
}

void GstNoxBackend::about_to_finish_cb(GstElement* /*playbin*/, gpointer /*backend*/) noexcept {
    GST_DEBUG("player finished playback");
}

gint GstNoxBackend::decoder_request_cb(GstElement* sink, const gchar* type,
                                       gpointer backend) noexcept {
    return guarded(GST_CAT_DEFAULT, "decoder-request", 0, [=] {
        auto* self = backendOf(backend);
        return self->reply(self->m_decoders.askClientAndMainSystem(sink, type));
    });
}

gint GstNoxBackend::source_decoder_request_cb(GstElement* sink, const gchar* type,
                                              gpointer backend) noexcept {
    return guarded(GST_CAT_DEFAULT, "decoder-request", 0, [=] {
        auto* self = backendOf(backend);
        return self->reply(self->m_decoders.askMainSystem(sink, type));
    });
}

void GstNoxBackend::askClient() {
    raiseEvent(new BackendResourceRequestAsyncEvent(m_audioOnly), GST_LEVEL_DEBUG, "type=%d",
               m_audioOnly);
}

/// What the sink is told.
gint GstNoxBackend::reply(DecoderHandshake::Answer answer) {
    if (answer == DecoderHandshake::Answer::Refused) {
        GST_ERROR("***E: resources not available (%d)", m_decoders.resourcesState());
        raiseEvent(new DecodeErrorEvent(DecodeErrorEvent::InsufficientResources), GST_LEVEL_ERROR,
                   "INSUFFICIENT_RESOURCES");
    }
    return answer == DecoderHandshake::Answer::Granted ? 1 : 0;
}

void GstNoxBackend::demux_pad_added_cb(GstElement* /*demuxer*/, GstPad* pad,
                                       gpointer backend) noexcept {
    GST_DEBUG("padname=%s", GST_PAD_NAME(pad));
    if (beginsWith(GST_PAD_NAME(pad), "video"))
        gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, demux_video_pad_event_probe,
                          backend, nullptr);
}

GstPadProbeReturn GstNoxBackend::demux_video_pad_event_probe(GstPad* pad, GstPadProbeInfo* info,
                                                             gpointer backend) noexcept {
    if (GstCaps* caps = capsOf(info))
        guarded("demuxer's caps", [=] { backendOf(backend)->takeDemuxerCaps(pad, caps); });
    return GST_PAD_PROBE_OK;
}

void GstNoxBackend::takeDemuxerCaps(GstPad* pad, GstCaps* caps) {
    const GstStructure* structure = firstStructure(caps);
    if (structure == nullptr)
        return;
    int width = 0;
    int height = 0;
    if (gst_structure_get_int(structure, "width", &width) &&
        gst_structure_get_int(structure, "height", &height)) {
        setMetaData(width, height);
        int numerator = 0;
        int denominator = 0;
        if (gst_structure_get_fraction(structure, "pixel-aspect-ratio", &numerator, &denominator))
            setMetaData(static_cast<double>(numerator) / static_cast<double>(denominator));
    }
    gint64 duration = MediaFacts::durationUnknown;
    const auto demuxer = GstPtr<GstElement>::adopt(gst_pad_get_parent_element(pad));
    if (!demuxer || !gst_element_query_duration(demuxer.get(), GST_FORMAT_TIME, &duration))
        duration = MediaFacts::durationUnknown;
    setMetaData(static_cast<long long>(duration));
}

void GstNoxBackend::decodebin_pad_added_cb(GstElement* /*decodebin*/, GstPad* pad,
                                           gpointer backend) noexcept {
    GST_DEBUG("padname=%s", GST_PAD_NAME(pad));
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, decodebin_srcpad_event_probe,
                      backend, nullptr);
}

GstPadProbeReturn GstNoxBackend::decodebin_srcpad_event_probe(GstPad* pad, GstPadProbeInfo* info,
                                                              gpointer backend) noexcept {
    if (GstCaps* caps = capsOf(info))
        guarded("decodebin's caps", [=] { backendOf(backend)->takeDecodedCaps(pad, caps); });
    return GST_PAD_PROBE_OK;
}

void GstNoxBackend::takeDecodedCaps(GstPad* pad, GstCaps* caps) {
    const GstStructure* structure = firstStructure(caps);
    if (structure == nullptr)
        return;
    // The kinds are crosswise.
    const gchar* component = GST_PAD_NAME(pad);
    const bool isVideo = beginsWith(gst_structure_get_name(structure), "video");
    if (!hasComponent(component))
        addComponent(isVideo ? "audio" : "video", component);
    if (!isVideo)
        checkMetaDataChanged();
}

void GstNoxBackend::decodebin_pad_removed_cb(GstElement* /*decodebin*/, GstPad* pad,
                                             gpointer backend) noexcept {
    if (gst_pad_get_direction(pad) != GST_PAD_SRC)
        return;
    GST_DEBUG("padname=%s", GST_PAD_NAME(pad));
    guarded("pad-removed", [=] { backendOf(backend)->removeComponent(GST_PAD_NAME(pad)); });
}

G_GNUC_BEGIN_IGNORE_DEPRECATIONS // GValueArray is what decodebin's signal speaks

    GValueArray*
    GstNoxBackend::autoplug_sort_cb(GstElement* /*decodebin*/, GstPad* /*pad*/, GstCaps* caps,
                                    GValueArray* factories, gpointer backend) noexcept {
    const GstStructure* structure = firstStructure(caps);
    const gchar* variant =
        structure != nullptr ? gst_structure_get_string(structure, "variant") : nullptr;
    if (variant != nullptr && std::string_view(variant) == "dolbyvision") {
        GValueArray* only = g_value_array_new(1);
        if (GstElementFactory* splitter = gst_element_factory_find("edrvessplitter")) {
            GValue value = G_VALUE_INIT;
            g_value_init(&value, GST_TYPE_ELEMENT_FACTORY);
            g_value_take_object(&value, splitter);
            g_value_array_append(only, &value);
            g_value_unset(&value);
        }
        return only;
    }
    if (backendOf(backend)->m_transportStream)
        g_value_array_sort(factories, priorize_vptsfilter);
    return nullptr;
}

G_GNUC_END_IGNORE_DEPRECATIONS

gint GstNoxBackend::priorize_vptsfilter(gconstpointer a, gconstpointer b) noexcept {
    const auto isFilter = [](gconstpointer value) {
        gpointer factory = g_value_get_object(static_cast<const GValue*>(value));
        return factory != nullptr && std::string_view(GST_OBJECT_NAME(factory)) == "noxvptsfilter";
    };
    if (isFilter(a))
        return -1;
    return isFilter(b) ? 1 : 0;
}

void GstNoxBackend::completeSeek(const UVAAsyncEvent* event) {
    GstState state = GST_STATE_VOID_PENDING;
    {
        const GLibLock lock(m_lock);
        state = m_state;
    }
    GST_INFO("CancelDataRequestsAsync: pos=%" GST_TIME_FORMAT " (%f) state=%d",
             GST_TIME_ARGS(m_seek.position()),
             static_cast<const CancelDataRequestsAsyncEvent*>(event)->position, state);
    const Operation operation(*this);
    const auto target = m_seek.begin();
    if (!target)
        return;
    const bool done = seekPipeline(*target);
    m_seek.end();
    using Outcome = SeekCompletedExEvent::SeekOutcome;
    if (!done) {
        raiseEvent(new SeekCompletedExEvent(Outcome::Failed), GST_LEVEL_WARNING,
                   "SeekOutcome::Failed");
        return;
    }
    if (state == GST_STATE_PLAYING) {
        GST_WARNING("***W: force state transition");
        setPipelineState(GST_STATE_PAUSED);
        setPipelineState(GST_STATE_PLAYING);
    }
    raiseEvent(new SeekCompletedExEvent(Outcome::Succeeded), GST_LEVEL_DEBUG,
               "SeekOutcome::Succeeded");
}

/// One step for all media sources: none takes what belongs behind the seek before all have dropped
/// what belongs before it.
bool GstNoxBackend::seekPipeline(guint64 target) {
    if (!m_pipeline)
        return false;
    const auto sources = m_sources.all();
    for (const auto& bin : sources)
        bin->closeForSeek(); // one may have been attached meanwhile
    m_sourceGroup.forgetStart();
    for (const auto& bin : sources)
        bin->beginSeek();
    const bool done = gst_element_seek_simple(
                          m_pipeline.get(), GST_FORMAT_TIME,
                          static_cast<GstSeekFlags>(GST_SEEK_FLAG_FLUSH | GST_SEEK_FLAG_ACCURATE),
                          static_cast<gint64>(target)) != FALSE;
    const MediaSources::Visit visit(m_sources, MediaSources::Visit::Request);
    for (const auto& bin : sources)
        if (bin->endSeek())
            askForData(bin->id());
    return done;
}
