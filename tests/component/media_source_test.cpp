// Media sources through the backend's own operations, into sinks that keep what they are handed.

#include "gstnox_backend.h"
#include "gstnox_plugin.h"
#include "support/log_capture.h"
#include "support/recording_client.h"
#include "support/recording_sink.h"
#include "support/wait_until.h"
#include "uva/uva_drm_backend.h"
#include "uva/uva_sample.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cmath>
#include <functional>
#include <limits>
#include <thread>

namespace {

using std::chrono::steady_clock;
using support::LogCapture;
using support::RecordingSinks;
using support::waitUntil;

constexpr unsigned int videoId = 1;
constexpr unsigned int audioId = 2;
constexpr double frame = 0.04; // seconds
const char* const videoSink = "halvideosink_1";
const char* const audioSink = "halaudiosink_2";

class Source final : public UVABackend::SourceDescription {
public:
    Source(unsigned int id, std::string mime, unsigned long long milliseconds = 0)
        : m_mime(std::move(mime)) {
        type = MseStreaming;
        sourceId = static_cast<int>(id);
        mimeType = m_mime.c_str();
        streamType = GST_APP_STREAM_TYPE_SEEKABLE;
        durationMs = milliseconds;
    }

private:
    const std::string m_mime;
};

/// A sample with a payload of its own, of which there is one count.
class TestSample final : public UVASample {
public:
    static std::atomic<int> alive;

    TestSample(double presentation, double length, const UVAStreamConfig* stream,
               std::size_t size = 100)
        : bytes(size, 0x55), time(presentation), length_(length), stream_(stream) {
        ++alive;
    }
    ~TestSample() override { --alive; }

    const std::uint8_t* payload() const override { return bytes.empty() ? nullptr : bytes.data(); }
    std::size_t payloadSize() const override { return bytes.size(); }
    double pts() const override { return time; }
    double dts() const override { return time; }
    double duration() const override { return length_; }
    const UVAStreamConfig* config() const override { return stream_; }
    const std::uint8_t* keyId() const override { return key.empty() ? nullptr : key.data(); }
    std::size_t keyIdSize() const override { return key.size(); }
    const std::uint8_t* iv() const override { return vector.data(); }
    std::size_t ivSize() const override { return vector.size(); }
    const std::vector<Subsample>& subsamples() const override { return map; }

    std::vector<std::uint8_t> bytes, key;
    std::vector<std::uint8_t> vector = {1, 2, 3, 4, 5, 6, 7, 8};
    std::vector<Subsample> map;
    double time, length_;
    const UVAStreamConfig* stream_;
};
std::atomic<int> TestSample::alive{0};

UVAStreamConfig videoConfig(int codec = UVAStreamConfig::CODEC_VP8, int width = 320) {
    UVAStreamConfig config;
    config.codec = codec;
    config.width = width;
    config.height = 180;
    return config;
}

UVAStreamConfig audioConfig() {
    UVAStreamConfig config;
    config.codec = UVAStreamConfig::CODEC_DTS; // no parser
    config.sampleRate = 48000;
    config.channels = 2;
    return config;
}

/// A client that lets a test answer the backend from inside the event, on the streaming thread.
class FeedingClient final : public UVAClient {
public:
    using Answer = std::function<void(std::unique_ptr<NeedMSEDataEvent>)>;

    void deliverEvent(UVAEvent* event) override {
        std::unique_ptr<UVAEvent> owned(event);
        if (event->type() == UVAEvent::NeedMSEData) {
            ++needs;
            if (answer)
                answer(std::unique_ptr<NeedMSEDataEvent>(
                    static_cast<NeedMSEDataEvent*>(owned.release())));
            return;
        }
        if (event->type() == UVAEvent::PlaybackFinished)
            ++finished;
        if (event->type() == UVAEvent::CancelDataRequestsAsync) {
            const std::lock_guard lock(m_mutex);
            m_cancel.reset(static_cast<UVAAsyncEvent*>(owned.release()));
        }
        if (event->type() == UVAEvent::SeekCompletedEx)
            outcome = static_cast<int>(static_cast<SeekCompletedExEvent*>(event)->outcome);
    }
    std::unique_ptr<UVAAsyncEvent> takeCancel() {
        const std::lock_guard lock(m_mutex);
        return std::move(m_cancel);
    }

    Answer answer; ///< set before the backend can ask
    std::atomic<int> needs{0}, finished{0}, outcome{-1};

private:
    std::mutex m_mutex; // guards m_cancel
    std::unique_ptr<UVAAsyncEvent> m_cancel;
};

using Samples = std::vector<UVASample*>;

class MediaSourceTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        setenv("NOX_GST_STANDALONE", "1", 1);
        ASSERT_TRUE(BackendInit(nullptr));
        RecordingSinks::install();
    }
    void TearDown() override {
        owner.reset();
        EXPECT_EQ(TestSample::alive, 0) << "samples were lost";
    }

    void open(bool withAudio = true) {
        RecordingSinks::clear();
        UVABackend::SourceDescription* sources[] = {
            new Source(videoId, "video/x-vp8", 60000),
            withAudio ? new Source(audioId, "audio/x-plain") : nullptr, nullptr};
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
    Samples videoSamples(double from, int count) {
        Samples samples;
        for (int i = 0; i < count; ++i)
            samples.push_back(new TestSample(from + i * frame, frame, &video));
        return samples;
    }
    /// Until both appsrcs have asked: what is written before they start is lost.
    void playUntilAsked(int sources) {
        backend->play();
        ASSERT_TRUE(waitUntil([&] { return client.needs >= sources; }));
    }
    bool seek(double target) {
        client.outcome = -1;
        if (backend->setPosition(target) != 1)
            return false;
        const auto event = client.takeCancel();
        backend->eventCompleted(event.get(), true);
        return waitUntil([&] { return client.outcome >= 0; });
    }

    const UVAStreamConfig video = videoConfig();
    const UVAStreamConfig audio = audioConfig();
    FeedingClient client;
    std::unique_ptr<GstNoxBackend> owner =
        std::make_unique<GstNoxBackend>(UVABackend::VideoElement, &client);
    GstNoxBackend* backend = owner.get(); // also while it is being destroyed
};

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
    ASSERT_TRUE(waitUntil([&] { return client.finished == 1; }));

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
    UVAStreamConfig mp3;
    mp3.codec = UVAStreamConfig::CODEC_MP3;
    mp3.sampleRate = 44100;
    mp3.channels = 2;
    for (const int count : {10, 0}) {
        RecordingSinks::clear();
        client.needs = client.finished = 0;
        owner = std::make_unique<GstNoxBackend>(UVABackend::VideoElement, &client);
        backend = owner.get();
        UVABackend::SourceDescription* sources[] = {new Source(audioId, "audio/mpeg"), nullptr};
        ASSERT_EQ(backend->initBackend("", sources, false, false), UVABackend::Success);
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
        ASSERT_TRUE(waitUntil([&] { return client.finished == 1; })) << count;
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
    client.needs = 0;
    ASSERT_TRUE(seek(10));
    EXPECT_EQ(client.outcome, 0);
    ASSERT_TRUE(waitUntil([&] { return client.needs > 0; })) << "it asks again";
    EXPECT_NEAR(backend->getPosition().position, 10, 0.001);

    // A sample without payload is where playback starts; what is before it is decoded only.
    write(videoId, {new TestSample(10, 0, nullptr, 0)});
    write(videoId, videoSamples(9.8, 6));
    writeEnd(videoId);
    ASSERT_TRUE(waitUntil([&] { return client.finished == 1; }));
    const auto seen = RecordingSinks::of(videoSink);
    ASSERT_GT(seen.buffers.size(), 5U);
    EXPECT_EQ(seen.buffers.back().segmentStart, 10 * GST_SECOND);
    EXPECT_EQ(seen.buffers[5].pts, 10 * GST_SECOND) << "the sink clips what is before";
    EXPECT_EQ(seen.caps.size(), 1U);

    // After the end, and back to the beginning.
    ASSERT_TRUE(seek(0));
    EXPECT_EQ(client.outcome, 0);
    client.finished = 0;
    write(videoId, videoSamples(0, 2));
    writeEnd(videoId);
    EXPECT_TRUE(waitUntil([&] { return client.finished == 1; }));
    EXPECT_EQ(RecordingSinks::of(videoSink).buffers.back().segmentStart, 0U);
}

TEST_F(MediaSourceTest, ManySeeksInARowEachComplete) {
    open();
    client.answer = [&](std::unique_ptr<NeedMSEDataEvent> event) {
        const auto id = event->sourceId;
        const auto* config = id == videoId ? &video : &audio;
        write(id, {new TestSample(0, frame, config), new TestSample(frame, frame, config)});
    };
    playUntilAsked(2);
    unsigned int random = 1;
    for (int i = 0; i < 200; ++i) {
        random = random * 1103515245U + 12345U;
        ASSERT_TRUE(seek(random % 60000 / 1000.0)) << i;
        ASSERT_EQ(client.outcome, 0) << i;
    }
    EXPECT_EQ(backend->setPosition(-1), 0);
    EXPECT_EQ(client.outcome, 2) << "refused, and said so";
}

TEST_F(MediaSourceTest, SeeksAtOddMoments) {
    open();
    const auto feedBoth = [&](double from) {
        client.needs = 0;
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
    ASSERT_TRUE(seek(5)) << "while it pre-rolls";
    feedBoth(5);
    EXPECT_TRUE(arrived(5));

    // A second seek before the first is made: one is made, to the newer target.
    client.outcome = -1;
    ASSERT_EQ(backend->setPosition(7), 1);
    const auto first = client.takeCancel();
    ASSERT_EQ(backend->setPosition(8), 1);
    const auto second = client.takeCancel();
    backend->eventCompleted(first.get(), true);
    backend->eventCompleted(second.get(), true);
    EXPECT_EQ(client.outcome, 0);
    feedBoth(8);
    EXPECT_TRUE(arrived(8));
    EXPECT_NEAR(backend->getPosition().position, 8, 2 * frame);

    // One source starves; the end of one is queued when the seek comes.
    ASSERT_TRUE(seek(20));
    write(videoId, videoSamples(20, 2));
    writeEnd(videoId);
    ASSERT_TRUE(seek(59.96)) << "near the end";
    feedBoth(59.96);
    EXPECT_TRUE(arrived(59.96));
    writeEnd(videoId);
    writeEnd(audioId);
    EXPECT_TRUE(waitUntil([&] { return client.finished == 1; }));
}

TEST_F(MediaSourceTest, HostileSamplesAndEventsLoseNothing) {
    LogCapture log(gst_backend_debug);
    EXPECT_EQ(backend->attachSource(nullptr), UVABackend::Failure);
    EXPECT_EQ(backend->attachSource(new Source(9, "text/plain")), UVABackend::Failure);
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
    ASSERT_TRUE(waitUntil([&] { return client.finished == 1; }));
    write(videoId, videoSamples(50, 1));
    EXPECT_EQ(RecordingSinks::of(audioSink).count, 0U);
}

TEST_F(MediaSourceTest, OneIdTwiceAndTwoSourcesOfAKind) {
    LogCapture log(gst_backend_debug);
    open();
    playUntilAsked(2);
    write(audioId, {new TestSample(0, 0.02, &audio), new TestSample(0.02, 0.02, &audio)});
    client.needs = 0;
    ASSERT_EQ(backend->attachSource(new Source(videoId, "video/x-vp8")), UVABackend::Success);
    EXPECT_TRUE(log.has("ERROR ***E: source already exists - deleting..."));
    ASSERT_TRUE(waitUntil([&] { return client.needs >= 1; })) << "the new one runs";
    write(videoId, videoSamples(0, 2));
    EXPECT_TRUE(waitUntil([&] { return RecordingSinks::count(videoSink) == 2; }));

    // The second source of a kind takes the first one's place: alone it ends playback.
    client.needs = 0;
    ASSERT_EQ(backend->attachSource(new Source(3, "audio/x-plain")), UVABackend::Success);
    EXPECT_TRUE(log.has("WARN found running component of type 'audio' (audio_2): stop it"));
    ASSERT_TRUE(waitUntil([&] { return client.needs >= 1; }));
    write(3, {new TestSample(0, 0.02, &audio)});
    writeEnd(3);
    writeEnd(videoId);
    EXPECT_TRUE(waitUntil([&] { return client.finished == 1; }));
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
        RecordingSinks::clear();
        client.needs = 0;
        owner = std::make_unique<GstNoxBackend>(UVABackend::VideoElement, &client);
        backend = owner.get();
        // Of a MIME type that finds no parser: the caps arrive as they are made.
        UVABackend::SourceDescription* sources[] = {new Source(videoId, "video/x-plain"), nullptr};
        ASSERT_EQ(backend->initBackend("", sources, false, false), UVABackend::Success);
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
    constexpr int total = 2 * 3600 * 25;
    constexpr int limit = 200000 / 100 + 2 * 30;
    open(false);
    RecordingSinks::clear(false);
    int next = 0;
    int most = 0;
    client.answer = [&](std::unique_ptr<NeedMSEDataEvent> event) {
        if (next >= total) {
            writeEnd(event->sourceId);
            return;
        }
        const auto samples = videoSamples(next * frame, event->samplesRequested);
        next += event->samplesRequested;
        most = std::max(most, TestSample::alive.load());
        std::copy(
            samples.begin(), samples.end(),
            event->samples = new UVASample* [samples.size() + 1] {});
        backend->writeData(event.release(), 0, UVABackend::Data);
    };
    backend->play();
    const bool ended = waitUntil([&] { return client.finished == 1; }, std::chrono::seconds(120));
    owner.reset(); // nobody asks any more
    EXPECT_TRUE(ended);
    EXPECT_EQ(RecordingSinks::count(videoSink), static_cast<std::size_t>(total));
    EXPECT_LE(most, limit);
}

TEST_F(MediaSourceTest, EveryOperationWorksFromInsideTheEvent) {
    open();
    std::atomic<int> answered{0};
    client.answer = [&](std::unique_ptr<NeedMSEDataEvent> event) {
        std::vector<UVABackend::TimeRange> ranges;
        backend->getBufferedTimeRanges(event->sourceId, {}, ranges);
        backend->getPosition();
        backend->setKeySystem(UVAKeySystemConfig{});
        GstNoxBackend::describeAll();
        const auto id = event->sourceId;
        write(id, {new TestSample(0, frame, id == videoId ? &video : &audio)});
        ++answered;
    };
    backend->play();
    EXPECT_TRUE(waitUntil([&] { return answered > 20; }));
    owner.reset(); // nobody asks any more
}

// A writer, the shell and the streaming threads against sources that come and go.
TEST_F(MediaSourceTest, SourcesComeAndGoUnderLoad) {
    const int rounds = 1000;
    open();
    std::atomic<bool> done{false};
    client.answer = [&](std::unique_ptr<NeedMSEDataEvent> event) {
        const auto id = event->sourceId;
        write(id, {new TestSample(0, frame, id == videoId ? &video : &audio)});
    };
    backend->play();
    std::thread writer([&] {
        while (!done) {
            write(audioId, {new TestSample(0, frame, &audio)});
            std::vector<UVABackend::TimeRange> ranges;
            backend->getBufferedTimeRanges(audioId, {}, ranges);
            GstNoxBackend::describeAll();
        }
    });
    steady_clock::duration longest{};
    for (int i = 0; i < rounds; ++i) {
        const auto start = steady_clock::now();
        EXPECT_TRUE(backend->removeSource(audioId));
        longest = std::max(longest, steady_clock::now() - start);
        EXPECT_EQ(backend->attachSource(new Source(audioId, "audio/x-plain")), UVABackend::Success);
        if (i % 50 == 0) {
            backend->releaseResources(UVABackend::AllResources);
            backend->removeSource(videoId);
            backend->attachSource(new Source(videoId, "video/x-vp8"));
            backend->play();
        }
    }
    done = true;
    writer.join();
    EXPECT_LT(longest, std::chrono::seconds(1));
}

// Whatever the streaming threads are in: not started, asking, being answered, at the end.
TEST_F(MediaSourceTest, BackendsAreDestroyedAtAnyTime) {
    steady_clock::duration longest{};
    for (int i = 0; i < 200; ++i) {
        owner = std::make_unique<GstNoxBackend>(UVABackend::VideoElement, &client);
        backend = owner.get();
        client.needs = 0;
        client.answer = [&, i](std::unique_ptr<NeedMSEDataEvent> event) {
            const auto id = event->sourceId;
            if (i % 3 == 0)
                writeEnd(id);
            else
                write(id, {new TestSample(0, frame, id == videoId ? &video : &audio)});
        };
        open();
        if (i % 5 != 0)
            backend->play();
        if (i % 2 == 0 && i % 5 != 0)
            waitUntil([&] { return client.needs > i % 7; }, std::chrono::milliseconds(50));
        if (i % 11 == 0)
            backend->setPosition(1);
        const auto start = steady_clock::now();
        owner.reset();
        longest = std::max(longest, steady_clock::now() - start);
    }
    EXPECT_LT(longest, std::chrono::seconds(1));
}

// ---- encrypted

class FakeDrm final : public UVADRMBackend {
public:
    class Decrypter final : public UVADRMDecrypter {
    public:
        explicit Decrypter(FakeDrm& drm) : m_drm(drm) {}
        int decrypt(const Input& input, const Output& output) override {
            ++m_drm.decrypts;
            EXPECT_TRUE(waitUntil([this] { return !m_drm.holds; }));
            if (m_drm.fails)
                return 1;
            for (std::size_t i = 0; i < input.size; ++i)
                output.data[i] = input.data[i] ^ 0xFF;
            return 0;
        }

    private:
        FakeDrm& m_drm;
    };

    int createDecrypter(UVADRMDecrypter*& decrypter, const std::uint8_t* keyId, std::size_t size,
                        std::uint64_t value) override {
        lastValue = value;
        if (size != 1 || *keyId == 0)
            return 0;
        ++created;
        decrypter = new Decrypter(*this);
        return 1;
    }
    void releaseDecrypter(UVADRMDecrypter* decrypter) override {
        ++released;
        delete decrypter;
    }
    void* getInterface(const char*) override { return nullptr; }

    std::atomic<bool> fails{false}, holds{false};
    std::atomic<int> created{0}, released{0}, decrypts{0};
    std::atomic<std::uint64_t> lastValue{0};
};

class ProtectedSourceTest : public MediaSourceTest {
protected:
    void offer(FakeDrm& drm) {
        UVA_OfferDRMBackend("org.test", &drm);
        UVAKeySystemConfig config;
        config.keySystemId = "org.test";
        backend->setKeySystem(config);
    }
    TestSample* encrypted(std::uint8_t key, std::vector<UVASample::Subsample> map) {
        auto* sample = new TestSample(0, frame, &video);
        sample->key = {key};
        sample->map = std::move(map);
        return sample;
    }
    std::vector<guint8> received(std::size_t index) {
        waitUntil([&] { return RecordingSinks::count(videoSink) > index; });
        return RecordingSinks::of(videoSink).buffers.at(index).bytes;
    }
};

TEST_F(ProtectedSourceTest, RangesAreDecryptedOrTheSampleStaysEncrypted) {
    FakeDrm drm;
    LogCapture log(gst_backend_debug);
    open(false);
    playUntilAsked(1);
    write(videoId, {encrypted(1, {{10, 90}})});
    EXPECT_EQ(received(0).at(50), 0x55) << "no key system yet";
    EXPECT_TRUE(log.has("ERROR ***E: no DRM backend set"));

    UVA_OfferDRMBackend("org.test", &drm);
    UVAKeySystemConfig config;
    config.keySystemId = "org.test";
    config.client = 4711;
    backend->setKeySystem(config);
    write(videoId, {encrypted(1, {{10, 40}, {50, 0}}), encrypted(1, {{0, 100}}),
                    encrypted(2, {{0, 100}}), encrypted(0, {{0, 100}}), encrypted(1, {{0, 101}}),
                    encrypted(1, {{60, 10}, {0xFFFFFFE0, 20}}), encrypted(1, {{16, 0}})});
    const auto first = received(1);
    EXPECT_EQ(first.at(9), 0x55);
    EXPECT_EQ(first.at(10), 0xAA);
    EXPECT_EQ(first.at(49), 0xAA);
    EXPECT_EQ(first.at(50), 0x55);
    EXPECT_EQ(received(2).at(0), 0xAA);
    EXPECT_EQ(received(3).at(0), 0xAA);
    for (const std::size_t refused : {4U, 5U, 6U}) // no such key, ranges past the end
        EXPECT_EQ(received(refused), std::vector<guint8>(100, 0x55)) << refused;
    EXPECT_EQ(received(7).at(0), 0x55) << "nothing encrypted in it";
    EXPECT_TRUE(log.has("ERROR decryption failed"));
    EXPECT_EQ(drm.created, 3) << "one a change of the key";
    EXPECT_EQ(drm.lastValue, 4711U);
    owner.reset();
    EXPECT_EQ(drm.released, 3);
    UVA_OfferDRMBackend("org.test", nullptr);
}

TEST_F(ProtectedSourceTest, NothingGoesUnderAThreadThatWrites) {
    for (const bool all : {false, true}) {
        FakeDrm drm;
        drm.holds = true;
        offer(drm);
        std::atomic<bool> isAsked{false};
        client.answer = [&](auto) { isAsked = true; };
        open(false);
        backend->play();
        ASSERT_TRUE(waitUntil([&] { return isAsked.load(); }));
        std::thread writing([&] {
            write(videoId, {encrypted(1, {{0, 100}}), encrypted(1, {{0, 100}})});
        });
        ASSERT_TRUE(waitUntil([&] { return drm.decrypts == 1; }));
        std::atomic<bool> isGone{false};
        std::thread removing([&] {
            if (all)
                owner.reset();
            else
                backend->removeSource(videoId);
            isGone = true;
        });
        EXPECT_FALSE(waitUntil([&] { return isGone.load(); }, std::chrono::milliseconds(200)));
        drm.holds = false;
        writing.join();
        removing.join();
        EXPECT_EQ(drm.decrypts, 1);
        EXPECT_EQ(drm.released, 1);
        UVA_OfferDRMBackend("org.test", nullptr);
    }
}

TEST_F(ProtectedSourceTest, AReleaseWaitsForOneSample) {
    FakeDrm drm;
    drm.holds = true;
    offer(drm);
    client.answer = [&](auto) { // on the streaming thread
        if (drm.decrypts == 0)
            write(videoId,
                  {encrypted(1, {{0, 100}}), encrypted(1, {{0, 100}}), encrypted(1, {{0, 100}})});
    };
    open(false);
    backend->play();
    ASSERT_TRUE(waitUntil([&] { return drm.decrypts == 1; }));
    std::thread releasing([&] { owner.reset(); });
    EXPECT_TRUE(waitUntil([] { return TestSample::alive == 1; })) << "the others are dropped";
    drm.holds = false;
    releasing.join();
    EXPECT_EQ(drm.decrypts, 1);
    EXPECT_EQ(drm.released, 1);
    UVA_OfferDRMBackend("org.test", nullptr);
}

} // namespace
