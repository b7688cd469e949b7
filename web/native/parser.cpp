#include "parser.h"

#include "arguments.h"
#include "frame_batch.h"
#include "host/clear_key.h"

#include <algorithm>
#include <cstring>
#include <variant>

namespace uva_native {

namespace {

constexpr std::uint8_t keyFrameFlag = 1;
constexpr std::uint8_t encryptedFlag = 2;

struct SegmentEnd {};
using Item = std::variant<host::InitSegment, host::InitData, std::vector<host::CodedFrame>,
                          host::EventMessage, SegmentEnd>;

/// Of what is clear, null.
Napi::Value keyIdOf(Napi::Env env, host::Protection::Scheme scheme, const host::KeyBytes& keyId) {
    if (scheme == host::Protection::Scheme::None)
        return env.Null();
    return Napi::String::New(env, host::hexText(keyId));
}

Napi::Uint8Array bytesOf(Napi::Env env, const std::vector<std::uint8_t>& bytes) {
    auto array = Napi::Uint8Array::New(env, bytes.size());
    if (!bytes.empty())
        std::memcpy(array.Data(), bytes.data(), bytes.size());
    return array;
}

Napi::Object typed(Napi::Env env, const char* type) {
    auto object = Napi::Object::New(env);
    object.Set("type", type);
    return object;
}

template <typename Element, typename Make>
Napi::Array arrayOf(Napi::Env env, const std::vector<Element>& elements, Make make) {
    auto array = Napi::Array::New(env, elements.size());
    for (std::uint32_t i = 0; i < elements.size(); ++i)
        array.Set(i, make(env, elements[i]));
    return array;
}

Napi::Object trackOf(Napi::Env env, const host::TrackDescription& track) {
    const bool isVideo = track.info.kind == host::StreamInfo::Kind::Video;
    auto object = Napi::Object::New(env);
    object.Set("id", track.id);
    object.Set("kind", isVideo ? "video" : "audio");
    object.Set("codec", track.codecs);
    object.Set("mimeType", track.info.mimeType);
    object.Set("language", track.language);
    object.Set("label", track.label);
    object.Set("keyId", keyIdOf(env, track.scheme, track.keyId));
    if (track.config == nullptr)
        return object;
    object.Set("width", track.config->width);
    object.Set("height", track.config->height);
    object.Set("sampleRate", track.config->sampleRate);
    object.Set("channels", track.config->channels);
    return object;
}

Napi::Object initDataOf(Napi::Env env, const host::InitData& initData) {
    auto object = typed(env, initData.type.c_str());
    object.Set("data", bytesOf(env, initData.data));
    return object;
}

Napi::Object objectOf(Napi::Env env, host::InitSegment& segment) {
    auto object = typed(env, "init");
    object.Set("duration", segment.duration);
    object.Set("tracks", arrayOf(env, segment.tracks, trackOf));
    object.Set("initData", arrayOf(env, segment.initData, initDataOf));
    return object;
}

Napi::Object objectOf(Napi::Env env, host::InitData& initData) {
    auto object = typed(env, "initData");
    object.Set("initData", arrayOf<host::InitData>(env, {initData}, initDataOf));
    return object;
}

bool isEncrypted(const host::CodedFrame& frame) {
    return frame.sample.protection.scheme != host::Protection::Scheme::None;
}

Napi::Value keyIdsOf(Napi::Env env, const std::vector<host::CodedFrame>& frames) {
    if (std::none_of(frames.begin(), frames.end(), isEncrypted))
        return env.Null();
    return arrayOf(env, frames, [](Napi::Env at, const host::CodedFrame& frame) {
        const auto& protection = frame.sample.protection;
        return keyIdOf(at, protection.scheme, protection.keyId);
    });
}

Napi::Object objectOf(Napi::Env env, std::vector<host::CodedFrame>& frames) {
    const auto count = frames.size();
    auto pts = Napi::Float64Array::New(env, count);
    auto dts = Napi::Float64Array::New(env, count);
    auto duration = Napi::Float64Array::New(env, count);
    auto size = Napi::Uint32Array::New(env, count);
    auto flags = Napi::Uint8Array::New(env, count);
    for (std::size_t i = 0; i < count; ++i) {
        const auto& sample = frames[i].sample;
        pts[i] = sample.pts;
        dts[i] = sample.dts;
        duration[i] = sample.duration;
        size[i] = static_cast<std::uint32_t>(sample.size);
        flags[i] = static_cast<std::uint8_t>((sample.keyFrame ? keyFrameFlag : 0) |
                                             (isEncrypted(frames[i]) ? encryptedFlag : 0));
    }
    auto object = typed(env, "frames");
    object.Set("track", frames.front().track);
    object.Set("pts", pts);
    object.Set("dts", dts);
    object.Set("duration", duration);
    object.Set("size", size);
    object.Set("flags", flags);
    object.Set("keyIds", keyIdsOf(env, frames));
    object.Set("batch", FrameBatch::make(env, std::move(frames)));
    return object;
}

Napi::Object objectOf(Napi::Env env, host::EventMessage& event) {
    auto object = typed(env, "event");
    object.Set("schemeIdUri", event.schemeIdUri);
    object.Set("value", event.value);
    object.Set("id", event.id);
    object.Set("presentationTime", event.presentationTime);
    object.Set("duration", event.duration);
    object.Set("data", bytesOf(env, event.data));
    return object;
}

Napi::Object objectOf(Napi::Env env, SegmentEnd& /*end*/) {
    return typed(env, "segmentEnd");
}

} // namespace

/// Keeps what the parser gives until append() has returned.
class Parser::Collector final : public host::SegmentParser::Output {
public:
    void onInit(host::InitSegment segment) override { m_items.emplace_back(std::move(segment)); }
    void onInitData(host::InitData data) override { m_items.emplace_back(std::move(data)); }
    void onFrames(std::vector<host::CodedFrame> frames) override {
        for (auto& run : byTrack(std::move(frames)))
            m_items.emplace_back(std::move(run));
    }
    void onEvent(host::EventMessage event) override { m_items.emplace_back(std::move(event)); }
    void onSegmentEnd() override { m_items.emplace_back(SegmentEnd{}); }

    Napi::Array take(Napi::Env env) {
        auto array = Napi::Array::New(env, m_items.size());
        std::uint32_t index = 0;
        for (auto& item : m_items)
            array.Set(index++, std::visit([&](auto& value) { return objectOf(env, value); }, item));
        m_items.clear();
        return array;
    }

private:
    /// Runs of frames of one track, in their order.
    static std::vector<std::vector<host::CodedFrame>>
    byTrack(std::vector<host::CodedFrame> frames) {
        std::vector<std::vector<host::CodedFrame>> runs;
        for (auto& frame : frames) {
            if (runs.empty() || runs.back().front().track != frame.track)
                runs.emplace_back();
            runs.back().push_back(std::move(frame));
        }
        return runs;
    }

    std::vector<Item> m_items;
};

Napi::Function Parser::define(Napi::Env env) {
    return DefineClass(env, "SegmentParser",
                       {InstanceMethod<&Parser::append>("append"),
                        InstanceMethod<&Parser::reset>("reset"),
                        InstanceAccessor<&Parser::state>("state")});
}

Parser::Parser(const Napi::CallbackInfo& info)
    : ObjectWrap(info), m_output(std::make_unique<Collector>()) {
    const Arguments arguments(info, "SegmentParser");
    const auto type = arguments.text(0, "type");
    m_parser = host::SegmentParser::make(type, *m_output);
    if (m_parser == nullptr)
        arguments.failType("there is no parser for \"" + type +
                           "\"; it takes audio and video in mp4 and webm");
}

Parser::~Parser() = default;

Napi::Value Parser::append(const Napi::CallbackInfo& info) {
    const auto bytes = Arguments(info, "SegmentParser.append").bytes(0, "bytes");
    const std::shared_ptr<std::uint8_t> copy(new std::uint8_t[bytes.size],
                                             std::default_delete<std::uint8_t[]>());
    std::copy(bytes.begin(), bytes.end(), copy.get());
    const auto fault = m_parser->append(copy, bytes.size);
    auto items = m_output->take(info.Env());
    if (fault.empty())
        return items;
    auto error = Napi::Error::New(info.Env(), fault);
    error.Set("items", items);
    throw Napi::Error(error);
}

void Parser::reset(const Napi::CallbackInfo& /*info*/) {
    m_parser->reset();
}

Napi::Value Parser::state(const Napi::CallbackInfo& info) {
    switch (m_parser->state()) {
    case host::SegmentParser::State::InitSegment:
        return Napi::String::New(info.Env(), "init");
    case host::SegmentParser::State::MediaSegment:
        return Napi::String::New(info.Env(), "media");
    case host::SegmentParser::State::Waiting:
        break;
    }
    return Napi::String::New(info.Env(), "waiting");
}

} // namespace uva_native
