// What the backend takes from the elements of a pipeline, and sets at them, as they come and go.

#include "base/gst_ptr.h"
#include "one_backend.h"

#include <glib/gstdio.h>

#include <atomic>
#include <future>
#include <string_view>
#include <unistd.h>

namespace {

using Element = GstPtr<GstElement>;

class PipelineTest : public OneBackend {
protected:
    static Element make(const char* factory) {
        auto element = Element::sink(gst_element_factory_make(factory, nullptr));
        EXPECT_TRUE(element) << factory;
        return element;
    }
    /// A pad of the name that has been told to the callback, and carries the caps since.
    template <typename Callback>
    static GstPtr<GstPad> padWith(const char* name, const char* caps, Callback added,
                                  GstNoxBackend& backend) {
        const auto pad = GstPtr<GstPad>::sink(gst_pad_new(name, GST_PAD_SRC));
        gst_pad_set_active(pad.get(), TRUE);
        added(nullptr, pad.get(), &backend.pipeline());
        gst_pad_push_event(pad.get(), gst_event_new_stream_start("test"));
        const auto parsed = GstPtr<GstCaps>::adopt(gst_caps_from_string(caps));
        gst_pad_push_event(pad.get(), gst_event_new_caps(parsed.get()));
        return pad;
    }
};

TEST_F(PipelineTest, ADemuxersVideoPadTellsSizeAndRatio) {
    using Shape = std::tuple<int, int, double>; // the pixels' last
    const Shape wide = {720, 576, 16.0 / 15};
    const struct {
        const char *pad, *caps;
        Shape shape;
        bool told; ///< that nothing is known of the duration is news too
    } rows[] = {
        {"audio_0", "audio/mpeg, width=1, height=2", {-1, -1, 1}, false},
        {"video_0", "video/x-h264, width=720, height=576, pixel-aspect-ratio=16/15", wide, true},
        {"video_1", "video/x-h264, width=640, pixel-aspect-ratio=4/3", wide, false},
        {"video_2", "video/x-h264, width=640, height=360", {640, 360, 16.0 / 15}, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.caps);
        client.clear();
        padWith(row.pad, row.caps, GstNoxPipeline::demux_pad_added_cb, backend);
        backend.checkMetaDataChanged();
        EXPECT_EQ(client.count(UVAEvent::NewMetadata), row.told ? 1 : 0);
        Shape shape;
        auto& [width, height, ratio] = shape;
        backend.getNativeSize(width, height, ratio);
        EXPECT_EQ(shape, row.shape);
    }
    EXPECT_TRUE(backend.isDurationUnknown());
}

// The kinds are crosswise, and what is known of the media is told with the sound.
TEST_F(PipelineTest, DecodedPadsAreComponentsWhileTheyAreThere) {
    backend.setMetaData(720, 576);
    const auto added = [this] {
        const auto* event = client.last<MultiComponentChangedEvent>();
        return event != nullptr && !event->added.empty() ? event->added[0]->type : -1;
    };
    constexpr auto decoded = GstNoxPipeline::decodebin_pad_added_cb;
    const auto video = padWith("src_0", "video/x-raw", decoded, backend);
    EXPECT_EQ(added(), 1);
    EXPECT_EQ(client.count(UVAEvent::NewMetadata), 0);
    const auto audio = padWith("src_1", "audio/x-raw", decoded, backend);
    EXPECT_EQ(added(), 0);
    EXPECT_EQ(client.count(UVAEvent::NewMetadata), 1);
    const auto other = GstPtr<GstCaps>::adopt(gst_caps_from_string("audio/x-raw, rate=1"));
    gst_pad_push_event(audio.get(), gst_event_new_caps(other.get()));
    EXPECT_EQ(client.count(UVAEvent::MultiComponentChanged), 2) << "known already";

    const auto sink = GstPtr<GstPad>::sink(gst_pad_new("src_1", GST_PAD_SINK));
    GstNoxPipeline::decodebin_pad_removed_cb(nullptr, sink.get(), &backend.pipeline());
    EXPECT_TRUE(backend.hasComponent("src_1"));
    GstNoxPipeline::decodebin_pad_removed_cb(nullptr, audio.get(), &backend.pipeline());
    EXPECT_FALSE(backend.hasComponent("src_1"));
    EXPECT_TRUE(backend.hasComponent("src_0"));
}

TEST_F(PipelineTest, HttpSourcesAreSetUp) {
    auto* description = new TestSource("http://127.0.0.1:9/");
    UVABackend::SourceDescription* sources[] = {description, nullptr};
    ASSERT_EQ(backend.initBackend("", sources, false), UVABackend::Success);
    const auto http = make("souphttpsrc");
    const auto file = make("filesrc");
    LogCapture log(gst_backend_debug);
    GstNoxPipeline::source_setup_cb(nullptr, file.get(), &backend.pipeline());
    GstNoxPipeline::source_setup_cb(nullptr, http.get(), &backend.pipeline());
    GstNoxPipeline::element_setup_cb(nullptr, http.get(), &backend.pipeline());
    gchar* agent = nullptr;
    gboolean strict = TRUE;
    g_object_get(http.get(), "user-agent", &agent, "ssl-strict", &strict, nullptr);
    EXPECT_STREQ(GCharPtr(agent).get(), "test-agent/1.0");
    EXPECT_FALSE(strict);
    EXPECT_TRUE(log.has("DEBUG source element has been created: set user-agent: test-agent/1.0"));
}

G_GNUC_BEGIN_IGNORE_DEPRECATIONS

// In a transport stream the time filter goes first; a dual-layer stream takes its splitter alone.
TEST_F(PipelineTest, FactoriesAreSortedForTheStream) {
    const auto sorted = [this](const char* caps) {
        GValueArray* factories = g_value_array_new(3);
        for (const char* name : {"identity", "noxvptsfilter", "queue"}) {
            g_value_array_append(factories, nullptr);
            GValue* value = g_value_array_get_nth(factories, factories->n_values - 1);
            g_value_init(value, GST_TYPE_ELEMENT_FACTORY);
            g_value_take_object(value, gst_element_factory_find(name));
        }
        const auto parsed = GstPtr<GstCaps>::adopt(gst_caps_from_string(caps));
        GValueArray* other = GstNoxPipeline::autoplug_sort_cb(nullptr, nullptr, parsed.get(),
                                                              factories, &backend.pipeline());
        std::string names = other != nullptr ? "new:" : "";
        const GValueArray* list = other != nullptr ? other : factories;
        for (guint i = 0; i < list->n_values; ++i) {
            gpointer factory = g_value_get_object(list->values + i);
            names += " " + std::string(factory != nullptr ? GST_OBJECT_NAME(factory) : "null");
        }
        g_value_array_free(factories);
        if (other != nullptr)
            g_value_array_free(other);
        return names;
    };
    const std::string asGiven = " identity noxvptsfilter queue";
    EXPECT_EQ(sorted("video/x-h265"), asGiven);
    EXPECT_EQ(sorted("video/x-h265, variant=other"), asGiven);
    EXPECT_EQ(sorted("video/x-h265, variant=dolbyvision"), "new: edrvessplitter");
    GstNoxPipeline::element_setup_cb(nullptr, make("tsdemux").get(), &backend.pipeline());
    EXPECT_EQ(sorted("video/x-h265"), " noxvptsfilter identity queue");
    ASSERT_EQ(backend.gstPlaybinCreate(), 0);
    EXPECT_EQ(sorted("video/x-h265"), asGiven) << "the next player's stream";
}

G_GNUC_END_IGNORE_DEPRECATIONS

GstPtr<GstElement> madeBy(const char* factory, GstBin* bin) {
    GstIterator* const found = gst_bin_iterate_all_by_element_factory_name(bin, factory);
    GValue item = G_VALUE_INIT;
    const bool is = gst_iterator_next(found, &item) == GST_ITERATOR_OK;
    gst_iterator_free(found);
    auto element = GstPtr<GstElement>::retain(
        is ? static_cast<GstElement*>(g_value_get_object(&item)) : nullptr);
    if (is)
        g_value_unset(&item);
    return element;
}

/// A stream through a playbin's synchronizer, pushed by the caller's thread.
class SynchronizedStream {
public:
    explicit SynchronizedStream(GstElement* synchronizer)
        : m_in(GstPtr<GstPad>::adopt(gst_element_request_pad_simple(synchronizer, "sink_%u"))),
          m_source(GstPtr<GstPad>::sink(gst_pad_new("source", GST_PAD_SRC))) {
        gst_pad_set_active(m_source.get(), TRUE);
        EXPECT_EQ(gst_pad_link(m_source.get(), m_in.get()), GST_PAD_LINK_OK);
    }
    void push(GstEvent* event) { gst_pad_push_event(m_source.get(), event); }
    void begin(guint group) {
        GstEvent* const start = gst_event_new_stream_start("test");
        gst_event_set_group_id(start, group);
        push(start);
    }
    void flush() {
        push(gst_event_new_flush_start());
        push(gst_event_new_flush_stop(TRUE));
    }
    /// Returns once the synchronizer lets it through.
    void segment() {
        GstSegment segment;
        gst_segment_init(&segment, GST_FORMAT_TIME);
        push(gst_event_new_segment(&segment));
    }
    std::future<void> segmentElsewhere() {
        return std::async(std::launch::async, [this] { segment(); });
    }

private:
    GstPtr<GstPad> m_in;
    GstPtr<GstPad> m_source;
};

TEST_F(PipelineTest, AStreamThatBeginsAfterASeekDoesNotWaitForThoseThatWereFlushed) {
    ASSERT_TRUE(backend.pipeline().createPlaybin());
    const auto synchronizer =
        madeBy("streamsynchronizer", GST_BIN(backend.pipeline().element().get()));
    ASSERT_TRUE(synchronizer);
    gst_element_set_state(synchronizer.get(), GST_STATE_PLAYING);
    SynchronizedStream sound(synchronizer.get());
    SynchronizedStream picture(synchronizer.get());
    using namespace std::chrono_literals;
    for (guint group = 1; group < 3; ++group) {
        SCOPED_TRACE(group);
        // Else each waits for the other, in the next group too.
        sound.begin(group);
        auto held = sound.segmentElsewhere();
        EXPECT_EQ(held.wait_for(100ms), std::future_status::timeout);
        picture.begin(group);
        EXPECT_EQ(held.wait_for(20s), std::future_status::ready);
        picture.segment();

        sound.begin(group + 10);
        sound.flush();
        picture.begin(group + 10);
        auto passed = picture.segmentElsewhere();
        const bool isThrough = passed.wait_for(20s) == std::future_status::ready;
        EXPECT_TRUE(isThrough);
        if (!isThrough)
            picture.flush(); // ends its wait
        sound.segment();
    }
    gst_element_set_state(synchronizer.get(), GST_STATE_NULL);
}

/// A tenth of a second of silence in a file.
class AiffFile {
public:
    AiffFile() {
        constexpr std::size_t silence = 1600;
        static constexpr unsigned char header[] = {
            'F',  'O',  'R',  'M', 0, 0, 0x06, 0x6e, 'A', 'I', 'F', 'F',                 //
            'C',  'O',  'M',  'M', 0, 0, 0,    18,   0,   1,   0,   0,   3, 0x20, 0, 16, // 16 bits
            0x40, 0x0b, 0xfa, 0,   0, 0, 0,    0,    0,   0,                             // 8000 Hz
            'S',  'S',  'N',  'D', 0, 0, 0x06, 0x48, 0,   0,   0,   0,   0, 0,    0, 0};
        const int file = g_file_open_tmp("silence-XXXXXX.aiff", &m_name, nullptr);
        std::string bytes(reinterpret_cast<const char*>(header), sizeof(header));
        bytes.resize(bytes.size() + silence);
        EXPECT_EQ(write(file, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        close(file);
    }
    ~AiffFile() {
        g_remove(m_name);
        g_free(m_name);
    }
    AiffFile(const AiffFile&) = delete;
    AiffFile& operator=(const AiffFile&) = delete;
    std::string url() const { return std::string("file://") + m_name; }

private:
    gchar* m_name = nullptr;
};

/// While it is there, decodebin is slow to look at the pad of an aiffparse.
class SlowDecodebin {
public:
    SlowDecodebin() {
        gst_debug_add_log_function(delay, this, nullptr);
        gst_debug_set_threshold_for_name("decodebin", GST_LEVEL_DEBUG);
    }
    ~SlowDecodebin() {
        gst_debug_unset_threshold_for_name("decodebin");
        gst_debug_remove_log_function_by_data(this);
    }
    SlowDecodebin(const SlowDecodebin&) = delete;
    SlowDecodebin& operator=(const SlowDecodebin&) = delete;
    bool wasSlow() const { return m_wasSlow; }

private:
    static void delay(GstDebugCategory* /*category*/, GstDebugLevel /*level*/,
                      const gchar* /*file*/, const gchar* function, gint /*line*/, GObject* object,
                      GstDebugMessage* /*message*/, gpointer self) {
        if (std::string_view(function) != "expose_pad" || !GST_IS_BIN(object))
            return;
        const auto demuxer = madeBy("aiffparse", GST_BIN(object));
        const auto pad = GstPtr<GstPad>::adopt(gst_element_get_static_pad(demuxer.get(), "src"));
        static_cast<SlowDecodebin*>(self)->m_wasSlow = true;
        for (int i = 0; i < 300; ++i) { // ms, for the other thread to run into it
            if (gst_pad_get_last_flow_return(pad.get()) != GST_FLOW_OK)
                return;
            g_usleep(1000);
        }
    }
    std::atomic<bool> m_wasSlow{false};
};

TEST_F(PipelineTest, ADemuxerThatPullsKeepsItsFirstBufferForWhoLinksIt) {
    const AiffFile file;
    const SlowDecodebin decodebin;
    ASSERT_TRUE(backend.pipeline().createPlaybin());
    const auto playbin = backend.pipeline().element();
    const auto sink = make("fakesink");
    g_object_set(playbin.get(), "uri", file.url().c_str(), "audio-sink", sink.get(), nullptr);
    gst_element_set_state(playbin.get(), GST_STATE_PAUSED);
    EXPECT_EQ(gst_element_get_state(playbin.get(), nullptr, nullptr, 20 * GST_SECOND),
              GST_STATE_CHANGE_SUCCESS);
    EXPECT_TRUE(decodebin.wasSlow());
    gst_element_set_state(playbin.get(), GST_STATE_NULL);
}

} // namespace
