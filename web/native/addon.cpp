#include "addon_data.h"
#include "arguments.h"
#include "frame_batch.h"
#include "parser.h"
#include "player.h"
#include "player_core.h"
#include "runtime.h"
#include "timeline.h"

#include <napi.h>

#include <chrono>
#include <cstdlib>

namespace uva_native {

namespace {

using Info = Napi::CallbackInfo;

Napi::Value canPlayType(const Info& info) {
    const auto answer =
        Runtime::instance().canPlayType(Arguments(info, "canPlayType").text(0, "type"));
    auto object = Napi::Object::New(info.Env());
    object.Set("canPlay", answer.canPlay);
    object.Set("reason", answer.reason);
    return object;
}

void addKey(const Info& info) {
    const Arguments arguments(info, "addKey");
    const auto session = arguments.count(0, "session");
    Runtime::instance().keys().add(session, {arguments.key(1, "id"), arguments.key(2, "key")});
}

void removeKeys(const Info& info) {
    const Arguments arguments(info, "removeKeys");
    const auto session = arguments.count(0, "session");
    if (arguments.has(1))
        Runtime::instance().keys().remove(session, arguments.key(1, "id"));
    else
        Runtime::instance().keys().removeAll(session);
}

Napi::Value hasKey(const Info& info) {
    const Arguments arguments(info, "hasKey");
    const auto session = arguments.count(0, "session");
    return Napi::Boolean::New(info.Env(),
                              Runtime::instance().keys().has(session, arguments.keyId(1, "id")));
}

Napi::Value environment(const Info& info) {
    const auto& runtime = Runtime::instance();
    const char* const library = std::getenv("UVA_BACKEND_LIBRARY");
    auto object = Napi::Object::New(info.Env());
    object.Set("library", library != nullptr ? library : "libuvagstbackend.so");
    object.Set("loaded", runtime.library() != nullptr);
    object.Set("error", runtime.error());
    object.Set("version", UVA_VERSION);
    object.Set("mainSystem", std::getenv("NOX_GST_STANDALONE") == nullptr);
    return object;
}

/// Environments are not always torn down: process.exit() goes without.
void releaseAtExit() {
    PlayerCore::releaseAll(std::chrono::seconds(3));
}

Napi::Object load(Napi::Env env, Napi::Object exports) {
    static const int registered = std::atexit(releaseAtExit);
    static_cast<void>(registered);
    auto* const data = new AddonData; // the environment's
    data->frameBatch = Napi::Persistent(FrameBatch::define(env));
    env.SetInstanceData(data);
    exports.Set("SegmentParser", Parser::define(env));
    exports.Set("Player", Player::define(env));
    exports.Set("canPlayType", Napi::Function::New<canPlayType>(env, "canPlayType"));
    exports.Set("addKey", Napi::Function::New<addKey>(env, "addKey"));
    exports.Set("removeKeys", Napi::Function::New<removeKeys>(env, "removeKeys"));
    exports.Set("hasKey", Napi::Function::New<hasKey>(env, "hasKey"));
    exports.Set("timeline", defineTimeline(env));
    exports.Set("environment", Napi::Function::New<environment>(env, "environment"));
    return exports;
}

} // namespace

} // namespace uva_native

static Napi::Object loadAddon(Napi::Env env, Napi::Object exports) {
    return uva_native::load(env, exports);
}

NODE_API_MODULE(uva_native, loadAddon)
