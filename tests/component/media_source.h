#ifndef MEDIA_SOURCE_H
#define MEDIA_SOURCE_H

#include "backend/gstnox_backend.h"
#include "plugin/gstnox_plugin.h"
#include "support/media_host.h"
#include "support/recording_sink.h"
#include "support/wait_until.h"

#include <gtest/gtest.h>

#include <cstdlib>

using support::RecordingSinks;
using support::TestSample;
using support::TestSource;
using support::waitUntil;

/// Media sources of one backend, fed by hand, into sinks that keep what they are handed.
class MediaSourceTest : public testing::Test {
protected:
    using Samples = std::vector<UVASample*>;

    static constexpr unsigned int videoId = 1;
    static constexpr unsigned int audioId = 2;
    static constexpr double frame = 0.04; ///< seconds
    static constexpr const char* videoSink = "halvideosink_1";
    static constexpr const char* audioSink = "halaudiosink_2";

    static void SetUpTestSuite() {
        setenv("NOX_GST_STANDALONE", "1", 1);
        ASSERT_TRUE(BackendInit(nullptr));
        RecordingSinks::install();
    }
    void TearDown() override {
        owner.reset();
        EXPECT_EQ(TestSample::alive(), 0) << "samples were lost";
    }

    static UVAStreamConfig videoConfig(int codec, int width = 320) {
        UVAStreamConfig config;
        config.codec = codec;
        config.width = width;
        config.height = 180;
        return config;
    }
    static UVAStreamConfig audioConfig(int codec, int rate = 48000) {
        UVAStreamConfig config;
        config.codec = codec;
        config.sampleRate = rate;
        config.channels = 2;
        return config;
    }

    /// Another backend, of one source. The sinks have seen nothing yet.
    void restart(TestSource* source) {
        RecordingSinks::clear();
        client.clear();
        owner = std::make_unique<GstNoxBackend>(UVABackend::VideoElement, &client);
        backend = owner.get();
        UVABackend::SourceDescription* sources[] = {source, nullptr};
        ASSERT_EQ(backend->initBackend("", sources, false, false), UVABackend::Success);
    }
    void open(bool withAudio = true) {
        RecordingSinks::clear();
        UVABackend::SourceDescription* sources[] = {
            new TestSource(videoId, "video/x-vp8", 60000),
            withAudio ? new TestSource(audioId, "audio/x-plain") : nullptr, nullptr};
        ASSERT_EQ(backend->initBackend("", sources, false, false), UVABackend::Success);
    }
    int write(unsigned int id, const Samples& samples,
              UVABackend::WriteDataStatus status = UVABackend::Data) {
        auto* event = new NeedMSEDataEvent(id, 30);
        event->samples = new UVASample* [samples.size() + 1] {};
        std::copy(samples.begin(), samples.end(), event->samples);
        return backend->writeData(event, 0, status);
    }
    int writeEnd(unsigned int id) {
        return backend->writeData(new NeedMSEDataEvent(id, 0), 0, UVABackend::EndOfStream);
    }
    void writeEnds() {
        for (const unsigned int id : {videoId, audioId})
            writeEnd(id);
    }
    /// One sample of time 0.
    int feed(unsigned int id) {
        return write(id, {new TestSample(0, frame, id == videoId ? &video : &audio)});
    }
    std::vector<UVABackend::TimeRange> buffered(unsigned int id) {
        std::vector<UVABackend::TimeRange> ranges;
        EXPECT_EQ(backend->getBufferedTimeRanges(id, {}, ranges), UVABackend::Success);
        return ranges;
    }
    Samples videoSamples(double from, int count) {
        Samples samples;
        for (int i = 0; i < count; ++i)
            samples.push_back(new TestSample(from + i * frame, frame, &video));
        return samples;
    }
    /// Answers what a source asks for from inside the event, on its streaming thread.
    void answerWith(std::function<void(unsigned int id)> answer) {
        client.hook = [answer = std::move(answer)](UVAEvent& event) {
            if (event.type() == UVAEvent::NeedMSEData)
                answer(static_cast<NeedMSEDataEvent&>(event).sourceId);
        };
    }
    bool isAsked(int times = 1) {
        return waitUntil([=] { return client.count(UVAEvent::NeedMSEData) >= times; });
    }
    /// At least once: a pipeline that plays on at its end says so again.
    bool isFinished() {
        return waitUntil([this] { return client.count(UVAEvent::PlaybackFinished) >= 1; });
    }
    /// What has arrived at a sink, once it is so much.
    static support::Received received(const char* sink, std::size_t count) {
        EXPECT_TRUE(waitUntil([=] { return RecordingSinks::of(sink).buffers.size() >= count; }))
            << sink;
        return RecordingSinks::of(sink);
    }
    /// Until the appsrcs have asked.
    void playUntilAsked(int sources) {
        backend->play();
        ASSERT_TRUE(isAsked(sources));
    }
    /// Answers a seek from inside its event, as one may.
    void completeSeeks() {
        client.hook = [this](UVAEvent& event) {
            if (event.type() == UVAEvent::CancelDataRequestsAsync)
                backend->eventCompleted(static_cast<UVAAsyncEvent*>(&event), true);
        };
    }
    /// Both phases; the sources have not asked again yet. The outcome, -1 for none.
    int seek(double target) {
        client.clear();
        if (backend->setPosition(target) == 1) {
            const CancelDataRequestsAsyncEvent cancelled(target);
            backend->eventCompleted(&cancelled, true);
        }
        return outcome();
    }
    int outcome() {
        const auto* done = client.last<SeekCompletedExEvent>();
        return done != nullptr ? static_cast<int>(done->outcome) : -1;
    }

    const UVAStreamConfig video = videoConfig(UVAStreamConfig::CODEC_VP8);
    const UVAStreamConfig audio = audioConfig(UVAStreamConfig::CODEC_DTS); // no parser
    support::RecordingClient client;
    std::unique_ptr<GstNoxBackend> owner =
        std::make_unique<GstNoxBackend>(UVABackend::VideoElement, &client);
    GstNoxBackend* backend = owner.get(); ///< also while it is being destroyed
};

#endif
