#include "subsample_map.h"

#include "sample_cipher.h"

#include <algorithm>
#include <iterator>

namespace host {

namespace {

using Map = std::vector<UVASample::Subsample>;

/// Room for the header of a NAL unit and of the slice in it.
constexpr std::size_t sliceHeaderSize = 96;

struct Range {
    std::size_t offset = 0;
    std::size_t size = 0;
};

/// What differs between the codecs whose samples are NAL units.
struct NalSyntax {
    std::size_t lengthSizeAt; // in the codec data; the lower two bits, plus 1
    bool (*isSlice)(std::uint8_t firstByte);
};

constexpr NalSyntax h264 = {4, [](std::uint8_t byte) {
                                const unsigned int type = byte & 0x1fU;
                                return type >= 1 && type <= 5;
                            }};
constexpr NalSyntax h265 = {21, [](std::uint8_t byte) { return (byte >> 1U & 0x3fU) < 32; }};

/// Bytes of the length before each NAL unit; 0: they stand behind start codes.
std::size_t lengthSize(const UVAStreamConfig& config, const NalSyntax& syntax) {
    if (config.codecData == nullptr || config.codecDataSize <= syntax.lengthSizeAt)
        return 0;
    return (config.codecData[syntax.lengthSizeAt] & 3U) + 1;
}

std::vector<Range> unitsAfterLengths(const std::uint8_t* data, std::size_t size,
                                     std::size_t lengthSize) {
    std::vector<Range> units;
    std::size_t at = 0;
    while (size - at > lengthSize) {
        std::size_t length = 0;
        for (std::size_t i = 0; i < lengthSize; ++i)
            length = length << 8U | data[at + i];
        at += lengthSize;
        if (length > size - at)
            break;
        units.push_back({at, length});
        at += length;
    }
    return units;
}

/// Zero bytes before a start code belong to no unit.
std::vector<Range> unitsAfterStartCodes(const std::uint8_t* data, std::size_t size) {
    static constexpr std::uint8_t startCode[] = {0, 0, 1};
    const auto* const end = data + size;
    const auto find = [end](const std::uint8_t* from) {
        return std::search(from, end, std::begin(startCode), std::end(startCode));
    };

    std::vector<Range> units;
    for (const auto* code = find(data); code != end;) {
        const auto* const unit = code + std::size(startCode);
        code = find(unit);
        const auto* unitEnd = code;
        while (unitEnd > unit && unitEnd[-1] == 0)
            --unitEnd;
        units.push_back(
            {static_cast<std::size_t>(unit - data), static_cast<std::size_t>(unitEnd - unit)});
    }
    return units;
}

/// The part of a slice or a frame to encrypt: all but its head. The standard wants whole blocks of
/// "cenc" video; they are the last ones. In "cbcs" the head is no longer than it must be.
Range tail(const Range& unit, std::size_t head, Protection::Scheme scheme) {
    const std::size_t rest = unit.size > head ? unit.size - head : 0;
    const std::size_t whole = rest - rest % SampleCipher::blockSize;
    const std::size_t length = scheme == Protection::Scheme::Cenc || whole == 0 ? whole : rest;
    return {unit.offset + unit.size - length, length};
}

/// From ranges to encrypt, in order.
Map toMap(const std::vector<Range>& encrypted, std::size_t size) {
    Map map;
    std::size_t at = 0;
    for (const auto& range : encrypted) {
        if (range.size == 0)
            continue;
        map.push_back({static_cast<std::uint32_t>(range.offset - at),
                       static_cast<std::uint32_t>(range.size)});
        at = range.offset + range.size;
    }
    if (at < size || map.empty())
        map.push_back({static_cast<std::uint32_t>(size - at), 0});
    return map;
}

Map mapOfNalUnits(const UVAStreamConfig& config, const NalSyntax& syntax, const std::uint8_t* data,
                  std::size_t size, Protection::Scheme scheme) {
    const std::size_t prefix = lengthSize(config, syntax);
    const auto units =
        prefix > 0 ? unitsAfterLengths(data, size, prefix) : unitsAfterStartCodes(data, size);
    std::vector<Range> encrypted;
    for (const auto& unit : units) {
        if (unit.size > 0 && syntax.isSlice(data[unit.offset]))
            encrypted.push_back(tail(unit, sliceHeaderSize, scheme));
    }
    return toMap(encrypted, size);
}

Map mapOfFrame(std::size_t head, std::size_t size, Protection::Scheme scheme) {
    return toMap({tail({0, size}, head, scheme)}, size);
}

/// Behind the header of an ADTS frame, everything; of other audio, everything.
Map mapOfAac(const std::uint8_t* data, std::size_t size) {
    const bool isAdts = size >= 2 && data[0] == 0xff && (data[1] & 0xf6U) == 0xf0;
    if (!isAdts)
        return {};
    const std::size_t header = std::min<std::size_t>((data[1] & 1U) != 0 ? 7 : 9, size);
    return toMap({{header, size - header}}, size);
}

} // namespace

std::vector<UVASample::Subsample> subsampleMap(const UVAStreamConfig& config,
                                               const std::uint8_t* payload, std::size_t size,
                                               Protection::Scheme scheme) {
    switch (config.codec) {
    case UVAStreamConfig::CODEC_H264:
        return mapOfNalUnits(config, h264, payload, size, scheme);
    case UVAStreamConfig::CODEC_H265:
        return mapOfNalUnits(config, h265, payload, size, scheme);
    case UVAStreamConfig::CODEC_VP8:
        return mapOfFrame(SampleCipher::blockSize, size, scheme);
    case UVAStreamConfig::CODEC_AAC:
    case UVAStreamConfig::CODEC_AAC_MAIN:
    case UVAStreamConfig::CODEC_AAC_HE:
        return mapOfAac(payload, size);
    default:
        break;
    }
    constexpr std::size_t frameHeaderSize = 64; // of VP9, uncompressed
    return UVAStreamConfig::av(config.codec) == UVAStreamConfig::VIDEO_STREAM
               ? mapOfFrame(frameHeaderSize, size, scheme)
               : Map{};
}

} // namespace host
