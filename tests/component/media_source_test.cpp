// Media sources through the backend's own operations, into sinks that keep what they are handed.

#include "media_source.h"
#include "support/log_capture.h"

#include <array>
#include <cmath>
#include <limits>
#include <thread>

namespace {

using support::LogCapture;

TEST_F(MediaSourceTest, SamplesArriveInOrderWithoutACopy) {
    open();
    playUntilAsked(2);
    auto samples = videoSamples(1.0, 3);
    const UVAStreamConfig wider = videoConfig(UVAStreamConfig::CODEC_VP8, 640);
    samples.push_back(new TestSample(1.12, -1, &wider));
    std::vector<const void*> payloads;
    for (auto* sample : samples)
        payloads.push_back(sample->payload());
    write(videoId, samples);
    write(audioId, {new TestSample(1.5, 0.02, &audio)});
    writeEnd(videoId);
    writeEnd(audioId);
    ASSERT_TRUE(isFinished());

    const auto seen = RecordingSinks::of(videoSink);
    ASSERT_EQ(seen.buffers.size(), 4U);
    for (std::size_t i = 0; i < payloads.size(); ++i) {
        EXPECT_EQ(seen.buffers[i].data, payloads[i]) << i;
        EXPECT_EQ(seen.buffers[i].discont, i == 0) << i;
        EXPECT_EQ(seen.buffers[i].pts, static_cast<GstClockTime>((1.0 + double(i) * frame) * 1e9));
        EXPECT_EQ(seen.buffers[i].segmentStart, GST_SECOND) << "the first sample's time";
    }
    EXPECT_EQ(seen.buffers[0].duration, static_cast<GstClockTime>(frame * 1e9));
    EXPECT_EQ(seen.buffers[3].duration, GST_CLOCK_TIME_NONE);
    ASSERT_EQ(seen.caps.size(), 2U) << "caps only when they change";
    EXPECT_NE(seen.caps[1].find("width=(int)640"), std::string::npos);
    EXPECT_EQ(RecordingSinks::of(audioSink).buffers.at(0).segmentStart, GST_SECOND)
        << "both start with whichever was first";
}

TEST_F(MediaSourceTest, AParserCopiesNothingAndEndsWithoutSamples) {
    const UVAStreamConfig mp3 = audioConfig(UVAStreamConfig::CODEC_MP3, 44100);
    for (const int count : {10, 0}) {
        restart(new TestSource(audioId, "audio/mpeg"));
        playUntilAsked(1);
        Samples samples;
        std::vector<const void*> payloads;
        for (int i = 0; i < count; ++i) {
            auto* sample = new TestSample(i * 0.026, 0.026, &mp3, 417); // 128 kbit/s
            std::fill(sample->bytes.begin(), sample->bytes.end(), 0);
            const std::array<std::uint8_t, 3> header = {0xFF, 0xFB, 0x90};
            std::copy(header.begin(), header.end(), sample->bytes.begin());
            payloads.push_back(sample->payload());
            samples.push_back(sample);
        }
        write(audioId, samples);
        writeEnd(audioId);
        ASSERT_TRUE(isFinished()) << count;
        const auto seen = RecordingSinks::of(audioSink).buffers;
        ASSERT_EQ(seen.size(), payloads.size());
        for (std::size_t i = 0; i < payloads.size(); ++i)
            EXPECT_EQ(seen[i].data, payloads[i]) << i;
    }
}

TEST_F(MediaSourceTest, SeekDropsWhatWasQueuedAndStartsANewSegment) {
    open(false);
    playUntilAsked(1);
    write(videoId, videoSamples(0, 5));
    ASSERT_TRUE(waitUntil([&] { return RecordingSinks::count(videoSink) == 5; }));
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
}

TEST_F(MediaSourceTest, ManySeeksInARowEachComplete) {
    open();
    answerWith([&](unsigned int id) {
        const auto* config = id == videoId ? &video : &audio;
        write(id, {new TestSample(0, frame, config), new TestSample(frame, frame, config)});
    });
    playUntilAsked(2);
    unsigned int random = 1;
    for (int i = 0; i < 50; ++i) {
        random = random * 1103515245U + 12345U;
        ASSERT_EQ(seek(random % 60000 / 1000.0), 0) << i;
    }
    EXPECT_EQ(seek(-1), 2) << "refused, and said so";
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

    // One source starves; the end of one is queued when the seek comes.
    ASSERT_EQ(seek(20), 0);
    write(videoId, videoSamples(20, 2));
    writeEnd(videoId);
    ASSERT_EQ(seek(59.96), 0) << "near the end";
    feedBoth(59.96);
    EXPECT_TRUE(arrived(59.96));
    writeEnd(videoId);
    writeEnd(audioId);
    EXPECT_TRUE(isFinished());
}

TEST_F(MediaSourceTest, HostileSamplesAndEventsLoseNothing) {
    LogCapture log(gst_backend_debug);
    EXPECT_EQ(backend->attachSource(nullptr), UVABackend::Failure);
    EXPECT_EQ(backend->attachSource(new TestSource(9, "text/plain")), UVABackend::Failure);
    EXPECT_TRUE(log.has("WARN unknown mime type: 'text/plain'"));
    EXPECT_TRUE(log.has("ERROR ***E: cannot create source"));
    EXPECT_FALSE(backend->removeSource(9)) << "it left no entry";
    open();
    playUntilAsked(2);

    EXPECT_EQ(backend->writeData(nullptr, 0, UVABackend::Data), UVABackend::Success);
    EXPECT_EQ(backend->writeData(new PlaybackFinishedEvent(0, 0), 0, UVABackend::Data),
              UVABackend::Success);
    EXPECT_EQ(write(77, videoSamples(0, 2)), UVABackend::Success);
    EXPECT_TRUE(log.has("WARN ***E: invalid source_id"));
    EXPECT_EQ(backend->writeData(new NeedMSEDataEvent(videoId, 30), 0, UVABackend::Data),
              UVABackend::Success);
    for (const int status : {2, 3, -1, 1 << 30})
        write(videoId, videoSamples(0, 1), static_cast<UVABackend::WriteDataStatus>(status));

    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double infinity = std::numeric_limits<double>::infinity();
    Samples odd;
    for (const double time : {nan, -infinity, -1.0, 3.0, 1.0, infinity, 1e300, 9.3e9})
        for (const double length : {nan, -1.0, infinity, 0.04})
            odd.push_back(new TestSample(time, length, &video));
    odd.push_back(new TestSample(4, 0.04, nullptr));
    odd.push_back(new TestSample(4.04, 0.04, &video, 0));
    write(videoId, odd);
    writeEnd(audioId); // which never had a sample
    EXPECT_TRUE(waitUntil([&] { return RecordingSinks::count(videoSink) > 8; }));
    std::vector<UVABackend::TimeRange> ranges;
    EXPECT_EQ(backend->getBufferedTimeRanges(videoId, {}, ranges), UVABackend::Success);
    EXPECT_EQ(ranges.size(), 1U);
    ranges.clear();
    EXPECT_EQ(backend->getBufferedTimeRanges(77, {}, ranges), UVABackend::Success);
    EXPECT_TRUE(ranges.empty());

    // Data behind the end is refused, and said so.
    writeEnd(videoId);
    ASSERT_TRUE(isFinished());
    write(videoId, videoSamples(50, 1));
    EXPECT_EQ(RecordingSinks::of(audioSink).count, 0U);
}

TEST_F(MediaSourceTest, OneIdTwiceAndTwoSourcesOfAKind) {
    LogCapture log(gst_backend_debug);
    open();
    playUntilAsked(2);
    write(audioId, {new TestSample(0, 0.02, &audio), new TestSample(0.02, 0.02, &audio)});
    client.clear();
    ASSERT_EQ(backend->attachSource(new TestSource(videoId, "video/x-vp8")), UVABackend::Success);
    EXPECT_TRUE(log.has("ERROR ***E: source already exists - deleting..."));
    ASSERT_TRUE(isAsked()) << "the new one runs";
    write(videoId, videoSamples(0, 2));
    EXPECT_TRUE(waitUntil([&] { return RecordingSinks::count(videoSink) == 2; }));

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

TEST_F(MediaSourceTest, Vp9GetsTheRateOfItsFirstSamples) {
    struct Row {
        std::vector<double> durations;
        const char* rate;
    };
    const Row rows[] = {{{0.04, 0.04}, "25/1"}, {{0.04, -1}, "0/1"}, {{0, 0}, "0/1"}};
    const UVAStreamConfig vp9 = videoConfig(UVAStreamConfig::CODEC_VP9);
    for (const auto& row : rows) {
        // Of a MIME type that finds no parser: the caps arrive as they are made.
        restart(new TestSource(videoId, "video/x-plain"));
        playUntilAsked(1);
        Samples samples;
        for (const double duration : row.durations)
            samples.push_back(new TestSample(0, duration, &vp9));
        write(videoId, samples);
        ASSERT_TRUE(waitUntil([&] { return RecordingSinks::count(videoSink) == 2; }));
        EXPECT_NE(RecordingSinks::of(videoSink).caps.at(0).find(
                      std::string("framerate=(fraction)") + row.rate),
                  std::string::npos)
            << row.rate;
    }
}

// Thirty samples for every request keep little more than the appsrc's own 200 kB, however long the
// stream is.
TEST_F(MediaSourceTest, RequestsAreTheBound) {
    constexpr int total = 20000;
    constexpr int limit = 200000 / 100 + 2 * 30;
    open(false);
    RecordingSinks::clear(false);
    int next = 0;
    int most = 0;
    client.hook = [&](UVAEvent& event) {
        if (event.type() != UVAEvent::NeedMSEData)
            return;
        const auto& request = static_cast<NeedMSEDataEvent&>(event);
        if (next >= total) {
            writeEnd(request.sourceId);
            return;
        }
        write(request.sourceId, videoSamples(next * frame, request.samplesRequested));
        next += request.samplesRequested;
        most = std::max(most, TestSample::alive().load());
    };
    backend->play();
    const bool ended = isFinished();
    owner.reset(); // nobody asks any more
    EXPECT_TRUE(ended);
    EXPECT_EQ(RecordingSinks::count(videoSink), static_cast<std::size_t>(next));
    EXPECT_LE(most, limit);
}

TEST_F(MediaSourceTest, EveryOperationWorksFromInsideTheEvent) {
    open();
    std::atomic<int> answered{0};
    answerWith([&](unsigned int id) {
        std::vector<UVABackend::TimeRange> ranges;
        backend->getBufferedTimeRanges(id, {}, ranges);
        backend->getPosition();
        backend->setKeySystem(UVAKeySystemConfig{});
        GstNoxBackend::describeAll();
        write(id, {new TestSample(0, frame, id == videoId ? &video : &audio)});
        ++answered;
    });
    backend->play();
    EXPECT_TRUE(waitUntil([&] { return answered > 20; }));
    owner.reset(); // nobody asks any more
}

// A writer, the shell and the streaming threads against sources that come and go.
TEST_F(MediaSourceTest, SourcesComeAndGoUnderLoad) {
    open();
    std::atomic<bool> done{false};
    answerWith([&](unsigned int id) {
        write(id, {new TestSample(0, frame, id == videoId ? &video : &audio)});
    });
    backend->play();
    std::thread writer([&] {
        while (!done) {
            write(audioId, {new TestSample(0, frame, &audio)});
            std::vector<UVABackend::TimeRange> ranges;
            backend->getBufferedTimeRanges(audioId, {}, ranges);
            GstNoxBackend::describeAll();
        }
    });
    for (int i = 0; i < 100; ++i) {
        EXPECT_TRUE(backend->removeSource(audioId));
        EXPECT_EQ(backend->attachSource(new TestSource(audioId, "audio/x-plain")),
                  UVABackend::Success);
        if (i % 20 == 0) {
            backend->releaseResources(UVABackend::AllResources);
            backend->removeSource(videoId);
            backend->attachSource(new TestSource(videoId, "video/x-vp8"));
            backend->play();
        }
    }
    done = true;
    writer.join();
}

// Whatever the streaming threads are in: not started, asking, being answered, at the end.
TEST_F(MediaSourceTest, BackendsAreDestroyedAtAnyTime) {
    for (int i = 0; i < 50; ++i) {
        owner = std::make_unique<GstNoxBackend>(UVABackend::VideoElement, &client);
        backend = owner.get();
        client.clear();
        answerWith([&, i](unsigned int id) {
            if (i % 3 == 0)
                writeEnd(id);
            else
                write(id, {new TestSample(0, frame, id == videoId ? &video : &audio)});
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
