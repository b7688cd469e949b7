#include "host/sample.h"

namespace host {

namespace {

/// The map as backends want it: one that is left out covers the sample.
std::vector<UVASample::Subsample> completeMap(const SampleData& data) {
    if (data.protection.scheme == Protection::Scheme::None)
        return {};
    if (!data.protection.subsamples.empty())
        return data.protection.subsamples;
    return {{0, static_cast<std::uint32_t>(data.size)}};
}

} // namespace

Sample::Sample(SampleData data)
    : m_data(std::move(data)), m_keyReference(keyReference(m_data.protection)),
      m_subsamples(completeMap(m_data)) {}

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
