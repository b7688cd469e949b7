// A player with a command for debug scripts: script_command FILE runs a script that may press its
// keys.

#include "script/script.h"
#include "script/script_commands.h"
#include "script/script_state.h"

#include <cstdio>

namespace {

/// Something that takes the keys 0 to 9: 0 switches it off, the others to a channel.
class Player {
public:
    Player() { ScriptEvents::instance().nameSignals({"KeyPressed"}); }

    bool press(int64_t key) {
        if (key < 0 || key > 9)
            return false;
        ScriptEvents::instance().publishSignal("KeyPressed", [key] {
            return ScriptValue{{"key", key}};
        });
        m_state.set(key == 0 ? "off" : "on channel " + std::to_string(key));
        return true;
    }

private:
    ScriptState m_state{"player"};
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
