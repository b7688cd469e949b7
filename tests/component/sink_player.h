#ifndef SINK_PLAYER_H
#define SINK_PLAYER_H

#include "support/wait_until.h"

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <functional>
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
        std::string end;
        support::waitUntil(
            [&] {
                drain([&](GstMessage* message) { noteEnd(message, end); });
                return !end.empty();
            },
            std::chrono::seconds(60));
        return end;
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
        drain([](GstMessage*) {});
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
            sink = m_asking;
        }
        g_signal_emit_by_name(sink, "decoder-request-forwarded");
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
            player.m_asking = sink;
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

    template <typename Note>
    void drain(Note note) {
        while (auto* message = gst_bus_pop(m_bus)) {
            if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_APPLICATION) {
                gchar* text = gst_structure_to_string(gst_message_get_structure(message));
                m_said.push_back(factoryOf(GST_ELEMENT(GST_MESSAGE_SRC(message))) + ": " + text);
                g_free(text);
            }
            if (gst_message_has_name(message, "missing-plugin"))
                m_missingPlugin = true;
            note(message);
            gst_message_unref(message);
        }
    }
    static void noteEnd(GstMessage* message, std::string& end) {
        if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS && end.empty())
            end = "EOS";
        if (GST_MESSAGE_TYPE(message) != GST_MESSAGE_ERROR || !end.empty())
            return;
        GError* error = nullptr;
        gst_message_parse_error(message, &error, nullptr);
        end = error->message;
        g_error_free(error);
    }

    inline static const std::string data = "data";

    GstElement* const m_pipeline;
    GstBus* const m_bus;
    std::vector<std::string> m_said;
    bool m_missingPlugin = false;
    std::mutex m_mutex; // guards what follows
    std::vector<std::string> m_requests;
    GstElement* m_asking = nullptr; // whose request came last
    std::vector<std::pair<std::string, std::string>> m_arrived;
};

/// Lets a handler wait until the test says what it answers.
class Held {
public:
    int wait() {
        std::unique_lock lock(m_mutex);
        ++m_inside;
        m_changed.wait(lock, [this] { return m_open; });
        --m_inside;
        return m_answer;
    }
    void release(int answer) {
        {
            const std::lock_guard lock(m_mutex);
            m_open = true;
            m_answer = answer;
        }
        m_changed.notify_all();
    }
    int inside() {
        const std::lock_guard lock(m_mutex);
        return m_inside;
    }

private:
    std::mutex m_mutex; // guards all
    std::condition_variable m_changed;
    bool m_open = false;
    int m_answer = 0;
    int m_inside = 0;
};

#endif
