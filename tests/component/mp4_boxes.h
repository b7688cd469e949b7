#ifndef MP4_BOXES_H
#define MP4_BOXES_H

#include "demux_fixture.h"

// Boxes of an MP4, byte by byte.

inline Bytes half(std::uint64_t value) {
    return {static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value)};
}

inline Bytes word(std::uint64_t value) {
    return half(value >> 16) + half(value);
}

inline Bytes letters(const std::string& text) {
    return {text.begin(), text.end()};
}

inline Bytes box(const std::string& type, const Bytes& body) {
    return word(body.size() + 8) + letters(type) + body;
}

inline Bytes longBox(const std::string& type, const Bytes& body) {
    return word(1) + letters(type) + word(0) + word(body.size() + 16) + body;
}

#endif
