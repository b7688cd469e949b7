#ifndef UVA_SCOPE_JSON_H
#define UVA_SCOPE_JSON_H

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace scope {

using Json = nlohmann::ordered_json;

/// What another process has written: nothing unless it is JSON of a bearable size and depth, which
/// what walks it later relies on.
std::optional<Json> parseForeign(std::string_view text);

/// The text of a value, whatever bytes are in it.
std::string dump(const Json& value);

// Members of what may be anything. Where there is none of that kind: nothing, empty, or null.
const Json& member(const Json& object, const char* name);
const Json& listIn(const Json& object, const char* name);
std::optional<double> numberIn(const Json& object, const char* name);
std::string textIn(const Json& object, const char* name);
bool has(const Json& list, std::string_view text);

} // namespace scope

#endif
