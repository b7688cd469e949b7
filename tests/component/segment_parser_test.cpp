#include "av_stream.h"
#include "segment_fixture.h"

#include <fstream>
#include <random>

namespace {

Bytes contentOf(const std::string& name) {
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
    "corpus:mse/hevc.mp4",
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
    "corpus:cenc/muxed-clearkey-pssh.mp4",
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

TEST_P(Segments, AreTheSameHoweverTheyAreSplit) {
    const auto stream = contentOf(GetParam());
    const auto type = typeOf(GetParam());
    const auto whole = parse(stream, type);
    EXPECT_EQ(whole->error, "");
    ASSERT_FALSE(whole->inits.empty());
    ASSERT_FALSE(whole->frames.empty());
    std::vector<std::size_t> random(200);
    std::mt19937 numbers(1);
    for (auto& size : random)
        size = 1 + numbers() % (numbers() % 3 == 0 ? 20000 : 30);
    for (const auto& sizes : {std::vector<std::size_t>{1}, {2, 7, 1}, {4096}, {65536}, random}) {
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
         << hexOf({config.codecData, config.codecData + config.codecDataSize});
    return text.str();
}

TEST_P(Segments, HoldWhatTheDemuxerFinds) {
    const bool isWebm = typeOf(GetParam()) == "video/webm";
    const auto told = parse(contentOf(GetParam()), typeOf(GetParam()));
    ASSERT_FALSE(told->inits.empty());
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
            ASSERT_EQ(contentOf(frame), contentOf(sample)) << i;
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
            ASSERT_NEAR(frame.duration, sample.duration, isWebm ? 0.0011 : 1e-5) << i;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Files, Segments, testing::ValuesIn(files));

} // namespace
