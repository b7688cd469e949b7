#ifndef SINK_PLAYER_H
#define SINK_PLAYER_H

#include "support/wait_until.h"

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

/// A pipeline with our sinks: answers their requests, and keeps what they say on the bus.
class SinkPlayer {
public:
    using Answer = std::function<int(const std::string& kind)>;

    /// Plays a file.
    static SinkPlayer file(const std::string& name) {
        GstElement* playbin = gst_element_factory_make("playbin", nullptr);
        g_object_set(playbin, "uri", ("file://" TEST_MEDIA_DIR "/" + name).c_str(), nullptr);
        return SinkPlayer(playbin);
    }
    /// Runs a pipeline in the notation of gst-launch.
    static SinkPlayer launch(const std::string& text) {
        GError* error = nullptr;
        GstElement* pipeline = gst_parse_launch(text.c_str(), &error);
        EXPECT_EQ(error, nullptr) << error->message;
        return SinkPlayer(pipeline);
    }
    ~SinkPlayer() {
        gst_element_set_state(m_pipeline, GST_STATE_NULL);
        gst_object_unref(m_bus);
        gst_object_unref(m_pipeline);
    }
    SinkPlayer(const SinkPlayer&) = delete;

    /// Set before the first state change.
    Answer answer = [](const std::string&) { return 1; };
    /// ... what holds a sink's data up; `count` is how much of it came before.
    std::function<void(std::size_t count)> hold = [](std::size_t) {};

    GstElement* pipeline() { return m_pipeline; }
    bool setState(GstState state) {
        return gst_element_set_state(m_pipeline, state) != GST_STATE_CHANGE_FAILURE;
    }
    bool reach(GstState state) {
        setState(state);
        return gst_element_get_state(m_pipeline, nullptr, nullptr, 20 * GST_SECOND) ==
               GST_STATE_CHANGE_SUCCESS;
    }
    /// "EOS", the text of an error, or "" when neither came in time.
    std::string finish() {
        m_end.clear();
        support::waitUntil([&] { return drain(), !m_end.empty(); }, std::chrono::seconds(60));
        return m_end;
    }
    bool playToEnd() { return setState(GST_STATE_PLAYING) && finish() == "EOS"; }
    bool seek(double seconds) {
        return gst_element_seek_simple(
            m_pipeline, GST_FORMAT_TIME,
            static_cast<GstSeekFlags>(GST_SEEK_FLAG_FLUSH | GST_SEEK_FLAG_ACCURATE),
            static_cast<gint64>(seconds * GST_SECOND));
    }
    double position() {
        gint64 position = -1;
        gst_element_query_position(m_pipeline, GST_FORMAT_TIME, &position);
        return static_cast<double>(position) / GST_SECOND;
    }

    /// Application messages as "source-factory: structure", in the order of the bus.
    std::vector<std::string> said(const std::string& name) {
        drain();
        std::vector<std::string> result;
        for (const auto& text : m_said)
            if (text.find(name) != std::string::npos)
                result.push_back(text);
        return result;
    }
    std::vector<std::string> requests() {
        const std::lock_guard lock(m_mutex);
        return m_requests;
    }
    /// The action of the application that has passed the newest request on.
    void forwardRequest() {
        GstElement* sink = nullptr;
        {
            const std::lock_guard lock(m_mutex);
            sink = m_askers.back();
        }
        g_signal_emit_by_name(sink, "decoder-request-forwarded");
    }
    /// How many of those that asked take no more data.
    std::ptrdiff_t askersGoingDown() {
        const std::lock_guard lock(m_mutex);
        return std::count_if(m_askers.begin(), m_askers.end(), [](GstElement* sink) {
            GstPad* pad = gst_element_get_static_pad(sink, "sink");
            GST_OBJECT_LOCK(pad);
            const bool flushing = GST_PAD_IS_FLUSHING(pad);
            GST_OBJECT_UNLOCK(pad);
            gst_object_unref(pad);
            return flushing;
        });
    }
    /// How often data came to a sink, or caps of a name.
    std::size_t count(const std::string& factory, const std::string& what = data) {
        const std::lock_guard lock(m_mutex);
        return static_cast<std::size_t>(
            std::count(m_arrived.begin(), m_arrived.end(), std::make_pair(factory, what)));
    }
    /// Names of the caps that came to a sink before any of its data.
    std::string arrived(const std::string& factory) {
        const std::lock_guard lock(m_mutex);
        for (const auto& [name, caps] : m_arrived)
            if (name == factory)
                return caps;
        return "";
    }
    bool sawMissingPlugin() { return m_missingPlugin; }

private:
    explicit SinkPlayer(GstElement* pipeline)
        : m_pipeline(GST_ELEMENT(gst_object_ref_sink(pipeline))),
          m_bus(gst_element_get_bus(pipeline)) {
        if (g_signal_lookup("element-setup", G_OBJECT_TYPE(pipeline)))
            g_signal_connect(pipeline, "element-setup", G_CALLBACK(onSetup), this);
        else
            adoptAll();
    }

    static std::string factoryOf(GstElement* element) {
        auto* factory = gst_element_get_factory(element);
        return factory ? GST_OBJECT_NAME(factory) : "";
    }
    static void onSetup(GstElement*, GstElement* element, gpointer player) {
        static_cast<SinkPlayer*>(player)->adopt(element);
    }
    void adoptAll() {
        auto* children = gst_bin_iterate_recurse(GST_BIN(m_pipeline));
        gst_iterator_foreach(
            children,
            [](const GValue* item, gpointer player) {
                static_cast<SinkPlayer*>(player)->adopt(GST_ELEMENT(g_value_get_object(item)));
            },
            this);
        gst_iterator_free(children);
    }
    void adopt(GstElement* element) {
        const auto factory = factoryOf(element);
        if (factory != "halvideosink" && factory != "halaudiosink")
            return;
        g_signal_connect(element, "decoder-request", G_CALLBACK(onRequest), this);
        auto* pad = gst_element_get_static_pad(element, "sink");
        gst_pad_add_probe(pad,
                          static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER |
                                                       GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM),
                          onData, this, nullptr);
        gst_object_unref(pad);
    }
    static gint onRequest(GstElement* sink, const gchar* kind, gpointer user) {
        auto& player = *static_cast<SinkPlayer*>(user);
        {
            const std::lock_guard lock(player.m_mutex);
            player.m_askers.push_back(sink);
            player.m_requests.emplace_back(kind);
        }
        return player.answer(kind);
    }
    static GstPadProbeReturn onData(GstPad* pad, GstPadProbeInfo* info, gpointer self) {
        auto& player = *static_cast<SinkPlayer*>(self);
        std::string what = data;
        if (GST_PAD_PROBE_INFO_TYPE(info) & GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM) {
            auto* event = GST_PAD_PROBE_INFO_EVENT(info);
            if (GST_EVENT_TYPE(event) != GST_EVENT_CAPS)
                return GST_PAD_PROBE_OK;
            GstCaps* caps = nullptr;
            gst_event_parse_caps(event, &caps);
            what = gst_structure_get_name(gst_caps_get_structure(caps, 0));
        }
        auto* element = gst_pad_get_parent_element(pad);
        const auto factory = factoryOf(element);
        gst_object_unref(element);
        if (what == data)
            player.hold(player.count(factory));
        const std::lock_guard lock(player.m_mutex);
        player.m_arrived.emplace_back(factory, what);
        return GST_PAD_PROBE_OK;
    }

    void drain() {
        while (auto* message = gst_bus_pop(m_bus)) {
            if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_APPLICATION) {
                gchar* text = gst_structure_to_string(gst_message_get_structure(message));
                m_said.push_back(factoryOf(GST_ELEMENT(GST_MESSAGE_SRC(message))) + ": " + text);
                g_free(text);
            }
            if (gst_message_has_name(message, "missing-plugin"))
                m_missingPlugin = true;
            noteEnd(message);
            gst_message_unref(message);
        }
    }
    void noteEnd(GstMessage* message) {
        if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS && m_end.empty())
            m_end = "EOS";
        if (GST_MESSAGE_TYPE(message) != GST_MESSAGE_ERROR || !m_end.empty())
            return;
        GError* error = nullptr;
        gst_message_parse_error(message, &error, nullptr);
        m_end = error->message;
        g_error_free(error);
    }

    inline static const std::string data = "data";

    GstElement* const m_pipeline;
    GstBus* const m_bus;
    std::vector<std::string> m_said;
    std::string m_end; // see finish()
    bool m_missingPlugin = false;
    std::mutex m_mutex; // guards what follows
    std::vector<std::string> m_requests;
    std::vector<GstElement*> m_askers; // in the order of their requests
    std::vector<std::pair<std::string, std::string>> m_arrived;
};

/// Lets a handler wait until the test says what it answers.
class Held {
public:
    int wait() {
        ++m_inside;
        const int answer = m_answer.get();
        --m_inside;
        return answer;
    }
    void release(int answer) { m_released.set_value(answer); }
    int inside() const { return m_inside; }

private:
    std::promise<int> m_released;
    const std::shared_future<int> m_answer = m_released.get_future().share();
    std::atomic<int> m_inside{0};
};

#endif
