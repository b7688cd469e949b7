#ifndef UVA_SCOPE_ACCESS_H
#define UVA_SCOPE_ACCESS_H

#include <string>
#include <string_view>

namespace scope {

/// A new secret of 128 bits, as hexadecimal digits.
std::string newToken();

/// Whether both are the same; takes the same time wherever they differ.
bool isSameSecret(std::string_view one, std::string_view other);

/// Whether the header "Host" names this host by itself, at whatever port: a name that somebody else
/// has made lead here is not it.
bool isThisHost(std::string_view host);

/// Whether the header "Origin" is this page's own, at that host. Empty, as programs leave it, is
/// fine.
bool isOwnOrigin(std::string_view origin, std::string_view host);

} // namespace scope

#endif
