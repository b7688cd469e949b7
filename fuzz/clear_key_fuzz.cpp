// Any subsample map and initialisation vector over a sample of any size: nothing is touched outside
// the ranges, what leaves the sample is refused before anything is decrypted, and both interfaces
// come to the same bytes. Input: pattern counts, size of the vector, number of ranges, offset and
// length of each as 32-bit words, then the sample.

#include "fuzz_target.h"
#include "host/clear_key.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace {

using Ranges = std::vector<UVADRMFullSampleDecrypter::Subsample>;
using Bytes = std::vector<uint8_t>; ///< of exactly the size: the first byte behind is noticed

bool isInside(const Ranges& ranges, size_t size) {
    return std::all_of(ranges.begin(), ranges.end(), [size](const auto& range) {
        return uint64_t{range.offset} + range.length <= size;
    });
}

bool decryptRanges(UVADRMDecrypter* decrypter, const Bytes& iv, Bytes& sample,
                   const Ranges& ranges) {
    bool first = true;
    for (const auto& range : ranges) {
        if (range.length == 0)
            continue;
        auto* const begin = sample.data() + range.offset;
        if (decrypter->decrypt({first ? iv.data() : nullptr, iv.size(), begin, range.length, first},
                               {begin, range.length}) != 0)
            return false;
        first = false;
    }
    return true;
}

/// What no range covers is as it was.
bool keepsClearBytes(const Bytes& before, Bytes after, const Ranges& ranges) {
    for (const auto& range : ranges)
        std::copy_n(before.begin() + range.offset, range.length, after.begin() + range.offset);
    return after == before;
}

void decryptBothWays(const Bytes& keyId, const Bytes& iv, const Bytes& encrypted,
                     const Ranges& ranges) {
    host::ClearKey keys(host::ClearKey::Interface::FullSample);
    keys.addKey({});
    UVADRMDecrypter* decrypter = nullptr;
    if (keys.createDecrypter(decrypter, keyId.data(), keyId.size(), 0) != 1)
        return;
    auto* const whole = static_cast<UVADRMFullSampleDecrypter*>(
        keys.getInterface(UVADRMFullSampleDecrypter::interfaceName));

    Bytes atOnce = encrypted;
    const bool decrypted = whole->decrypt(decrypter, {atOnce.data(), atOnce.size(), iv.data(),
                                                      iv.size(), ranges}) == 0;
    if (!isInside(ranges, encrypted.size())) {
        require(!decrypted && atOnce == encrypted);
        return;
    }
    require(keepsClearBytes(encrypted, atOnce, ranges));
    Bytes piecemeal = encrypted;
    require(decryptRanges(decrypter, iv, piecemeal, ranges) == decrypted);
    require(piecemeal == atOnce);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr size_t headSize = 4;
    constexpr size_t rangeSize = 8;
    if (size < headSize)
        return 0;
    Bytes keyId(16);
    const Bytes pattern(data, data + 2), iv(data[2], 0xff);
    Ranges ranges(std::min<size_t>(data[3], (size - headSize) / rangeSize));
    data += headSize;
    size -= headSize;
    for (auto& range : ranges) {
        std::memcpy(&range.offset, data, sizeof range.offset);
        std::memcpy(&range.length, data + sizeof range.offset, sizeof range.length);
        data += rangeSize;
        size -= rangeSize;
    }
    const Bytes sample(data, data + size);
    decryptBothWays(keyId, iv, sample, ranges);
    keyId.insert(keyId.end(), pattern.begin(), pattern.end());
    decryptBothWays(keyId, iv, sample, ranges);
    return 0;
}
