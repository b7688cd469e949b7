#include "mse/gstnox_msebin.h"

#include "base/gstnox_debug.h"
#include "base/gstnox_time.h"
#include "codec/codecheaders.h"
#include "codec/codecutil.h"
#include "mse/media_source_group.h"
#include "mse/uva_gstcontentprotection.h"
#include "timeline/timeline.h"
#include "uva/uva_sample.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

#define GST_CAT_DEFAULT gst_backend_debug

namespace {

bool beginsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

/// Which caps a parser is looked for with; other MIME types name their caps themselves.
struct ParserCaps {
    const char* mimePrefix;
    const char* caps;
};
constexpr ParserCaps parserCaps[] = {
    {"audio/x-aac+adts", "audio/mpeg, mpegversion=(int)4"},
    {"video/x-h264", "video/x-h264"},
    {"video/x-vnd.on2.vp9", "video/x-vp9"},
};

/// Null for a MIME type that is no name of caps.
GstPtr<GstCaps> parserCapsOf(std::string_view mimeType) {
    for (const auto& row : parserCaps)
        if (beginsWith(mimeType, row.mimePrefix))
            return GstPtr<GstCaps>::adopt(gst_caps_from_string(row.caps));
    const std::string name(mimeType.substr(0, mimeType.find_first_of("; ")));
    GstStructure* structure = gst_structure_from_string(name.c_str(), nullptr);
    if (structure == nullptr)
        return nullptr;
    return GstPtr<GstCaps>::adopt(gst_caps_new_full(structure, nullptr));
}

/// The VP9 parser fails for good when the first frame is not one that it can read. Until it knows
/// the stream, frames that could not be decrypted are left out, and what builds on them.
struct Vp9Gate {
    GstPad* parsed; ///< the parser's, which outlives its probes
    bool isClosed = false;
};

GstPadProbeReturn waitForVp9KeyFrame(GstPad* /*pad*/, GstPadProbeInfo* info, gpointer user) {
    auto& gate = *static_cast<Vp9Gate*>(user);
    GstBuffer* buffer = GST_PAD_PROBE_INFO_BUFFER(info);
    const bool isProtected = gst_buffer_get_content_protection_meta(buffer) != nullptr;
    if (gst_pad_has_current_caps(gate.parsed) || !(gate.isClosed || isProtected))
        return GST_PAD_PROBE_OK;
    GstMapInfo map;
    if (!gst_buffer_map(buffer, &map, GST_MAP_READ))
        return GST_PAD_PROBE_OK;
    const bool begins = vp9_begins_stream(map.data, map.size);
    gst_buffer_unmap(buffer, &map);
    gate.isClosed = !begins;
    if (begins)
        return GST_PAD_PROBE_OK;
    GST_DEBUG("no key frame yet");
    return GST_PAD_PROBE_DROP;
}

void skipToVp9KeyFrame(GstElement* parser) {
    const auto in = GstPtr<GstPad>::adopt(gst_element_get_static_pad(parser, "sink"));
    const auto out = GstPtr<GstPad>::adopt(gst_element_get_static_pad(parser, "src"));
    gst_pad_add_probe(in.get(), GST_PAD_PROBE_TYPE_BUFFER, waitForVp9KeyFrame,
                      new Vp9Gate{out.get()},
                      [](gpointer gate) { delete static_cast<Vp9Gate*>(gate); });
}

} // namespace

GstMseBin::GstMseBin(MediaSourceGroup& group, UVABackend::SourceDescription* description)
    : m_group(group), source(description), m_id(static_cast<unsigned int>(source->sourceId)) {}

GstMseBin::~GstMseBin() = default;

// ---- the elements

bool GstMseBin::Create(GstAppSrcCallbacks callbacks, gpointer user) {
    const std::string_view mimeType = source->mimeType != nullptr ? source->mimeType : "";
    GST_INFO("mime-type=%s", mimeType.data());
    const char* factory = nullptr;
    if (beginsWith(mimeType, "audio")) {
        kind = MediaKind::Audio;
        factory = "halaudiosink";
    } else if (beginsWith(mimeType, "video")) {
        kind = MediaKind::Video;
        factory = "halvideosink";
    } else {
        GST_WARNING("unknown mime type: '%s'", mimeType.data());
        return false;
    }
    const auto named = [this](const char* text) {
        return GCharPtr(g_strdup_printf("%s_%u", text, m_id));
    };
    name = named(nameOf(kind));
    const GCharPtr sinkName = named(factory);
    m_sink = GstPtr<GstElement>::sink(gst_element_factory_make(factory, sinkName.get()));
    if (!m_sink) {
        GST_ERROR("***E: cannot create sink '%s', factory=%s", sinkName.get(), factory);
        return false;
    }
    bin = GstPtr<GstElement>::sink(gst_bin_new(named("msebin").get()));
    appsrc = GstPtr<GstElement>::sink(gst_element_factory_make("appsrc", named("appsrc").get()));
    if (!appsrc) {
        GST_ERROR("***E: cannot create appsrc: install gstreamer1.0-plugins-base");
        return false;
    }
    g_object_set(appsrc.get(), "stream-type", source->streamType, "format", GST_FORMAT_TIME,
                 nullptr);
    gst_app_src_set_callbacks(GST_APP_SRC(appsrc.get()), &callbacks, user, nullptr);
    return link(makeParser());
}

/// The best one for the MIME type; null when there is none.
GstPtr<GstElement> GstMseBin::makeParser() {
    const auto caps = parserCapsOf(source->mimeType);
    GQueue* factories = uva_gst_find_compatible_factories(caps.get());
    auto parser =
        GstPtr<GstElement>::sink(uva_gst_create_best_element_by_klass(factories, "Parser"));
    uva_gst_free_factories(factories);
    if (parser && g_object_class_find_property(G_OBJECT_GET_CLASS(parser.get()),
                                               "disable-passthrough") != nullptr)
        g_object_set(parser.get(), "disable-passthrough", TRUE, nullptr);
    if (parser && gst_structure_has_name(gst_caps_get_structure(caps.get(), 0), "video/x-vp9"))
        skipToVp9KeyFrame(parser.get());
    return parser;
}

bool GstMseBin::link(GstPtr<GstElement> parser) {
    gst_bin_add_many(GST_BIN(bin.get()), appsrc.get(), m_sink.get(), nullptr);
    if (parser) {
        gst_bin_add(GST_BIN(bin.get()), parser.get());
        GST_DEBUG("pipeline: %s ! %s ! %s", GST_ELEMENT_NAME(appsrc.get()),
                  GST_ELEMENT_NAME(parser.get()), GST_ELEMENT_NAME(m_sink.get()));
        return gst_element_link_many(appsrc.get(), parser.get(), m_sink.get(), nullptr) != FALSE;
    }
    GST_DEBUG("pipeline: %s ! %s", GST_ELEMENT_NAME(appsrc.get()), GST_ELEMENT_NAME(m_sink.get()));
    return gst_element_link(appsrc.get(), m_sink.get()) != FALSE;
}

void GstMseBin::close() {
    SampleQueue::Items dropped;
    const GLibLock hold(lock);
    m_isRemoved = true;
    dropped = flush(0);
}

/// The host gets its decrypter back here: whoever drops the last reference may hold a lock.
void GstMseBin::Destroy() {
    SampleDecrypter::Context decrypter; // goes after the lock
    close();
    if (!bin)
        return;
    gst_element_set_locked_state(bin.get(), TRUE); // the pipeline may be on its way up
    gst_element_set_state(bin.get(), GST_STATE_NULL);
    const auto parent = GstPtr<GstObject>::adopt(gst_object_get_parent(GST_OBJECT(bin.get())));
    if (parent)
        gst_bin_remove(GST_BIN(parent.get()), bin.get());
    const GLibLock hold(lock);
    if (!m_isFeeding) // else this thread does, and the host asks from inside a decryption
        decrypter = m_decrypter.release();
}

bool GstMseBin::isActive() {
    GstState state = GST_STATE_VOID_PENDING;
    gst_element_get_state(bin.get(), &state, nullptr, 0);
    return state >= GST_STATE_PAUSED;
}

/// It neither comes back with the pipeline's next state nor holds up the end of playback.
void GstMseBin::stop() {
    gst_element_set_locked_state(bin.get(), TRUE);
    gst_element_set_state(bin.get(), GST_STATE_READY);
    GST_OBJECT_FLAG_UNSET(bin.get(), GST_ELEMENT_FLAG_SINK);
    needData = false;
}

// ---- samples on their way in

void GstMseBin::write(UVASample** samples) {
    unsigned int flushes = 0;
    {
        const GLibLock hold(lock);
        if (samples == nullptr || !takesSamples())
            return;
        flushes = m_flushes;
    }
    const timeline::Span span("feeding", "take samples");
    auto batch = m_samples.read(samples); // what is not queued goes after the lock
    span.with("source", name.get())
        .with("samples", batch.samples.size())
        .with("bytes", batch.bytes);
    {
        const GLibLock hold(lock);
        if (flushes != m_flushes)
            return; // from before a seek, or the source is gone
        for (auto& sample : batch.samples)
            queueSample(std::move(sample));
    }
    GST_LOG("id=%d, got: samples=%d bytes=%d", static_cast<int>(m_id),
            static_cast<int>(batch.samples.size()), static_cast<int>(batch.bytes));
    pushToSource();
}

void GstMseBin::queueSample(SampleIntake::Sample sample) {
    if (sample.buffer) {
        if (sample.caps)
            m_queue.pushCaps(std::move(sample.caps));
        if (timeline::isOn())
            timeline::flow(timeline::Flow::Start, "sample", timeline::idOf(sample.buffer.get()));
        m_queue.pushBuffer(std::move(sample.buffer));
    }
    // All sources begin at the same time: that of whose sample comes first.
    if (m_queue.noteTimes(sample.pts, sample.duration))
        m_segmentStart = m_group.agreeOnStart(sample.pts);
}

void GstMseBin::writeEndOfStream() {
    auto event = GstPtr<GstEvent>::adopt(gst_event_new_eos());
    GST_DEBUG("(%s): %p", name.get(), static_cast<void*>(event.get()));
    {
        const GLibLock hold(lock);
        if (!takesSamples())
            return;
        m_queue.pushEvent(std::move(event));
    }
    pushToSource();
}

SampleQueue::Items GstMseBin::flush(int keepCaps) {
    m_segmentStart = GST_CLOCK_TIME_NONE;
    m_hasEnded = false;
    ++m_flushes;
    return m_queue.flush(keepCaps != 0);
}

// ---- from the queue to the appsrc

bool GstMseBin::pushToSource() {
    std::size_t before = 0;
    bool isFed = false; // by another thread, which goes on with what has come
    {
        const GLibLock hold(lock);
        before = m_queue.size();
        isFed = std::exchange(m_isFeeding, true);
    }
    GST_LOG("%s: queued %u, need_data:%d", name.get(), static_cast<guint>(before), int{needData});
    if (isFed)
        return before == 0;
    guint pushed = 0;
    Step step;
    for (step = nextStep(); step.item; step = nextStep(), ++pushed)
        handOver(step);
    GST_LOG("%s: pushed %u/%u, remaining %u", name.get(), pushed, static_cast<guint>(before),
            static_cast<guint>(step.remaining));
    if (timeline::isOn())
        timeline::counter("feeding", "queued", {}).with(name.get(), step.remaining);
    return step.remaining == 0;
}

GstMseBin::Step GstMseBin::nextStep() {
    const GLibLock hold(lock);
    m_isPushing = false;
    m_pushed.broadcast(lock);
    Step step;
    if (m_queue.size() == 0 || !needData || m_intake != Intake::Open) {
        m_isFeeding = false;
    } else {
        step.item = m_queue.pop();
        step.flushes = m_flushes;
    }
    step.remaining = m_queue.size();
    GstMiniObject* item = step.item.get();
    if (item == nullptr)
        return step;
    step.isProtected = GST_IS_BUFFER(item) &&
                       gst_buffer_get_content_protection_meta(GST_BUFFER_CAST(item)) != nullptr;
    if (!GST_IS_BUFFER(item))
        m_isPushing = true;
    else if (!step.isProtected)
        step.segmentStart = beginPush();
    return step;
}

/// From here on a flush waits: what it wants dropped is on its way. Where the buffer's segment
/// begins, or none.
GstClockTime GstMseBin::beginPush() {
    m_isPushing = true;
    return std::exchange(m_segmentStart, GST_CLOCK_TIME_NONE);
}

void GstMseBin::waitForPush() {
    while (m_isPushing)
        m_pushed.wait(lock);
}

void GstMseBin::handOver(Step& step) {
    auto* appSource = GST_APP_SRC(appsrc.get());
    GstMiniObject* item = step.item.get();
    if (GST_IS_BUFFER(item)) {
        handOverBuffer(step);
    } else if (GST_IS_CAPS(item)) {
        GstCaps* caps = GST_CAPS_CAST(item);
        gst_app_src_set_caps(appSource, caps);
        m_capsName = g_intern_string(gst_structure_get_name(gst_caps_get_structure(caps, 0)));
    } else {
        GST_DEBUG("handle event (%s): %p", name.get(), static_cast<void*>(item));
        if (GST_EVENT_TYPE(GST_EVENT_CAST(item)) == GST_EVENT_EOS) {
            m_hasEnded = true;
            gst_app_src_end_of_stream(appSource);
        }
    }
}

void GstMseBin::handOverBuffer(Step& step) {
    auto buffer = GstPtr<GstBuffer>::adopt(GST_BUFFER_CAST(step.item.release()));
    const timeline::Span span("feeding", "push");
    if (span)
        span.with("source", name.get())
            .with("pts_ns", GST_BUFFER_PTS(buffer.get()))
            .with("bytes", gst_buffer_get_size(buffer.get()))
            .flow(timeline::Flow::End, "sample", timeline::idOf(buffer.get()));
    step.payload = GstPtr<GstMemory>::adopt(gst_buffer_get_memory(buffer.get(), 0));
    if (step.isProtected) {
        handleContentProtectionMeta(buffer.get());
        const GLibLock hold(lock);
        if (step.flushes != m_flushes)
            return; // from before a seek
        step.segmentStart = beginPush();
    }
    if (step.segmentStart != GST_CLOCK_TIME_NONE) {
        GstSegment segment;
        gst_segment_init(&segment, GST_FORMAT_TIME);
        segment.start = segment.time = segment.position = step.segmentStart;
        gst_base_src_new_segment(GST_BASE_SRC(appsrc.get()), &segment);
    }
    if (gst_app_src_push_buffer(GST_APP_SRC(appsrc.get()), buffer.release()) != GST_FLOW_OK)
        GST_ERROR("***E: buffer not pushed");
}

void GstMseBin::handleContentProtectionMeta(GstBuffer* buffer) {
    if (m_decrypter.decrypt(buffer))
        return;
    GST_ERROR("decryption failed"); // what goes on is as unreadable as it came
    GST_DEBUG("%s of type %s", name.get(), m_capsName);
}

// ---- from the appsrc

bool GstMseBin::needsData() {
    {
        const GLibLock hold(lock);
        if (m_isRemoved)
            return false;
        m_wasAsked = true;
        m_neededSince = g_get_monotonic_time();
        needData = true;
        if (m_intake != Intake::Open)
            return false;
    }
    return pushToSource();
}

bool GstMseBin::seek() {
    SampleQueue::Items dropped;
    const GLibLock hold(lock);
    if (m_isRemoved || !m_wasAsked)
        return false;
    // What is pushed before the appsrc has flushed its own queue would be lost; it asks again then.
    needData = false;
    waitForPush();
    if (m_intake != Intake::Open)
        return false;
    dropped = flush(1);
    return true;
}

void GstMseBin::closeForSeek() {
    SampleQueue::Items dropped;
    const GLibLock hold(lock);
    m_intake = Intake::Closed;
    dropped = flush(1);
}

void GstMseBin::beginSeek() {
    SampleQueue::Items dropped;
    const GLibLock hold(lock);
    m_intake = Intake::Waiting;
    dropped = flush(1);
    waitForPush();
}

bool GstMseBin::endSeek() {
    {
        const GLibLock hold(lock);
        if (m_intake != Intake::Waiting)
            return false; // sought anew meanwhile
        m_intake = Intake::Open;
        if (m_isRemoved || !needData)
            return false;
    }
    return pushToSource();
}

// ---- what others want to know

std::vector<UVABackend::TimeRange> GstMseBin::bufferedRanges(guint64 position) {
    const GLibLock hold(lock);
    const GstClockTime first = m_queue.firstStart();
    const GstClockTime end = m_queue.lastEnd();
    if (end == GST_CLOCK_TIME_NONE)
        return {};
    const GstClockTime start =
        position != GST_CLOCK_TIME_NONE && position > first ? std::min(position, end) : first;
    return {{toSeconds(start), toSeconds(end)}};
}

GstMseBin::Facts GstMseBin::facts() {
    Facts facts{name.get(),
                GST_STATE(bin.get()),
                0,
                0,
                needData,
                m_hasEnded,
                m_neededSince,
                GST_CLOCK_TIME_NONE,
                GST_CLOCK_TIME_NONE,
                m_samples.frameRate(),
                m_decrypter.counters()};
    const GLibLock hold(lock);
    facts.queued = m_queue.size();
    facts.bytes = m_queue.bytes();
    facts.firstStart = m_queue.firstStart();
    facts.lastEnd = m_queue.lastEnd();
    return facts;
}

std::string GstMseBin::describe() {
    const auto now = facts();
    const auto [numerator, denominator] = now.frameRate;
    const GCharPtr line(g_strdup_printf("%s: %s queued=%zu bytes=%" G_GUINT64_FORMAT
                                        " needData=%d lastEnd=%" GST_TIME_FORMAT " fps=%d/%d",
                                        now.name.c_str(), gst_element_state_get_name(now.state),
                                        now.queued, now.bytes, int{now.needsData},
                                        GST_TIME_ARGS(now.lastEnd), numerator, denominator));
    return line.get();
}
