#include "script/script_value.h"

#include <charconv>
#include <cmath>
#include <iomanip>
#include <sstream>

ScriptValue scriptValueOf(const std::string& word) {
    std::istringstream stream(word);
    int64_t whole = 0;
    if (stream >> std::setbase(0) >> whole && stream.eof())
        return whole;
    double number = 0;
    const char* const end = word.data() + word.size();
    const auto read = std::from_chars(word.data(), end, number);
    const bool isNumber = read.ec == std::errc() && read.ptr == end && std::isfinite(number);
    return isNumber ? ScriptValue(number) : ScriptValue(word);
}

std::optional<int64_t> wholeNumber(const ScriptValue& value) {
    if (value.is_number_integer())
        return value.get<int64_t>();
    constexpr double beyond = 0x1p63;
    const double number = value.is_number() ? value.get<double>() : beyond;
    if (std::trunc(number) != number || number < -beyond || number >= beyond)
        return std::nullopt;
    return static_cast<int64_t>(number);
}
