#include "orders.h"

#include "playback.h"
#include "script/key_codes.h"
#include "script/script_commands.h"

#include <cassert>
#include <cmath>
#include <iterator>

namespace uvahost {

namespace {

using Kind = host::StreamInfo::Kind;

/// What keys of a remote control do, as those of the keyboard.
constexpr struct {
    const char* name;
    Key key;
} remoteControl[] = {{"play", Key::Pause},  {"pause", Key::Pause},   {"left", Key::Back},
                     {"rewind", Key::Back}, {"right", Key::Forward}, {"fast_forward", Key::Forward},
                     {"stop", Key::Quit}};

Key keyOf(const ScriptArguments& call) {
    const int64_t code = call.number(1, "key");
    for (const RemoteKey& remote : remoteKeys())
        for (const auto& row : remoteControl)
            if (remote.code == code && std::string(remote.name) == row.name)
                return row.key;
    throw ScriptError("the key " + std::to_string(code) +
                      " does nothing: play, pause, left, right, rewind, fast_forward, stop do");
}

double numberOf(const ScriptArguments& call, const char* what) {
    if (call.arguments.empty() || !call.arguments[0].is_number() ||
        !std::isfinite(call.arguments[0].get<double>()))
        throw ScriptError(std::string("argument 1 (") + what + ") is missing or no finite number");
    return call.arguments[0].get<double>();
}

double volumeOf(const ScriptArguments& call) {
    const double volume = numberOf(call, "volume");
    if (volume < 0 || volume > 1)
        throw ScriptError("a volume is from 0 to 1");
    return volume;
}

int coordinate(const ScriptArguments& call, std::size_t position, const char* what) {
    constexpr int64_t most = 100000;
    const int64_t value = call.number(position, what);
    if (value < -most || value > most)
        throw ScriptError(std::string(what) + " is beyond any screen");
    return static_cast<int>(value);
}

int extent(const ScriptArguments& call, std::size_t position, const char* what) {
    const int value = coordinate(call, position, what);
    if (value < 0)
        throw ScriptError(std::string(what) + " is below 0");
    return value;
}

Kind kindOf(const ScriptArguments& call) {
    const std::string& name = call.text(1, "audio or video");
    if (name != "audio" && name != "video")
        throw ScriptError("'" + name + "' is neither audio nor video");
    return name == "audio" ? Kind::Audio : Kind::Video;
}

constexpr struct {
    const char* usage;
    const char* help;
    ScriptValues (*obey)(Playback&, const ScriptArguments&);
} rows[] = {
    {"play()", "play, or go on",
     [](Playback& playback, const ScriptArguments&) {
         playback.element().play();
         return ScriptValues{};
     }},
    {"pause()", "pause",
     [](Playback& playback, const ScriptArguments&) {
         playback.element().pause();
         return ScriptValues{};
     }},
    {"seek(seconds)", "seek: gives the number that SeekResult has",
     [](Playback& playback, const ScriptArguments& call) {
         return ScriptValues{playback.requestSeek(numberOf(call, "seconds"))};
     }},
    {"rate(number)", "play so many times as fast: gives whether the backend can",
     [](Playback& playback, const ScriptArguments& call) {
         return ScriptValues{playback.element().setRate(numberOf(call, "rate"))};
     }},
    {"volume(number)", "0 to 1, of the set",
     [](Playback& playback, const ScriptArguments& call) {
         playback.element().setVolume(volumeOf(call));
         return ScriptValues{};
     }},
    {"window(x, y, width, height)", "place the picture, in a screen of 1280x720",
     [](Playback& playback, const ScriptArguments& call) {
         UVABackend::Rect rect;
         rect.x = coordinate(call, 1, "x");
         rect.y = coordinate(call, 2, "y");
         rect.width = extent(call, 3, "width");
         rect.height = extent(call, 4, "height");
         playback.element().setWindow(rect);
         return ScriptValues{};
     }},
    {"reattach(kind)", "detach the source, audio or video, and attach it again (--mse)",
     [](Playback& playback, const ScriptArguments& call) {
         playback.element().reattach(kindOf(call));
         return ScriptValues{};
     }},
    {"press(key)", "as on the keyboard: key.pause, key.left, key.right, key.stop",
     [](Playback& playback, const ScriptArguments& call) {
         playback.act(keyOf(call));
         return ScriptValues{};
     }},
    {"position()", "seconds",
     [](Playback& playback, const ScriptArguments&) {
         return ScriptValues{playback.element().position()};
     }},
    {"status()", "state, position, duration, width, height, pictures (shown, dropped, damaged)",
     [](Playback& playback, const ScriptArguments&) { return ScriptValues{playback.describe()}; }},
};

} // namespace

void registerOrders(Playback* const& playback) {
    for (const auto& row : rows) {
        const std::string usage = row.usage;
        const std::string why =
            registerScriptCommand(usage.substr(0, usage.find('(')), usage + "\t" + row.help,
                                  [&playback, &row](const ScriptCall& call) {
                                      call.refuseMoreThan(row.usage);
                                      return row.obey(*playback, call);
                                  });
        assert(why.empty());
    }
}

std::string ordersHelp() {
    std::string text;
    for (const auto& row : rows)
        text += "  " + std::string(row.usage) + "\n      " + row.help + "\n";
    return text;
}

} // namespace uvahost
