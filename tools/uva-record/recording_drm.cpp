#include "recording_drm.h"

#include "operations.h"
#include "recorder.h"
#include "uva/uva_drm_backend.h"
#include "value.h"

#include <cstring>
#include <set>
#include <string>

namespace record {

namespace {

/// One question to the content protection, and its answer.
class Asked {
public:
    Asked(Recorder& recorder, std::uint32_t object, DrmOperation operation, const Encoder& body)
        : m_recorder(recorder), m_object(object), m_number(recorder.next()),
          m_code(static_cast<std::uint16_t>(operation)) {
        m_recorder.note(Kind::Ask, m_object, m_number, m_code, body);
    }
    void answered(const Encoder& body) const {
        m_recorder.note(Kind::Answer, m_object, m_number, m_code, body);
    }
    int answered(int result) const {
        Encoder body;
        body.integer(result);
        answered(body);
        return result;
    }
    std::uint32_t number() const { return m_number; }

private:
    Recorder& m_recorder;
    const std::uint32_t m_object;
    const std::uint32_t m_number;
    const std::uint16_t m_code;
};

class RecordingDecrypter final : public UVADRMDecrypter {
public:
    RecordingDecrypter(Recorder& recorder, std::uint32_t object, std::uint32_t name,
                       UVADRMDecrypter* hosts)
        : number(name), decrypter(hosts), m_recorder(recorder), m_object(object) {}

    int decrypt(const Input& input, const Output& output) override {
        Encoder body;
        body.id(number);
        body.bytes(input.iv, input.ivSize);
        body.integer(static_cast<std::int64_t>(input.size));
        for (const bool flag : {input.first, input.last, input.flag})
            body.boolean(flag);
        body.integer(static_cast<std::int64_t>(output.size));
        const Asked asked(m_recorder, m_object, DrmOperation::decrypt, body);
        return asked.answered(decrypter->decrypt(input, output));
    }

    const std::uint32_t number;
    UVADRMDecrypter* const decrypter; ///< the host's, which is given back to it

private:
    Recorder& m_recorder;
    const std::uint32_t m_object;
};

/// The host's content protection as backends find it.
class RecordingDrm final : public UVADRMBackend, UVADRMKeySlotGetter, UVADRMFullSampleDecrypter {
public:
    RecordingDrm(Recorder& recorder, UVADRMBackend& drm)
        : m_recorder(recorder), m_object(recorder.nextObject()), m_drm(drm) {}

    int createDecrypter(UVADRMDecrypter*& decrypter, const std::uint8_t* keyId,
                        std::size_t keyIdSize, std::uint64_t value) override {
        Encoder body;
        body.bytes(keyId, keyIdSize);
        body.integer(static_cast<std::int64_t>(value));
        const Asked asked(m_recorder, m_object, DrmOperation::createDecrypter, body);
        UVADRMDecrypter* made = nullptr;
        const int result = m_drm.createDecrypter(made, keyId, keyIdSize, value);
        if (made != nullptr)
            decrypter = new RecordingDecrypter(m_recorder, m_object, asked.number(), made);
        return asked.answered(result);
    }

    void releaseDecrypter(UVADRMDecrypter* decrypter) override {
        const std::unique_ptr<RecordingDecrypter> ours(&own(decrypter));
        Encoder body;
        body.id(ours->number);
        const Asked asked(m_recorder, m_object, DrmOperation::releaseDecrypter, body);
        m_drm.releaseDecrypter(ours->decrypter);
        asked.answered(Encoder());
    }

    void* getInterface(const char* name) override {
        Encoder body;
        body.text(name);
        const Asked asked(m_recorder, m_object, DrmOperation::getInterface, body);
        void* const found = replaced(name, m_drm.getInterface(name));
        Encoder answer;
        answer.boolean(found != nullptr);
        asked.answered(answer);
        return found;
    }

private:
    static RecordingDecrypter& own(UVADRMDecrypter* decrypter) {
        return static_cast<RecordingDecrypter&>(*decrypter);
    }

    void* replaced(const char* name, void* found) {
        if (found == nullptr)
            return nullptr;
        if (std::strcmp(name, UVADRMKeySlotGetter::interfaceName) == 0) {
            m_slots = static_cast<UVADRMKeySlotGetter*>(found);
            return static_cast<UVADRMKeySlotGetter*>(this);
        }
        if (std::strcmp(name, UVADRMFullSampleDecrypter::interfaceName) == 0) {
            m_whole = static_cast<UVADRMFullSampleDecrypter*>(found);
            return static_cast<UVADRMFullSampleDecrypter*>(this);
        }
        // It would be handed decrypters that are not its own.
        m_recorder.say(std::string("the content protection's interface ") + name +
                       " is not known here; it is kept from the library while a record is made");
        return nullptr;
    }

    int getKeySlot(UVADRMDecrypter* decrypter, std::uint32_t& slot) override {
        const auto& ours = own(decrypter);
        Encoder body;
        body.id(ours.number);
        const Asked asked(m_recorder, m_object, DrmOperation::getKeySlot, body);
        const int result = m_slots.load()->getKeySlot(ours.decrypter, slot);
        Encoder answer;
        answer.integer(result);
        answer.integer(slot);
        asked.answered(answer);
        return result;
    }

    int decrypt(UVADRMDecrypter* decrypter, const Sample& sample) override {
        const auto& ours = own(decrypter);
        Encoder body;
        body.id(ours.number);
        body.bytes(sample.iv, sample.ivSize);
        body.integer(static_cast<std::int64_t>(sample.size));
        body.list(2 * sample.subsamples.size());
        for (const auto& part : sample.subsamples) {
            body.integer(part.offset);
            body.integer(part.length);
        }
        const Asked asked(m_recorder, m_object, DrmOperation::decryptSample, body);
        return asked.answered(m_whole.load()->decrypt(ours.decrypter, sample));
    }

    Recorder& m_recorder;
    const std::uint32_t m_object;
    UVADRMBackend& m_drm;
    std::atomic<UVADRMKeySlotGetter*> m_slots{nullptr};
    std::atomic<UVADRMFullSampleDecrypter*> m_whole{nullptr};
};

/// Elements may use them as long as the process lives.
struct Offered {
    Mutex mutex; // that of libuva's register is taken under it
    std::set<UVADRMBackend*> recording GUARDED_BY(mutex);

    static Offered& instance() {
        static Offered& offered = *new Offered;
        return offered;
    }
};

} // namespace

void recordDrm(Recorder& recorder, const char* keySystemId) {
    auto& offered = Offered::instance();
    const MutexLock lock(offered.mutex);
    UVADRMBackend* const drm = UVA_FindDRMBackend(keySystemId);
    if (drm == nullptr || offered.recording.count(drm) > 0)
        return;
    auto* const recording = new RecordingDrm(recorder, *drm);
    offered.recording.insert(recording);
    UVA_OfferDRMBackend(keySystemId, recording);
}

} // namespace record
