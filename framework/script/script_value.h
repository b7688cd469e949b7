#ifndef SCRIPT_VALUE_H
#define SCRIPT_VALUE_H

#include <nlohmann/json.hpp>
#include <vector>

/// What goes between a script and its commands: nil as null, booleans, whole and other numbers,
/// strings of any bytes, tables as arrays (from 1 on, without gaps) or as objects.
using ScriptValue = nlohmann::json;
using ScriptValues = std::vector<ScriptValue>;

#endif
