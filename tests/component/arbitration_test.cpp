// Two backends of one process and a main system with one decoder of each kind.

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

TEST_F(ArbitrationTest, ElementsThatStartTogetherAllPlay) {
    for (int round = 0; round < 10; ++round) {
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
