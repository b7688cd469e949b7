// A sound device for tests: a plug-in whose sink writes what it plays to the file that SOUND_LOG names, if
// it does: a line a buffer, stream time and duration in seconds, and the loudest sample, of 1.

#include <gst/audio/audio.h>
#include <gst/base/gstbasesink.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace {

constexpr double nanosecond = 1e-9;

struct Recorder {
    GstBaseSink parent;
    GstAudioInfo format;
    std::FILE* log;
};

struct RecorderClass {
    GstBaseSinkClass parent;
};

GstStaticPadTemplate sinkTemplate =
    GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS,
                            GST_STATIC_CAPS("audio/x-raw, format=F32LE, layout=interleaved"));

Recorder* recorder(GstBaseSink* sink) {
    return reinterpret_cast<Recorder*>(sink);
}

gboolean start(GstBaseSink* sink) {
    const char* path = std::getenv("SOUND_LOG");
    recorder(sink)->log = path == nullptr ? nullptr : std::fopen(path, "a");
    return path == nullptr || recorder(sink)->log != nullptr;
}

gboolean stop(GstBaseSink* sink) {
    if (recorder(sink)->log != nullptr)
        std::fclose(recorder(sink)->log);
    return TRUE;
}

gboolean setCaps(GstBaseSink* sink, GstCaps* caps) {
    return gst_audio_info_from_caps(&recorder(sink)->format, caps);
}

float loudest(GstBuffer* buffer) {
    GstMapInfo map;
    if (gst_buffer_map(buffer, &map, GST_MAP_READ) == FALSE)
        return 0;
    const auto* samples = reinterpret_cast<const float*>(map.data);
    float peak = 0;
    std::for_each(samples, samples + map.size / sizeof *samples,
                  [&peak](float sample) { peak = std::max(peak, std::abs(sample)); });
    gst_buffer_unmap(buffer, &map);
    return peak;
}

GstFlowReturn render(GstBaseSink* sink, GstBuffer* buffer) {
    if (recorder(sink)->log == nullptr)
        return GST_FLOW_OK;
    const auto& segment = sink->segment;
    const auto time =
        gst_segment_to_stream_time(&segment, GST_FORMAT_TIME, GST_BUFFER_PTS(buffer));
    const auto frames = gst_buffer_get_size(buffer) /
                        static_cast<gsize>(GST_AUDIO_INFO_BPF(&recorder(sink)->format));
    std::fprintf(recorder(sink)->log, "%.6f %.6f %.3f\n", static_cast<double>(time) * nanosecond,
                 static_cast<double>(frames) / GST_AUDIO_INFO_RATE(&recorder(sink)->format),
                 static_cast<double>(loudest(buffer)));
    std::fflush(recorder(sink)->log);
    return GST_FLOW_OK;
}

} // namespace

GType recorder_get_type();
G_DEFINE_TYPE(Recorder, recorder, GST_TYPE_BASE_SINK)

static void recorder_class_init(RecorderClass* klass) {
    auto* base = GST_BASE_SINK_CLASS(klass);
    base->start = start;
    base->stop = stop;
    base->set_caps = setCaps;
    base->render = render;
    auto* element = GST_ELEMENT_CLASS(klass);
    gst_element_class_add_static_pad_template(element, &sinkTemplate);
    gst_element_class_set_static_metadata(element, "Sound recorder", "Sink/Audio",
                                          "Writes what it plays to a log", "uva-gst-backend");
}

static void recorder_init(Recorder* sink) {
    gst_base_sink_set_sync(&sink->parent, TRUE);
}

static gboolean initPlugin(GstPlugin* plugin) {
    return gst_element_register(plugin, "soundrecorder", GST_RANK_PRIMARY + 100, recorder_get_type());
}

#define PACKAGE "soundrecorder"
GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, soundrecorder, "Records sound for tests",
                  initPlugin, "1", "LGPL", PACKAGE, "uva-gst-backend")
