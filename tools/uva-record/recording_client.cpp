#include "recording_client.h"

#include "argument_writer.h"
#include "uva/uva_event.h"

namespace record {

namespace {

/// Whether the host hands the event back.
bool isAnswered(UVAEvent::Type type) {
    return type == UVAEvent::NeedMSEData || type == UVAEvent::BackendResourceRequestAsync ||
           type == UVAEvent::CancelDataRequestsAsync || type == UVAEvent::CacheUpdateRequestAsync;
}

} // namespace

void RecordingClient::deliverEvent(UVAEvent* event) {
    const auto self = shared_from_this();
    if (event == nullptr)
        return m_client->deliverEvent(event);
    const std::uint32_t number = recorder.next();
    const auto type = event->type();
    if (isAnswered(type))
        identities.remember(event, number, lookOf(*event));
    nameComponents(*event);
    Encoder body;
    ArgumentWriter arguments(body, identities);
    putMembers(*event, body, arguments);
    recorder.note(Kind::Event, object, number, static_cast<std::uint16_t>(type), body);
    m_client->deliverEvent(event);
    recorder.note(Kind::Taken, object, number, static_cast<std::uint16_t>(type), {});
}

void RecordingClient::nameComponents(const UVAEvent& event) {
    if (event.type() != UVAEvent::MultiComponentChanged)
        return;
    for (const auto* component : static_cast<const MultiComponentChangedEvent&>(event).added)
        identities.remember(component, recorder.next());
}

} // namespace record
