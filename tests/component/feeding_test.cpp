#include "element_fixture.h"

#include <deque>
#include <future>

namespace {

using host::StreamInfo;
using support::SeekBehaviour;

/// What a test puts in comes out; empty is not ended.
class FilledStream final : public host::SampleStream {
public:
    /// Shared with the test.
    struct Content {
        std::mutex mutex;
        std::deque<std::unique_ptr<host::Sample>> samples;
        bool ended = false;
        std::string error, seekError;
        std::string asked;               ///< "read 3", "seek 5", "interrupt", ...
        std::atomic<bool> isHeld{false}; ///< a read does not return
        std::atomic<bool> isLate{false}; ///< ... when it has looked, which "late" tells
        host::SampleStream::Listener listener;
    };

    FilledStream(StreamInfo info, std::shared_ptr<Content> content)
        : m_info(std::move(info)), m_content(std::move(content)) {}

    const StreamInfo& info() const override { return m_info; }
    Batch read(std::size_t count) override {
        {
            const std::lock_guard lock(m_content->mutex);
            m_content->asked += "read " + std::to_string(count) + "; ";
        }
        waitUntil([this] { return !m_content->isHeld; });
        auto batch = look(count);
        if (m_content->isLate) {
            {
                const std::lock_guard lock(m_content->mutex);
                m_content->asked += "late; ";
            }
            waitUntil([this] { return !m_content->isLate; });
        }
        return batch;
    }
    std::string seek(double seconds) override {
        const std::lock_guard lock(m_content->mutex);
        std::ostringstream text;
        text << "seek " << seconds << "; ";
        m_content->asked += text.str();
        return m_content->seekError;
    }
    void listen(Listener listener) override {
        const std::lock_guard lock(m_content->mutex);
        m_content->listener = std::move(listener);
    }
    void interrupt() override {
        m_content->isLate = false;
        const std::lock_guard lock(m_content->mutex);
        m_content->asked += "interrupt; ";
    }

private:
    Batch look(std::size_t count) {
        const std::lock_guard lock(m_content->mutex);
        Batch batch;
        auto& samples = m_content->samples;
        for (; count > 0 && !samples.empty(); --count) {
            batch.samples.push_back(std::move(samples.front()));
            samples.pop_front();
        }
        batch.ended = samples.empty() && m_content->ended;
        if (samples.empty())
            batch.error = m_content->error;
        return batch;
    }

    const StreamInfo m_info;
    const std::shared_ptr<Content> m_content;
};

class FeedingTest : public ElementTest {
protected:
    using Content = FilledStream::Content;

    /// With sound as source 1 and pictures as source 2; played.
    void start() {
        renew();
        host::MediaSource source;
        source.keys = m_keys;
        source.server = m_server;
        source.open = [this](const std::atomic<bool>&) {
            EXPECT_TRUE(waitUntil([this] { return m_mayOpen.load(); }));
            host::DemuxedMedia media;
            media.error = m_openError;
            const StreamInfo infos[] = {{StreamInfo::Kind::Audio, "audio/x", "x", 2.5},
                                        {StreamInfo::Kind::Video, "video/y", "y", 3.25}};
            for (int i = 0; i < m_streams; ++i) {
                m_content[i] = std::make_shared<Content>();
                media.streams.push_back(std::make_unique<FilledStream>(infos[i], m_content[i]));
            }
            return media;
        };
        m_element->openSource(std::move(source));
        m_element->play();
        settle();
        if (!m_mayOpen)
            return;
        EXPECT_TRUE(waitUntil(
            [&] { return called("play") == 1 || m_recorder.status().state == State::Failed; }));
        settle();
    }
    /// ... and something was played, with so many seconds ahead of it.
    void startPlaying(double sound, double picture) {
        start();
        m_fake->answers->bufferedTo[0] = 1 + sound;
        m_fake->answers->bufferedTo[1] = 1 + picture;
        moveTo(1);
        ASSERT_EQ(m_recorder.status().state, State::Playing);
        m_recorder.story();
    }

    /// Samples of a source; with a key's first byte they are encrypted.
    void put(int id, const std::vector<double>& times, std::uint8_t key = 0) {
        static const std::uint8_t bytes[7] = {};
        for (const double time : times) {
            host::SampleData data;
            data.payload = {std::shared_ptr<void>(), bytes};
            data.size = sizeof bytes;
            data.pts = time;
            if (key != 0) {
                data.protection.scheme = host::Protection::Scheme::Cenc;
                data.protection.keyId.fill(key);
            }
            auto& content = *m_content[id - 1];
            const std::lock_guard lock(content.mutex);
            content.samples.push_back(std::make_unique<host::Sample>(std::move(data)));
        }
    }
    template <typename Change>
    void change(int id, Change change) {
        const std::lock_guard lock(m_content[id - 1]->mutex);
        change(*m_content[id - 1]);
    }
    /// What the stream was asked for since the last call, when it comes to this.
    void expectAsked(int id, const std::string& wanted) {
        std::string asked;
        EXPECT_TRUE(waitUntil([&] {
            change(id, [&](Content& content) { asked += std::exchange(content.asked, {}); });
            return asked.size() >= wanted.size();
        }));
        EXPECT_EQ(asked, wanted);
        settle(); // the answer is there
    }
    void request(unsigned int id, int samples) { deliver(new NeedMSEDataEvent(id, samples)); }
    /// What has been written since the last call, when it comes to so many.
    std::string written(std::size_t count) {
        std::vector<std::string> lines;
        const auto look = [&] {
            lines.clear();
            for (auto& call : calls())
                if (call.rfind("write ", 0) == 0)
                    lines.push_back(call.substr(6));
            return lines.size() >= m_writtenBefore + count;
        };
        EXPECT_TRUE(waitUntil(look));
        settle();
        look();
        std::string text;
        for (; m_writtenBefore < lines.size(); ++m_writtenBefore)
            text += (text.empty() ? "" : "; ") + lines[m_writtenBefore];
        return text;
    }
    void renew() {
        ElementTest::renew();
        m_writtenBefore = 0;
    }

    std::shared_ptr<host::ClearKey> m_keys;
    std::string m_server;
    std::string m_openError;
    int m_streams = 2;
    std::atomic<bool> m_mayOpen{true};
    std::shared_ptr<Content> m_content[2];
    std::size_t m_writtenBefore = 0;
};

TEST_F(FeedingTest, OpensWithAllItsStreamsOrFails) {
    m_keys = std::make_shared<host::ClearKey>(host::ClearKey::Interface::PerRange);
    start();
    EXPECT_EQ(calls(), (std::vector<std::string>{"init audio/x 1, 3250 ms",
                                                 "init video/y 2, 3250 ms", "play"}));
    EXPECT_EQ(m_recorder.story(),
              "UVA_RequestBackend(0)=true; -> opening; initBackend(audio/x, video/y)=1; play()=1; "
              "!BufferingStreamUnderrun(); -> buffering; !BufferingProgress()");
    m_keys = nullptr;
    m_streams = 0;
    for (const char* error : {"it is gone", ""}) {
        m_openError = error;
        start();
        EXPECT_EQ(m_recorder.status().reason,
                  *error != '\0' ? error : "it has no stream that can be fed");
        EXPECT_EQ(calls(), std::vector<std::string>());
    }
}

TEST_F(FeedingTest, PlaysOrPausesOnceItIsOpen) {
    for (const bool paused : {true, false}) {
        m_mayOpen = false;
        start();
        if (paused)
            m_element->pause();
        pass(seconds(1));
        EXPECT_EQ(m_recorder.story(), paused ? "UVA_RequestBackend(0)=true; -> opening; -> paused"
                                             : "UVA_RequestBackend(0)=true; -> opening");
        m_mayOpen = true;
        const auto* const last = paused ? "pause" : "play";
        EXPECT_TRUE(waitUntil([&] { return called(last) == 1; }));
        settle();
        EXPECT_EQ(m_recorder.story(false), paused ? "initBackend(audio/x, video/y)=1; pause()=1"
                                                  : "initBackend(audio/x, video/y)=1; play()=1; "
                                                    "-> buffering");
    }
    // Its sinks ask the main system with the first samples; there may be none to ask.
    for (const bool mainSystem : {true, false}) {
        m_options.mainSystem = mainSystem;
        start();
        put(1, {0.5});
        request(1, 1);
        EXPECT_EQ(written(2), "1: from 0; 1: 0.5, 7 bytes");
        EXPECT_EQ(passUntil(State::Failed).count(), mainSystem ? 4500 + 15000 : 15100);
    }
}

TEST_F(FeedingTest, AnswersEachRequestOnceAsSoonAsThereIsSomething) {
    start();
    m_recorder.story();
    request(1, 2);
    expectAsked(1, "read 2; ");
    request(3, 2); // of no source
    put(1, {0.5, 0.75, 1});
    EXPECT_EQ(written(0), "") << "nothing has come";
    m_element->resumeFeeding();
    EXPECT_EQ(written(2), "1: from 0; 1: 0.5 0.75, 14 bytes");
    expectAsked(1, "read 2; ");
    m_element->resumeFeeding();
    EXPECT_EQ(written(0), "") << "nothing is asked for";
    request(1, 0);
    EXPECT_EQ(written(1), "1: 1, 7 bytes");
    expectAsked(1, "read 1; ");
    EXPECT_EQ(m_recorder.story(),
              "!NeedMSEData(1, 2); !NeedMSEData(3, 2); writeData(1, 0, 0, 0)=1; writeData(1, 2, "
              "14, 0)=1; !NeedMSEData(1, 0); writeData(1, 1, 7, 0)=1");

    put(1, {1.25, 1.5});
    change(1, [](Content& content) { content.ended = true; });
    request(1, 1);
    EXPECT_EQ(written(1), "1: 1.25, 7 bytes");
    request(1, 5);
    EXPECT_EQ(written(2), "1: 1.5, 7 bytes; 1: end");
    request(1, 5);
    request(2, 1);
    EXPECT_EQ(written(0), "") << "the end was told";
    put(2, {0.25});
    change(2, [](Content& content) { content.error = "it broke"; });
    m_element->resumeFeeding();
    EXPECT_EQ(written(2), "2: from 0; 2: 0.25, 7 bytes");
    EXPECT_NE(m_recorder.status().state, State::Failed) << "of what was read all is fed";
    request(2, 1);
    EXPECT_TRUE(waitForState(State::Failed));
    EXPECT_EQ(m_recorder.status().reason, "it broke");
    request(1, 1);
    EXPECT_EQ(written(0), "");
}

TEST_F(FeedingTest, BeginsAnewWhereItIsSoughtTo) {
    startPlaying(5, 5);
    put(1, {0.5, 0.75});
    change(1, [](Content& content) { content.ended = true; });
    request(1, 1);
    EXPECT_EQ(written(2), "1: from 0; 1: 0.5, 7 bytes");
    request(1, 1);
    EXPECT_EQ(written(2), "1: 0.75, 7 bytes; 1: end");
    request(2, 4);
    expectAsked(2, "read 4; ");
    expectAsked(1, "read 1; read 1; ");
    seek(2);
    expectAsked(1, "seek 2; ");
    expectAsked(2, "seek 2; ");
    put(2, {1.75, 2});
    m_element->resumeFeeding();
    EXPECT_EQ(written(0), "") << "what was requested before is void";
    put(1, {2.25});
    request(1, 3);
    EXPECT_EQ(written(3), "1: from 2; 1: 2.25, 7 bytes; 1: end");
    request(2, 3);
    EXPECT_EQ(written(2), "2: from 2; 2: 1.75 2, 14 bytes");
    change(2, [](Content& content) { content.seekError = "no way back"; });
    seek(0);
    expectAsked(2, "read 3; seek 0; ");
    EXPECT_NE(m_recorder.status().state, State::Failed) << "nobody wants it yet";
    request(2, 3);
    EXPECT_TRUE(waitForState(State::Failed));
    EXPECT_EQ(m_recorder.status().reason, "no way back");
    m_element->release(longBound);
    expectAsked(2, "interrupt; ");
}

TEST_F(FeedingTest, ASeekBeforeAnythingWasFedLeadsIntoTheMedia) {
    m_mayOpen = false;
    start();
    m_element->setDuration(3);
    settle();
    seek(99999);
    EXPECT_EQ(m_element->position(), 3);
    m_mayOpen = true;
    EXPECT_TRUE(waitUntil([&] { return called("play") == 1; }));
    expectAsked(1, "seek 3; ");
}

/// What was told of the length may be too little: the element's own seeks go to where it is.
TEST_F(FeedingTest, PlaysOnBehindTheEndThatItWasTold) {
    startPlaying(5, 5);
    m_element->setDuration(0.5);
    settle();
    m_content[0]->listener({host::SampleStream::Change::Kind::Replaced, 3});
    settle();
    pass(m_options.tick);
    EXPECT_EQ(called("seek 1"), 1);
    EXPECT_EQ(called("seek 0.5"), 0);
}

TEST_F(FeedingTest, WhatIsBeingReadWhenASeekComesIsDropped) {
    startPlaying(5, 5);
    put(1, {0.5, 2.25});
    m_content[0]->isHeld = true;
    request(1, 1);
    expectAsked(1, "read 1; ");
    seek(2);
    request(1, 1);
    m_content[0]->isHeld = false;
    EXPECT_EQ(written(2), "1: from 2; 1: 2.25, 7 bytes");
    expectAsked(1, "seek 2; read 1; ");
}

TEST_F(FeedingTest, WhatIsBeingReadAtTheReleaseIsFreedBeforeItReturns) {
    start();
    const long before = host::Sample::living();
    put(1, {0.5, 0.75});
    change(1, [](Content& content) { // the second goes when the first has, and that takes a while
        host::SampleData data;
        data.payload = {new std::uint8_t[1](), [](const std::uint8_t* bytes) {
                            std::this_thread::sleep_for(milliseconds(50));
                            delete[] bytes;
                        }};
        data.size = 1;
        content.samples.push_front(std::make_unique<host::Sample>(std::move(data)));
    });
    m_content[0]->isLate = true;
    request(1, 3);
    expectAsked(1, "read 3; late; ");
    m_element->release(longBound);
    EXPECT_EQ(host::Sample::living(), before);
}

TEST_F(FeedingTest, HoldsSamplesBackUntilTheirKeyIsThere) {
    m_keys = std::make_shared<host::ClearKey>(host::ClearKey::Interface::PerRange);
    const auto bring = [&] {
        startPlaying(9, 9);
        put(2, {0.5});
        put(2, {0.75, 1}, 7);
        put(2, {1.25}, 8);
        request(2, 9);
        EXPECT_EQ(written(2), "2: from 0; 2: 0.5, 7 bytes");
        request(2, 9);
    };
    const auto addKey = [&](std::uint8_t first) {
        host::KeyPair pair = {};
        pair.id.fill(first);
        m_keys->addKey(pair);
        m_element->resumeFeeding();
    };
    for (const int delay : {0, 2000}) {
        m_options.keyDelay = milliseconds(delay);
        bring();
        EXPECT_EQ(passUntil(State::Failed).count(), 30100 + delay);
        EXPECT_EQ(m_recorder.status().reason, "stalled at 1.0 s: no key came for " +
                                                  std::to_string(30 + delay / 1000) +
                                                  ".0 s; check the licence server");
    }
    bring();
    seek(2);
    moveTo(2.5);
    request(2, 9);
    EXPECT_EQ(passUntil(State::Failed).count(), 4900) << "none is missing where it is sought to";
    bring();
    EXPECT_NE(m_recorder.story().find("setKeySystem(org.w3.clearkey)=1; key 7 needed"),
              std::string::npos);
    m_element->resumeFeeding();
    settle();
    EXPECT_EQ(m_recorder.story(), "") << "it was asked for once";
    addKey(9);
    EXPECT_EQ(written(0), "");
    addKey(7);
    EXPECT_EQ(written(1), "2: 0.75 1, 14 bytes");
    request(2, 9);
    EXPECT_EQ(m_recorder.story(), "writeData(2, 2, 14, 0)=1; !NeedMSEData(2, 9); "
                                  "key 8 needed by 2 at 1.25");
    EXPECT_EQ(passUntil(State::Failed, seconds(20)), seconds(20));
    addKey(8);
    EXPECT_EQ(written(1), "2: 1.25, 7 bytes");
    EXPECT_EQ(passUntil(State::Failed).count(), 5100) << "no key is missing any more";
}

TEST_F(FeedingTest, ReadsAgainWhatMayHaveComeBehindARead) {
    start();
    m_content[0]->isLate = true;
    request(1, 3);
    expectAsked(1, "read 3; late; ");
    put(1, {0});
    m_element->resumeFeeding();
    settle();
    m_content[0]->isLate = false;
    EXPECT_EQ(written(2), "1: from 0; 1: 0, 7 bytes");
    expectAsked(1, "read 3; ");
}

TEST_F(FeedingTest, HoldsPlaybackWhileDataIsShort) {
    const std::string hold = " starved; pause()=1; -> buffering",
                      goOn = " filled; play()=1; !BufferingStreamUnderrun(); !BufferingProgress()";
    startPlaying(0.5, 9);
    request(1, 1);
    pass(milliseconds(300));
    m_recorder.story();
    m_fake->answers->bufferedTo[0] = 1.49;
    pass(milliseconds(100));
    EXPECT_EQ(m_recorder.story(), "1" + hold);
    m_element->play();
    m_element->pause();
    settle();
    EXPECT_EQ(m_recorder.story(), "pause()=1; -> paused");
    m_element->play();
    settle();
    EXPECT_EQ(m_recorder.story(), "-> buffering") << "it is held all the same";
    m_fake->answers->bufferedTo[0] = 1.99;
    pass(milliseconds(9900));
    EXPECT_EQ(m_recorder.story(), "");
    m_fake->answers->bufferedTo[0] = 2;
    pass(milliseconds(100));
    EXPECT_EQ(m_recorder.story(), "1" + goOn);
    moveTo(1.125);
    EXPECT_EQ(m_recorder.story(), "-> playing");

    // Only one that has asked for a while, is not at its end and holds something can run dry.
    m_fake->answers->bufferedTo[0] = 1.25;
    m_fake->answers->bufferedTo[1] = 1.25;
    put(1, {1});
    m_element->resumeFeeding();
    EXPECT_EQ(written(2), "1: from 0; 1: 1, 7 bytes");
    pass(seconds(1));
    m_recorder.story();
    pass(seconds(1));
    EXPECT_EQ(m_recorder.story(), "") << "nobody waits";
    m_fake->answers->bufferedTo[1] = -1;
    request(2, 1);
    pass(milliseconds(500));
    EXPECT_EQ(m_recorder.story(), "!NeedMSEData(2, 1)") << "it has not begun";
    m_fake->answers->bufferedTo[1] = 1.25;
    pass(milliseconds(100));
    EXPECT_EQ(m_recorder.story(), "2" + hold);
    // What ends, or asks for no more, is not waited for.
    change(2, [](Content& content) { content.ended = true; });
    m_element->resumeFeeding();
    EXPECT_EQ(written(1), "2: end");
    pass(milliseconds(100));
    EXPECT_EQ(m_recorder.story(), "writeData(2, 0, 0, 1)=1; 2" + goOn);

    for (const char* server : {"", "h.example"}) {
        m_server = server;
        startPlaying(0.25, 9);
        request(1, 1);
        expectAsked(1, "read 1; ");
        EXPECT_EQ(passUntil(State::Failed).count(), *server != '\0' ? 10000 : 10100);
        EXPECT_EQ(m_recorder.status().reason,
                  "stalled at 1.0 s: no data came from " +
                      std::string(*server != '\0' ? server : "the media's file") +
                      " for 10.0 s; check the address, the network and the server");
    }
}

TEST_F(FeedingTest, AttachesASourceAnew) {
    startPlaying(9, 9);
    put(1, {0.5});
    put(2, {0.25, 0.5});
    request(1, 1);
    request(2, 1);
    written(4);
    pass(milliseconds(200));
    moveTo(1.5);
    m_recorder.story();
    m_element->reattach(StreamInfo::Kind::Video);
    settle();
    EXPECT_EQ(m_recorder.story(), "removeSource(2)=true; attachSource(2, video/y)=1");
    EXPECT_EQ(calls().back(), "attach video/y 2, 3250 ms");
    expectAsked(2, "read 1; seek 1.5; ");
    expectAsked(1, "read 1; ");
    // Its sink asks the main system anew, from its first sample on.
    pass(milliseconds(4400));
    request(2, 1);
    EXPECT_EQ(written(2), "2: from 1.5; 2: 0.5, 7 bytes");
    pass(milliseconds(4400));
    deliver(new DecodeErrorEvent(DecodeErrorEvent::InsufficientResources));
    EXPECT_EQ(m_recorder.status().reason.substr(0, 16), "decoder refused:");

    startPlaying(9, 9);
    m_fake->answers->refuseSource = true;
    m_element->reattach(StreamInfo::Kind::Audio);
    settle();
    EXPECT_EQ(m_recorder.story(), "removeSource(1)=true; attachSource(1, audio/x)=2; -> failed");
    EXPECT_EQ(m_recorder.status().reason,
              "the backend did not take the source; see the system log");
    m_element->reattach(StreamInfo::Kind::Video);
    settle();
    EXPECT_EQ(m_recorder.story(), "");

    startPlaying(9, 9);
    request(1, 1);
    put(1, {0.5});
    m_element->release(longBound);
    m_element->resumeFeeding();
    m_element->reattach(StreamInfo::Kind::Video);
    EXPECT_EQ(written(0) + calls().back(), "release");
}

/// The backend's own seek, to 7, and one to 2 are pending at once: the first completion makes both.
TEST_F(FeedingTest, GoesOnceToTheNewestTarget) {
    startPlaying(5, 5);
    std::promise<void> go;
    m_loop->post([gone = go.get_future().share()] { gone.wait(); });
    m_element->seek(2);
    m_fake->client.load()->deliverEvent(new CancelDataRequestsAsyncEvent(7));
    go.set_value();
    settle();
    EXPECT_EQ(called("cancelled"), 2);
    expectAsked(1, "seek 2; ");
    put(1, {2});
    request(1, 1);
    EXPECT_EQ(written(2), "1: from 2; 1: 2, 7 bytes");
}

TEST_F(FeedingTest, TakesAndDropsSourcesAndPassesOnWhatAPageAsks) {
    startPlaying(5, 5);
    EXPECT_EQ(m_element->position(), 1);
    auto content = std::make_shared<Content>();
    const StreamInfo third{StreamInfo::Kind::Audio, "audio/z", "z", 0};
    const auto id = m_element->attach(std::make_unique<FilledStream>(third, content));
    EXPECT_EQ(id, 3U);
    m_element->setDuration(9);
    m_element->setVolume(2);
    settle();
    EXPECT_EQ(m_recorder.story(),
              "attachSource(3, audio/z)=1; setContentSize(9)=2; setVolume(2)=1");
    EXPECT_EQ(calls().back(), "attach audio/z 3, 3250 ms");
    EXPECT_EQ(m_recorder.status().duration, 9);
    request(id, 1);
    m_element->detach(id);
    m_element->detach(id);
    settle();
    EXPECT_EQ(m_recorder.story(), "!NeedMSEData(3, 1); removeSource(3)=true");
    for (const char* what : {"seek 1; ", "interrupt"}) // it begins where it is
        EXPECT_TRUE(waitUntil([&] {
            const std::lock_guard lock(content->mutex);
            return content->asked.find(what) != std::string::npos;
        })) << what;
    {
        const std::lock_guard lock(content->mutex);
        content->ended = true;
    }
    m_element->resumeFeeding();
    EXPECT_EQ(written(0), "") << "nobody asks for it any more";
    EXPECT_EQ(m_recorder.status().sources.size(), 2U);
    m_element->release(longBound);
    m_element->play();
    m_element->seek(1);
    m_element->setDuration(8);
    m_element->attach(std::make_unique<FilledStream>(third, content));
    EXPECT_EQ(written(0) + calls().back(), "release");
}

TEST_F(FeedingTest, TellsWhatTheBackendHolds) {
    startPlaying(0.75, 2);
    const auto sources = m_recorder.status().sources;
    ASSERT_EQ(sources.size(), 2U);
    EXPECT_EQ(sources[0].kind, StreamInfo::Kind::Audio);
    EXPECT_EQ(sources[1].kind, StreamInfo::Kind::Video);
    ASSERT_EQ(sources[1].ranges.size(), 2U);
    EXPECT_EQ(sources[0].ranges[1].end, 1.75);
    EXPECT_EQ(sources[1].ranges[1].start, 1.5);
}

} // namespace
