// Two backends of one process and a main system with one decoder of each kind.

#include "UvaGstIfReceiver.h"
#include "backend/gstnox_backend.h"
#include "backend/gstnox_link.h"
#include "plugin/gstnox_plugin.h"
#include "support/media_host.h"
#include "support/sink_watch.h"
#include "support/wait_until.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

namespace {

using support::SinkWatch;
using support::waitUntil;

constexpr size_t picturesOfClip = 50;

/// A media element whose host grants what it is asked for.
class Element {
public:
    Element() {
        UVABackend::SourceDescription* sources[] = {
            new support::TestSource("file://" TEST_MEDIA_DIR "/h264-aac.mp4"), nullptr};
        EXPECT_EQ(backend->initBackend("test", sources, false), UVABackend::Success);
        EXPECT_EQ(backend->play(), UVABackend::Success);
    }

    int count(UVAEvent::Type type) { return client.count(type); }
    bool gets(UVAEvent::Type type) {
        return waitUntil([&] { return count(type) > 0; });
    }

    support::RecordingClient client{[this](UVAEvent& event) {
        if (event.type() == UVAEvent::BackendResourceRequestAsync)
            backend->eventCompleted(static_cast<UVAAsyncEvent*>(&event), true);
    }};
    std::unique_ptr<GstNoxBackend> backend =
        std::make_unique<GstNoxBackend>(UVABackend::VideoElement, &client);
};

class ArbitrationTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_TRUE(BackendInit(nullptr));
        SinkWatch::instance();
    }
    void TearDown() override { SinkWatch::instance().restart({}); }
};

/// What the link reads of the media framework, and how it logs there.
TEST_F(ArbitrationTest, TheLinkReadsMessagesStatesAndLevels) {
    using Category = UvaGstIfMedia::Category;
    gst_debug_category_set_threshold(gst_backend_debug, GST_LEVEL_WARNING);
    gst_debug_category_set_threshold(gst_backendif_debug, GST_LEVEL_DEBUG);
    EXPECT_TRUE(linkMedia.logs(Category::Backend, UvaGstIfMedia::Warning));
    EXPECT_FALSE(linkMedia.logs(Category::Backend, UvaGstIfMedia::Debug));
    EXPECT_TRUE(linkMedia.logs(Category::BackendIf, UvaGstIfMedia::Debug));
    gst_debug_category_reset_threshold(gst_backend_debug);
    gst_debug_category_reset_threshold(gst_backendif_debug);

    auto* const pipeline = gst_pipeline_new(nullptr);
    const auto message = [pipeline](GstStructure* structure) {
        return std::unique_ptr<GstMessage, decltype(&gst_message_unref)>(
            gst_message_new_application(GST_OBJECT(pipeline), structure), gst_message_unref);
    };
    const auto full = message(gst_structure_from_string(
        "Name, type=words, codec=more, width=-7, height=2, disp-width=3, disp-height=text, "
        "display-aspect-ratio=(fraction)16/9",
        nullptr));
    const auto read = readApplicationMessage(full.get());
    EXPECT_STREQ(read.name, "Name");
    EXPECT_STREQ(read.type, "words");
    EXPECT_STREQ(read.codec, "more");
    EXPECT_EQ(read.format.width, -7);
    EXPECT_EQ(read.format.height, 2);
    EXPECT_EQ(read.format.displayWidth, 3);
    EXPECT_EQ(read.format.displayHeight, 0) << "of another type";
    EXPECT_EQ(read.format.aspectRatio.numerator, 16);
    EXPECT_EQ(read.format.aspectRatio.denominator, 9);
    EXPECT_EQ(read.format.frameRate.numerator, 0) << "not there";
    EXPECT_EQ(readApplicationMessage(message(nullptr).get()).name, nullptr);

    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    EXPECT_EQ(linkMedia.states(pipeline).current, GST_STATE_PLAYING);
    EXPECT_EQ(linkMedia.states(pipeline).pending, GST_STATE_VOID_PENDING);
    EXPECT_EQ(linkMedia.states(nullptr).current, GST_STATE_NULL);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(pipeline);
}

TEST_F(ArbitrationTest, TheReceiversQueueHoldsFifty) {
    mq_attr attributes{};
    EXPECT_EQ(mq_getattr(uvaGstIfReceiver.queueHandle(), &attributes), 0);
    EXPECT_EQ(attributes.mq_maxmsg, 50);
}

TEST_F(ArbitrationTest, ElementsThatStartTogetherAllPlay) {
    for (int round = 0; round < 5; ++round) {
        SinkWatch::instance().restart({false});
        auto first = std::make_unique<Element>();
        auto second = std::make_unique<Element>();
        for (Element* const element : {first.get(), second.get()}) {
            EXPECT_TRUE(element->gets(UVAEvent::PlaybackFinished));
            EXPECT_EQ(element->count(UVAEvent::DecodeError), 0);
        }
        first.reset();
        EXPECT_EQ(uvaGstIfReceiver.state().used, 3U) << "until the last element is gone";
        EXPECT_EQ(SinkWatch::instance().video().buffers.size(), 2 * picturesOfClip);
        double heard = 0;
        for (const auto& buffer : SinkWatch::instance().audio().buffers)
            heard += buffer.duration;
        EXPECT_NEAR(heard, 2 * 2.0, 0.2);
        second.reset();
        EXPECT_EQ(uvaGstIfReceiver.state().used, 0U);
    }
}

TEST_F(ArbitrationTest, APlaybackLeavesNoDescriptorAndNoThread) {
    SinkWatch::instance().restart({false});
    const auto playback = [] {
        Element element;
        EXPECT_TRUE(element.gets(UVAEvent::PlaybackFinished));
    };
    const auto count = [](const char* folder) {
        return std::distance(std::filesystem::directory_iterator(folder), {});
    };
    playback(); // what lives as long as the process
    playback();
    const auto descriptors = count("/proc/self/fd");
    const auto threads = count("/proc/self/task");
    for (int i = 0; i < 4; ++i)
        playback();
    EXPECT_TRUE(waitUntil([&] { return count("/proc/self/fd") <= descriptors; }));
    EXPECT_TRUE(waitUntil([&] { return count("/proc/self/task") <= threads; }));
}

TEST_F(ArbitrationTest, ElementsComeAndGoAtOnce) {
    std::vector<std::thread> hosts;
    hosts.reserve(3);
    for (int host = 0; host < 3; ++host)
        hosts.emplace_back([] {
            for (int round = 0; round < 10; ++round)
                const Element element;
        });
    for (auto& host : hosts)
        host.join();
    Element last;
    EXPECT_TRUE(last.gets(UVAEvent::PlaybackFinished));
}

} // namespace
