// A player with a command for debug scripts: script_command FILE runs a script that may press its
// keys.

#include "script/script.h"
#include "script/script_commands.h"

#include <cstdio>

namespace {

/// Something that takes the keys 0 to 9.
struct Player {
    bool press(int64_t key) {
        return key >= 0 && key <= 9 && std::printf("key %d\n", int(key)) > 0;
    }
};

void addPress(Player& player) {
    const auto press = [&player](const ScriptCall& call) {
        if (!player.press(call.number(1, "key")))
            throw ScriptError("the player has the keys 0 to 9");
        return ScriptValues{};
    };
    registerScriptCommand("press", "press(key)\tSends a key to the player", press);
}

} // namespace

int main(int argc, char** argv) {
    static Player player; // commands are never removed
    addPress(player);
    const auto compiled = SILCompile(argc == 2 ? argv[1] : "");
    if (!compiled.script) {
        std::fprintf(stderr, "script_command: %s; write script_command FILE\n",
                     compiled.error.c_str());
        return 1;
    }
    ScriptControl control;
    const auto outcome = SILRun(*compiled.script, {}, control);
    std::fputs(outcome.error.c_str(), stderr);
    return outcome.end == ScriptOutcome::End::Finished ? 0 : 1;
}
