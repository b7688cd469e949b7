#ifndef UVA_REPLAY_RECORDED_SAMPLE_H
#define UVA_REPLAY_RECORDED_SAMPLE_H

#include "script.h"
#include "uva/uva_sample.h"

#include <memory>
#include <optional>

namespace replay {

/// A stream configuration as it was recorded.
class RecordedConfig final : public UVAStreamConfig {
public:
    /// The entry must outlive it.
    explicit RecordedConfig(const Entry& entry);

private:
    ColorInfo m_color;
    MasteringMetadata m_mastering;
};

/// A sample as it was recorded; the record must outlive it. Immutable; any thread.
class RecordedSample final : public UVASample {
public:
    RecordedSample(const Entry& entry, const Script& script,
                   std::shared_ptr<const UVAStreamConfig> config);

    const std::uint8_t* payload() const override;
    std::size_t payloadSize() const override { return m_payload.size(); }
    double pts() const override { return m_times[0]; }
    double dts() const override { return m_times[1]; }
    double duration() const override { return m_times[2]; }
    const UVAStreamConfig* config() const override { return m_config.get(); }
    const std::uint8_t* keyId() const override { return bytesOf(m_keyId); }
    std::size_t keyIdSize() const override { return m_keyId.size(); }
    const std::uint8_t* iv() const override { return bytesOf(m_iv); }
    std::size_t ivSize() const override { return m_iv.size(); }
    unsigned int cryptByteBlock() const override { return m_cryptByteBlock; }
    unsigned int skipByteBlock() const override { return m_skipByteBlock; }
    const std::vector<Subsample>& subsamples() const override { return m_subsamples; }

private:
    static const std::uint8_t* bytesOf(std::string_view bytes) {
        return bytes.empty() ? nullptr : reinterpret_cast<const std::uint8_t*>(bytes.data());
    }
    void protect(const record::Values& protection);

    const std::shared_ptr<const UVAStreamConfig> m_config;
    double m_times[3] = {-1, -1, -1};
    std::string m_joined; // of a payload in several pieces
    std::string_view m_payload;
    std::string_view m_keyId;
    std::string_view m_iv;
    unsigned int m_cryptByteBlock = 0;
    unsigned int m_skipByteBlock = 0;
    std::vector<Subsample> m_subsamples;
};

/// The number of the configuration that a sample refers to; 0: none.
std::uint32_t configOf(const Entry& sample);

} // namespace replay

#endif
