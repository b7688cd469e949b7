// Media sources all the way: demultiplexed, fed, decrypted, decoded, shown. What a decoder outside
// this system makes of the same file is what has to come out.

#include "host/backend_library.h"
#include "host/event_loop.h"
#include "host/media_element.h"

#include "support/sink_watch.h"
#include "support/wait_until.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <optional>
#include <random>
#include <sstream>
#include <unistd.h>

namespace {

using host::ClearKey;
using host::SeekOutcome;
using host::State;
using support::RenderedStream;
using support::SinkWatch;
using support::waitUntil;
using Scheme = host::Protection::Scheme;
using Keys = std::shared_ptr<ClearKey>;

constexpr auto interfaces = {ClearKey::Interface::PerRange, ClearKey::Interface::FullSample};
constexpr SinkWatch::Options clocked = {true, true, false};
constexpr auto longBound = std::chrono::seconds(60);
constexpr double lengthTolerance = 0.05;                  // seconds
constexpr host::KeyPair ownPair = {{1, 2, 3}, {4, 5, 6}}; ///< what this test protects with

/// What ffmpeg decodes.
struct Reference {
    std::vector<std::string> digests; ///< of the frames, in the order in which they are shown
    std::vector<double> times;        ///< theirs, seconds
    double sound = 0;                 ///< seconds of it from time 0 on
    double end = 0;                   ///< of both, seconds
    double duration = 0;              ///< that the container tells of, seconds
};

/// `options` go in front of the input. A transport stream's times count from its beginning.
Reference decode(const std::string& path, const std::string& options = "") {
    const bool transportStream = path.find(".ts") != std::string::npos;
    const auto command = "ffmpeg -nostdin -v error " + options +
                         (transportStream ? "" : " -copyts") + " -i '" + path +
                         "' -map '0:V:0?' -map '0:a:0?' -fps_mode passthrough -enc_time_base:v -1"
                         " -c:a pcm_s16le -f framemd5 -";
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    Reference reference;
    double unit[2] = {0, 0};
    char kind[2][8] = {"", ""};
    char line[256];
    while (pipe != nullptr && std::fgets(line, sizeof line, pipe.get()) != nullptr) {
        unsigned int stream = 0;
        double numerator = 0, denominator = 0, pts = 0, duration = 0;
        char text[33];
        if (std::sscanf(line, "#tb %1u: %lf/%lf", &stream, &numerator, &denominator) == 3)
            unit[stream & 1U] = numerator / denominator;
        else if (std::sscanf(line, "#media_type %1u: %7s", &stream, text) == 2)
            std::snprintf(kind[stream & 1U], sizeof kind[0], "%.7s", text);
        else if (std::sscanf(line, "%u, %*d, %lf, %lf, %*d, %32s", &stream, &pts, &duration,
                             text) == 4) {
            const double begin = pts * unit[stream & 1U];
            const double end = begin + duration * unit[stream & 1U];
            reference.end = std::max(reference.end, end);
            if (kind[stream & 1U] == std::string("video")) {
                reference.times.push_back(begin);
                reference.digests.emplace_back(text);
            } else {
                reference.sound += std::max(0.0, end - std::max(begin, 0.0));
            }
        }
    }
    EXPECT_GT(reference.end, 0) << command;
    reference.duration = reference.end;
    return reference;
}

host::KeyPair pairOf(const std::string& text) {
    host::KeyPair pair{};
    EXPECT_TRUE(host::parseKey(text, pair)) << text;
    return pair;
}

Keys keysWith(ClearKey::Interface interface, const host::KeyPair& pair) {
    auto keys = std::make_shared<ClearKey>(interface);
    keys->addKey(pair);
    return keys;
}

std::string generated(const std::string& name) {
    return TEST_MEDIA_DIR "/" + name;
}

std::string corpus(const std::string& name) {
    return TEST_CORPUS "/" + name;
}

/// Is late each time.
class LateStream final : public host::SampleStream {
public:
    explicit LateStream(std::unique_ptr<host::SampleStream> stream) : m_stream(std::move(stream)) {}
    const host::StreamInfo& info() const override { return m_stream->info(); }
    Batch read(std::size_t count) override {
        auto batch = m_stream->read(count);
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        return batch;
    }
    std::string seek(double seconds) override { return m_stream->seek(seconds); }
    void interrupt() override { m_stream->interrupt(); }

private:
    const std::unique_ptr<host::SampleStream> m_stream;
};

/// One media element that plays one file through the library.
class Player final : public host::Observer {
public:
    explicit Player(const std::string& path, Keys keys = nullptr, Scheme scheme = Scheme::None,
                    SinkWatch::Options watch = {false, true, true}, bool late = false)
        : m_keys(keys), m_element(library(), m_loop, *this, {}) {
        SinkWatch::instance().restart(watch);
        if (keys != nullptr)
            UVA_OfferDRMBackend(host::clearKeySystem, keys.get());
        host::MediaSource source;
        source.open = [=](const std::atomic<bool>& cancelled) {
            auto media = host::openMedia(path, cancelled);
            for (auto& stream : media.streams) {
                stream = host::protect(std::move(stream), scheme, ownPair);
                if (late)
                    stream = std::make_unique<LateStream>(std::move(stream));
            }
            return media;
        };
        source.keys = std::move(keys);
        m_element.openSource(std::move(source));
        m_element.play();
    }
    ~Player() override {
        EXPECT_TRUE(m_element.release(longBound));
        UVA_OfferDRMBackend(host::clearKeySystem, nullptr);
        if (m_keys != nullptr) {
            EXPECT_EQ(m_keys->created(), m_keys->released());
        }
    }

    host::MediaElement& element() { return m_element; }
    bool waitFor(State state) {
        return waitUntil([&] { return status().state == state || status().state == State::Failed; },
                         longBound) &&
               status().state == state;
    }
    host::Status status() { return locked(m_status); }
    std::size_t seeks() { return locked(m_seeks); }
    double heldAt() { return locked(m_heldAt); } ///< where playback last waited for data, seconds

private:
    static std::shared_ptr<host::BackendLibrary> library() {
        static const auto loaded = [] {
            setenv("NOX_GST_STANDALONE", "1", 1);
            gst_init(nullptr, nullptr);
            SinkWatch::instance();
            return host::BackendLibrary::load("");
        }();
        EXPECT_NE(loaded.library, nullptr) << loaded.error;
        return loaded.library;
    }

    template <typename Value>
    Value locked(const Value& value) {
        const std::lock_guard lock(m_mutex);
        return value;
    }

    void onRecord(const host::Record&) override {}
    void onStatus(const host::Status& status) override {
        const std::lock_guard lock(m_mutex);
        if (m_status.state == State::Playing && status.state == State::Buffering)
            m_heldAt = status.position;
        m_status = status;
    }
    void onSeek(double, SeekOutcome outcome) override {
        const std::lock_guard lock(m_mutex);
        EXPECT_EQ(outcome, SeekOutcome::Succeeded);
        ++m_seeks;
    }
    void onKeyNeeded(const host::KeyBytes&) override {}

    std::mutex m_mutex; // guards the three below
    host::Status m_status;
    std::size_t m_seeks = 0;
    double m_heldAt = 0;
    const Keys m_keys;
    const std::shared_ptr<host::EventLoop> m_loop = std::make_shared<host::EventLoop>();
    host::MediaElement m_element;
};

/// Every frame, as it was, when it was; sound of the right length; an end where the media ends.
void expectPlayed(Player& player, const Reference& expected) {
    ASSERT_TRUE(player.waitFor(State::Ended)) << player.status().reason;
    const auto status = player.status();
    EXPECT_NEAR(status.position, expected.end, lengthTolerance);
    EXPECT_NEAR(status.duration, expected.duration, lengthTolerance);

    const auto video = SinkWatch::instance().video();
    ASSERT_EQ(video.buffers.size(), expected.digests.size());
    std::size_t different = 0;
    for (std::size_t i = 0; i < video.buffers.size(); ++i) {
        EXPECT_NEAR(video.buffers[i].position, expected.times[i], 0.002) << "frame " << i;
        different += video.buffers[i].digest != expected.digests[i] ? 1 : 0;
    }
    EXPECT_EQ(different, 0U) << "of " << video.buffers.size() << " frames";

    const auto audio = SinkWatch::instance().audio();
    const double sound = audio.rate > 0 ? static_cast<double>(audio.sound.size()) / audio.rate : 0;
    EXPECT_NEAR(sound, expected.sound, lengthTolerance);
}

/// The 440 Hz of the generated clips. The edges, where a codec swings in and out, do not count.
void expectTone(const RenderedStream& audio) {
    const auto edge = static_cast<std::size_t>(audio.rate) / 10;
    ASSERT_GT(audio.sound.size(), 5 * edge);
    double energy = 0;
    int crossings = 0;
    const std::size_t end = audio.sound.size() - edge;
    for (std::size_t i = edge; i < end; ++i) {
        energy += static_cast<double>(audio.sound[i]) * audio.sound[i];
        crossings += std::signbit(audio.sound[i]) != std::signbit(audio.sound[i - 1]) ? 1 : 0;
    }
    const auto count = static_cast<double>(end - edge);
    EXPECT_NEAR(std::sqrt(energy / count), 0.088, 0.03);
    EXPECT_NEAR(crossings * audio.rate / count, 880, 15);
}

constexpr const char* clips[] = {
    "h264-aac.mp4",  "frag.mp4",     "h264-only.mp4",     "aac-only.mp4",    "h265-eac3.mp4",
    "h264-aac.ts",   "h265-aac.ts",  "h265-10bit.ts",     "vp8-vorbis.webm", "vp9-opus.webm",
    "mpeg4-mp3.mp4", "mpeg2-ac3.ts", "theora-vorbis.ogv", "opus.ogg",
};

/// Of a generated clip; video of codecs that media sources do not take is left out.
Reference decodeClip(const std::string& name) {
    const bool soundOnly = name.rfind("mpeg", 0) == 0 || name.rfind("theora", 0) == 0;
    return decode(generated(name), soundOnly ? "-vn" : "");
}

TEST(MsePlayback, ShowsGeneratedClipsClearAndProtected) {
    const struct {
        const char* what;
        Scheme scheme;
        ClearKey::Interface interface;
    } rows[] = {
        {"clear", Scheme::None, ClearKey::Interface::PerRange},
        {"cenc, ranges", Scheme::Cenc, ClearKey::Interface::PerRange},
        {"cenc, whole samples", Scheme::Cenc, ClearKey::Interface::FullSample},
        {"cbcs, ranges", Scheme::Cbcs, ClearKey::Interface::PerRange},
        {"cbcs, whole samples", Scheme::Cbcs, ClearKey::Interface::FullSample},
    };
    for (const std::string name : clips) {
        const auto expected = decodeClip(name);
        for (const auto& row : rows) {
            SCOPED_TRACE(name + " " + row.what);
            Player player(generated(name), keysWith(row.interface, ownPair), row.scheme);
            expectPlayed(player, expected);
            if (expected.sound > 0)
                expectTone(SinkWatch::instance().audio());
        }
    }
}

TEST(MsePlayback, ShowsTheSameWhileEverythingIsLogged) {
    const auto expected = decodeClip("h264-aac.mp4");
    for (const auto scheme : {Scheme::None, Scheme::Cenc}) {
        Player player(generated("h264-aac.mp4"), keysWith(ClearKey::Interface::PerRange, ownPair),
                      scheme);
        gst_debug_set_threshold_from_string("*:5", TRUE);
        expectPlayed(player, expected);
        gst_debug_set_threshold_from_string("*:1", TRUE);
    }
}

TEST(MsePlayback, ShowsEveryFrameOfRealFiles) {
    if (!std::filesystem::exists(corpus("mse")))
        GTEST_SKIP() << "there is no corpus";
    for (const auto& entry : std::filesystem::directory_iterator(corpus("mse"))) {
        const auto name = entry.path().filename().string();
        SCOPED_TRACE(name);
        const bool isSegment = name.find("sintel") != std::string::npos;
        if (isSegment || name == "av1.mp4") // which media sources do not take
            continue;
        const auto expected = decode(entry.path());
        Player player(entry.path());
        expectPlayed(player, expected);
    }
}

/// The clear twin of some files, its two parts joined.
std::string joinClearTwin() {
    const auto path = "/tmp/mse_playback_test." + std::to_string(getpid()) + ".mp4";
    std::ofstream joined(path, std::ios::binary);
    for (const char* part : {"mse/sintel-256x110-init.mp4", "mse/sintel-256x110-seg1.mp4"})
        joined << std::ifstream(corpus(part), std::ios::binary).rdbuf();
    return path;
}

TEST(MsePlayback, ShowsRealEncryptedFiles) {
    if (!std::filesystem::exists(corpus("cenc")))
        GTEST_SKIP() << "there is no corpus";
    const std::string sintel = "abba271e8bcf552bbd2e86a434a9a5d9:69eaa802a6763af979e8d1940fb88392";
    const std::string bear = "31323334353637383930313233343536:32333435363738393021323334353637";
    const std::pair<std::string, std::string> rows[] = {
        {"sintel-cenc-clear-lead.mp4", sintel},
        {"sintel-cenc-subsamples.mp4", sintel},
        {"sintel-cbcs-2-8.mp4", sintel},
        {"bear-cbcs-video.mp4", bear},
        {"bear-cbcs-audio.mp4", bear},
        {"bear-hevc-cenc.mp4", bear},
        {"bbb-cenc-video.mp4", "ad13f9ea2be698b875f504a8e3ccea64:be7df8a3667a6a8fd564d0ed81339a95"},
        {"bbb-cenc-audio.mp4", "558ee541b90ab2f3950d00ade3760d45:91039263016da635770d57db92f98bd0"},
    };
    const auto twin = joinClearTwin();
    for (const auto& [name, key] : rows) {
        const auto path = corpus("cenc/" + name);
        const auto expected =
            key == sintel ? decode(twin)
                          : decode(path, "-decryption_key " + key.substr(key.find(':') + 1));
        for (const auto interface : interfaces) {
            SCOPED_TRACE(name);
            Player player(path, keysWith(interface, pairOf(key)));
            expectPlayed(player, expected);
        }
    }
    std::filesystem::remove(twin);
}

/// Keys that change, and clear media that become encrypted: what was clear before comes out.
TEST(MsePlayback, ShowsFilesWhoseProtectionChanges) {
    const auto keys =
        keysWith(interfaces.begin()[0],
                 pairOf("000102030405060708090a0b0c0d0e0f:202122232425262728292a2b2c2d2e2f"));
    keys->addKey(pairOf("101112131415161718191a1b1c1d1e1f:303132333435363738393a3b3c3d3e3f"));
    const auto clear = decode(generated("frag.mp4"));
    for (const auto* name : {"protected/rotation.mp4", "protected/restart.mp4"}) {
        SCOPED_TRACE(name);
        Player player(generated(name), keys);
        expectPlayed(player, clear);
    }
}

/// Of WebM encryption ffmpeg knows nothing: what can be known is how much there is of it.
TEST(MsePlayback, ShowsRealEncryptedWebm) {
    const auto path = corpus("cenc/webm-vp8-vorbis.webm");
    if (!std::filesystem::exists(path))
        GTEST_SKIP() << "there is no corpus";
    const auto pair = pairOf("30313233343536373839303132333435:ebdd62f16814d27b68ef122afce4ae3c");
    for (const auto interface : interfaces) {
        Player player(path, keysWith(interface, pair));
        ASSERT_TRUE(player.waitFor(State::Ended)) << player.status().reason;
        EXPECT_NEAR(player.status().position, player.status().duration, lengthTolerance);
        EXPECT_EQ(SinkWatch::instance().video().buffers.size(), 182U);
        const auto audio = SinkWatch::instance().audio();
        EXPECT_NEAR(static_cast<double>(audio.sound.size()) / 44100, 6.0, 0.07);
    }
}

/// The first of what was rendered after the sink's last flush, if enough has followed.
std::optional<support::Rendered> firstAfterSeek(const RenderedStream& stream, double target) {
    constexpr double enough = 0.1;
    const auto& all = stream.buffers;
    if (all.empty() || all.back().flushes == 0 || all.back().position < target + enough)
        return std::nullopt;
    return *std::find_if(all.begin(), all.end(), [&all](const auto& buffer) {
        return buffer.flushes == all.back().flushes;
    });
}

TEST(MsePlayback, LosesNothingOfWhatComesLate) {
    Player player(generated("frag.mp4"), nullptr, Scheme::None, clocked, true);
    expectPlayed(player, decode(generated("frag.mp4")));
    EXPECT_LT(player.heldAt(), 1.0) << "at the beginning, while there is little";
}

TEST(MsePlayback, BeginsWhereItIsSoughtTo) {
    auto& watch = SinkWatch::instance();
    Player player(generated("clip.mp4"), nullptr, Scheme::None, {true, false, true});
    ASSERT_TRUE(player.waitFor(State::Playing));
    std::minstd_rand random(7);
    std::uniform_real_distribution<double> anywhere(0, 5.5);
    for (std::size_t round = 1; round <= 10; ++round) {
        const double target = anywhere(random);
        SCOPED_TRACE(target);
        watch.restart({true, false, true});
        player.element().seek(target);
        ASSERT_TRUE(waitUntil([&] { return player.seeks() == round; }));
        ASSERT_TRUE(waitUntil([&] {
            return firstAfterSeek(watch.video(), target) && firstAfterSeek(watch.audio(), target);
        }));
        const double frame = firstAfterSeek(watch.video(), target)->position;
        const double sound = firstAfterSeek(watch.audio(), target)->position;
        EXPECT_NEAR(frame, target, 0.04);
        EXPECT_NEAR(sound, frame, 0.045);
    }
}

} // namespace
