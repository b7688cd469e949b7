#include "host/media_uri.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace host {

namespace {

constexpr std::string_view fileScheme = "file://";

/// "http" of "http://..."; empty when the text is no URL.
std::string_view schemeOf(std::string_view text) {
    const auto end = text.find("://");
    if (end == std::string_view::npos || end == 0)
        return {};
    const auto scheme = text.substr(0, end);
    const auto allowed = [](unsigned char c) {
        return std::isalnum(c) != 0 || c == '+' || c == '-' || c == '.';
    };
    const bool valid = std::isalpha(static_cast<unsigned char>(scheme.front())) != 0 &&
                       std::all_of(scheme.begin(), scheme.end(), allowed);
    return valid ? scheme : std::string_view{};
}

bool isPlainInPath(unsigned char c) {
    return c < 0x80 && (std::isalnum(c) != 0 || std::strchr("-._~/", c) != nullptr) && c != '\0';
}

/// Undoes percent-encoding; nothing when a "%" is not followed by two hexadecimal digits, or stands
/// for a zero byte.
std::optional<std::string> decodePath(std::string_view encoded) {
    std::string path;
    for (std::size_t i = 0; i < encoded.size(); ++i) {
        if (encoded[i] != '%') {
            path += encoded[i];
            continue;
        }
        const char* const digits = encoded.data() + i + 1;
        unsigned char byte = 0;
        if (i + 2 >= encoded.size() ||
            std::from_chars(digits, digits + 2, byte, 16).ptr != digits + 2 || byte == 0)
            return std::nullopt;
        path += static_cast<char>(byte);
        i += 2;
    }
    return path;
}

/// Why the file cannot be played; empty when it can.
std::string whyUnreadable(const std::string& path) {
    struct stat info = {};
    if (stat(path.c_str(), &info) != 0)
        return std::strerror(errno);
    if (S_ISDIR(info.st_mode))
        return "is a directory; name the files in it";
    if (access(path.c_str(), R_OK) != 0)
        return std::string(std::strerror(errno)) + "; it must be readable for this user";
    return {};
}

MediaUri fromFileUri(const std::string& uri) {
    const auto path = decodePath(std::string_view(uri).substr(fileScheme.size()));
    if (!path || path->empty() || path->front() != '/')
        return {{}, "is no valid file URI; write file:///absolute/path with %XX escapes"};
    auto error = whyUnreadable(*path);
    return error.empty() ? MediaUri{uri, {}} : MediaUri{{}, std::move(error)};
}

} // namespace

std::string fileUri(const std::string& path) {
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string uri{fileScheme};
    std::error_code gone; // of a working directory that was removed
    for (const unsigned char c : std::filesystem::absolute(path, gone).string()) {
        if (isPlainInPath(c)) {
            uri += static_cast<char>(c);
            continue;
        }
        uri += '%';
        uri += digits[c >> 4U];
        uri += digits[c & 0x0fU];
    }
    return uri;
}

MediaUri toMediaUri(const std::string& name) {
    if (name.empty())
        return {{}, "the name is empty; name a file or a URL"};
    if (name.compare(0, fileScheme.size(), fileScheme) == 0)
        return fromFileUri(name);
    if (!schemeOf(name).empty()) {
        const auto odd = [](unsigned char c) { return c <= ' ' || c == 0x7f; };
        if (std::any_of(name.begin(), name.end(), odd))
            return {{}, "a URL has no spaces or control characters; write them as %XX"};
        return {name, {}};
    }
    auto error = whyUnreadable(name);
    return error.empty() ? MediaUri{fileUri(name), {}} : MediaUri{{}, std::move(error)};
}

std::string serverOf(std::string_view uri) {
    const auto scheme = schemeOf(uri);
    if (scheme.empty() || scheme == "file")
        return {};
    auto authority = uri.substr(scheme.size() + std::string_view("://").size());
    authority = authority.substr(0, authority.find_first_of("/?#"));
    authority.remove_prefix(authority.rfind('@') + 1); // npos: nothing
    const auto address = authority.find(']');          // of IPv6 has colons of its own
    const auto port = authority.find(':', address == std::string_view::npos ? 0 : address);
    return std::string(authority.substr(0, port));
}

} // namespace host
