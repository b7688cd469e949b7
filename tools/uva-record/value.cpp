#include "value.h"

#include "format.h"

#include <cstdio>
#include <cstring>

namespace record {

namespace {

constexpr std::uint64_t factor = 0x9fb21c651e98df25;

std::uint64_t mixed(std::uint64_t value) {
    value = (value ^ value >> 32) * factor;
    return value ^ value >> 29;
}

/// One step of many: what it leaves unmixed the next ones mix.
std::uint64_t folded(std::uint64_t value) {
    value *= factor;
    return value ^ value >> 32;
}

std::uint64_t wordAt(const std::uint8_t* bytes) {
    std::uint64_t word = 0;
    std::memcpy(&word, bytes, sizeof word);
    return word;
}

/// Reads what an Encoder wrote; nothing is trusted.
class Decoder {
public:
    Decoder(const std::uint8_t* bytes, std::size_t size)
        : m_begin(bytes), m_left(size), m_at(bytes) {}

    bool done() const { return m_left == 0; }
    std::size_t offset() const { return static_cast<std::size_t>(m_at - m_begin); }
    const char* reason() const { return m_reason; }

    bool value(Value& value, int depth = 0) {
        std::uint8_t tag = 0;
        if (!take(&tag, 1, "a value is cut off"))
            return false;
        if (tag > static_cast<std::uint8_t>(Tag::Id))
            return fail("a value of a kind that there is not");
        value.tag = static_cast<Tag>(tag);
        switch (value.tag) {
        case Tag::Null:
        case Tag::False:
        case Tag::True:
            return true;
        case Tag::Integer:
        case Tag::Id:
            return number(value);
        case Tag::Real:
            return take(&value.real, sizeof value.real, "a number is cut off");
        case Tag::Text:
        case Tag::Bytes:
            return text(value);
        case Tag::Digest: {
            std::uint64_t size = 0;
            const bool good =
                length(size) && take(&value.hash, sizeof value.hash, "a digest is cut off");
            value.integer = static_cast<std::int64_t>(size);
            return good;
        }
        case Tag::List:
            return list(value, depth);
        }
        return false;
    }

private:
    bool fail(const char* reason) {
        m_reason = reason;
        return false;
    }
    bool take(void* to, std::size_t size, const char* complaint) {
        if (size > m_left)
            return fail(complaint);
        std::memcpy(to, m_at, size);
        m_at += size;
        m_left -= size;
        return true;
    }
    bool length(std::uint64_t& value) {
        value = 0;
        for (unsigned int shift = 0; shift < 64; shift += 7) {
            std::uint8_t byte = 0;
            if (!take(&byte, 1, "a length is cut off"))
                return false;
            value |= std::uint64_t{byte & 0x7fU} << shift;
            if ((byte & 0x80) == 0)
                return true;
        }
        return fail("a length beyond 64 bits");
    }
    bool number(Value& value) {
        std::uint64_t folded = 0;
        if (!length(folded))
            return false;
        value.integer = value.tag == Tag::Id
                            ? static_cast<std::int64_t>(folded)
                            : static_cast<std::int64_t>(folded >> 1 ^ (~(folded & 1) + 1));
        return value.tag != Tag::Id || folded <= UINT32_MAX || fail("a number beyond 32 bits");
    }
    bool text(Value& value) {
        std::uint64_t size = 0;
        if (!length(size))
            return false;
        if (size > m_left)
            return fail("a text is cut off");
        value.text.assign(reinterpret_cast<const char*>(m_at), size);
        m_at += size;
        m_left -= size;
        return true;
    }
    bool list(Value& value, int depth) {
        constexpr int deepest = 6;
        std::uint64_t count = 0;
        if (!length(count))
            return false;
        if (depth == deepest || count > m_left) // an item is a byte at least
            return fail("a list that is cut off or too deep");
        for (std::uint64_t i = 0; i < count; ++i)
            if (!this->value(value.items.emplace_back(), depth + 1))
                return false;
        return true;
    }

    const std::uint8_t* const m_begin;
    std::size_t m_left;
    const std::uint8_t* m_at;
    const char* m_reason = "";
};

std::string hexText(std::string_view bytes) {
    constexpr std::size_t enough = 24;
    std::string text;
    for (const char byte : bytes.substr(0, enough)) {
        text += "0123456789abcdef"[static_cast<std::uint8_t>(byte) >> 4];
        text += "0123456789abcdef"[static_cast<std::uint8_t>(byte) & 15];
    }
    return bytes.size() > enough ? text + "... (" + std::to_string(bytes.size()) + " bytes)" : text;
}

std::string quoted(std::string_view value) {
    std::string text = "\"";
    for (const char byte : value) {
        if (byte == '"' || byte == '\\')
            text += '\\';
        const bool printable = static_cast<std::uint8_t>(byte) >= ' ' && byte != '\x7f';
        text += printable ? std::string(1, byte) : "\\x" + hexText({&byte, 1});
    }
    return text + "\"";
}

std::string realText(double value) {
    char text[40];
    std::snprintf(text, sizeof text, "%.9g", value);
    return text;
}

} // namespace

std::uint64_t digestOf(const void* data, std::size_t size) {
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    std::uint64_t lanes[4] = {size, 1, 2, 3};
    for (; size >= 32; bytes += 32, size -= 32)
        for (std::size_t lane = 0; lane < 4; ++lane)
            lanes[lane] = folded(lanes[lane] ^ wordAt(bytes + 8 * lane));
    std::uint8_t rest[32] = {};
    if (size > 0)
        std::memcpy(rest, bytes, size);
    std::uint64_t sum = 0;
    for (std::size_t lane = 0; lane < 4; ++lane)
        sum = mixed(sum + mixed(lanes[lane] ^ wordAt(rest + 8 * lane)));
    return sum;
}

// ---- writing

void Encoder::put(const void* bytes, std::size_t size) {
    if (size == 0)
        return;
    const auto* from = static_cast<const std::uint8_t*>(bytes);
    if (m_long.empty() && m_size + size <= sizeof m_short) {
        std::memcpy(m_short + m_size, from, size);
    } else {
        if (m_long.empty())
            m_long.assign(m_short, m_short + m_size);
        m_long.insert(m_long.end(), from, from + size);
    }
    m_size += size;
}

void Encoder::tag(Tag tag) {
    put(&tag, 1);
}

void Encoder::length(std::uint64_t value) {
    std::uint8_t bytes[10];
    std::size_t count = 0;
    for (; value >= 0x80; value >>= 7)
        bytes[count++] = static_cast<std::uint8_t>(value | 0x80);
    bytes[count++] = static_cast<std::uint8_t>(value);
    put(bytes, count);
}

void Encoder::integer(std::int64_t value) {
    tag(Tag::Integer);
    const auto folded = static_cast<std::uint64_t>(value) << 1;
    length(value < 0 ? ~folded : folded);
}

void Encoder::real(double value) {
    tag(Tag::Real);
    put(&value, sizeof value);
}

void Encoder::text(std::string_view value) {
    if (value.size() > largestText)
        return digest(value.size(), digestOf(value.data(), value.size()));
    tag(Tag::Text);
    length(value.size());
    put(value.data(), value.size());
}

void Encoder::text(const char* value) {
    if (value == nullptr)
        null();
    else
        text(std::string_view(value));
}

void Encoder::bytes(const void* value, std::size_t size) {
    if (value == nullptr)
        return null();
    if (size > largestText)
        return digest(size, digestOf(value, size));
    tag(Tag::Bytes);
    length(size);
    put(value, size);
}

void Encoder::list(std::size_t count) {
    tag(Tag::List);
    length(count);
}

void Encoder::digest(std::uint64_t size, std::uint64_t hash) {
    tag(Tag::Digest);
    length(size);
    put(&hash, sizeof hash);
}

void Encoder::id(std::uint32_t number) {
    tag(Tag::Id);
    length(number);
}

// ---- reading

bool Value::operator==(const Value& other) const {
    if (tag != other.tag || integer != other.integer || hash != other.hash || text != other.text)
        return false;
    const bool sameReal = std::memcmp(&real, &other.real, sizeof real) == 0; // NaN equals itself
    return sameReal && items == other.items;
}

bool decode(const std::uint8_t* bytes, std::size_t size, Values& values, std::size_t& offset,
            const char*& reason) {
    Decoder decoder(bytes, size);
    while (!decoder.done()) {
        if (decoder.value(values.emplace_back()))
            continue;
        offset = decoder.offset();
        reason = decoder.reason();
        return false;
    }
    return true;
}

std::string describe(const Value& value) {
    switch (value.tag) {
    case Tag::Null:
        return "null";
    case Tag::False:
        return "false";
    case Tag::True:
        return "true";
    case Tag::Integer:
        return std::to_string(value.integer);
    case Tag::Real:
        return realText(value.real);
    case Tag::Text:
        return quoted(value.text);
    case Tag::Bytes:
        return hexText(value.text);
    case Tag::Digest: {
        char text[60];
        std::snprintf(text, sizeof text, "<%lld bytes, %016llx>",
                      static_cast<long long>(value.integer),
                      static_cast<unsigned long long>(value.hash));
        return text;
    }
    case Tag::Id:
        return "#" + std::to_string(value.integer);
    case Tag::List:
        break;
    }
    std::string text = "[";
    for (const auto& item : value.items)
        text += (text.size() > 1 ? ", " : "") + describe(item);
    return text + "]";
}

} // namespace record
