// Any text as a number: what is accepted fits into 31 bits and is, as close as 31 bits can come,
// the number that the text says.

#include "codecutil.h"
#include "gst_once.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

using fuzz::require;

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    int numerator = -1;
    int denominator = -1;
    if (!gst_tools_parse_real(text.c_str(), &numerator, &denominator)) {
        require(numerator == -1 && denominator == -1);
        return 0;
    }
    text = text.c_str(); // up to the first zero byte
    require(numerator >= 0 && denominator >= 1);
    require(text.find_first_not_of("0123456789/.,") == std::string::npos);
    std::replace(text.begin(), text.end(), ',', '.');
    const char* rest = text.c_str();
    const double above = g_ascii_strtod(rest, nullptr);
    const auto slash = text.find('/');
    const double below =
        slash != std::string::npos ? g_ascii_strtod(rest + slash + 1, nullptr) : 1.0;
    const double value = static_cast<double>(numerator) / denominator;
    // Halving rounds the denominator down, once a bit that does not fit.
    require(above / below <= value * (1 + 1e-9) + 1e-9);
    require(denominator < 1000 || value <= above / below * 1.01 + 1e-9);
    return 0;
}
