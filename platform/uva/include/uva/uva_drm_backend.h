#ifndef UVA_DRM_BACKEND_H
#define UVA_DRM_BACKEND_H

#include <cstddef>
#include <cstdint>
#include <vector>

/// Decrypts with one key. Made and released by its UVADRMBackend; used from one thread at a time.
class UVADRMDecrypter {
public:
    /// One piece of a sample. The memory belongs to the caller and lives for the call.
    struct Input {
        const std::uint8_t* iv = nullptr; ///< null: carry on where the piece before ended
        std::size_t ivSize = 0;
        const std::uint8_t* data = nullptr;
        std::size_t size = 0;
        bool first = false; ///< first piece of the sample
        bool last = false;  ///< last piece of the sample
        bool flag = false;  ///< host-defined, passed through
    };
    /// Where the clear bytes go: as many as came in.
    struct Output {
        std::uint8_t* data = nullptr; ///< may be the input's own memory
        std::size_t size = 0;
    };

    virtual ~UVADRMDecrypter();

    /// 0 on success.
    virtual int decrypt(const Input& input, const Output& output) = 0;
};

/// The host's content-protection system for one key system. Thread-safe; outlives every backend
/// that it was given to.
class UVADRMBackend {
public:
    virtual ~UVADRMBackend();

    /// Makes a decrypter for a key. 1 on success; otherwise `decrypter` is left alone.
    virtual int createDecrypter(UVADRMDecrypter*& decrypter, const std::uint8_t* keyId,
                                std::size_t keyIdSize, std::uint64_t value) = 0;
    /// Takes a decrypter of createDecrypter() back and deletes it. The thread that used it is
    /// through.
    virtual void releaseDecrypter(UVADRMDecrypter* decrypter) = 0;

    /// An optional interface by name (the `interfaceName` members below), null when there is none.
    /// It belongs to this object.
    virtual void* getInterface(const char* name) = 0;
};

/// Optional: where a hardware path finds the key of a decrypter.
class UVADRMKeySlotGetter {
public:
    static const char* const interfaceName; ///< ends in ".key-slot-getter"
    virtual ~UVADRMKeySlotGetter();
    /// 1 on success.
    virtual int getKeySlot(UVADRMDecrypter* decrypter, std::uint32_t& slot) = 0;
};

/// Optional: decrypts a sample with all its subsamples in one call.
class UVADRMFullSampleDecrypter {
public:
    static const char* const interfaceName; ///< ends in ".full-sample-decrypter"

    /// An encrypted range inside the sample, bytes.
    struct Subsample {
        std::uint32_t offset = 0;
        std::uint32_t length = 0;
    };
    /// A sample as a whole. The memory belongs to the caller and lives for the call.
    struct Sample {
        std::uint8_t* data = nullptr; ///< decrypted in place
        std::size_t size = 0;
        const std::uint8_t* iv = nullptr;
        std::size_t ivSize = 0;
        std::vector<Subsample> subsamples;
    };

    virtual ~UVADRMFullSampleDecrypter();
    /// 0 on success.
    virtual int decrypt(UVADRMDecrypter* decrypter, const Sample& sample) = 0;
};

extern "C" {

/// Offers a content-protection system to the backends of this process: setKeySystem() with this
/// identifier finds it from then on. Null withdraws it, for elements that have not found it yet; it
/// must outlive those that have. The 64-bit `client` of their configuration reaches
/// createDecrypter() as `value`: that is how one system serves the sessions of several elements.
/// Thread-safe.
void UVA_OfferDRMBackend(const char* keySystemId, UVADRMBackend* backend);

/// The one offered under the identifier; null when there is none. Thread-safe.
UVADRMBackend* UVA_FindDRMBackend(const char* keySystemId);
}

#endif
