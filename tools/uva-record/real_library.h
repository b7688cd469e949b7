#ifndef UVA_RECORD_REAL_LIBRARY_H
#define UVA_RECORD_REAL_LIBRARY_H

#include "uva/uva_media_backend.h"

class UVAClient;
using GError = struct _GError;

namespace record {

/// The backend library that is recorded, loaded when it is first asked for something; it stays.
/// When it cannot be loaded, standard error says why, and every answer is "no". Thread-safe.
class RealLibrary {
public:
    static void choose(const char* path); ///< before instance()
    static const RealLibrary& instance();

    UVAMediaBackend* request(UVABackend::UVABackendType type, UVAClient* client) const;
    bool release(UVAMediaBackend* backend) const;
    bool init(GError** error) const; ///< true when the library has no such function
    void term() const;

private:
    RealLibrary();
    template <typename Function>
    Function find(const char* name) const;

    void* const m_handle;
    UVAMediaBackend* (*const m_request)(UVABackend::UVABackendType type, UVAClient* client);
    bool (*const m_release)(UVAMediaBackend* backend);
    bool (*const m_init)(GError** error);
    void (*const m_term)();
};

} // namespace record

#endif
