#include "host/sample.h"

#include "sample_order.h"

#include <algorithm>
#include <atomic>
#include <utility>

namespace host {

namespace {

std::atomic<long> samples{0};

SampleData withRanges(SampleData data) {
    auto& protection = data.protection;
    if (protection.scheme != Protection::Scheme::None && protection.subsamples.empty())
        protection.subsamples.push_back({0, static_cast<std::uint32_t>(data.size)});
    return data;
}

} // namespace

KeyReference::KeyReference(const Protection& protection) {
    if (protection.scheme == Protection::Scheme::None)
        return;
    auto* end = std::copy(protection.keyId.begin(), protection.keyId.end(), m_bytes.data());
    if (protection.scheme == Protection::Scheme::Cbcs) {
        *end++ = static_cast<std::uint8_t>(protection.cryptByteBlock);
        *end++ = static_cast<std::uint8_t>(protection.skipByteBlock);
    }
    m_size = static_cast<std::size_t>(end - m_bytes.data());
}

Sample::Sample(SampleData data)
    : m_data(withRanges(std::move(data))), m_keyReference(m_data.protection) {
    ++samples;
}

Sample::~Sample() {
    --samples;
}

long Sample::living() {
    return samples;
}

bool moveIntoMedia(SampleData& sample) {
    constexpr double nothing = 1e-6;
    if (sample.duration >= 0) {
        sample.duration = std::max(sample.pts + sample.duration, 0.0);
        // These decoders need the first packet, and know by themselves what of it is not heard.
        const auto codec = sample.config->codec;
        const bool needed =
            codec == UVAStreamConfig::CODEC_OPUS || codec == UVAStreamConfig::CODEC_VORBIS;
        if (sample.duration < nothing && !needed)
            return false;
    }
    sample.pts = 0;
    sample.dts = 0;
    return true;
}

} // namespace host
