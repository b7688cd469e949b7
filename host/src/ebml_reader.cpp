#include "ebml_reader.h"

#include "box_reader.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

namespace host {

namespace {

constexpr unsigned int longestId = 4, longestVint = 8;

std::uint64_t bigEndian(const std::uint8_t* bytes, std::size_t size) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < size; ++i)
        value = value << 8 | bytes[i];
    return value;
}

/// Bytes, as the first one tells: one more than the zeros it begins with.
unsigned int lengthOf(std::uint8_t first) {
    unsigned int length = 1;
    for (unsigned int bit = 0x80; bit != 0 && (first & bit) == 0; bit >>= 1)
        ++length;
    return length;
}

/// Of a vint, without the marker of its length.
std::uint64_t valueBits(unsigned int length) {
    return (std::uint64_t{1} << 7 * length) - 1;
}

std::optional<EbmlElement> readHeader(const std::uint8_t* bytes, std::size_t size,
                                      std::uint64_t at) {
    if (size == 0)
        return std::nullopt;
    const auto idLength = lengthOf(bytes[0]);
    if (idLength > longestId)
        throw StreamFault{"the bytes from " + std::to_string(at) + " on begin no element"};
    if (size <= idLength)
        return std::nullopt;
    EbmlElement element;
    element.id = static_cast<std::uint32_t>(bigEndian(bytes, idLength));
    element.position = at;
    const auto sizeLength = lengthOf(bytes[idLength]);
    if (sizeLength > longestVint)
        element.fail("has an impossible size");
    element.headerSize = idLength + sizeLength;
    if (size < element.headerSize)
        return std::nullopt;
    const auto bits = valueBits(sizeLength);
    const auto body = bigEndian(bytes + idLength, sizeLength) & bits;
    if (body == bits)
        return element;
    if (body >= EbmlElement::unsized - at - element.headerSize)
        element.fail("has an impossible size");
    element.end = at + element.headerSize + body;
    return element;
}

// Where a field's value goes.
struct Store {
    const EbmlReader& from;

    void operator()(std::uint64_t* to) const { *to = from.number(); }
    void operator()(double* to) const { *to = from.real(); }
    void operator()(std::string* to) const { *to = from.text(); }
    void operator()(std::vector<std::uint8_t>* to) const {
        auto rest = from;
        const auto size = rest.left();
        const auto* bytes = rest.take(size);
        to->assign(bytes, bytes + size);
    }
    void operator()(std::optional<EbmlReader>* to) const { to->emplace(from); }
};

} // namespace

std::optional<EbmlElement> EbmlElement::child(const std::uint8_t* bytes, std::size_t size,
                                              std::uint64_t at) const {
    const auto room = end - at;
    const auto found =
        readHeader(bytes, static_cast<std::size_t>(std::min<std::uint64_t>(size, room)), at);
    if (found ? found->end > end : size >= room)
        fail("holds more than its size says, at byte " + std::to_string(at));
    return found;
}

void EbmlElement::fail(const std::string& what) const {
    std::array<char, 64> text = {};
    std::snprintf(text.data(), text.size(), "the element 0x%X at byte %llu ",
                  static_cast<unsigned int>(id), static_cast<unsigned long long>(position));
    throw StreamFault{text.data() + what};
}

const std::uint8_t* EbmlReader::take(std::size_t bytes) {
    if (bytes > m_left)
        fail("is too short for what it holds");
    const auto* taken = m_at;
    m_at += bytes;
    m_left -= bytes;
    return taken;
}

EbmlReader::Vint EbmlReader::takeVint() {
    const auto length = m_left == 0 ? 1 : lengthOf(*m_at);
    if (length > longestVint)
        fail("has an impossible number in it");
    return {bigEndian(take(length), length) & valueBits(length), length};
}

std::uint64_t EbmlReader::vint() {
    return takeVint().value;
}

std::int64_t EbmlReader::signedVint() {
    const auto [value, length] = takeVint();
    return static_cast<std::int64_t>(value) - static_cast<std::int64_t>(valueBits(length) >> 1);
}

std::uint64_t EbmlReader::number() const {
    if (m_left > sizeof(std::uint64_t))
        fail("is too long for a number");
    return bigEndian(m_at, m_left);
}

double EbmlReader::real() const {
    const auto bits = number();
    if (m_left == sizeof(double)) {
        double value = 0;
        std::memcpy(&value, &bits, sizeof(value));
        return value;
    }
    if (m_left != sizeof(float) && m_left != 0)
        fail("is a floating-point number of neither 4 nor 8 bytes");
    const auto half = static_cast<std::uint32_t>(bits);
    float value = 0;
    std::memcpy(&value, &half, sizeof(value));
    return value;
}

std::string EbmlReader::text() const {
    return {m_at, std::find(m_at, m_at + m_left, 0)};
}

std::optional<EbmlReader> EbmlReader::next() {
    if (m_left == 0)
        return std::nullopt;
    const auto child = m_element.child(m_at, m_left, m_element.end - m_left);
    take(child->headerSize);
    return EbmlReader(*child, take(static_cast<std::size_t>(child->size())));
}

void EbmlReader::read(std::initializer_list<EbmlField> fields) const {
    EbmlReader rest = *this;
    while (const auto child = rest.next())
        for (const auto& field : fields)
            if (field.id == child->element().id && child->left() > 0)
                std::visit(Store{*child}, field.to);
}

} // namespace host
