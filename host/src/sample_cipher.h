#ifndef HOST_SAMPLE_CIPHER_H
#define HOST_SAMPLE_CIPHER_H

#include "host/clear_key.h"
#include "host/sample.h"

#include <cstddef>
#include <cstdint>
#include <memory>

namespace host {

/// AES-128 over the protected ranges of samples, in place. Encryption and decryption walk a sample
/// alike. Reentrant; nothing is allocated per sample.
class SampleCipher {
public:
    enum class Direction { Decrypt, Encrypt };

    /// Of AES, in bytes.
    static constexpr std::size_t blockSize = 16;

    /// Null when the protection names no cipher (a pattern that never encrypts is none), or when
    /// there is no memory. Of the protection, the scheme and the pattern count.
    static std::unique_ptr<SampleCipher> make(const Protection& protection, const KeyBytes& key,
                                              Direction direction);
    virtual ~SampleCipher();

    /// A sample begins. False when the size is not one of the scheme's.
    virtual bool begin(const std::uint8_t* iv, std::size_t ivSize) = 0;

    /// The next range of the sample that has begun. False: the cipher failed, the range is void.
    virtual bool apply(std::uint8_t* data, std::size_t size) = 0;
};

} // namespace host

#endif
