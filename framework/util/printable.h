#ifndef PRINTABLE_H
#define PRINTABLE_H

#include <algorithm>
#include <string>
#include <string_view>

/// The text with a '?' for each control character, but for those in `kept`: it does not steer a
/// terminal. Reentrant.
inline std::string printable(std::string text, std::string_view kept = {}) {
    const auto steers = [kept](char c) {
        const bool isControl = static_cast<unsigned char>(c) < ' ' || c == '\x7f';
        return isControl && kept.find(c) == std::string_view::npos;
    };
    std::replace_if(text.begin(), text.end(), steers, '?');
    return text;
}

#endif
