#ifndef UVA_NATIVE_PARSER_H
#define UVA_NATIVE_PARSER_H

#include "host/segment_parser.h"

#include <napi.h>

#include <memory>

namespace uva_native {

/// A segment parser as JavaScript has it; see README.md. Bound to Node's thread.
class Parser final : public Napi::ObjectWrap<Parser> {
public:
    static Napi::Function define(Napi::Env env);

    explicit Parser(const Napi::CallbackInfo& info);
    ~Parser() override;

private:
    class Collector;

    Napi::Value append(const Napi::CallbackInfo& info);
    void reset(const Napi::CallbackInfo& info);
    Napi::Value state(const Napi::CallbackInfo& info);

    const std::unique_ptr<Collector> m_output;
    std::unique_ptr<host::SegmentParser> m_parser;
};

} // namespace uva_native

#endif
