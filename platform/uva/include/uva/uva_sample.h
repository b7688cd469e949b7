#ifndef UVA_SAMPLE_H
#define UVA_SAMPLE_H

#include "uva/uva_stream_config.h"

#include <cstddef>
#include <cstdint>
#include <vector>

/// One demultiplexed access unit that the host hands to the backend. The payload must stay
/// unchanged, at the same address, until the sample is deleted: the backend does not copy it, and
/// deletes the sample on whatever thread releases the last use.
class UVASample {
public:
    /// A run of clear bytes followed by a run of encrypted ones (ISO/IEC 23001-7, "senc").
    struct Subsample {
        std::uint32_t clearBytes = 0;
        std::uint32_t encryptedBytes = 0;
    };

    virtual ~UVASample();

    /// The access unit's bytes, owned by the sample; null for a sample that carries a time alone.
    virtual const std::uint8_t* payload() const = 0;
    virtual std::size_t payloadSize() const = 0; ///< bytes

    ///@{
    /// Seconds; negative when unknown.
    virtual double pts() const = 0;
    virtual double dts() const = 0;
    virtual double duration() const = 0;
    ///@}

    /// How the stream is coded. Owned by the sample.
    virtual const UVAStreamConfig* config() const = 0;

    ///@{
    /// Protection (ISO/IEC 23001-7). A sample with a key id is encrypted; a clear one answers null.
    virtual const std::uint8_t* keyId() const { return nullptr; }
    virtual std::size_t keyIdSize() const { return 0; }
    virtual const std::uint8_t* iv() const { return nullptr; }
    virtual std::size_t ivSize() const { return 0; }
    ///@}
    ///@{
    /// Pattern encryption ("cbcs"): 16-byte blocks encrypted and skipped in turn; 0 and 0: none.
    virtual unsigned int cryptByteBlock() const { return 0; }
    virtual unsigned int skipByteBlock() const { return 0; }
    ///@}
    /// What is encrypted; a sample that is encrypted as a whole has one entry with all its bytes.
    /// Without an entry nothing is decrypted.
    virtual const std::vector<Subsample>& subsamples() const = 0;
};

#endif
