#ifndef SCRIPT_VALUE_H
#define SCRIPT_VALUE_H

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

/// What goes between a script and its commands: nil as null, booleans, whole and other numbers,
/// strings of any bytes, tables as arrays (from 1 on, without gaps) or as objects.
using ScriptValue = nlohmann::json;
using ScriptValues = std::vector<ScriptValue>;

/// What is written for a script: a number if the word is one, with 0x too, else a text.
ScriptValue scriptValueOf(const std::string& word);

/// A number without a fraction, however it was computed; nothing for all else.
std::optional<int64_t> wholeNumber(const ScriptValue& value);

#endif
