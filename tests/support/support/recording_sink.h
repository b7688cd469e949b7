#ifndef SUPPORT_RECORDING_SINK_H
#define SUPPORT_RECORDING_SINK_H

#include <gst/base/gstbasesink.h>
#include <gst/gst.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace support {

/// What a sink was handed, by the sink's name.
struct Received {
    struct Buffer {
        const void* data;
        std::vector<guint8> bytes;
        GstClockTime pts, dts, duration;
        bool discont;
        GstClockTime segmentStart;
    };
    std::vector<Buffer> buffers;
    std::vector<std::string> caps;
    bool ended = false;
    int segments = 0;
    std::size_t count = 0; ///< buffers, also when they are not kept
};

/// Takes the place of the simulated sinks in this process: "halvideosink" and "halaudiosink" that
/// take anything at once and keep what comes.
class RecordingSinks {
public:
    static void install() {
        for (const char* name : {"halvideosink", "halaudiosink"})
            gst_element_register(nullptr, name, GST_RANK_NONE, type());
    }
    static Received of(const std::string& sink) {
        const std::lock_guard lock(state().mutex);
        return state().received[sink];
    }
    static std::size_t count(const std::string& sink) {
        const std::lock_guard lock(state().mutex);
        return state().received[sink].count;
    }
    static bool ended(const std::string& sink) {
        const std::lock_guard lock(state().mutex);
        return state().received[sink].ended;
    }
    static void clear(bool keepBuffers = true) {
        const std::lock_guard lock(state().mutex);
        state().received.clear();
        state().keep = keepBuffers;
    }

private:
    struct State {
        std::mutex mutex; // guards all below
        std::map<std::string, Received> received;
        bool keep = true;
    };
    static State& state() {
        static State& s = *new State;
        return s;
    }

    static GstFlowReturn render(GstBaseSink* sink, GstBuffer* buffer) {
        GstMapInfo map;
        gst_buffer_map(buffer, &map, GST_MAP_READ);
        {
            const std::lock_guard lock(state().mutex);
            auto& received = state().received[GST_OBJECT_NAME(sink)];
            ++received.count;
            if (state().keep)
                received.buffers.push_back({map.data,
                                            {map.data, map.data + map.size},
                                            GST_BUFFER_PTS(buffer),
                                            GST_BUFFER_DTS(buffer),
                                            GST_BUFFER_DURATION(buffer),
                                            GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DISCONT),
                                            sink->segment.start});
        }
        gst_buffer_unmap(buffer, &map);
        return GST_FLOW_OK;
    }
    static gboolean setCaps(GstBaseSink* sink, GstCaps* caps) {
        gchar* text = gst_caps_to_string(caps);
        {
            const std::lock_guard lock(state().mutex);
            state().received[GST_OBJECT_NAME(sink)].caps.emplace_back(text);
        }
        g_free(text);
        return TRUE;
    }
    static gboolean event(GstBaseSink* sink, GstEvent* event) {
        {
            const std::lock_guard lock(state().mutex);
            auto& received = state().received[GST_OBJECT_NAME(sink)];
            received.ended |= GST_EVENT_TYPE(event) == GST_EVENT_EOS;
            received.segments += GST_EVENT_TYPE(event) == GST_EVENT_SEGMENT ? 1 : 0;
        }
        return GST_BASE_SINK_CLASS(g_type_class_peek_parent(GST_BASE_SINK_GET_CLASS(sink)))
            ->event(sink, event);
    }
    static void initClass(gpointer klass, gpointer) {
        static GstStaticPadTemplate any =
            GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS_ANY);
        gst_element_class_add_static_pad_template(GST_ELEMENT_CLASS(klass), &any);
        gst_element_class_set_static_metadata(GST_ELEMENT_CLASS(klass), "Recording sink", "Sink",
                                              "Keeps what it is handed", "Tests");
        auto* base = GST_BASE_SINK_CLASS(klass);
        base->render = render;
        base->set_caps = setCaps;
        base->event = event;
        g_signal_new("decoder-request", G_TYPE_FROM_CLASS(klass), G_SIGNAL_RUN_LAST, 0, nullptr,
                     nullptr, nullptr, G_TYPE_INT, 1, G_TYPE_STRING);
    }
    static void init(GTypeInstance* instance, gpointer) {
        gst_base_sink_set_sync(GST_BASE_SINK(instance), FALSE);
    }
    static GType type() {
        static const GType registered = [] {
            GTypeInfo info{};
            info.class_size = sizeof(GstBaseSinkClass);
            info.instance_size = sizeof(GstBaseSink);
            info.class_init = initClass;
            info.instance_init = init;
            return g_type_register_static(GST_TYPE_BASE_SINK, "SupportRecordingSink", &info,
                                          GTypeFlags{});
        }();
        return registered;
    }
};

} // namespace support

#endif
