#ifndef HOST_SAMPLE_H
#define HOST_SAMPLE_H

#include "uva/uva_sample.h"

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

namespace host {

/// 128 bits: a key id or a key.
using KeyBytes = std::array<std::uint8_t, 16>;
/// One of 64 bits has zeros behind it.
using InitVector = std::array<std::uint8_t, 16>;

/// How a sample is encrypted (ISO/IEC 23001-7). A plain value.
struct Protection {
    /// A protection scheme.
    enum class Scheme {
        None, ///< clear
        Cenc, ///< AES-CTR
        Cbcs, ///< AES-CBC, with a pattern when the two counts below are not 0
    };

    Scheme scheme = Scheme::None;
    KeyBytes keyId = {};
    InitVector iv = {};
    unsigned int cryptByteBlock = 0; ///< 16-byte blocks encrypted, then skipped, in turn
    unsigned int skipByteBlock = 0;
    std::vector<UVASample::Subsample> subsamples; ///< empty: the sample is encrypted as a whole
};

/// One access unit and what belongs to it.
struct SampleData {
    std::shared_ptr<const std::uint8_t> payload; ///< may share its owner with more than these bytes
    std::size_t size = 0;                        ///< bytes
    double pts = -1;                             ///< seconds; negative: unknown
    double dts = -1;
    double duration = -1;
    bool keyFrame = false; ///< decoding can start here
    std::shared_ptr<const UVAStreamConfig> config;
    Protection protection;
};

/// The name that a backend hands from a sample to the host's content protection, which makes the
/// decrypter. A decrypter sees ranges but neither scheme nor pattern, and one key may serve tracks
/// with different ones: so they are part of the name. The 16 bytes of the key id, and for Cbcs the
/// two pattern counts behind them, a byte each. Empty for a clear sample.
class KeyReference {
public:
    explicit KeyReference(const Protection& protection);

    ///@{
    /// What goes into UVASample::keyId() and UVASample::keyIdSize().
    const std::uint8_t* data() const { return m_size == 0 ? nullptr : m_bytes.data(); }
    std::size_t size() const { return m_size; }
    ///@}

private:
    std::array<std::uint8_t, sizeof(KeyBytes) + 2> m_bytes = {};
    std::size_t m_size = 0;
};

/// A sample as the backend takes it. Immutable; any thread.
class Sample final : public UVASample {
public:
    explicit Sample(SampleData data);
    ~Sample() override;

    /// How many there are in this process: none once all that was made has been freed.
    static long living();

    /// One that is encrypted as a whole has an entry with all of its bytes.
    const SampleData& data() const { return m_data; }

    const std::uint8_t* payload() const override { return m_data.payload.get(); }
    std::size_t payloadSize() const override { return m_data.size; }
    double pts() const override { return m_data.pts; }
    double dts() const override { return m_data.dts; }
    double duration() const override { return m_data.duration; }
    const UVAStreamConfig* config() const override { return m_data.config.get(); }

    /// What names the key, and how it is used, to the host's own content protection: a
    /// KeyReference. Null when the sample is clear.
    const std::uint8_t* keyId() const override { return m_keyReference.data(); }
    std::size_t keyIdSize() const override { return m_keyReference.size(); }
    const std::uint8_t* iv() const override { return isClear() ? nullptr : vector().data(); }
    std::size_t ivSize() const override { return isClear() ? 0 : vector().size(); }
    unsigned int cryptByteBlock() const override { return m_data.protection.cryptByteBlock; }
    unsigned int skipByteBlock() const override { return m_data.protection.skipByteBlock; }
    const std::vector<Subsample>& subsamples() const override {
        return m_data.protection.subsamples;
    }

private:
    bool isClear() const { return m_keyReference.size() == 0; }
    const InitVector& vector() const { return m_data.protection.iv; }

    const SampleData m_data;
    const KeyReference m_keyReference;
};

} // namespace host

#endif
