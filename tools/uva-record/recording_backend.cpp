#include "recording_backend.h"

#include "argument_writer.h"
#include "recording_drm.h"
#include "recording_sample.h"
#include "uva/uva_event.h"

namespace record {

namespace {

/// What else is noted of an argument, or put in its place, before the call.
template <typename Argument>
void prepare(RecordingClient&, const Argument&) {}

void prepare(RecordingClient& client, UVAEvent* const& event) {
    if (event != nullptr && event->type() == UVAEvent::NeedMSEData)
        recordSamples(client.recorder, client.object,
                      client.identities.numberOf(event, lookOf(*event)),
                      static_cast<NeedMSEDataEvent&>(*event));
}
void prepare(RecordingClient& client, const UVAKeySystemConfig& config) {
    if (config.flags == 0)
        recordDrm(client.recorder, config.keySystemId);
}

/// What is known of an argument no more after the call.
template <typename Argument>
void release(RecordingClient&, const Argument&) {}

void release(RecordingClient& client, UVAEvent* const& event) {
    client.identities.forget(event); // the library has deleted it
}

} // namespace

template <typename Answer, typename... Parameters, typename... Arguments>
Answer RecordingBackend::handOn(Operation operation,
                                Answer (UVAMediaBackend::*method)(Parameters...),
                                Arguments&... arguments) {
    const auto client = m_client; // an event of this operation may release the backend
    const auto code = static_cast<std::uint16_t>(operation);
    Recorder& recorder = client->recorder;
    const std::uint32_t number = recorder.next();
    (prepare(*client, arguments), ...);
    {
        Encoder body;
        ArgumentWriter writer(body, client->identities);
        (writer.in<Parameters>(arguments), ...);
        recorder.note(Kind::Call, client->object, number, code, body);
    }
    (release(*client, arguments), ...);
    const Answer answer = (m_backend.*method)(arguments...);
    Encoder body;
    ArgumentWriter writer(body, client->identities);
    writer.put(answer);
    (writer.back<Parameters>(arguments), ...);
    recorder.note(Kind::Return, client->object, number, code, body);
    return answer;
}

#define OPERATION(key, answers, result, name, parameters, ...)                                     \
    result RecordingBackend::name parameters {                                                     \
        using Method = result(UVAMediaBackend::*) parameters;                                      \
        return handOn(Operation::key, static_cast<Method>(&UVAMediaBackend::name), ##__VA_ARGS__); \
    }
#include "operations.def"
#undef OPERATION

} // namespace record
