// A page's media element all the way: frames are appended, replaced and removed while they are
// played, through the library. What counts is the pictures that were shown and the sound.

#include "support/sink_watch.h"

#include "element_fixture.h"
#include "host/track_buffer.h"
#include "nox/screen.h"

#include <cmath>
#include <optional>
#include <random>
#include <thread>

namespace {

using host::BufferedFrame;
using host::ClearKey;
using host::SeekOutcome;
using host::StreamInfo;
using host::TrackBuffer;
using support::RenderedStream;
using support::SinkWatch;

constexpr auto longBound = std::chrono::seconds(30);
constexpr double frameTime = 0.04; ///< of the generated clips, seconds
constexpr SinkWatch::Options asFastAsItCan = {false, true, true};
constexpr SinkWatch::Options clocked = {true, true, false};

/// A track of a generated clip, as frames that a page appends.
struct Track {
    StreamInfo info;
    std::vector<BufferedFrame> frames;

    double begin() const {
        double earliest = 1000;
        for (const auto& frame : frames)
            earliest = std::min(earliest, frame.sample.pts);
        return earliest;
    }
    double end() const {
        double latest = 0;
        for (const auto& frame : frames)
            latest = std::max(latest, frame.sample.pts + frame.sample.duration);
        return latest;
    }
    std::size_t pictures() const { return frames.size(); }
    /// Those whose decoding begins at or behind one time and before another.
    std::vector<BufferedFrame> part(double from, double to) const {
        std::vector<BufferedFrame> result;
        double group = 0;
        for (const auto& frame : frames) {
            if (frame.sequence == frame.group)
                group = frame.sample.pts;
            if (group >= from - 0.001 && group < to - 0.001)
                result.push_back(frame);
        }
        return result;
    }
    /// Later, and behind another in number.
    Track moved(double seconds, std::uint64_t sequences) const {
        auto track = *this;
        for (auto& frame : track.frames) {
            frame.sample.pts += seconds;
            frame.sample.dts += seconds;
            frame.sequence += sequences;
            frame.group += sequences;
        }
        return track;
    }
};

std::shared_ptr<const host::BackendLibrary> library() {
    static const auto loaded = [] {
        setenv("NOX_GST_STANDALONE", "1", 1);
        gst_init(nullptr, nullptr);
        SinkWatch::instance();
        return host::BackendLibrary::load("");
    }();
    EXPECT_NE(loaded.library, nullptr) << loaded.error;
    return loaded.library;
}

using Tracks = std::vector<Track>; ///< audio first, if there is any

Tracks load(const std::string& name,
            host::Protection::Scheme scheme = host::Protection::Scheme::None,
            const host::KeyPair& key = {}) {
    library(); // first of all
    const std::atomic<bool> cancelled{false};
    auto media = host::openMedia(TEST_MEDIA_DIR "/" + name, cancelled);
    EXPECT_EQ(media.error, "");
    Tracks tracks;
    for (auto& opened : media.streams) {
        auto stream = host::protect(std::move(opened), scheme, key);
        Track track;
        track.info = stream->info();
        std::uint64_t sequence = 0, group = 0;
        for (bool ended = false; !ended;) {
            auto batch = stream->read(100);
            EXPECT_EQ(batch.error, "");
            ended = batch.ended || !batch.error.empty();
            for (const auto& sample : batch.samples) {
                ++sequence;
                if (sample->data().keyFrame)
                    group = sequence;
                track.frames.push_back({sequence, group, sample->data()});
            }
        }
        tracks.push_back(std::move(track));
    }
    return tracks;
}

/// Knows besides what became of which seek.
class PageObserver final : public Recorder {
public:
    void onSeek(const host::SeekResult& result) override {
        Recorder::onSeek(result);
        const std::lock_guard lock(m_mutex);
        m_results[result.generation].push_back(result);
    }
    std::optional<host::SeekResult> resultOf(std::uint64_t generation) {
        const std::lock_guard lock(m_mutex);
        const auto found = m_results.find(generation);
        return found == m_results.end() ? std::nullopt : std::optional(found->second.back());
    }
    std::size_t answers() {
        const std::lock_guard lock(m_mutex);
        std::size_t count = 0;
        for (const auto& [generation, results] : m_results)
            count += results.size();
        return count;
    }

private:
    std::mutex m_mutex;
    std::map<std::uint64_t, std::vector<host::SeekResult>> m_results;
};

/// A media element with a buffer a track, which the test fills.
class Page {
public:
    explicit Page(const Tracks& tracks) : m_element(library(), m_loop, m_observer, options()) {
        for (const auto& track : tracks)
            addTrack(track.info);
    }
    ~Page() { EXPECT_TRUE(m_element.release(longBound)); }

    std::size_t addTrack(const StreamInfo& info) {
        m_buffers.push_back(std::make_unique<TrackBuffer>(info));
        m_sources.push_back(m_element.attach(m_buffers.back()->stream()));
        return m_buffers.size() - 1;
    }
    void open(double start = 0, host::MediaSource source = {}) {
        source.start = start;
        m_element.openSource(std::move(source));
    }
    void append(const Tracks& tracks, double from = 0, double to = 1000) {
        for (std::size_t i = 0; i < tracks.size(); ++i)
            m_buffers[i]->add(tracks[i].part(from, to));
    }
    void end(bool ended = true) {
        for (const auto& buffer : m_buffers)
            buffer->setEnded(ended);
    }

    host::MediaElement& element() { return m_element; }
    TrackBuffer& buffer(std::size_t index) { return *m_buffers[index]; }
    host::SourceId source(std::size_t index) const { return m_sources[index]; }
    PageObserver& observer() { return m_observer; }

    bool waitFor(State state) {
        return waitUntil([&] { return m_observer.status().state == state; }, longBound);
    }
    bool waitForPosition(double seconds) {
        return waitUntil([&] { return m_element.position() >= seconds; }, longBound);
    }
    bool waitToHear(const std::string& text) {
        return waitUntil(
            [&] {
                m_heard += m_observer.story(false) + "; ";
                return m_heard.find(text) != std::string::npos;
            },
            longBound);
    }
    const std::string& heard() {
        m_heard += m_observer.story(false) + "; ";
        return m_heard;
    }
    void forget() {
        m_observer.story();
        m_heard.clear();
    }
    std::optional<host::SeekResult> waitForSeek(std::uint64_t generation) {
        EXPECT_TRUE(
            waitUntil([&] { return m_observer.resultOf(generation).has_value(); }, longBound));
        return m_observer.resultOf(generation);
    }

private:
    static host::MediaElement::Options options() {
        static std::atomic<host::SourceId> numbers{1};
        host::MediaElement::Options options;
        options.tick = milliseconds(10);
        options.firstSource = numbers.fetch_add(100);
        options.noProgress = milliseconds(0);
        options.mainSystem = false;
        options.pictures = [](host::SourceId source) {
            const auto counted = nox::Screen::instance().counters(source);
            return host::PictureCounters{counted.shown, counted.dropped, counted.corrupted};
        };
        return options;
    }

    PageObserver m_observer;
    const std::shared_ptr<host::EventLoop> m_loop = std::make_shared<host::EventLoop>();
    host::MediaElement m_element;
    std::vector<std::unique_ptr<TrackBuffer>> m_buffers;
    std::vector<host::SourceId> m_sources;
    std::string m_heard;
};

double soundOf(const RenderedStream& audio) {
    return audio.rate > 0 ? static_cast<double>(audio.sound.size()) / audio.rate : 0;
}

/// Of what was shown since the sinks were flushed last.
std::vector<double> timesBehindTheLastFlush(const RenderedStream& video) {
    std::vector<double> times;
    for (const auto& picture : video.buffers)
        if (picture.flushes == video.buffers.back().flushes)
            times.push_back(picture.position);
    return times;
}

/// Without a hole. The first picture begins where playback does, in the middle of it.
void expectEvenly(const std::vector<double>& times, double from, double to) {
    ASSERT_GE(times.size(), 2U);
    EXPECT_NEAR(times[0], from, 0.001);
    EXPECT_LE(times[1] - times[0], frameTime + 0.003);
    EXPECT_NEAR(times.back() + frameTime, to, 0.003);
    for (std::size_t i = 2; i < times.size(); ++i)
        EXPECT_NEAR(times[i] - times[i - 1], frameTime, 0.003) << "at " << times[i];
}

/// ... though the sinks were flushed on the way: a picture may come twice then, or cut.
void expectPlayedOn(double from, double to) {
    std::vector<double> times;
    unsigned int flushes = 0;
    for (const auto& picture : SinkWatch::instance().video().buffers) {
        const bool isCut = !times.empty() && picture.flushes != flushes;
        flushes = picture.flushes;
        if (times.empty() || (!isCut && picture.position > times.back() + 0.001))
            times.push_back(picture.position);
    }
    ASSERT_FALSE(times.empty());
    EXPECT_NEAR(times.front(), from, 0.001);
    EXPECT_NEAR(times.back() + frameTime, to, 0.003);
    for (std::size_t i = 1; i < times.size(); ++i)
        EXPECT_LE(times[i] - times[i - 1], 2 * frameTime + 0.003) << "at " << times[i];
}

/// Seconds of sound, when all is there from the beginning.
double soundOfAll(const Tracks& tracks) {
    SinkWatch::instance().restart(asFastAsItCan);
    Page page(tracks);
    page.append(tracks);
    page.end();
    page.open();
    page.element().play();
    EXPECT_TRUE(page.waitFor(State::Ended)) << page.heard();
    return soundOf(SinkWatch::instance().audio());
}

TEST(PagePlayback, LosesNothingOfWhatIsAppendedPieceByPiece) {
    const auto tracks = load("frag.mp4");
    const double sound = soundOfAll(tracks);
    SinkWatch::instance().restart(clocked);
    Page page(tracks);
    page.open();
    page.element().play();
    // Each piece comes when what there was has been played, and then some.
    double from = 0;
    for (const double to : {2.0, 4.0, 1000.0}) {
        page.append(tracks, from, to);
        from = to;
        if (to > 100)
            break;
        ASSERT_TRUE(page.waitToHear("starved"));
        EXPECT_TRUE(waitUntil([&] { return page.observer().status().state == State::Buffering; }));
        EXPECT_GT(page.element().position(), to - 0.5);
        EXPECT_LE(page.element().position(), to + frameTime);
        page.forget();
    }
    page.end();
    EXPECT_TRUE(page.waitToHear("filled"));
    EXPECT_TRUE(page.waitToHear("end at "));
    EXPECT_EQ(page.observer().status().state, State::Ended);
    EXPECT_NEAR(page.element().position(), tracks[0].end(), 0.05);
    const auto video = SinkWatch::instance().video();
    EXPECT_EQ(video.buffers.size(), tracks[1].pictures());
    EXPECT_NEAR(soundOf(SinkWatch::instance().audio()), sound, 0.001);
    const auto counters = page.element().counters();
    EXPECT_EQ(counters.shown, tracks[1].pictures());
    EXPECT_EQ(counters.dropped, 0U);
    EXPECT_EQ(counters.corrupted, 0U);
}

TEST(PagePlayback, BeginsWhereItIsTold) {
    const auto tracks = load("frag.mp4");
    const double start = 10.0 / 3;
    const auto play = [&](auto prepare) {
        SinkWatch::instance().restart(asFastAsItCan);
        Page page(tracks);
        prepare(page);
        EXPECT_EQ(page.element().position(), start) << "to the last bit";
        page.append(tracks);
        page.end();
        page.element().play();
        ASSERT_TRUE(page.waitFor(State::Ended)) << page.heard();
        const auto times = timesBehindTheLastFlush(SinkWatch::instance().video());
        expectEvenly(times, start, tracks[1].end());
        EXPECT_NEAR(soundOf(SinkWatch::instance().audio()), tracks[0].end() - start, 0.1);
    };
    const auto seekIn = [&](Page& page) {
        const auto seek = page.element().seek(start);
        const auto result = page.waitForSeek(seek);
        ASSERT_TRUE(result);
        EXPECT_EQ(result->outcome, SeekOutcome::Succeeded);
        EXPECT_EQ(result->position, start);
    };
    {
        SCOPED_TRACE("a start position");
        play([&](Page& page) {
            page.open(start);
            EXPECT_TRUE(page.waitToHear("-> opening"));
        });
    }
    {
        SCOPED_TRACE("sought before there is anything");
        play([&](Page& page) {
            page.open(1);
            seekIn(page);
        });
    }
    {
        SCOPED_TRACE("sought while it is paused with a picture on screen");
        play([&](Page& page) {
            page.open();
            page.append(tracks, 0, 2);
            page.element().pause();
            EXPECT_TRUE(waitUntil([&] { return page.element().counters().shown == 1; }));
            seekIn(page);
            EXPECT_EQ(page.observer().status().state, State::Paused);
        });
    }
    {
        SCOPED_TRACE("sought when only one source has been fed");
        play([&](Page& page) {
            page.open();
            page.buffer(0).add(tracks[0].part(0, 2));
            page.element().pause();
            EXPECT_TRUE(page.waitToHear("writeData"));
            seekIn(page);
        });
    }
}

TEST(PagePlayback, AnswersEachSeekOfAStormAndPlaysFromTheLast) {
    const auto tracks = load("frag.mp4");
    SinkWatch::instance().restart(clocked);
    Page page(tracks);
    page.append(tracks);
    page.end();
    page.open();
    page.element().play();
    ASSERT_TRUE(page.waitForPosition(0.2));
    std::vector<std::thread> threads;
    for (unsigned int t = 0; t < 4; ++t)
        threads.emplace_back([&page, t] {
            std::mt19937 random(t);
            for (int i = 0; i < 25; ++i) {
                page.element().seek(std::uniform_real_distribution(0.0, 5.0)(random));
                std::this_thread::yield();
            }
        });
    for (auto& thread : threads)
        thread.join();
    const double target = 1.0 / 3;
    const auto last = page.element().seek(target);
    EXPECT_EQ(last, 101U);
    EXPECT_EQ(page.element().position(), target);
    const auto result = page.waitForSeek(last);
    ASSERT_TRUE(result);
    EXPECT_EQ(result->outcome, SeekOutcome::Succeeded);
    EXPECT_EQ(page.observer().answers(), 101U);
    ASSERT_TRUE(page.waitForPosition(1.5));
    const auto times = timesBehindTheLastFlush(SinkWatch::instance().video());
    expectEvenly(times, target, times.back() + frameTime);
    // One that cannot be.
    const auto refused = page.element().seek(std::nan(""));
    EXPECT_EQ(page.waitForSeek(refused)->outcome, SeekOutcome::Failed);
    ASSERT_TRUE(page.waitFor(State::Ended)) << "it plays on";
}

/// A rendition takes the place of what has been handed over and not been shown.
TEST(PagePlayback, ShowsWhatTookThePlace) {
    const auto tracks = load("frag.mp4");
    auto other = load("clip.mp4").at(1); // 640x360
    other = other.moved(tracks[1].begin() - other.begin(), 10000);
    SinkWatch::instance().restart(clocked);
    Page page({tracks[1]});
    page.append({tracks[1]});
    page.open();
    page.element().play();
    ASSERT_TRUE(page.waitForPosition(0.5));
    const auto gone = tracks[1].part(1.5, 1000);
    ASSERT_FALSE(gone.empty());
    const double at = gone.front().sample.pts;
    std::vector<std::uint64_t> sequences;
    for (const auto& frame : gone)
        sequences.push_back(frame.sequence);
    page.buffer(0).remove(sequences);
    page.buffer(0).add(other.part(at, 1000));
    page.end();
    ASSERT_TRUE(page.waitFor(State::Ended)) << page.heard();
    EXPECT_EQ(page.heard().find("seek to"), std::string::npos) << "that was the element's own";
    const auto status = page.observer().status();
    EXPECT_EQ(status.width, 640);
    expectPlayedOn(other.begin(), other.end());
}

TEST(PagePlayback, GoesOnBehindAnEndThatIsNone) {
    const auto tracks = load("frag.mp4");
    const double sound = soundOfAll(tracks);
    for (const bool played : {false, true}) {
        SCOPED_TRACE(played ? "after the end" : "before it");
        SinkWatch::instance().restart(clocked);
        Page page(tracks);
        page.append(tracks, 0, 2);
        page.end();
        page.open();
        page.element().play();
        if (played)
            ASSERT_TRUE(page.waitToHear("end at "));
        else
            ASSERT_TRUE(page.waitForPosition(1));
        page.end(false);
        page.append(tracks, 2, 1000);
        page.end();
        ASSERT_TRUE(page.waitForPosition(tracks[0].end() - 0.5));
        page.forget();
        ASSERT_TRUE(page.waitToHear("end at "));
        expectPlayedOn(tracks[1].begin(), tracks[1].end());
        EXPECT_GE(soundOf(SinkWatch::instance().audio()), sound - 0.1);
        // Played once more, it begins anew.
        page.forget();
        page.element().play();
        ASSERT_TRUE(waitUntil([&] { return page.element().position() < 1; }));
        ASSERT_TRUE(page.waitFor(State::Playing));
    }
}

TEST(PagePlayback, ChangesTheCodecWhereItChanges) {
    const auto first = load("h264-only.mp4");
    auto second = load("vp9-opus.webm").at(1);
    second = second.moved(first[0].end() - second.begin(), 10000);
    SinkWatch::instance().restart(clocked);
    Page page(first);
    page.append(first);
    page.open();
    page.element().play();
    page.buffer(0).add(second.frames);
    page.end();
    ASSERT_TRUE(page.waitFor(State::Ended)) << page.heard();
    EXPECT_EQ(SinkWatch::instance().video().buffers.size(),
              first[0].pictures() + second.pictures());
    expectPlayedOn(first[0].begin(), second.end());
    // Back to where it was another one.
    const auto seek = page.element().seek(0.5);
    ASSERT_TRUE(page.waitForSeek(seek));
    ASSERT_TRUE(page.waitForPosition(1.5));
    EXPECT_EQ(page.observer().status().state, State::Playing);
}

TEST(PagePlayback, TakesSourcesAtAnyTime) {
    const auto tracks = load("frag.mp4");
    SinkWatch::instance().restart(clocked);
    Page page({});
    page.open();
    page.element().play();
    const auto video = page.addTrack(tracks[1].info);
    page.buffer(video).add(tracks[1].frames);
    page.buffer(video).setEnded(true);
    ASSERT_TRUE(page.waitForPosition(0.5));
    auto audio = page.addTrack(tracks[0].info);
    page.buffer(audio).add(tracks[0].frames);
    ASSERT_TRUE(waitUntil([] { return soundOf(SinkWatch::instance().audio()) > 0.5; }));
    page.element().detach(page.source(audio));
    const double at = page.element().position();
    ASSERT_TRUE(page.waitForPosition(at + 0.5)) << "pictures go on alone";
    const double before = soundOf(SinkWatch::instance().audio());
    audio = page.addTrack(tracks[0].info);
    page.buffer(audio).add(tracks[0].frames);
    page.buffer(audio).setEnded(true);
    // A source goes while all are sought.
    const auto seek = page.element().seek(4);
    page.element().detach(page.source(video));
    ASSERT_EQ(page.waitForSeek(seek)->outcome, SeekOutcome::Succeeded);
    ASSERT_TRUE(page.waitFor(State::Ended)) << "of what is left";
    EXPECT_GE(soundOf(SinkWatch::instance().audio()), before + 1.8);
    page.element().detach(page.source(video)); // once more
    page.element().detach(4711);
    EXPECT_EQ(page.element().attach(nullptr), 0U);
}

TEST(PagePlayback, CountsThePicturesOfTwoElementsApart) {
    const auto tracks = load("frag.mp4");
    const auto shorter = load("h264-aac.mp4");
    SinkWatch::instance().restart({true, false, false});
    Page one(tracks);
    Page two(shorter);
    for (auto* page : {&one, &two}) {
        page->append(page == &one ? tracks : shorter);
        page->end();
        page->open();
        page->element().play();
    }
    ASSERT_TRUE(two.waitFor(State::Ended)) << two.observer().status().reason;
    ASSERT_TRUE(one.waitFor(State::Ended)) << one.observer().status().reason;
    EXPECT_EQ(one.element().counters().shown, tracks[1].pictures());
    EXPECT_EQ(two.element().counters().shown, shorter[1].pictures());
}

TEST(PagePlayback, PlaysEncryptedFramesOnceTheKeyOfItsSessionIsThere) {
    const host::KeyPair key = {{1, 2, 3}, {4, 5, 6}}, wrong = {{1, 2, 3}, {9, 9, 9}};
    constexpr std::uint64_t session = 0x123456789abcULL;
    const auto clear = load("h264-aac.mp4");
    const auto encrypted = load("h264-aac.mp4", host::Protection::Scheme::Cenc, key);
    const double sound = soundOfAll(clear);
    const auto keys = std::make_shared<ClearKey>(ClearKey::Interface::FullSample);
    UVA_OfferDRMBackend(host::clearKeySystem, keys.get());
    keys->addKey(wrong, session + 1);
    {
        SinkWatch::instance().restart(clocked);
        Page page(encrypted);
        host::MediaSource source;
        source.keys = keys;
        source.keySession = session;
        page.open(0, source);
        page.element().play();
        // The first half is clear; behind it nothing goes without the key.
        for (std::size_t i = 0; i < 2; ++i) {
            auto frames = encrypted[i].frames;
            for (std::size_t f = 0; f < frames.size(); ++f)
                if (frames[f].sample.pts < 1)
                    frames[f] = clear[i].frames[f];
            page.buffer(i).add(frames);
        }
        page.end();
        ASSERT_TRUE(page.waitToHear("key 1 needed by " + std::to_string(page.source(1)) + " at 1"));
        ASSERT_TRUE(page.waitToHear("starved"));
        EXPECT_LT(page.heard().find("setKeySystem"), page.heard().find("key 1 needed"));
        keys->addKey(key, session);
        page.element().resumeFeeding();
        ASSERT_TRUE(page.waitFor(State::Ended)) << page.heard();
        EXPECT_EQ(SinkWatch::instance().video().buffers.size(), clear[1].pictures());
        EXPECT_NEAR(soundOf(SinkWatch::instance().audio()), sound, 0.001);
        EXPECT_EQ(page.element().counters().corrupted, 0U);
        keys->removeKey(key.id, session);
        EXPECT_FALSE(keys->hasKey(key.id, session));
        page.forget();
        page.element().seek(1.5);
        EXPECT_TRUE(page.waitToHear("key 1 needed"));
    }
    UVA_OfferDRMBackend(host::clearKeySystem, nullptr);
    EXPECT_EQ(keys->created(), keys->released());
}

/// A page does whatever it likes, from several threads, and goes away in the middle.
TEST(PagePlayback, SurvivesItsPage) {
    const auto tracks = load("frag.mp4");
    for (unsigned int round = 0; round < 6; ++round) {
        SinkWatch::instance().restart({true, false, false});
        auto page = std::make_unique<Page>(tracks);
        page->open(round % 2 == 0 ? 0 : 2);
        page->element().play();
        std::atomic<bool> stop{false};
        std::vector<std::thread> threads;
        threads.emplace_back([&] {
            for (std::uint64_t i = 0; !stop; ++i) {
                auto again = tracks[1].moved(0, 10000 * (i % 2)).frames;
                std::vector<std::uint64_t> old;
                for (const auto& frame : tracks[1].moved(0, 10000 * ((i + 1) % 2)).frames)
                    old.push_back(frame.sequence);
                page->buffer(1).remove(old);
                page->buffer(1).add(std::move(again));
                page->buffer(0).add(tracks[0].frames);
                page->end(i % 3 == 0);
            }
        });
        threads.emplace_back([&] {
            std::mt19937 random(round);
            for (int i = 0; !stop; ++i) {
                auto& element = page->element();
                element.seek(std::uniform_real_distribution(0.0, 6.0)(random));
                element.setVolume(0.5);
                EXPECT_TRUE(element.setRate(1));
                EXPECT_GE(element.position(), 0);
                element.counters();
                i % 2 == 0 ? element.pause() : element.play();
                element.setDuration(10);
                std::this_thread::sleep_for(milliseconds(i % 5));
            }
        });
        EXPECT_TRUE(waitUntil([&] { return page->observer().answers() > 10 * (round + 1); }));
        EXPECT_FALSE(page->element().setRate(2));
        if (round == 5)
            page->element().detach(page->source(0));
        if (round % 3 == 0) {
            EXPECT_TRUE(page->element().release(longBound)); // while they go on
        }
        stop = true;
        for (auto& thread : threads)
            thread.join();
        page.reset();
    }
}

TEST(PagePlayback, AnswersWhatCanBePlayedBeforeItPlays) {
    Page page({});
    const auto ask = [&](const char* type) {
        return page.element().canPlayType(*host::parseContentType(type)).get();
    };
    EXPECT_TRUE(ask("video/mp4; codecs=\"avc1.640028\"").canPlay);
    EXPECT_FALSE(ask("video/mp4; codecs=\"nonsense\"").canPlay);
    page.element().play(); // there is nothing yet
    page.open();
    const auto tracks = load("h264-aac.mp4");
    for (const auto& track : tracks)
        page.addTrack(track.info);
    page.append(tracks);
    page.end();
    ASSERT_TRUE(page.waitFor(State::Ended)) << page.heard();
}

} // namespace
