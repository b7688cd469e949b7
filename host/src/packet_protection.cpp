#include "packet_protection.h"

extern "C" {
#include <libavutil/encryption_info.h>
#include <libavutil/intreadwrite.h>
}

#include <algorithm>
#include <memory>
#include <utility>

namespace host {

namespace {

struct FreeInfo {
    void operator()(AVEncryptionInfo* info) const { av_encryption_info_free(info); }
};

Protection::Scheme schemeOf(std::uint32_t scheme) {
    switch (scheme) {
    case MKBETAG('c', 'e', 'n', 'c'):
        return Protection::Scheme::Cenc;
    case MKBETAG('c', 'b', 'c', 's'):
        return Protection::Scheme::Cbcs;
    default:
        return Protection::Scheme::None;
    }
}

/// Of the four letters; of what no letters are, nothing.
std::string schemeName(std::uint32_t scheme) {
    std::string name;
    for (int shift = 24; shift >= 0; shift -= 8) {
        const auto letter = static_cast<char>(scheme >> shift & 0xff);
        if (letter > ' ' && letter <= '~')
            name += letter;
    }
    return name;
}

} // namespace

std::string takeMp4Protection(const AVPacket& packet, const TrackProtection* track,
                              Protection& protection) {
    if (track != nullptr && !track->fault.empty())
        return track->fault;
    if (track != nullptr && !track->encryption.encrypted)
        return {};
    std::size_t size = 0;
    const auto* bytes = av_packet_get_side_data(&packet, AV_PKT_DATA_ENCRYPTION_INFO, &size);
    if (bytes == nullptr) { // whole samples, with the track's own vector
        if (track != nullptr)
            takeEncryption(track->encryption, protection);
        return {};
    }
    const std::unique_ptr<AVEncryptionInfo, FreeInfo> info(
        av_encryption_info_get_side_data(bytes, size));
    if (info == nullptr)
        return "what a sample says of its encryption is damaged";
    SampleEncryption told;
    told.scheme = schemeOf(info->scheme);
    told.cryptByteBlock = info->crypt_byte_block;
    told.skipByteBlock = info->skip_byte_block;
    if (told.scheme == Protection::Scheme::None)
        return "the protection scheme \"" + schemeName(info->scheme) +
               "\" is not supported, only cenc and cbcs are";
    if (info->key_id_size != told.keyId.size() || info->iv_size != protection.iv.size())
        return "the key id or the initialization vector of a sample has not 16 bytes";
    std::copy_n(info->key_id, info->key_id_size, told.keyId.begin());
    std::copy_n(info->iv, info->iv_size, protection.iv.begin());
    takeEncryption(track == nullptr ? told : track->encryption, protection);
    protection.subsamples.reserve(info->subsample_count);
    for (std::uint32_t i = 0; i < info->subsample_count; ++i) {
        const auto& part = info->subsamples[i];
        protection.subsamples.push_back({part.bytes_of_clear_data, part.bytes_of_protected_data});
    }
    if (!covers(protection.subsamples, static_cast<std::size_t>(packet.size)))
        return "the encrypted ranges of a sample do not make up the sample";
    return {};
}

std::string takeWebmProtection(const std::string& keyId, const std::uint8_t*& bytes,
                               std::size_t& size, Protection& protection) {
    constexpr std::uint8_t encrypted = 1;
    constexpr std::uint8_t partitioned = 2;
    constexpr std::size_t ivSize = 8;
    constexpr const char* damaged = "the start of an encrypted frame is damaged";
    const auto take = [&](std::size_t count) -> const std::uint8_t* {
        if (size < count)
            return nullptr;
        size -= count;
        return std::exchange(bytes, bytes + count);
    };

    const auto* signal = take(1);
    if (signal == nullptr)
        return damaged;
    if ((*signal & encrypted) == 0)
        return {};
    const auto* iv = take(ivSize);
    if (iv == nullptr || keyId.size() != protection.keyId.size())
        return iv == nullptr ? damaged : "the key id of the track has not 16 bytes";
    protection.scheme = Protection::Scheme::Cenc;
    std::copy(keyId.begin(), keyId.end(), protection.keyId.begin());
    std::copy_n(iv, ivSize, protection.iv.begin());
    if ((*signal & partitioned) == 0)
        return {};

    // The offsets at which clear parts and encrypted ones change, beginning with a clear one.
    const auto* count = take(1);
    const auto* offsets = count == nullptr ? nullptr : take(std::size_t{*count} * 4);
    if (offsets == nullptr)
        return damaged;
    protection.subsamples.reserve(*count / 2U + 1);
    std::uint32_t at = 0;
    for (int i = 0; i <= *count; ++i) {
        const auto next = i < *count ? AV_RB32(offsets + i * 4) : static_cast<std::uint32_t>(size);
        if (next < at || next > size)
            return damaged;
        if (i % 2 == 0)
            protection.subsamples.push_back({next - at, 0});
        else
            protection.subsamples.back().encryptedBytes = next - at;
        at = next;
    }
    return {};
}

} // namespace host
