#include "av_stream.h"
#include "fragmented_file.h"
#include "segment_fixture.h"

#include <fstream>
#include <random>

namespace {

Bytes bytesOf(const std::string& name) {
    std::ifstream file(pathOf(name), std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), {});
}

std::string typeOf(const std::string& name) {
    return name.find(".webm") != std::string::npos ? "video/webm" : "video/mp4";
}

constexpr const char* files[] = {
    "frag.mp4",
    "vp8-vorbis.webm",
    "vp9-opus.webm",
    "corpus:mse/h264-320x240.mp4",
    "corpus:mse/aac.mp4",
    "corpus:mse/muxed-h264-aac-6s.mp4",
    "corpus:mse/ac3.mp4",
    "corpus:mse/eac3.mp4",
    "corpus:mse/opus.mp4",
    "corpus:mse/vp9-320x240.webm",
    "corpus:mse/opus.webm",
    "corpus:cenc/bbb-cenc-audio.mp4",
    "corpus:cenc/bbb-cenc-video.mp4",
    "corpus:cenc/bbb-clear-then-cenc.mp4",
    "corpus:cenc/bear-cbcs-audio.mp4",
    "corpus:cenc/bear-cbcs-video.mp4",
    "corpus:cenc/bear-hevc-cenc.mp4",
    "corpus:cenc/sintel-cbcs-2-8.mp4",
    "corpus:cenc/sintel-cenc-clear-lead.mp4",
    "corpus:cenc/sintel-cenc-subsamples.mp4",
    "corpus:cenc/webm-vp8-vorbis.webm",
    "corpus:progressive/webm-vp8-vorbis-6s.webm",
    "corpus:progressive/webm-vp8-vorbis-live.webm",
    "corpus:progressive/webm-vp9-opus-51.webm",
};

struct Segments : testing::TestWithParam<const char*> {
    void SetUp() override {
        if (!isHere(GetParam()))
            GTEST_SKIP() << "there is no corpus";
    }
};

/// These sizes over and over for some thousand bytes, then many bytes at once: no part of a stream
/// is spared in all files, and none takes long.
std::vector<std::size_t> mostlyTiny(std::vector<std::size_t> sizes) {
    constexpr std::size_t tiny = 8192;
    while (sizes.size() < tiny)
        sizes.push_back(sizes[sizes.size() % 3]);
    sizes.push_back(50001);
    return sizes;
}

TEST_P(Segments, AreTheSameHoweverTheyAreSplit) {
    const auto stream = bytesOf(GetParam());
    const auto type = typeOf(GetParam());
    const auto whole = parse(stream, type);
    EXPECT_EQ(whole->error, "");
    ASSERT_FALSE(whole->inits.empty());
    ASSERT_FALSE(whole->frames.empty());
    std::vector<std::size_t> random(200);
    std::mt19937 numbers(1);
    for (auto& size : random)
        size = 1 + numbers() % (numbers() % 3 == 0 ? 20000 : 30);
    for (const auto& sizes :
         {mostlyTiny({1, 1, 1}), mostlyTiny({2, 7, 1}), {4096}, {65536}, random}) {
        SCOPED_TRACE(sizes[0]);
        const auto told = parse(stream, type, sizes);
        EXPECT_EQ(told->error, "");
        EXPECT_EQ(told->order, whole->order);
        ASSERT_EQ(told->frames.size(), whole->frames.size());
        for (std::size_t i = 0; i < told->frames.size(); ++i) {
            const auto& one = told->frames[i].sample;
            const auto& other = whole->frames[i].sample;
            ASSERT_EQ(contentOf(one), contentOf(other)) << i;
            ASSERT_EQ(told->frames[i].track, whole->frames[i].track) << i;
            ASSERT_EQ(std::tie(one.pts, one.dts, one.duration),
                      std::tie(other.pts, other.dts, other.duration))
                << i;
        }
    }
}

/// The first stream of this kind as libavformat reads it.
std::vector<std::unique_ptr<host::Sample>> demux(const std::string& name, StreamInfo::Kind kind,
                                                 std::string& error) {
    const std::atomic<bool> cancelled{false};
    auto input = std::make_unique<host::AvInput>(pathOf(name), cancelled);
    error = input->open();
    const auto type = kind == StreamInfo::Kind::Audio ? AVMEDIA_TYPE_AUDIO : AVMEDIA_TYPE_VIDEO;
    const int index =
        error.empty() ? av_find_best_stream(input->context(), type, -1, -1, nullptr, 0) : -1;
    auto stream = index < 0 ? nullptr : host::AvStream::make(std::move(input), index, 0, error);
    return stream == nullptr ? Samples() : readAll(*stream, error);
}

std::string textOf(const UVAStreamConfig& config) {
    std::ostringstream text;
    text << config.codec << " " << config.sampleRate << " Hz " << config.channels << " channels "
         << config.width << "x" << config.height << " "
         << hexOf(Bytes(config.codecData, config.codecData + config.codecDataSize));
    return text.str();
}

TEST_P(Segments, HoldWhatTheDemuxerFinds) {
    const bool isWebm = typeOf(GetParam()) == "video/webm";
    const auto told = parse(bytesOf(GetParam()), typeOf(GetParam()));
    ASSERT_FALSE(told->inits.empty());
    if (told->inits.size() > 1)
        return; // the demuxer takes all for the first movie
    for (const auto& track : told->inits[0].tracks) {
        SCOPED_TRACE(track.info.codec);
        const bool isAudio = track.info.kind == StreamInfo::Kind::Audio;
        std::string error;
        const auto samples = demux(GetParam(), track.info.kind, error);
        auto frames = told->of(track.id);
        ASSERT_FALSE(samples.empty()) << error;
        // The demuxer leaves out audio that ends before time 0.
        while (isAudio && !frames.empty() && frames[0].pts + frames[0].duration < 1e-5)
            frames.erase(frames.begin());
        if (error.empty()) {
            EXPECT_EQ(frames.size(), samples.size());
        }
        double delay = 0; // of Opus in WebM, which the demuxer takes off
        for (std::size_t i = 0; i < std::min(frames.size(), samples.size()); ++i) {
            const auto& frame = frames[i];
            const auto& sample = samples[i]->data();
            ASSERT_EQ(contentOf(host::Sample(frame).data()), contentOf(sample)) << i;
            ASSERT_EQ(textOf(*frame.config), textOf(*sample.config)) << i;
            if (isWebm && track.info.codec == "opus" && i == 1)
                delay = frame.pts - sample.pts;
            if (sample.pts == 0 && isAudio)
                continue;
            ASSERT_LT(delay, 0.01);
            ASSERT_NEAR(frame.pts, sample.pts + delay, 1e-5) << i;
            if (sample.dts >= 0) {
                ASSERT_NEAR(frame.dts, sample.dts + delay, 1e-5) << i;
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Files, Segments, testing::ValuesIn(files));

/// As a local file, or as one that is not.
std::optional<host::FragmentedFile> indexOf(const std::string& name, bool isLocal) {
    static const std::atomic<bool> never{false};
    host::FileBytes bytes((isLocal ? "" : "subfile,,start,0,end,0,,:") + pathOf(name),
                          std::make_shared<host::Interruption>(never));
    EXPECT_EQ(bytes.open(), "");
    return host::indexFragments(bytes);
}

TEST(FileIndex, OfWhatIsNotLocalIsThatOfItsBoxes) {
    for (const auto* name :
         {"frag.mp4", "protected/rotation.mp4", "corpus:cenc/bear-cbcs-video.mp4"}) {
        SCOPED_TRACE(name);
        if (!isHere(name))
            continue;
        const auto scanned = indexOf(name, true), told = indexOf(name, false);
        ASSERT_TRUE(scanned && told);
        ASSERT_EQ(told->tracks.size(), scanned->tracks.size());
        for (std::size_t i = 0; i < told->tracks.size(); ++i) {
            const auto& starts = told->tracks[i].starts;
            const auto& all = scanned->tracks[i].starts;
            EXPECT_GT(all.size(), 2U);
            ASSERT_EQ(starts.size(), all.size());
            for (std::size_t at = 0; at < starts.size(); ++at) {
                EXPECT_EQ(starts[at].position, all[at].position) << at;
                EXPECT_NEAR(starts[at].time, all[at].time, 0.2) << at;
            }
        }
    }
    EXPECT_FALSE(indexOf("clip.mp4", true)) << "it is not fragmented";
    EXPECT_FALSE(indexOf("opus.ogg", true));
}

TEST(FileIndex, LeadsSeeksToTheSameSamples) {
    for (const auto* name : {"frag.mp4", "protected/rotation.mp4", "protected/restart.mp4"}) {
        SCOPED_TRACE(name);
        auto local = open(pathOf(name));
        auto other = open("subfile,,start,0,end,0,,:" + pathOf(name));
        ASSERT_EQ(local.streams.size(), 2U) << local.error;
        ASSERT_EQ(other.streams.size(), 2U) << other.error;
        for (std::size_t i = 0; i < 2; ++i) {
            for (const double target : {4.2, 0.0, 1.0, 99.0, 2.9}) {
                SCOPED_TRACE(target);
                std::string error, otherError;
                ASSERT_EQ(local.streams[i]->seek(target), "");
                ASSERT_EQ(other.streams[i]->seek(target), "");
                const auto samples = readAll(*local.streams[i], error);
                const auto others = readAll(*other.streams[i], otherError);
                EXPECT_EQ(error + otherError, "");
                ASSERT_EQ(samples.size(), others.size());
                EXPECT_TRUE(samples.front()->pts() <= target + 0.1);
                for (std::size_t at = 0; at < samples.size(); ++at) {
                    ASSERT_EQ(contentOf(samples[at]->data()), contentOf(others[at]->data()));
                    ASSERT_EQ(samples[at]->pts(), others[at]->pts());
                }
            }
        }
    }
}

} // namespace
