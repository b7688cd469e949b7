#ifndef HOST_ADTS_H
#define HOST_ADTS_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace host {

// AAC as containers and as media sources carry it. Pure functions; all bytes are distrusted.

/// What an ADTS header tells of a raw AAC frame (ISO/IEC 13818-7, 6.2).
struct AdtsFormat {
    unsigned int profile = 0;   ///< audio object type less one, 0 to 3
    unsigned int rateIndex = 0; ///< ISO/IEC 14496-3, 0 to 12
    unsigned int channels = 0;  ///< channel configuration, 1 to 7
};

inline constexpr std::size_t adtsHeaderSize = 7;                           ///< bytes
inline constexpr std::size_t maximumAdtsPayload = 0x1fff - adtsHeaderSize; ///< bytes

/// From an AudioSpecificConfig (ISO/IEC 14496-3, 1.6.2.1). HE-AAC answers its AAC-LC core: decoders
/// find the extension by themselves. Nothing when the format cannot be told in ADTS: other object
/// types, odd rates, channel layouts of their own.
std::optional<AdtsFormat> parseAudioSpecificConfig(const std::uint8_t* bytes, std::size_t size);

unsigned int sampleRate(const AdtsFormat& format); ///< Hz

/// For a frame of at most `maximumAdtsPayload` bytes.
std::array<std::uint8_t, adtsHeaderSize> adtsHeader(const AdtsFormat& format,
                                                    std::size_t payloadSize);

} // namespace host

#endif
