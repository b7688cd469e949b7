#include "codec_conversion.h"

#include <algorithm>
#include <cstring>

namespace host {

std::vector<std::uint8_t> joinVorbisHeaders(const std::uint8_t* bytes, std::size_t size) {
    constexpr std::uint8_t headersLessOne = 2;
    if (size < 3 || bytes[0] != headersLessOne)
        return {};
    std::size_t at = 1;
    std::size_t packets = 0; // bytes of those whose size is told
    for (int i = 0; i < headersLessOne; ++i) {
        std::uint8_t part = 255;
        while (part == 255) {
            if (at == size)
                return {};
            part = bytes[at++];
            packets += part;
        }
    }
    if (packets >= size - at)
        return {};
    return {bytes + at, bytes + size};
}

std::vector<std::uint8_t> turnOpusHeader(const std::uint8_t* bytes, std::size_t size) {
    constexpr std::size_t preSkip = 10;
    constexpr std::size_t rate = 12;
    constexpr std::size_t gain = 16;
    constexpr std::size_t mapping = 18;
    if (size <= mapping || std::memcmp(bytes, "OpusHead", 8) != 0)
        return {};
    std::vector<std::uint8_t> header(bytes, bytes + size);
    std::reverse(header.begin() + preSkip, header.begin() + rate);
    std::reverse(header.begin() + rate, header.begin() + gain);
    std::reverse(header.begin() + gain, header.begin() + mapping);
    return header;
}

} // namespace host
