// What media sources hand on of what is written to them, into sinks that keep what they are handed.

#include "media_source.h"
#include "support/log_capture.h"

#include <array>
#include <limits>

namespace {

using support::LogCapture;

/// Times of samples in the order of decoding: presented, decoded, lasts; seconds.
constexpr double gop[][3] = {
    {1.0, 0.9, 0.05}, {1.25, 0.95, 0.1}, {1.05, 1.0, 0.05}, {1.125, 1.125, -1}, {1.15, 1.1, 0}};

TEST_F(MediaSourceTest, SamplesArriveInOrderWithoutACopy) {
    LogCapture log(gst_backend_debug);
    open();
    playUntilAsked(2);
    EXPECT_EQ(client.last<NeedMSEDataEvent>()->samplesRequested, 30);
    Samples samples;
    std::vector<const void*> payloads;
    for (const auto& [presented, decoded, lasts] : gop) {
        auto* sample = new TestSample(presented, lasts, &video, 100 + samples.size());
        sample->decoded = decoded;
        samples.push_back(sample);
        payloads.push_back(sample->payload());
    }
    write(videoId, {samples.begin(), samples.end() - 1});
    EXPECT_TRUE(log.has("LOG id=1, got: samples=4 bytes=406"));
    write(audioId, {new TestSample(1.5, 0.02, &audio)});
    received(videoSink, 4);
    write(videoId, {samples.back()});
    EXPECT_EQ(client.count(UVAEvent::BufferingStreamBuffered), 3) << "one a write";
    const auto ranges = buffered(videoId);
    ASSERT_EQ(ranges.size(), 1U);
    EXPECT_GE(ranges[0].start, 1.0) << "or where playback is";
    EXPECT_DOUBLE_EQ(ranges[0].end, 1.35) << "of the latest, not of the last";
    writeEnds();
    ASSERT_TRUE(isFinished());

    const auto nanoseconds = [](double seconds) {
        return seconds < 0 ? GST_CLOCK_TIME_NONE : static_cast<GstClockTime>(seconds * 1e9);
    };
    const auto seen = RecordingSinks::of(videoSink);
    ASSERT_EQ(seen.buffers.size(), payloads.size());
    for (std::size_t i = 0; i < payloads.size(); ++i) {
        const auto& buffer = seen.buffers[i];
        EXPECT_EQ(buffer.data, payloads[i]) << i;
        EXPECT_EQ(buffer.discont, i == 0) << i;
        EXPECT_EQ(buffer.pts, nanoseconds(gop[i][0])) << i;
        EXPECT_EQ(buffer.dts, nanoseconds(gop[i][1])) << i;
        EXPECT_EQ(buffer.duration, nanoseconds(gop[i][2])) << i;
        EXPECT_EQ(buffer.segmentStart, GST_SECOND) << "the first sample's time";
    }
    EXPECT_EQ(seen.segments, 1);
    EXPECT_EQ(seen.caps.size(), 1U);
    EXPECT_EQ(RecordingSinks::of(audioSink).buffers.at(0).segmentStart, GST_SECOND)
        << "both start with whichever was first";
    for (const char* line :
         {"DEBUG state changed 1->2, pending=4\n", "DEBUG state changed 2->3, pending=4\n",
          "DEBUG state changed 3->4, pending=0\n"})
        EXPECT_TRUE(log.has(line)) << line;
}

// Whatever of a configuration changes arrives with the next sample, once; what is equal does not.
TEST_F(MediaSourceTest, CapsFollowTheConfiguration) {
    const std::array<std::uint8_t, 3> data = {1, 2, 3};
    const std::array<std::uint8_t, 3> otherData = {1, 2, 4};
    const UVAStreamConfig::ColorInfo color = {9, 1, 16, 5, 10};
    const UVAStreamConfig::MasteringMetadata mastering = {0.7,  0.3,  0.2,  0.65, 0.15,
                                                          0.05, 0.31, 0.32, 1000, 0.1};
    UVAStreamConfig base = videoConfig(UVAStreamConfig::CODEC_VP9);
    base.codecData = data.data();
    base.codecDataSize = data.size();
    base.color = &color;
    base.mastering = &mastering;
    using Color = UVAStreamConfig::ColorInfo;
    std::vector<Color> colors;
    for (const auto member : {&Color::matrix, &Color::range, &Color::transfer, &Color::primaries,
                              &Color::bitsPerChannel}) {
        colors.push_back(color);
        colors.back().*member = 2;
    }
    auto brighter = mastering;
    brighter.luminanceMin = 0.2;
    std::vector<UVAStreamConfig> changed(9 + colors.size(), base);
    changed[0].codec = UVAStreamConfig::CODEC_VP8;
    changed[1].width = 321;
    changed[2].height = 181;
    changed[3].codecDataSize = 2;
    changed[4].codecData = otherData.data();
    changed[5].codecData = nullptr;
    changed[6].color = nullptr;
    changed[7].mastering = nullptr;
    changed[8].mastering = &brighter;
    for (std::size_t i = 0; i < colors.size(); ++i)
        changed[9 + i].color = &colors[i];

    restart(new TestSource(videoId, "video/x-plain")); // no parser: the caps arrive as they are
    playUntilAsked(1);
    Samples samples;
    UVAStreamConfig another = base;
    another.sampleRate = 7;       // no matter of video
    UVAStreamConfig equal = base; // elsewhere
    const auto dataAgain = data;
    const auto colorAgain = color;
    const auto masteringAgain = mastering;
    equal.codecData = dataAgain.data();
    equal.color = &colorAgain;
    equal.mastering = &masteringAgain;
    for (auto& config : changed)
        for (auto* next : {&another, &base, &equal, &config})
            samples.push_back(new TestSample(0, frame, next));
    write(videoId, samples);
    const auto seen = received(videoSink, samples.size());
    ASSERT_EQ(seen.caps.size(), 2 * changed.size());
    for (std::size_t i = 0; i < changed.size(); ++i) {
        EXPECT_EQ(seen.caps[2 * i], seen.caps[0]) << i;
        EXPECT_NE(seen.caps[2 * i + 1], seen.caps[0]) << i;
    }

    restart(new TestSource(audioId, "audio/x-plain"));
    playUntilAsked(1);
    auto slower = audio;
    slower.sampleRate = 44100;
    auto more = audio;
    more.channels = 6;
    write(audioId, {new TestSample(0, frame, &audio), new TestSample(0, frame, &slower),
                    new TestSample(0, frame, &audio), new TestSample(0, frame, &more)});
    EXPECT_EQ(received(audioSink, 4).caps.size(), 4U);
}

TEST_F(MediaSourceTest, Vp9GetsTheRateOfItsFirstSamples) {
    const struct {
        std::vector<double> durations;
        const char* rate;
        int codec = UVAStreamConfig::CODEC_VP9;
    } rows[] = {{{0.05, 0.03}, "25/1"},
                {{0.04, -1}, "0/1"},
                {{0, 0}, "0/1"},
                {{0.02}, "50/1"},
                {{0.04, 0.04}, "", UVAStreamConfig::CODEC_VP8}};
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.durations));
        restart(new TestSource(videoId, "video/x-plain"));
        playUntilAsked(1);
        const UVAStreamConfig config = videoConfig(row.codec);
        Samples samples;
        for (const double duration : row.durations)
            samples.push_back(new TestSample(0, duration, &config));
        write(videoId, samples);
        const UVAStreamConfig later = videoConfig(row.codec, 640);
        write(videoId, {new TestSample(1, 0.1, &later)});
        for (const auto& caps : received(videoSink, row.durations.size() + 1).caps) {
            const auto at = caps.find("framerate=(fraction)");
            const auto rate = at == std::string::npos ? "" : caps.substr(at + 20);
            EXPECT_EQ(rate.substr(0, rate.find_first_of(",;")), row.rate) << "once a source";
        }
    }
}

TEST_F(MediaSourceTest, ParsersAreChosenByTheMimeType) {
    const std::pair<const char*, const char*> rows[] = {
        {"audio/x-aac+adts", "aacparse"},
        {"audio/mpeg; codecs=mp3", "mpegaudioparse"},
        {"video/x-h264", "h264parse"},
        {"video/x-h264; width=7", "h264parse"},
        {"video/x-vnd.on2.vp9+x", "vp9parse"},
        {"video/x-vp9", "vp9parse"},
        {"audio/x-plain", ""},
        {"video/no name", ""},
    };
    for (const auto& [mime, parser] : rows) {
        LogCapture log(gst_backend_debug);
        ASSERT_EQ(backend->attachSource(new TestSource(7, mime)), UVABackend::Success) << mime;
        const std::string sink = *mime == 'a' ? " ! halaudiosink_7" : " ! halvideosink_7";
        const auto lines = log.lines();
        const auto line = std::find_if(lines.begin(), lines.end(), [](auto& text) {
            return text.rfind("DEBUG pipeline: appsrc_7 ! ", 0) == 0;
        });
        ASSERT_NE(line, lines.end()) << mime;
        const std::string wanted = *parser != '\0' ? std::string(" ! ") + parser : sink;
        EXPECT_EQ(line->substr(24, wanted.size()), wanted) << mime;
        EXPECT_EQ(line->substr(line->size() - sink.size()), sink) << mime;
    }
}

// A source that is not started, so that the appsrc asks for nothing by itself.
TEST_F(MediaSourceTest, TheQueueKeepsWhatIsNotAskedFor) {
    open(false);
    const auto named = [](const char* name) {
        return GstPtr<GstElement>::sink(gst_element_factory_make("appsrc", name));
    };
    const auto own = named("appsrc_1");
    const auto unknown = named("appsrc_77");
    const auto unnumbered = named("appsrc");
    const UVAStreamConfig wider = videoConfig(UVAStreamConfig::CODEC_VP8, 640);
    const auto sized = [&](double time, std::size_t size, const UVAStreamConfig* config) {
        return new TestSample(time, 0.25, config, size);
    };
    const auto need = [&](const GstPtr<GstElement>& element) {
        GstNoxBackend::need_data_cb(GST_APP_SRC(element.get()), 1, backend);
    };
    const std::string none = "99:99:99.999999999";
    const auto state = [](int queued, int bytes, int asked, const std::string& end) {
        return "queued=" + std::to_string(queued) + " bytes=" + std::to_string(bytes) +
               " needData=" + std::to_string(asked) + " lastEnd=" + end + " fps=4/1";
    };
    const std::string at2 = "0:00:02.250000000", at4 = "0:00:04.250000000";
    const std::string at6 = "0:00:06.000000000", at9 = "0:00:09.250000000";
    const std::string at10 = "0:00:10.250000000";
    const auto ask = [&] { need(own); };
    const auto seek = [&] { GstNoxBackend::seek_data_cb(GST_APP_SRC(own.get()), 0, backend); };
    const auto enough = [&] { GstNoxBackend::enough_data_cb(GST_APP_SRC(own.get()), backend); };
    const auto oddStatus = static_cast<UVABackend::WriteDataStatus>(7);
    const auto first = [&] { return Samples{sized(2, 100, &video), sized(1, 250, &video)}; };
    const auto wide = [&](double time, std::size_t size) {
        return [=, &wider] { write(videoId, {sized(time, size, &wider)}); };
    };
    const struct {
        const char* what;
        std::function<void()> operation;
        std::string state;
        int needs = 0;
    } rows[] = {
        {"nothing yet", [] {}, "queued=0 bytes=0 needData=0 lastEnd=" + none + " fps=0/0"},
        {"behind their caps", [&] { write(videoId, first()); }, state(3, 350, 0, at2)},
        {"a time alone brings no caps", wide(4, 0), state(3, 350, 0, at4)},
        {"other caps, and the rate stays", wide(5.75, 8), state(5, 358, 0, at6)},
        {"others' appsrcs", [&] { need(unknown), need(unnumbered); }, state(5, 358, 0, at6)},
        {"the appsrc starts, and nothing is lost", seek, state(5, 358, 0, at6)},
        {"asked, all goes; the appsrc does not run", ask, state(0, 0, 1, at6), 1},
        {"asked again", ask, state(0, 0, 1, at6), 1},
        {"what comes goes on at once", wide(10, 5), state(0, 0, 1, at10)},
        {"enough", enough, state(0, 0, 0, at10)},
        {"and it waits", [&] { write(videoId, first()); }, state(3, 350, 0, at10)},
        {"behind it other caps", wide(1, 7), state(5, 357, 0, at10)},
        {"a seek keeps the last caps", seek, state(1, 0, 0, none)},
        {"the caps that it kept are not doubled", wide(9, 10), state(2, 10, 0, at9)},
        {"the end", [&] { writeEnd(videoId); }, state(3, 10, 0, at9)},
        {"of unknown status", [&] { write(videoId, {}, oddStatus); }, state(3, 10, 0, at9)},
        {"all goes", ask, state(0, 0, 1, at9), 1},
        {"enough again", enough, state(0, 0, 0, at9)},
        {"one more waits", wide(1, 7), state(1, 7, 0, at9)},
        {"a seek drops caps that went before", seek, state(0, 0, 0, none)},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        client.clear();
        row.operation();
        const auto all = GstNoxBackend::describeAll();
        const auto at = all.find("queued=");
        ASSERT_EQ(all.find("  video_1: NULL "), at - 16) << all;
        EXPECT_EQ(all.substr(at), row.state + "\n");
        ASSERT_EQ(client.count(UVAEvent::NeedMSEData), row.needs);
        const auto* event = client.last<NeedMSEDataEvent>();
        EXPECT_TRUE(event == nullptr ||
                    (event->sourceId == videoId && event->samplesRequested == 30));
    }
    EXPECT_TRUE(backend->removeSource(videoId));
    EXPECT_FALSE(backend->removeSource(videoId));
    client.clear();
    need(own);
    EXPECT_EQ(client.types(), std::vector<UVAEvent::Type>{}) << "it is gone";
}

TEST_F(MediaSourceTest, AParserCopiesNothingAndEndsWithoutSamples) {
    const UVAStreamConfig mp3 = audioConfig(UVAStreamConfig::CODEC_MP3, 44100);
    for (const int count : {10, 0}) {
        restart(new TestSource(audioId, "audio/mpeg"));
        playUntilAsked(1);
        Samples samples;
        std::vector<const void*> payloads;
        for (int i = 0; i < count; ++i) {
            auto* sample = new TestSample(i * 0.026, 0.026, &mp3); // 128 kbit/s
            sample->bytes = {0xFF, 0xFB, 0x90};
            sample->bytes.resize(417);
            payloads.push_back(sample->payload());
            samples.push_back(sample);
        }
        write(audioId, samples);
        writeEnd(audioId);
        ASSERT_TRUE(isFinished()) << count;
        std::vector<const void*> seen;
        for (const auto& buffer : RecordingSinks::of(audioSink).buffers)
            seen.push_back(buffer.data);
        EXPECT_EQ(seen, payloads);
    }
}

TEST_F(MediaSourceTest, HostileSamplesAndEventsLoseNothing) {
    LogCapture log(gst_backend_debug);
    EXPECT_EQ(backend->attachSource(new TestSource(9, "text/plain")), UVABackend::Failure);
    EXPECT_TRUE(log.has("WARN unknown mime type: 'text/plain'"));
    EXPECT_TRUE(log.has("ERROR ***E: cannot create source"));
    EXPECT_FALSE(backend->removeSource(9)) << "it left no entry";
    open();
    playUntilAsked(2);

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
    received(videoSink, 9);
    EXPECT_EQ(buffered(videoId).size(), 1U);
    EXPECT_TRUE(buffered(77).empty());

    // Data behind the end is refused, and said so.
    writeEnd(videoId);
    ASSERT_TRUE(isFinished());
    write(videoId, videoSamples(50, 1));
    EXPECT_EQ(RecordingSinks::of(audioSink).buffers.size(), 0U);
}

// Thirty samples for every request keep little more than the appsrc's own 200 kB, however long the
// stream is.
TEST_F(MediaSourceTest, RequestsAreTheBound) {
    constexpr int total = 20000;
    constexpr int asked = 30;
    constexpr int limit = 200000 / 100 + 2 * asked;
    open(false);
    int next = 0;
    int most = 0;
    answerWith([&](unsigned int id) {
        if (next >= total) {
            writeEnd(id);
            return;
        }
        write(id, videoSamples(next * frame, asked));
        next += asked;
        most = std::max(most, TestSample::alive().load());
    });
    backend->play();
    const bool ended = isFinished();
    owner.reset(); // nobody asks any more
    EXPECT_TRUE(ended);
    EXPECT_EQ(RecordingSinks::of(videoSink).buffers.size(), static_cast<std::size_t>(next));
    EXPECT_LE(most, limit);
}

TEST_F(MediaSourceTest, WhatIsWrittenBeforeTheFirstRequestIsPlayed) {
    open();
    write(videoId, videoSamples(0, 3));
    feed(audioId);
    writeEnds();
    backend->play();
    ASSERT_TRUE(isFinished());
    EXPECT_EQ(received(videoSink, 3).buffers.size(), 3U);
    EXPECT_EQ(received(audioSink, 1).buffers.size(), 1U);
}

} // namespace
