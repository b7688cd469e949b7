#include "recording_sample.h"

#include "uva/uva_event.h"

#include <string>

namespace record {

namespace {

/// Of a protected sample: key, vector, pattern, and clear and encrypted bytes by turns.
void putProtection(const UVASample& sample, Encoder& out) {
    const std::uint8_t* const keyId = sample.keyId();
    if (keyId == nullptr)
        return out.null();
    const auto& subsamples = sample.subsamples();
    out.list(5);
    out.bytes(keyId, sample.keyIdSize());
    out.bytes(sample.iv(), sample.ivSize());
    out.integer(sample.cryptByteBlock());
    out.integer(sample.skipByteBlock());
    out.list(2 * subsamples.size());
    for (const auto& part : subsamples) {
        out.integer(part.clearBytes);
        out.integer(part.encryptedBytes);
    }
}

void noteUnread(Recorder& recorder, std::uint32_t object, std::uint32_t number,
                std::uint32_t eventNumber) {
    recorder.say("sample #" + std::to_string(number) +
                 " threw when it was read: it is recorded without payload and times");
    Encoder body;
    body.id(eventNumber);
    body.id(0);
    for (int unknown = 0; unknown < 3; ++unknown)
        body.real(-1);
    body.null();
    body.null();
    recorder.note(Kind::Sample, object, number, 0, body);
}

void noteSample(Recorder& recorder, std::uint32_t object, std::uint32_t number,
                std::uint32_t eventNumber, const UVASample& sample) {
    const auto* const config = sample.config();
    const std::uint32_t configNumber = config != nullptr ? recorder.config(object, *config) : 0;
    const std::size_t size = sample.payloadSize();
    const std::uint8_t* const payload = size > 0 ? sample.payload() : nullptr;
    const bool isFull = recorder.payloads == Payloads::Full;
    Encoder body;
    body.id(eventNumber);
    body.id(configNumber);
    body.real(sample.pts());
    body.real(sample.dts());
    body.real(sample.duration());
    if (payload == nullptr)
        body.null();
    else if (isFull)
        body.integer(static_cast<std::int64_t>(size)); // Data follows
    else
        body.digest(size, digestOf(payload, size));
    putProtection(sample, body);
    recorder.note(Kind::Sample, object, number, 0, body);
    if (payload != nullptr && isFull)
        recorder.data(object, number, payload, size);
}

} // namespace

RecordingSample::~RecordingSample() {
    m_recorder.note(Kind::Freed, m_object, m_number, 0, {});
}

void recordSamples(Recorder& recorder, std::uint32_t object, std::uint32_t eventNumber,
                   NeedMSEDataEvent& event) {
    for (auto** slot = event.samples; slot != nullptr && *slot != nullptr; ++slot) {
        const std::uint32_t number = recorder.next();
        try {
            noteSample(recorder, object, number, eventNumber, **slot);
        } catch (...) { // what comes of it is between host and library
            noteUnread(recorder, object, number, eventNumber);
        }
        *slot = new RecordingSample(recorder, object, number, std::unique_ptr<UVASample>(*slot));
    }
}

} // namespace record
