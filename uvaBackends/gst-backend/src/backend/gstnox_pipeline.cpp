#include "backend/gstnox_pipeline.h"

#include "backend/gstnox_firstbuffer.h"
#include "backend/gstnox_streamgroup.h"
#include "backend/media_facts.h"
#include "base/gstnox_debug.h"

#include <cstring>
#include <string_view>
#include <utility>

#define GST_CAT_DEFAULT gst_backend_debug

namespace {

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

GstNoxPipeline* of(gpointer data) {
    return static_cast<GstNoxPipeline*>(data);
}

/// Of a query in GST_FORMAT_TIME.
using Query = gboolean (*)(GstElement*, GstFormat, gint64*);

std::optional<gint64> ask(const GstPtr<GstElement>& pipeline, Query query) {
    gint64 time = 0;
    if (!pipeline || !query(pipeline.get(), GST_FORMAT_TIME, &time))
        return std::nullopt;
    return time;
}

} // namespace

// ---- its life

bool GstNoxPipeline::isFree() {
    const bool is = !element();
    if (!is)
        GST_ERROR("***E: playbin still open");
    return is;
}

bool GstNoxPipeline::createPlaybin() {
    if (!isFree())
        return false;
    const auto playbin = GstPtr<GstElement>::sink(gst_element_factory_make("playbin", nullptr));
    if (!playbin) {
        GST_ERROR("one element could not be created");
        GST_ERROR("  playbin  = %p", static_cast<void*>(playbin.get()));
        return false;
    }
    m_transportStream = false;
    GST_INFO("elements created");
    open(playbin);
    keepStreamGroupsGoing(playbin.get());
    g_signal_connect(playbin.get(), "element-setup", G_CALLBACK(element_setup_cb), this);
    g_signal_connect(playbin.get(), "source-setup", G_CALLBACK(source_setup_cb), this);
    g_signal_connect(playbin.get(), "about-to-finish", G_CALLBACK(about_to_finish_cb), this);
    return true;
}

bool GstNoxPipeline::createForMediaSources() {
    if (!isFree())
        return false;
    const auto pipeline = GstPtr<GstElement>::sink(gst_pipeline_new("mseplayer"));
    if (!pipeline) {
        GST_ERROR("cannot create pipeline");
        return false;
    }
    GST_INFO("elements created");
    open(pipeline);
    return true;
}

void GstNoxPipeline::open(GstPtr<GstElement> pipeline) {
    m_bus = GstPtr<GstBus>::adopt(gst_element_get_bus(pipeline.get()));
    m_busWatch = GstNoxBusWatch::add(m_bus.get(), m_client.message);
    const GLibLock lock(m_lock);
    m_pipeline = std::move(pipeline);
}

void GstNoxPipeline::setUrl(const char* url, const char* userAgent) {
    m_userAgent = userAgent != nullptr ? userAgent : "";
    g_object_set(element().get(), "uri", url, nullptr);
}

void GstNoxPipeline::stop() {
    GstState state = GST_STATE_VOID_PENDING;
    GstState pending = GST_STATE_VOID_PENDING;
    gst_element_get_state(element().get(), &state, &pending, 0);
    GST_DEBUG("state=%d pending=%d", state, pending);
    setState(GST_STATE_READY);

    GST_DEBUG("draining the bus...");
    std::exchange(m_busWatch, nullptr)->remove(m_bus.get());
    while (const auto message = GstPtr<GstMessage>::adopt(gst_bus_pop(m_bus.get())))
        guarded("a message of the pipeline", [&] { m_client.message(message.get()); });
    GST_DEBUG("destroy bus");
    m_bus.reset();
}

void GstNoxPipeline::destroy() {
    setState(GST_STATE_NULL);
    GstPtr<GstElement> pipeline; // what is dropped goes after the lock
    GstPtr<GstElement> audioSink;
    const GLibLock lock(m_lock);
    std::swap(pipeline, m_pipeline);
    std::swap(audioSink, m_audioSink);
}

// ---- while it is there

GstPtr<GstElement> GstNoxPipeline::element() {
    const GLibLock lock(m_lock);
    return m_pipeline;
}

void GstNoxPipeline::setState(GstState state) {
    if (const auto pipeline = element())
        gst_element_set_state(pipeline.get(), state);
}

std::optional<gint64> GstNoxPipeline::position() {
    return ask(element(), gst_element_query_position);
}

std::optional<gint64> GstNoxPipeline::duration() {
    return ask(element(), gst_element_query_duration);
}

GstNoxPipeline::Facts GstNoxPipeline::factsOf(GstElement* pipeline) {
    Facts facts;
    if (pipeline == nullptr)
        return facts;
    gst_element_get_state(pipeline, &facts.state, &facts.pending, 0);
    if (g_object_class_find_property(G_OBJECT_GET_CLASS(pipeline), "source") == nullptr)
        return facts;
    GstElement* found = nullptr;
    g_object_get(pipeline, "source", &found, nullptr);
    const auto source = GstPtr<GstElement>::adopt(found);
    if (!source || !GST_IS_URI_HANDLER(source.get()))
        return facts;
    facts.url.reset(gst_uri_handler_get_uri(GST_URI_HANDLER(source.get())));
    gint64 bytes = 0;
    if (gst_element_query_position(source.get(), GST_FORMAT_BYTES, &bytes))
        facts.bytesRead = bytes;
    return facts;
}

bool GstNoxPipeline::seek(guint64 target) {
    const auto pipeline = element();
    return pipeline && gst_element_seek_simple(
                           pipeline.get(), GST_FORMAT_TIME,
                           static_cast<GstSeekFlags>(GST_SEEK_FLAG_FLUSH | GST_SEEK_FLAG_ACCURATE),
                           static_cast<gint64>(target)) != FALSE;
}

void GstNoxPipeline::writeGraph(const char* name) {
    if (const auto pipeline = element())
        GST_DEBUG_BIN_TO_DOT_FILE_WITH_TS(GST_BIN(pipeline.get()), GST_DEBUG_GRAPH_SHOW_ALL, name);
}

void GstNoxPipeline::setAudioSink(GstElement* sink) {
    auto next = GstPtr<GstElement>::retain(sink); // and the last one goes after the lock
    const GLibLock lock(m_lock);
    std::swap(next, m_audioSink);
}

void GstNoxPipeline::forgetAudioSink(const GstElement* sink) {
    GstPtr<GstElement> forgotten;
    const GLibLock lock(m_lock);
    if (m_audioSink.get() == sink)
        std::swap(forgotten, m_audioSink);
}

GstPtr<GstElement> GstNoxPipeline::audioSink() {
    const GLibLock lock(m_lock);
    return m_audioSink;
}

// ---- what its elements tell

void GstNoxPipeline::element_setup_cb(GstElement* /*playbin*/, GstElement* element,
                                      gpointer self) noexcept {
    guarded("element-setup", [=] { of(self)->setupElement(element); });
}

void GstNoxPipeline::setupElement(GstElement* element) {
    const std::string_view factory = factoryName(element);
    GST_DEBUG("element='%s' factory='%s'", GST_OBJECT_NAME(element), factory.data());
    const bool isAudioSink = factory == "halaudiosink";
    if (isAudioSink || factory == "halvideosink") {
        if (m_client.sinkAdded(element) && isAudioSink)
            setAudioSink(element);
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
    if (klass != nullptr && std::strstr(klass, "Demuxer") != nullptr) {
        g_signal_connect(element, "pad-added", G_CALLBACK(demux_pad_added_cb), this);
        holdFirstBufferUntilLinked(element);
    }
}

void GstNoxPipeline::source_setup_cb(GstElement* /*playbin*/, GstElement* source,
                                     gpointer self) noexcept {
    GST_DEBUG("source=%s", GST_OBJECT_NAME(source));
    if (std::string_view(factoryName(source)) != "souphttpsrc")
        return;
    const char* userAgent = of(self)->m_userAgent.c_str();
    g_object_set(source, "user-agent", userAgent, nullptr);
    GST_DEBUG("source element has been created: set user-agent: %s", userAgent);
}

void GstNoxPipeline::about_to_finish_cb(GstElement* /*playbin*/, gpointer /*self*/) noexcept {
    GST_DEBUG("player finished playback");
}

void GstNoxPipeline::demux_pad_added_cb(GstElement* /*demuxer*/, GstPad* pad,
                                        gpointer self) noexcept {
    GST_DEBUG("padname=%s", GST_PAD_NAME(pad));
    if (g_str_has_prefix(GST_PAD_NAME(pad), "video"))
        gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, demux_video_pad_event_probe,
                          self, nullptr);
}

GstPadProbeReturn GstNoxPipeline::demux_video_pad_event_probe(GstPad* pad, GstPadProbeInfo* info,
                                                              gpointer self) noexcept {
    if (GstCaps* caps = capsOf(info))
        guarded("demuxer's caps", [=] { of(self)->takeDemuxerCaps(pad, caps); });
    return GST_PAD_PROBE_OK;
}

void GstNoxPipeline::takeDemuxerCaps(GstPad* pad, GstCaps* caps) {
    const GstStructure* structure = firstStructure(caps);
    if (structure == nullptr)
        return;
    int width = 0;
    int height = 0;
    if (gst_structure_get_int(structure, "width", &width) &&
        gst_structure_get_int(structure, "height", &height)) {
        m_facts.setSize(width, height);
        int numerator = 0;
        int denominator = 0;
        if (gst_structure_get_fraction(structure, "pixel-aspect-ratio", &numerator, &denominator))
            m_facts.setPixelAspectRatio(static_cast<double>(numerator) /
                                        static_cast<double>(denominator));
    }
    gint64 duration = MediaFacts::durationUnknown;
    const auto demuxer = GstPtr<GstElement>::adopt(gst_pad_get_parent_element(pad));
    if (!demuxer || !gst_element_query_duration(demuxer.get(), GST_FORMAT_TIME, &duration))
        duration = MediaFacts::durationUnknown;
    m_facts.setDuration(duration);
}

void GstNoxPipeline::decodebin_pad_added_cb(GstElement* /*decodebin*/, GstPad* pad,
                                            gpointer self) noexcept {
    GST_DEBUG("padname=%s", GST_PAD_NAME(pad));
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, decodebin_srcpad_event_probe, self,
                      nullptr);
}

GstPadProbeReturn GstNoxPipeline::decodebin_srcpad_event_probe(GstPad* pad, GstPadProbeInfo* info,
                                                               gpointer self) noexcept {
    if (GstCaps* caps = capsOf(info))
        guarded("decodebin's caps", [=] { of(self)->takeDecodedCaps(pad, caps); });
    return GST_PAD_PROBE_OK;
}

void GstNoxPipeline::takeDecodedCaps(GstPad* pad, GstCaps* caps) {
    const GstStructure* structure = firstStructure(caps);
    if (structure == nullptr)
        return;
    m_client.streamDecoded(GST_PAD_NAME(pad),
                           g_str_has_prefix(gst_structure_get_name(structure), "video"));
}

void GstNoxPipeline::decodebin_pad_removed_cb(GstElement* /*decodebin*/, GstPad* pad,
                                              gpointer self) noexcept {
    if (gst_pad_get_direction(pad) != GST_PAD_SRC)
        return;
    GST_DEBUG("padname=%s", GST_PAD_NAME(pad));
    guarded("pad-removed", [=] { of(self)->m_client.streamGone(GST_PAD_NAME(pad)); });
}

G_GNUC_BEGIN_IGNORE_DEPRECATIONS // GValueArray is what decodebin's signal speaks

    GValueArray*
    GstNoxPipeline::autoplug_sort_cb(GstElement* /*decodebin*/, GstPad* /*pad*/, GstCaps* caps,
                                     GValueArray* factories, gpointer self) noexcept {
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
    if (of(self)->m_transportStream)
        g_value_array_sort(factories, priorize_vptsfilter);
    return nullptr;
}

G_GNUC_END_IGNORE_DEPRECATIONS

gint GstNoxPipeline::priorize_vptsfilter(gconstpointer a, gconstpointer b) noexcept {
    const auto isFilter = [](gconstpointer value) {
        gpointer factory = g_value_get_object(static_cast<const GValue*>(value));
        return factory != nullptr && std::string_view(GST_OBJECT_NAME(factory)) == "noxvptsfilter";
    };
    if (isFilter(a))
        return -1;
    return isFilter(b) ? 1 : 0;
}
