#include "host/capability_query.h"

#include <cctype>
#include <cstdlib>
#include <utility>

namespace host {

namespace {

using Description = UVABackend::ContentDescription;

std::string trim(const std::string& text) {
    const auto begin = text.find_first_not_of(" \t\"");
    const auto end = text.find_last_not_of(" \t\"");
    return begin == std::string::npos ? std::string() : text.substr(begin, end - begin + 1);
}

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::string part;
    bool quoted = false;
    for (const char c : text) {
        quoted = quoted != (c == '"');
        if (c == separator && !quoted)
            parts.push_back(std::exchange(part, {}));
        else
            part += c;
    }
    parts.push_back(part);
    return parts;
}

bool isToken(const std::string& text) {
    for (const char c : text)
        if (std::isalnum(static_cast<unsigned char>(c)) == 0 &&
            std::string_view("!#$&-^_.+").find(c) == std::string_view::npos)
            return false;
    return !text.empty();
}

struct Limit {
    std::string Description::*member;
    const char* name;
};
constexpr Limit limits[] = {
    {&Description::width, "width"},         {&Description::height, "height"},
    {&Description::framerate, "framerate"}, {&Description::bitrate, "bitrate"},
    {&Description::channels, "channels"},
};

/// " 4096 x 2304 at 60", as far as it is said.
std::string formOf(const Description& description) {
    std::string text;
    for (const auto& limit : limits)
        if (const auto& value = description.*limit.member; !value.empty())
            text += (text.empty() ? "" : ", ") + std::string(limit.name) + " " + value;
    return text;
}

} // namespace

std::optional<Description> parseContentType(const std::string& text) {
    const auto parameters = split(text, ';');
    Description description;
    description.type = trim(parameters.front());
    const auto slash = description.type.find('/');
    if (slash == std::string::npos || !isToken(description.type.substr(0, slash)) ||
        !isToken(description.type.substr(slash + 1)))
        return std::nullopt;
    for (std::size_t i = 1; i < parameters.size(); ++i) {
        const auto equals = parameters[i].find('=');
        if (equals == std::string::npos || trim(parameters[i].substr(0, equals)) != "codecs")
            continue;
        for (const auto& codec : split(trim(parameters[i].substr(equals + 1)), ','))
            if (const auto name = trim(codec); !name.empty())
                description.codecs.push_back(name);
    }
    return description;
}

CapabilityAnswer askCanPlay(UVAMediaBackend& backend, const Description& description) {
    if (backend.canPlayType(description))
        return {true, {}};
    Description type;
    type.type = description.type;
    if (!backend.canPlayType(type))
        return {false, "the MIME type '" + description.type + "' is not supported"};
    for (const auto& codec : description.codecs) {
        Description alone;
        alone.codecs = {codec};
        if (!backend.canPlayType(alone))
            return {false, "the codec '" + codec + "' is not supported"};
    }
    for (const auto& limit : limits) {
        Description alone;
        alone.*limit.member = description.*limit.member;
        if (!backend.canPlayType(alone))
            return {false, std::string(limit.name) + " '" + description.*limit.member +
                               "' is no number that is accepted"};
    }
    for (const auto& codec : description.codecs) {
        Description alone = description;
        alone.type.clear();
        alone.codecs = {codec};
        if (!backend.canPlayType(alone))
            return {false, "the codec '" + codec + "' not with " + formOf(description)};
    }
    return {false, "not with " + formOf(description)};
}

std::vector<std::string> supportedTypes(UVAMediaBackend& backend) {
    std::vector<std::string> types;
    char** list = nullptr;
    if (!backend.getSupportedMimetypes(list) || list == nullptr)
        return types;
    for (char** next = list; *next != nullptr; ++next) {
        types.emplace_back(*next);
        std::free(*next);
    }
    delete[] list;
    return types;
}

} // namespace host
