#ifndef UVA_KEY_SYSTEM_CONFIG_H
#define UVA_KEY_SYSTEM_CONFIG_H

#include <cstdint>

/// Which key system protects the media, and the host's handle on it. A plain value; the text
/// belongs to the caller and need only live for the call.
struct UVAKeySystemConfig {
    const char* keySystemId = nullptr; ///< NUL-terminated identifier, e.g. "org.w3.clearkey"
    unsigned int flags = 0;            ///< the identifier counts only when this is 0
    std::uint64_t client = 0;          ///< the host's handle on the session owner
    std::int32_t value = 0;            ///< host-defined, passed through
};

#endif
