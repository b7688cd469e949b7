#ifndef HOST_BOX_READER_H
#define HOST_BOX_READER_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace host {

/// The type of a box as a number, the first letter in the highest byte.
constexpr std::uint32_t fourLetters(const char (&letters)[5]) {
    std::uint32_t value = 0;
    for (int i = 0; i < 4; ++i)
        value = value << 8 | static_cast<unsigned char>(letters[i]);
    return value;
}

/// Of what are no letters, their number.
std::string lettersOf(std::uint32_t type);

/// Bytes of what is held as a whole: a box, an element, a sample. More is refused.
constexpr std::uint64_t largestPart = 64 * 1024 * 1024;

/// What is wrong with a stream; thrown within a parser, and never out of it.
struct StreamFault {
    std::string text; ///< one line
};

/// "'type' at byte 12 ..."
[[noreturn]] void failBox(std::uint32_t type, std::uint64_t position, const std::string& what);

/// The body of a box (ISO/IEC 14496-12), read from the front. What is not there throws a
/// StreamFault that names the box. A view: the bytes must outlive it.
class BoxReader {
public:
    struct VersionAndFlags {
        unsigned int version;
        std::uint32_t flags;
    };

    /// `position`: where the box begins in the stream, so many bytes in front of its body.
    BoxReader(const std::uint8_t* body, std::size_t size, std::uint32_t type,
              std::uint64_t position, std::size_t headerSize)
        : m_at(body), m_left(size), m_type(type), m_position(position),
          m_place(position + headerSize) {}

    std::uint32_t type() const { return m_type; }
    std::uint64_t position() const { return m_position; }
    std::uint64_t place() const { return m_place; } ///< in the stream, of what is read next
    const std::uint8_t* data() const { return m_at; }
    std::size_t left() const { return m_left; }

    std::uint8_t u8() { return *take(1); }
    std::uint16_t u16() { return static_cast<std::uint16_t>(number(2)); }
    std::uint32_t u24() { return static_cast<std::uint32_t>(number(3)); }
    std::uint32_t u32() { return static_cast<std::uint32_t>(number(4)); }
    std::uint64_t u64() { return number(8); }
    VersionAndFlags versionAndFlags();
    /// A zero-terminated one.
    std::string text();
    /// Their first byte.
    const std::uint8_t* take(std::size_t bytes);
    void skip(std::size_t bytes) { take(bytes); }

    /// The next box in it; nothing at the end.
    std::optional<BoxReader> next();
    /// The first box of that type among those that are left.
    std::optional<BoxReader> find(std::uint32_t type) const;
    /// The same; it must be there.
    BoxReader need(std::uint32_t type) const;
    template <typename Visit>
    void forEach(std::uint32_t type, Visit visit) const {
        BoxReader rest = *this;
        while (const auto box = rest.next())
            if (box->type() == type)
                visit(*box);
    }

    [[noreturn]] void fail(const std::string& what) const { failBox(m_type, m_position, what); }

private:
    std::uint64_t number(std::size_t bytes);

    const std::uint8_t* m_at;
    std::size_t m_left;
    std::uint32_t m_type;
    std::uint64_t m_position;
    std::uint64_t m_place;
};

/// What stands in front of an outermost box. A plain value.
struct OuterBox {
    std::uint32_t type = 0;
    std::uint64_t position = 0;
    std::size_t headerSize = 0;
    std::uint64_t end = 0; ///< the greatest: that of the file

    std::uint64_t size() const { return end - position; }
    /// `body`: all of it is there.
    BoxReader reader(const std::uint8_t* body) const {
        return {body, static_cast<std::size_t>(size() - headerSize), type, position, headerSize};
    }
    [[noreturn]] void fail(const std::string& what) const { failBox(type, position, what); }
};

} // namespace host

#endif
