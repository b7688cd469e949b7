#include "codecutil.h"

#include <cstdint>
#include <numeric>

namespace {

constexpr std::uint64_t largest = 2147483647;

/// Digits from `text` on, which is moved behind them; false when the value exceeds 64 bits.
bool readDigits(const char*& text, std::uint64_t& value) {
    value = 0;
    for (; g_ascii_isdigit(*text); ++text) {
        const auto digit = static_cast<std::uint64_t>(g_ascii_digit_value(*text));
        if (value > (UINT64_MAX - digit) / 10)
            return false;
        value = value * 10 + digit;
    }
    return true;
}

/// The fraction behind the decimal point joins the integer part, as lowest terms of 31 bits.
bool readFraction(const char* text, std::uint64_t& numerator, std::uint64_t& denominator) {
    for (; g_ascii_isdigit(*text); ++text) {
        if (numerator > UINT64_MAX / 10 - 1 || denominator > UINT64_MAX / 10)
            return false;
        numerator = numerator * 10 + static_cast<std::uint64_t>(g_ascii_digit_value(*text));
        denominator *= 10;
    }
    if (*text != '\0')
        return false;
    const std::uint64_t divisor = std::gcd(numerator, denominator);
    numerator /= divisor;
    denominator /= divisor;
    while (numerator > largest && denominator > 1) {
        numerator /= 2;
        denominator /= 2;
    }
    return numerator <= largest && denominator <= largest;
}

} // namespace

gboolean gst_tools_parse_real(const char* text, int* numerator, int* denominator) {
    if (text == nullptr)
        return FALSE;
    std::uint64_t above = 0;
    std::uint64_t below = 1;
    if (*text != '\0') {
        if (!g_ascii_isdigit(*text) || !readDigits(text, above) || above > largest)
            return FALSE;
        if (*text == '/') {
            ++text;
            if (!g_ascii_isdigit(*text) || !readDigits(text, below) || *text != '\0' || below < 1 ||
                below > largest)
                return FALSE;
        } else if (*text == '.' || *text == ',') {
            if (!readFraction(text + 1, above, below))
                return FALSE;
        } else if (*text != '\0') {
            return FALSE;
        }
    }
    *numerator = static_cast<int>(above);
    *denominator = static_cast<int>(below);
    return TRUE;
}
