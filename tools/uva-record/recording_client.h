#ifndef UVA_RECORD_RECORDING_CLIENT_H
#define UVA_RECORD_RECORDING_CLIENT_H

#include "recorder.h"
#include "uva/uva_client.h"

#include <memory>

namespace record {

/// What a backend that is recorded talks to in place of the host's client: notes its events and
/// hands them on. Keeps itself while an event is under way, which may be the backend's last. Any
/// thread.
class RecordingClient final : public UVAClient,
                              public std::enable_shared_from_this<RecordingClient> {
public:
    RecordingClient(Recorder& to, std::uint32_t backend, UVAClient* client)
        : recorder(to), object(backend), m_client(client) {}

    void deliverEvent(UVAEvent* event) override;

    Recorder& recorder;
    const std::uint32_t object; ///< the backend's number
    Identities identities;      ///< of events that are answered, and of components

private:
    void nameComponents(const UVAEvent& event);

    UVAClient* const m_client;
};

} // namespace record

#endif
