#include "host/clear_key.h"

#include "locks/mutex.h"
#include "sample_cipher.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <map>
#include <string_view>
#include <utility>
#include <vector>

namespace host {

namespace {

constexpr int succeeded = 0;
constexpr int failed = -1;

constexpr int granted = 1;
constexpr int refused = 0;

constexpr std::uint64_t sharedSession = 0; // its keys serve all

constexpr char hexDigits[] = "0123456789abcdef";

/// A key in memory that is wiped when it is left.
class StoredKey {
public:
    explicit StoredKey(const KeyBytes& bytes) : m_bytes(bytes) {}
    ~StoredKey() { OPENSSL_cleanse(m_bytes.data(), m_bytes.size()); }
    StoredKey(const StoredKey&) = delete;
    StoredKey& operator=(const StoredKey&) = delete;

    const KeyBytes& bytes() const { return m_bytes; }

private:
    KeyBytes m_bytes;
};

/// What a KeyReference holds. Scheme::None when it did not write this.
Protection readReference(const std::uint8_t* bytes, std::size_t size) {
    constexpr std::size_t idSize = sizeof(KeyBytes);
    Protection protection;
    if (bytes == nullptr || (size != idSize && size != idSize + 2))
        return protection;
    std::copy_n(bytes, idSize, protection.keyId.begin());
    if (size == idSize) {
        protection.scheme = Protection::Scheme::Cenc;
        return protection;
    }
    protection.scheme = Protection::Scheme::Cbcs;
    protection.cryptByteBlock = bytes[idSize];
    protection.skipByteBlock = bytes[idSize + 1];
    return protection;
}

class Decrypter final : public UVADRMDecrypter {
public:
    explicit Decrypter(std::unique_ptr<SampleCipher> cipher) : m_cipher(std::move(cipher)) {}

    int decrypt(const Input& input, const Output& output) override;
    int decryptSample(const UVADRMFullSampleDecrypter::Sample& sample);

private:
    /// Whether the ranges that follow belong to a sample whose vector is known.
    bool enterSample(const Input& input);

    const std::unique_ptr<SampleCipher> m_cipher;
    bool m_inSample = false;
};

// The vector comes with the first piece that has bytes, which need not be the one marked as first.
bool Decrypter::enterSample(const Input& input) {
    if (input.iv != nullptr)
        return m_cipher->begin(input.iv, input.ivSize);
    return m_inSample && !input.first;
}

int Decrypter::decrypt(const Input& input, const Output& output) {
    const bool lacksMemory = input.size > 0 && (input.data == nullptr || output.data == nullptr);
    const bool entered = enterSample(input);
    m_inSample = false;
    if (!entered || lacksMemory || output.size < input.size)
        return failed;
    if (input.size > 0) {
        if (input.data != output.data)
            std::memmove(output.data, input.data, input.size);
        if (!m_cipher->apply(output.data, input.size))
            return failed;
    }
    m_inSample = !input.last;
    return succeeded;
}

int Decrypter::decryptSample(const UVADRMFullSampleDecrypter::Sample& sample) {
    using Range = UVADRMFullSampleDecrypter::Subsample;
    const auto& ranges = sample.subsamples;
    const auto isInside = [&sample](const Range& range) {
        return range.offset <= sample.size && range.length <= sample.size - range.offset;
    };
    if (!std::all_of(ranges.begin(), ranges.end(), isInside))
        return failed;

    m_inSample = false;
    const auto isEmpty = [](const Range& range) { return range.length == 0; };
    if (std::all_of(ranges.begin(), ranges.end(), isEmpty))
        return succeeded;
    if (sample.data == nullptr || sample.iv == nullptr ||
        !m_cipher->begin(sample.iv, sample.ivSize))
        return failed;
    const auto decryptRange = [&](const Range& range) {
        return m_cipher->apply(sample.data + range.offset, range.length);
    };
    return std::all_of(ranges.begin(), ranges.end(), decryptRange) ? succeeded : failed;
}

bool parseHex(std::string_view text, KeyBytes& bytes) {
    const char* at = text.data();
    return text.size() == 2 * bytes.size() &&
           std::all_of(bytes.begin(), bytes.end(), [&at](std::uint8_t& byte) {
               const char* const digits = std::exchange(at, at + 2);
               return std::from_chars(digits, at, byte, 16).ptr == at;
           });
}

/// The digits of a UUID; any other text as it is.
std::string withoutDashes(std::string_view text) {
    constexpr std::size_t dashes[] = {23, 18, 13, 8};
    std::string digits(text);
    if (digits.size() != 36)
        return digits;
    for (const auto dash : dashes) {
        if (digits[dash] == '-')
            digits.erase(dash, 1);
    }
    return digits;
}

} // namespace

bool parseKey(const std::string& text, KeyPair& pair) {
    const auto colon = text.find(':');
    if (colon == std::string::npos)
        return false;
    const std::string_view whole(text);
    KeyPair parsed = {};
    const bool valid = parseHex(withoutDashes(whole.substr(0, colon)), parsed.id) &&
                       parseHex(whole.substr(colon + 1), parsed.key);
    if (valid)
        pair = parsed;
    OPENSSL_cleanse(parsed.key.data(), parsed.key.size());
    return valid;
}

std::string hexText(const KeyBytes& bytes) {
    std::string text;
    text.reserve(2 * bytes.size());
    for (const unsigned int byte : bytes) {
        text += hexDigits[byte >> 4U];
        text += hexDigits[byte & 0x0fU];
    }
    return text;
}

struct ClearKey::State final : UVADRMKeySlotGetter, UVADRMFullSampleDecrypter {
    explicit State(Interface interface) : offered(interface) {}

    int getKeySlot(UVADRMDecrypter* decrypter, std::uint32_t& slot) override {
        const locks::Lock lock(mutex);
        const auto found = find(decrypter);
        if (found == slots.end())
            return refused;
        slot = static_cast<std::uint32_t>(found - slots.begin()) + 1;
        return granted;
    }

    int decrypt(UVADRMDecrypter* decrypter, const Sample& sample) override {
        Decrypter* own = nullptr;
        {
            const locks::Lock lock(mutex);
            if (const auto found = find(decrypter); found != slots.end())
                own = found->get();
        }
        return own != nullptr ? own->decryptSample(sample) : failed;
    }

    using Slots = std::vector<std::unique_ptr<Decrypter>>;

    /// Null finds nothing, though slots that are free hold it.
    Slots::iterator find(const UVADRMDecrypter* decrypter) REQUIRES(mutex) {
        if (decrypter == nullptr)
            return slots.end();
        return std::find_if(slots.begin(), slots.end(),
                            [decrypter](const auto& own) { return own.get() == decrypter; });
    }

    Slots::iterator freeSlot() REQUIRES(mutex) {
        const auto found = std::find(slots.begin(), slots.end(), nullptr);
        return found != slots.end() ? found : slots.emplace(slots.end());
    }

    /// The session's own, or that of all; null when neither is there.
    const StoredKey* find(const KeyBytes& id, std::uint64_t session) const REQUIRES(mutex) {
        for (const auto owner : {session, sharedSession})
            if (const auto found = keys.find({owner, id}); found != keys.end())
                return &found->second;
        return nullptr;
    }

    const Interface offered;
    locks::Mutex mutex; // nothing but OpenSSL is called under it
    std::map<std::pair<std::uint64_t, KeyBytes>, StoredKey> keys GUARDED_BY(mutex); // by session
    Slots slots GUARDED_BY(mutex); // slot numbers are places in here, from 1
    unsigned int created GUARDED_BY(mutex) = 0;
    unsigned int released GUARDED_BY(mutex) = 0;
};

ClearKey::ClearKey(Interface interface) : m_state(std::make_unique<State>(interface)) {}

ClearKey::~ClearKey() = default;

void ClearKey::addKey(const KeyPair& pair, std::uint64_t session) {
    const locks::Lock lock(m_state->mutex);
    m_state->keys.erase({session, pair.id});
    m_state->keys.emplace(std::pair(session, pair.id), pair.key);
}

void ClearKey::removeKey(const KeyBytes& id, std::uint64_t session) {
    const locks::Lock lock(m_state->mutex);
    m_state->keys.erase({session, id});
}

void ClearKey::removeKeys(std::uint64_t session) {
    const locks::Lock lock(m_state->mutex);
    auto& keys = m_state->keys;
    auto key = keys.lower_bound({session, KeyBytes{}});
    while (key != keys.end() && key->first.first == session)
        key = keys.erase(key);
}

bool ClearKey::hasKey(const KeyBytes& id, std::uint64_t session) const {
    const locks::Lock lock(m_state->mutex);
    return m_state->find(id, session) != nullptr;
}

int ClearKey::createDecrypter(UVADRMDecrypter*& decrypter, const std::uint8_t* keyId,
                              std::size_t keyIdSize, std::uint64_t session) {
    const auto protection = readReference(keyId, keyIdSize);
    if (protection.scheme == Protection::Scheme::None)
        return refused;
    const locks::Lock lock(m_state->mutex);
    const auto* key = m_state->find(protection.keyId, session);
    if (key == nullptr)
        return refused;
    auto cipher = SampleCipher::make(protection, key->bytes(), SampleCipher::Direction::Decrypt);
    if (cipher == nullptr)
        return refused;
    const auto slot = m_state->freeSlot();
    *slot = std::make_unique<Decrypter>(std::move(cipher));
    decrypter = slot->get();
    ++m_state->created;
    return granted;
}

void ClearKey::releaseDecrypter(UVADRMDecrypter* decrypter) {
    const locks::Lock lock(m_state->mutex);
    const auto found = m_state->find(decrypter);
    if (found == m_state->slots.end())
        return;
    found->reset();
    ++m_state->released;
}

void* ClearKey::getInterface(const char* name) {
    if (name == nullptr)
        return nullptr;
    const std::string_view wanted(name);
    if (wanted == UVADRMKeySlotGetter::interfaceName)
        return static_cast<UVADRMKeySlotGetter*>(m_state.get());
    if (wanted == UVADRMFullSampleDecrypter::interfaceName &&
        m_state->offered == Interface::FullSample)
        return static_cast<UVADRMFullSampleDecrypter*>(m_state.get());
    return nullptr;
}

unsigned int ClearKey::created() const {
    const locks::Lock lock(m_state->mutex);
    return m_state->created;
}

unsigned int ClearKey::released() const {
    const locks::Lock lock(m_state->mutex);
    return m_state->released;
}

} // namespace host
