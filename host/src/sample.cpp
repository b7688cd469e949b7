#include "host/sample.h"

#include "sample_order.h"

#include <algorithm>
#include <utility>

namespace host {

namespace {

std::vector<UVASample::Subsample> rangesOf(const SampleData& data) {
    const Protection& protection = data.protection;
    if (protection.scheme == Protection::Scheme::None || !protection.subsamples.empty())
        return protection.subsamples;
    return {{0, static_cast<std::uint32_t>(data.size)}};
}

} // namespace

Sample::Sample(SampleData data)
    : m_data(std::move(data)), m_keyReference(keyReference(m_data.protection)),
      m_subsamples(rangesOf(m_data)) {}

Sample::~Sample() = default;

const std::uint8_t* Sample::keyId() const {
    return m_keyReference.empty() ? nullptr : m_keyReference.data();
}

std::vector<std::uint8_t> keyReference(const Protection& protection) {
    if (protection.scheme == Protection::Scheme::None)
        return {};
    auto reference = protection.keyId;
    if (protection.scheme == Protection::Scheme::Cbcs) {
        reference.push_back(static_cast<std::uint8_t>(protection.cryptByteBlock));
        reference.push_back(static_cast<std::uint8_t>(protection.skipByteBlock));
    }
    return reference;
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
