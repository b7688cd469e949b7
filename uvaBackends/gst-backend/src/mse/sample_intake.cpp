#include "mse/sample_intake.h"

#include "base/gstnox_debug.h"
#include "base/gstnox_time.h"
#include "codec/codeccaps.h"
#include "mse/media_source_group.h"
#include "mse/uva_gstcontentprotection.h"
#include "uva/uva_sample.h"

#include <algorithm>
#include <cstring>
#include <optional>

#define GST_CAT_DEFAULT gst_backend_debug

namespace {

/// Nanoseconds; none for what is negative, not a number, or beyond 64 bits with a sign.
GstClockTime toClockTime(double seconds) {
    constexpr double limit = 9223372036854775808.0; // 2^63
    const double nanoseconds = seconds * nanosecondsPerSecond;
    return nanoseconds >= 0 && nanoseconds < limit ? static_cast<GstClockTime>(nanoseconds)
                                                   : GST_CLOCK_TIME_NONE;
}

void deleteSample(gpointer sample) {
    delete static_cast<UVASample*>(sample);
}

/// The encrypted runs of the sample as ranges. One that begins beyond 32 bits is outside any
/// sample, and stays so.
GArray* subsampleRanges(const std::vector<UVASample::Subsample>& subsamples) {
    constexpr guint room = 5;
    GArray* ranges = g_array_sized_new(FALSE, FALSE, sizeof(GstUvaSubsample), room);
    guint64 offset = 0;
    for (const auto& entry : subsamples) {
        offset += entry.clearBytes;
        if (entry.encryptedBytes == 0)
            continue;
        const GstUvaSubsample range = {static_cast<guint32>(std::min<guint64>(offset, G_MAXUINT32)),
                                       entry.encryptedBytes};
        g_array_append_val(ranges, range);
        offset += entry.encryptedBytes;
    }
    return ranges;
}

void protect(GstBuffer* buffer, const UVASample& sample,
             const MediaSourceGroup::KeySystem* keySystem) {
    GST_LOG("encrypted data");
    if (keySystem == nullptr || keySystem->drm == nullptr) {
        GST_ERROR("***E: no DRM backend set");
        return;
    }
    gst_buffer_add_content_protection_meta(
        buffer, keySystem->id.get(), sample.keyId(), sample.keyIdSize(), sample.iv(),
        sample.ivSize(), subsampleRanges(sample.subsamples()), FALSE, keySystem->drm);
}

/// From the durations of the first video samples: a fraction, 0/1 when they do not tell, 0/0 for
/// others.
std::pair<int, int> estimateFrameRate(UVASample** slots) {
    const UVASample* first = *slots;
    if (first == nullptr || first->config() == nullptr ||
        UVAStreamConfig::av(first->config()->codec) != UVAStreamConfig::VIDEO_STREAM)
        return {0, 0};
    double total = 0;
    int count = 0;
    bool known = true;
    for (; *slots != nullptr; ++slots, ++count) {
        const double duration = (*slots)->duration();
        known = known && duration >= 0;
        total += duration;
    }
    std::pair<int, int> estimate{0, 1};
    if (known && total != 0)
        gst_util_double_to_fraction(count / total, &estimate.first, &estimate.second);
    return estimate;
}

GstPtr<GstCaps> makeCaps(const UVAStreamConfig& config, std::pair<int, int> frameRate) {
    auto caps = GstPtr<GstCaps>::adopt(gst_caps_create_from_config(&config));
    if (!caps || config.codec != UVAStreamConfig::CODEC_VP9 || frameRate.second == 0)
        return caps;
    GstStructure* structure = gst_caps_get_structure(caps.get(), 0);
    if (!gst_structure_has_field(structure, "framerate"))
        gst_structure_set(structure, "framerate", GST_TYPE_FRACTION, frameRate.first,
                          frameRate.second, nullptr);
    return caps;
}

} // namespace

/// A stream configuration by value, to see whether the next sample's is the same, and its caps.
struct SampleIntake::Format {
    Format(const UVAStreamConfig& config, std::pair<int, int> frameRate)
        : caps(makeCaps(config, frameRate)), codec(config.codec), sampleRate(config.sampleRate),
          channels(config.channels), width(config.width), height(config.height) {
        if (config.codecData != nullptr)
            codecData.assign(config.codecData, config.codecData + config.codecDataSize);
        if (config.color != nullptr)
            color = *config.color;
        if (config.mastering != nullptr)
            mastering = *config.mastering;
    }

    bool matches(const UVAStreamConfig& c) const {
        return codec == c.codec && sampleRate == c.sampleRate && channels == c.channels &&
               width == c.width && height == c.height && sameCodecData(c) &&
               areSame(color, c.color) && areSame(mastering, c.mastering);
    }

    const GstPtr<GstCaps> caps;

private:
    bool sameCodecData(const UVAStreamConfig& c) const {
        const std::size_t size = c.codecData != nullptr ? c.codecDataSize : 0;
        return codecData.size() == size &&
               (size == 0 || std::memcmp(codecData.data(), c.codecData, size) == 0);
    }
    /// Numbers alone: there is nothing between them.
    template <typename Numbers>
    static bool areSame(const std::optional<Numbers>& kept, const Numbers* others) {
        return kept.has_value() == (others != nullptr) &&
               (!kept || std::memcmp(&*kept, others, sizeof *others) == 0);
    }

    const int codec, sampleRate, channels, width, height;
    std::vector<guint8> codecData;
    std::optional<UVAStreamConfig::ColorInfo> color;
    std::optional<UVAStreamConfig::MasteringMetadata> mastering;
};

SampleIntake::SampleIntake(MediaSourceGroup& group) : m_group(group) {}

SampleIntake::~SampleIntake() = default;

struct SampleIntake::Context {
    std::pair<int, int> frameRate;
    std::shared_ptr<const Format> format; // of the sample before
    std::shared_ptr<const Format> told;   // whose caps the batch has last
    const std::shared_ptr<const MediaSourceGroup::KeySystem> keySystem;
};

SampleIntake::Batch SampleIntake::read(UVASample** slots) {
    Context context{{}, nullptr, nullptr, m_group.keySystem()};
    {
        const GLibLock lock(m_lock);
        context.frameRate = m_frameRate;
        context.format = m_format;
    }
    if (context.frameRate.second == 0)
        context.frameRate = estimateFrameRate(slots);
    Batch batch;
    std::size_t count = 0;
    while (slots[count] != nullptr)
        ++count;
    batch.samples.reserve(count);
    for (; *slots != nullptr; ++slots) {
        std::unique_ptr<UVASample> sample(std::exchange(*slots, nullptr));
        batch.bytes += sample->payloadSize();
        batch.samples.push_back(take(std::move(sample), context));
    }
    const GLibLock lock(m_lock);
    m_frameRate = context.frameRate;
    m_format.swap(context.format);
    return batch;
}

SampleIntake::Sample SampleIntake::take(std::unique_ptr<UVASample> sample, Context& context) {
    Sample taken{nullptr, nullptr, toClockTime(sample->pts()), toClockTime(sample->duration())};
    noteFormat(sample->config(), context);
    const gsize size = sample->payloadSize();
    const guint8* payload = sample->payload();
    if (payload == nullptr || size == 0)
        return taken;
    if (context.format != context.told) {
        context.told = context.format;
        taken.caps = context.format->caps;
    }
    UVASample* kept = sample.release();
    taken.buffer = GstPtr<GstBuffer>::adopt(gst_buffer_new_wrapped_full(
        GST_MEMORY_FLAG_READONLY, const_cast<guint8*>(payload), size, 0, size, kept, deleteSample));
    GstBuffer* buffer = taken.buffer.get();
    GST_BUFFER_PTS(buffer) = taken.pts;
    GST_BUFFER_DTS(buffer) = toClockTime(kept->dts());
    GST_BUFFER_DURATION(buffer) = taken.duration;
    if (kept->keyId() != nullptr)
        protect(buffer, *kept, context.keySystem.get());
    return taken;
}

/// Made anew only when the configuration differs from the sample's before.
void SampleIntake::noteFormat(const UVAStreamConfig* config, Context& context) {
    if (config != nullptr && (context.format == nullptr || !context.format->matches(*config)))
        context.format = std::make_shared<const Format>(*config, context.frameRate);
}

std::pair<int, int> SampleIntake::frameRate() {
    const GLibLock lock(m_lock);
    return m_frameRate;
}
