#include "frame_file.h"

#include <array>
#include <optional>
#include <utility>

namespace {

struct Header {
    int codec = 0;
    int rate = 0; // Hz
    int channels = 0;
    std::size_t size = 0; // of the frame, bytes
    int samples = 0;      // in the frame, a channel
};

/// MPEG-1 and MPEG-2 audio, layer 3.
std::optional<Header> parseMp3(const std::uint8_t* at) {
    static constexpr std::array<int, 16> mpeg1 = {0,   32,  40,  48,  56,  64,  80,  96,
                                                  112, 128, 160, 192, 224, 256, 320, 0};
    static constexpr std::array<int, 16> mpeg2 = {0,  8,  16, 24,  32,  40,  48,  56,
                                                  64, 80, 96, 112, 128, 144, 160, 0};
    static constexpr std::array<int, 4> rates = {44100, 48000, 32000, 0};
    static constexpr std::array<int, 4> divisors = {4, 0, 2, 1}; // MPEG-2.5, none, MPEG-2, MPEG-1
    const unsigned int version = at[1] >> 3 & 3U;
    const bool layer3 = at[0] == 0xff && (at[1] & 0xe6) == 0xe2;
    const bool isMpeg1 = version == 3;
    const int bitrate = (isMpeg1 ? mpeg1 : mpeg2)[at[2] >> 4] * 1000;
    const int rate = rates[at[2] >> 2 & 3U];
    const int divisor = divisors[version];
    if (!layer3 || bitrate == 0 || rate == 0 || divisor == 0)
        return std::nullopt;
    Header header;
    header.codec = UVAStreamConfig::CODEC_MP3;
    header.rate = rate / divisor;
    header.channels = at[3] >> 6 == 3 ? 1 : 2;
    header.samples = isMpeg1 ? 1152 : 576;
    header.size =
        static_cast<std::size_t>(header.samples / 8 * bitrate / header.rate) + (at[2] >> 1 & 1U);
    return header;
}

std::optional<Header> parseAdts(const std::uint8_t* at) {
    static constexpr std::array<int, 16> rates = {96000, 88200, 64000, 48000, 44100, 32000,
                                                  24000, 22050, 16000, 12000, 11025, 8000,
                                                  7350,  0,     0,     0};
    const int rate = rates[at[2] >> 2 & 15U];
    if (at[0] != 0xff || (at[1] & 0xf6) != 0xf0 || rate == 0)
        return std::nullopt;
    Header header;
    header.codec = UVAStreamConfig::CODEC_AAC;
    header.rate = rate;
    header.channels = (at[2] & 1) << 2 | at[3] >> 6;
    header.size = (at[3] & 3U) << 11U | std::size_t{at[4]} << 3U | at[5] >> 5U;
    header.samples = 1024 * ((at[6] & 3) + 1);
    return header;
}

constexpr std::size_t headerSize = 7;

std::optional<Header> parseHeader(const std::uint8_t* at) {
    auto header = parseMp3(at);
    if (!header)
        header = parseAdts(at);
    return header && header->size > headerSize ? header : std::nullopt;
}

/// Bytes of an ID3v2 tag in front: its pictures may look like frames.
std::size_t tagSize(const std::vector<std::uint8_t>& file) {
    constexpr std::size_t tagHeader = 10;
    if (file.size() < tagHeader || file[0] != 'I' || file[1] != 'D' || file[2] != '3')
        return 0;
    return tagHeader + (file[6] << 21U | file[7] << 14U | file[8] << 7U | file[9]);
}

bool sameStream(const Header& a, const Header& b) {
    return a.codec == b.codec && a.rate == b.rate && a.samples == b.samples;
}

std::shared_ptr<const UVAStreamConfig> configOf(const Header& header) {
    auto config = std::make_shared<UVAStreamConfig>();
    config->codec = header.codec;
    config->sampleRate = header.rate;
    config->channels = header.channels;
    return config;
}

} // namespace

FrameFile splitFrames(std::vector<std::uint8_t> file) {
    FrameFile result;
    std::optional<Header> first;
    for (std::size_t at = tagSize(file); at + headerSize <= file.size();) {
        const auto header = parseHeader(file.data() + at);
        const bool whole = header && header->size <= file.size() - at;
        if (!whole || (first && !sameStream(*first, *header))) {
            ++at;
            continue;
        }
        if (!first)
            first = header;
        result.frames.push_back({at, header->size});
        at += header->size;
    }
    if (!first)
        return {};
    result.bytes = std::make_shared<const FrameFile::Bytes>(std::move(file));
    result.frameDuration = static_cast<double>(first->samples) / first->rate;
    result.config = configOf(*first);
    result.mimeType =
        first->codec == UVAStreamConfig::CODEC_AAC ? "audio/x-aac+adts" : "audio/mpeg";
    return result;
}
