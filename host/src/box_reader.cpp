#include "box_reader.h"

#include <algorithm>

namespace host {

std::string lettersOf(std::uint32_t type) {
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8)
        text += static_cast<char>(type >> shift & 0xff);
    const bool printable =
        std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
    return printable ? "'" + text + "'" : "type " + std::to_string(type);
}

void failBox(std::uint32_t type, std::uint64_t position, const std::string& what) {
    throw StreamFault{"the box " + lettersOf(type) + " at byte " + std::to_string(position) + " " +
                      what};
}

const std::uint8_t* BoxReader::take(std::size_t bytes) {
    if (bytes > m_left)
        fail("is too short for what it should hold");
    const auto* taken = m_at;
    m_at += bytes;
    m_left -= bytes;
    m_place += bytes;
    return taken;
}

std::uint64_t BoxReader::number(std::size_t bytes) {
    const auto* at = take(bytes);
    std::uint64_t value = 0;
    for (; bytes > 0; --bytes)
        value = value << 8 | *at++;
    return value;
}

BoxReader::VersionAndFlags BoxReader::versionAndFlags() {
    const auto value = u32();
    return {value >> 24, value & 0xffffff};
}

std::string BoxReader::text() {
    const auto* end = std::find(m_at, m_at + m_left, 0);
    std::string text(m_at, end);
    skip(std::min(text.size() + 1, m_left));
    return text;
}

std::optional<BoxReader> BoxReader::next() {
    if (m_left == 0)
        return std::nullopt;
    const auto whole = m_left;
    const auto position = m_place;
    std::uint64_t size = u32();
    const auto type = u32();
    if (size == 1)
        size = u64();
    else if (size == 0)
        size = whole;
    const std::size_t header = whole - m_left;
    if (size < header || size > whole)
        failBox(type, position, "does not fit into " + lettersOf(m_type));
    const auto bodySize = static_cast<std::size_t>(size) - header;
    return BoxReader(take(bodySize), bodySize, type, position, header);
}

std::optional<BoxReader> BoxReader::find(std::uint32_t type) const {
    BoxReader rest = *this;
    while (const auto box = rest.next())
        if (box->type() == type)
            return box;
    return std::nullopt;
}

BoxReader BoxReader::need(std::uint32_t type) const {
    const auto box = find(type);
    if (!box)
        fail("has no " + lettersOf(type));
    return *box;
}

} // namespace host
