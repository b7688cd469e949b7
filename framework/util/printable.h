#ifndef PRINTABLE_H
#define PRINTABLE_H

#include <cstddef>
#include <string>
#include <string_view>

/// The text, of UTF-8, with a '?' for each byte of a control character (C0, DEL, C1), but for those
/// in `kept`: it does not steer a terminal. Reentrant.
inline std::string printable(std::string text, std::string_view kept = {}) {
    const auto at = [&text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (at(i) < ' ' || at(i) == 0x7f) {
            if (kept.find(text[i]) == std::string_view::npos)
                text[i] = '?';
        } else if (at(i) == 0xc2 && i + 1 < text.size() && at(i + 1) >= 0x80 && at(i + 1) < 0xa0) {
            text[i] = text[i + 1] = '?';
        }
    }
    return text;
}

#endif
