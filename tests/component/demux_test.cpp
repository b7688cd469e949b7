#include "codec_conversion.h"
#include "host/media_demuxer.h"
#include "mp4_scan.h"
#include "packet_protection.h"

#include "support/wait_until.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <netinet/in.h>
#include <set>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

using host::Protection;
using host::StreamInfo;
using support::waitUntil;
using Bytes = std::vector<std::uint8_t>;
using Samples = std::vector<std::unique_ptr<host::Sample>>;

/// "corpus:..." is a real file, anything else one that the build makes.
std::string pathOf(const std::string& name) {
    constexpr std::string_view corpus = "corpus:";
    return name.rfind(corpus, 0) == 0 ? TEST_CORPUS "/" + name.substr(corpus.size())
                                      : TEST_MEDIA_DIR "/" + name;
}

bool isHere(const std::string& name) {
    return std::filesystem::exists(TEST_CORPUS) || name.rfind("corpus:", 0) != 0;
}

host::DemuxedMedia open(const std::string& path) {
    const std::atomic<bool> cancelled{false};
    return host::openMedia(path, cancelled);
}

std::unique_ptr<host::SampleStream> openStream(const std::string& name, StreamInfo::Kind kind) {
    auto media = open(pathOf(name));
    EXPECT_EQ(media.error, "");
    for (auto& stream : media.streams) {
        if (stream->info().kind == kind)
            return std::move(stream);
    }
    return nullptr;
}

Samples readAll(host::SampleStream& stream, std::string& error) {
    Samples samples;
    while (true) {
        auto batch = stream.read(50);
        EXPECT_LE(batch.samples.size(), 50U);
        std::move(batch.samples.begin(), batch.samples.end(), std::back_inserter(samples));
        error = batch.error;
        if (batch.ended || !batch.error.empty())
            return samples;
        if (batch.samples.empty()) {
            ADD_FAILURE() << "a file has no pauses";
            return samples;
        }
    }
}

struct Times {
    double pts = NAN; ///< seconds; not a number: unknown
    double dts = NAN;
};

/// Of the packets that ffprobe finds, without the audio that ends before time 0.
std::vector<Times> probe(const std::string& path, bool audio) {
    const auto command = "ffprobe -v quiet -select_streams " + std::string(audio ? "a:0" : "V:0") +
                         " -show_entries packet=pts_time,dts_time,duration_time -of csv=p=1 '" +
                         path + "'";
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    const bool mayBegin = audio && path.find(".ts") == std::string::npos &&
                          path.find("opus") == std::string::npos &&
                          path.find("vorbis") == std::string::npos;
    std::vector<Times> packets;
    for (char line[128]; fgets(line, sizeof line, pipe.get()) != nullptr;) {
        if (std::string_view(line).rfind("packet", 0) != 0)
            continue;
        std::stringstream fields(line);
        double values[3] = {NAN, NAN, NAN};
        std::string field;
        std::getline(fields, field, ',');
        for (double& value : values)
            if (std::getline(fields, field, ','))
                value = field.rfind("N/A", 0) == 0 ? NAN : std::strtod(field.c_str(), nullptr);
        if (!mayBegin || !(values[0] < 0 && values[0] + values[2] < 1e-5))
            packets.push_back({values[0], values[1]});
    }
    return packets;
}

/// The one distance between the times of the samples and those that ffprobe finds.
void expectMoved(const Samples& samples, const std::vector<Times>& packets, double by) {
    ASSERT_EQ(samples.size(), packets.size());
    for (std::size_t i = 0; i < samples.size(); ++i) {
        if (const double pts = packets[i].pts + by; pts >= 0) {
            ASSERT_NEAR(samples[i]->pts(), pts, 1e-4) << i;
        }
        if (const double dts = packets[i].dts + by; dts >= 0) {
            ASSERT_NEAR(samples[i]->dts(), dts, 1e-4) << i;
        }
    }
}

Bytes startOf(const host::Sample& sample) {
    return {sample.payload(), sample.payload() + std::min<std::size_t>(sample.payloadSize(), 4)};
}

/// Where reading has to begin for a target.
std::size_t startFor(const Samples& scan, double target) {
    std::size_t start = scan.size();
    for (std::size_t i = 0; i < scan.size(); ++i) {
        if (scan[i]->data().keyFrame && (start == scan.size() || scan[i]->pts() <= target + 0.001))
            start = i;
    }
    return start;
}

struct File {
    const char* name;
    const char* audio; ///< MIME type, empty without
    const char* video;
    bool codecData = false; ///< of the video
};
void PrintTo(const File& file, std::ostream* out) {
    *out << file.name;
}

class Demux : public testing::TestWithParam<File> {
protected:
    void check(const std::string& name, host::SampleStream& stream, std::optional<double>& moved);
    void checkSeeks(host::SampleStream& stream, const Samples& scan);
};

void Demux::check(const std::string& name, host::SampleStream& stream,
                  std::optional<double>& moved) {
    const auto& info = stream.info();
    const bool audio = info.kind == StreamInfo::Kind::Audio;
    SCOPED_TRACE(info.codec);
    EXPECT_EQ(info.mimeType, audio ? GetParam().audio : GetParam().video);

    std::string error;
    const auto scan = readAll(stream, error);
    EXPECT_EQ(error, "");
    const auto packets = probe(pathOf(name), audio);
    ASSERT_FALSE(scan.empty());
    ASSERT_FALSE(packets.empty());
    if (!moved)
        moved = scan.back()->dts() - packets.back().dts;
    expectMoved(scan, packets, *moved);
    const bool isByteStream = name.find(".ts") != std::string::npos && !audio;
    double dts = -1e9;
    double end = 0;
    for (const auto& sample : scan) {
        ASSERT_NE(sample->payload(), nullptr);
        ASSERT_GT(sample->payloadSize(), 0U);
        EXPECT_GE(sample->dts(), dts);
        if (isByteStream) {
            EXPECT_EQ(startOf(*sample), Bytes({0, 0, 0, 1}));
            EXPECT_NE(sample->payload()[sample->payloadSize() - 1], 0);
        }
        EXPECT_GE(sample->pts(), audio ? 0 : -0.2);
        EXPECT_GE(sample->duration(), 0);
        EXPECT_LT(sample->duration(), 1.5);
        EXPECT_EQ(sample->config(), scan.front()->config());
        EXPECT_EQ(sample->keyId(), nullptr);
        dts = sample->dts();
        end = std::max(end, sample->pts() + sample->duration());
    }
    if (info.duration > 0) {
        EXPECT_NEAR(info.duration, end, 0.15);
    }
    const auto& config = *scan.front()->config();
    EXPECT_GT(audio ? config.sampleRate * config.channels : config.width * config.height, 0);
    if (!audio) {
        EXPECT_EQ(config.codecData != nullptr, GetParam().codecData);
    }
    checkSeeks(stream, scan);
}

void Demux::checkSeeks(host::SampleStream& stream, const Samples& scan) {
    const double end = scan.back()->pts();
    std::vector<double> targets = {0, end * 0.9, end * 0.5, end + 100, end * 0.3, end, end * 0.1};
    for (std::size_t i = 0; i < scan.size(); i += std::max<std::size_t>(scan.size() / 5, 1)) {
        const auto key = startFor(scan, scan[i]->pts());
        targets.push_back(scan[key]->pts());
        targets.push_back(scan[key]->pts() - 0.01);
    }
    for (double target : targets) {
        target = std::max(target, 0.0);
        SCOPED_TRACE("seek to " + std::to_string(target));
        ASSERT_EQ(stream.seek(target), "");
        std::string error;
        const auto rest = readAll(stream, error);
        EXPECT_EQ(error, "");
        const auto start = startFor(scan, target);
        ASSERT_EQ(rest.size(), scan.size() - start);
        for (std::size_t i = 0; i < rest.size(); ++i) {
            ASSERT_NEAR(rest[i]->pts(), scan[start + i]->pts(), 1e-3) << i;
            ASSERT_EQ(rest[i]->payloadSize(), scan[start + i]->payloadSize()) << i;
        }
        EXPECT_TRUE(rest.front()->data().keyFrame);
    }
}

TEST_P(Demux, DeliversEverySampleFromEveryKeyFrame) {
    if (!isHere(GetParam().name))
        GTEST_SKIP() << "there is no corpus";
    auto media = open(pathOf(GetParam().name));
    ASSERT_EQ(media.error, "");
    std::size_t expected = *GetParam().audio != '\0' ? 1 : 0;
    expected += *GetParam().video != '\0' ? 1 : 0;
    ASSERT_EQ(media.streams.size(), expected);
    std::optional<double> moved; // of all streams
    for (const auto& stream : media.streams)
        check(GetParam().name, *stream, moved);
}

constexpr auto* aac = "audio/x-aac+adts";
constexpr auto* ac3 = "audio/x-ac3";
constexpr auto* eac3 = "audio/x-eac3";
constexpr auto* mp3 = "audio/mpeg";
constexpr auto* opus = "audio/x-opus";
constexpr auto* vorbis = "audio/x-vorbis";
constexpr auto* none = "";
constexpr auto* h264 = "video/x-h264";
constexpr auto* h265 = "video/x-h265";
constexpr auto* vp8 = "video/x-vp8";
constexpr auto* vp9 = "video/x-vnd.on2.vp9";

constexpr File files[] = {
    {"clip.mp4", aac, h264, true},
    {"frag.mp4", aac, h264, true},
    {"h264-aac.ts", aac, h264},
    {"h265-eac3.mp4", eac3, h265, true},
    {"mpeg4-mp3.mp4", mp3, none},
    {"opus.ogg", opus, none},
    {"vp8-vorbis.webm", vorbis, vp8},
    {"vp9-opus.webm", opus, vp9},
    {"h265-aac.ts", aac, h265},
    {"h265-10bit.ts", none, h265},
    {"corpus:broken/mdat-too-long.mp4", aac, h264, true},
    {"corpus:hls/ts/bear-640x360-audio-2.ts", aac, none},
    {"corpus:hls/ts/bear-640x360-video-2.ts", none, h264},
    {"corpus:mse/ac3.mp4", ac3, none},
    {"corpus:mse/eac3.mp4", eac3, none},
    {"corpus:mse/hevc.mp4", none, h265, true},
    {"corpus:mse/muxed-h264-aac-6s.mp4", aac, h264, true},
    {"corpus:mse/opus.mp4", opus, none},
    {"corpus:progressive/aac-adts-id3.aac", aac, none},
    {"corpus:progressive/mkv-h264-ac3.mkv", ac3, h264, true},
    {"corpus:progressive/mp3-cbr-5s.mp3", mp3, none},
    {"corpus:progressive/mp3-cover-art.mp3", mp3, none},
    {"corpus:progressive/mp4-av1-aac.mp4", aac, none},
    {"corpus:progressive/mp4-edit-list-shift.mp4", aac, h264, true},
    {"corpus:progressive/mp4-h264-aac-10s.mp4", aac, h264, true},
    {"corpus:progressive/mp4-h264-eac3.mp4", eac3, h264, true},
    {"corpus:progressive/mp4-h264-timecode-30s.mp4", none, h264, true},
    {"corpus:progressive/mp4-h264-vfr.mp4", none, h264, true},
    {"corpus:progressive/mp4-heaac-silent-right.mp4", aac, none},
    {"corpus:progressive/mp4-hevc-rotated-90.mp4", aac, h265, true},
    {"corpus:progressive/ogg-vorbis.ogg", vorbis, none},
    {"corpus:progressive/ts-h264-aac-pts-wrap.ts", aac, h264},
    {"corpus:progressive/ts-hevc-aac.ts", aac, h265},
    {"corpus:progressive/webm-multitrack.webm", vorbis, vp8},
    {"corpus:progressive/webm-vp8-vorbis-6s.webm", vorbis, vp8},
    {"corpus:progressive/webm-vp8-vorbis-live.webm", vorbis, vp8},
    {"corpus:progressive/webm-vp9-opus-51.webm", opus, vp9},
};
INSTANTIATE_TEST_SUITE_P(Files, Demux, testing::ValuesIn(files));

/// What is one piece of media shares its time 0, however many inputs it has.
TEST(Together, InputsKeepTheirDistance) {
    constexpr auto* fragments =
        " -movflags frag_keyframe+empty_moov+default_base_moof+delay_moov -f mp4 ";
    const struct {
        const char* what;
        std::string audio, video; ///< how ffmpeg makes them
        double moved;             ///< about, seconds
    } rows[] = {
        {"transport streams", "-output_ts_offset 9 -f mpegts", "-output_ts_offset 9.3 -f mpegts",
         -10.38},
        {"... the picture first", "-output_ts_offset 4 -f mpegts", "-f mpegts", -1.48},
        {"fragments", std::string("-output_ts_offset 9.7") + fragments,
         std::string("-output_ts_offset 9") + fragments, -9},
        {"an empty edit", "-f mp4", "-output_ts_offset 0.8 -f mp4", 0},
        {"from the middle", "-ss 1 -f mp4", "-ss 1 -f mp4", 0},
        {"two containers", "-output_ts_offset 2 -f matroska", "-f mpegts", -1.48},
    };
    const auto made = "/tmp/demux_test.together." + std::to_string(getpid());
    const std::string names[] = {made + ".a", made + ".v"};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        const auto command = "ffmpeg -nostdin -v error -y -i '" + pathOf("clip.mp4") +
                             "' -c copy -vn " + row.audio + " '" + names[0] + "' -c copy -an " +
                             row.video + " '" + names[1] + "'";
        ASSERT_EQ(std::system(command.c_str()), 0) << command;
        const std::atomic<bool> cancelled{false};
        const auto media = host::openMedia({names[0], names[1]}, cancelled);
        ASSERT_EQ(media.size(), 2U);
        std::optional<double> moved; // of both
        double end = 0;
        double longest = 0;
        for (std::size_t i = 0; i < media.size(); ++i) {
            SCOPED_TRACE(names[i]);
            ASSERT_EQ(media[i].streams.size(), 1U) << media[i].error;
            std::string error;
            const auto samples = readAll(*media[i].streams[0], error);
            EXPECT_EQ(error, "");
            const auto packets = probe(names[i], i == 0);
            ASSERT_EQ(samples.size(), packets.size());
            if (!moved)
                moved = samples.back()->dts() - packets.back().dts;
            EXPECT_NEAR(*moved, row.moved, 0.025);
            expectMoved(samples, packets, *moved);
            for (const auto& sample : samples)
                end = std::max(end, sample->pts() + sample->duration());
            longest = std::max(longest, media[i].streams[0]->info().duration);
        }
        EXPECT_NEAR(longest, end, 0.05);
    }
    for (const auto& name : names)
        std::filesystem::remove(name);
}

TEST(Conversion, MakesAdtsHeadersOfAudioSpecificConfigs) {
    const struct {
        Bytes config;
        int profile, rateIndex, channels; ///< none: cannot be told in ADTS
    } rows[] = {
        {{0x12, 0x10}, 1, 4, 2},                    // LC, 44100 Hz, stereo
        {{0x11, 0xb0}, 1, 3, 6},                    // LC, 48000 Hz, 5.1
        {{0x2b, 0x92, 0x08, 0x00}, 1, 7, 2},        // SBR: a core of 22050 Hz
        {{0xeb, 0x8a, 0x08, 0x00}, 1, 7, 1},        // PS: a mono core
        {{0x17, 0x80, 0x5d, 0xc0, 0x10}, 1, 3, 2},  // 48000 Hz, spelled out
        {{0x17, 0x80, 0x5d, 0xc2, 0x10}, -1, 0, 0}, // 48001 Hz
        {{0x12, 0x00}, -1, 0, 0},                   // channels told elsewhere
        {{0xf8, 0xc0, 0x00, 0x00}, -1, 0, 0},       // an object type above 31
        {{0x12}, -1, 0, 0},
        {{}, -1, 0, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.config));
        const auto format = host::parseAudioSpecificConfig(row.config.data(), row.config.size());
        ASSERT_EQ(format.has_value(), row.profile >= 0);
        if (!format)
            continue;
        const auto header = host::adtsHeader(*format, 0x1234);
        EXPECT_EQ(header[0] << 8 | header[1], 0xfff1);
        EXPECT_EQ(header[2] >> 6, row.profile);
        EXPECT_EQ(header[2] >> 2 & 15, row.rateIndex);
        EXPECT_EQ((header[2] & 1) << 2 | header[3] >> 6, row.channels);
        EXPECT_EQ((header[3] & 3) << 11 | header[4] << 3 | header[5] >> 5, 0x1234 + 7);
        EXPECT_EQ(header[6], 0xfc);
    }
}

TEST(Conversion, TurnsXiphHeaders) {
    Bytes laced = {2, 3, 255, 1, 'a', 'b', 'c'};
    laced.insert(laced.end(), 256, 'd');
    EXPECT_TRUE(host::joinVorbisHeaders(laced.data(), laced.size()).empty()) << "no third one";
    laced.push_back('e');
    const auto joined = host::joinVorbisHeaders(laced.data(), laced.size());
    EXPECT_EQ(joined, Bytes(laced.begin() + 4, laced.end()));
    for (const std::size_t size : {0, 1, 3, 4, 20})
        EXPECT_TRUE(host::joinVorbisHeaders(laced.data(), size).empty()) << size;

    const Bytes opusHead = {'O',  'p', 'u',  's',  'H', 'e', 'a', 'd', 1, 2,
                            0x38, 1,   0x80, 0xbb, 0,   0,   5,   6,   0};
    const Bytes turned = {'O', 'p',  'u', 's', 'H',  'e',  'a', 'd', 1, 2,
                          1,   0x38, 0,   0,   0xbb, 0x80, 6,   5,   0};
    EXPECT_EQ(host::turnOpusHeader(opusHead.data(), opusHead.size()), turned);
    EXPECT_TRUE(host::turnOpusHeader(opusHead.data(), 18).empty());
    EXPECT_TRUE(host::turnOpusHeader(laced.data(), laced.size()).empty());
}

TEST(Configuration, TellsHowStreamsAreCoded) {
    auto audio = openStream("clip.mp4", StreamInfo::Kind::Audio);
    for (const auto& sample : audio->read(20).samples) {
        const auto* frame = sample->payload();
        EXPECT_EQ(frame[0] << 8 | frame[1], 0xfff1);
        EXPECT_EQ(static_cast<std::size_t>((frame[3] & 3) << 11 | frame[4] << 3 | frame[5] >> 5),
                  sample->payloadSize());
        EXPECT_EQ(frame[2] >> 2 & 15, 3) << "48000 Hz";
        EXPECT_EQ(sample->config()->sampleRate, 48000);
        EXPECT_EQ(sample->config()->channels, 2);
    }
    auto video = openStream("clip.mp4", StreamInfo::Kind::Video)->read(1);
    ASSERT_EQ(video.samples.size(), 1U);
    EXPECT_EQ(video.samples[0]->config()->width, 640);
    EXPECT_EQ(video.samples[0]->config()->height, 360);

    const std::string hdr = "corpus:progressive/mp4-hevc-main10-hdr10.mp4";
    if (!isHere(hdr))
        return;
    video = openStream(hdr, StreamInfo::Kind::Video)->read(1);
    ASSERT_EQ(video.samples.size(), 1U);
    const auto* color = video.samples[0]->config()->color;
    ASSERT_NE(color, nullptr);
    EXPECT_EQ(color->matrix, 9U);
    EXPECT_EQ(color->range, 1U);
    EXPECT_EQ(color->transfer, 16U);
    EXPECT_EQ(color->primaries, 9U);
    EXPECT_EQ(color->bitsPerChannel, 10U);
}

TEST(Encryption, IsToldOfEverySample) {
    constexpr auto audio = StreamInfo::Kind::Audio;
    constexpr auto video = StreamInfo::Kind::Video;
    constexpr auto cenc = Protection::Scheme::Cenc;
    constexpr auto cbcs = Protection::Scheme::Cbcs;
    const struct {
        const char* name;
        StreamInfo::Kind kind;
        std::size_t samples, clear, keyFrames;
        Protection::Scheme scheme;
        unsigned int crypt, skip;
        const char* keyId;
    } rows[] = {
        {"sintel-cenc-clear-lead.mp4", video, 120, 96, 2, cenc, 0, 0,
         "abba271e8bcf552bbd2e86a434a9a5d9"},
        {"sintel-cenc-subsamples.mp4", video, 120, 0, 2, cenc, 0, 0,
         "abba271e8bcf552bbd2e86a434a9a5d9"},
        {"sintel-cbcs-2-8.mp4", video, 120, 0, 2, cbcs, 2, 8, "abba271e8bcf552bbd2e86a434a9a5d9"},
        {"bear-cbcs-video.mp4", video, 82, 30, 3, cbcs, 1, 9, "31323334353637383930313233343536"},
        {"bear-cbcs-audio.mp4", audio, 118, 44, 118, cbcs, 0, 0,
         "31323334353637383930313233343536"},
        {"bear-hevc-cenc.mp4", video, 84, 30, 3, cenc, 0, 0, "31323334353637383930313233343536"},
        {"bbb-cenc-video.mp4", video, 122, 0, 122, cenc, 0, 0, "ad13f9ea2be698b875f504a8e3ccea64"},
        {"bbb-cenc-audio.mp4", audio, 238, 0, 238, cenc, 0, 0, "558ee541b90ab2f3950d00ade3760d45"},
        {"webm-vp8-vorbis.webm", video, 182, 0, 16, cenc, 0, 0, "30313233343536373839303132333435"},
        {"webm-vp8-vorbis.webm", audio, 261, 0, 261, cenc, 0, 0,
         "30313233343536373839303132333435"},
    };
    for (const auto& row : rows) {
        const auto name = std::string("corpus:cenc/") + row.name;
        SCOPED_TRACE(name);
        if (!isHere(name))
            GTEST_SKIP() << "there is no corpus";
        auto stream = openStream(name, row.kind);
        ASSERT_NE(stream, nullptr);
        std::string error;
        const auto samples = readAll(*stream, error);
        EXPECT_EQ(error, "");
        EXPECT_EQ(samples.size(), row.samples);
        std::size_t clear = 0;
        std::size_t keyFrames = 0;
        for (const auto& sample : samples) {
            keyFrames += sample->data().keyFrame ? 1 : 0;
            const auto& protection = sample->data().protection;
            if (sample->keyId() == nullptr) {
                ++clear;
                continue;
            }
            std::string keyId;
            for (const auto byte : protection.keyId) {
                constexpr auto* digits = "0123456789abcdef";
                keyId += {digits[byte >> 4], digits[byte & 15]};
            }
            EXPECT_EQ(keyId, row.keyId);
            EXPECT_EQ(protection.scheme, row.scheme);
            EXPECT_EQ(sample->cryptByteBlock(), row.crypt);
            EXPECT_EQ(sample->skipByteBlock(), row.skip);
            EXPECT_EQ(sample->keyIdSize(), row.scheme == cbcs ? 18U : 16U);
            EXPECT_TRUE(sample->ivSize() == 16 || (sample->ivSize() == 8 && row.scheme == cenc));
            std::size_t sum = 0;
            for (const auto& part : sample->subsamples())
                sum += part.clearBytes + part.encryptedBytes;
            EXPECT_EQ(sum, sample->payloadSize());
            if (row.kind == audio && sample->config()->codec == UVAStreamConfig::CODEC_AAC) {
                EXPECT_GE(sample->subsamples().front().clearBytes, host::adtsHeaderSize);
            }
        }
        EXPECT_EQ(clear, row.clear);
        EXPECT_EQ(keyFrames, row.keyFrames);
        for (const double part : {0.9, 0.0, 0.5}) {
            ASSERT_EQ(stream->seek(part * samples.back()->pts()), "");
            const auto rest = readAll(*stream, error);
            EXPECT_EQ(error, "");
            ASSERT_LE(rest.size(), samples.size());
            for (std::size_t i = 0; i < rest.size(); ++i)
                ASSERT_EQ(rest[i]->data().protection.iv,
                          samples[samples.size() - rest.size() + i]->data().protection.iv)
                    << part << " " << i;
        }
    }
}

/// Clear (0) or with which key of the generated files, as it changes from sample to sample.
std::string keysOf(const Samples& samples) {
    std::string keys;
    for (const auto& sample : samples) {
        const auto& protection = sample->data().protection;
        const char key = protection.keyId.empty() ? '0' : protection.keyId[0] == 0 ? '1' : '2';
        EXPECT_EQ(protection.iv.size(), key == '0' ? 0U : 16U);
        if (keys.empty() || keys.back() != key)
            keys += key;
    }
    return keys;
}

TEST(Encryption, FollowsSampleGroupsAndNewBeginnings) {
    const struct {
        const char* name;
        const char* keys;
        double target; ///< of a seek
        const char* keysBehind;
        const char* error;
    } rows[] = {
        {"protected/rotation.mp4", "012012", 4.2, "12", ""},
        {"protected/restart.mp4", "01", 4.2, "1", ""},
        {"protected/restart.mp4", "01", 1.2, "01", ""},
        {"corpus:cenc/bbb-clear-then-cenc.mp4", "", 2.2, "",
         "its encrypted fragments have no index (one 'sidx' of them all, in front), without which "
         "libavformat confuses their vectors; package it anew with one"},
        {"protected/mixed.mp4", "", 2.2, "",
         "samples of one fragment are in several sample groups 'seig', with different keys or "
         "partly clear"},
    };
    for (const auto& row : rows) {
        for (const auto kind : {StreamInfo::Kind::Audio, StreamInfo::Kind::Video}) {
            SCOPED_TRACE(row.name + std::to_string(static_cast<int>(kind)));
            auto stream = isHere(row.name) ? openStream(row.name, kind) : nullptr;
            if (stream == nullptr)
                continue;
            std::string error;
            const auto all = readAll(*stream, error);
            const auto packets = probe(pathOf("frag.mp4"), kind == StreamInfo::Kind::Audio);
            EXPECT_EQ(keysOf(all), row.keys);
            if (*row.error != '\0') {
                EXPECT_EQ(error.substr(error.find(": ") + 2), row.error);
                const auto sought = stream->seek(row.target);
                EXPECT_EQ((sought + stream->read(1).error).substr(0, 5), "at 2.");
                continue;
            }
            ASSERT_EQ(stream->seek(row.target), "");
            EXPECT_EQ(error, "");
            expectMoved(all, packets, 0);
            EXPECT_NEAR(stream->info().duration, all.back()->pts() + all.back()->duration(), 0.09);
            EXPECT_EQ(keysOf(readAll(*stream, error)), row.keysBehind);
        }
    }
}

Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

Bytes word(std::uint32_t value) {
    return {static_cast<std::uint8_t>(value >> 24), static_cast<std::uint8_t>(value >> 16),
            static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value)};
}

Bytes letters(const std::string& text) {
    return {text.begin(), text.end()};
}

Bytes box(const std::string& type, const Bytes& body) {
    return word(static_cast<std::uint32_t>(body.size() + 8)) + letters(type) + body;
}

/// What 'tenc' and 'seig' say: a key id of one repeated byte; a constant vector when `ivSize` is 0.
Bytes described(bool encrypted, std::uint8_t ivSize, std::uint8_t key) {
    const Bytes constant = encrypted && ivSize == 0 ? Bytes(1, 16) + Bytes(16, 7) : Bytes();
    return Bytes{0, 0x19, encrypted, ivSize} + Bytes(16, key) + constant;
}

/// A track with two sample descriptions, the second one clear.
Bytes movie(const std::string& scheme, std::uint8_t ivSize) {
    const auto sinf =
        box("sinf", box("schm", word(0) + letters(scheme) + word(0x10000)) +
                        box("schi", box("tenc", word(0x1000000) + described(true, ivSize, 1))));
    const auto stsd =
        box("stsd", word(0) + word(2) + box("encv", Bytes(78) + sinf) + box("avc1", Bytes(78)));
    const auto mdia =
        box("mdia", box("mdhd", Bytes(12) + word(100) + Bytes(8)) + box("minf", box("stbl", stsd)));
    const auto trak = box("trak", box("tkhd", Bytes(12) + word(9) + Bytes(64)) + mdia);
    const auto trex = box("trex", word(0) + word(9) + word(1) + word(10) + Bytes(8));
    return box("moov", box("mvhd", Bytes(12) + word(1000)) + trak + box("mvex", trex));
}

/// Three samples of that track, of this sample description.
Bytes fragment(std::uint32_t entry, const Bytes& more) {
    return box("moof", box("traf", box("tfhd", word(0x20002) + word(9) + word(entry)) +
                                       box("trun", word(0) + word(3)) + more)) +
           box("mdat", Bytes(30));
}

/// Of so many fragments.
Bytes index(std::uint8_t count) {
    return box("sidx", Bytes(22) + Bytes{0, count} + Bytes(std::size_t{12} * count));
}

Bytes group(const Bytes& description, const Bytes& runs) {
    return box("sgpd", word(0x1000000) + letters("seig") +
                           word(static_cast<std::uint32_t>(description.size())) + word(1) +
                           description) +
           box("sbgp", word(0) + letters("seig") +
                           word(static_cast<std::uint32_t>(runs.size() / 8)) + runs);
}

host::Mp4Scan scanOf(const Bytes& file) {
    return host::Mp4Scan([&file](std::uint64_t at, std::uint8_t* bytes, std::size_t size) {
        const auto count = at < file.size() ? std::min<std::size_t>(size, file.size() - at) : 0;
        std::copy_n(file.begin() + static_cast<std::ptrdiff_t>(count == 0 ? 0 : at), count, bytes);
        return count;
    });
}

TEST(Scan, TellsWhatLibavformatPassesOver) {
    const auto all = word(3) + word(0x10001);
    const auto half = word(2) + word(0x10001);
    const auto senc = box("senc", {});
    const struct {
        const char* what;
        const char* scheme;
        int ivSize; ///< by 'tenc'
        std::uint32_t entry;
        Bytes more;       ///< in the 'traf'
        std::string told; ///< "": as libavformat does; "clear"; "key N"; a fault
    } rows[] = {
        {"the track's key", "cenc", 8, 1, senc, ""},
        {"... said again", "cenc", 8, 1, senc + group(described(true, 8, 1), all), ""},
        {"another key", "cenc", 8, 1, senc + group(described(true, 8, 2), all), "key 2"},
        {"... and another pattern", "cbcs", 0, 1, senc + group(described(true, 0, 3), all),
         "key 3"},
        {"the clear entry", "cenc", 8, 2, {}, "clear"},
        {"a clear group", "cenc", 8, 1, group(described(false, 0, 0), all), "clear"},
        {"... though there are vectors", "cenc", 8, 1, senc + group(described(false, 0, 0), all),
         "clear"},
        {"whole samples, constant vector", "cbcs", 0, 1, {}, "key 1"},
        {"no vectors", "cenc", 8, 1, {}, "encrypted samples have no init"},
        {"a part", "cenc", 8, 1, senc + group(described(true, 8, 2), half), "samples of one frag"},
        {"a part of the same", "cenc", 8, 1, senc + group(described(true, 8, 1), half), ""},
        {"other vectors", "cenc", 8, 1, senc + group(described(true, 16, 1), all),
         "the sample group 'seig' has vectors of another size"},
        {"the second entry", "cenc", 8, 2, senc + group(described(true, 8, 2), all),
         "encrypted samples have not the first"},
        {"no such group", "cenc", 8, 1, senc + group(described(true, 8, 2), word(3) + word(7)),
         "the sample group 'seig' of encrypted samples is not described"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        const auto plain = fragment(1, senc); // where nothing is to be told
        const auto start = movie(row.scheme, static_cast<std::uint8_t>(row.ivSize)) + index(3);
        const auto file = start + plain + fragment(row.entry, row.more) + plain;
        auto scan = scanOf(file);
        EXPECT_FALSE(scan.endOf(9)) << "not covered yet";
        scan.coverTo(file.size());
        EXPECT_EQ(scan.endOf(9), 0.9);
        const auto place = start.size() + plain.size();
        EXPECT_EQ(scan.protectionAt(place - 1, 9), nullptr);
        EXPECT_EQ(scan.protectionAt(place, 8), nullptr) << "another track";
        EXPECT_EQ(scan.protectionAt(file.size() - 1, 9), nullptr);
        const auto told = scan.protectionAt(place, 9);
        std::string text;
        if (told != nullptr && told->fault.empty())
            text = told->encrypted ? "key " + std::to_string(told->keyId.at(0)) : "clear";
        else if (told != nullptr)
            text = told->fault.substr(0, row.told.size());
        EXPECT_EQ(text, row.told);
    }
}

TEST(Scan, FindsNewBeginningsAndSurvivesAnySize) {
    const auto first = box("ftyp", {}) + movie("cenc", 8) + index(2);
    const auto media = fragment(1, box("senc", {}));
    const auto second = box("ftyp", {}) + movie("cbcs", 0);
    const auto file = first + media + first + media + second + media;
    auto whole = scanOf(file);
    whole.coverTo(~std::uint64_t{0});
    const auto begin = 2 * (first.size() + media.size());
    EXPECT_EQ(whole.beginnings(), (std::vector<std::uint64_t>{0, begin})) << "one is said again";
    EXPECT_EQ(whole.protectionAt(begin - 1, 9), nullptr);
    const auto bare = second + media + media;
    auto unindexed = scanOf(bare);
    unindexed.coverTo(bare.size());
    ASSERT_NE(unindexed.protectionAt(second.size(), 9), nullptr);
    EXPECT_NE(unindexed.protectionAt(second.size(), 9)->fault.find("'sidx'"), std::string::npos);
    ASSERT_NE(whole.protectionAt(begin, 9), nullptr);
    EXPECT_NE(whole.protectionAt(begin, 9)->fault.find("'moov', at byte "), std::string::npos);

    for (std::size_t at = 0; at + 4 <= file.size(); ++at) {
        for (const std::uint32_t size : {0U, 1U, 7U, 9U, 0x7fffffffU, ~0U}) {
            auto damaged = file;
            const auto bytes = word(size);
            std::copy(bytes.begin(), bytes.end(),
                      damaged.begin() + static_cast<std::ptrdiff_t>(at));
            auto scan = scanOf(damaged);
            scan.coverTo(~std::uint64_t{0});
            scan.protectionAt(at, 9);
            EXPECT_FALSE(scan.beginnings().empty());
        }
    }
}

TEST(Encryption, OfWebmFramesStandsInFrontOfThem) {
    const std::string keyId(16, 'k');
    const Bytes start = {3, 1, 2, 3, 4, 5, 6, 7, 8}; // encrypted, partitioned; the IV
    const struct {
        Bytes frame;
        std::vector<std::pair<unsigned int, unsigned int>> parts;
    } rows[] = {
        {{1, 0, 0, 0, 4, 'f', 'r', 'a', 'm', 'e'}, {{4, 1}}},
        {{2, 0, 0, 0, 1, 0, 0, 0, 3, 'f', 'r', 'a', 'm', 'e'}, {{1, 2}, {2, 0}}},
        {{1, 0, 0, 0, 6, 'f', 'r', 'a', 'm', 'e'}, {}},
        {{2, 0, 0, 0, 3, 0, 0, 0, 1, 'f', 'r', 'a', 'm', 'e'}, {}},
        {{3, 0, 0, 0}, {}},
        {{}, {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.frame));
        Bytes frame = start;
        frame.insert(frame.end(), row.frame.begin(), row.frame.end());
        const std::uint8_t* bytes = frame.data();
        auto size = frame.size();
        Protection protection;
        const auto error = host::takeWebmProtection(keyId, bytes, size, protection);
        ASSERT_EQ(error.empty(), !row.parts.empty()) << error;
        if (row.parts.empty())
            continue;
        EXPECT_EQ(std::string(bytes, bytes + size), "frame");
        EXPECT_EQ(protection.iv, Bytes(start.begin() + 1, start.end()));
        ASSERT_EQ(protection.subsamples.size(), row.parts.size());
        for (std::size_t i = 0; i < row.parts.size(); ++i) {
            EXPECT_EQ(protection.subsamples[i].clearBytes, row.parts[i].first);
            EXPECT_EQ(protection.subsamples[i].encryptedBytes, row.parts[i].second);
        }
    }
}

TEST(Failure, IsToldInWords) {
    const auto fifo = "/tmp/demux_test." + std::to_string(getpid());
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_NE(open(fifo).error.find("give a file or a URL"), std::string::npos);
    unlink(fifo.c_str());
    EXPECT_EQ(open("").error, "No such file or directory");
    EXPECT_EQ(open("/nowhere/clip.mp4").error, "No such file or directory");
    EXPECT_EQ(open(pathOf("av1-flac.mkv")).error,
              "the audio codec flac and the video codec av1 cannot be fed as a media source; play "
              "the URL without --mse");
    const auto* damaged =
        "it is damaged, or of a form that libavformat does not read; try to package it anew";
    const std::pair<const char*, const char*> rows[] = {
        {"ten-bytes.bin", damaged},
        {"element-too-large.webm", "End of file"},
        {"no-streams.webm", "there is neither audio nor video in it"},
        {"garbage-prefix.mp3", "the audio codec amr_nb cannot be fed as a media source; play the "
                               "URL without --mse"},
        {"../cenc/muxed-clearkey-pssh.mp4", damaged},
    };
    for (const auto& [name, error] : rows) {
        const auto full = std::string("corpus:broken/") + name;
        if (isHere(full)) {
            EXPECT_EQ(open(pathOf(full)).error, error) << name;
        }
    }
}

/// Files that open, and break later or not at all: read, sought and read again to their ends.
TEST(Failure, MayComeLater) {
    const auto half = "/tmp/demux_test.half." + std::to_string(getpid()) + ".mp4";
    std::filesystem::copy_file(pathOf("clip.mp4"), half);
    std::filesystem::resize_file(half, std::filesystem::file_size(half) / 2);
    const std::string truncated = "the media ends before its last sample; it is truncated";
    const std::pair<std::string, std::string> rows[] = {
        {half, truncated},
        {pathOf("corpus:broken/truncated-after-moov.mp4"), truncated},
        {pathOf("corpus:broken/missing-stsd.mp4"), ""},
        {pathOf("corpus:broken/vp9-bad-bitstream.webm"), ""},
        {pathOf("corpus:broken/vp9-bad-frame.webm"), ""},
        {pathOf("corpus:broken/aac-truncated.aac"), ""},
    };
    for (const auto& [path, expected] : rows) {
        SCOPED_TRACE(path);
        if (!std::filesystem::exists(path))
            continue;
        auto media = open(path);
        ASSERT_FALSE(media.streams.empty()) << media.error;
        for (const auto& stream : media.streams) {
            std::string error;
            const auto scan = readAll(*stream, error);
            EXPECT_EQ(error, expected);
            EXPECT_EQ(stream->seek(0), scan.empty() ? expected : "");
            EXPECT_LE(readAll(*stream, error).size(), scan.size());
            EXPECT_EQ(error, expected);
        }
    }
    std::filesystem::remove(half);
}

TEST(Failure, OfAFileThatChangesIsSurvived) {
    const auto path = "/tmp/demux_test.changes." + std::to_string(getpid()) + ".mp4";
    constexpr auto overwrite = std::filesystem::copy_options::overwrite_existing;
    std::filesystem::copy_file(pathOf("clip.mp4"), path);
    auto media = open(path);
    ASSERT_EQ(media.streams.size(), 2U);
    for (const auto& stream : media.streams) {
        std::filesystem::copy_file(pathOf("clip.mp4"), path, overwrite);
        ASSERT_EQ(stream->seek(0), "");
        std::filesystem::resize_file(path, 0);
        EXPECT_NE(stream->seek(3), "");
        EXPECT_NE(stream->read(1).error, "");
        std::filesystem::copy_file(pathOf("opus.ogg"), path, overwrite);
        EXPECT_EQ(stream->seek(0), "it is another file than before");
        std::filesystem::copy_file(pathOf("clip.mp4"), path, overwrite);
        EXPECT_EQ(stream->seek(0), "");
        EXPECT_EQ(stream->read(10).samples.size(), 10U);
    }
    std::filesystem::remove(path);
}

/// A server that answers everyone with the same bytes, and then with silence.
class StallingServer {
public:
    explicit StallingServer(std::string bytes) : m_bytes(std::move(bytes)) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(bind(m_listener, generic, size), 0);
        EXPECT_EQ(listen(m_listener, 8), 0);
        EXPECT_EQ(getsockname(m_listener, generic, &size), 0);
        m_name = "tcp://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
        m_thread = std::thread([this] { serve(); });
    }
    ~StallingServer() {
        shutdown(m_listener, SHUT_RDWR);
        m_thread.join();
        for (const int peer : m_peers)
            close(peer);
        close(m_listener);
    }
    const std::string& name() const { return m_name; }
    int served() const { return m_served; }

private:
    void serve() {
        for (int peer = 0; (peer = accept(m_listener, nullptr, nullptr)) >= 0;) {
            m_peers.push_back(peer);
            EXPECT_EQ(send(peer, m_bytes.data(), m_bytes.size(), MSG_NOSIGNAL),
                      static_cast<ssize_t>(m_bytes.size()));
            ++m_served;
        }
    }

    const std::string m_bytes;
    const int m_listener = socket(AF_INET, SOCK_STREAM, 0);
    std::string m_name;
    std::vector<int> m_peers;
    std::atomic<int> m_served{0};
    std::thread m_thread;
};

TEST(Interruption, EndsAnOpening) {
    const StallingServer server("");
    std::atomic<bool> cancelled{false};
    auto media =
        std::async(std::launch::async, [&] { return host::openMedia(server.name(), cancelled); });
    EXPECT_TRUE(waitUntil([&] { return server.served() > 0; }));
    cancelled = true;
    ASSERT_EQ(media.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    EXPECT_EQ(media.get().error, "interrupted");
}

TEST(Interruption, EndsReadingAndSeeking) {
    std::stringstream bytes;
    bytes << std::ifstream(pathOf("frag.mp4"), std::ios::binary).rdbuf();
    const StallingServer server(bytes.str().substr(0, bytes.str().size() / 2));
    auto media = open(server.name());
    ASSERT_EQ(media.streams.size(), 2U) << media.error;
    for (const auto& stream : media.streams) {
        std::atomic<std::size_t> count{0};
        auto error = std::async(std::launch::async, [&] {
            while (true) {
                const auto batch = stream->read(1);
                count += batch.samples.size();
                if (batch.samples.empty())
                    return batch.error;
            }
        });
        EXPECT_TRUE(waitUntil([&] { return count > 20; }));
        stream->interrupt();
        ASSERT_EQ(error.wait_for(std::chrono::seconds(20)), std::future_status::ready);
        EXPECT_EQ(error.get(), "interrupted");
        EXPECT_EQ(stream->seek(1), "interrupted");
        EXPECT_EQ(stream->read(1).error, "interrupted");
    }
}

} // namespace
