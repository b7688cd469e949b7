#include "host/capability_query.h"

#include <cctype>
#include <cstdlib>
#include <utility>

namespace host {

namespace {

using Description = UVABackend::ContentDescription;

std::string trim(const std::string& text) {
    const auto begin = text.find_first_not_of(" \t");
    const auto end = text.find_last_not_of(" \t");
    return begin == std::string::npos ? std::string() : text.substr(begin, end - begin + 1);
}

/// At separators that are not quoted.
std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts(1);
    bool quoted = false;
    bool escaped = false;
    for (const char c : text) {
        quoted = quoted != (c == '"' && !escaped);
        escaped = quoted && c == '\\' && !escaped;
        if (c == separator && !quoted)
            parts.emplace_back();
        else
            parts.back() += c;
    }
    return parts;
}

/// The text between quotation marks, if it stands there, without its escapes.
std::string unquote(const std::string& text) {
    if (text.size() < 2 || text.front() != '"' || text.back() != '"')
        return text;
    std::string plain;
    for (std::size_t i = 1; i + 1 < text.size(); ++i) {
        if (text[i] == '\\' && i + 2 < text.size())
            ++i;
        plain += text[i];
    }
    return plain;
}

std::string lowerCase(std::string text) {
    for (char& c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

bool isToken(const std::string& text) {
    for (const char c : text)
        if (std::isalnum(static_cast<unsigned char>(c)) == 0 &&
            std::string_view("!#$&-^_.+").find(c) == std::string_view::npos)
            return false;
    return !text.empty();
}

/// The first of a name counts.
void takeParameter(const std::string& text, Description& description) {
    const auto equals = text.find('=');
    if (equals == std::string::npos)
        return;
    const auto name = lowerCase(trim(text.substr(0, equals)));
    const auto value = trim(unquote(trim(text.substr(equals + 1))));
    for (const auto& parameter : contentParameters)
        if (name == parameter.name && (description.*parameter.member).empty())
            description.*parameter.member = value;
    if (name != "codecs" || !description.codecs.empty())
        return;
    for (const auto& entry : split(value, ','))
        if (const auto codec = trim(entry); !codec.empty())
            description.codecs.push_back(codec);
}

/// " 4096 x 2304 at 60", as far as it is said.
std::string formOf(const Description& description) {
    std::string text;
    for (const auto& limit : contentParameters)
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
    for (std::size_t i = 1; i < parameters.size(); ++i)
        takeParameter(parameters[i], description);
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
    for (const auto& limit : contentParameters) {
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
