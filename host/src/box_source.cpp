#include "box_source.h"

#include <array>
#include <limits>

namespace host {

std::optional<OuterBox> BoxSource::next() {
    constexpr std::size_t shortest = 8;
    constexpr auto toTheEnd = std::numeric_limits<std::uint64_t>::max();
    std::array<std::uint8_t, 16> bytes = {};
    const auto there = m_bytes.read(m_at, bytes.data(), bytes.size());
    if (there < shortest)
        return std::nullopt;
    BoxReader reader(bytes.data(), bytes.size(), 0, m_at, 0);
    OuterBox box;
    std::uint64_t size = reader.u32();
    box.type = reader.u32();
    box.position = m_at;
    if (size == 1)
        size = reader.u64();
    else if (size == 0)
        size = toTheEnd - m_at;
    box.headerSize = bytes.size() - reader.left();
    if (there < box.headerSize || size < box.headerSize || size > toTheEnd - m_at)
        return std::nullopt;
    box.end = m_at + size;
    m_at = box.end;
    return box;
}

std::vector<std::uint8_t> BoxSource::bodyOf(const OuterBox& box) {
    const auto size = box.size() - box.headerSize;
    if (size > largestPart)
        box.fail("is too large");
    std::vector<std::uint8_t> body(static_cast<std::size_t>(size));
    if (m_bytes.read(box.position + box.headerSize, body.data(), body.size()) != body.size())
        box.fail("is not there as a whole");
    return body;
}

} // namespace host
