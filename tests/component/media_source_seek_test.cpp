// Seeks on media sources by the backend's own operations: what they drop, what is asked for then.

#include "media_source.h"
#include "support/log_capture.h"

#include <atomic>
#include <thread>

namespace {

using support::LogCapture;

// Sought while it plays, the pipeline's state is forced; while it is paused, left alone.
TEST_F(MediaSourceTest, ASeekForcesOnlyAPlayingPipeline) {
    open(false);
    for (const bool playing : {false, true}) {
        LogCapture log(gst_backend_debug);
        playing ? backend->play() : backend->pause();
        ASSERT_TRUE(isAsked());
        EXPECT_EQ(seek(4), 0);
        EXPECT_EQ(log.has("WARN ***W: force state transition"), playing);
        EXPECT_EQ(client.count(UVAEvent::SeekCompletedEx), 1);
        EXPECT_TRUE(isAsked());
    }
    EXPECT_EQ(seek(-1), 2) << "refused, and said so";
    EXPECT_EQ(client.count(UVAEvent::CancelDataRequestsAsync), 0);
}

TEST_F(MediaSourceTest, SeekDropsWhatWasQueuedAndStartsANewSegment) {
    open(false);
    playUntilAsked(1);
    write(videoId, videoSamples(0, 5));
    received(videoSink, 5);
    ASSERT_EQ(seek(10), 0);
    ASSERT_TRUE(isAsked()) << "again";
    EXPECT_NEAR(backend->getPosition().position, 10, 0.001);

    // A sample without payload is where playback starts; what is before it is decoded only.
    write(videoId, {new TestSample(10, 0, nullptr, 0)});
    write(videoId, videoSamples(9.8, 6));
    writeEnd(videoId);
    ASSERT_TRUE(isFinished());
    const auto seen = RecordingSinks::of(videoSink);
    ASSERT_GT(seen.buffers.size(), 5U);
    EXPECT_EQ(seen.buffers.back().segmentStart, 10 * GST_SECOND);
    EXPECT_EQ(seen.buffers[5].pts, 10 * GST_SECOND) << "the sink clips what is before";
    EXPECT_EQ(seen.caps.size(), 1U);

    // After the end, and back to the beginning.
    ASSERT_EQ(seek(0), 0);
    write(videoId, videoSamples(0, 2));
    writeEnd(videoId);
    EXPECT_TRUE(isFinished());
    EXPECT_EQ(RecordingSinks::of(videoSink).buffers.back().segmentStart, 0U);

    client.clear();
    backend->pause();
    backend->play();
    EXPECT_TRUE(isFinished()) << "again";
}

TEST_F(MediaSourceTest, SeeksAtOddMoments) {
    open();
    const auto feedBoth = [&](double from) {
        client.clear();
        write(videoId, videoSamples(from, 2));
        write(audioId, {new TestSample(from, frame, &audio)});
    };
    const auto arrived = [&](double at) {
        return waitUntil([&] {
            const auto seen = RecordingSinks::of(videoSink).buffers;
            return !seen.empty() && seen.back().segmentStart == static_cast<GstClockTime>(at * 1e9);
        });
    };
    playUntilAsked(2);
    ASSERT_EQ(seek(5), 0) << "while it pre-rolls";
    feedBoth(5);
    EXPECT_TRUE(arrived(5));

    // A second seek before the first is made: one is made, to the newer target.
    client.clear();
    for (const double target : {7, 8})
        ASSERT_EQ(backend->setPosition(target), 1);
    for (const double target : {7, 8}) {
        const CancelDataRequestsAsyncEvent cancelled(target);
        backend->eventCompleted(&cancelled, true);
    }
    EXPECT_EQ(outcome(), 0);
    EXPECT_EQ(client.count(UVAEvent::SeekCompletedEx), 1);
    feedBoth(8);
    EXPECT_TRUE(arrived(8));
    EXPECT_NEAR(backend->getPosition().position, 8, 2 * frame);

    writeEnd(videoId);
    ASSERT_EQ(seek(59.96), 0) << "near the end, with the end of one queued";
    feedBoth(59.96);
    EXPECT_TRUE(arrived(59.96));
    writeEnds();
    EXPECT_TRUE(isFinished());
}

// A host that completes the seek and delivers from inside the events: both sources begin at the
// first time delivered. Whoever asks for the position meanwhile hears, and changes, nothing else.
TEST_F(MediaSourceTest, ASeekIsOneStepForAllSources) {
    open();
    playUntilAsked(2);
    std::atomic<bool> isSought{false};
    client.hook = [&](UVAEvent& event) {
        if (event.type() == UVAEvent::CancelDataRequestsAsync) {
            std::thread([this] { EXPECT_EQ(backend->getPosition().position, 9); }).join();
            isSought = true;
            backend->eventCompleted(static_cast<UVAAsyncEvent*>(&event), true);
        } else if (event.type() == UVAEvent::NeedMSEData && isSought) {
            const unsigned int id = static_cast<NeedMSEDataEvent&>(event).sourceId;
            write(id,
                  {new TestSample(id == videoId ? 8.5 : 9, 1, id == videoId ? &video : &audio)});
            writeEnd(id);
        }
    };
    write(videoId, videoSamples(0, 2));
    feed(audioId);
    received(videoSink, 1);
    LogCapture log(gst_backend_debug);
    ASSERT_EQ(backend->setPosition(9), 1);
    ASSERT_TRUE(isFinished());
    EXPECT_TRUE(log.has("DEBUG offset=0:00:09.000000000"));
    EXPECT_EQ(received(videoSink, 1).buffers.back().segmentStart,
              received(audioSink, 1).buffers.back().segmentStart);
}

// What a write was still reading when a seek was made belongs before it.
TEST_F(MediaSourceTest, ASeekMeanwhileDropsWhatIsBeingRead) {
    open(false);
    playUntilAsked(1);
    auto* const before = new TestSample(1, frame, &video);
    before->onUse = [this, uses = 0]() mutable {
        if (++uses == 1) {
            EXPECT_EQ(seek(5), 0);
        }
    };
    write(videoId, {before});
    ASSERT_TRUE(isAsked());
    write(videoId, videoSamples(5, 1));
    EXPECT_EQ(received(videoSink, 1).buffers.at(0).segmentStart, 5 * GST_SECOND);
}

// Asked at the end of a seek, the host seeks once more: nothing is asked for before that is made.
TEST_F(MediaSourceTest, ASeekFromInsideARequestClosesAllSources) {
    open();
    for (const char* name : {"appsrc_1", "appsrc_2"}) {
        const auto own = GstPtr<GstElement>::sink(gst_element_factory_make("appsrc", name));
        GstNoxBackend::need_data_cb(GST_APP_SRC(own.get()), 1, backend);
    }
    answerWith([this, asked = 0](unsigned int) mutable {
        if (++asked == 1)
            backend->setPosition(7);
    });
    seek(5);
    EXPECT_EQ(client.count(UVAEvent::NeedMSEData), 1);
    const CancelDataRequestsAsyncEvent cancelled(7);
    backend->eventCompleted(&cancelled, true);
    EXPECT_EQ(client.count(UVAEvent::NeedMSEData), 3) << "both";
}

// A request that was on its way when the seek came is delivered before the seek's event: the client
// takes what comes behind that for the seek's.
TEST_F(MediaSourceTest, NoRequestFromBeforeASeekComesBehindItsEvent) {
    open(false);
    std::atomic<bool> hasAsked{false}, isHeard{false}, wasHeard{false};
    std::thread seek;
    client.hook = [&](UVAEvent& event) {
        if (event.type() == UVAEvent::NeedMSEData && !hasAsked.exchange(true)) {
            feed(videoId);
            seek = std::thread([this] { backend->setPosition(5); });
            EXPECT_TRUE(waitUntil([this] { return buffered(videoId).empty(); })); // closed
            isHeard = true;
        } else if (event.type() == UVAEvent::CancelDataRequestsAsync) {
            wasHeard = isHeard.load();
        }
    };
    backend->play();
    ASSERT_TRUE(
        waitUntil([&] { return isHeard && client.count(UVAEvent::CancelDataRequestsAsync) == 1; }));
    seek.join();
    EXPECT_TRUE(wasHeard);
}

TEST_F(MediaSourceTest, ASourceThatWasStoppedIsNotAskedFor) {
    open();
    playUntilAsked(2);
    write(videoId, videoSamples(0, 2));
    feed(audioId);
    ASSERT_TRUE(waitUntil(
        [] { return GstNoxBackend::describeAll().find("audio_2: PLAYING") != std::string::npos; }));
    ASSERT_EQ(backend->attachSource(new TestSource(3, "audio/x-plain")), UVABackend::Success);
    std::atomic<int> asked{0};
    answerWith([&](unsigned int id) { asked += id == audioId; });
    EXPECT_EQ(seek(4), 0);
    EXPECT_EQ(asked, 0);
    owner.reset();
}

} // namespace
