#ifndef UVA_NATIVE_ADDON_DATA_H
#define UVA_NATIVE_ADDON_DATA_H

#include <napi.h>

namespace uva_native {

/// What one environment of Node - the main one, a worker's - has of the add-on.
struct AddonData {
    Napi::FunctionReference frameBatch; ///< the class, which pages do not see
};

} // namespace uva_native

#endif
