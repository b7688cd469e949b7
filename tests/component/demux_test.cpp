#include "codec_conversion.h"
#include "demux_fixture.h"
#include "host/adts.h"
#include "host/media_source.h"

#include "support/wait_until.h"

#include <arpa/inet.h>
#include <fstream>
#include <future>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

using support::waitUntil;

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

void checkSeeks(host::SampleStream& stream, const Samples& scan) {
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

void check(const File& file, host::SampleStream& stream, std::optional<double>& moved) {
    const auto& info = stream.info();
    const bool audio = info.kind == StreamInfo::Kind::Audio;
    SCOPED_TRACE(info.codec);
    EXPECT_EQ(info.mimeType, audio ? file.audio : file.video);

    std::string error;
    const auto scan = readAll(stream, error);
    EXPECT_EQ(error, "");
    const auto packets = probe(pathOf(file.name), audio);
    ASSERT_FALSE(scan.empty());
    ASSERT_FALSE(packets.empty());
    if (!moved)
        moved = scan.back()->dts() - packets.back().dts;
    expectMoved(scan, packets, *moved);
    const bool isByteStream =
        std::string_view(file.name).find(".ts") != std::string::npos && !audio;
    double dts = -1e9;
    double end = 0;
    for (const auto& sample : scan) {
        ASSERT_NE(sample->payload(), nullptr);
        ASSERT_GT(sample->payloadSize(), 0U);
        EXPECT_GE(sample->dts(), dts);
        if (isByteStream) {
            const Bytes startCode = {0, 0, 0, 1};
            EXPECT_TRUE(std::equal(startCode.begin(), startCode.end(), sample->payload()));
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
        EXPECT_EQ(config.codecData != nullptr, file.codecData);
    }
    checkSeeks(stream, scan);
}

class Demux : public testing::TestWithParam<File> {};

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
        check(GetParam(), *stream, moved);
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
    {"corpus:mse/opus.mp4", opus, none},
    {"corpus:progressive/aac-adts-id3.aac", aac, none},
    {"corpus:progressive/mkv-h264-ac3.mkv", ac3, h264, true},
    {"corpus:progressive/mp3-cover-art.mp3", mp3, none},
    {"corpus:progressive/mp4-av1-aac.mp4", aac, none},
    {"corpus:progressive/mp4-edit-list-shift.mp4", aac, h264, true},
    {"corpus:progressive/mp4-h264-timecode-30s.mp4", none, h264, true},
    {"corpus:progressive/mp4-h264-vfr.mp4", none, h264, true},
    {"corpus:progressive/mp4-heaac-silent-right.mp4", aac, none},
    {"corpus:progressive/mp4-hevc-rotated-90.mp4", aac, h265, true},
    {"corpus:progressive/ogg-vorbis.ogg", vorbis, none},
    {"corpus:progressive/ts-h264-aac-pts-wrap.ts", aac, h264},
    {"corpus:progressive/webm-multitrack.webm", vorbis, vp8},
    {"corpus:progressive/webm-vp8-vorbis-live.webm", vorbis, vp8},
    {"corpus:progressive/webm-vp9-opus-51.webm", opus, vp9},
};
INSTANTIATE_TEST_SUITE_P(Files, Demux, testing::ValuesIn(files));

/// Where decoding starts is found, not searched for from the beginning.
TEST(Seek, ReadsLittleOfTheFile) {
    const auto bytesRead = [] {
        std::ifstream io("/proc/self/io");
        std::string name;
        std::uintmax_t count = 0;
        io >> name >> count;
        return count;
    };
    for (const auto* name : {"clip.mp4", "frag.mp4"}) {
        const auto stream = openStream(name, StreamInfo::Kind::Video);
        const auto before = bytesRead();
        ASSERT_GT(before, 0U);
        EXPECT_EQ(stream->seek(4.5), "");
        EXPECT_EQ(stream->read(1).samples.size(), 1U);
        EXPECT_LT(bytesRead() - before, std::filesystem::file_size(pathOf(name)) / 2) << name;
    }
}

/// Fragments that do not tell their decoding times follow one another.
TEST(Seek, CountsTimesThatTheFileDoesNotTell) {
    std::stringstream bytes;
    bytes << std::ifstream(pathOf("frag.mp4"), std::ios::binary).rdbuf();
    auto untimed = bytes.str();
    for (std::size_t at = 0; (at = untimed.find("tfdt", at)) != std::string::npos;)
        untimed.replace(at, 4, "free");
    const auto path = "/tmp/demux_test.untimed." + std::to_string(getpid());
    std::ofstream(path, std::ios::binary) << untimed;
    const auto media = open(path);
    ASSERT_EQ(media.streams.size(), 2U) << media.error;
    for (const auto& stream : media.streams) {
        std::string error;
        const auto timed = openStream("frag.mp4", stream->info().kind);
        checkSeeks(*stream, readAll(*timed, error));
    }
    std::filesystem::remove(path);
}

/// One rendition breaks off; another one takes over in time.
TEST(Seek, GoesOverToAnotherRenditionWithoutAGapOrARepetition) {
    const auto half = "/tmp/demux_test.rendition." + std::to_string(getpid()) + ".mp4";
    std::filesystem::copy_file(pathOf("clip.mp4"), half);
    std::filesystem::resize_file(half, std::filesystem::file_size(half) / 2);
    for (const auto kind : {StreamInfo::Kind::Video, StreamInfo::Kind::Audio}) {
        std::string error;
        const auto scan = readAll(*openStream("clip.mp4", kind), error);
        for (const double at : {0.0, 0.9, 1.0}) {
            SCOPED_TRACE(at);
            auto first = open(half);
            ASSERT_EQ(first.streams.size(), 2U) << first.error;
            auto& old = first.streams[first.streams[0]->info().kind == kind ? 0 : 1];
            const auto stream = host::switchAt(std::move(old), at, openStream("clip.mp4", kind));
            const auto seen = readAll(*stream, error);
            EXPECT_EQ(error, "");
            ASSERT_EQ(seen.size(), scan.size());
            for (std::size_t i = 0; i < seen.size(); ++i)
                ASSERT_EQ(seen[i]->pts(), scan[i]->pts()) << i;
            checkSeeks(*stream, scan);
        }
    }
    std::filesystem::remove(half);
}

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

TEST(Configuration, TellsTheColours) {
    const std::string hdr = "corpus:progressive/mp4-hevc-main10-hdr10.mp4";
    if (!isHere(hdr))
        GTEST_SKIP() << "there is no corpus";
    const auto video = openStream(hdr, StreamInfo::Kind::Video)->read(1);
    ASSERT_EQ(video.samples.size(), 1U);
    const auto* color = video.samples[0]->config()->color;
    ASSERT_NE(color, nullptr);
    EXPECT_EQ(std::tie(color->matrix, color->range, color->transfer, color->primaries),
              std::make_tuple(9U, 1U, 16U, 9U));
    EXPECT_EQ(color->bitsPerChannel, 10U);
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
        std::string error;
        readAll(*stream, error);
        EXPECT_EQ(error, "");
        std::filesystem::resize_file(path, std::filesystem::file_size(path) / 2);
        EXPECT_EQ(stream->seek(0), "");
        readAll(*stream, error);
        EXPECT_EQ(error, "the media ends before its last sample; it is truncated");
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
    const auto openFiles = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto before = openFiles();
    media.streams.clear();
    EXPECT_EQ(openFiles(), before - 2) << "one for each stream";
}

/// A server that answers everyone with the same bytes, and then with silence.
class StallingServer {
public:
    explicit StallingServer(std::string bytes) : m_bytes(std::move(bytes)) {
        sockaddr_in address = {};
        socklen_t size = sizeof address;
        EXPECT_EQ(listen(m_listener, 8), 0); // at any port
        EXPECT_EQ(getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &size), 0);
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
