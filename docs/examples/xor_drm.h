#ifndef XOR_DRM_H
#define XOR_DRM_H

#include "uva/uva_drm_backend.h"

#include <atomic>

/// A content-protection system with one key, whose cipher shows the interface and protects
/// nothing: a byte at n of what is encrypted of a sample is exclusive-ored with the key's and the
/// vector's bytes at n, each repeated.
class XorDrm final : public UVADRMBackend {
public:
    static constexpr const char* keySystem = "org.example.xor";
    static constexpr std::uint8_t keyId[] = {'k', 'e', 'y', '1'};

    int createDecrypter(UVADRMDecrypter*& decrypter, const std::uint8_t* id, std::size_t idSize,
                        std::uint64_t value) override;
    void releaseDecrypter(UVADRMDecrypter* decrypter) override;
    void* getInterface(const char* name) override;

    int decrypters() const { return m_decrypters; } ///< made and not given back

private:
    std::atomic<int> m_decrypters{0};
};

#endif
