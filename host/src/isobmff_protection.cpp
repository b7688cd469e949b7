#include "isobmff_protection.h"

#include "sample_cipher.h"

#include <algorithm>
#include <string>
#include <utility>

namespace host {

namespace {

/// What 'tenc' and 'seig' have in common.
SampleEncryption readEncryption(BoxReader& box) {
    SampleEncryption encryption;
    box.skip(1);
    const unsigned int pattern = box.u8();
    encryption.cryptByteBlock = pattern >> 4;
    encryption.skipByteBlock = pattern & 15;
    encryption.encrypted = box.u8() == 1;
    encryption.ivSize = box.u8();
    std::copy_n(box.take(sizeof(KeyBytes)), sizeof(KeyBytes), encryption.keyId.begin());
    if (!encryption.encrypted) {
        encryption.ivSize = 0;
        return encryption;
    }
    if (encryption.ivSize == 0) {
        const std::size_t size = box.u8();
        const auto* iv = box.take(size);
        if (size != SampleCipher::blockSize / 2 && size != SampleCipher::blockSize)
            box.fail("has a constant vector of " + std::to_string(size) + " bytes, not 8 or 16");
        std::copy_n(iv, size, encryption.constantIv.emplace().begin());
    } else if (encryption.ivSize != SampleCipher::blockSize / 2 &&
               encryption.ivSize != SampleCipher::blockSize) {
        box.fail("tells of vectors of " + std::to_string(encryption.ivSize) +
                 " bytes, not 8 or 16");
    }
    return encryption;
}

Protection::Scheme readScheme(BoxReader schm) {
    schm.skip(4);
    switch (const auto scheme = schm.u32()) {
    case fourLetters("cenc"):
        return Protection::Scheme::Cenc;
    case fourLetters("cbcs"):
        return Protection::Scheme::Cbcs;
    default:
        schm.fail("names the protection scheme " + lettersOf(scheme) +
                  ", which is not supported; only 'cenc' and 'cbcs' are");
    }
}

/// The body of the box of this type that is for the group 'seig', behind the name of the group.
std::optional<std::pair<unsigned int, BoxReader>> findGroupBox(const BoxReader& container,
                                                               std::uint32_t type) {
    std::optional<std::pair<unsigned int, BoxReader>> found;
    container.forEach(type, [&](BoxReader box) {
        const auto version = box.versionAndFlags().version;
        if (box.u32() == fourLetters("seig") && !found)
            found.emplace(version, box);
    });
    return found;
}

} // namespace

void takeEncryption(const SampleEncryption& encryption, Protection& protection) {
    protection.scheme = encryption.scheme;
    protection.keyId = encryption.keyId;
    if (encryption.constantIv)
        protection.iv = *encryption.constantIv;
    protection.cryptByteBlock = encryption.cryptByteBlock;
    protection.skipByteBlock = encryption.skipByteBlock;
}

void prependClear(std::size_t bytes, std::size_t size, Protection& protection) {
    if (protection.scheme == Protection::Scheme::None)
        return;
    if (protection.subsamples.empty())
        protection.subsamples.push_back({0, static_cast<std::uint32_t>(size)});
    protection.subsamples.front().clearBytes += static_cast<std::uint32_t>(bytes);
}

bool covers(const std::vector<UVASample::Subsample>& subsamples, std::size_t size) {
    std::uint64_t sum = 0;
    for (const auto& part : subsamples)
        sum += std::uint64_t{part.clearBytes} + part.encryptedBytes;
    return subsamples.empty() || sum == size;
}

SampleEncryption readProtectionScheme(const BoxReader& sinf) {
    const auto scheme = readScheme(sinf.need(fourLetters("schm")));
    auto tenc = sinf.need(fourLetters("schi")).need(fourLetters("tenc"));
    tenc.skip(4);
    auto encryption = readEncryption(tenc);
    encryption.scheme = scheme;
    return encryption;
}

EncryptionGroups readEncryptionGroups(const BoxReader& container) {
    EncryptionGroups groups;
    auto found = findGroupBox(container, fourLetters("sgpd"));
    if (!found)
        return groups;
    auto& [version, sgpd] = *found;
    const std::uint32_t length = version >= 1 ? sgpd.u32() : 0;
    if (version >= 2)
        groups.defaultIndex = sgpd.u32();
    for (auto count = sgpd.u32(); count > 0; --count) {
        const std::uint32_t size = version == 0 ? 0 : length == 0 ? sgpd.u32() : length;
        auto description = sgpd;
        groups.descriptions.push_back(readEncryption(description));
        sgpd.skip(version == 0 ? sgpd.left() - description.left() : size);
    }
    return groups;
}

std::vector<InitData> readInitData(const BoxReader& container) {
    std::vector<InitData> items;
    bool isAdjacent = false;
    BoxReader rest = container;
    for (const auto* begin = rest.data(); const auto box = rest.next(); begin = rest.data()) {
        const bool isPssh = box->type() == fourLetters("pssh");
        if (isPssh && !isAdjacent)
            items.push_back({"cenc", {}});
        if (isPssh)
            items.back().data.insert(items.back().data.end(), begin, rest.data());
        isAdjacent = isPssh;
    }
    return items;
}

bool isOfEncryption(BoxReader& box, std::uint32_t flags) {
    if ((flags & 1) == 0)
        return true;
    const auto type = box.u32();
    box.skip(4);
    return type == fourLetters("cenc") || type == fourLetters("cbcs");
}

GroupCursor::GroupCursor(const BoxReader& traf) {
    auto found = findGroupBox(traf, fourLetters("sbgp"));
    if (!found)
        return;
    auto& [version, sbgp] = *found;
    sbgp.skip(version >= 1 ? 4 : 0); // a parameter of the grouping
    const std::uint64_t size = std::uint64_t{sbgp.u32()} * 8;
    if (size > sbgp.left())
        sbgp.fail("is too short for its entries");
    m_runs =
        BoxReader(sbgp.data(), static_cast<std::size_t>(size), sbgp.type(), sbgp.position(), 0);
}

std::uint32_t GroupCursor::next() {
    while (m_left == 0) {
        if (!m_runs || m_runs->left() == 0)
            return 0;
        m_left = m_runs->u32();
        m_index = m_runs->u32();
    }
    --m_left;
    return m_index;
}

VectorCursor::VectorCursor(const BoxReader& traf) : m_position(traf.position()) {
    if (auto senc = traf.find(fourLetters("senc"))) {
        m_hasSubsamples = (senc->versionAndFlags().flags & 2) != 0;
        m_left = senc->u32();
        m_bytes = senc;
        m_kind = Kind::Senc;
        return;
    }
    traf.forEach(fourLetters("saiz"), [this](BoxReader saiz) {
        if (!isOfEncryption(saiz, saiz.versionAndFlags().flags) || m_kind == Kind::Sized)
            return;
        m_size = saiz.u8();
        m_left = saiz.u32();
        if (m_size == 0 && m_left > saiz.left())
            saiz.fail("is too short for the sizes of its samples");
        if (m_size == 0)
            m_sizes = saiz;
        m_kind = Kind::Sized;
    });
}

std::size_t VectorCursor::skipSize() {
    if (m_left == 0)
        return 0;
    --m_left;
    return m_sizes ? m_sizes->u8() : m_size;
}

/// Tells it, or only passes it.
void VectorCursor::readOne(BoxReader& bytes, bool hasSubsamples, unsigned int ivSize,
                           Protection* protection) {
    const auto* iv = bytes.take(ivSize);
    const std::size_t count = hasSubsamples ? bytes.u16() : 0;
    constexpr std::size_t subsampleSize = 6;
    if (protection == nullptr)
        return bytes.skip(count * subsampleSize);
    std::copy_n(iv, ivSize, protection->iv.begin());
    protection->subsamples.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        const std::uint32_t clear = bytes.u16();
        protection->subsamples.push_back({clear, bytes.u32()});
    }
}

void VectorCursor::skip(const SampleEncryption& encryption) {
    if (m_kind != Kind::Senc || m_left == 0)
        return;
    --m_left;
    readOne(*m_bytes, m_hasSubsamples, encryption.ivSize, nullptr);
}

Protection VectorCursor::read(const SampleEncryption& encryption) {
    const auto ivSize = encryption.ivSize;
    Protection protection;
    auto* const to = encryption.encrypted ? &protection : nullptr;
    const bool isSenc = m_kind == Kind::Senc && m_left > 0;
    const auto size = isElsewhere() ? skipSize() : 0;
    if (isSenc) {
        --m_left;
        readOne(*m_bytes, m_hasSubsamples, ivSize, to);
    } else if (size > 0) {
        BoxReader one(m_bytes->take(size), size, m_bytes->type(), m_bytes->position(), 0);
        if (to != nullptr)
            readOne(one, size > ivSize, ivSize, to);
    }
    if (to == nullptr)
        return protection;
    if (ivSize > 0 && !isSenc && size == 0)
        failBox(fourLetters("traf"), m_position,
                "has encrypted samples without initialization vectors ('senc', 'saiz')");
    takeEncryption(encryption, protection);
    return protection;
}

} // namespace host
