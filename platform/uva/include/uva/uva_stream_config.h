#ifndef UVA_STREAM_CONFIG_H
#define UVA_STREAM_CONFIG_H

#include <cstddef>
#include <cstdint>

/// How one elementary stream is coded. Every media-source sample points to one; it belongs to the
/// sample and lives as long as the sample does. Immutable once a sample refers to it.
class UVAStreamConfig {
public:
    /// What a codec is for.
    enum Kind { UNKNOWN_STREAM = 0, AUDIO_STREAM = 1, VIDEO_STREAM = 2 };

    /// Audio codecs are 1000 to 1998, video codecs 1999 to 2998.
    enum Codec : int {
        CODEC_AAC = 1001,
        CODEC_MP3 = 1002,
        CODEC_VORBIS = 1004,
        CODEC_OPUS = 1005,
        CODEC_EAC3 = 1006,
        CODEC_AC3 = 1007,
        CODEC_DTS = 1009,
        CODEC_AAC_MAIN = 1013,
        CODEC_AAC_HE = 1014,
        CODEC_H264 = 2001,
        CODEC_H265 = 2002,
        CODEC_VP8 = 2007,
        CODEC_VP9 = 2008,
    };

    /// Code points of ISO/IEC 23091-2 (the same as in a "colr" box of type "nclx").
    /// range: 1 limited, 2 full, anything else unknown.
    struct ColorInfo {
        unsigned int matrix = 2;
        unsigned int range = 0;
        unsigned int transfer = 2;
        unsigned int primaries = 2;
        unsigned int bitsPerChannel = ~0U; ///< all ones: unknown
    };

    /// SMPTE ST 2086. Chromaticities are CIE 1931 x and y in 0..1, luminances candela per m².
    struct MasteringMetadata {
        double primaryRX = 0, primaryRY = 0;
        double primaryGX = 0, primaryGY = 0;
        double primaryBX = 0, primaryBY = 0;
        double whitePointX = 0, whitePointY = 0;
        double luminanceMax = 0, luminanceMin = 0;
    };

    virtual ~UVAStreamConfig();

    /// The kind of a codec, by its number.
    static constexpr Kind av(int codec) {
        return codec >= 1000 && codec <= 1998   ? AUDIO_STREAM
               : codec >= 1999 && codec <= 2998 ? VIDEO_STREAM
                                                : UNKNOWN_STREAM;
    }

    int codec = 0;                           ///< a Codec; 0: unknown
    const std::uint8_t* codecData = nullptr; ///< codec headers; null when there are none
    std::size_t codecDataSize = 0;           ///< bytes

    int sampleRate = 0; ///< Hz, audio only
    int channels = 0;   ///< audio only
    int width = 0;      ///< pixels, video only
    int height = 0;     ///< pixels, video only

    const ColorInfo* color = nullptr;             ///< video only, null when unknown
    const MasteringMetadata* mastering = nullptr; ///< video only, null when unknown
};

#endif
