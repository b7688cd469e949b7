// Seeks that meet a request for a decoder whose answer is late: the client's, the main system's, or
// both. Whatever comes in between, playback ends with picture and sound, and nobody who has
// answered is asked twice.

#include "host/backend_library.h"
#include "host/media_demuxer.h"
#include "support/media_host.h"
#include "support/sink_watch.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <mqueue.h>

#include <cstdio>
#include <deque>
#include <random>

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using support::SinkWatch;
using support::TestSource;

constexpr double target = 1.0; // seconds, of two
const std::string clip = TEST_MEDIA_DIR "/h264-aac.mp4";

/// The main system, told how late to be.
class MainSystem {
public:
    MainSystem() : m_commands(popen(ZANT_MAINSYS " --quiet", "w"), pclose) {
        EXPECT_TRUE(support::waitUntil(serves));
    }
    ~MainSystem() { say("quit"); }
    void say(const std::string& command) {
        std::fprintf(m_commands.get(), "%s\n", command.c_str());
        std::fflush(m_commands.get());
    }

private:
    static bool serves() {
        const mqd_t queue = mq_open("/BplayerAppIfUlDestFunc", O_WRONLY);
        return queue >= 0 && mq_close(queue) == 0;
    }

    const std::unique_ptr<FILE, int (*)(FILE*)> m_commands;
};

/// A host that completes events on its own thread, decoder requests late, and feeds samples from
/// inside the event that asks for them.
class Host {
public:
    Host(const host::BackendLibrary& library, milliseconds lateness)
        : m_library(library), m_lateness(lateness),
          m_backend(library.request(UVABackend::VideoElement, &m_client)) {}
    ~Host() { m_library.release(m_backend); }

    void openUrl() {
        UVABackend::SourceDescription* sources[] = {new TestSource("file://" + clip), nullptr};
        ASSERT_EQ(m_backend->initBackend("test", sources, false), UVABackend::Success);
    }
    void openSamples() {
        auto media = host::openMedia(clip, m_never);
        ASSERT_EQ(media.streams.size(), 2U) << media.error;
        m_streams = std::move(media.streams);
        std::vector<UVABackend::SourceDescription*> sources;
        for (std::size_t i = 0; i < m_streams.size(); ++i)
            sources.push_back(new TestSource(static_cast<unsigned int>(i) + 1,
                                             m_streams[i]->info().mimeType, 2000));
        sources.push_back(nullptr);
        ASSERT_EQ(m_backend->initBackend("test", sources.data(), false), UVABackend::Success);
    }
    UVAMediaBackend& backend() { return *m_backend; }

    /// The host's thread, until the predicate holds or far too much time has passed.
    template <typename Predicate>
    bool runUntil(Predicate predicate, milliseconds bound = std::chrono::seconds(60)) {
        return support::waitUntil(
            [&] {
                completeWhatIsDue();
                return predicate();
            },
            bound);
    }
    void runFor(milliseconds time) {
        runUntil([] { return false; }, time);
    }
    int count(UVAEvent::Type type) { return m_client.count(type); }

private:
    struct Due {
        steady_clock::time_point time;
        const UVAAsyncEvent* event;
    };

    /// The client keeps every event, also those that are completed later.
    void hear(UVAEvent& event) {
        const bool isRequest = event.type() == UVAEvent::BackendResourceRequestAsync;
        const bool isCancel = event.type() == UVAEvent::CancelDataRequestsAsync;
        unsigned int seeks = 0;
        {
            const std::lock_guard lock(m_mutex);
            seeks = m_seeks += isCancel ? 1 : 0;
            if (isRequest || isCancel)
                m_due.push_back({steady_clock::now() + (isRequest ? m_lateness : milliseconds(0)),
                                 static_cast<UVAAsyncEvent*>(&event)});
        }
        if (event.type() == UVAEvent::NeedMSEData)
            feed(static_cast<NeedMSEDataEvent&>(event), seeks);
    }
    bool isVoid(unsigned int seeks) {
        const std::lock_guard lock(m_mutex);
        return seeks != m_seeks;
    }

    /// A request from before a seek is not answered.
    void feed(const NeedMSEDataEvent& request, unsigned int seeks) {
        const unsigned int id = request.sourceId;
        const std::lock_guard lock(m_streamMutex);
        if (isVoid(seeks))
            return;
        auto batch = m_streams[id - 1]->read(static_cast<std::size_t>(request.samplesRequested));
        if (!batch.samples.empty()) {
            auto* const data = new NeedMSEDataEvent(id, request.samplesRequested);
            data->samples = new UVASample* [batch.samples.size() + 1] {};
            std::transform(batch.samples.begin(), batch.samples.end(), data->samples,
                           [](auto& sample) { return sample.release(); });
            m_backend->writeData(data, 0, UVABackend::Data);
        }
        if (batch.ended)
            m_backend->writeData(new NeedMSEDataEvent(id, 0), 0, UVABackend::EndOfStream);
    }

    void completeWhatIsDue() {
        for (;;) {
            const UVAAsyncEvent* event = nullptr;
            {
                const std::lock_guard lock(m_mutex);
                const auto due = std::find_if(m_due.begin(), m_due.end(), [](const Due& row) {
                    return row.time <= steady_clock::now();
                });
                if (due == m_due.end())
                    return;
                event = due->event;
                m_due.erase(due);
            }
            if (event->type() == UVAEvent::CancelDataRequestsAsync) {
                const std::lock_guard lock(m_streamMutex);
                for (auto& stream : m_streams)
                    stream->seek(static_cast<const CancelDataRequestsAsyncEvent&>(*event).position);
            }
            m_backend->eventCompleted(event, true);
        }
    }

    const host::BackendLibrary& m_library;
    const milliseconds m_lateness;
    const std::atomic<bool> m_never{false};
    std::mutex m_streamMutex; // guards the streams, and what is read until it is written
    std::vector<std::unique_ptr<host::SampleStream>> m_streams;
    std::mutex m_mutex; // guards the two below; a leaf
    unsigned int m_seeks = 0;
    std::deque<Due> m_due;
    support::RecordingClient m_client{[this](UVAEvent& event) { hear(event); }};
    UVAMediaBackend* const m_backend; // last: it may deliver at once
};

class LateAnswerTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        gst_init(nullptr, nullptr);
        SinkWatch::instance();
        mainSystem = new MainSystem;
        const auto loaded = host::BackendLibrary::load("");
        ASSERT_NE(loaded.library, nullptr) << loaded.error;
        library = loaded.library;
    }
    static void TearDownTestSuite() { delete mainSystem; }

    /// A seek at a moment between nothing and all the answers.
    void playAndSeek(bool fed, milliseconds client, milliseconds main) {
        mainSystem->say("delay " + std::to_string(main.count() / 1000.0));
        mainSystem->say("release both"); // what one run was granted the next asks for again
        SinkWatch::instance().restart({false, false, false});
        Host host(*library, client);
        ASSERT_NO_FATAL_FAILURE(fed ? host.openSamples() : host.openUrl());
        host.backend().play();
        std::uniform_int_distribution<long long> moment(0, 30 + (client + 2 * main).count());
        const milliseconds before(moment(m_random));
        SCOPED_TRACE("seek after " + std::to_string(before.count()) + " ms");
        host.runFor(before);
        host.backend().setPosition(target);
        ASSERT_TRUE(host.runUntil([&] { return host.count(UVAEvent::SeekCompletedEx) == 1; }));

        EXPECT_TRUE(host.runUntil([&] { return host.count(UVAEvent::PlaybackFinished) > 0; }));
        const auto video = SinkWatch::instance().video().buffers;
        const auto audio = SinkWatch::instance().audio().buffers;
        const auto after = [](const support::Rendered& rendered) {
            return rendered.position >= target;
        };
        EXPECT_GE(std::count_if(video.begin(), video.end(), after), 24);
        EXPECT_GE(std::count_if(audio.begin(), audio.end(), after), 40);
        EXPECT_EQ(host.count(UVAEvent::BackendResourceRequestAsync), fed ? 0 : 1);
        EXPECT_EQ(host.count(UVAEvent::DecodeError), 0);
    }

    static MainSystem* mainSystem;
    static std::shared_ptr<host::BackendLibrary> library;
    std::mt19937 m_random{std::random_device{}()};
};
MainSystem* LateAnswerTest::mainSystem = nullptr;
std::shared_ptr<host::BackendLibrary> LateAnswerTest::library;

TEST_F(LateAnswerTest, ASeekMeanwhileEndsWithPictureAndSound) {
    const struct {
        int client, main; // milliseconds
    } rows[] = {{0, 0}, {5, 0}, {20, 5}, {100, 20}, {0, 100}, {20, 100}, {1500, 0}, {0, 1500}};
    for (const auto& row : rows)
        for (const bool fed : {false, true}) {
            SCOPED_TRACE((fed ? "samples, " : "URL, ") + std::to_string(row.client) + " ms, " +
                         std::to_string(row.main) + " ms");
            playAndSeek(fed, milliseconds(row.client), milliseconds(row.main));
        }
}

} // namespace
