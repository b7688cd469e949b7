#include "host/clear_key.h"

#include "sample_cipher.h"
#include "subsample_map.h"

#include <openssl/rand.h>

#include <algorithm>
#include <limits>

namespace host {

namespace {

constexpr char cipherFailed[] =
    "a sample cannot be encrypted: the cryptographic library failed; play the stream clear";
constexpr std::size_t counterHalf = 8; ///< bytes of the vector of "cenc"

/// Audio is encrypted without gaps; of video, one block in ten is enough.
Protection protectionOf(Protection::Scheme scheme, StreamInfo::Kind kind, const KeyPair& key) {
    Protection protection;
    protection.scheme = scheme;
    protection.keyId = key.id;
    if (scheme == Protection::Scheme::Cbcs && kind == StreamInfo::Kind::Video) {
        protection.cryptByteBlock = 1;
        protection.skipByteBlock = 9;
    }
    return protection;
}

class ProtectedStream final : public SampleStream {
public:
    ProtectedStream(std::unique_ptr<SampleStream> clear, Protection::Scheme scheme,
                    const KeyPair& key);

    const StreamInfo& info() const override { return m_clear->info(); }
    Batch read(std::size_t count) override;
    std::string seek(double seconds) override { return m_clear->seek(seconds); }
    void interrupt() override { m_clear->interrupt(); }

private:
    /// What went wrong, empty when nothing did.
    std::string encrypt(std::unique_ptr<Sample>& sample);
    bool apply(std::uint8_t* payload, const Protection& protection, std::size_t size);
    void nextIv();

    const std::unique_ptr<SampleStream> m_clear;
    Protection m_protection;                // of the next sample, but for its map
    std::unique_ptr<SampleCipher> m_cipher; // null when it, or a vector, could not be made
};

ProtectedStream::ProtectedStream(std::unique_ptr<SampleStream> clear, Protection::Scheme scheme,
                                 const KeyPair& key)
    : m_clear(std::move(clear)), m_protection(protectionOf(scheme, m_clear->info().kind, key)),
      m_cipher(SampleCipher::make(m_protection, key.key, SampleCipher::Direction::Encrypt)) {
    const auto size = scheme == Protection::Scheme::Cenc ? counterHalf : m_protection.iv.size();
    if (RAND_bytes(m_protection.iv.data(), static_cast<int>(size)) != 1)
        m_cipher.reset();
}

SampleStream::Batch ProtectedStream::read(std::size_t count) {
    auto batch = m_clear->read(count);
    for (auto sample = batch.samples.begin(); sample != batch.samples.end(); ++sample) {
        auto error = encrypt(*sample);
        if (error.empty())
            continue;
        batch.samples.erase(sample, batch.samples.end());
        batch.ended = false;
        batch.error = std::move(error);
        break;
    }
    return batch;
}

std::string ProtectedStream::encrypt(std::unique_ptr<Sample>& sample) {
    SampleData data = sample->data();
    if (data.protection.scheme != Protection::Scheme::None)
        return {};
    if (data.config == nullptr || (data.payload == nullptr && data.size > 0))
        return "a sample cannot be encrypted: its bytes or its configuration are missing; deliver "
               "both";
    if (data.size > std::numeric_limits<std::uint32_t>::max())
        return "a sample cannot be encrypted: it has 4 GiB or more; play the stream clear";
    if (m_cipher == nullptr)
        return cipherFailed;

    const auto payload = std::shared_ptr<std::uint8_t>(new std::uint8_t[data.size],
                                                       std::default_delete<std::uint8_t[]>());
    std::copy_n(data.payload.get(), data.size, payload.get());
    data.protection = m_protection;
    data.protection.subsamples =
        subsampleMap(*data.config, payload.get(), data.size, m_protection.scheme);
    if (!apply(payload.get(), data.protection, data.size))
        return cipherFailed;
    data.payload = payload;
    sample = std::make_unique<Sample>(std::move(data));
    nextIv();
    return {};
}

bool ProtectedStream::apply(std::uint8_t* payload, const Protection& protection, std::size_t size) {
    if (!m_cipher->begin(protection.iv.data(), protection.iv.size()))
        return false;
    if (protection.subsamples.empty())
        return m_cipher->apply(payload, size);
    for (const auto& subsample : protection.subsamples) {
        payload += subsample.clearBytes;
        if (!m_cipher->apply(payload, subsample.encryptedBytes))
            return false;
        payload += subsample.encryptedBytes;
    }
    return true;
}

/// The vector of "cenc" is the upper half of the counter: the next number is enough for a key
/// stream of its own. That of "cbcs" is constant.
void ProtectedStream::nextIv() {
    if (m_protection.scheme != Protection::Scheme::Cenc)
        return;
    auto& iv = m_protection.iv;
    for (auto at = counterHalf; at > 0 && ++iv[at - 1] == 0;)
        --at;
}

} // namespace

std::unique_ptr<SampleStream> protect(std::unique_ptr<SampleStream> clear,
                                      Protection::Scheme scheme, const KeyPair& key) {
    if (clear == nullptr || scheme == Protection::Scheme::None)
        return clear;
    return std::make_unique<ProtectedStream>(std::move(clear), scheme, key);
}

} // namespace host
