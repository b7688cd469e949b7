#ifndef TOOLS_COMMON_SCRIPT_H
#define TOOLS_COMMON_SCRIPT_H

#include "script/script.h"

#include <string>

namespace tools {

/// Compiles a file that the user has named: any path, a pipe too.
ScriptCompilation compileScript(const std::string& path);

/// Runs it; what it logs goes to standard output. What was wrong, with file and line: it failed,
/// was stopped or too long, or has returned false. Empty when nothing was.
std::string runScript(const CompiledScript& script, const ScriptValues& arguments,
                      ScriptControl& control);

/// For the help of a program: how its scripts are written, and where all of it stands.
extern const char* const scriptHelp;

} // namespace tools

#endif
