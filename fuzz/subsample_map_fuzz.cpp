// Any codec data and any sample of any codec: the map of what to encrypt covers the sample, leaves
// what parsers read and fits the scheme. Input: codec, scheme, length of the codec data, a byte
// each; the codec data; the sample.

#include "fuzz_target.h"
#include "input.h"
#include "subsample_map.h"

#include <cstddef>
#include <iterator>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>; ///< of exactly the size: the first byte behind is noticed
using Scheme = host::Protection::Scheme;

constexpr int codecs[] = {UVAStreamConfig::CODEC_H264, UVAStreamConfig::CODEC_H265,
                          UVAStreamConfig::CODEC_VP8,  UVAStreamConfig::CODEC_VP9,
                          UVAStreamConfig::CODEC_AAC,  UVAStreamConfig::CODEC_OPUS};

bool isNalCodec(int codec) {
    return codec == UVAStreamConfig::CODEC_H264 || codec == UVAStreamConfig::CODEC_H265;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input input(data, size);
    UVAStreamConfig config;
    config.codec = codecs[input.byte() % std::size(codecs)];
    const Scheme scheme = input.byte() % 2 == 0 ? Scheme::Cenc : Scheme::Cbcs;
    const auto headers = input.text(input.byte());
    const Bytes codecData(headers.begin(), headers.end());
    config.codecData = codecData.empty() ? nullptr : codecData.data();
    config.codecDataSize = codecData.size();
    const Bytes sample(input.rest(), input.rest() + input.size());

    const auto map = host::subsampleMap(config, sample.data(), sample.size(), scheme);
    const bool isVideo = UVAStreamConfig::av(config.codec) == UVAStreamConfig::VIDEO_STREAM;
    require(!map.empty() || !isVideo);
    uint64_t covered = 0;
    for (const auto& part : map) {
        require(!isNalCodec(config.codec) || part.encryptedBytes == 0 || part.clearBytes >= 96);
        require(!isVideo || scheme != Scheme::Cenc || part.encryptedBytes % 16 == 0);
        covered += uint64_t{part.clearBytes} + part.encryptedBytes;
    }
    require(map.empty() || covered == sample.size());
    return 0;
}
