// Two backends of one process and a main system with one decoder of each kind.

#include "UvaGstIfGstMedia.h"
#include "UvaGstIfReceiver.h"
#include "gstnox_backend.h"
#include "gstnox_plugin.h"
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
    GstDebugCategory* backend = nullptr;
    GstDebugCategory* backendIf = nullptr;
    UvaGstIfGstMedia media(backend, backendIf);
    using Category = UvaGstIfMedia::Category;
    EXPECT_FALSE(media.logs(Category::Backend, UvaGstIfMedia::Error)) << "no category yet";
    media.log(Category::BackendIf, UvaGstIfMedia::Error, __FILE__, __func__, __LINE__, "lost");
    backend = _gst_debug_category_new("link_test_a", 0, "");
    backendIf = _gst_debug_category_new("link_test_b", 0, "");
    gst_debug_category_set_threshold(backend, GST_LEVEL_WARNING);
    gst_debug_category_set_threshold(backendIf, GST_LEVEL_DEBUG);
    EXPECT_TRUE(media.logs(Category::Backend, UvaGstIfMedia::Warning));
    EXPECT_FALSE(media.logs(Category::Backend, UvaGstIfMedia::Debug));
    EXPECT_TRUE(media.logs(Category::BackendIf, UvaGstIfMedia::Debug));

    auto* const pipeline = gst_pipeline_new(nullptr);
    const auto message = [pipeline](GstStructure* structure) {
        return std::unique_ptr<GstMessage, decltype(&gst_message_unref)>(
            gst_message_new_application(GST_OBJECT(pipeline), structure), gst_message_unref);
    };
    const auto full =
        message(gst_structure_new("Name", "number", G_TYPE_INT, -7, "ratio", GST_TYPE_FRACTION, 16,
                                  9, "text", G_TYPE_STRING, "words", nullptr));
    EXPECT_STREQ(media.name(full.get()), "Name");
    EXPECT_EQ(media.integer(full.get(), "number"), -7);
    EXPECT_EQ(media.fraction(full.get(), "ratio").numerator, 16);
    EXPECT_EQ(media.fraction(full.get(), "ratio").denominator, 9);
    EXPECT_STREQ(media.text(full.get(), "text"), "words");
    const auto bare = message(nullptr);
    EXPECT_EQ(media.name(bare.get()), nullptr);
    for (const auto& [each, field] :
         {std::pair(full.get(), "none"), std::pair(bare.get(), "text")}) {
        EXPECT_EQ(media.integer(each, field), 0);
        EXPECT_EQ(media.fraction(each, field).numerator, 0);
        EXPECT_EQ(media.fraction(each, field).denominator, 0);
        EXPECT_EQ(media.text(each, field), nullptr);
    }
    EXPECT_EQ(media.integer(full.get(), "text"), 0) << "of another type";

    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    EXPECT_EQ(media.states(pipeline).current, GST_STATE_PLAYING);
    EXPECT_EQ(media.states(pipeline).pending, GST_STATE_VOID_PENDING);
    EXPECT_EQ(media.states(nullptr).current, GST_STATE_NULL);
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
        Element first;
        Element second;
        for (Element* const element : {&first, &second}) {
            EXPECT_TRUE(element->gets(UVAEvent::PlaybackFinished));
            EXPECT_EQ(element->count(UVAEvent::DecodeError), 0);
        }
        EXPECT_EQ(uvaGstIfReceiver.state().used, 3U);
        EXPECT_EQ(SinkWatch::instance().video().buffers.size(), 2 * picturesOfClip);
        double heard = 0;
        for (const auto& buffer : SinkWatch::instance().audio().buffers)
            heard += buffer.duration;
        EXPECT_NEAR(heard, 2 * 2.0, 0.2);
    }
}

TEST_F(ArbitrationTest, AKindIsInUseUntilTheLastElementIsGone) {
    auto first = std::make_unique<Element>();
    auto second = std::make_unique<Element>();
    for (const auto* const element : {&first, &second})
        ASSERT_TRUE(waitUntil([&] { return (*element)->backend->getPosition().position > 0.2; }));
    first.reset();
    EXPECT_EQ(uvaGstIfReceiver.state().used, 3U);
    second.reset();
    EXPECT_EQ(uvaGstIfReceiver.state().used, 0U);
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
