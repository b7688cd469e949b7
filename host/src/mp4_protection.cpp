#include "mp4_protection.h"

#include "isobmff_movie.h"

#include <algorithm>
#include <optional>
#include <tuple>
#include <utility>

namespace host {

namespace {

constexpr std::uint32_t mostSamples = 1 << 20; ///< more than real files have

bool isSame(const SampleEncryption& left, const SampleEncryption& right) {
    if (!left.encrypted || !right.encrypted)
        return left.encrypted == right.encrypted;
    const auto parts = [](const SampleEncryption& value) {
        return std::tie(value.scheme, value.ivSize, value.cryptByteBlock, value.skipByteBlock,
                        value.keyId, value.constantIv);
    };
    return parts(left) == parts(right);
}

/// Of the only sample description; nothing when there are more, or none is encrypted.
std::optional<SampleEncryption> readOnlyEntry(BoxReader stsd) {
    stsd.skip(8);
    const auto entry = stsd.next();
    return entry && stsd.left() == 0 ? readEntryEncryption(*entry) : std::nullopt;
}

/// One for all samples. Throws a StreamFault when there is none.
SampleEncryption readCommon(const BoxReader& stbl, const SampleEncryption& told,
                            std::uint32_t samples) {
    const auto groups = readEncryptionGroups(stbl);
    GroupCursor cursor(stbl);
    std::optional<SampleEncryption> common;
    std::optional<std::uint32_t> latest;
    for (; samples > 0; --samples) {
        auto group = cursor.next();
        if (group == 0)
            group = groups.defaultIndex;
        if (group == latest)
            continue;
        latest = group;
        if (group > groups.descriptions.size())
            throw StreamFault{
                "the sample group 'seig' of encrypted samples is not described ('sgpd')"};
        auto wanted = group == 0 ? told : groups.descriptions[group - 1];
        wanted.scheme = told.scheme;
        if (common && !isSame(*common, wanted))
            throw StreamFault{"samples are in several sample groups 'seig', with different keys or "
                              "partly clear; package the file anew in fragments"};
        common = std::move(wanted);
    }
    return common.value_or(told);
}

void checkVectors(const SampleEncryption& wanted, const SampleEncryption& told, bool haveVectors) {
    if (!wanted.encrypted)
        return;
    if (haveVectors && wanted.ivSize != told.ivSize)
        throw StreamFault{"the sample group 'seig' has vectors of another size than 'tenc'"};
    if (!haveVectors && (!wanted.constantIv || wanted.scheme != Protection::Scheme::Cbcs))
        throw StreamFault{"encrypted samples have no initialization vectors"};
}

void readTrack(const BoxReader& trak, std::map<std::uint32_t, TrackProtection>& tracks) {
    auto tkhd = trak.need(fourLetters("tkhd"));
    tkhd.skip(tkhd.versionAndFlags().version == 1 ? 16 : 8);
    const auto id = tkhd.u32();
    const auto stbl =
        trak.need(fourLetters("mdia")).need(fourLetters("minf")).need(fourLetters("stbl"));
    TrackProtection protection;
    try {
        auto stsz = stbl.need(fourLetters("stsz"));
        stsz.skip(8);
        const auto samples = std::min(stsz.u32(), mostSamples);
        const auto told = readOnlyEntry(stbl.need(fourLetters("stsd")));
        if (!told || samples == 0)
            return;
        const bool haveVectors = stbl.find(fourLetters("saiz")) || stbl.find(fourLetters("senc")) ||
                                 trak.find(fourLetters("senc"));
        protection.encryption = readCommon(stbl, *told, samples);
        checkVectors(protection.encryption, *told, haveVectors);
        const bool isKnown = protection.encryption.encrypted
                                 ? haveVectors && isSame(protection.encryption, *told)
                                 : !told->encrypted;
        if (isKnown)
            return;
    } catch (const StreamFault& fault) {
        protection.fault = fault.text;
    }
    tracks[id] = std::move(protection);
}

} // namespace

std::map<std::uint32_t, TrackProtection> readMp4Protection(const BoxReader& moov) {
    std::map<std::uint32_t, TrackProtection> tracks;
    try {
        moov.forEach(fourLetters("trak"), [&](const BoxReader& trak) { readTrack(trak, tracks); });
    } catch (const StreamFault&) {
        // libavformat comes upon it too.
    }
    return tracks;
}

} // namespace host
