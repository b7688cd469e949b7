#include "timeline.h"

#include "arguments.h"
#include "timeline/timeline.h"

#include <chrono>
#include <string>

namespace uva_native {

namespace {

using Info = Napi::CallbackInfo;

constexpr const char* category = "page";

/// begin([file]): a new file, or the one that the environment names. An empty text, or why not.
Napi::Value begin(const Info& info) {
    const Arguments arguments(info, "timeline.begin");
    return Napi::String::New(info.Env(), arguments.has(0)
                                             ? timeline::beginFile(arguments.text(0, "file"))
                                             : timeline::begin());
}

Napi::Value isOn(const Info& info) {
    return Napi::Boolean::New(info.Env(), timeline::isOn());
}

void nameTrack(const Info& info) {
    const Arguments arguments(info, "timeline.nameTrack");
    timeline::nameTrack(static_cast<int>(arguments.count(0, "track")),
                        arguments.text(1, "name").c_str());
}

/// Texts, numbers and truths.
void addArguments(timeline::Event& event, const Napi::Object& object) {
    const Napi::Array keys = object.GetPropertyNames();
    for (std::uint32_t i = 0; i < keys.Length(); ++i) {
        const Napi::Value key = keys[i];
        const Napi::Value value = object.Get(key);
        const std::string name = key.ToString().Utf8Value();
        if (value.IsNumber())
            event.with(name.c_str(), value.As<Napi::Number>().DoubleValue());
        else if (value.IsBoolean())
            event.with(name.c_str(), value.As<Napi::Boolean>().Value());
        else
            event.with(name.c_str(), value.ToString().Utf8Value());
    }
}

/// record(track, name, arguments[, kind[, since]]): a moment, the kind "counter", or what has
/// lasted since a time in microseconds of CLOCK_MONOTONIC.
void record(const Info& info) {
    if (!timeline::isOn())
        return;
    const Arguments arguments(info, "timeline.record");
    timeline::Place place{static_cast<int>(arguments.count(0, "track"))};
    const auto name = arguments.text(1, "name");
    const auto values = arguments.object(2, "arguments");
    const bool isSpan = arguments.has(4);
    const bool isCounter = arguments.has(3) && arguments.text(3, "kind") == "counter";
    if (isSpan) {
        const std::chrono::duration<double, std::micro> since(arguments.number(4, "since"));
        const auto now = place.time;
        place.time = timeline::Clock::time_point(
            std::chrono::duration_cast<timeline::Clock::duration>(since));
        auto event = timeline::span(category, name, place, now - place.time);
        addArguments(event, values);
    } else {
        timeline::Event event(isCounter ? 'C' : 'i', category, name, place);
        addArguments(event, values);
    }
}

/// An empty text, or why something is missing from the file.
Napi::Value flush(const Info& info) {
    return Napi::String::New(info.Env(), timeline::flush());
}

} // namespace

Napi::Object defineTimeline(Napi::Env env) {
    auto object = Napi::Object::New(env);
    object.Set("begin", Napi::Function::New<begin>(env, "begin"));
    object.Set("isOn", Napi::Function::New<isOn>(env, "isOn"));
    object.Set("nameTrack", Napi::Function::New<nameTrack>(env, "nameTrack"));
    object.Set("record", Napi::Function::New<record>(env, "record"));
    object.Set("flush", Napi::Function::New<flush>(env, "flush"));
    return object;
}

} // namespace uva_native
