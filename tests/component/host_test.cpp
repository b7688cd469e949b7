#include "host/backend_library.h"
#include "host/event_loop.h"
#include "host/media_element.h"

#include "support/wait_until.h"
#include "uva/uva_client.h"
#include "uva/uva_event.h"

#include "fake_backend/fake_backend.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <dlfcn.h>
#include <limits>
#include <mutex>
#include <utility>

namespace {

using host::MediaElement;
using host::SeekOutcome;
using host::State;
using std::chrono::milliseconds;
using support::SeekBehaviour;
using support::waitUntil;

constexpr auto longBound = std::chrono::seconds(20);

class Recorder final : public host::Observer {
public:
    void onRecord(const host::Record& record) override {
        const std::lock_guard lock(m_mutex);
        m_names.push_back(record.name);
    }
    void onStatus(const host::Status& status) override {
        const std::lock_guard lock(m_mutex);
        m_status = status;
    }
    void onSeek(double target, SeekOutcome outcome) override {
        const std::lock_guard lock(m_mutex);
        m_seeks.emplace_back(target, outcome);
    }

    void onKeyNeeded(const host::KeyBytes&) override {}

    using Seeks = std::vector<std::pair<double, SeekOutcome>>;
    Seeks seeks() {
        const std::lock_guard lock(m_mutex);
        return m_seeks;
    }
    host::Status status() {
        const std::lock_guard lock(m_mutex);
        return m_status;
    }
    std::size_t count() {
        const std::lock_guard lock(m_mutex);
        return m_names.size();
    }

private:
    std::mutex m_mutex;
    std::vector<std::string> m_names;
    host::Status m_status;
    Seeks m_seeks;
};

class HostTest : public testing::Test {
protected:
    void SetUp() override {
        auto loaded = host::BackendLibrary::load(FAKE_BACKEND);
        ASSERT_NE(loaded.library, nullptr) << loaded.error;
        m_library = loaded.library;
        void* handle = dlopen(FAKE_BACKEND, RTLD_NOW | RTLD_NOLOAD);
        const auto find =
            reinterpret_cast<support::FakeControl* (*)()>(dlsym(handle, "fakeBackendControl"));
        m_fake = find();
        m_fake->giveNothing = m_fake->refuseMedia = m_fake->unblock = false;
        m_fake->seek = SeekBehaviour::Complete;
        m_callsBefore = m_fake->calls().size();
        m_options.tick = milliseconds(5);
        m_options.noProgress = longBound;
    }

    void makeElement() {
        m_element.emplace(m_library, m_loop, m_recorder, m_options);
        m_element->open("file:///clip");
        m_element->play();
    }
    void startPlaying() {
        makeElement();
        ASSERT_TRUE(waitUntil([&] { return m_recorder.status().state == State::Buffering; }));
        m_fake->position = 1;
        ASSERT_TRUE(waitForState(State::Playing));
    }
    bool waitForState(State state) {
        return waitUntil([&] { return m_recorder.status().state == state; });
    }
    void waitForTicks(int count) {
        std::atomic<int> ticks{0};
        const auto timer = m_loop->startTimer(m_options.tick, [&] { ++ticks; });
        EXPECT_TRUE(waitUntil([&] { return ticks >= count; }));
        m_loop->cancelTimer(timer);
        m_element->capture().wait(); // no tick is under way
    }
    void deliver(UVAEvent* event) { m_fake->client.load()->deliverEvent(event); }
    std::vector<std::string> calls() {
        auto all = m_fake->calls();
        return {all.begin() + static_cast<std::ptrdiff_t>(m_callsBefore), all.end()};
    }
    bool called(const std::string& call) {
        const auto all = calls();
        return std::find(all.begin(), all.end(), call) != all.end();
    }

    std::shared_ptr<const host::BackendLibrary> m_library;
    std::shared_ptr<host::EventLoop> m_loop = std::make_shared<host::EventLoop>();
    support::FakeControl* m_fake = nullptr;
    std::size_t m_callsBefore = 0;
    MediaElement::Options m_options;
    Recorder m_recorder;
    std::optional<MediaElement> m_element;
};

TEST(BackendLibrary, SaysWhatIsWrongAndWhatToDo) {
    const struct {
        const char* path;
        const char* text;
    } cases[] = {
        {"/nowhere/libnone.so", "/nowhere/libnone.so: cannot open shared object file"},
        {HALF_BACKEND, "does not export UVA_ReleaseBackend"},
        {"libm.so.6", "does not export UVA_RequestBackend"},
    };
    for (const auto& row : cases) {
        const auto loaded = host::BackendLibrary::load(row.path);
        EXPECT_EQ(loaded.library, nullptr);
        EXPECT_NE(loaded.error.find(row.text), std::string::npos) << loaded.error;
        EXPECT_NE(loaded.error.find("--backend"), std::string::npos) << loaded.error;
    }
}

TEST_F(HostTest, FailsWithAReason) {
    const struct {
        const char* what;
        std::function<void()> prepare;
        std::function<void()> happen;
        const char* reason;
    } cases[] = {
        {"no backend", [&] { m_fake->giveNothing = true; }, [] {}, "gave no backend"},
        {"media refused", [&] { m_fake->refuseMedia = true; }, [] {}, "initBackend answered 2"},
        {"nothing moves", [&] { m_options.noProgress = milliseconds(60); }, [] {},
         "nothing was played within"},
        {"decoder refused", [] {}, [&] { deliver(new DecodeErrorEvent(2)); }, "decoder refused"},
        {"network", [] {}, [&] { deliver(new BufferingNetworkErrorEvent(1)); }, "fetched"},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.what);
        SetUp();
        row.prepare();
        m_element.emplace(m_library, m_loop, m_recorder, m_options);
        m_element->open("file:///clip");
        m_element->play();
        m_element->capture().wait(); // the backend is there, if it comes at all
        row.happen();
        EXPECT_TRUE(waitForState(State::Failed));
        EXPECT_NE(m_recorder.status().reason.find(row.reason), std::string::npos)
            << m_recorder.status().reason;
        m_element.reset();
        EXPECT_EQ(m_fake->living, 0);
        m_recorder.onStatus({});
    }
}

TEST_F(HostTest, NoticesAStall) {
    m_options.noProgress = milliseconds(500);
    startPlaying();
    EXPECT_TRUE(waitForState(State::Failed));
    EXPECT_NE(m_recorder.status().reason.find("stalled at 1.0 s"), std::string::npos);
}

TEST_F(HostTest, WaitsPatientlyWhilePaused) {
    m_options.noProgress = milliseconds(200);
    startPlaying();
    m_element->pause();
    ASSERT_TRUE(waitForState(State::Paused));
    waitForTicks(80);
    EXPECT_EQ(m_recorder.status().state, State::Paused);
}

TEST_F(HostTest, AnswersADecoderRequestWithinItsDelivery) {
    for (const auto policy : {host::ResourcePolicy::Grant, host::ResourcePolicy::Deny}) {
        m_options.resources = policy;
        startPlaying();
        const std::size_t before = calls().size();
        deliver(new BackendResourceRequestAsyncEvent(false));
        ASSERT_GT(calls().size(), before);
        EXPECT_EQ(calls().back(), policy == host::ResourcePolicy::Grant ? "granted" : "denied");
        m_element.reset();
        m_recorder.onStatus({});
    }
}

TEST_F(HostTest, KeepsOneSeekUnderWayAndTheNewestWaiting) {
    startPlaying();
    m_fake->seek = SeekBehaviour::NeverAnswer;
    m_element->seek(10);
    ASSERT_TRUE(waitUntil([&] { return called("cancelled"); }));
    m_element->seek(20);
    m_element->seek(30);
    ASSERT_TRUE(waitUntil([&] { return m_recorder.seeks().size() == 1; }));
    m_fake->seek = SeekBehaviour::Complete;
    deliver(new SeekCompletedExEvent(SeekCompletedExEvent::SeekOutcome::Succeeded));
    ASSERT_TRUE(waitUntil([&] { return m_recorder.seeks().size() == 3; }));

    const Recorder::Seeks expected = {
        {20, SeekOutcome::Replaced}, {10, SeekOutcome::Succeeded}, {30, SeekOutcome::Succeeded}};
    EXPECT_EQ(m_recorder.seeks(), expected);
    EXPECT_FALSE(called("seek 20"));
    EXPECT_FALSE(called("cancelled too early"));
    ASSERT_TRUE(waitForState(State::Buffering));
    m_fake->position = 30.5;
    EXPECT_TRUE(waitForState(State::Playing));
}

TEST_F(HostTest, HoldsASeekBackUntilSomethingWasPlayed) {
    makeElement();
    m_element->seek(10);
    m_element->capture().wait();
    EXPECT_FALSE(called("seek 10"));
    m_fake->position = 0.1;
    EXPECT_TRUE(waitUntil([&] { return called("seek 10"); }));
}

TEST_F(HostTest, AnswersEverySeekThatCannotBe) {
    startPlaying();
    m_element->seek(std::numeric_limits<double>::quiet_NaN());
    m_fake->seek = SeekBehaviour::Refuse;
    m_element->seek(7);
    ASSERT_TRUE(waitUntil([&] { return m_recorder.seeks().size() == 2; }));
    EXPECT_EQ(m_recorder.seeks()[0].second, SeekOutcome::Failed);
    EXPECT_EQ(m_recorder.seeks()[1], std::make_pair(7.0, SeekOutcome::Failed));
    m_fake->seek = SeekBehaviour::NeverAnswer;
    m_element->seek(8);
    m_element->seek(9);
    m_element->release(longBound);
    ASSERT_EQ(m_recorder.seeks().size(), 4U);
    EXPECT_EQ(m_recorder.seeks()[2], std::make_pair(8.0, SeekOutcome::Aborted));
    EXPECT_EQ(m_recorder.seeks()[3], std::make_pair(9.0, SeekOutcome::Aborted));
}

TEST_F(HostTest, GivesUpASeekThatIsNeverAnswered) {
    m_options.noProgress = milliseconds(500);
    m_fake->seek = SeekBehaviour::NeverAnswer;
    makeElement();
    m_element->seek(10);
    ASSERT_TRUE(waitForState(State::Buffering));
    m_fake->position = 1;
    EXPECT_TRUE(waitForState(State::Failed));
    EXPECT_NE(m_recorder.status().reason.find("seek to 10.0 s"), std::string::npos);
}

/// An end and a seek, in every order. The media is 100 s long, if that is known.
TEST_F(HostTest, TellsTheEndBehindASeekFromTheOneBeforeIt) {
    const auto end = [&] { deliver(new PlaybackFinishedEvent(0, 0)); };
    const auto completed = [&] {
        deliver(new SeekCompletedExEvent(SeekCompletedExEvent::SeekOutcome::Succeeded));
    };
    const auto at = [&](double position) { return [&, position] { m_fake->position = position; }; };
    const auto stands = [&] { waitForTicks(100); }; // longer than an end is doubted
    const auto moves = [&] {
        for (int i = 0; i < 100; ++i) {
            m_fake->position = m_fake->position + 0.02;
            waitForTicks(1);
        }
    };
    using Steps = std::vector<std::function<void()>>;
    const struct {
        const char* what;
        double duration; // 0: unknown
        double target;
        Steps steps; // once the seek has begun
        bool ends;
    } rows[] = {
        {"where the media ends", 100, 100, {at(100), completed, end}, true},
        {"there, before the seek's answer", 100, 100, {at(100), end, completed}, true},
        {"beyond, length unknown", 0, 150, {completed, at(100), end}, true},
        {"shortly behind the target", 0, 99.5, {completed, at(99.6), stands, at(100), end}, true},
        {"there, at once", 0, 99.5, {completed, at(100), end}, true},
        {"there, before the seek's answer, length unknown",
         0,
         99.5,
         {end, at(100), completed},
         true},
        {"an old one, before the answer", 100, 50, {end, at(50), completed, stands, moves}, false},
        {"an old one, behind the answer", 100, 50, {at(50), completed, end, stands, moves}, false},
        {"an old one, late", 0, 50, {at(50), completed, moves, end, moves}, false},
        {"an old one, next to the end", 100, 97.9, {at(97.9), completed, end, moves}, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        m_fake->seek = SeekBehaviour::NeverAnswer;
        startPlaying();
        deliver(new NewMetadataEvent(row.duration, 2, 1, 1.0));
        const auto before = calls().size();
        m_element->seek(row.target);
        ASSERT_TRUE(
            waitUntil([&] { return calls().size() > before && calls().back() == "cancelled"; }));
        for (const auto& step : row.steps)
            step();
        EXPECT_TRUE(waitForState(row.ends ? State::Ended : State::Playing));
        if (!row.ends)
            end();
        EXPECT_TRUE(waitForState(State::Ended)) << m_recorder.status().reason;
        m_element.reset();
        m_recorder.onStatus({});
    }
}

TEST_F(HostTest, EndsAClipThatNeverMoved) {
    makeElement();
    ASSERT_TRUE(waitForState(State::Buffering));
    deliver(new PlaybackFinishedEvent(0, 0));
    EXPECT_TRUE(waitForState(State::Ended));
}

TEST_F(HostTest, CopiesComponentsAndForgetsTheRemoved) {
    makeElement();
    ASSERT_TRUE(waitForState(State::Buffering));
    using Component = UVABackend::AVComponent;
    auto* audio = new Component(Component::Audio, "aac", "deu", "main");
    Component video(Component::Video, "h264", "und", "");
    deliver(new MultiComponentChangedEvent({}, {audio, nullptr, &video}));
    ASSERT_TRUE(waitUntil([&] { return m_recorder.status().components.size() == 2; }));
    EXPECT_EQ(m_recorder.status().components[0].language, "deu");
    deliver(new MultiComponentChangedEvent({audio}, {}));
    ASSERT_TRUE(waitUntil([&] { return m_recorder.status().components.size() == 1; }));
    EXPECT_EQ(m_recorder.status().components[0].encoding, "h264");
}

TEST_F(HostTest, IsSilentOnceReleasedWhateverIsInFlight) {
    startPlaying();
    std::atomic<bool> stop{false};
    std::thread flood([&, client = m_fake->client.load()] {
        while (!stop)
            client->deliverEvent(new VideoFrameAvailableEvent(1));
    });
    ASSERT_TRUE(waitUntil([&] { return m_recorder.count() > 100; }));
    EXPECT_TRUE(m_element->release(longBound));
    const auto count = m_recorder.count();
    const auto state = m_recorder.status().state;
    stop = true;
    flood.join();
    m_loop->stop(longBound);
    EXPECT_EQ(m_recorder.count(), count);
    EXPECT_EQ(m_recorder.status().state, state);
    EXPECT_EQ(m_fake->living, 0);
}

TEST_F(HostTest, LeavesAHangingBackendBehind) {
    startPlaying();
    m_fake->seek = SeekBehaviour::Block;
    m_element->seek(10);
    ASSERT_TRUE(waitUntil([&] { return called("seek 10"); }));
    ASSERT_TRUE(m_element->operationUnderWay().has_value());
    EXPECT_EQ(m_element->operationUnderWay()->name, "setPosition");
    EXPECT_FALSE(m_element->release(milliseconds(50)));
    const auto count = m_recorder.count();
    m_element.reset();
    m_fake->unblock = true;
    EXPECT_TRUE(waitUntil([&] { return m_fake->living == 0; })); // the late release
    EXPECT_TRUE(m_loop->stop(longBound));
    EXPECT_EQ(m_recorder.count(), count);
}

TEST(EventLoop, LeavesAHangingTaskBehindAndTakesNoMore) {
    std::promise<void> begun;
    std::promise<void> go;
    std::promise<void> done;
    host::EventLoop loop;
    loop.post([&, wait = go.get_future().share()] {
        begun.set_value();
        wait.wait();
        done.set_value_at_thread_exit();
    });
    begun.get_future().wait();
    std::atomic<bool> ran{false};
    loop.post([&] { ran = true; });
    EXPECT_FALSE(loop.stop(milliseconds(20)));
    EXPECT_FALSE(loop.post([&] { ran = true; }));
    go.set_value();
    done.get_future().wait();
    EXPECT_FALSE(ran);
}

} // namespace
