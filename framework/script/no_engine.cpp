// In place of the engine, in a build without Lua.

#include "script/script.h"

namespace {

constexpr const char* noLanguage =
    "this build has no script language: install liblua5.4-dev and configure with -Dscript=enabled";

} // namespace

ScriptCompilation SILCompileText(const std::string& name, std::string_view) {
    return {std::nullopt, name + ": " + noLanguage};
}

ScriptOutcome SILRun(const CompiledScript& script, const ScriptValues&, ScriptControl&,
                     const ScriptLimits&) {
    return {ScriptOutcome::End::Failed, script.name() + ": " + noLanguage, nullptr};
}
