#include "media/mark.h"

#include <cstdio>

namespace qualify {

std::string textOf(const Mark& mark) {
    char text[40];
    std::snprintf(text, sizeof text, "%c-%05d-%06d", mark.clip, mark.number, mark.time);
    return text;
}

std::optional<Mark> parseMark(const std::string& text) {
    Mark mark;
    if (std::sscanf(text.c_str(), "%c-%5d-%6d", &mark.clip, &mark.number, &mark.time) != 3)
        return std::nullopt;
    return textOf(mark) == text ? std::optional(mark) : std::nullopt;
}

} // namespace qualify
