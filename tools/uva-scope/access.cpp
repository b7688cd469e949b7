#include "access.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <sys/random.h>
#include <system_error>

namespace scope {

std::string newToken() {
    std::array<unsigned char, 16> bytes{};
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
        throw std::system_error(errno, std::generic_category(), "no random numbers");
    std::string text;
    for (const unsigned char byte : bytes) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", byte);
        text += digits;
    }
    return text;
}

bool isSameSecret(std::string_view one, std::string_view other) {
    unsigned differs = one.size() == other.size() ? 0 : 1;
    for (std::size_t i = 0; i < std::min(one.size(), other.size()); ++i)
        differs |= static_cast<unsigned char>(one[i]) ^ static_cast<unsigned char>(other[i]);
    return differs == 0;
}

bool isThisHost(std::string_view host) {
    static constexpr std::string_view names[] = {"127.0.0.1", "localhost", "[::1]"};
    return std::any_of(std::begin(names), std::end(names), [host](std::string_view name) {
        if (host.substr(0, name.size()) != name)
            return false;
        const auto rest = host.substr(name.size());
        return rest.empty() || (rest.size() > 1 && rest.size() <= 6 && rest[0] == ':' &&
                                std::all_of(rest.begin() + 1, rest.end(), [](char digit) {
                                    return digit >= '0' && digit <= '9';
                                }));
    });
}

bool isOwnOrigin(std::string_view origin, std::string_view host) {
    return origin.empty() || origin == "http://" + std::string(host);
}

} // namespace scope
