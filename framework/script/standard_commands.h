#ifndef STANDARD_COMMANDS_H
#define STANDARD_COMMANDS_H

#include "script/script_commands.h"

#include <vector>

/// The commands that every script has: what the framework itself knows.
std::vector<ScriptCommand> standardScriptCommands();

#endif
