// Two backends of one process and a main system with one decoder of each kind.

#include "gstnox_backend.h"
#include "gstnox_plugin.h"
#include "support/recording_client.h"
#include "support/wait_until.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

using support::waitUntil;

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
    static void SetUpTestSuite() { ASSERT_TRUE(BackendInit(nullptr)); }
};

TEST_F(ArbitrationTest, TheSecondElementIsRefusedUntilTheFirstIsGone) {
    auto first = std::make_unique<Element>();
    ASSERT_TRUE(waitUntil([&] { return first->backend->getPosition().position > 0.2; }));
    {
        Element second;
        ASSERT_TRUE(second.gets(UVAEvent::DecodeError));
        EXPECT_EQ(second.client.last<DecodeErrorEvent>(UVAEvent::DecodeError)->reason,
                  DecodeErrorEvent::InsufficientResources);
        EXPECT_EQ(second.count(UVAEvent::PlaybackFinished), 0);
    }
    EXPECT_TRUE(first->gets(UVAEvent::PlaybackFinished));
    EXPECT_EQ(first->count(UVAEvent::DecodeError), 0);
    first.reset();

    Element third;
    EXPECT_TRUE(third.gets(UVAEvent::PlaybackFinished));
    EXPECT_EQ(third.count(UVAEvent::DecodeError), 0);
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
