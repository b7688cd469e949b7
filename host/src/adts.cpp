#include "host/adts.h"

#include <algorithm>

namespace host {

namespace {

/// Most significant bit first. Zeros follow the end; ended() tells.
class BitReader {
public:
    BitReader(const std::uint8_t* bytes, std::size_t size) : m_bytes(bytes), m_bits(size * 8) {}

    unsigned int read(unsigned int count) {
        unsigned int value = 0;
        for (; count > 0; --count, ++m_at)
            value = value << 1 | (m_at < m_bits ? m_bytes[m_at / 8] >> (7 - m_at % 8) & 1U : 0U);
        return value;
    }
    bool ended() const { return m_at > m_bits; }

private:
    const std::uint8_t* m_bytes;
    std::size_t m_bits;
    std::size_t m_at = 0;
};

constexpr std::array<unsigned int, 13> aacRates = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                                   22050, 16000, 12000, 11025, 8000,  7350};

enum AacObjectType { SpectralBandReplication = 5, ParametricStereo = 29, Escape = 31 };

unsigned int readObjectType(BitReader& bits) {
    const auto type = bits.read(5);
    return type == Escape ? 32 + bits.read(6) : type;
}

/// An index out of the table when the rate is not in it.
unsigned int readRateIndex(BitReader& bits) {
    constexpr unsigned int spelledOut = 15;
    const auto index = bits.read(4);
    if (index != spelledOut)
        return index;
    const auto* rate = std::find(aacRates.begin(), aacRates.end(), bits.read(24));
    return static_cast<unsigned int>(rate - aacRates.begin());
}

} // namespace

std::optional<AdtsFormat> parseAudioSpecificConfig(const std::uint8_t* bytes, std::size_t size) {
    BitReader bits(bytes, size);
    auto objectType = readObjectType(bits);
    AdtsFormat format;
    format.rateIndex = readRateIndex(bits);
    format.channels = bits.read(4);
    if (objectType == SpectralBandReplication || objectType == ParametricStereo) {
        readRateIndex(bits); // of the output; frames are of the core's, which came first
        objectType = readObjectType(bits);
    }
    if (bits.ended() || objectType < 1 || objectType > 4 || format.rateIndex >= aacRates.size() ||
        format.channels < 1 || format.channels > 7)
        return std::nullopt;
    format.profile = objectType - 1;
    return format;
}

unsigned int sampleRate(const AdtsFormat& format) {
    return format.rateIndex < aacRates.size() ? aacRates[format.rateIndex] : 0;
}

std::array<std::uint8_t, adtsHeaderSize> adtsHeader(const AdtsFormat& format,
                                                    std::size_t payloadSize) {
    const auto length = static_cast<unsigned int>(payloadSize + adtsHeaderSize);
    const auto byte = [](unsigned int value) { return static_cast<std::uint8_t>(value); };
    return {
        0xff,
        0xf1, // MPEG-4, no checksum
        byte(format.profile << 6 | format.rateIndex << 2 | format.channels >> 2),
        byte((format.channels & 3) << 6 | length >> 11),
        byte(length >> 3),
        byte((length & 7) << 5 | 0x1f), // the bit reservoir's fullness, all ones: unknown
        0xfc,
    };
}

} // namespace host
