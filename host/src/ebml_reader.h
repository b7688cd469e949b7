#ifndef HOST_EBML_READER_H
#define HOST_EBML_READER_H

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace host {

/// What stands in front of an element of EBML (RFC 8794). A plain value.
struct EbmlElement {
    static constexpr std::uint64_t unsized = std::numeric_limits<std::uint64_t>::max();
    static constexpr std::size_t longestHeader = 12;

    std::uint32_t id = 0;       ///< with its length marker, as documents write it
    std::uint64_t position = 0; ///< in the stream
    std::size_t headerSize = 0;
    std::uint64_t end = unsized; ///< in the stream

    std::uint64_t size() const { return end - position - headerSize; } ///< of its body
    /// The child that begins at `at`, in front of its own end, where so many bytes are there.
    /// Nothing: its header is not all there. Throws a StreamFault where none can be there.
    std::optional<EbmlElement> child(const std::uint8_t* bytes, std::size_t size,
                                     std::uint64_t at) const;
    /// Throws a StreamFault: "the element 0xA3 at byte 12 ..."
    [[noreturn]] void fail(const std::string& what) const;
};

class EbmlReader;

/// A child that is wanted, and where its value goes. What is absent or empty changes nothing.
struct EbmlField {
    std::uint32_t id;
    std::variant<std::uint64_t*, double*, std::string*, std::vector<std::uint8_t>*,
                 std::optional<EbmlReader>*>
        to;
};

/// The body of an element, read from the front. What is not there throws a StreamFault that names
/// the element. A view: the bytes must outlive it.
class EbmlReader {
public:
    /// `body`: all of it is there.
    EbmlReader(const EbmlElement& element, const std::uint8_t* body)
        : m_element(element), m_at(body), m_left(static_cast<std::size_t>(element.size())) {}

    const EbmlElement& element() const { return m_element; }
    std::size_t left() const { return m_left; }

    /// The first byte of so many.
    const std::uint8_t* take(std::size_t bytes);
    std::uint8_t u8() { return *take(1); }
    std::uint64_t vint(); ///< whose length is in its first bits
    std::int64_t signedVint();

    // All that is left, as a value; nothing of it as 0.
    std::uint64_t number() const;
    double real() const;
    std::string text() const; ///< up to a zero

    /// The next child; nothing at the end.
    std::optional<EbmlReader> next();
    template <typename Visit>
    void forEach(std::uint32_t id, Visit visit) const {
        EbmlReader rest = *this;
        while (const auto child = rest.next())
            if (child->element().id == id)
                visit(*child);
    }
    /// Of several children with one id the last counts.
    void read(std::initializer_list<EbmlField> fields) const;

    [[noreturn]] void fail(const std::string& what) const { m_element.fail(what); }

private:
    struct Vint {
        std::uint64_t value;
        unsigned int length;
    };
    Vint takeVint();

    EbmlElement m_element;
    const std::uint8_t* m_at;
    std::size_t m_left;
};

} // namespace host

#endif
