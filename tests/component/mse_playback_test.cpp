// Media sources all the way: demultiplexed, fed, decrypted, decoded, shown. What a decoder outside
// this system makes of the same file is what has to come out.

#include "support/media_host.h"
#include "support/sink_watch.h"

#include "element_fixture.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <optional>
#include <unistd.h>

namespace {

using host::ClearKey;
using support::RenderedStream;
using support::SinkWatch;
using support::TestDrm;
using Scheme = host::Protection::Scheme;
using Keys = std::shared_ptr<ClearKey>;

constexpr auto interfaces = {ClearKey::Interface::PerRange, ClearKey::Interface::FullSample};
constexpr SinkWatch::Options clocked = {true, true, false};
constexpr auto longBound = std::chrono::seconds(60);
constexpr double lengthTolerance = 0.05; // seconds
constexpr double soundTolerance = 0.1;   // seconds, of single buffers
constexpr std::uint8_t cipher = 0x5A;
constexpr host::KeyPair ownPair = {{1, 2, 3}, {4, 5, 6}}; ///< what this test protects with

/// What ffmpeg decodes.
struct Reference {
    std::vector<std::string> digests; ///< of the frames, in the order in which they are shown
    std::vector<double> times;        ///< theirs, seconds
    double sound = 0;                 ///< seconds of it from time 0 on
    double end = 0;                   ///< of both, seconds
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

/// A stream whose samples are changed, or late, as they are read.
class Changed : public host::SampleStream {
public:
    explicit Changed(std::unique_ptr<host::SampleStream> stream) : m_stream(std::move(stream)) {}
    const host::StreamInfo& info() const override { return m_stream->info(); }
    std::string seek(double seconds) override { return m_stream->seek(seconds); }
    void interrupt() override { m_stream->interrupt(); }

protected:
    const std::unique_ptr<host::SampleStream> m_stream;
};

class LateStream final : public Changed {
public:
    using Changed::Changed;
    Batch read(std::size_t count) override {
        auto batch = m_stream->read(count);
        std::this_thread::sleep_for(std::chrono::milliseconds(300)); // each time
        return batch;
    }
};

/// What becomes of each stream on its way in.
using Change =
    std::function<std::unique_ptr<host::SampleStream>(std::unique_ptr<host::SampleStream>)>;

Change protecting(Scheme scheme) {
    return [scheme](auto stream) { return host::protect(std::move(stream), scheme, ownPair); };
}

/// One media element that plays one file through the library. The library decrypts with the keys,
/// unless there is something else that it is offered.
class Player {
public:
    explicit Player(const std::string& path, Keys keys = nullptr,
                    const Change& change = protecting(Scheme::None),
                    SinkWatch::Options watch = {false, true, true})
        : Player(path, keys, keys.get(), change, watch) {}
    Player(const std::string& path, Keys keys, UVADRMBackend* drm, const Change& change,
           SinkWatch::Options watch)
        : m_keys(keys), m_element(library(), m_loop, m_recorder, {}) {
        SinkWatch::instance().restart(watch);
        UVA_OfferDRMBackend(host::clearKeySystem, drm);
        host::MediaSource source;
        source.open = [=](const std::atomic<bool>& cancelled) {
            auto media = host::openMedia(path, cancelled);
            for (auto& stream : media.streams)
                stream = change(std::move(stream));
            return media;
        };
        source.keys = std::move(keys);
        m_element.openSource(std::move(source));
        m_element.play();
    }
    ~Player() {
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
    host::Status status() { return m_recorder.status(); }
    /// What was told since the last call.
    std::string story() { return m_recorder.story(false); }

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

    Recorder m_recorder;
    const Keys m_keys;
    const std::shared_ptr<host::EventLoop> m_loop = std::make_shared<host::EventLoop>();
    host::MediaElement m_element;
};

/// Every frame, as it was, when it was; sound of the right length; an end where the media ends.
void expectPlayed(Player& player, const Reference& expected) {
    ASSERT_TRUE(player.waitFor(State::Ended)) << player.status().reason;
    const auto status = player.status();
    EXPECT_NEAR(status.position, expected.end, lengthTolerance);
    EXPECT_NEAR(status.duration, expected.end, lengthTolerance);

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
    for (const std::string name : clips) {
        const auto expected = decodeClip(name);
        for (const auto scheme : {Scheme::None, Scheme::Cenc, Scheme::Cbcs}) {
            for (const auto interface : interfaces) {
                SCOPED_TRACE(name + " " + std::to_string(static_cast<int>(scheme)));
                Player player(generated(name), keysWith(interface, ownPair), protecting(scheme));
                expectPlayed(player, expected);
                if (expected.sound > 0)
                    expectTone(SinkWatch::instance().audio());
            }
        }
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
    const auto late = [](auto stream) { return std::make_unique<LateStream>(std::move(stream)); };
    Player player(generated("frag.mp4"), nullptr, late, clocked);
    expectPlayed(player, decode(generated("frag.mp4")));
}

TEST(MsePlayback, BeginsWhereItIsSoughtTo) {
    auto& watch = SinkWatch::instance();
    Player player(generated("clip.mp4"), nullptr, protecting(Scheme::None), {true, false, true});
    ASSERT_TRUE(player.waitFor(State::Playing));
    for (const double target : {2.71, 0.013, 5.49, 1.0, 4.242}) {
        SCOPED_TRACE(target);
        watch.restart({true, false, true});
        player.element().seek(target);
        ASSERT_TRUE(
            waitUntil([&] { return player.story().find("succeeded") != std::string::npos; }));
        ASSERT_TRUE(waitUntil([&] {
            return firstAfterSeek(watch.video(), target) && firstAfterSeek(watch.audio(), target);
        }));
        const double frame = firstAfterSeek(watch.video(), target)->position;
        const double sound = firstAfterSeek(watch.audio(), target)->position;
        EXPECT_NEAR(frame, target, 0.04);
        EXPECT_NEAR(sound, frame, 0.045);
    }
}

/// One of the two rounds that a clip is played: each has its own key.
enum Round : char { First = '1', Second = '2' };

/// What of a clip is not encrypted.
struct Layout {
    bool clearLead = false;     ///< the first round
    std::size_t clearBytes = 0; ///< the beginning of each sample
};

/// A clear stream twice, the second round behind the first, encrypted.
class TwiceEncrypted final : public Changed {
public:
    TwiceEncrypted(std::unique_ptr<host::SampleStream> clear, double length, Layout layout)
        : Changed(std::move(clear)), m_length(length), m_layout(layout) {}

    Batch read(std::size_t count) override {
        auto batch = m_stream->read(count);
        for (auto& sample : batch.samples)
            sample = change(sample->data());
        if (batch.ended && m_round == First) {
            m_round = Second;
            batch.error = m_stream->seek(0);
            batch.ended = false;
        }
        return batch;
    }

private:
    std::unique_ptr<host::Sample> change(host::SampleData data) const {
        for (double* time : {&data.pts, &data.dts})
            *time += m_round == Second ? m_length : 0;
        if (m_round == First && m_layout.clearLead)
            return std::make_unique<host::Sample>(data);
        auto bytes = std::make_shared<std::vector<std::uint8_t>>(data.payload.get(),
                                                                 data.payload.get() + data.size);
        const auto clear = std::min<std::size_t>(data.size, m_layout.clearBytes);
        for (std::size_t i = clear; i < data.size; ++i)
            (*bytes)[i] ^= cipher;
        data.payload = {bytes, bytes->data()};
        data.protection.subsamples = {
            {static_cast<std::uint32_t>(clear), static_cast<std::uint32_t>(data.size - clear)}};
        data.protection.scheme = host::Protection::Scheme::Cenc;
        data.protection.keyId = {static_cast<std::uint8_t>(m_round)};
        return std::make_unique<host::Sample>(data);
    }

    const double m_length;
    const Layout m_layout;
    Round m_round = First;
};

constexpr struct Clip {
    const char* name;
    std::size_t frames;
    double length; ///< of the round, seconds
} twicePlayed[] = {
    {"h264-aac.mp4", 50, 2}, {"h264-aac.ts", 25, 1}, {"h265-eac3.mp4", 25, 1},
    {"mpeg4-mp3.mp4", 0, 1}, {"mpeg2-ac3.ts", 0, 1}, {"vp9-opus.webm", 25, 1},
};

/// Frames and seconds of sound that were rendered in a round.
struct Shown {
    std::size_t frames = 0;
    double sound = 0;
};

/// Of both rounds. The process lives, whatever the host's content protection does.
std::array<Shown, 2> playTwice(const Clip& clip, UVADRMBackend* drm, Layout layout) {
    const auto twice = [&](auto stream) {
        return std::make_unique<TwiceEncrypted>(std::move(stream), clip.length, layout);
    };
    // With keys the host feeds what they are needed for.
    const auto keys = keysWith(ClearKey::Interface::PerRange, {{First}, {}});
    keys->addKey({{Second}, {}});
    Player player(generated(clip.name), keys, drm, twice, {false, false});
    EXPECT_TRUE(player.waitFor(State::Ended)) << player.status().reason;
    EXPECT_TRUE(player.element().release(longBound));
    std::array<Shown, 2> shown;
    const auto roundOf = [&](double position) -> Shown& {
        return shown[position < clip.length - 0.001 ? 0 : 1];
    };
    for (const auto& frame : SinkWatch::instance().video().buffers)
        ++roundOf(frame.position).frames;
    for (const auto& sound : SinkWatch::instance().audio().buffers)
        roundOf(sound.position).sound += sound.duration;
    return shown;
}

/// What a host's content protection may do instead of decrypting the first round.
constexpr struct {
    const char* what;
    TestDrm::Call call;
    int every = 1;
    std::size_t clearBytes = 0;
} faults[] = {
    {"refuses the key", TestDrm::Create},
    {"refuses the key, headers are clear", TestDrm::Create, 1, 40},
    {"fails to decrypt", TestDrm::Decrypt},
    {"fails now and then", TestDrm::Decrypt, 3},
};

TEST(MissingKey, ShowsAllThatComesAfterTheKey) {
    for (const auto& clip : twicePlayed) {
        for (const auto& row : faults) {
            SCOPED_TRACE(std::string(clip.name) + " " + row.what);
            TestDrm drm;
            drm.cipher = cipher;
            drm.answers[row.call] = TestDrm::Refuses;
            drm.answersFor = First;
            drm.answersEvery = row.every;
            drm.hasFullSample = true;
            const auto second = playTwice(clip, &drm, {false, row.clearBytes})[1];
            EXPECT_EQ(drm.created, drm.released);
            EXPECT_EQ(second.frames, clip.frames);
            EXPECT_NEAR(second.sound, clip.length, soundTolerance);
        }
    }
}

TEST(MissingKey, ShowsAClearLead) {
    constexpr std::size_t heldByDecoder = 2; // frames, lost with what cannot be decoded behind them
    for (const auto& clip : twicePlayed) {
        for (const bool withDrm : {true, false}) {
            SCOPED_TRACE(std::string(clip.name) + (withDrm ? "" : " without a DRM"));
            TestDrm drm;
            drm.cipher = cipher;
            drm.answers[TestDrm::Create] = TestDrm::Refuses;
            drm.answersFor = Second;
            const auto first = playTwice(clip, withDrm ? &drm : nullptr, {true})[0];
            EXPECT_GE(first.frames + heldByDecoder, clip.frames);
            EXPECT_LE(first.frames, clip.frames);
            EXPECT_NEAR(first.sound, clip.length, soundTolerance);
        }
    }
}

} // namespace
