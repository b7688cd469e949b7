// Samples whose accessors answer anything, and something else the next time: they are read, queued
// and decrypted without a crash, what is no range of a sample is not touched, and all of them are
// given back. Input: what content protection does, then the samples.

#include "base/gst_ptr.h"
#include "gst_once.h"
#include "input.h"
#include "mse/media_source_group.h"
#include "mse/sample_decrypter.h"
#include "mse/sample_intake.h"
#include "mse/sample_queue.h"
#include "uva/uva_drm_backend.h"
#include "uva/uva_sample.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>; ///< of exactly the size: the first byte behind is noticed

constexpr uint8_t mask = 0x5a;
int samplesAlive = 0;

/// Inverts some bits; or refuses, throws, has no decrypter, as the input says.
class Drm final : public UVADRMBackend, UVADRMFullSampleDecrypter {
public:
    enum Mode : uint8_t { WholeSamples = 1, NoDecrypter = 2, Refuses = 4, Throws = 8 };

    explicit Drm(uint8_t mode) : m_mode(mode) {}
    ~Drm() override { require(m_given == 0); }

    int createDecrypter(UVADRMDecrypter*& decrypter, const uint8_t* keyId, size_t keyIdSize,
                        uint64_t) override {
        require(std::count(keyId, keyId + keyIdSize, 0) >= 0); // reads all of it
        if ((m_mode & NoDecrypter) != 0)
            return 0;
        decrypter = new Decrypter(*this);
        ++m_given;
        return 1;
    }
    void releaseDecrypter(UVADRMDecrypter* decrypter) override {
        delete decrypter;
        --m_given;
    }
    void* getInterface(const char* name) override {
        const bool isWhole = std::strcmp(name, UVADRMFullSampleDecrypter::interfaceName) == 0;
        return isWhole && (m_mode & WholeSamples) != 0
                   ? static_cast<UVADRMFullSampleDecrypter*>(this)
                   : nullptr;
    }

private:
    class Decrypter final : public UVADRMDecrypter {
    public:
        explicit Decrypter(const Drm& drm) : m_drm(drm) {}
        int decrypt(const Input& input, const Output& output) override {
            require(input.size == output.size);
            return m_drm.change(output.data, output.size);
        }

    private:
        const Drm& m_drm;
    };

    int decrypt(UVADRMDecrypter*, const Sample& sample) override {
        for (const auto& range : sample.subsamples) {
            require(uint64_t{range.offset} + range.length <= sample.size);
            if (const int result = change(sample.data + range.offset, range.length))
                return result;
        }
        return 0;
    }
    int change(uint8_t* bytes, size_t size) const {
        if ((m_mode & Throws) != 0)
            throw std::runtime_error("thrown");
        std::for_each(bytes, bytes + size, [](uint8_t& byte) { byte ^= mask; });
        return (m_mode & Refuses) != 0 ? 1 : 0;
    }

    const uint8_t m_mode;
    int m_given = 0;
};

/// What an accessor says the first time, and what it says after that.
template <typename Value>
class Told {
public:
    Told(Value first, Value then) : m_first(first), m_then(then) {}
    Value get() const { return std::exchange(m_wasAsked, true) ? m_then : m_first; }

private:
    Value m_first, m_then;
    mutable bool m_wasAsked = false;
};

/// Sizes are huge, but for memory that is there.
class HostileSample final : public UVASample {
public:
    HostileSample(fuzz::Input& input, const UVAStreamConfig* config)
        : m_flags(input.byte()), m_payload(bytesOf(input)), m_config(config),
          m_pts(input.take<double>(), 1), m_duration(input.take<double>(), 1e300),
          m_dts(input.take<double>()), m_keyIdBytes(bytesOf(input)), m_ivBytes(bytesOf(input)),
          m_keyId(pointerTo(m_keyIdBytes), has(ForgetsKey) ? nullptr : pointerTo(m_keyIdBytes)) {
        m_map.resize(input.byte() % 8U);
        for (auto& entry : m_map)
            input.read(entry);
        ++samplesAlive;
    }
    ~HostileSample() override { --samplesAlive; }

    const uint8_t* payload() const override { return pointerTo(m_payload); }
    size_t payloadSize() const override { return sizeOf(m_payload); }
    double pts() const override { return m_pts.get(); }
    double dts() const override { return m_dts; }
    double duration() const override { return m_duration.get(); }
    const UVAStreamConfig* config() const override { return m_config; }
    const uint8_t* keyId() const override { return m_keyId.get(); }
    size_t keyIdSize() const override { return sizeOf(m_keyIdBytes); }
    const uint8_t* iv() const override { return pointerTo(m_ivBytes); }
    size_t ivSize() const override { return sizeOf(m_ivBytes); }
    const std::vector<Subsample>& subsamples() const override { return m_map; }

private:
    enum Flags : uint8_t { ForgetsKey = 1, Huge = 2 };

    static Bytes bytesOf(fuzz::Input& input) {
        const auto text = input.text(input.byte());
        return {text.begin(), text.end()};
    }
    bool has(Flags flag) const { return (m_flags & flag) != 0; }
    static const uint8_t* pointerTo(const Bytes& bytes) {
        return bytes.empty() ? nullptr : bytes.data();
    }
    size_t sizeOf(const Bytes& bytes) const {
        return bytes.empty() && has(Huge) ? SIZE_MAX / 2 : bytes.size();
    }

    const uint8_t m_flags;
    const Bytes m_payload;
    const UVAStreamConfig* const m_config;
    const Told<double> m_pts, m_duration;
    const double m_dts;
    const Bytes m_keyIdBytes, m_ivBytes;
    const Told<const uint8_t*> m_keyId;
    std::vector<Subsample> m_map;
};

const UVAStreamConfig* configOf(fuzz::Input& input, UVAStreamConfig& own) {
    constexpr int codecs[] = {1001, 1002, 1005, 1004, 2001, 2005, 2008, -1, 0};
    static const UVAStreamConfig::ColorInfo color{9, 1, 16, 9, 10};
    const auto row = input.byte();
    if (row >= std::size(codecs))
        return nullptr;
    own.codec = codecs[row];
    const auto flags = input.byte();
    for (int* number : {&own.sampleRate, &own.channels, &own.width, &own.height})
        *number = input.take<int16_t>();
    own.codecDataSize = (flags & 1) != 0 ? SIZE_MAX : 0;
    own.color = (flags & 2) != 0 ? &color : nullptr;
    return &own;
}

Bytes contentOf(GstBuffer* buffer) {
    Bytes bytes(gst_buffer_get_size(buffer));
    require(gst_buffer_extract(buffer, 0, bytes.data(), bytes.size()) == bytes.size());
    return bytes;
}

/// What no range covers stays, and so does all of a buffer that cannot be decrypted.
void decrypt(SampleDecrypter& decrypter, GstBuffer* buffer) {
    const auto* meta = gst_buffer_get_content_protection_meta(buffer);
    if (meta == nullptr)
        return;
    const GArray* ranges = meta->subsamples;
    Bytes expected = contentOf(buffer);
    const Bytes before = expected;
    for (guint i = 0; ranges != nullptr && i < ranges->len; ++i) {
        const auto& range = g_array_index(ranges, GstUvaSubsample, i);
        for (size_t at = range.offset; at < size_t{range.offset} + range.length; ++at) {
            if (at >= expected.size())
                break;
            expected[at] ^= mask;
        }
    }
    const bool decrypted = decrypter.decrypt(buffer);
    require(contentOf(buffer) == (decrypted ? expected : before));
    require(decrypted == (gst_buffer_get_content_protection_meta(buffer) == nullptr));
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::startGst();
    fuzz::Input input(data, size);
    Drm drm(input.byte());
    const auto settings = input.byte();
    {
        MediaSourceGroup group;
        auto keySystem = std::make_shared<MediaSourceGroup::KeySystem>();
        keySystem->id.reset((settings & 1) != 0 ? strdup("org.test") : nullptr);
        keySystem->drm = (settings & 2) != 0 ? &drm : nullptr;
        if ((settings & 4) == 0)
            group.setKeySystem(std::move(keySystem));
        SampleIntake intake(group);
        SampleDecrypter decrypter(group);
        SampleQueue queue;
        std::vector<std::unique_ptr<UVAStreamConfig>> configs;
        while (input.size() > 0) {
            std::vector<UVASample*> slots;
            for (auto count = input.byte() % 4U; count > 0; --count) {
                auto& own = configs.emplace_back(std::make_unique<UVAStreamConfig>());
                slots.push_back(new HostileSample(input, configOf(input, *own)));
            }
            slots.push_back(nullptr);
            auto batch = intake.read(slots.data());
            require(std::count(slots.begin(), slots.end(), nullptr) ==
                    static_cast<std::ptrdiff_t>(slots.size()));
            for (auto& sample : batch.samples) {
                if (sample.buffer && sample.caps)
                    queue.pushCaps(std::move(sample.caps));
                if (sample.buffer)
                    queue.pushBuffer(std::move(sample.buffer));
                if (queue.noteTimes(sample.pts, sample.duration))
                    group.agreeOnStart(sample.pts);
            }
            if (queue.lastEnd() != GST_CLOCK_TIME_NONE)
                require(queue.firstStart() <= queue.lastEnd());
        }
        intake.frameRate();
        while (queue.size() > 0) {
            const auto queued = queue.bytes();
            const auto item = queue.pop();
            const bool isBuffer = GST_IS_BUFFER(item.get());
            const auto own = isBuffer ? gst_buffer_get_size(GST_BUFFER_CAST(item.get())) : 0;
            require(queue.bytes() == queued - own);
            if (isBuffer)
                decrypt(decrypter, GST_BUFFER_CAST(item.get()));
        }
        require(queue.bytes() == 0);
    }
    require(samplesAlive == 0);
    return 0;
}
