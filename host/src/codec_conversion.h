#ifndef HOST_CODEC_CONVERSION_H
#define HOST_CODEC_CONVERSION_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace host {

// Between the forms in which containers carry codec headers and those in which a media source takes
// them. Pure functions; all bytes are distrusted.

/// What an ADTS header tells of a raw AAC frame.
struct AdtsFormat {
    unsigned int profile = 0;   ///< audio object type less one, 0 to 3
    unsigned int rateIndex = 0; ///< ISO/IEC 14496-3, 0 to 12
    unsigned int channels = 0;  ///< channel configuration, 1 to 7
};

inline constexpr std::size_t adtsHeaderSize = 7;
inline constexpr std::size_t maximumAdtsPayload = 0x1fff - adtsHeaderSize; ///< bytes

/// From an AudioSpecificConfig. HE-AAC answers its AAC-LC core: decoders find the extension by
/// themselves. Nothing when the format cannot be told in ADTS: other object types, odd rates,
/// channel layouts of their own.
std::optional<AdtsFormat> parseAudioSpecificConfig(const std::uint8_t* bytes, std::size_t size);

unsigned int sampleRate(const AdtsFormat& format); ///< Hz

/// For a frame of at most `maximumAdtsPayload` bytes.
std::array<std::uint8_t, adtsHeaderSize> adtsHeader(const AdtsFormat& format,
                                                    std::size_t payloadSize);

/// The three headers, which Matroska and libavformat lace (a count less one, the sizes but the last
/// in bytes of up to 255, the packets), back to back. Empty when they are not that.
std::vector<std::uint8_t> joinVorbisHeaders(const std::uint8_t* bytes, std::size_t size);

/// An "OpusHead" whose pre-skip, rate and gain, least significant byte first in containers, are
/// turned. Empty when it is none.
std::vector<std::uint8_t> turnOpusHeader(const std::uint8_t* bytes, std::size_t size);

} // namespace host

#endif
