#include "webm_block.h"

namespace host {

namespace {

/// In bytes of up to 255, the last of which is less.
std::uint64_t xiphSize(EbmlReader& reader) {
    std::uint64_t size = 0;
    std::uint8_t part = 0;
    do {
        part = reader.u8();
        size += part;
    } while (part == 255);
    return size;
}

/// The first one as it is, each other as the difference to the one before.
std::uint64_t ebmlSize(EbmlReader& reader, const std::vector<std::size_t>& before) {
    if (before.empty())
        return reader.vint();
    const auto size = static_cast<std::int64_t>(before.back()) + reader.signedVint();
    if (size < 0)
        reader.fail("(a block) has a frame of a negative size");
    return static_cast<std::uint64_t>(size);
}

} // namespace

WebmBlock::WebmBlock(const EbmlReader& body) : m_rest(body) {
    m_track = m_rest.vint();
    const unsigned int high = m_rest.u8();
    m_time = static_cast<std::int16_t>(high << 8 | m_rest.u8());
    m_flags = m_rest.u8();
}

std::vector<std::size_t> WebmBlock::takeSizes(EbmlReader& rest) const {
    enum Lacing { None, Xiph, Equal, Ebml };
    const auto lacing = static_cast<Lacing>(m_flags >> 1 & 3);
    const std::size_t count = lacing == None ? 1 : std::size_t{rest.u8()} + 1;
    std::vector<std::size_t> sizes;
    if (lacing == Equal && rest.left() % count != 0)
        rest.fail("(a block) cannot be cut into frames of one size");
    const auto equal = rest.left() / count;
    while (sizes.size() + 1 < count) {
        const auto size = lacing == Xiph    ? xiphSize(rest)
                          : lacing == Equal ? equal
                                            : ebmlSize(rest, sizes);
        if (size > m_rest.left())
            rest.fail("(a block) has frames that go beyond it");
        sizes.push_back(static_cast<std::size_t>(size));
    }
    return sizes;
}

} // namespace host
