#include "hal_sink.h"

#include "fast_clock.h"
#include "inner_sinks.h"
#include "nox/screen.h"
#include "opus_caps.h"
#include "timeline/timeline.h"

#include <gst/base/gstbasesink.h>

#include <utility>

GST_DEBUG_CATEGORY_STATIC(nox_elements_debug);
#define GST_CAT_DEFAULT nox_elements_debug

G_DEFINE_ABSTRACT_TYPE_WITH_CODE(GstHalSink, gst_hal_sink, GST_TYPE_BIN,
                                 GST_DEBUG_CATEGORY_INIT(nox_elements_debug, "noxelements", 0,
                                                         "simulated decoder-sinks"))

static guint decoderRequestSignal;

namespace noxelements {

namespace {

HalSink& implOf(GstObject* parent) {
    return *reinterpret_cast<GstHalSink*>(parent)->impl;
}

/// Whether the element or a bin around it has been told to go down.
bool isGoingDown(GstElement* element) {
    GstPtr<GstObject> object(GST_OBJECT(gst_object_ref(element)));
    while (object) {
        GST_OBJECT_LOCK(object.get());
        const bool down = GST_STATE_TARGET(GST_ELEMENT(object.get())) < GST_STATE_PAUSED;
        GST_OBJECT_UNLOCK(object.get());
        if (down)
            return true;
        object.reset(gst_object_get_parent(object.get()));
    }
    return false;
}

bool isFlushing(GstPad* pad) {
    GST_OBJECT_LOCK(pad);
    const bool flushing = GST_PAD_IS_FLUSHING(pad);
    GST_OBJECT_UNLOCK(pad);
    return flushing;
}

} // namespace

HalSink::HalSink(GstBin* bin, const char* kind, const MediaFormats& formats)
    : m_bin(bin), m_kind(kind), m_formats(formats),
      m_silent(sinkRef(gst_element_factory_make("fakesink", "silent"))),
      m_fastClock(playSpeed() > 1 ? GST_OBJECT(makeFastClock(playSpeed())) : nullptr),
      m_chain(bin) {
    if (const std::string failure = timeline::begin(); !failure.empty())
        GST_WARNING("%s", failure.c_str());
    auto* klass = GST_ELEMENT_GET_CLASS(bin);
    auto* pad = gst_ghost_pad_new_no_target_from_template(
        "sink", gst_element_class_get_pad_template(klass, "sink"));
    gst_pad_set_chain_function(pad, onChain);
    gst_pad_set_chain_list_function(pad, onChainList);
    gst_pad_set_event_full_function(pad, onEvent);
    gst_pad_set_query_function(pad, onQuery);
    gst_element_add_pad(GST_ELEMENT(bin), pad);
    m_sinkPad = GST_GHOST_PAD(pad);
    seekFromInput();
    GST_OBJECT_FLAG_SET(bin, GST_ELEMENT_FLAG_SINK);
    if (m_fastClock)
        GST_OBJECT_FLAG_SET(bin, GST_ELEMENT_FLAG_PROVIDE_CLOCK);

    if (!m_silent)
        return; // no core elements: the step to READY says so
    g_object_set(m_silent.get(), "sync", TRUE, nullptr);
    gst_bin_add(bin, m_silent.get());
    m_output = m_silent.get();
    watchOutput(m_output);
    m_chain.remove(m_sinkPad, m_output);
}

HalSink::~HalSink() = default;

GstFlowReturn HalSink::onEvent(GstPad* pad, GstObject* parent, GstEvent* event) {
    auto& self = implOf(parent);
    switch (GST_EVENT_TYPE(event)) {
    case GST_EVENT_CAPS: {
        GstCaps* caps = nullptr;
        gst_event_parse_caps(event, &caps);
        if (const auto translated = opusCapsForDecoder(caps)) {
            gst_event_unref(event);
            event = gst_event_new_caps(translated.get());
            gst_event_parse_caps(event, &caps);
        }
        const auto flow = self.prepare(caps);
        if (flow != GST_FLOW_OK) {
            gst_event_unref(event);
            return flow;
        }
        break;
    }
    case GST_EVENT_FLUSH_START:
        self.record("flush begins");
        self.interrupt();
        break;
    case GST_EVENT_FLUSH_STOP:
        self.record("flush ends");
        self.m_isFirstOutput = true;
        self.endDrain();
        break;
    default:
        break;
    }
    return gst_pad_event_default(pad, parent, event) ? GST_FLOW_OK : GST_FLOW_ERROR;
}

GstFlowReturn HalSink::onChain(GstPad* pad, GstObject* parent, GstBuffer* buffer) {
    auto& self = implOf(parent);
    switch (self.m_decoder.load()) {
    case Decoder::Granted:
        if (self.m_chain.format())
            return gst_proxy_pad_chain_default(pad, parent, buffer);
        break;
    case Decoder::Refused:
        return self.swallow(buffer);
    case Decoder::Undecided:
        break;
    }
    gst_buffer_unref(buffer);
    return self.isInterrupted() ? GST_FLOW_FLUSHING : GST_FLOW_NOT_NEGOTIATED;
}

GstFlowReturn HalSink::onChainList(GstPad* pad, GstObject* parent, GstBufferList* list) {
    auto flow = GST_FLOW_OK;
    const auto length = gst_buffer_list_length(list);
    for (guint i = 0; i < length && flow == GST_FLOW_OK; ++i)
        flow = onChain(pad, parent, gst_buffer_ref(gst_buffer_list_get(list, i)));
    gst_buffer_list_unref(list);
    return flow;
}

gboolean HalSink::onQuery(GstPad* pad, GstObject* parent, GstQuery* query) {
    const GstPtr<GstCaps> taken(gst_pad_get_pad_template_caps(pad));
    switch (GST_QUERY_TYPE(query)) {
    case GST_QUERY_CAPS: {
        GstCaps* filter = nullptr;
        gst_query_parse_caps(query, &filter);
        const GstPtr<GstCaps> result(
            filter ? gst_caps_intersect_full(filter, taken.get(), GST_CAPS_INTERSECT_FIRST)
                   : gst_caps_ref(taken.get()));
        gst_query_set_caps_result(query, result.get());
        return TRUE;
    }
    case GST_QUERY_ACCEPT_CAPS: {
        GstCaps* caps = nullptr;
        gst_query_parse_accept_caps(query, &caps);
        gst_query_set_accept_caps_result(query, gst_caps_is_subset(caps, taken.get()));
        return TRUE;
    }
    case GST_QUERY_ALLOCATION: {
        // A decoder has no memory to offer, and to ask it is to wait for all that is buffered.
        const auto* format = implOf(parent).m_chain.format();
        return !(format && format->decoderCaps) && gst_pad_query_default(pad, parent, query);
    }
    default:
        return gst_pad_query_default(pad, parent, query);
    }
}

/// Makes everything ready for data of these caps.
GstFlowReturn HalSink::prepare(GstCaps* caps) {
    const auto* format = m_formats.find(caps);
    if (!format)
        return GST_FLOW_NOT_NEGOTIATED;
    if (m_decoder == Decoder::Undecided && !decide())
        return GST_FLOW_FLUSHING;
    if (m_stopping)
        return GST_FLOW_FLUSHING;
    if (m_decoder == Decoder::Refused || m_chain.format() == format)
        return GST_FLOW_OK;
    return buildChain(*format, caps);
}

GstFlowReturn HalSink::buildChain(const MediaFormat& format, GstCaps* caps) {
    if (m_chain.format()) {
        if (!drainChain())
            return GST_FLOW_FLUSHING;
        seekFromInput();
        m_chain.remove(m_sinkPad, m_output);
    } else {
        useDevice();
    }
    const timeline::Span span("sink", "build the decoder");
    span.with("sink", GST_OBJECT_NAME(m_bin)).with("codec", format.codec);
    const bool built = m_chain.build(format, caps, m_sinkPad, m_output);
    if (built)
        seekFrom(GstPtr<GstPad>(gst_element_get_static_pad(m_output, "sink")));
    // A stop that begins after this look finds all of the chain in the bin and takes it down.
    if (m_stopping)
        return GST_FLOW_FLUSHING;
    return built ? GST_FLOW_OK : GST_FLOW_NOT_NEGOTIATED;
}

/// Waits until all that is in the chain was rendered. False when a flush or a stop came first: what
/// is on its way is stopped at the output still.
bool HalSink::drainChain() {
    {
        const locks::Lock lock(m_waitMutex);
        m_draining = true;
    }
    if (!m_chain.drain())
        endDrain();
    locks::Lock lock(m_waitMutex);
    m_drained.wait(lock, [this]() REQUIRES(m_waitMutex) { return !m_draining || isInterrupted(); });
    return !isInterrupted();
}

/// False when none was under way.
bool HalSink::endDrain() {
    const locks::Lock lock(m_waitMutex);
    m_drained.notify_all();
    return std::exchange(m_draining, false);
}

/// Asks for the decoder. False when a flush or a stop came first, or while it was being asked for:
/// the answer may be no more than the end of the wait, and the next data asks again.
bool HalSink::decide() {
    const auto gate = RequestGate::of(GST_ELEMENT(m_bin));
    {
        const locks::Lock lock(m_waitMutex);
        m_gate = gate;
    }
    bool decided = false;
    if (gate->enter([this] { return isInterrupted(); })) {
        {
            const locks::Lock lock(m_waitMutex);
            m_insideGate = true;
        }
        decided = settle(request() != 0);
        requestForwarded();
    }
    const locks::Lock lock(m_waitMutex);
    m_gate.reset();
    return decided;
}

bool HalSink::settle(bool granted) {
    if (!granted && isInterrupted())
        return false;
    m_decoder = granted ? Decoder::Granted : Decoder::Refused;
    if (granted)
        announce('+');
    return true;
}

void HalSink::requestForwarded() {
    const locks::Lock lock(m_waitMutex);
    if (std::exchange(m_insideGate, false))
        m_gate->leave();
}

int HalSink::request() {
    const timeline::Span span("sink", "ask for the decoder");
    gint answer = 0;
    GST_DEBUG_OBJECT(m_bin, "asking for the %s decoder", m_kind);
    g_signal_emit(m_bin, decoderRequestSignal, 0, m_kind, &answer);
    GST_INFO_OBJECT(m_bin, "%s decoder %s", m_kind, answer ? "granted" : "refused");
    span.with("sink", GST_OBJECT_NAME(m_bin)).with("granted", answer != 0);
    return answer;
}

bool HalSink::isInterrupted() const {
    return m_stopping || isFlushing(GST_PAD(m_sinkPad)) || isGoingDown(GST_ELEMENT(m_bin));
}

/// Keeps the output's time going without its data.
GstFlowReturn HalSink::swallow(GstBuffer* buffer) {
    const auto time = GST_BUFFER_PTS(buffer);
    const auto duration = GST_BUFFER_DURATION(buffer);
    gst_buffer_unref(buffer);
    if (!GST_CLOCK_TIME_IS_VALID(time))
        return GST_FLOW_OK;
    auto* inner = GST_PAD(gst_proxy_pad_get_internal(GST_PROXY_PAD(m_sinkPad)));
    gst_pad_push_event(inner, gst_event_new_gap(time, duration));
    gst_object_unref(inner);
    return isInterrupted() ? GST_FLOW_FLUSHING : GST_FLOW_OK;
}

GstPadProbeReturn HalSink::onOutputEvent(GstPad*, GstPadProbeInfo* info, gpointer sink) {
    auto& self = *static_cast<HalSink*>(sink);
    auto* event = GST_PAD_PROBE_INFO_EVENT(info);
    if (GST_EVENT_TYPE(event) == GST_EVENT_EOS && self.endDrain())
        return GST_PAD_PROBE_DROP;
    if (GST_EVENT_TYPE(event) == GST_EVENT_EOS)
        self.record("end of stream");
    if (GST_EVENT_TYPE(event) == GST_EVENT_CAPS && self.isGranted()) {
        GstCaps* caps = nullptr;
        gst_event_parse_caps(event, &caps);
        self.reportFormat(caps);
    }
    return GST_PAD_PROBE_OK;
}

void HalSink::record(const char* what) const {
    if (timeline::isOn())
        timeline::instant("sink", what).with("sink", GST_OBJECT_NAME(m_bin));
}

void HalSink::recordOutput(GstBuffer* buffer, const char* first, const char* others) {
    if (!timeline::isOn())
        return;
    timeline::instant("sink", m_isFirstOutput.exchange(false) ? first : others)
        .with("sink", GST_OBJECT_NAME(m_bin))
        .with("pts_ns", GST_BUFFER_PTS(buffer));
}

void HalSink::reportFormat(GstCaps* decoded) {
    const auto* format = m_chain.format();
    // A parser may know better than the caps that came in, the layer of MPEG audio for one.
    if (const auto coded = m_chain.codedCaps())
        if (const auto* parsed = m_formats.find(coded.get()))
            format = parsed;
    auto structure = format ? describe(decoded, *format) : nullptr;
    if (!structure)
        return;
    if (m_reportedFormat && gst_structure_is_equal(m_reportedFormat.get(), structure.get()))
        return;
    m_reportedFormat.reset(gst_structure_copy(structure.get()));
    post(std::move(structure));
}

void HalSink::announce(char sign) {
    const GstPtr<char> type(g_strdup_printf("%c%s", sign, m_kind));
    post(GstPtr<GstStructure>(
        gst_structure_new("GstNoxDecoderNeeded", "type", G_TYPE_STRING, type.get(), nullptr)));
}

void HalSink::post(GstPtr<GstStructure> structure) {
    gst_element_post_message(GST_ELEMENT(m_bin),
                             gst_message_new_application(GST_OBJECT(m_bin), structure.release()));
}

void HalSink::useDevice() {
    if (m_output != m_silent.get() || m_fastClock)
        return;
    const auto device = makeDeviceOutput();
    if (!device)
        return;
    swapOutput(device.get());
    applyTimeOffset();
    deviceOutputAdded(device.get());
    watchOutput(device.get());
    gst_element_sync_state_with_parent(device.get());
    gst_bin_remove(m_bin, m_silent.get());
}

void HalSink::swapOutput(GstElement* next) {
    gst_bin_add(m_bin, next);
    m_output = next;
    m_chain.remove(m_sinkPad, m_output);
}

void HalSink::setTimeOffset(gint64 offset) {
    m_timeOffset = offset;
    applyTimeOffset();
}

void HalSink::applyTimeOffset() {
    for (const auto& sink : innerSinks(m_bin))
        gst_base_sink_set_ts_offset(GST_BASE_SINK(sink.get()), m_timeOffset);
}

void HalSink::watchOutput(GstElement* output) {
    const GstPtr<GstPad> pad(gst_element_get_static_pad(output, "sink"));
    gst_pad_add_probe(pad.get(), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, onOutputEvent, this, nullptr);
}

GstStateChangeReturn HalSink::changeState(GstStateChange transition) {
    auto* element = GST_ELEMENT(m_bin);
    auto* parentClass = GST_ELEMENT_CLASS(gst_hal_sink_parent_class);
    if (transition == GST_STATE_CHANGE_NULL_TO_READY && !m_silent) {
        GST_ELEMENT_ERROR(element, CORE, MISSING_PLUGIN,
                          ("No element 'fakesink': install libgstreamer1.0-0."), (nullptr));
        return GST_STATE_CHANGE_FAILURE;
    }
    // After an error on the way to PAUSED the state is still READY: going down starts there.
    const bool down = transition == GST_STATE_CHANGE_PAUSED_TO_READY ||
                      transition == GST_STATE_CHANGE_READY_TO_READY ||
                      transition == GST_STATE_CHANGE_READY_TO_NULL;
    if (transition == GST_STATE_CHANGE_READY_TO_PAUSED)
        start();
    if (down) {
        m_stopping = true;
        interrupt();
    }
    const auto result = parentClass->change_state(element, transition);
    if (down)
        stop();
    return result;
}

/// A seek goes past the output: through it, it would hold the lock of its state while it waits for
/// data under way, which may be about to change that state.
gboolean HalSink::sendEvent(GstEvent* event) {
    if (GST_EVENT_TYPE(event) != GST_EVENT_SEEK)
        return GST_ELEMENT_CLASS(gst_hal_sink_parent_class)->send_event(GST_ELEMENT(m_bin), event);
    const GstPtr<GstEvent> seek(event);
    GstPtr<GstPad> pad, next = seekPad();
    gboolean sent = FALSE;
    while (!sent && next != pad) { // it may have been led elsewhere meanwhile
        pad = std::move(next);
        sent = gst_pad_push_event(pad.get(), gst_event_ref(event));
        next = seekPad();
    }
    return sent;
}

GstPtr<GstPad> HalSink::seekPad() const {
    const locks::Lock lock(m_seekMutex);
    return shared(m_seekPad.get());
}

void HalSink::seekFrom(GstPtr<GstPad> pad) {
    const locks::Lock lock(m_seekMutex);
    m_seekPad.swap(pad);
}

/// While the chain changes, seeks go past it.
void HalSink::seekFromInput() {
    seekFrom(shared(GST_PAD(m_sinkPad)));
}

void HalSink::start() {
    endDrain();
    m_stopping = false;
    m_isFirstOutput = true;
    // Whoever taps the screen sees all that comes: what is late is shown late.
    g_object_set(m_silent.get(), "qos", !nox::Screen::instance().isTapped(), nullptr);
    if (!m_active)
        activated();
    m_active = true;
}

/// Ends a wait for the turn to ask, or for the end of a drain.
void HalSink::interrupt() {
    const locks::Lock lock(m_waitMutex);
    if (m_gate)
        m_gate->wake();
    m_drained.notify_all();
}

void HalSink::stop() {
    if (!m_active)
        return;
    m_active = false;
    gst_pad_set_active(GST_PAD(m_sinkPad), FALSE); // waits for data and requests under way
    deactivated();
    seekFromInput();
    m_chain.remove(m_sinkPad, m_output);
    if (m_output != m_silent.get()) {
        auto* device = m_output;
        gst_element_set_state(device, GST_STATE_NULL);
        gst_element_set_state(m_silent.get(), GST_STATE_READY);
        swapOutput(m_silent.get());
        applyTimeOffset();
        gst_bin_remove(m_bin, device);
    }
    m_reportedFormat.reset();
    if (m_decoder.exchange(Decoder::Undecided) == Decoder::Granted)
        announce('-');
}

void HalSink::handleMessage(GstMessage* message) {
    GST_BIN_CLASS(gst_hal_sink_parent_class)->handle_message(m_bin, message);
}

GstClock* HalSink::provideClock() const {
    if (m_fastClock)
        return GST_CLOCK(gst_object_ref(m_fastClock.get()));
    return GST_ELEMENT_CLASS(gst_hal_sink_parent_class)->provide_clock(GST_ELEMENT(m_bin));
}

} // namespace noxelements

using noxelements::MediaFormats;

static gboolean takeFirstAnswer(GSignalInvocationHint*, GValue* result, const GValue* answer,
                                gpointer) {
    g_value_copy(answer, result);
    return FALSE;
}

static gint grant(GstHalSink*, const gchar*) {
    return 1;
}

static void requestForwarded(GstHalSink* sink) {
    sink->impl->requestForwarded();
}

static GstStateChangeReturn changeState(GstElement* element, GstStateChange transition) {
    return reinterpret_cast<GstHalSink*>(element)->impl->changeState(transition);
}

static gboolean sendEvent(GstElement* element, GstEvent* event) {
    return reinterpret_cast<GstHalSink*>(element)->impl->sendEvent(event);
}

static GstClock* provideClock(GstElement* element) {
    return reinterpret_cast<GstHalSink*>(element)->impl->provideClock();
}

static void handleMessage(GstBin* bin, GstMessage* message) {
    reinterpret_cast<GstHalSink*>(bin)->impl->handleMessage(message);
}

enum { propTimeOffset = 1 };

static void gst_hal_sink_set_property(GObject* object, guint id, const GValue* value,
                                      GParamSpec* spec) {
    if (id == propTimeOffset)
        reinterpret_cast<GstHalSink*>(object)->impl->setTimeOffset(g_value_get_int64(value));
    else
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
}

static void gst_hal_sink_get_property(GObject* object, guint id, GValue* value, GParamSpec* spec) {
    if (id == propTimeOffset)
        g_value_set_int64(value, reinterpret_cast<GstHalSink*>(object)->impl->timeOffset());
    else
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
}

static void finalize(GObject* object) {
    delete reinterpret_cast<GstHalSink*>(object)->impl;
    G_OBJECT_CLASS(gst_hal_sink_parent_class)->finalize(object);
}

static void gst_hal_sink_init(GstHalSink*) {}

static void gst_hal_sink_class_init(GstHalSinkClass* klass) {
    auto* object = G_OBJECT_CLASS(klass);
    object->finalize = finalize;
    object->set_property = gst_hal_sink_set_property;
    object->get_property = gst_hal_sink_get_property;
    // What a player shifts sound against picture with.
    g_object_class_install_property(
        object, propTimeOffset,
        g_param_spec_int64("ts-offset", "Time offset", "Renders so many nanoseconds later",
                           G_MININT64, G_MAXINT64, 0,
                           static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS)));
    GST_ELEMENT_CLASS(klass)->change_state = changeState;
    GST_ELEMENT_CLASS(klass)->send_event = sendEvent;
    GST_ELEMENT_CLASS(klass)->provide_clock = provideClock;
    GST_BIN_CLASS(klass)->handle_message = handleMessage;
    klass->decoder_request = grant;
    // The default grants; it runs last and so only counts when nobody is connected.
    decoderRequestSignal =
        g_signal_new("decoder-request", G_TYPE_FROM_CLASS(klass), G_SIGNAL_RUN_LAST,
                     G_STRUCT_OFFSET(GstHalSinkClass, decoder_request), takeFirstAnswer, nullptr,
                     nullptr, G_TYPE_INT, 1, G_TYPE_STRING);
    // For whoever answers "decoder-request" in two steps, of which only the first is made for one
    // sink at a time.
    klass->decoder_request_forwarded = requestForwarded;
    g_signal_new("decoder-request-forwarded", G_TYPE_FROM_CLASS(klass),
                 static_cast<GSignalFlags>(G_SIGNAL_RUN_LAST | G_SIGNAL_ACTION),
                 G_STRUCT_OFFSET(GstHalSinkClass, decoder_request_forwarded), nullptr, nullptr,
                 nullptr, G_TYPE_NONE, 0);
}

void gst_hal_sink_class_describe(GstElementClass* klass, const char* longName,
                                 const char* klassName, const char* description,
                                 const MediaFormats& formats) {
    gst_element_class_set_static_metadata(klass, longName, klassName, description, "Nox");
    const auto caps = formats.templateCaps();
    gst_element_class_add_pad_template(
        klass, gst_pad_template_new("sink", GST_PAD_SINK, GST_PAD_ALWAYS, caps.get()));
}
