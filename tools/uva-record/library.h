#ifndef UVA_RECORD_LIBRARY_H
#define UVA_RECORD_LIBRARY_H

#include "uva/uva_media_backend.h"

class UVAClient;
using GError = struct _GError;

#define UVA_RECORD_EXPORT __attribute__((visibility("default")))

// The functions of a backend library, of which this one stands before another: the one that
// UVA_RecordLibrary() or UVA_RECORD_LIBRARY names, else libuvagstbackend.so. With UVA_RECORD in the
// environment what passes is recorded in that file; without it, or when it cannot be written,
// nothing is between host and library.
extern "C" {

UVA_RECORD_EXPORT UVAMediaBackend* UVA_RequestBackend(UVABackend::UVABackendType type,
                                                      UVAClient* client) noexcept;
UVA_RECORD_EXPORT bool UVA_ReleaseBackend(UVAMediaBackend* backend) noexcept;
UVA_RECORD_EXPORT bool BackendInit(GError** error) noexcept;
UVA_RECORD_EXPORT void BackendTerm() noexcept;

/// Which library to load; before the first of the functions above.
UVA_RECORD_EXPORT void UVA_RecordLibrary(const char* path) noexcept;
}

#endif
