// Media sources that come, go, take one another's place and are released, at any time.

#include "media_source.h"
#include "support/log_capture.h"

#include <atomic>
#include <future>

namespace {

using support::LogCapture;

TEST_F(MediaSourceTest, ASourceThatComesLateBeginsWherePlaybackIs) {
    LogCapture log(gst_backend_debug);
    open();
    EXPECT_EQ(client.count(UVAEvent::CancelDataRequestsAsync), 0);
    backend->setContentSize(0, 70000); // the first source's stays
    double seconds = 0;
    backend->getDuration(seconds);
    EXPECT_EQ(seconds, 60);
    ASSERT_EQ(backend->setPosition(12.5), 1);
    client.clear();
    ASSERT_TRUE(backend->removeSource(audioId));
    ASSERT_EQ(backend->attachSource(new TestSource(audioId, "audio/x-plain")), UVABackend::Success);
    const auto* told = client.last<CancelDataRequestsAsyncEvent>();
    ASSERT_NE(told, nullptr);
    EXPECT_EQ(told->position, 12.5);
    EXPECT_TRUE(log.has("DEBUG   seeking to 0:00:12.500000000"));
}

// The same element again after its player is gone: everything as the first time.
TEST_F(MediaSourceTest, AReleasedElementPlaysAgain) {
    completeSeeks(); // the second time it begins where it was
    for (const double start : {3.0, 1.0}) {
        client.clear();
        open();
        playUntilAsked(2);
        write(videoId, videoSamples(start, 2));
        write(audioId, {new TestSample(start, frame, &audio)});
        EXPECT_EQ(received(videoSink, 2).buffers.at(0).pts, static_cast<GstClockTime>(start * 1e9));
        backend->releaseResources(UVABackend::AllResources);
        EXPECT_EQ(backend->getPosition().position, -1);
        for (const unsigned int id : {videoId, audioId})
            EXPECT_TRUE(backend->removeSource(id));
        EXPECT_EQ(backend->play(), UVABackend::Success) << "of nothing";
    }
}

TEST_F(MediaSourceTest, OneIdTwiceAndTwoSourcesOfAKind) {
    LogCapture log(gst_backend_debug);
    completeSeeks();
    open();
    playUntilAsked(2);
    const auto writeSound = [this] {
        write(audioId, {new TestSample(0, 0.02, &audio), new TestSample(0.02, 0.02, &audio)});
    };
    writeSound();
    client.clear();
    ASSERT_EQ(backend->attachSource(new TestSource(videoId, "video/x-vp8")), UVABackend::Success);
    EXPECT_TRUE(log.has("ERROR ***E: source already exists - deleting..."));
    ASSERT_TRUE(isAsked()) << "the new one runs";
    writeSound(); // what is played already has been sought
    write(videoId, videoSamples(0, 2));
    received(videoSink, 2);

    // The second source of a kind takes the first one's place: alone it ends playback.
    client.clear();
    ASSERT_EQ(backend->attachSource(new TestSource(3, "audio/x-plain")), UVABackend::Success);
    EXPECT_TRUE(log.has("WARN found running component of type 'audio' (audio_2): stop it"));
    ASSERT_TRUE(isAsked());
    write(3, {new TestSample(0, 0.02, &audio)});
    writeEnd(3);
    writeEnd(videoId);
    EXPECT_TRUE(isFinished());
    EXPECT_TRUE(backend->removeSource(audioId));
}

// Reading samples and dropping them runs the host's code, which may wait for a thread that uses the
// backend.
TEST_F(MediaSourceTest, TheHostsSamplesAreUsedUnderNoLock) {
    std::vector<std::future<void>> uses;
    std::atomic<int> free{0};
    int used = 0;
    const auto useElsewhere = [&] {
        ++used;
        uses.push_back(std::async(std::launch::async, [this] {
            std::vector<UVABackend::TimeRange> ranges;
            backend->getBufferedTimeRanges(videoId, {}, ranges);
            backend->getPosition();
        }));
        free += uses.back().wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    };
    const auto writeOne = [&](std::size_t size = 100) {
        auto* sample = new TestSample(0, frame, &video, size);
        sample->onUse = useElsewhere;
        write(videoId, {sample});
    };
    const CancelDataRequestsAsyncEvent cancelled(3);
    const struct {
        const char* what;
        std::function<void()> drop;
        int used; // the payload is asked for, and it is deleted
    } rows[] = {{"without payload", [&] { writeOne(0); }, 2},
                {"by setPosition", [&] { writeOne(), backend->setPosition(3); }, 2},
                {"while a seek is pending", [&] { writeOne(); }, 1},
                {"kept by the seek", [&] { backend->eventCompleted(&cancelled, true); }, 0},
                {"with its source", [&] { writeOne(), backend->removeSource(videoId); }, 2},
                {"no source, no use", [&] { restart(new TestSource(videoId, "video/x-vp8")); }, 0},
                {"with the backend", [&] { writeOne(), owner.reset(); }, 2}};
    open(false);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        used = free = 0;
        row.drop();
        EXPECT_EQ(used, row.used);
        EXPECT_EQ(free, used);
    }
}

TEST_F(MediaSourceTest, WithoutAPlayerSamplesWait) {
    open(false);
    playUntilAsked(1);
    backend->releaseResources(UVABackend::AllResources);
    feed(videoId);
    EXPECT_NE(GstNoxBackend::describeAll().find("queued=2 bytes=100 needData=0"),
              std::string::npos);
}

TEST_F(MediaSourceTest, AReleaseFromInsideAWriteIsTheEnd) {
    open(false);
    client.hook = [this](UVAEvent&) { owner.release()->release(); };
    feed(videoId);
    EXPECT_EQ(client.types().back(), UVAEvent::BufferingStreamBuffered);
}

// Whatever the streaming threads are in: not started, asking, being answered, at the end.
TEST_F(MediaSourceTest, BackendsAreDestroyedAtAnyTime) {
    for (int i = 0; i < 50; ++i) {
        owner = std::make_unique<GstNoxBackend>(UVABackend::VideoElement, &client);
        backend = owner.get();
        client.clear();
        answerWith([&, i](unsigned int id) {
            buffered(id);
            backend->getPosition();
            backend->setKeySystem(UVAKeySystemConfig{});
            GstNoxBackend::describeAll();
            i % 3 == 0 ? writeEnd(id) : feed(id);
        });
        open();
        if (i % 5 != 0)
            backend->play();
        if (i % 2 == 0 && i % 5 != 0)
            waitUntil([&] { return client.count(UVAEvent::NeedMSEData) > i % 7; },
                      std::chrono::milliseconds(50));
        if (i % 11 == 0)
            backend->setPosition(1);
        owner.reset();
    }
}

} // namespace
