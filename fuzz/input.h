#ifndef INPUT_H
#define INPUT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace fuzz {

/// Cuts values off the front of an input; zeros follow its end.
class Input {
public:
    Input(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}

    template <typename Value>
    void read(Value& value) {
        value = {};
        const size_t count = std::min(sizeof value, m_size);
        if (count > 0)
            std::memcpy(&value, m_data, count);
        skip(count);
    }
    template <typename Value>
    Value take() {
        Value value;
        read(value);
        return value;
    }
    uint8_t byte() { return take<uint8_t>(); }
    /// At most so many bytes.
    std::string text(size_t size) {
        const std::string taken(reinterpret_cast<const char*>(m_data), std::min(size, m_size));
        skip(taken.size());
        return taken;
    }

    /// What has not been read; null when that is nothing.
    const uint8_t* rest() const { return m_size > 0 ? m_data : nullptr; }
    size_t size() const { return m_size; }

private:
    void skip(size_t count) {
        m_data += count;
        m_size -= count;
    }

    const uint8_t* m_data;
    size_t m_size;
};

} // namespace fuzz

#endif
