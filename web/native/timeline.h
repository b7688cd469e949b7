#ifndef UVA_NATIVE_TIMELINE_H
#define UVA_NATIVE_TIMELINE_H

#include <napi.h>

namespace uva_native {

/// The page's part of the time line, for JavaScript: `timeline` with `begin`, `nameTrack`, `record`
/// and `flush`. Bound to Node's thread.
Napi::Object defineTimeline(Napi::Env env);

} // namespace uva_native

#endif
