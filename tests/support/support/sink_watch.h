#ifndef SUPPORT_SINK_WATCH_H
#define SUPPORT_SINK_WATCH_H

#define GST_USE_UNSTABLE_API // tracers

#include <gst/audio/audio.h>
#include <gst/base/gstbasesink.h>
#include <gst/gst.h>
#include <gst/gsttracer.h>
#include <gst/video/video.h>

#include <cmath>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace support {

/// A decoded buffer that was shown or heard.
struct Rendered {
    double position = 0;      ///< where in the media it begins, seconds
    double duration = 0;      ///< seconds
    unsigned int flushes = 0; ///< that its sink had seen before
    std::string digest;       ///< MD5 of a frame's pixels, row padding left out
};

/// What one of the simulated sinks rendered since the last restart of the watch.
struct RenderedStream {
    std::vector<Rendered> buffers;
    std::vector<float> sound; ///< audio: the first channel, -1 to 1
    int rate = 0;             ///< audio: samples a second
};

/// Watches the silent outputs inside all simulated sinks that this process makes, wherever their
/// plug-in comes from. Thread-safe.
class SinkWatch {
public:
    struct Options {
        bool clocked = true;   ///< false: rendered as fast as it is decoded
        bool contents = false; ///< keeps digests and sound
        bool drops = true;     ///< false: shows what is late too, however busy the machine is
    };

    /// After gst_init() and before the first sink is made.
    static SinkWatch& instance() {
        static SinkWatch& watch = *new SinkWatch; // sinks may outlive static objects
        return watch;
    }

    /// Forgets everything; the options count for sinks whose first buffer is still to come.
    void restart(Options options) {
        const std::lock_guard lock(m_mutex);
        m_options = options;
        m_video = m_audio = {};
        m_flushes.clear();
    }

    RenderedStream video() const {
        const std::lock_guard lock(m_mutex);
        return m_video;
    }
    RenderedStream audio() const {
        const std::lock_guard lock(m_mutex);
        return m_audio;
    }

private:
    SinkWatch() {
        GTypeInfo info{};
        info.class_size = sizeof(GstTracerClass);
        info.instance_size = sizeof(GstTracer);
        const GType type =
            g_type_register_static(GST_TYPE_TRACER, "SupportSinkWatch", &info, GTypeFlags{});
        auto* tracer = GST_TRACER(gst_object_ref_sink(g_object_new(type, nullptr)));
        gst_tracing_register_hook(tracer, "element-new", G_CALLBACK(onNew));
    }

    static void onNew(GObject*, GstClockTime, GstElement* element) {
        if (std::string_view(GST_OBJECT_NAME(element)) != "silent" || !GST_IS_BASE_SINK(element))
            return;
        g_object_set(element, "signal-handoffs", TRUE, nullptr);
        g_signal_connect(element, "preroll-handoff", G_CALLBACK(onPreroll), nullptr);
        g_signal_connect(element, "handoff", G_CALLBACK(onRender), nullptr);
        gst_pad_add_probe(GST_BASE_SINK_PAD(element), GST_PAD_PROBE_TYPE_EVENT_FLUSH, onFlush,
                          nullptr, nullptr);
    }

    static GstPadProbeReturn onFlush(GstPad* pad, GstPadProbeInfo* info, gpointer) {
        auto& self = instance();
        if (GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) != GST_EVENT_FLUSH_STOP)
            return GST_PAD_PROBE_OK;
        const std::lock_guard lock(self.m_mutex);
        ++self.m_flushes[pad];
        return GST_PAD_PROBE_OK;
    }

    static void onPreroll(GstElement* sink, GstBuffer*, GstPad*, gpointer) {
        auto& self = instance();
        std::unique_lock lock(self.m_mutex);
        const auto options = self.m_options;
        lock.unlock();
        gst_base_sink_set_sync(GST_BASE_SINK(sink), options.clocked ? TRUE : FALSE);
        gst_base_sink_set_qos_enabled(GST_BASE_SINK(sink), options.drops ? TRUE : FALSE);
    }

    static void onRender(GstElement* sink, GstBuffer* buffer, GstPad* pad, gpointer) {
        auto& self = instance();
        Rendered rendered;
        const auto begin = gst_segment_to_stream_time(&GST_BASE_SINK(sink)->segment,
                                                      GST_FORMAT_TIME, GST_BUFFER_PTS(buffer));
        rendered.position = GST_CLOCK_TIME_IS_VALID(begin) ? static_cast<double>(begin) / 1e9 : NAN;
        if (GST_BUFFER_DURATION_IS_VALID(buffer))
            rendered.duration = static_cast<double>(GST_BUFFER_DURATION(buffer)) / 1e9;
        GstCaps* caps = gst_pad_get_current_caps(pad);
        const bool isVideo = gst_structure_has_name(gst_caps_get_structure(caps, 0), "video/x-raw");

        std::unique_lock lock(self.m_mutex);
        rendered.flushes = self.m_flushes[pad];
        auto& stream = isVideo ? self.m_video : self.m_audio;
        if (self.m_options.contents && isVideo)
            rendered.digest = digestOf(buffer, caps);
        else if (self.m_options.contents)
            addSound(buffer, caps, stream);
        stream.buffers.push_back(std::move(rendered));
        lock.unlock();
        gst_caps_unref(caps);
    }

    static std::string digestOf(GstBuffer* buffer, GstCaps* caps) {
        GstVideoInfo info;
        GstVideoFrame frame;
        if (gst_video_info_from_caps(&info, caps) == FALSE ||
            gst_video_frame_map(&frame, &info, buffer, GST_MAP_READ) == FALSE)
            return {};
        GChecksum* sum = g_checksum_new(G_CHECKSUM_MD5);
        for (guint c = 0; c < GST_VIDEO_FRAME_N_COMPONENTS(&frame); ++c) {
            const auto* row = static_cast<const guint8*>(GST_VIDEO_FRAME_COMP_DATA(&frame, c));
            const int width =
                GST_VIDEO_FRAME_COMP_WIDTH(&frame, c) * GST_VIDEO_FRAME_COMP_PSTRIDE(&frame, c);
            for (int y = 0; y < GST_VIDEO_FRAME_COMP_HEIGHT(&frame, c); ++y) {
                g_checksum_update(sum, row, width);
                row += GST_VIDEO_FRAME_COMP_STRIDE(&frame, c);
            }
        }
        std::string text = g_checksum_get_string(sum);
        g_checksum_free(sum);
        gst_video_frame_unmap(&frame);
        return text;
    }

    static void addSound(GstBuffer* buffer, GstCaps* caps, RenderedStream& stream) {
        GstAudioInfo info;
        GstAudioBuffer audio;
        if (gst_audio_info_from_caps(&info, caps) == FALSE ||
            gst_audio_buffer_map(&audio, &info, buffer, GST_MAP_READ) == FALSE)
            return;
        stream.rate = GST_AUDIO_INFO_RATE(&info);
        const std::size_t step = info.layout == GST_AUDIO_LAYOUT_INTERLEAVED
                                     ? static_cast<std::size_t>(info.channels)
                                     : 1;
        const std::size_t count = audio.n_samples * step;
        const auto unpack = [&](auto zero, double scale) {
            std::vector<decltype(zero)> samples(count, zero);
            info.finfo->unpack_func(info.finfo, GST_AUDIO_PACK_FLAG_NONE, samples.data(),
                                    audio.planes[0], static_cast<gint>(count));
            for (std::size_t i = 0; i < count; i += step)
                stream.sound.push_back(static_cast<float>(samples[i] * scale));
        };
        if (info.finfo->unpack_format == GST_AUDIO_FORMAT_F64)
            unpack(gdouble{0}, 1.0);
        else
            unpack(gint32{0}, 1.0 / 2147483648.0);
        gst_audio_buffer_unmap(&audio);
    }

    mutable std::mutex m_mutex; // guards all below; a leaf
    Options m_options;
    RenderedStream m_video;
    RenderedStream m_audio;
    std::map<GstPad*, unsigned int> m_flushes;
};

} // namespace support

#endif
