#include "sample_cipher.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <limits>

namespace host {

namespace {

constexpr std::size_t blockSize = SampleCipher::blockSize;
using Block = std::array<std::uint8_t, blockSize>;

struct FreeContext {
    void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};

/// One key in one mode; the key is expanded once.
class Aes {
public:
    Aes(const EVP_CIPHER* mode, const KeyBytes& key, SampleCipher::Direction direction)
        : m_context(EVP_CIPHER_CTX_new()) {
        const int encrypt = direction == SampleCipher::Direction::Encrypt ? 1 : 0;
        // Only where it would hold a block back: the library sets it again at each restart.
        const bool pads = EVP_CIPHER_get_block_size(mode) > 1;
        if (m_context == nullptr ||
            EVP_CipherInit_ex(m_context.get(), mode, nullptr, key.data(), nullptr, encrypt) != 1 ||
            (pads && EVP_CIPHER_CTX_set_padding(m_context.get(), 0) != 1))
            m_context.reset();
    }

    explicit operator bool() const { return m_context != nullptr; }

    /// What comes next begins with this counter block, or is chained to this vector.
    bool restart(const Block& iv) {
        return EVP_CipherInit_ex(m_context.get(), nullptr, nullptr, nullptr, iv.data(), -1) == 1;
    }

    bool apply(std::uint8_t* data, std::size_t size) {
        constexpr std::size_t mostAtOnce = std::size_t{1} << 30U; // the library counts in int
        while (size > 0) {
            const auto part = static_cast<int>(std::min(size, mostAtOnce));
            int done = 0;
            if (EVP_CipherUpdate(m_context.get(), data, &done, data, part) != 1 || done != part)
                return false;
            data += done;
            size -= static_cast<std::size_t>(done);
        }
        return true;
    }

private:
    std::unique_ptr<EVP_CIPHER_CTX, FreeContext> m_context;
};

/// Counter and key stream go on over all ranges of a sample.
class CencCipher final : public SampleCipher {
public:
    explicit CencCipher(Aes aes) : m_aes(std::move(aes)) {}

    bool begin(const std::uint8_t* iv, std::size_t ivSize) override {
        if (ivSize != halfSize && ivSize != blockSize)
            return false;
        m_counter.fill(0);
        std::copy_n(iv, ivSize, m_counter.begin());
        m_bytesToWrap = bytesToWrap();
        return m_aes.restart(m_counter);
    }

    bool apply(std::uint8_t* data, std::size_t size) override {
        while (size > 0) {
            if (m_bytesToWrap == 0 && !wrap())
                return false;
            const std::size_t part = std::min<std::uint64_t>(size, m_bytesToWrap);
            if (!m_aes.apply(data, part))
                return false;
            data += part;
            size -= part;
            m_bytesToWrap -= part;
        }
        return true;
    }

private:
    static constexpr std::size_t halfSize = blockSize / 2;
    static constexpr std::uint64_t never = std::numeric_limits<std::uint64_t>::max();

    std::uint64_t bytesToWrap() const {
        std::uint64_t count = 0;
        for (std::size_t i = halfSize; i < blockSize; ++i)
            count = count << 8U | m_counter[i];
        const std::uint64_t blocks = 0 - count; // 0 stands for 2^64
        return blocks - 1 < never / blockSize ? blocks * blockSize : never;
    }

    /// Only the lower half of the block counts; the library would carry into the upper one.
    bool wrap() {
        std::fill(m_counter.begin() + halfSize, m_counter.end(), std::uint8_t{0});
        m_bytesToWrap = never;
        return m_aes.restart(m_counter);
    }

    Aes m_aes;
    Block m_counter = {};
    std::uint64_t m_bytesToWrap = 0;
};

/// Every range is a chain of its own, over its encrypted blocks. What is shorter than a run at its
/// end stays clear.
class CbcsCipher final : public SampleCipher {
public:
    /// Blocks encrypted, then skipped, in turn; none are skipped with (0, 0).
    CbcsCipher(Aes aes, std::size_t crypt, std::size_t skip)
        : m_aes(std::move(aes)), m_run(crypt * blockSize), m_period((crypt + skip) * blockSize) {}

    bool begin(const std::uint8_t* iv, std::size_t ivSize) override {
        if (ivSize != blockSize)
            return false;
        std::copy_n(iv, ivSize, m_iv.begin());
        return true;
    }

    bool apply(std::uint8_t* data, std::size_t size) override {
        if (!m_aes.restart(m_iv))
            return false;
        return m_run == m_period ? m_aes.apply(data, size - size % blockSize)
                                 : applyPattern(data, size);
    }

private:
    /// The runs are gathered and go through the library many at a time: a call for each would cost
    /// more than its cipher.
    bool applyPattern(std::uint8_t* data, std::size_t size) {
        std::array<std::uint8_t, 4096> gathered;
        const std::size_t stride = gathered.size() / m_run * m_period;
        while (size > 0) {
            const std::size_t part = std::min(size, stride);
            auto* end = gathered.data();
            visitRuns(data, part,
                      [&](const std::uint8_t* run) { end = std::copy_n(run, m_run, end); });
            if (!m_aes.apply(gathered.data(), static_cast<std::size_t>(end - gathered.data())))
                return false;
            const auto* next = gathered.data();
            visitRuns(data, part, [&](std::uint8_t* run) {
                std::copy_n(next, m_run, run);
                next += m_run;
            });
            data += part;
            size -= part;
        }
        return true;
    }

    template <typename Visit>
    void visitRuns(std::uint8_t* data, std::size_t size, Visit visit) const {
        for (std::size_t at = 0; at < size && m_run <= size - at; at += m_period)
            visit(data + at);
    }

    Aes m_aes;
    Block m_iv = {};
    const std::size_t m_run;    // bytes
    const std::size_t m_period; // bytes
};

} // namespace

SampleCipher::~SampleCipher() = default;

std::unique_ptr<SampleCipher> SampleCipher::make(const Protection& protection, const KeyBytes& key,
                                                 Direction direction) {
    constexpr unsigned int mostBlocks = 255;
    const auto crypt = protection.cryptByteBlock;
    const auto skip = protection.skipByteBlock;
    switch (protection.scheme) {
    case Protection::Scheme::None:
        return nullptr;
    case Protection::Scheme::Cenc:
        if (Aes aes(EVP_aes_128_ctr(), key, direction); aes)
            return std::make_unique<CencCipher>(std::move(aes));
        return nullptr;
    case Protection::Scheme::Cbcs:
        if ((crypt == 0 && skip > 0) || crypt > mostBlocks || skip > mostBlocks)
            return nullptr;
        if (Aes aes(EVP_aes_128_cbc(), key, direction); aes)
            return std::make_unique<CbcsCipher>(std::move(aes), crypt, skip);
        return nullptr;
    }
    return nullptr;
}

} // namespace host
