#include "frame_batch.h"

#include "addon_data.h"

#include <utility>

namespace uva_native {

namespace {

constexpr napi_type_tag batchTag{0x5f0c7d1e2b6a4938, 0x9d84e2a17c3f5b60};

/// Type tags are not in node-addon-api before 5.1.
void check(Napi::Env env, napi_status status) {
    if (status != napi_ok)
        throw Napi::Error::New(env);
}

} // namespace

Napi::Function FrameBatch::define(Napi::Env env) {
    return DefineClass(env, "FrameBatch", {});
}

Napi::Object FrameBatch::make(Napi::Env env, std::vector<host::CodedFrame> frames) {
    auto object = env.GetInstanceData<AddonData>()->frameBatch.New({});
    check(env, napi_type_tag_object(env, object, &batchTag));
    Unwrap(object)->adopt(std::move(frames));
    return object;
}

FrameBatch* FrameBatch::of(const Napi::Value& value) {
    if (!value.IsObject())
        return nullptr;
    bool isBatch = false;
    check(value.Env(), napi_check_object_type_tag(value.Env(), value, &batchTag, &isBatch));
    return isBatch ? Unwrap(value.As<Napi::Object>()) : nullptr;
}

FrameBatch::FrameBatch(const Napi::CallbackInfo& info) : ObjectWrap(info) {}

/// Node collects garbage by what it believes that is worth.
void FrameBatch::adopt(std::vector<host::CodedFrame> frames) {
    m_frames = std::move(frames);
    for (const auto& frame : m_frames)
        m_bytes += static_cast<std::int64_t>(frame.sample.size);
    Napi::MemoryManagement::AdjustExternalMemory(Env(), m_bytes);
}

FrameBatch::~FrameBatch() {
    if (m_bytes > 0)
        Napi::MemoryManagement::AdjustExternalMemory(Env(), -m_bytes);
}

bool FrameBatch::has(std::size_t index) const {
    return index < m_frames.size() && m_frames[index].sample.payload != nullptr;
}

host::SampleData FrameBatch::take(std::size_t index) {
    return std::exchange(m_frames[index].sample, {});
}

} // namespace uva_native
