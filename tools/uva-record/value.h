#ifndef UVA_RECORD_VALUE_H
#define UVA_RECORD_VALUE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace record {

/// What the first byte of a value says it is.
enum class Tag : std::uint8_t {
    Null = 0,
    False = 1,
    True = 2,
    Integer = 3, ///< variable length, signs in the lowest bit
    Real = 4,    ///< 8 bytes
    Text = 5,    ///< length, bytes
    Bytes = 6,
    List = 7,   ///< count, values
    Digest = 8, ///< of what is not kept: length, 8 bytes of digestOf()
    Id = 9,     ///< an event, a component, a sample by its number
};

/// Tells changes, not forgeries. About a byte in a third of a nanosecond, 8 at a time.
std::uint64_t digestOf(const void* bytes, std::size_t size);

/// Puts values one behind the other. Short ones need no memory of the heap. Bound to one thread.
class Encoder {
public:
    Encoder() = default;
    Encoder(const Encoder&) = delete;
    Encoder& operator=(const Encoder&) = delete;

    void null() { tag(Tag::Null); }
    void boolean(bool value) { tag(value ? Tag::True : Tag::False); }
    void integer(std::int64_t value);
    void real(double value);
    void text(std::string_view value);               ///< one longer than largestText: its digest
    void text(const char* value);                    ///< null: null
    void bytes(const void* value, std::size_t size); ///< the same
    void list(std::size_t count);                    ///< ... of values that follow
    void digest(std::uint64_t size, std::uint64_t hash);
    void id(std::uint32_t number);

    const std::uint8_t* data() const { return m_long.empty() ? m_short : m_long.data(); }
    std::size_t size() const { return m_size; }

private:
    void tag(Tag tag);
    void length(std::uint64_t value);
    void put(const void* bytes, std::size_t size);

    std::uint8_t m_short[512];
    std::size_t m_size = 0;
    std::vector<std::uint8_t> m_long; // once the room above is too small: all
};

/// A value that was read. Only the members that its tag names count.
struct Value {
    Tag tag = Tag::Null;
    std::int64_t integer = 0; ///< also the number of an Id and the length of a Digest
    double real = 0;
    std::uint64_t hash = 0;
    std::string text; ///< also of Bytes
    std::vector<Value> items;

    bool operator==(const Value& other) const;
    bool operator!=(const Value& other) const { return !(*this == other); }
};

using Values = std::vector<Value>;

/// All of the bytes as values. False when they are none; then `offset` says where, `reason` why.
bool decode(const std::uint8_t* bytes, std::size_t size, Values& values, std::size_t& offset,
            const char*& reason);

/// As a person reads it.
std::string describe(const Value& value);

} // namespace record

#endif
