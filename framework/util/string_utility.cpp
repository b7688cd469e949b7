#include "util/string_utility.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <string_view>

namespace {

constexpr size_t inputLimit = 512;
constexpr size_t iso8859Limit = 255;
constexpr size_t utf8Limit = 511;

constexpr const char* leadingBlanks = " \t";
constexpr const char* trailingBlanks = " \t\n\r";
constexpr const char* whitespace = " \n\r\t";

/// Length of the sequence that a lead byte starts.
size_t sequenceLength(uint8_t lead) {
    if (lead < 0xC0)
        return 1;
    if (lead < 0xE0)
        return 2;
    return lead < 0xF0 ? 3 : 4;
}

bool areContinuations(std::string_view bytes) {
    return std::all_of(bytes.begin(), bytes.end(),
                       [](char byte) { return static_cast<uint8_t>(byte) >= 0x80; });
}

std::string_view trimmed(std::string_view text, const char* front, const char* back) {
    const size_t begin = std::min(text.find_first_not_of(front), text.size());
    text.remove_prefix(begin);
    return text.substr(0, text.find_last_not_of(back) + 1);
}

} // namespace

std::string CStringUtility::ConvertUtf8StringToIso8859String(std::string in) const {
    // Both texts end at a zero byte.
    std::string_view left(in.c_str(), strnlen(in.c_str(), inputLimit));
    std::string out;
    while (!left.empty() && out.size() < iso8859Limit) {
        const size_t length = sequenceLength(static_cast<uint8_t>(left[0]));
        if (length == 1) {
            out += left[0];
        } else {
            if (left.size() < length || !areContinuations(left.substr(1, length - 1)))
                return out;
            const unsigned high = static_cast<uint8_t>(left[length - 2]);
            const unsigned low = static_cast<uint8_t>(left[length - 1]);
            const char character = static_cast<char>((high << 6) + (low & 0x3F));
            if (character == '\0')
                return out;
            out += character;
        }
        left.remove_prefix(length);
    }
    return out;
}

std::string CStringUtility::ConvertIso8859StringToUtf8String(std::string in) const {
    std::string out;
    for (const char* next = in.c_str(); *next != '\0'; ++next) {
        const auto byte = static_cast<uint8_t>(*next);
        const size_t length = byte < 0x80 ? 1 : 2;
        if (out.size() + length > utf8Limit)
            break;
        if (length == 1) {
            out += *next;
        } else {
            out += static_cast<char>(0xC0 + (byte >> 6));
            out += static_cast<char>(0x80 + (byte & 0x3F));
        }
    }
    return out;
}

void CStringUtility::RemoveWhitespaceFromString(char* text) const {
    if (!text)
        return;
    const std::string_view kept = trimmed(text, leadingBlanks, trailingBlanks);
    memmove(text, kept.data(), kept.size());
    text[kept.size()] = '\0';
}

void CStringUtility::RemoveWhitespaceFromString(std::string* text) const {
    if (text)
        *text = std::string(trimmed(*text, leadingBlanks, trailingBlanks));
}

std::string CStringUtility::TrimLeft(std::string text) const {
    return std::string(trimmed(text, whitespace, ""));
}

std::string CStringUtility::TrimRight(std::string text) const {
    return std::string(trimmed(text, "", whitespace));
}

std::string CStringUtility::TrimLeftAndRight(std::string text) const {
    return std::string(trimmed(text, whitespace, whitespace));
}

void CStringUtility::IntToString(int value, std::string* out, int mode) const {
    if (!out)
        return;
    std::ostringstream text;
    if (mode == octalMode)
        text << 'o' << std::oct;
    else if (mode == hexadecimalMode)
        text << "0x" << std::hex;
    text << value;
    *out = text.str();
}
