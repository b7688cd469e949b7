#ifndef GSTNOX_PLUGIN_H
#define GSTNOX_PLUGIN_H

#include "uva/uva_backend.h"

#include <gst/gst.h>

class UVAMediaBackend;

/// Seen from outside the library; the linker's export list names the same symbols.
#define NOX_EXPORT __attribute__((visibility("default")))

/// Debug categories of the backend, created by BackendInit(); null before.
extern "C" {
NOX_EXPORT extern GstDebugCategory* gst_backend_debug;   ///< "uvabackend"
NOX_EXPORT extern GstDebugCategory* gst_backendif_debug; ///< "uvabackendif"
NOX_EXPORT extern GstDebugCategory* gst_mshell_debug;    ///< "uvamshell"
NOX_EXPORT extern GstDebugCategory* gst_dbglayer_debug;  ///< "uvadbg"

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
