#include "json.h"

#include <algorithm>

namespace scope {

namespace {

constexpr std::size_t most = 8 << 20; // bytes
constexpr int deepest = 32;

} // namespace

std::optional<Json> parseForeign(std::string_view text) {
    if (text.size() > most)
        return std::nullopt;
    bool isTooDeep = false;
    const auto look = [&isTooDeep](int depth, Json::parse_event_t, Json&) {
        isTooDeep = isTooDeep || depth > deepest;
        return !isTooDeep;
    };
    auto value = Json::parse(text, look, false);
    if (isTooDeep || value.is_discarded())
        return std::nullopt;
    return value;
}

std::string dump(const Json& value) {
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

const Json& member(const Json& object, const char* name) {
    static const Json nothing;
    if (!object.is_object())
        return nothing;
    const auto found = object.find(name);
    return found == object.end() ? nothing : *found;
}

const Json& listIn(const Json& object, const char* name) {
    static const Json none = Json::array();
    const auto& value = member(object, name);
    return value.is_array() ? value : none;
}

std::optional<double> numberIn(const Json& object, const char* name) {
    const auto& value = member(object, name);
    return value.is_number() ? std::optional(value.get<double>()) : std::nullopt;
}

std::string textIn(const Json& object, const char* name) {
    const auto& value = member(object, name);
    return value.is_string() ? value.get<std::string>() : std::string();
}

bool has(const Json& list, std::string_view text) {
    return list.is_array() && std::any_of(list.begin(), list.end(), [&](const Json& each) {
               return each.is_string() && each.get_ref<const std::string&>() == text;
           });
}

} // namespace scope
