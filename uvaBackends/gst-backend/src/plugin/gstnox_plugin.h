#ifndef GSTNOX_PLUGIN_H
#define GSTNOX_PLUGIN_H

#include "base/gstnox_debug.h"
#include "uva/uva_backend.h"

class UVAMediaBackend;

extern "C" {
/// A new backend of the given type for the client, or null when the type is unknown or the media
/// system could not be started (the reason is on standard output). The first request starts what
/// lives once per process. Ask from one host thread.
NOX_EXPORT UVAMediaBackend* UVA_RequestBackend(UVABackend::UVABackendType type,
                                               UVAClient* client) noexcept;

/// Destroys a backend; null is fine. Always true.
NOX_EXPORT bool UVA_ReleaseBackend(UVAMediaBackend* backend) noexcept;

/// Starts what lives once per process; true at once when that was done before. On failure the
/// error goes to `error` (may be null) and the next call tries again.
NOX_EXPORT bool BackendInit(GError** error) noexcept;

/// Stops what can be stopped again. What it stopped stays stopped for the life of the process.
NOX_EXPORT void BackendTerm() noexcept;
}

#endif
