#ifndef UVA_RECORD_RECORDING_SAMPLE_H
#define UVA_RECORD_RECORDING_SAMPLE_H

#include "recorder.h"
#include "uva/uva_sample.h"

#include <memory>

class NeedMSEDataEvent;

namespace record {

/// A sample of the host's in the library's hands: notes when that deletes it. Any thread.
class RecordingSample final : public UVASample {
public:
    RecordingSample(Recorder& recorder, std::uint32_t object, std::uint32_t number,
                    std::unique_ptr<UVASample> sample)
        : m_recorder(recorder), m_object(object), m_number(number), m_sample(std::move(sample)) {}
    ~RecordingSample() override;

    const std::uint8_t* payload() const override { return m_sample->payload(); }
    std::size_t payloadSize() const override { return m_sample->payloadSize(); }
    double pts() const override { return m_sample->pts(); }
    double dts() const override { return m_sample->dts(); }
    double duration() const override { return m_sample->duration(); }
    const UVAStreamConfig* config() const override { return m_sample->config(); }
    const std::uint8_t* keyId() const override { return m_sample->keyId(); }
    std::size_t keyIdSize() const override { return m_sample->keyIdSize(); }
    const std::uint8_t* iv() const override { return m_sample->iv(); }
    std::size_t ivSize() const override { return m_sample->ivSize(); }
    unsigned int cryptByteBlock() const override { return m_sample->cryptByteBlock(); }
    unsigned int skipByteBlock() const override { return m_sample->skipByteBlock(); }
    const std::vector<Subsample>& subsamples() const override { return m_sample->subsamples(); }

private:
    Recorder& m_recorder;
    const std::uint32_t m_object;
    const std::uint32_t m_number;
    const std::unique_ptr<UVASample> m_sample;
};

/// Notes the samples of an event that is handed back, and puts recording ones in their place.
void recordSamples(Recorder& recorder, std::uint32_t object, std::uint32_t eventNumber,
                   NeedMSEDataEvent& event);

} // namespace record

#endif
