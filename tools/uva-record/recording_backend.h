#ifndef UVA_RECORD_RECORDING_BACKEND_H
#define UVA_RECORD_RECORDING_BACKEND_H

#include "operations.h"
#include "recording_client.h"
#include "uva/uva_media_backend.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace record {

/// A backend of the library in the host's hands: every operation is noted before it is handed on,
/// and once more with its answer. The threads are those of the backend.
class RecordingBackend final : public UVAMediaBackend {
public:
    /// The backend talks to this client.
    RecordingBackend(UVABackendType type, UVAMediaBackend& backend,
                     std::shared_ptr<RecordingClient> client)
        : UVAMediaBackend(type, client.get()), m_backend(backend), m_client(std::move(client)) {}

    UVAMediaBackend& backend() const { return m_backend; }
    const std::shared_ptr<RecordingClient>& client() const { return m_client; }

#define OPERATION(key, answers, result, name, parameters, ...) result name parameters override;
#include "operations.def"
#undef OPERATION

private:
    template <typename Answer, typename... Parameters, typename... Arguments>
    Answer handOn(Operation operation, Answer (UVAMediaBackend::*method)(Parameters...),
                  Arguments&... arguments);

    UVAMediaBackend& m_backend;
    const std::shared_ptr<RecordingClient> m_client;
};

} // namespace record

#endif
