#ifndef HOST_BACKEND_LIBRARY_H
#define HOST_BACKEND_LIBRARY_H

#include "uva/uva_media_backend.h"

#include <memory>
#include <string>

class UVAClient;

namespace host {

/// A backend library in this process. Once loaded it stays: its threads, and the code of the events
/// that it raised, may outlive every backend.
///
/// The two operations belong on the event loop's thread.
class BackendLibrary {
public:
    /// What load() answers.
    struct Loaded {
        std::shared_ptr<BackendLibrary> library; ///< null: see `error`
        std::string error;                       ///< what went wrong and what to do, one line
    };

    /// An empty path means the environment's UVA_BACKEND_LIBRARY, else the default name, which the
    /// dynamic linker looks for. With UVA_RECORD in the environment the recorder stands before it:
    /// UVA_RECORDER, else libuvarecord.so.
    static Loaded load(const std::string& path);

    /// UVA_RequestBackend of the library: null when it has none to give. The caller gives it back.
    UVAMediaBackend* request(UVABackend::UVABackendType type, UVAClient* client) const;
    /// UVA_ReleaseBackend of the library, with its answer. The backend is gone when it returns.
    bool release(UVAMediaBackend* backend) const;

private:
    using Request = UVAMediaBackend* (*)(unsigned int type, UVAClient* client);
    using Release = bool (*)(UVAMediaBackend* backend);

    static Loaded open(const std::string& name);
    static Loaded openRecorder(const std::string& library);

    BackendLibrary(Request requestBackend, Release releaseBackend)
        : m_request(requestBackend), m_release(releaseBackend) {}

    const Request m_request;
    const Release m_release;
};

} // namespace host

#endif
