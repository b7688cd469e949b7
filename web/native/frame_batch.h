#ifndef UVA_NATIVE_FRAME_BATCH_H
#define UVA_NATIVE_FRAME_BATCH_H

#include "host/segment_parser.h"

#include <napi.h>

#include <vector>

namespace uva_native {

/// Frames between the parser and a track buffer: JavaScript holds them as an object of which it
/// knows nothing, and decides about each by its index. Bound to Node's thread.
class FrameBatch final : public Napi::ObjectWrap<FrameBatch> {
public:
    static Napi::Function define(Napi::Env env);
    static Napi::Object make(Napi::Env env, std::vector<host::CodedFrame> frames);
    /// Null: it is something else.
    static FrameBatch* of(const Napi::Value& value);

    explicit FrameBatch(const Napi::CallbackInfo& info);
    ~FrameBatch() override;

    std::size_t size() const { return m_frames.size(); }
    /// Whether this frame is still to be had.
    bool has(std::size_t index) const;
    /// Once.
    host::SampleData take(std::size_t index);

private:
    void adopt(std::vector<host::CodedFrame> frames);

    std::vector<host::CodedFrame> m_frames;
    std::int64_t m_bytes = 0;
};

} // namespace uva_native

#endif
