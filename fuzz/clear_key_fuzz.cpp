// Any subsample map and initialisation vector over a sample of any size: nothing is touched outside
// the ranges, what leaves the sample is refused before anything is decrypted, and both interfaces
// come to the same bytes. Input: pattern counts, size of the vector, number of ranges, offset and
// length of each as 32-bit words, then the sample.

#include "host/clear_key.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

using Ranges = std::vector<UVADRMFullSampleDecrypter::Subsample>;

/// Of exactly this size, so that the first byte behind it is noticed.
struct Memory {
    Memory(const uint8_t* from, size_t count) : bytes(new uint8_t[count]), size(count) {
        std::copy_n(from, count, bytes.get());
    }
    bool operator==(const Memory& other) const {
        return std::equal(bytes.get(), bytes.get() + size, other.bytes.get());
    }
    const std::unique_ptr<uint8_t[]> bytes;
    const size_t size;
};

void require(bool holds) {
    if (!holds)
        abort();
}

bool isInside(const Ranges& ranges, size_t size) {
    return std::all_of(ranges.begin(), ranges.end(), [size](const auto& range) {
        return uint64_t{range.offset} + range.length <= size;
    });
}

bool decryptRanges(UVADRMDecrypter* decrypter, const Memory& iv, const Memory& sample,
                   const Ranges& ranges) {
    const uint8_t* vector = iv.bytes.get();
    for (const auto& range : ranges) {
        if (range.length == 0)
            continue;
        auto* const begin = sample.bytes.get() + range.offset;
        if (decrypter->decrypt({vector, iv.size, begin, range.length, vector != nullptr},
                               {begin, range.length}) != 0)
            return false;
        vector = nullptr;
    }
    return true;
}

/// What no range covers is as it was.
bool keepsClearBytes(const Memory& before, const Memory& after, const Ranges& ranges) {
    std::vector<bool> covered(before.size);
    for (const auto& range : ranges)
        std::fill_n(covered.begin() + range.offset, range.length, true);
    for (size_t i = 0; i < before.size; ++i) {
        if (!covered[i] && before.bytes[i] != after.bytes[i])
            return false;
    }
    return true;
}

void decryptBothWays(const std::vector<uint8_t>& keyId, const Memory& iv, const Memory& encrypted,
                     const Ranges& ranges) {
    host::ClearKey keys(host::ClearKey::Interface::FullSample);
    keys.addKey({});
    UVADRMDecrypter* decrypter = nullptr;
    if (keys.createDecrypter(decrypter, keyId.data(), keyId.size(), 0) != 1)
        return;
    auto* const whole = static_cast<UVADRMFullSampleDecrypter*>(
        keys.getInterface(UVADRMFullSampleDecrypter::interfaceName));

    const Memory atOnce(encrypted.bytes.get(), encrypted.size);
    const bool decrypted = whole->decrypt(decrypter, {atOnce.bytes.get(), atOnce.size,
                                                      iv.bytes.get(), iv.size, ranges}) == 0;
    if (!isInside(ranges, encrypted.size)) {
        require(!decrypted && atOnce == encrypted);
        return;
    }
    require(keepsClearBytes(encrypted, atOnce, ranges));
    const Memory piecemeal(encrypted.bytes.get(), encrypted.size);
    require(decryptRanges(decrypter, iv, piecemeal, ranges) == decrypted);
    require(piecemeal == atOnce);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr size_t headSize = 4;
    constexpr size_t rangeSize = 8;
    if (size < headSize)
        return 0;
    std::vector<uint8_t> keyId(16);
    const std::vector<uint8_t> pattern(data, data + 2);
    const Memory iv(std::vector<uint8_t>(data[2], 0xff).data(), data[2]);
    Ranges ranges(std::min<size_t>(data[3], (size - headSize) / rangeSize));
    data += headSize;
    size -= headSize;
    for (auto& range : ranges) {
        std::memcpy(&range.offset, data, sizeof range.offset);
        std::memcpy(&range.length, data + sizeof range.offset, sizeof range.length);
        data += rangeSize;
        size -= rangeSize;
    }
    const Memory sample(data, size);
    decryptBothWays(keyId, iv, sample, ranges);
    keyId.insert(keyId.end(), pattern.begin(), pattern.end());
    decryptBothWays(keyId, iv, sample, ranges);
    return 0;
}
