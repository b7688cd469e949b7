// Releases at any moment, and a reference host that is fed late.

#include "host/event_loop.h"
#include "host/media_element.h"
#include "scenarios.h"
#include "set.h"
#include "support/sink_watch.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <set>

namespace chaos {

namespace {

/// What is open, and the threads. The queue to the main system comes with the first message.
std::multiset<std::string> whatIsThere() {
    std::multiset<std::string> found;
    for (const auto& file : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        const auto target = std::filesystem::read_symlink(file, gone).string();
        if (!gone && target.find("/fd") == std::string::npos &&
            target.find("BplayerAppIf") == std::string::npos)
            found.insert(target);
    }
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task"))
        found.insert("thread " + thread.path().filename().string());
    return found;
}

} // namespace

/// At any moment, from the host's thread or inside an event; nothing is left.
void releases(Random random) {
    std::unique_ptr<MainSystem> mainSystem;
    if (random.oneIn(2))
        mainSystem = std::make_unique<MainSystem>();
    else
        playStandalone();
    const auto round = [&](bool isFirst) {
        if (mainSystem != nullptr)
            mainSystem->say(random.pick<const char*>({"grant", "delay 0.005", "ignore", "refuse"}));
        Player player(*library(), random.oneIn(2) ? url() : fed(), random.child());
        player.play();
        if (!isFirst && random.oneIn(4)) {
            player.runFor(milliseconds(random.below(20)));
            player.releaseInEvent();
            for (int i = 0; i < 30 && !player.isReleased(); ++i)
                pause(milliseconds(1));
        } else if (isFirst) {
            player.until(milliseconds(0), "the first samples, pictures or question", [&] {
                return player.count(UVAEvent::NeedMSEData) > 0 ||
                       player.count(UVAEvent::NewMetadata) > 0 ||
                       player.count(UVAEvent::BackendResourceRequestAsync) > 0;
            });
        } else {
            player.runFor(milliseconds(random.below(60)));
        }
        player.release();
        requireNoSamples();
    };
    round(true); // what lives as long as the process
    g_thread_pool_set_max_unused_threads(0);
    round(true);
    const auto before = whatIsThere();
    for (unsigned int i = 3; i > 0; --i)
        round(false);
    std::vector<std::string> left;
    for (const auto end = fairTime() + grace; fairTime() < end; pause(milliseconds(2))) {
        const auto now = whatIsThere();
        left.clear();
        std::set_difference(now.begin(), now.end(), before.begin(), before.end(),
                            std::back_inserter(left));
        if (left.empty())
            return;
    }
    fail("a playback leaves " + left.front());
}

// ---- the reference host

namespace {

/// A track whose samples come in while it is read, on the host's reading thread.
class Trickle final : public host::SampleStream {
public:
    class Content {
    public:
        explicit Content(std::size_t size) : m_size(size) {}

        std::atomic<bool> isWaitedFor{false}; ///< the latest read has found nothing

        bool isWhole() const { return arrived() == m_size; }
        std::size_t arrived() const {
            const std::lock_guard lock(m_mutex);
            return m_arrived;
        }
        void listen(Listener listener) {
            const std::lock_guard lock(m_mutex);
            m_listener = std::move(listener);
        }
        /// Who listens hears of it.
        void arrive(std::size_t count) {
            Listener listener;
            {
                const std::lock_guard lock(m_mutex);
                m_arrived = std::min(m_arrived + count, m_size);
                listener = m_listener;
            }
            if (listener)
                listener({});
        }

    private:
        const std::size_t m_size;
        mutable std::mutex m_mutex; // guards all below
        std::size_t m_arrived = 0;
        Listener m_listener;
    };

    Trickle(const Clip::Track& track, std::shared_ptr<Content> content, Random random)
        : m_track(track), m_content(std::move(content)), m_random(random) {}

    const host::StreamInfo& info() const override { return m_track.info; }
    /// What comes after it has looked is for the next time.
    Batch read(std::size_t count) override {
        Batch batch;
        for (const auto arrived = m_content->arrived(); count > 0 && m_next < arrived; --count)
            batch.samples.push_back(std::make_unique<host::Sample>(m_track.samples[m_next++]));
        batch.ended = m_next == m_track.samples.size();
        m_content->isWaitedFor = batch.samples.empty();
        pause(milliseconds(m_random.below(6)));
        return batch;
    }
    void listen(Listener listener) override { m_content->listen(std::move(listener)); }
    std::string seek(double seconds) override {
        m_next = m_track.keyFrameBefore(seconds);
        return "";
    }
    void interrupt() override {}

private:
    const Clip::Track& m_track;
    const std::shared_ptr<Content> m_content;
    Random m_random; // the reading thread's, like what follows
    std::size_t m_next = 0;
};

class Listener final : public host::Observer {
public:
    void onRecord(const host::Record&) override {}
    void onStatus(const host::Status& status) override {
        require(status.state != host::State::Failed, "the element fails: " + status.reason);
    }
    void onSeek(const host::SeekResult& result) override {
        require(result.generation <= host::SeekResult().generation + 1000 &&
                    !answered[result.generation].exchange(true),
                "a seek is answered twice");
        ++answers;
    }
    void onEnd(double) override { hasEnded = true; }

    std::array<std::atomic<bool>, 1001> answered{};
    std::atomic<unsigned int> answers{0};
    std::atomic<bool> hasEnded{false};
};

} // namespace

/// A reference host whose streams are filled while it plays, and told of it, and sought.
void feeding(Random random) {
    playStandalone();
    library();
    support::SinkWatch::instance().restart({false, false, false});
    const Clip& clip = *fed().fed;
    std::vector<std::shared_ptr<Trickle::Content>> contents;
    Listener listener;
    const auto loop = std::make_shared<host::EventLoop>();
    host::MediaElement::Options options;
    options.tick = milliseconds(10);
    host::MediaElement element(library(), loop, listener, options);
    host::MediaSource source;
    source.open = [&, numbers = random.child()](const std::atomic<bool>&) mutable {
        host::DemuxedMedia media;
        for (std::size_t i = 0; i < clip.tracks.size(); ++i)
            media.streams.push_back(
                std::make_unique<Trickle>(clip.tracks[i], contents[i], numbers.child()));
        return media;
    };
    for (const auto& track : clip.tracks)
        contents.push_back(std::make_shared<Trickle::Content>(track.samples.size()));
    element.openSource(source);
    element.play();

    unsigned int asked = 0;
    auto filling = contents;
    for (const auto& each : filling) // what is there before is never waited for
        eventually(milliseconds(0), "the first read", [&] { return each->isWaitedFor.load(); });
    while (!filling.empty()) {
        const auto at =
            filling.begin() +
            static_cast<std::ptrdiff_t>(random.below(static_cast<unsigned int>(filling.size())));
        if (random.oneIn(8))
            element.resumeFeeding();
        for (unsigned int i = random.below(16); i > 0 && !(*at)->isWaitedFor; --i)
            pause(milliseconds(1));
        (*at)->arrive(1 + random.below(10)); // what comes last is told once
        if ((*at)->isWhole())
            filling.erase(at);
        if (random.oneIn(10)) {
            element.seek(random.time(1.5));
            ++asked;
        }
        pause(milliseconds(random.below(4)));
    }
    eventually(milliseconds(500), "the end of what has been fed",
               [&] { return listener.hasEnded.load(); });
    require(listener.answers == asked, "a seek is not answered");
    require(picturesShown(1.9, 2) > 0, "the last pictures are not shown");
    require(
        within(milliseconds(0), "release", [&] { return element.release(milliseconds(30000)); }),
        "a release does not return");
}

} // namespace chaos
