#include "host/sample.h"

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

} // namespace host
