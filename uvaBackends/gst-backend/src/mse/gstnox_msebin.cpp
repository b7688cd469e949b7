#include "mse/gstnox_msebin.h"

#include "codec/codeccaps.h"
#include "codec/codecheaders.h"
#include "codec/codecutil.h"
#include "plugin/gstnox_plugin.h"
#include "uva/uva_sample.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

#define GST_CAT_DEFAULT gst_backend_debug

namespace {

constexpr guint queueRoom = 60; // two batches
constexpr double nanosecondsPerSecond = 1000000000.0;

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

/// Nanoseconds; none for what is negative, not a number, or beyond 64 bits with a sign.
GstClockTime toClockTime(double seconds) {
    constexpr double limit = 9223372036854775808.0; // 2^63
    const double nanoseconds = seconds * nanosecondsPerSecond;
    return nanoseconds >= 0 && nanoseconds < limit ? static_cast<GstClockTime>(nanoseconds)
                                                   : GST_CLOCK_TIME_NONE;
}

void deleteSample(gpointer sample) {
    delete static_cast<UVASample*>(sample);
}

/// The encrypted runs of the sample as ranges. One that begins beyond 32 bits is outside any
/// sample, and stays so.
GArray* subsampleRanges(const std::vector<UVASample::Subsample>& subsamples) {
    constexpr guint room = 5;
    GArray* ranges = g_array_sized_new(FALSE, FALSE, sizeof(GstUvaSubsample), room);
    guint64 offset = 0;
    for (const auto& entry : subsamples) {
        offset += entry.clearBytes;
        if (entry.encryptedBytes == 0)
            continue;
        const GstUvaSubsample range = {static_cast<guint32>(std::min<guint64>(offset, G_MAXUINT32)),
                                       entry.encryptedBytes};
        g_array_append_val(ranges, range);
        offset += entry.encryptedBytes;
    }
    return ranges;
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

/// A stream configuration by value, to see whether the next sample's is the same.
struct GstNoxBackend::GstMseBin::ConfigKey {
    explicit ConfigKey(const UVAStreamConfig& config)
        : codec(config.codec), sampleRate(config.sampleRate), channels(config.channels),
          width(config.width), height(config.height) {
        if (config.codecData != nullptr)
            codecData.assign(config.codecData, config.codecData + config.codecDataSize);
        if (config.color != nullptr)
            color = *config.color;
        if (config.mastering != nullptr)
            mastering = *config.mastering;
    }

    bool matches(const UVAStreamConfig& c) const {
        return codec == c.codec && sampleRate == c.sampleRate && channels == c.channels &&
               width == c.width && height == c.height && sameCodecData(c) && sameColor(c.color) &&
               sameMastering(c.mastering);
    }

private:
    bool sameCodecData(const UVAStreamConfig& c) const {
        const std::size_t size = c.codecData != nullptr ? c.codecDataSize : 0;
        return codecData.size() == size &&
               (size == 0 || std::memcmp(codecData.data(), c.codecData, size) == 0);
    }
    bool sameColor(const UVAStreamConfig::ColorInfo* other) const {
        if (!color || other == nullptr)
            return !color && other == nullptr;
        return color->matrix == other->matrix && color->range == other->range &&
               color->transfer == other->transfer && color->primaries == other->primaries &&
               color->bitsPerChannel == other->bitsPerChannel;
    }
    bool sameMastering(const UVAStreamConfig::MasteringMetadata* other) const {
        if (!mastering || other == nullptr)
            return !mastering && other == nullptr;
        // Doubles alone: there is nothing between them.
        return std::memcmp(&*mastering, other, sizeof *other) == 0;
    }

    const int codec, sampleRate, channels, width, height;
    std::vector<guint8> codecData;
    std::optional<UVAStreamConfig::ColorInfo> color;
    std::optional<UVAStreamConfig::MasteringMetadata> mastering;
};

GstNoxBackend::GstMseBin::GstMseBin(GstNoxBackend* owner, SourceDescription* description)
    : backend(owner), source(description), m_id(static_cast<unsigned int>(source->sourceId)),
      queue(gst_queue_array_new(queueRoom)) {
    gst_queue_array_set_clear_func(
        queue, [](gpointer item) { gst_mini_object_unref(GST_MINI_OBJECT_CAST(item)); });
}

GstNoxBackend::GstMseBin::~GstMseBin() {
    gst_queue_array_free(queue);
}

// ---- the elements

bool GstNoxBackend::GstMseBin::Create() {
    const std::string_view mimeType = source->mimeType != nullptr ? source->mimeType : "";
    GST_INFO("mime-type=%s", mimeType.data());
    const char* factory = nullptr;
    if (beginsWith(mimeType, "audio")) {
        kind = "audio";
        factory = "halaudiosink";
    } else if (beginsWith(mimeType, "video")) {
        kind = "video";
        factory = "halvideosink";
    } else {
        GST_WARNING("unknown mime type: '%s'", mimeType.data());
        return false;
    }
    const auto named = [this](const char* text) {
        return GCharPtr(g_strdup_printf("%s_%u", text, m_id));
    };
    name = named(kind);
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
    GstAppSrcCallbacks callbacks{};
    callbacks.need_data = need_data_cb;
    callbacks.enough_data = enough_data_cb;
    callbacks.seek_data = seek_data_cb;
    gst_app_src_set_callbacks(GST_APP_SRC(appsrc.get()), &callbacks, backend, nullptr);
    return link(makeParser());
}

/// The best one for the MIME type; null when there is none.
GstPtr<GstElement> GstNoxBackend::GstMseBin::makeParser() {
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

bool GstNoxBackend::GstMseBin::link(GstPtr<GstElement> parser) {
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

void GstNoxBackend::GstMseBin::close() {
    const GLibLock hold(lock);
    removed = true;
    flush(0);
}

void GstNoxBackend::GstMseBin::Destroy() {
    close();
    if (!bin)
        return;
    const DecoderHandshake::Stop ending(backend->m_decoders, mediaKindOf(kind));
    gst_element_set_locked_state(bin.get(), TRUE); // the pipeline may be on its way up
    gst_element_set_state(bin.get(), GST_STATE_NULL);
    const auto parent = GstPtr<GstObject>::adopt(gst_object_get_parent(GST_OBJECT(bin.get())));
    if (parent)
        gst_bin_remove(GST_BIN(parent.get()), bin.get());
}

bool GstNoxBackend::GstMseBin::isActive() {
    GstState state = GST_STATE_VOID_PENDING;
    gst_element_get_state(bin.get(), &state, nullptr, 0);
    return state >= GST_STATE_PAUSED;
}

/// It neither comes back with the pipeline's next state nor holds up the end of playback.
void GstNoxBackend::GstMseBin::stop() {
    const DecoderHandshake::Stop ending(backend->m_decoders, mediaKindOf(kind));
    gst_element_set_locked_state(bin.get(), TRUE);
    gst_element_set_state(bin.get(), GST_STATE_READY);
    GST_OBJECT_FLAG_UNSET(bin.get(), GST_ELEMENT_FLAG_SINK);
}

// ---- samples on their way in

void GstNoxBackend::GstMseBin::write(UVASample** samples) {
    const GLibLock hold(lock);
    if (samples == nullptr || removed || m_intake == Intake::Closed)
        return;
    estimateFrameRate(samples);
    int count = 0;
    std::size_t bytes = 0;
    for (UVASample** slot = samples; *slot != nullptr; ++slot) {
        std::unique_ptr<UVASample> sample(std::exchange(*slot, nullptr));
        ++count;
        bytes += sample->payloadSize();
        auto caps = capsOf(sample->config());
        auto buffer = wrap(std::move(sample));
        if (!buffer)
            continue;
        if (caps)
            pushCaps(std::move(caps));
        pushBuffer(std::move(buffer));
    }
    GST_LOG("id=%d, got: samples=%d bytes=%d", static_cast<int>(m_id), count,
            static_cast<int>(bytes));
    pushToSource();
}

void GstNoxBackend::GstMseBin::writeEndOfStream() {
    const GLibLock hold(lock);
    if (removed || m_intake == Intake::Closed)
        return;
    pushEvent(GstPtr<GstEvent>::adopt(gst_event_new_eos()));
    pushToSource();
}

/// From the durations of the first video samples; 0/1 when they do not tell. Once a bin.
void GstNoxBackend::GstMseBin::estimateFrameRate(UVASample** samples) {
    const UVASample* first = *samples;
    if (fpsD != 0 || first == nullptr || first->config() == nullptr ||
        UVAStreamConfig::av(first->config()->codec) != UVAStreamConfig::VIDEO_STREAM)
        return;
    double total = 0;
    int count = 0;
    bool known = true;
    for (UVASample** slot = samples; *slot != nullptr; ++slot, ++count) {
        known = known && (*slot)->duration() >= 0;
        total += (*slot)->duration();
    }
    fpsN = 0;
    fpsD = 1;
    if (known && total != 0)
        gst_util_double_to_fraction(count / total, &fpsN, &fpsD);
}

/// Made anew only when the configuration differs from the sample's before.
GstPtr<GstCaps> GstNoxBackend::GstMseBin::capsOf(const UVAStreamConfig* config) {
    if (config == nullptr)
        return nullptr;
    if (m_config != nullptr && m_config->matches(*config))
        return m_configCaps;
    m_config = std::make_unique<ConfigKey>(*config);
    m_configCaps = GstPtr<GstCaps>::adopt(gst_caps_create_from_config(config));
    if (m_configCaps && config->codec == UVAStreamConfig::CODEC_VP9 && fpsD != 0) {
        GstStructure* structure = gst_caps_get_structure(m_configCaps.get(), 0);
        if (!gst_structure_has_field(structure, "framerate"))
            gst_structure_set(structure, "framerate", GST_TYPE_FRACTION, fpsN, fpsD, nullptr);
    }
    return m_configCaps;
}

/// The payload as a buffer, without a copy; the sample goes with it. A sample without payload only
/// sets the time: null.
GstPtr<GstBuffer> GstNoxBackend::GstMseBin::wrap(std::unique_ptr<UVASample> sample) {
    const gsize size = sample->payloadSize();
    const guint8* payload = sample->payload();
    if (payload == nullptr || size == 0) {
        takeTimes(nullptr, *sample);
        return nullptr;
    }
    UVASample* kept = sample.release();
    auto buffer = GstPtr<GstBuffer>::adopt(gst_buffer_new_wrapped_full(
        GST_MEMORY_FLAG_READONLY, const_cast<guint8*>(payload), size, 0, size, kept, deleteSample));
    takeTimes(buffer.get(), *kept);
    if (kept->keyId() != nullptr)
        protect(buffer.get(), *kept);
    return buffer;
}

void GstNoxBackend::GstMseBin::takeTimes(GstBuffer* buffer, const UVASample& sample) {
    const GstClockTime pts = toClockTime(sample.pts());
    const GstClockTime duration = toClockTime(sample.duration());
    const bool first = lastEnd == GST_CLOCK_TIME_NONE;
    if (buffer != nullptr) {
        GST_BUFFER_PTS(buffer) = pts;
        GST_BUFFER_DTS(buffer) = toClockTime(sample.dts());
        GST_BUFFER_DURATION(buffer) = duration;
        if (first)
            GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DISCONT);
    }
    if (pts == GST_CLOCK_TIME_NONE)
        return;
    if (first)
        beginSegment(pts);
    const GstClockTime end = pts + (duration != GST_CLOCK_TIME_NONE ? duration : 0);
    if (first || end > lastEnd)
        lastEnd = end;
}

/// All sources begin at the same time: that of whose sample comes first.
void GstNoxBackend::GstMseBin::beginSegment(GstClockTime pts) {
    unsigned long long start = pts;
    backend->checkNewSegment(&start);
    m_segmentStart = start;
    m_firstStart = pts;
}

void GstNoxBackend::GstMseBin::protect(GstBuffer* buffer, const UVASample& sample) {
    GST_LOG("encrypted data");
    const auto keySystem = backend->keySystem();
    if (keySystem == nullptr || keySystem->drm == nullptr) {
        GST_ERROR("***E: no DRM backend set");
        return;
    }
    gst_buffer_add_content_protection_meta(
        buffer, keySystem->id.get(), sample.keyId(), sample.keyIdSize(), sample.iv(),
        sample.ivSize(), subsampleRanges(sample.subsamples()), FALSE, keySystem->drm);
}

// ---- the queue

void GstNoxBackend::GstMseBin::pushItem(GstPtr<GstMiniObject> item) {
    gst_queue_array_push_tail(queue, item.release());
}

void GstNoxBackend::GstMseBin::pushCaps(GstPtr<GstCaps> caps) {
    if (caps.get() == currentCaps.get() ||
        (currentCaps && gst_caps_is_equal(caps.get(), currentCaps.get())))
        return;
    // No buffer follows these.
    while (GST_IS_CAPS(gst_queue_array_peek_tail(queue)))
        gst_caps_unref(GST_CAPS_CAST(gst_queue_array_pop_tail(queue)));
    currentCaps = caps;
    pushItem(GstPtr<GstMiniObject>::adopt(GST_MINI_OBJECT_CAST(caps.release())));
}

void GstNoxBackend::GstMseBin::pushBuffer(GstPtr<GstBuffer> buffer) {
    m_queuedBytes += gst_buffer_get_size(buffer.get());
    pushItem(GstPtr<GstMiniObject>::adopt(GST_MINI_OBJECT_CAST(buffer.release())));
}

void GstNoxBackend::GstMseBin::pushEvent(GstPtr<GstEvent> event) {
    GST_DEBUG("(%s): %p", name.get(), static_cast<void*>(event.get()));
    pushItem(GstPtr<GstMiniObject>::adopt(GST_MINI_OBJECT_CAST(event.release())));
}

void GstNoxBackend::GstMseBin::flush(int keepCaps) {
    GstPtr<GstCaps> kept;
    while (auto* item = static_cast<GstMiniObject*>(gst_queue_array_pop_head(queue))) {
        const auto owned = GstPtr<GstMiniObject>::adopt(item);
        if (GST_IS_CAPS(item))
            kept = GstPtr<GstCaps>::retain(GST_CAPS_CAST(item));
    }
    if (keepCaps != 0 && kept)
        pushItem(GstPtr<GstMiniObject>::adopt(GST_MINI_OBJECT_CAST(kept.release())));
    m_queuedBytes = 0;
    lastEnd = m_firstStart = m_segmentStart = GST_CLOCK_TIME_NONE;
    ++m_flushes;
}

bool GstNoxBackend::GstMseBin::pushToSource() {
    const auto queued = [this] { return gst_queue_array_get_length(queue); };
    GST_LOG("%s: queued %u, need_data:%d", name.get(), queued(), int{needData});
    if (m_feeding) // on another thread, which goes on with what has come
        return queued() == 0;
    m_feeding = true;
    const guint before = queued();
    guint pushed = 0;
    for (; queued() > 0 && needData && m_intake == Intake::Open; ++pushed)
        handOver(static_cast<GstMiniObject*>(gst_queue_array_pop_head(queue)));
    m_feeding = false;
    GST_LOG("%s: pushed %u/%u, remaining %u", name.get(), pushed, before, queued());
    return queued() == 0;
}

/// Takes the item.
void GstNoxBackend::GstMseBin::handOver(GstMiniObject* item) {
    auto* appSource = GST_APP_SRC(appsrc.get());
    if (GST_IS_BUFFER(item)) {
        handOverBuffer(GstPtr<GstBuffer>::adopt(GST_BUFFER_CAST(item)));
    } else if (GST_IS_CAPS(item)) {
        const auto caps = GstPtr<GstCaps>::adopt(GST_CAPS_CAST(item));
        gst_app_src_set_caps(appSource, caps.get());
        capsName = g_intern_string(gst_structure_get_name(gst_caps_get_structure(caps.get(), 0)));
    } else {
        const auto event = GstPtr<GstEvent>::adopt(GST_EVENT_CAST(item));
        GST_DEBUG("handle event (%s): %p", name.get(), static_cast<void*>(event.get()));
        if (GST_EVENT_TYPE(event.get()) == GST_EVENT_EOS)
            gst_app_src_end_of_stream(appSource);
    }
}

void GstNoxBackend::GstMseBin::handOverBuffer(GstPtr<GstBuffer> buffer) {
    m_queuedBytes -= gst_buffer_get_size(buffer.get());
    if (gst_buffer_get_content_protection_meta(buffer.get()) != nullptr) {
        const unsigned int flushes = m_flushes;
        const char* caps = capsName;
        lock.unlock();
        buffer = handleContentProtectionMeta(std::move(buffer), caps);
        lock.lock();
        if (flushes != m_flushes)
            return; // from before a seek
    }
    if (m_segmentStart != GST_CLOCK_TIME_NONE) {
        GstSegment segment;
        gst_segment_init(&segment, GST_FORMAT_TIME);
        segment.start = segment.time = segment.position = m_segmentStart;
        gst_base_src_new_segment(GST_BASE_SRC(appsrc.get()), &segment);
        m_segmentStart = GST_CLOCK_TIME_NONE;
    }
    if (gst_app_src_push_buffer(GST_APP_SRC(appsrc.get()), buffer.release()) != GST_FLOW_OK)
        GST_ERROR("***E: buffer not pushed");
}

GstPtr<GstBuffer> GstNoxBackend::GstMseBin::handleContentProtectionMeta(GstPtr<GstBuffer> buffer,
                                                                        const char* type) {
    const auto* meta = gst_buffer_get_content_protection_meta(buffer.get());
    if (meta == nullptr)
        return buffer;
    auto copy = GstPtr<GstBuffer>::adopt(gst_buffer_new());
    gst_buffer_copy_into(
        copy.get(), buffer.get(),
        static_cast<GstBufferCopyFlags>(GST_BUFFER_COPY_FLAGS | GST_BUFFER_COPY_TIMESTAMPS |
                                        GST_BUFFER_COPY_MEMORY | GST_BUFFER_COPY_DEEP),
        0, static_cast<gsize>(-1));
    GstMapInfo map;
    if (!gst_buffer_map(copy.get(), &map, GST_MAP_READWRITE)) {
        GST_ERROR("decryption failed");
        return buffer;
    }
    if (decrypter == nullptr || m_drm != meta->drm_backend)
        decrypter.reset(gst_uva_decrypter_context_new()); // a context stays with its DRM backend
    m_drm = meta->drm_backend;
    const auto seconds = [](GstClockTime time) {
        return time == GST_CLOCK_TIME_NONE ? -1.0
                                           : static_cast<double>(time) / nanosecondsPerSecond;
    };
    const auto keySystem = backend->keySystem();
    const bool decrypted =
        gst_uva_decrypter_context_update(decrypter.get(), meta,
                                         keySystem != nullptr ? keySystem->client : 0) &&
        gst_uva_decrypter_context_software_decrypt_debug(
            decrypter.get(), map.data, map.size, meta, seconds(GST_BUFFER_PTS(buffer.get())),
            seconds(GST_BUFFER_DTS(buffer.get())), seconds(GST_BUFFER_DURATION(buffer.get())));
    gst_buffer_unmap(copy.get(), &map);
    if (decrypted)
        return copy;
    GST_ERROR("decryption failed"); // what goes on is as unreadable as it came
    GST_DEBUG("%s of type %s", name.get(), type);
    return buffer;
}

// ---- from the appsrc

bool GstNoxBackend::GstMseBin::needsData() {
    const GLibLock hold(lock);
    if (removed)
        return false;
    m_wasAsked = true;
    needData = true;
    return m_intake == Intake::Open && pushToSource();
}

bool GstNoxBackend::GstMseBin::seek() {
    const GLibLock hold(lock);
    if (removed || !m_wasAsked)
        return false;
    // What is pushed before the appsrc has flushed its own queue would be lost; it asks again then.
    needData = false;
    if (m_intake != Intake::Open)
        return false;
    flush(1);
    return true;
}

void GstNoxBackend::GstMseBin::closeForSeek() {
    const GLibLock hold(lock);
    m_intake = Intake::Closed;
    flush(1);
}

void GstNoxBackend::GstMseBin::beginSeek() {
    const GLibLock hold(lock);
    m_intake = Intake::Waiting;
    flush(1);
}

bool GstNoxBackend::GstMseBin::endSeek() {
    const GLibLock hold(lock);
    m_intake = Intake::Open;
    return !removed && needData && pushToSource();
}

// ---- what others want to know

std::vector<UVABackend::TimeRange> GstNoxBackend::GstMseBin::bufferedRanges(guint64 position) {
    const GLibLock hold(lock);
    if (lastEnd == GST_CLOCK_TIME_NONE)
        return {};
    const GstClockTime start = position != GST_CLOCK_TIME_NONE && position > m_firstStart
                                   ? std::min<GstClockTime>(position, lastEnd)
                                   : m_firstStart;
    return {{static_cast<double>(start) / nanosecondsPerSecond,
             static_cast<double>(lastEnd) / nanosecondsPerSecond}};
}

std::string GstNoxBackend::GstMseBin::describe() {
    const GLibLock hold(lock);
    const GCharPtr end(g_strdup_printf("%" GST_TIME_FORMAT, GST_TIME_ARGS(lastEnd)));
    const GCharPtr line(g_strdup_printf(
        "%s: %s queued=%u bytes=%" G_GUINT64_FORMAT " needData=%d lastEnd=%s fps=%d/%d", name.get(),
        gst_element_state_get_name(GST_STATE(bin.get())), gst_queue_array_get_length(queue),
        m_queuedBytes, int{needData}, end.get(), fpsN, fpsD));
    return line.get();
}
